"""The shared library: how it is found, the types of its functions, and how they are called."""

from __future__ import annotations

import ctypes
import os
from typing import Any, Optional, Union

from ._errors import LibraryNotFoundError

SONAME = "libzentrava_keys.so.1"
ENVIRONMENT_VARIABLE = "ZENTRAVA_KEYS_LIBRARY"

PathName = Union[str, "os.PathLike[str]"]

# A context is handled by the address of a location that holds its pointer.
_LOCATION = ctypes.c_void_p
_BYTES = ctypes.c_char_p  # a char* or a uint8_t*, in or out
_UINT = ctypes.c_uint
_UINT32 = ctypes.c_uint32
_UINT32_OUT = ctypes.POINTER(ctypes.c_uint32)
_BOOL = ctypes.c_bool
_BOOL_OUT = ctypes.POINTER(ctypes.c_bool)
_INT = ctypes.c_int
_CODE = ctypes.c_int

# The functions that the package calls, each with its result and its arguments.
FUNCTIONS: dict[str, tuple[Any, list[Any]]] = {
    # key_driver/zentrava_key_driver.h
    "key_lib_open": (_CODE, [_BYTES, _BYTES, _BYTES, _LOCATION]),
    "key_lib_close": (_CODE, [_LOCATION]),
    "key_lib_clear_keys": (_CODE, [_LOCATION]),
    "set_srk_as_hmac_root_signing_key": (_CODE, [_LOCATION, _BOOL]),
    "set_crk_as_hmac_root_signing_key": (_CODE, [_LOCATION, _BOOL]),
    "set_csk_as_hmac_session_signing_key": (_CODE, [_LOCATION, _BOOL]),
    "set_ecdsa_signing_key": (_CODE, [_LOCATION, _BOOL]),
    "set_ecdsa_verification_key": (_CODE, [_LOCATION, _BOOL]),
    "set_hmac_root_signing_key": (_CODE, [_LOCATION, _BYTES, _UINT32]),
    "set_hmac_session_key": (_CODE, [_LOCATION, _BYTES, _UINT32]),
    "_sha256_hmac": (_CODE, [_BYTES, _INT, _BYTES, _INT, _BYTES]),
    "gen_root_sha256_hmac": (_CODE, [_LOCATION, _BYTES, _UINT32, _BYTES]),
    "gen_session_sha256_hmac": (_CODE, [_LOCATION, _BYTES, _UINT32, _BYTES]),
    "verify_root_sha256_hmac": (_CODE, [_LOCATION, _BYTES, _UINT32, _BYTES, _BOOL_OUT]),
    "verify_session_sha256_hmac": (_CODE, [_LOCATION, _BYTES, _UINT32, _BYTES, _BOOL_OUT]),
    "derive_hmac_session_key": (_CODE, [_LOCATION, _BYTES, _UINT32, _BOOL]),
    "generate_ecdsa_signature": (_CODE, [_LOCATION, _BYTES, _UINT32, _BYTES]),
    "generate_kts_ecdsa_signature": (_CODE, [_LOCATION, _BYTES, _UINT32, _BYTES]),
    "verify_ecdsa_signature": (_CODE, [_LOCATION, _BYTES, _UINT32, _BYTES, _BOOL_OUT]),
    "derive_ecdh_session_key": (_CODE, [_LOCATION, _BYTES, _BYTES, _UINT32, _BOOL]),
    "set_kts_ecdsa_signing_key": (_CODE, [_LOCATION, _UINT32, _BOOL]),
    "set_kts_hmac_signing_key": (_CODE, [_LOCATION, _UINT32, _BYTES, _BOOL]),
    "gen_kts_sha256_hmac": (_CODE, [_LOCATION, _BYTES, _UINT32, _BYTES]),
    # key_driver/zentrava_key_management_utils.h
    "get_key_handle": (_UINT32, [_BYTES, _BYTES, _BYTES, _UINT, _BYTES, _UINT]),
    "get_key": (_UINT32, [_BYTES, _BYTES, _BYTES, _UINT32_OUT]),
    "add_volatile_key": (_UINT32, [_BYTES, _BYTES, _UINT]),
    "add_volatile_based_key": (_UINT32, [_BYTES, _BYTES, _BYTES, _BYTES, _BYTES, _UINT]),
    "add_nonvolatile_based_key": (_UINT32, [_BYTES, _BYTES, _BYTES, _BYTES, _BOOL, _BOOL]),
    "delete_key_by_handle": (_UINT32, [_BYTES]),
    "delete_key_by_key_type": (_UINT32, [_BYTES, _BYTES]),
    "copy_private_key": (_UINT32, [_BYTES, _BYTES, _BYTES]),
    "set_new_srk_key_data_for_uid": (_UINT32, [_BYTES, _BYTES]),
    "export_prv_key_in_clear_as_hex": (_UINT32, [_BYTES, _BYTES, _BYTES, _UINT32_OUT]),
    "read_public_key_as_hex": (_UINT32, [_BYTES, _BYTES, _BYTES, _UINT32_OUT]),
    "contains_key": (_BOOL, [_BYTES, _BYTES]),
    # ecc/ecc.h
    "ecc_make_key": (_INT, [_BYTES, _BYTES]),
    "ecdh_shared_secret": (_INT, [_BYTES, _BYTES, _BYTES]),
    "ecdsa_sign": (_INT, [_BYTES, _BYTES, _BYTES]),
    "ecdsa_verify": (_INT, [_BYTES, _BYTES, _BYTES]),
}


class Native:
    """The loaded library and its functions."""

    def __init__(self, path: Optional[PathName]) -> None:
        self.path, origin = _choose(path)
        try:
            library = ctypes.CDLL(self.path)
        except OSError as error:
            raise LibraryNotFoundError(
                f"cannot load the key library {self.path!r}, {origin}: {error}. Give Library the "
                f"path of the file, or set {ENVIRONMENT_VARIABLE} to it") from error
        self._functions = {name: self._function(library, name) for name in FUNCTIONS}
        c = ctypes.CDLL(None)
        self._stdout = ctypes.c_void_p.in_dll(c, "stdout")
        self._fflush = c.fflush
        self._fflush.argtypes = [ctypes.c_void_p]

    def _function(self, library: ctypes.CDLL, name: str) -> Any:
        try:
            function = getattr(library, name)
        except AttributeError as error:
            raise LibraryNotFoundError(
                f"{self.path!r} is not the key library: it has no function {name}") from error
        function.restype, function.argtypes = FUNCTIONS[name]
        return function

    def call(self, name: str, *arguments: Any) -> int:
        """Calls a function and brings out what it printed; its result."""
        result: int = self._functions[name](*arguments)
        self._fflush(self._stdout)
        return result


def _choose(path: Optional[PathName]) -> tuple[str, str]:
    """The library to load, and where its name comes from."""
    if path is not None:
        return os.fspath(path), "which was given"
    named = os.environ.get(ENVIRONMENT_VARIABLE)
    if named:
        return named, f"which is the value of {ENVIRONMENT_VARIABLE}"
    return SONAME, "which the loader looks for"
