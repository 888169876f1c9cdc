"""What is raised when the library reports a failure, or cannot be called."""

from __future__ import annotations

import enum


class ResultCode(enum.IntEnum):
    """What the driver's functions return: KeyLibraryErrorCode in C."""

    OK = 0
    ERROR = 1
    BAD_PARAMETER = 2
    MEMORY = 3
    KEY_NOT_FOUND = 4
    INVALID_KEY = 5
    CRYPTO = 6


class KeyLibraryError(Exception):
    """A function of the library reported a failure.

    `function` is its name in C, `code` what it returned, `meaning` what that means.
    """

    def __init__(self, function: str, code: int, meaning: str) -> None:
        super().__init__(function, code, meaning)
        self.function = function
        self.code = code
        self.meaning = meaning

    def __str__(self) -> str:
        return f"{self.function} returned {self.code}: {self.meaning}"


class BadParameterError(KeyLibraryError):
    """KeyLibrary_BAD_PARAMETER."""


class OutOfMemoryError(KeyLibraryError):
    """KeyLibrary_MEMORY."""


class KeyNotFoundError(KeyLibraryError):
    """KeyLibrary_KEY_NOT_FOUND: the store did not deliver the key, or it is not loaded."""


class InvalidKeyError(KeyLibraryError):
    """KeyLibrary_INVALID_KEY: the key is too short."""


class CryptoError(KeyLibraryError):
    """KeyLibrary_CRYPTO: an HMAC, a signature or an agreement could not be computed."""


class StoreError(KeyLibraryError):
    """A key store operation failed; the message that the library printed tells why."""


class EngineError(KeyLibraryError):
    """The elliptic-curve engine failed: no random numbers, or an agreement without a result."""


class LibraryNotFoundError(OSError):
    """The shared library could not be loaded, or is another one."""


class StoreUnreadableError(OSError):
    """A key store file cannot be read, and an operation that would not survive it was not begun."""


_DRIVER_ERRORS: dict[int, tuple[type[KeyLibraryError], str]] = {
    ResultCode.ERROR: (KeyLibraryError, "failed"),
    ResultCode.BAD_PARAMETER: (
        BadParameterError, "an argument is missing or has a length that is not accepted"),
    ResultCode.MEMORY: (OutOfMemoryError, "no memory"),
    ResultCode.KEY_NOT_FOUND: (
        KeyNotFoundError,
        "the key store did not deliver the key, or the key that is needed is not loaded"),
    ResultCode.INVALID_KEY: (InvalidKeyError, "the key is too short"),
    ResultCode.CRYPTO: (CryptoError, "the computation failed"),
}


def check_driver(function: str, code: int) -> None:
    """Raises what a result code of the driver stands for, if that is a failure."""
    if code == ResultCode.OK:
        return
    error, meaning = _DRIVER_ERRORS.get(code, (KeyLibraryError, "unknown result"))
    name = f"KeyLibrary_{ResultCode(code).name}, " if code in _DRIVER_ERRORS else ""
    raise error(function, code, name + meaning)


def check_store(function: str, result: int) -> None:
    """Key store operations return 0 for success."""
    if result != 0:
        raise StoreError(function, result,
                         "the key store operation failed; the library's message tells why")


def check_engine(function: str, result: int) -> None:
    """The engine's functions return 1 for success."""
    if result != 1:
        raise EngineError(function, result, "the elliptic-curve engine failed")
