"""Runs published test vectors through the library, out of Debian's package python3-cryptography-vectors.

Usage: published_vectors.py PROGRAM...

PROGRAM is tests/support/vector_calls.c as it was built, with what runs it in front. Prints a line for
each family: how many vectors there are for P-256 or SHA-256, how many agree, and what those that do not
have in common, which has to be one of the differences that are named here. Ends with 1 otherwise.
"""

import hashlib
import re
import subprocess
import sys
from collections import Counter
from pathlib import Path

VECTORS = Path("/usr/lib/python3/dist-packages/cryptography_vectors")
ECDSA = VECTORS / "asymmetric" / "ECDSA"
ECDH = VECTORS / "asymmetric" / "ECDH"

# What the library is known to do otherwise: it takes public keys as they are.
NOT_VALIDATED = "a public key that is none is not refused"


class Library:
    def __init__(self, program):
        self.process = subprocess.Popen(program, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                        text=True)

    def call(self, name, *arguments):
        line = " ".join([name, *(argument.hex() or "-" for argument in arguments)])
        self.process.stdin.write(line + "\n")
        self.process.stdin.flush()
        result, _, out = self.process.stdout.readline().rstrip("\n").partition(" ")
        return int(result), bytes.fromhex(out)


def number(text):
    return int(text, 16).to_bytes(32, "big")


def point(x, y):
    return b"\x04" + number(x) + number(y)


def is_number(text):
    return int(text, 16) < 2**256


def hash_of(name, message):
    """The leftmost 256 bits, as a number of 256 bits (FIPS 186-4, 6.4)."""
    digest = hashlib.new(name.replace("-", ""), bytes.fromhex(message)).digest()[:32]
    return digest.rjust(32, b"\0")


def sections(path):
    """The vectors of a file: the heading of their curve, and their fields by name."""
    heading = ""
    fields = {}
    for line in [*path.read_text().splitlines(), ""]:
        line = line.strip()
        field = re.fullmatch(r"(\w+) = ?(.*)", line)
        if field:
            fields[field[1]] = field[2]
        elif not line and fields:
            yield heading, fields
            fields = {}
        elif re.fullmatch(r"\[([PKB]-\d+.*|E[A-E] - SHA\d+)\]", line):
            heading = line


def signature_verification(library, path):
    for heading, fields in sections(path):
        found = re.fullmatch(r"\[P-256(?:,(SHA-\d+))?\]", heading)
        if not found or "R" not in fields:
            continue
        # A number that does not fit into 32 bytes cannot be handed to the library at all.
        if not all(is_number(fields[name]) for name in ("Qx", "Qy", "R", "S")):
            yield fields["Result"].startswith("F"), ""
            continue
        accepted, _ = library.call("verify", point(fields["Qx"], fields["Qy"]),
                                   hash_of(found[1] or "SHA-1", fields["Msg"]),
                                   number(fields["R"]) + number(fields["S"]))
        yield bool(accepted) == fields["Result"].startswith("P"), ""


def signature_generation(library, path):
    for heading, fields in sections(path):
        found = re.fullmatch(r"\[P-256(?:,(SHA-\d+))?\]", heading)
        if not found or "k" not in fields:
            continue
        digest = hash_of(found[1] or "SHA-1", fields["Msg"])
        expected = number(fields["R"]) + number(fields["S"])
        yield (library.call("sign", number(fields["d"]), digest, number(fields["k"])) ==
               (1, expected)
               and library.call("verify", point(fields["Qx"], fields["Qy"]), digest,
                                expected)[0] == 1), ""


def key_pairs(library, path):
    for heading, fields in sections(path):
        if heading != "[P-256]" or "d" not in fields:
            continue
        parity = bytes([2 + int(fields["Qy"], 16) % 2])
        yield library.call("make", number(fields["d"])) == (
            1, parity + number(fields["Qx"]) + number(fields["d"])), ""


def public_keys(library, path):
    """A key counts as refused if an agreement with it fails."""
    for heading, fields in sections(path):
        if heading != "[P-256]" or "Qx" not in fields:
            continue
        is_valid = fields["Result"].startswith("P")
        if not is_number(fields["Qx"]) or not is_number(fields["Qy"]):
            yield not is_valid, ""
            continue
        accepted, _ = library.call("agree", point(fields["Qx"], fields["Qy"]), number("2"))
        yield bool(accepted) == is_valid, NOT_VALIDATED


def agreements(library, path):
    """Where the result is F, one of the numbers was damaged, and Z is not the secret of the others."""
    for heading, fields in sections(path):
        if not heading.startswith("[EC - ") or "dsIUT" not in fields:
            continue
        accepted, secret = library.call("agree", point(fields["QsCAVSx"], fields["QsCAVSy"]),
                                        number(fields["dsIUT"]))
        own_key = library.call("make", number(fields["dsIUT"]))[1][1:33]
        holds = (accepted == 1 and secret == number(fields["Z"])
                 and hashlib.sha256(secret).hexdigest() == fields["CAVSHashZZ"]
                 and own_key == number(fields["QsIUTx"]))
        yield holds == fields["Result"].startswith("P"), ""


def hmacs(library, path):
    for _, fields in sections(path):
        if "MD" not in fields:
            continue
        result, tag = library.call("hmac", bytes.fromhex(fields["Key"]),
                                   bytes.fromhex(fields["Msg"]))
        yield result == 0 and tag.hex().startswith(fields["MD"].lower()), ""


FAMILIES = [
    ("CAVP ECDSA 186-3, signatures to verify", signature_verification,
     ECDSA / "FIPS_186-3/SigVer.rsp"),
    ("CAVP ECDSA 186-3, signatures to make", signature_generation, ECDSA / "FIPS_186-3/SigGen.txt"),
    ("CAVP ECDSA 186-3, key pairs", key_pairs, ECDSA / "FIPS_186-3/KeyPair.rsp"),
    ("CAVP ECDSA 186-3, public keys", public_keys, ECDSA / "FIPS_186-3/PKV.rsp"),
    ("CAVP ECDSA 186-2, signatures to verify", signature_verification,
     ECDSA / "FIPS_186-2/SigVer.rsp"),
    ("CAVP ECDSA 186-2, signatures to make", signature_generation, ECDSA / "FIPS_186-2/SigGen.txt"),
    ("CAVP ECDSA 186-2, key pairs", key_pairs, ECDSA / "FIPS_186-2/KeyPair.rsp"),
    ("CAVP ECDSA 186-2, public keys", public_keys, ECDSA / "FIPS_186-2/PKV.rsp"),
    ("CAVP KAS, secrets, initiator", agreements,
     ECDH / "KASValidityTest_ECCStaticUnified_NOKC_ZZOnly_init.fax"),
    ("CAVP KAS, secrets, responder", agreements,
     ECDH / "KASValidityTest_ECCStaticUnified_NOKC_ZZOnly_resp.fax"),
    ("RFC 4231, HMAC-SHA256", hmacs, VECTORS / "HMAC/rfc-4231-sha256.txt"),
]


def main(program):
    library = Library(program)
    unexplained = 0
    for name, run, path in FAMILIES:
        results = Counter(run(library, path))
        applicable = sum(results.values())
        agreeing = sum(count for (agrees, _), count in results.items() if agrees)
        reasons = {reason or "unexplained": count
                   for (agrees, reason), count in results.items() if not agrees}
        unexplained += reasons.get("unexplained", 0) + (applicable == 0)
        why = "; ".join(f"{count}: {reason}" for reason, count in reasons.items())
        print(f"{name:<40} {applicable:>4} apply {agreeing:>4} agree  {why}".rstrip())
    return 1 if unexplained else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
