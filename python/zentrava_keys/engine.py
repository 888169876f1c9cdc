"""The elliptic-curve engine by itself, for P-256: key pairs, ECDH, ECDSA over a hash."""

from __future__ import annotations

import ctypes
from typing import NamedTuple

from . import _arguments as arguments
from ._arguments import BytesLike
from ._errors import check_engine
from ._native import Native

# P-256, as FIPS 186-4 gives it in appendix D.1.2.3: the prime and the coefficient b; a is -3.
_P = 2**256 - 2**224 + 2**192 + 2**96 - 1
_B = 0x5ac635d8aa3a93e7b3ebbd55769886bc651d06b0cc53b0f63bce3c3e27d2604b


class KeyPair(NamedTuple):
    """A public key, compressed (33 bytes), and its private key (32 bytes)."""

    public_key: bytes
    private_key: bytes

    def __repr__(self) -> str:  # a key does not belong in a log
        return f"KeyPair(public_key={self.public_key!r}, private_key=...)"


class Engine:
    """The elliptic-curve engine; `Library.engine` is one.

    Public keys are taken in 33 bytes (compressed) or 65 (0x04, X, Y), and are not checked to be
    points of the curve: `point` does that. Nor is the engine constant-time: it does not belong
    where an attacker can measure time.

        >>> mine, theirs = keys.engine.make_key(), keys.engine.make_key()
        >>> secret = keys.engine.shared_secret(theirs.public_key, mine.private_key)
        >>> secret == keys.engine.shared_secret(mine.public_key, theirs.private_key)
        True
    """

    def __init__(self, native: Native) -> None:
        self._native = native

    def make_key(self) -> KeyPair:
        """A new key pair (ecc_make_key)."""
        public_key = ctypes.create_string_buffer(arguments.COMPRESSED_KEY_LENGTH)
        private_key = ctypes.create_string_buffer(arguments.PRIVATE_KEY_LENGTH)
        check_engine("ecc_make_key", self._native.call("ecc_make_key", public_key, private_key))
        return KeyPair(public_key.raw, private_key.raw)

    def shared_secret(self, public_key: BytesLike, private_key: BytesLike) -> bytes:
        """The secret, 32 bytes, of a private key and the other side's public key.

        (ecdh_shared_secret.) It is the X coordinate of the shared point, as it is.
        """
        public, private = _public_key(public_key), _private_key(private_key)
        secret = ctypes.create_string_buffer(arguments.SECRET_LENGTH)
        check_engine("ecdh_shared_secret",
                     self._native.call("ecdh_shared_secret", public, private, secret))
        return secret.raw

    def sign(self, private_key: BytesLike, message_hash: BytesLike) -> bytes:
        """The signature of a 32-byte hash: r and s, 64 bytes (ecdsa_sign)."""
        private, hashed = _private_key(private_key), _hash(message_hash)
        signature = ctypes.create_string_buffer(arguments.SIGNATURE_LENGTH)
        check_engine("ecdsa_sign", self._native.call("ecdsa_sign", private, hashed, signature))
        return signature.raw

    def verify(self, public_key: BytesLike, message_hash: BytesLike, signature: BytesLike) -> bool:
        """Whether a signature is that of a 32-byte hash (ecdsa_verify)."""
        signed = arguments.byte_string("signature", signature, length=arguments.SIGNATURE_LENGTH)
        return self._native.call("ecdsa_verify", _public_key(public_key), _hash(message_hash),
                                 signed) == 1


def point(public_key: BytesLike) -> bytes:
    """A public key as X and Y, 64 bytes, as the driver takes a peer's key.

    Takes the key as 33 bytes (compressed), 65 (0x04, X, Y) or 64 (X, Y). Raises ValueError for what
    is no point of the curve, which the library does not notice.

        >>> own = keys.engine.make_key()
        >>> len(zentrava_keys.point(own.public_key))
        64
    """
    given = arguments.byte_string("public_key", public_key)
    if len(given) == arguments.POINT_LENGTH:
        given = b"\4" + given
    prefix, x = given[:1], int.from_bytes(given[1:33], "big")
    square = (x**3 - 3 * x + _B) % _P
    if len(given) == arguments.UNCOMPRESSED_KEY_LENGTH and prefix == b"\4":
        y = int.from_bytes(given[33:], "big")
    elif len(given) == arguments.COMPRESSED_KEY_LENGTH and prefix in (b"\2", b"\3"):
        y = pow(square, (_P + 1) // 4, _P)
        y = y if y % 2 == prefix[0] % 2 else _P - y
    else:
        raise ValueError(f"public_key: {len(given)} bytes that are no form of a public key")
    if x >= _P or y >= _P or y * y % _P != square:
        raise ValueError("public_key: not a point of the curve")
    return x.to_bytes(32, "big") + y.to_bytes(32, "big")


def _public_key(key: BytesLike) -> bytes:
    """How many bytes C reads, the first of them decides."""
    given = arguments.byte_string("public_key", key, min_length=1)
    return arguments.byte_string("public_key", given,
                                 length=(arguments.UNCOMPRESSED_KEY_LENGTH if given[0] == 4
                                         else arguments.COMPRESSED_KEY_LENGTH))


def _private_key(key: BytesLike) -> bytes:
    return arguments.byte_string("private_key", key, length=arguments.PRIVATE_KEY_LENGTH)


def _hash(message_hash: BytesLike) -> bytes:
    return arguments.byte_string("message_hash", message_hash, length=arguments.HASH_LENGTH)
