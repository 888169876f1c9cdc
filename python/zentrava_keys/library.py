"""The loaded library, from which everything else comes."""

from __future__ import annotations

import ctypes
from typing import Optional

from . import _arguments as arguments
from ._arguments import BytesLike
from ._errors import check_driver
from ._native import Native, PathName
from .context import Context
from .engine import Engine
from .store import Store


class Library:
    """The key library, loaded.

    Which file is loaded: `path`, if one is given; else the one that the environment variable
    ZENTRAVA_KEYS_LIBRARY names; else libzentrava_keys.so.1, where the system's loader finds it.
    LibraryNotFoundError tells which it was if that fails. As always with the loader, a name
    without a slash is looked for in the system's directories, not in the current one.

        >>> keys = zentrava_keys.Library()
        >>> keys.path.endswith(".so.1")
        True

    store    the key store of the current directory
    engine   the elliptic-curve engine
    """

    def __init__(self, path: Optional[PathName] = None) -> None:
        self._native = Native(path)
        self.store = Store(self._native)
        self.engine = Engine(self._native)

    def __repr__(self) -> str:
        return f"<key library {self.path}>"

    @property
    def path(self) -> str:
        """The file that was loaded, as it was named."""
        return self._native.path

    def open(self, uid: str) -> Context:
        """Opens a context for a device (key_lib_open). Use it in a with statement.

            >>> with keys.open(uid) as device:
            ...     device
            <context of 0123456789abcdef0123456789abcdef, open>
        """
        return Context(self._native, uid)

    def tag(self, key: BytesLike, message: BytesLike) -> bytes:
        """The HMAC-SHA256 tag of a message under any key (_sha256_hmac); no context is needed.

            >>> keys.tag(bytes(32), b"Set valve 7 to 40 percent").hex()[:16]
            'a9a921946de54771'
        """
        limit = arguments.MAX_TAGGED_LENGTH
        sent = arguments.byte_string("message", message, max_length=limit)
        given = arguments.byte_string("key", key, max_length=limit)
        made = ctypes.create_string_buffer(arguments.TAG_LENGTH)
        check_driver("_sha256_hmac", self._native.call("_sha256_hmac", given, len(given), sent,
                                                       len(sent), made))
        return made.raw
