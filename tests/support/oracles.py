"""Tags, agreements and signatures as Python's hmac and the openssl command make and judge them.

Everything is bytes: private keys 32, public keys 64 (X, Y) or 33 (compressed), signatures 64
(r, s)."""

import hashlib
import hmac
import subprocess
import tempfile
from pathlib import Path


def tag(key, message):
    return hmac.new(key, message, hashlib.sha256).digest()


def session_key(root_key, amtc0):
    """A session key is the tag of the AMTC0 value under the root key, or under an agreed secret."""
    return tag(root_key, amtc0)


def private_key_file(private_key):
    """An ECPrivateKey of RFC 5915, in DER."""
    return bytes.fromhex(f"30310201010420{private_key.hex()}a00a06082a8648ce3d030107")


def public_key_file(public_key):
    """A SubjectPublicKeyInfo of RFC 5480, in DER."""
    head = {64: "3059301306072a8648ce3d020106082a8648ce3d03010703420004",
            33: "3039301306072a8648ce3d020106082a8648ce3d030107032200"}
    return bytes.fromhex(head[len(public_key)]) + public_key


def signature_file(signature):
    """An ECDSA-Sig-Value of RFC 3279, in DER."""
    def integer(digits):
        number = int.from_bytes(digits, "big")
        content = number.to_bytes(number.bit_length() // 8 + 1, "big")
        return bytes([2, len(content)]) + content
    content = integer(signature[:32]) + integer(signature[32:])
    return bytes([0x30, len(content)]) + content


def public_key_of(private_key):
    return openssl("pkey", "-inform", "DER", "-pubout", "-outform", "DER",
                   data=private_key_file(private_key)).stdout[-64:]


def new_private_key():
    """Out of PKCS #8, in which it stands behind the octets 04 20 of its own structure."""
    made = openssl("genpkey", "-algorithm", "EC", "-pkeyopt", "ec_paramgen_curve:P-256",
                   "-outform", "DER").stdout
    return made.split(bytes.fromhex("0201010420"))[1][:32]


def secret(private_key, public_key):
    """The X coordinate that the two keys agree on."""
    with tempfile.TemporaryDirectory() as directory:
        own = written(directory, "own", private_key_file(private_key))
        peer = written(directory, "peer", public_key_file(public_key))
        return openssl("pkeyutl", "-derive", "-keyform", "DER", "-inkey", own, "-peerform", "DER",
                       "-peerkey", peer).stdout


def sign(private_key, message):
    with tempfile.TemporaryDirectory() as directory:
        key = written(directory, "key", private_key_file(private_key))
        made = openssl("dgst", "-sha256", "-keyform", "DER", "-sign", key, data=message).stdout
    r_len = made[3]
    r, s = made[4:4 + r_len], made[6 + r_len:]
    return b"".join(number.lstrip(b"\0").rjust(32, b"\0") for number in (r, s))


def accepts(public_key, message, signature):
    """Whether openssl accepts the signature of a message."""
    return accepts_hash(public_key, hashlib.sha256(message).digest(), signature)


def accepts_hash(public_key, message_hash, signature):
    with tempfile.TemporaryDirectory() as directory:
        key = written(directory, "key", public_key_file(public_key))
        signed = written(directory, "signature", signature_file(signature))
        return openssl("pkeyutl", "-verify", "-pubin", "-keyform", "DER", "-inkey", key, "-sigfile",
                       signed, "-in", written(directory, "hash", message_hash),
                       check=False).returncode == 0


def written(directory, name, content):
    path = Path(directory, name)
    path.write_bytes(content)
    return path


def openssl(*arguments, data=b"", check=True):
    return subprocess.run(["openssl", *arguments], input=data, check=check, stdout=subprocess.PIPE,
                          stderr=subprocess.PIPE)
