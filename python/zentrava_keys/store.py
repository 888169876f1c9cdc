"""The key store: the two files of the current directory, and the volatile keys."""

from __future__ import annotations

import ctypes
import threading
import xml.etree.ElementTree
from typing import Iterable, NamedTuple, Optional

from . import _arguments as arguments
from ._arguments import BytesLike
from ._errors import StoreUnreadableError, check_store
from ._native import Native

PRIVATE_FILE = "key_contents_prv.xml"
PUBLIC_FILE = "key_contents_pub.xml"

# The names under which a context loads its keys, apart from those of KTS slots.
KEY_NAMES = ("srk", "crk", "tmp_client_session_key", "ecdsa_prv", "ECDSA_DS_PuK", "ecdh_prv")

_HANDLE_CAPACITY = 128

# The library leaves it to its caller to keep changes of the volatile keys away from each other and
# from the operations that look at them. The volatile keys belong to the process.
_lock = threading.Lock()
_volatile_handles: set[str] = set()


class Description(NamedTuple):
    """What the store tells of a key beside the key itself; empty texts if there are none."""

    handle: str
    metadata: str


class Store:
    """The key store of the current directory; `Library.store` is one.

    The library reads and rewrites the files "key_contents_prv.xml" and "key_contents_pub.xml" and
    never makes them: `zentrava-keystore init` does. A failure is raised as StoreError; the cause is
    in the message that the library prints on file descriptor 1.

    Keys are found by UID and key name, or by their handle, a decimal number as a text. Keys to be
    added have 32 bytes, and their UID 32 characters.

        >>> with zentrava_keys.working_in("bench"):
        ...     keys.store.copy(uid, "srk", "srk_backup")
        ...     keys.store.get(uid, "srk_backup") == keys.store.get(uid, "srk")
        ...     keys.store.present(uid, ["srk", "srk_backup", "crk"])
        ...     keys.store.delete(uid, "srk_backup")
        True
        ['srk', 'srk_backup']
    """

    def __init__(self, native: Native) -> None:
        self._native = native

    # ---- Adding

    def add(self, uid: str, key_name: str, key: BytesLike, *, metadata: Optional[str] = None,
            private: bool = True, replace: bool = False) -> None:
        """Adds a key to the private file, or to the public one (add_nonvolatile_based_key).

        Takes five seconds: the library sleeps before it returns.

        With `replace`, a key of this UID and name in this file is replaced, and keeps its handle.
        The library reports a replacement as it reports a failure; the two are told apart by
        reading the key back. A failure that leaves the very same key in place, with other metadata
        than was wanted, is therefore not noticed.
        """
        text = _stored_key(key)
        given = (_new_uid(uid), _key_name(key_name))
        noted = None if metadata is None else arguments.text("metadata", metadata)
        with _lock:
            result = self._native.call("add_nonvolatile_based_key", *given, text, noted, private,
                                       replace)
        if result != 0 and replace:
            reader = "export_prv_key_in_clear_as_hex" if private else "read_public_key_as_hex"
            if self._read(reader, *given, capacity=len(text) + 1) == (0, text):
                return
        check_store("add_nonvolatile_based_key", result)

    def add_volatile(self, key: BytesLike) -> str:
        """Adds a key that lives in memory and is found by its handle only; the handle.

        (add_volatile_key.) The key may have any length.
        """
        text = arguments.byte_string("key", key).hex().encode("ascii")
        return self._add_volatile("add_volatile_key", text)

    def add_volatile_named(self, uid: str, key_name: str, key: BytesLike, *,
                           metadata: Optional[str] = None) -> str:
        """Adds a key with UID and name that lives in memory; its handle (add_volatile_based_key).

        It is never replaced, and is deleted by its handle.
        """
        text = _stored_key(key)
        noted = None if metadata is None else arguments.text("metadata", metadata)
        return self._add_volatile("add_volatile_based_key", _new_uid(uid), _key_name(key_name),
                                  text, noted)

    # ---- Changing

    def copy(self, uid: str, key_name: str, copy_name: str) -> None:
        """Copies a key of the private file under another name (copy_private_key).

        The copy has a handle of its own and no metadata.
        """
        self._change("copy_private_key", arguments.uid_text(uid), _key_name(key_name),
                     arguments.text("copy_name", copy_name))

    def overwrite_srk(self, uid: str, handle: str) -> None:
        """Overwrites "srk" by another key of the private file (set_new_srk_key_data_for_uid)."""
        self._change("set_new_srk_key_data_for_uid", arguments.uid_text(uid),
                     arguments.text("handle", handle))

    def delete(self, uid: str, key_name: str) -> None:
        """Deletes a key from the private file or else the public one (delete_key_by_key_type)."""
        self._change("delete_key_by_key_type", arguments.uid_text(uid), _key_name(key_name))

    def delete_by_handle(self, handle: str) -> None:
        """Deletes a volatile key, or a key of the public or else the private file, by its handle.

        (delete_key_by_handle.) The C function does not come back from a file that it cannot read,
        or leaves the store locked for good. So both files are read by Python first, unless the
        handle is that of a volatile key added from Python; StoreUnreadableError is raised, and
        nothing done, if one of them is missing or damaged.
        """
        given = arguments.text("handle", handle)
        with _lock:
            if handle not in _volatile_handles:
                _check_readable()
            check_store("delete_key_by_handle", self._native.call("delete_key_by_handle", given))
            _volatile_handles.discard(handle)

    # ---- Looking

    def get(self, uid: str, key_name: str) -> bytes:
        """A key of the private file or else the public one, as bytes (get_key).

        A key text of another length than 64 or 128 characters comes as its first characters, half
        as many as it has, and not converted: that is the library's rule.
        """
        given = (arguments.uid_text(uid), _key_name(key_name))
        capacity = arguments.POINT_LENGTH
        while True:
            key = ctypes.create_string_buffer(capacity)
            length = ctypes.c_uint32(capacity)
            result = self._native.call("get_key", *given, key, ctypes.byref(length))
            if result == 0:
                return key.raw[:length.value]
            if length.value <= capacity:
                check_store("get_key", result)
            capacity = length.value

    def export_private(self, uid: str, key_name: str, *, capacity: int = 4096) -> str:
        """The text of a key of the private file, as it stands (export_prv_key_in_clear_as_hex).

        A text of `capacity` characters or more is a failure.
        """
        return self._export("export_prv_key_in_clear_as_hex", uid, key_name, capacity)

    def read_public(self, uid: str, key_name: str, *, capacity: int = 4096) -> str:
        """The text of a key of the public file, as it stands (read_public_key_as_hex)."""
        return self._export("read_public_key_as_hex", uid, key_name, capacity)

    def describe(self, uid: str, key_name: str, *, capacity: int = 65536) -> Description:
        """A key's handle and metadata (get_key_handle); the public file's, if both have the key.

        Metadata of `capacity` bytes or more are left out, with a message.
        """
        given = (arguments.uid_text(uid), _key_name(key_name))
        metadata = ctypes.create_string_buffer(capacity)
        handle = ctypes.create_string_buffer(_HANDLE_CAPACITY)
        with _lock:
            result = self._native.call("get_key_handle", *given, metadata, len(metadata), handle,
                                       len(handle))
        check_store("get_key_handle", result)
        return Description(handle.value.decode("utf-8"), metadata.value.decode("utf-8"))

    def handle(self, uid: str, key_name: str) -> str:
        """A key's handle (get_key_handle)."""
        return self.describe(uid, key_name).handle

    def contains(self, uid: str, key_name: str) -> bool:
        """Whether the private file has a key (contains_key). One that is unreadable has none."""
        return bool(self._native.call("contains_key", arguments.uid_text(uid), _key_name(key_name)))

    def present(self, uid: str, key_names: Iterable[str] = KEY_NAMES) -> list[str]:
        """Those of the key names that the private file has for a UID, in the order given."""
        return [name for name in key_names if self.contains(uid, name)]

    # ---- Calls

    def _change(self, function: str, *given: bytes) -> None:
        with _lock:
            check_store(function, self._native.call(function, *given))

    def _add_volatile(self, function: str, *given: Optional[bytes]) -> str:
        made = ctypes.create_string_buffer(_HANDLE_CAPACITY)
        with _lock:
            check_store(function, self._native.call(function, *given, made, len(made)))
            handle = made.value.decode("ascii")
            _volatile_handles.add(handle)
        return handle

    def _read(self, function: str, uid: bytes, key_name: bytes, capacity: int) -> tuple[int, bytes]:
        text = ctypes.create_string_buffer(capacity)
        length = ctypes.c_uint32(capacity)
        result = self._native.call(function, uid, key_name, text, ctypes.byref(length))
        return result, text.value

    def _export(self, function: str, uid: str, key_name: str, capacity: int) -> str:
        result, text = self._read(function, arguments.uid_text(uid), _key_name(key_name), capacity)
        check_store(function, result)
        return text.decode("utf-8")


def _check_readable() -> None:
    for name in (PUBLIC_FILE, PRIVATE_FILE):
        try:
            xml.etree.ElementTree.parse(name)
        except (OSError, xml.etree.ElementTree.ParseError) as error:
            raise StoreUnreadableError(
                f"delete_key_by_handle was not called, because it would not come back: {name} "
                f"cannot be read: {error}") from error


def _new_uid(uid: str) -> bytes:
    return arguments.text("uid", uid, length=arguments.UID_LENGTH)


def _key_name(key_name: str) -> bytes:
    return arguments.text("key_name", key_name)


def _stored_key(key: BytesLike) -> bytes:
    given = arguments.byte_string("key", key, length=arguments.STORED_KEY_LENGTH)
    return given.hex().encode("ascii")
