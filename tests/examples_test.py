"""The examples run to their end, make what Python and openssl make, and leave nothing behind."""

import os
import re
import subprocess
import sys
import tempfile
from pathlib import Path

sys.path.insert(0, str(Path(__file__).parent / "support"))
import oracles
from build_under_test import BuildTestCase, build, run_test
from key_store_files import UID, private_keys, write_store

MESSAGE = b"Set valve 7 to 40 percent"
SUPPRESSIONS = Path(__file__).parent / "support" / "examples.supp"


class Examples(BuildTestCase):
    def setUp(self):
        self.directory = Path(self.enterContext(tempfile.TemporaryDirectory()))

    def test_tag_and_verify_makes_the_tag_that_python_makes(self):
        root_key = os.urandom(32)
        write_store(self.directory, {"srk": root_key})
        printed = self.run_example("tag_and_verify")
        session_key = oracles.session_key(root_key, value(printed, "AMTC0"))
        self.assertEqual(value(printed, "tag"), oracles.tag(session_key, MESSAGE))
        self.assertEqual(re.findall(r" verified (\w+)$", printed, re.M), ["true", "false"])

    def test_sign_and_verify_makes_a_signature_that_openssl_accepts(self):
        private_key = oracles.new_private_key()
        public_key = oracles.public_key_of(private_key)
        write_store(self.directory, {"ecdsa_prv": private_key}, {"ECDSA_DS_PuK": public_key})
        printed = self.run_example("sign_and_verify")
        self.assertTrue(oracles.accepts(public_key, MESSAGE, value(printed, "signature")))
        self.assertEqual(re.findall(r" verified (\w+)$", printed, re.M), ["true", "false"])

    def test_ecdh_session_agrees_on_the_session_key_that_openssl_agrees_on(self):
        private_key = oracles.new_private_key()
        write_store(self.directory, {"ecdh_prv": private_key})
        printed = self.run_example("ecdh_session")
        agreed = oracles.secret(private_key, value(printed, "peer"))
        session_key = oracles.session_key(agreed, value(printed, "AMTC0"))
        self.assertEqual(value(printed, "tag"), oracles.tag(session_key, MESSAGE))

    def test_kts_slot_tags_and_signs_as_openssl_says(self):
        signing_key, agreement_key = oracles.new_private_key(), oracles.new_private_key()
        write_store(self.directory,
                    {"ecdsa_prv_slot_3": signing_key, "ecdh_prv_slot_3": agreement_key})
        printed = self.run_example("kts_slot")
        agreed = oracles.secret(agreement_key, value(printed, "peer"))
        self.assertEqual(value(printed, "tag"), oracles.tag(agreed, MESSAGE))
        self.assertTrue(oracles.accepts(oracles.public_key_of(signing_key), MESSAGE,
                                        value(printed, "signature")))

    def test_provision_and_rotate_tags_under_the_old_and_the_new_key_of_the_store(self):
        write_store(self.directory, {})
        printed = self.run_example("provision_and_rotate")
        keys = private_keys(self.directory)
        self.assertEqual(sorted(keys), ["srk", "srk_previous"])
        old_tag, new_tag = (oracles.tag(keys[name], MESSAGE) for name in ("srk_previous", "srk"))
        self.assertNotEqual(old_tag, new_tag)
        self.assertEqual([value(printed, f"{which} tag") for which in ("old", "kept", "new")],
                         [old_tag, old_tag, new_tag])

    def test_provision_and_rotate_goes_on_after_a_rotation_that_was_interrupted(self):
        if build.toolchain or build.is_sanitized:
            self.skipTest("takes long, and is no different there")
        old_key = os.urandom(32)
        write_store(self.directory, {"srk": old_key, "srk_next": os.urandom(32),
                                     "srk_previous": os.urandom(32)})
        self.run_example("provision_and_rotate")
        keys = private_keys(self.directory)
        self.assertEqual(sorted(keys), ["srk", "srk_previous"])
        self.assertEqual(keys["srk_previous"], old_key)
        self.assertNotEqual(keys["srk"], old_key)

    def test_threaded_service_makes_the_tags_that_python_makes(self):
        root_key = os.urandom(32)
        write_store(self.directory, {"srk": root_key})
        printed = self.run_example("threaded_service")
        session_key = oracles.session_key(root_key, bytes.fromhex("20261121"))
        self.assertEqual(re.findall(r"^  (\S.*?) +success +tag (.*)$", printed, re.M),
                         [(message, oracles.tag(session_key, message.encode()).hex())
                          for message in (f"Close valve {valve}" for valve in range(1, 13))])

    def test_key_agreement_agrees_with_itself_and_signs_what_openssl_accepts(self):
        printed = self.run_example("key_agreement")
        secrets = re.findall(r" secret (\w{64})$", printed, re.M)
        self.assertEqual(len(secrets), 2)
        self.assertEqual(secrets[0], secrets[1])
        self.assertTrue(oracles.accepts_hash(*(value(printed, what)
                                               for what in ("Alice", "hash", "signature"))))

    def test_an_example_removes_the_store_that_it_made(self):
        for example in ("tag_and_verify", "sign_and_verify", "ecdh_session", "kts_slot",
                        "threaded_service", "key_agreement"):
            with self.subTest(example):
                self.run_example(example, own_store=True)
                self.assertEqual(list(self.directory.iterdir()), [])

    def test_an_example_fails_when_its_key_is_not_in_the_store(self):
        write_store(self.directory, {})
        for example in ("tag_and_verify", "sign_and_verify", "ecdh_session", "kts_slot",
                        "threaded_service"):
            with self.subTest(example):
                self.assertIn("KeyLibrary_KEY_NOT_FOUND", self.run_example(example, ends_with=1))

    def test_an_example_fails_when_it_cannot_go_to_the_store(self):
        nowhere = self.directory / "nowhere"
        self.assertEqual(self.run_example("tag_and_verify", nowhere, ends_with=1),
                         f"{nowhere}: No such file or directory\n")

    # ---- What the tests use

    def run_example(self, name, store=None, own_store=False, ends_with=0):
        """Runs an example on the store of this test or on one of its own; what it printed."""
        arguments = [] if own_store else [store or self.directory]
        environment = {**os.environ, "TMPDIR": str(self.directory),
                       "LSAN_OPTIONS": f"suppressions={SUPPRESSIONS}"}
        result = subprocess.run([*build.emulator, Path(build.build, "examples", name), *arguments],
                                env=environment, check=False, text=True, stdout=subprocess.PIPE,
                                stderr=subprocess.STDOUT)
        self.assertEqual(result.returncode, ends_with, result.stdout)
        return result.stdout


def value(printed, what):
    """The bytes that stand behind a word, the first time."""
    return bytes.fromhex(re.search(rf" {what} ([0-9a-f]+)$", printed, re.M).group(1))


if __name__ == "__main__":
    run_test(Examples)
