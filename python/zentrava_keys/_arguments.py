"""Arguments are checked here, before anything reaches C: types, lengths, characters."""

from __future__ import annotations

from typing import Optional, Union

BytesLike = Union[bytes, bytearray, memoryview]

TAG_LENGTH = 32
SIGNATURE_LENGTH = 64
HASH_LENGTH = 32
SECRET_LENGTH = 32
PRIVATE_KEY_LENGTH = 32
COMPRESSED_KEY_LENGTH = 33
UNCOMPRESSED_KEY_LENGTH = 65
POINT_LENGTH = 64  # X, Y
MIN_HMAC_KEY_LENGTH = 32
AMTC0_LENGTHS = range(1, 7)
STORED_KEY_LENGTH = 32  # of a key that is added; 64 characters
UID_LENGTH = 32  # of a key that is added
# A tag's message is counted by a signed 32-bit number: a longer one would count as empty.
MAX_TAGGED_LENGTH = 2**31 - 1
MAX_LENGTH = 2**32 - 1


def byte_string(what: str, value: BytesLike, *, length: Optional[int] = None, min_length: int = 0,
                max_length: int = MAX_LENGTH) -> bytes:
    """The value as bytes, of the length, or between the lengths, that the function takes."""
    if not isinstance(value, (bytes, bytearray, memoryview)):
        raise TypeError(f"{what}: bytes are needed, not {type(value).__name__}")
    given = value.nbytes if isinstance(value, memoryview) else len(value)
    if length is not None and given != length:
        raise ValueError(f"{what}: {length} bytes are needed, not {given}")
    if not min_length <= given <= max_length:
        raise ValueError(f"{what}: {min_length} to {max_length} bytes are needed, not {given}")
    return bytes(value)


def text(what: str, value: str, *, length: Optional[int] = None,
         may_be_empty: bool = True) -> bytes:
    """The text as C takes it; its length is that in UTF-8."""
    if not isinstance(value, str):
        raise TypeError(f"{what}: a str is needed, not {type(value).__name__}")
    encoded = value.encode("utf-8")
    if b"\0" in encoded:
        raise ValueError(f"{what}: C's texts cannot hold the character NUL")
    if not encoded and not may_be_empty:
        raise ValueError(f"{what}: the text is empty")
    if length is not None and len(encoded) != length:
        raise ValueError(f"{what}: {length} characters are needed, not {len(encoded)}")
    return encoded


def uid_text(uid: str) -> bytes:
    return text("uid", uid, may_be_empty=False)


def slot_number(slot: int) -> int:
    if not isinstance(slot, int):
        raise TypeError(f"slot: an int is needed, not {type(slot).__name__}")
    if not 0 <= slot < 2**32:
        raise ValueError(f"slot: a number from 0 to 4294967295 is needed, not {slot}")
    return slot
