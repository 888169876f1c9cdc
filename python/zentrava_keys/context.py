"""A device's context: the keys that are loaded and derived, and what is done with them."""

from __future__ import annotations

import ctypes
import threading
import weakref
from types import TracebackType
from typing import Any, Optional

from . import _arguments as arguments
from ._arguments import BytesLike
from ._errors import check_driver
from ._native import Native


class Context:
    """The keys of one device (UID), in the library's memory. Library.open makes one.

    Use it in a with statement, or close it: closing wipes its keys. A context that is forgotten is
    closed when Python throws it away, at the latest when the process ends. After that, every use
    raises ValueError.

    Keys are loaded from the key store of the current directory, as it is at that moment. `force`
    means the same in every function that has it: False leaves a key in place that is there already,
    True fetches or derives it anew.

    CAUTION. A load that ends in KeyNotFoundError leaves an empty or an old key in place, and the
    next load without `force` finds that and succeeds. After this error, load with force=True or
    call clear_keys().
    """

    def __init__(self, native: Native, uid: str) -> None:
        self.uid = uid
        self._native = native
        self._location = ctypes.c_void_p()
        self._lock = threading.Lock()
        check_driver("key_lib_open", native.call("key_lib_open", arguments.uid_text(uid), None,
                                                 None, ctypes.byref(self._location)))
        self._close = weakref.finalize(self, _close, native, self._location, self._lock)

    def __enter__(self) -> Context:
        return self

    def __exit__(self, kind: Optional[type[BaseException]], error: Optional[BaseException],
                 trace: Optional[TracebackType]) -> None:
        self.close()

    def __repr__(self) -> str:
        return f"<context of {self.uid}, {'closed' if self.closed else 'open'}>"

    @property
    def closed(self) -> bool:
        return not self._close.alive

    def close(self) -> None:
        """Wipes the keys and gives up the context (key_lib_close). Again does nothing.

        The two keys of a KTS slot are not wiped: the library leaves them in memory.
        """
        self._close()

    def clear_keys(self) -> None:
        """Drops every key and keeps the context (key_lib_clear_keys)."""
        self._call("key_lib_clear_keys")

    # ---- Keys

    def load_srk(self, *, force: bool = False) -> None:
        """Loads the store's "srk" as root key (set_srk_as_hmac_root_signing_key)."""
        self._call("set_srk_as_hmac_root_signing_key", force)

    def load_crk(self, *, force: bool = False) -> None:
        """Loads the store's "crk" as root key (set_crk_as_hmac_root_signing_key).

        It takes the same place as "srk": without `force`, the one that was loaded first stays.
        """
        self._call("set_crk_as_hmac_root_signing_key", force)

    def load_csk(self, *, force: bool = False) -> None:
        """Loads "tmp_client_session_key" as session key (set_csk_as_hmac_session_signing_key)."""
        self._call("set_csk_as_hmac_session_signing_key", force)

    def load_signing_key(self, *, force: bool = False) -> None:
        """Loads "ecdsa_prv", with which messages are signed (set_ecdsa_signing_key)."""
        self._call("set_ecdsa_signing_key", force)

    def load_verification_key(self, *, force: bool = False) -> None:
        """Loads "ECDSA_DS_PuK", with which signatures are checked (set_ecdsa_verification_key)."""
        self._call("set_ecdsa_verification_key", force)

    def set_root_key(self, key: BytesLike) -> None:
        """Makes a key of the caller's the root key (set_hmac_root_signing_key).

        32 bytes or more, of which the first 32 are used.
        """
        given = _hmac_key(key)
        self._call("set_hmac_root_signing_key", given, len(given))

    def set_session_key(self, key: BytesLike) -> None:
        """Makes a key of the caller's the session key (set_hmac_session_key); as set_root_key."""
        given = _hmac_key(key)
        self._call("set_hmac_session_key", given, len(given))

    # ---- Session keys

    def derive_session_key(self, amtc0: BytesLike, *, force: bool = False) -> None:
        """Makes the session key: the tag of the AMTC0 value under the root key.

        (derive_hmac_session_key.) `amtc0` is the device's power-on AMTC0 value, 1 to 6 bytes. With
        a session key in place and the value of the last derivation this does nothing, wherever
        that key came from since, unless it is forced.
        """
        value = _amtc0(amtc0)
        self._call("derive_hmac_session_key", value, len(value), force)

    def derive_ecdh_session_key(self, peer_key: BytesLike, amtc0: BytesLike, *,
                                force: bool = False) -> None:
        """Makes the session key from an agreement of the store's "ecdh_prv" with a peer's key.

        (derive_ecdh_session_key.) It is the tag of the AMTC0 value under the agreed secret.
        `peer_key` is X and Y, 64 bytes, and is not checked: `zentrava_keys.point` does that, and
        takes other forms of public keys.
        """
        peer, value = _peer_key(peer_key), _amtc0(amtc0)
        self._call("derive_ecdh_session_key", peer, value, len(value), force)

    # ---- Tags

    def root_tag(self, message: BytesLike) -> bytes:
        """The HMAC-SHA256 tag, 32 bytes, under the root key (gen_root_sha256_hmac)."""
        return self._tag("gen_root_sha256_hmac", message)

    def session_tag(self, message: BytesLike) -> bytes:
        """The HMAC-SHA256 tag, 32 bytes, under the session key (gen_session_sha256_hmac)."""
        return self._tag("gen_session_sha256_hmac", message)

    def verify_root_tag(self, message: BytesLike, tag: BytesLike) -> bool:
        """Whether a tag is the message's under the root key (verify_root_sha256_hmac)."""
        return self._verify_tag("verify_root_sha256_hmac", message, tag)

    def verify_session_tag(self, message: BytesLike, tag: BytesLike) -> bool:
        """Whether a tag is the message's under the session key (verify_session_sha256_hmac).

            >>> with keys.open(uid) as device:
            ...     device.set_session_key(bytes(32))
            ...     tag = device.session_tag(b"open")
            ...     device.verify_session_tag(b"open", tag), device.verify_session_tag(b"shut", tag)
            (True, False)
        """
        return self._verify_tag("verify_session_sha256_hmac", message, tag)

    # ---- Signatures

    def sign(self, message: BytesLike) -> bytes:
        """The ECDSA signature of a message: r and s, 64 bytes (generate_ecdsa_signature)."""
        return self._sign("generate_ecdsa_signature", message)

    def verify(self, message: BytesLike, signature: BytesLike) -> bool:
        """Whether a signature is the message's (verify_ecdsa_signature)."""
        sent = arguments.byte_string("message", message)
        signed = arguments.byte_string("signature", signature, length=arguments.SIGNATURE_LENGTH)
        return self._verify("verify_ecdsa_signature", sent, signed)

    # ---- KTS slots

    def make_slot_tag_key(self, slot: int, peer_key: BytesLike, *, force: bool = False) -> None:
        """Makes a KTS slot's HMAC key from its ECDH key and a peer's (set_kts_hmac_signing_key).

        Do this before load_slot_signing_key: it decides which slot is the current one.
        """
        number, peer = arguments.slot_number(slot), _peer_key(peer_key)
        self._call("set_kts_hmac_signing_key", number, peer, force)

    def load_slot_signing_key(self, slot: int, *, force: bool = False) -> None:
        """Loads a KTS slot's ECDSA key (set_kts_ecdsa_signing_key).

        Without `force`, a key in place stays if the slot is that of the last make_slot_tag_key,
        even if it is another slot's.
        """
        self._call("set_kts_ecdsa_signing_key", arguments.slot_number(slot), force)

    def slot_tag(self, message: BytesLike) -> bytes:
        """The HMAC-SHA256 tag, 32 bytes, under the slot's HMAC key (gen_kts_sha256_hmac)."""
        return self._tag("gen_kts_sha256_hmac", message)

    def slot_sign(self, message: BytesLike) -> bytes:
        """The signature, 64 bytes, with the slot's ECDSA key (generate_kts_ecdsa_signature)."""
        return self._sign("generate_kts_ecdsa_signature", message)

    # ---- Calls

    def _call(self, function: str, *given: Any) -> None:
        with self._lock:
            if self.closed:
                raise ValueError(f"{function}: the context is closed")
            code = self._native.call(function, ctypes.byref(self._location), *given)
        check_driver(function, code)

    def _tag(self, function: str, message: BytesLike) -> bytes:
        sent = _tagged(message)
        made = ctypes.create_string_buffer(arguments.TAG_LENGTH)
        self._call(function, sent, len(sent), made)
        return made.raw

    def _sign(self, function: str, message: BytesLike) -> bytes:
        sent = arguments.byte_string("message", message)
        made = ctypes.create_string_buffer(arguments.SIGNATURE_LENGTH)
        self._call(function, sent, len(sent), made)
        return made.raw

    def _verify_tag(self, function: str, message: BytesLike, tag: BytesLike) -> bool:
        given = arguments.byte_string("tag", tag, length=arguments.TAG_LENGTH)
        return self._verify(function, _tagged(message), given)

    def _verify(self, function: str, message: bytes, proof: bytes) -> bool:
        verified = ctypes.c_bool(False)
        self._call(function, message, len(message), proof, ctypes.byref(verified))
        return verified.value


def _close(native: Native, location: ctypes.c_void_p, lock: threading.Lock) -> None:
    with lock:
        native.call("key_lib_close", ctypes.byref(location))


def _hmac_key(key: BytesLike) -> bytes:
    return arguments.byte_string("key", key, min_length=arguments.MIN_HMAC_KEY_LENGTH)


def _amtc0(value: BytesLike) -> bytes:
    lengths = arguments.AMTC0_LENGTHS
    return arguments.byte_string("amtc0", value, min_length=lengths[0], max_length=lengths[-1])


def _peer_key(key: BytesLike) -> bytes:
    return arguments.byte_string("peer_key", key, length=arguments.POINT_LENGTH)


def _tagged(message: BytesLike) -> bytes:
    return arguments.byte_string("message", message, max_length=arguments.MAX_TAGGED_LENGTH)
