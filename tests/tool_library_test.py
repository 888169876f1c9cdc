"""What zentrava-keystore writes, the library loads: for each key name, the operation that uses
it."""

import os
import re
import subprocess
import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).parent / "support"))
import oracles
from build_under_test import build, run_test
from key_store_tool import (HMAC_KEY, OTHER_UID, PRIVATE_KEY, PUBLIC_KEY, UID,
                            ToolTestCase)

MESSAGE = "Set valve 7 to 40 percent"
AMTC0 = bytes.fromhex("20261121")
SLOTS = (0, 3, 2147483648, 4294967295)
SUPPRESSIONS = Path(__file__).parent / "support" / "examples.supp"


class ToolLibrary(ToolTestCase):
    def setUp(self):
        super().setUp()
        self.init()

    def test_hmac_keys_that_were_added_make_the_tags_of_their_names(self):
        for number, name in enumerate(("srk", "crk", "tmp_client_session_key")):
            with self.subTest(name):
                key = f"{number + 1:02x}" * 32
                self.add(UID, name, key)
                self.assertEqual(self.use(UID, name), tag(key, MESSAGE))

    def test_hmac_keys_that_were_generated_make_the_tags_of_their_names(self):
        for name in ("srk", "crk", "tmp_client_session_key"):
            with self.subTest(name):
                self.tool("generate", UID, name, "--quiet")
                self.assertEqual(self.use(UID, name), tag(self.revealed(UID, name), MESSAGE))

    def test_a_generated_signing_key_signs_for_its_public_key_and_its_verifier(self):
        self.tool("generate", UID, "ecdsa_prv", "--verifier", OTHER_UID, "--public-key", "key.pem",
                  "--quiet")
        signature = self.use(UID, "ecdsa_prv")
        self.assertTrue(self.openssl_accepts("key.pem", signature))
        self.assertEqual(self.use(OTHER_UID, "ECDSA_DS_PuK", signature), "verified")
        wrong = signature[:-1] + f"{int(signature[-1], 16) ^ 1:x}"
        self.assertFalse(self.openssl_accepts("key.pem", wrong))
        self.assertEqual(self.use(OTHER_UID, "ECDSA_DS_PuK", wrong), "refused")

    def test_signing_and_verification_keys_that_were_added_belong_together(self):
        self.add(UID, "ecdsa_prv", PRIVATE_KEY)
        self.add(UID, "ECDSA_DS_PuK", PUBLIC_KEY)
        self.assertEqual(self.use(UID, "ECDSA_DS_PuK", self.use(UID, "ecdsa_prv")), "verified")

    def test_an_agreement_key_agrees_with_a_peer_on_a_session_key(self):
        self.tool("generate", UID, "ecdh_prv", "--public-key", "own.pem", "--quiet")
        self.tool("generate", OTHER_UID, "ecdh_prv", "--public-key", "peer.pem", "--quiet")
        session_key = tag(self.secret("ecdh_prv", "peer.pem"), AMTC0)
        self.assertEqual(self.use(UID, "ecdh_prv", self.point("peer.pem")),
                         tag(session_key, MESSAGE))
        self.assertEqual(self.use(OTHER_UID, "ecdh_prv", self.point("own.pem")),
                         tag(session_key, MESSAGE))

    def test_the_keys_of_slots_are_found_by_their_numbers(self):
        self.tool("generate", OTHER_UID, "ecdh_prv", "--public-key", "peer.pem", "--quiet")
        for slot in SLOTS:
            with self.subTest(slot):
                own = f"{slot}.pem"
                self.tool("generate", UID, "ecdsa_prv", "--slot", slot, "--public-key", own,
                          "--quiet")
                self.tool("generate", UID, "ecdh_prv", "--slot", slot, "--public-key",
                          f"ecdh-{slot}.pem", "--quiet")
                self.assertTrue(self.openssl_accepts(own, self.use(UID, "ecdsa_prv_slot", slot)))
                number = slot - 2**32 if slot >= 2**31 else slot
                secret = self.secret(f"ecdh_prv_slot_{number}", "peer.pem")
                self.assertEqual(self.use(UID, "ecdh_prv_slot", slot, self.point("peer.pem")),
                                 tag(secret, MESSAGE))

    def test_the_keys_of_a_manifest_do_their_work(self):
        self.write("manifest.csv", "uid,key_name,key\n"
                   + "".join(f"{UID},{name},generate\n"
                             for name in ("srk", "crk", "tmp_client_session_key", "ecdsa_prv",
                                          "ecdh_prv", "ecdsa_prv_slot_3", "ecdh_prv_slot_3"))
                   + f"{UID},ECDSA_DS_PuK,{PUBLIC_KEY}\n"
                   + f"{OTHER_UID},ecdsa_prv,{PRIVATE_KEY}\n")
        self.tool("provision", "manifest.csv", "--quiet")
        for name in ("srk", "crk", "tmp_client_session_key"):
            self.assertEqual(self.use(UID, name), tag(self.revealed(UID, name), MESSAGE))
        self.assertEqual(self.use(UID, "ECDSA_DS_PuK", self.use(OTHER_UID, "ecdsa_prv")),
                         "verified")
        for name, arguments in (("ecdsa_prv", []), ("ecdsa_prv_slot", [3])):
            private_key = self.revealed(UID, "_".join(map(str, [name, *arguments])))
            self.write("key.pem", public_key_of(private_key))
            self.assertTrue(self.openssl_accepts("key.pem", self.use(UID, name, *arguments)))
        self.write("peer.pem", public_key_of(PRIVATE_KEY))
        peer = self.point("peer.pem")
        self.assertEqual(self.use(UID, "ecdh_prv", peer),
                         tag(tag(self.secret("ecdh_prv", "peer.pem"), AMTC0), MESSAGE))
        self.assertEqual(self.use(UID, "ecdh_prv_slot", 3, peer),
                         tag(self.secret("ecdh_prv_slot_3", "peer.pem"), MESSAGE))

    def test_replaced_copied_and_renamed_keys_are_the_ones_that_are_loaded(self):
        self.add(UID, "srk", "11" * 32)
        self.add(UID, "srk", HMAC_KEY, "--replace")
        self.assertEqual(self.use(UID, "srk"), tag(HMAC_KEY, MESSAGE))
        self.tool("copy", UID, "srk", "--as", "crk", "--quiet")
        self.assertEqual(self.use(UID, "crk"), tag(HMAC_KEY, MESSAGE))
        self.tool("rename", UID, "crk", "--as", "tmp_client_session_key", "--quiet")
        self.assertEqual(self.use(UID, "tmp_client_session_key"), tag(HMAC_KEY, MESSAGE))
        self.assertEqual(self.use(UID, "crk", fails=True), "failed")
        self.tool("delete", UID, "srk", "--quiet")
        self.assertEqual(self.use(UID, "srk", fails=True), "failed")

    def test_keys_of_the_users_own_names_come_as_bytes_or_as_characters_as_was_noted(self):
        self.add(UID, "public one", "ab" * 64, "--file", "public")
        self.add(UID, "private one", "cd" * 32)
        self.add(UID, "short", "a1b2c3")
        self.assertEqual(self.use(UID, "public one"), "ab" * 64)
        self.assertEqual(self.use(UID, "private one"), "cd" * 32)
        self.assertEqual(self.use(UID, "short"), b"a1b".hex())

    def test_names_and_uids_beyond_ascii_are_found_by_the_library(self):
        uid = "Gerät <1> & Co. 0123456789abcde"
        self.assertEqual(len(uid.encode()), 32)
        self.add(uid, "Schlüssel \"1\"", HMAC_KEY)
        self.assertEqual(self.use(uid, "Schlüssel \"1\""), HMAC_KEY)

    # ---- What the tests use

    def use(self, uid, operation, *arguments, fails=False):
        """What the library makes of the message with a key; its diagnostics are left out."""
        environment = {**os.environ, "LSAN_OPTIONS": f"suppressions={SUPPRESSIONS}"}
        result = subprocess.run([*build.emulator, build.key_user, uid, operation, MESSAGE,
                                 *map(str, arguments)], cwd=self.directory, env=environment,
                                check=False, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        printed = result.stdout.decode()
        self.assertEqual(result.returncode, 1 if fails else 0, printed)
        if fails:
            return re.search(r"^failed(?= \d+$)", printed, re.MULTILINE).group()
        return re.search(r"^result (.*)$", printed, re.MULTILINE).group(1)

    def revealed(self, uid, name):
        return self.json("show", uid, name, "--reveal")["key"]["key"]

    def openssl(self, *arguments, data=b"", check=True):
        return subprocess.run(["openssl", *arguments], input=data, cwd=self.directory, check=check,
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE)

    def point(self, pem):
        """X and Y of a public key."""
        return self.openssl("pkey", "-pubin", "-in", pem, "-outform", "DER").stdout[-64:].hex()

    def openssl_accepts(self, public_key_file, signature):
        content = oracles.signature_file(bytes.fromhex(signature))
        (self.directory / "signature").write_bytes(content)
        return self.openssl("dgst", "-sha256", "-verify", public_key_file, "-signature",
                            "signature", data=MESSAGE.encode(), check=False).returncode == 0

    def secret(self, name, peer_pem):
        """The X coordinate on which a private key of the device agrees with a peer's public one."""
        (self.directory / "private.der").write_bytes(private_key_file(self.revealed(UID, name)))
        return self.openssl("pkeyutl", "-derive", "-keyform", "DER", "-inkey", "private.der",
                            "-peerkey", peer_pem).stdout.hex()


def tag(key, message):
    text = message.encode() if isinstance(message, str) else message
    return oracles.tag(bytes.fromhex(key), text).hex()


def private_key_file(key):
    return oracles.private_key_file(bytes.fromhex(key))


def public_key_of(key):
    return subprocess.run(["openssl", "pkey", "-inform", "DER", "-pubout"],
                          input=private_key_file(key), check=True,
                          stdout=subprocess.PIPE).stdout.decode()


if __name__ == "__main__":
    run_test(ToolLibrary)
