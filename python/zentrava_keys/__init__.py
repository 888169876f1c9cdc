"""Scripting with the Zentrava key library: keys, tags, signatures and the key store, from Python.

The package calls the shared library through ctypes; nothing is compiled. Bytes go in, bytes come
out, and what the library reports as a failure is raised as an exception that carries the
function's name and its result code.

    >>> import zentrava_keys
    >>> keys = zentrava_keys.Library()
    >>> uid = "0123456789abcdef0123456789abcdef"
    >>> with zentrava_keys.working_in("bench"), keys.open(uid) as device:
    ...     device.load_srk()
    ...     device.derive_session_key(bytes.fromhex("20261121"))
    ...     tag = device.session_tag(b"Set valve 7 to 40 percent")
    ...     device.verify_session_tag(b"Set valve 7 to 40 percent", tag)
    True

Where things are:

    Library       the loaded library: open a context, `store`, `engine`
    Context       the keys of one device, and what is tagged, signed and checked with them
    Store         the two key store files of the working directory, and the volatile keys
    Engine        the elliptic-curve engine by itself: key pairs, ECDH, ECDSA over a hash
    working_in    works in the directory of a key store
    point         a public key as X and Y, checked to be a point of the curve

Good to know:

- The library finds the key store in the process's current directory.
- It prints its messages to C's standard output, which is file descriptor 1, whatever `sys.stdout`
  is. The package flushes it after every call, so that a message comes out at the call that it is
  about; flush Python's own output (`print(..., flush=True)`) to see the two in order.
- Any number of threads may use one Library. A context, and the operations that change the key
  store, let one thread in at a time.
- Python cannot wipe: a key that is given or returned as bytes stays in memory until that is used
  again. Keys that are loaded from the store into a context never come to Python, and are wiped
  when it is closed.
"""

from ._errors import (BadParameterError, CryptoError, EngineError, InvalidKeyError, KeyLibraryError,
                      KeyNotFoundError, LibraryNotFoundError, OutOfMemoryError, ResultCode,
                      StoreError, StoreUnreadableError)
from ._native import SONAME
from .context import Context
from .directory import working_in
from .engine import Engine, KeyPair, point
from .library import Library
from .store import KEY_NAMES, Description, Store

__all__ = [
    "KEY_NAMES", "SONAME", "BadParameterError", "Context", "CryptoError", "Description", "Engine",
    "EngineError", "InvalidKeyError", "KeyLibraryError", "KeyNotFoundError", "KeyPair", "Library",
    "LibraryNotFoundError", "OutOfMemoryError", "ResultCode", "Store", "StoreError",
    "StoreUnreadableError", "point", "working_in",
]
