"""zentrava-keystore import and export, with the openssl command on the other side."""

import fcntl
import os
import pty
import re
import select
import shlex
import stat
import subprocess
import sys
import termios
from pathlib import Path

sys.path.insert(0, str(Path(__file__).parent / "support"))
from build_under_test import build, run_test
from key_store_tool import (HMAC_KEY, INPUT_OUTPUT, OTHER_UID, PRIVATE_FILE, PRIVATE_KEY,
                            PUBLIC_FILE, REFUSED, UID, USAGE, ToolTestCase, record, store_file)

PASSPHRASE = "correct horse"
PATIENCE = 60  # seconds


class ToolKeyFiles(ToolTestCase):
    def setUp(self):
        super().setUp()
        self.init()
        self.openssl("genpkey", "-algorithm", "EC", "-pkeyopt", "ec_paramgen_curve:P-256",
                     "-out", "key.pem")
        self.openssl("pkey", "-in", "key.pem", "-pubout", "-out", "public.pem")
        self.scalar, self.point = self.numbers("key.pem")

    # ---- import

    def test_import_takes_every_private_form_that_openssl_writes(self):
        # Not pkey, whose DER is SEC 1.
        self.openssl("pkcs8", "-topk8", "-nocrypt", "-in", "key.pem", "-outform", "DER", "-out",
                     "key.der")
        self.openssl("ec", "-in", "key.pem", "-out", "sec1.pem")
        self.openssl("ec", "-in", "key.pem", "-outform", "DER", "-out", "sec1.der")
        for file in ("key.pem", "key.der", "sec1.pem", "sec1.der"):
            with self.subTest(file):
                handle = len(self.records()) + 1
                self.assertEqual(
                    self.tool("import", UID, file, "--from", file),
                    f"import: handle {handle}, private, 32 bytes: {file} of UID {UID}\n")
                self.assertEqual(self.key_in(PRIVATE_FILE, file), self.scalar)

    def test_import_takes_every_public_form_that_openssl_writes(self):
        self.openssl("pkey", "-in", "key.pem", "-pubout", "-outform", "DER", "-out", "public.der")
        for file in ("public.pem", "public.der"):
            with self.subTest(file):
                self.tool("import", UID, "ECDSA_DS_PuK", "--from", file, "--quiet", "--replace")
                self.assertEqual(self.key_in(PUBLIC_FILE, "ECDSA_DS_PuK"), self.point)
                self.tool("delete", UID, "ECDSA_DS_PuK", "--quiet")

    def test_import_reads_standard_input_and_skips_the_curves_parameters(self):
        made = self.openssl("ecparam", "-name", "prime256v1", "-genkey")
        self.assertIn("BEGIN EC PARAMETERS", made)
        self.write("made.pem", made)
        self.tool("import", UID, "ecdh_prv", "--quiet", stdin=made)
        self.assertEqual(self.key_in(PRIVATE_FILE, "ecdh_prv"), self.numbers("made.pem")[0])

    def test_import_stores_the_public_key_of_a_private_one_for_a_verifier(self):
        self.tool("import", UID, "ECDSA_DS_PuK", "--from", "key.pem", "--quiet")
        self.tool("import", UID, "a peer", "--public", "--from", "key.pem", "--quiet")
        for name in ("ECDSA_DS_PuK", "a peer"):
            self.assertEqual(self.key_in(PUBLIC_FILE, name), self.point)
        self.assertEqual(self.records(PRIVATE_FILE), [])
        self.assertNotIn(self.scalar, self.read(PUBLIC_FILE))

    def test_import_puts_a_key_into_a_slot_and_the_file_that_is_asked_for(self):
        self.tool("import", UID, "ecdsa_prv", "--slot", "4294967295", "--from", "key.pem",
                  "--metadata", "bench 3", "--quiet")
        self.assertEqual(self.records(), [{"uid": UID, "key_name": "ecdsa_prv_slot_-1",
                                           "handle": "1", "key": self.scalar,
                                           "metadata": "bench 3"}])
        self.tool("import", UID, "ECDSA_DS_PuK", "--file", "private", "--from", "public.pem",
                  "--quiet")
        self.assertEqual(self.key_in(PRIVATE_FILE, "ECDSA_DS_PuK"), self.point)

    def test_import_replaces_only_when_told_to_and_keeps_the_handle(self):
        self.add(UID, "ecdsa_prv", PRIVATE_KEY)
        self.assertIn("already", self.refusal_without_change(
            REFUSED, "import", UID, "ecdsa_prv", "--from", "key.pem"))
        printed = self.tool("import", UID, "ecdsa_prv", "--from", "key.pem", "--replace")
        self.assertTrue(printed.startswith("import (replaced): handle 1, "), printed)
        self.assertEqual(self.key_in(PRIVATE_FILE, "ecdsa_prv"), self.scalar)

    def test_import_opens_an_encrypted_key_with_a_passphrase_from_a_file(self):
        self.encrypt("-v2", "des3", "-out", "encrypted.pem")
        self.encrypt("-v2", "des3", "-outform", "DER", "-out", "encrypted.der")
        self.encrypt("-v1", "PBE-SHA1-3DES", "-out", "pkcs12.pem")
        self.openssl("ec", "-in", "key.pem", "-aes256", "-passout", "pass:" + PASSPHRASE, "-out",
                     "sec1.pem")
        self.write("passphrase", PASSPHRASE + "\nanother line\n")
        for file in ("encrypted.pem", "encrypted.der", "pkcs12.pem", "sec1.pem"):
            with self.subTest(file):
                self.tool("import", UID, file, "--from", file, "--passphrase-file", "passphrase",
                          "--quiet")
                self.assertEqual(self.key_in(PRIVATE_FILE, file), self.scalar)

    def test_import_asks_for_a_passphrase_on_the_terminal_without_showing_it(self):
        self.encrypt("-v2", "des3", "-out", "encrypted.pem")
        shown, code = self.run_on_own_terminal("import", UID, "ecdsa_prv", "--from",
                                               "encrypted.pem", typed=PASSPHRASE + "\n")
        self.assertNotIn(PASSPHRASE, shown)
        self.assertEqual(code, 0, shown)
        self.assertEqual(shown.replace("\r\n", "\n"),
                         "Passphrase of encrypted.pem: \n"
                         f"import: handle 1, private, 32 bytes: ecdsa_prv of UID {UID}\n")
        self.assertEqual(self.key_in(PRIVATE_FILE, "ecdsa_prv"), self.scalar)

    def test_import_asks_for_no_passphrase_when_the_key_is_not_encrypted(self):
        shown, code = self.run_on_own_terminal("import", UID, "ecdsa_prv", "--from", "key.pem")
        self.assertEqual(code, 0, shown)
        self.assertNotIn("Passphrase", shown)

    def test_import_refuses_an_encrypted_key_without_a_passphrase(self):
        self.encrypt("-v2", "des3", "-out", "encrypted.pem")
        self.assertEqual(
            self.refusal_without_change(REFUSED, "import", UID, "ecdsa_prv", "--from",
                                        "encrypted.pem"),
            "encrypted.pem: the private key is encrypted, and there is no terminal to ask for its "
            "passphrase; give the passphrase with --passphrase-file")

    def test_import_refuses_a_wrong_passphrase(self):
        self.encrypt("-v2", "des3", "-out", "encrypted.pem")
        self.write("passphrase", "wrong\n")
        self.assertEqual(
            self.refusal_without_change(REFUSED, "import", UID, "ecdsa_prv", "--from",
                                        "encrypted.pem", "--passphrase-file", "passphrase"),
            "encrypted.pem:1: the passphrase does not open the encrypted private key; give the "
            "passphrase that the key was encrypted with")

    def test_import_refuses_another_encryption_with_a_remedy_that_helps(self):
        self.encrypt("-out", "encrypted.pem")
        self.write("passphrase", PASSPHRASE)
        error = self.refusal_without_change(REFUSED, "import", UID, "ecdsa_prv", "--from",
                                            "encrypted.pem", "--passphrase-file", "passphrase")
        self.assertIn("encrypted in a way that cannot be read here", error)
        self.follow(error, "-passin", "pass:" + PASSPHRASE, "-passout", "pass:" + PASSPHRASE)
        self.tool("import", UID, "ecdsa_prv", "--from", "converted.pem", "--passphrase-file",
                  "passphrase", "--quiet")
        self.assertEqual(self.key_in(PRIVATE_FILE, "ecdsa_prv"), self.scalar)

    def test_import_refuses_a_compressed_public_key_with_a_remedy_that_helps(self):
        self.openssl("ec", "-in", "key.pem", "-pubout", "-conv_form", "compressed", "-out",
                     "small.pem")
        error = self.refusal_without_change(REFUSED, "import", UID, "ECDSA_DS_PuK", "--from",
                                            "small.pem")
        self.assertIn("small.pem:1: the public key is compressed", error)
        self.follow(error)
        self.tool("import", UID, "ECDSA_DS_PuK", "--from", "uncompressed.pem", "--quiet")
        self.assertEqual(self.key_in(PUBLIC_FILE, "ECDSA_DS_PuK"), self.point)

    def test_import_refuses_a_spelt_out_curve_with_a_remedy_that_helps(self):
        self.openssl("pkey", "-in", "key.pem", "-ec_param_enc", "explicit", "-out", "long.pem")
        error = self.refusal_without_change(REFUSED, "import", UID, "ecdsa_prv", "--from",
                                            "long.pem")
        self.assertIn("spells its curve out", error)
        self.follow(error)
        self.tool("import", UID, "ecdsa_prv", "--from", "named.pem", "--quiet")
        self.assertEqual(self.key_in(PRIVATE_FILE, "ecdsa_prv"), self.scalar)

    def test_import_refuses_a_key_of_another_curve_or_kind(self):
        self.openssl("ecparam", "-name", "secp384r1", "-genkey", "-noout", "-out", "p384.pem")
        self.openssl("genpkey", "-algorithm", "ED25519", "-out", "ed.pem")
        self.openssl("genrsa", "-out", "rsa.pem", "1024")
        for file, cause in (("p384.pem", "on the curve secp384r1, not on P-256"),
                            ("ed.pem", "of another kind"), ("rsa.pem", "of another kind")):
            with self.subTest(file):
                error = self.refusal_without_change(REFUSED, "import", UID, "ecdsa_prv", "--from",
                                                    file)
                self.assertTrue(error.startswith(file + ":1: "), error)
                self.assertIn(cause, error)

    def test_import_refuses_a_point_off_the_curve_and_a_number_out_of_range(self):
        self.openssl("pkey", "-in", "key.pem", "-pubout", "-outform", "DER", "-out", "public.der")
        self.openssl("ec", "-in", "key.pem", "-outform", "DER", "-out", "sec1.der")
        self.change("public.der", lambda der: der[:-1] + bytes([der[-1] ^ 1]))
        self.change("sec1.der", lambda der: der[:7] + b"\xff" * 32 + der[39:])
        self.assertIn("not a point on the curve", self.refusal_without_change(
            REFUSED, "import", UID, "ECDSA_DS_PuK", "--from", "public.der"))
        self.assertIn("not within 1 to n - 1", self.refusal_without_change(
            REFUSED, "import", UID, "ecdsa_prv", "--from", "sec1.der"))

    def test_import_refuses_a_key_that_does_not_fit_the_name(self):
        for name, arguments, cause in (
                ("ecdsa_prv", ["--from", "public.pem"], "this is a public one"),
                ("ecdh_prv", ["--from", "key.pem", "--public"], "leave out --public"),
                ("srk", ["--from", "key.pem"], "the name of an HMAC key")):
            with self.subTest(name):
                self.assertIn(cause, self.refusal_without_change(REFUSED, "import", UID, name,
                                                                 *arguments))

    def test_import_refuses_what_is_no_key_file(self):
        self.write("junk", "hello\n")
        self.assertIn("junk: is not a P-256 key", self.refusal_without_change(
            REFUSED, "import", UID, "ecdsa_prv", "--from", "junk"))
        self.assertIn("standard input: is not a P-256 key", self.refusal_without_change(
            REFUSED, "import", UID, "ecdsa_prv"))
        self.assertIn("none.pem: cannot be opened", self.refusal_without_change(
            INPUT_OUTPUT, "import", UID, "ecdsa_prv", "--from", "none.pem"))

    def test_import_does_not_read_key_and_passphrase_from_the_same_place(self):
        self.assertIn("cannot both come from standard input", self.refusal_without_change(
            USAGE, "import", UID, "ecdsa_prv", "--passphrase-file", "-"))

    def test_import_has_no_option_for_a_passphrase_itself(self):
        before = self.files()
        self.assertIn("not expected", self.refusal(USAGE, "import", UID, "ecdsa_prv", "--from",
                                                   "key.pem", "--passphrase", PASSPHRASE))
        self.assertEqual(self.files(), before)

    def test_import_tells_as_json_what_it_stored(self):
        value = self.json("import", UID, "ecdsa_prv", "--from", "key.pem")
        self.assertEqual(value, {"command": "import", "replaced": False,
                                 "key": {"file": "private", "handle": "1", "uid": UID,
                                         "key_name": "ecdsa_prv", "key_length": 32,
                                         "metadata": ""}})

    # ---- export

    def test_export_writes_every_form_byte_for_byte_as_openssl_does(self):
        self.tool("import", UID, "ecdsa_prv", "--from", "key.pem", "--quiet")
        self.tool("import", OTHER_UID, "ECDSA_DS_PuK", "--from", "public.pem", "--quiet")
        for key, arguments, openssl in (
                ((UID, "ecdsa_prv"), [], ["pkey"]),
                ((UID, "ecdsa_prv"), ["--format", "der"],
                 ["pkcs8", "-topk8", "-nocrypt", "-outform", "DER"]),
                ((UID, "ecdsa_prv"), ["--form", "sec1"], ["ec"]),
                ((UID, "ecdsa_prv"), ["--form", "sec1", "--format", "der"],
                 ["ec", "-outform", "DER"]),
                ((UID, "ecdsa_prv"), ["--public"], ["pkey", "-pubout"]),
                ((UID, "ecdsa_prv"), ["--public", "--format", "der"],
                 ["pkey", "-pubout", "-outform", "DER"]),
                (("--handle", "1"), [], ["pkey"]),
                ((OTHER_UID, "ECDSA_DS_PuK"), [], ["pkey", "-pubout"])):
            with self.subTest([*key, *arguments]):
                exported = self.run_tool("export", *key, *arguments)
                self.assertEqual((exported.returncode, exported.stderr), (0, b""))
                self.openssl(*openssl, "-in", "key.pem", "-out", "expected")
                self.assertEqual(exported.stdout, (self.directory / "expected").read_bytes())

    def test_openssl_signs_and_verifies_with_exported_keys(self):
        self.tool("generate", UID, "ecdsa_prv", "--verifier", OTHER_UID, "--quiet",
                  "--public-key", "generated.pem")
        self.tool("export", UID, "ecdsa_prv", "--output", "signer.pem", "--quiet")
        self.tool("export", OTHER_UID, "ECDSA_DS_PuK", "--output", "verifier.pem", "--quiet")
        self.write("message", "Set valve 7 to 40 percent")
        self.openssl("dgst", "-sha256", "-sign", "signer.pem", "-out", "signature", "message")
        for public_key in ("verifier.pem", "generated.pem"):
            self.assertEqual(self.openssl("dgst", "-sha256", "-verify", public_key, "-signature",
                                          "signature", "message"), "Verified OK\n")
        self.assertNotEqual(self.run_openssl("dgst", "-sha256", "-verify", "public.pem",
                                             "-signature", "signature", "message").returncode, 0)

    def test_export_keeps_a_private_keys_file_to_its_owner_and_overwrites_none(self):
        self.tool("import", UID, "ecdsa_prv", "--from", "key.pem", "--quiet")
        usual_umask = {"preexec_fn": lambda: os.umask(0o022)}
        self.assertEqual(
            self.tool("export", UID, "ecdsa_prv", "--output", "out.pem", **usual_umask),
            f"export: the private key of handle 1, private, 32 bytes: ecdsa_prv of UID {UID}\n")
        self.tool("export", UID, "ecdsa_prv", "--public", "--output", "out.pub", "--quiet",
                  **usual_umask)
        self.assertEqual(self.mode("out.pem"), 0o600)
        self.assertEqual(self.mode("out.pub"), 0o644)
        self.assertIn("is there already", self.refusal_without_change(
            REFUSED, "export", UID, "ecdsa_prv", "--output", "out.pem"))

    def test_export_shows_a_private_key_on_a_terminal_only_when_told_to(self):
        self.tool("import", UID, "ecdsa_prv", "--from", "key.pem", "--quiet")
        shown, code = self.run_on_terminal("export", UID, "ecdsa_prv", "--json")
        self.assertEqual(code, REFUSED)
        self.assertNotIn("BEGIN", shown)
        shown, code = self.run_on_terminal("export", UID, "ecdsa_prv")
        self.assertEqual(code, REFUSED)
        self.assertIn("say --reveal", shown)
        self.assertNotIn("BEGIN", shown)
        self.assertEqual(self.run_on_terminal("export", UID, "ecdsa_prv", "--reveal"),
                         (self.read("key.pem"), 0))
        self.assertEqual(self.run_on_terminal("export", UID, "ecdsa_prv", "--public"),
                         (self.read("public.pem"), 0))

    def test_export_refuses_what_is_no_key_of_p256(self):
        self.write(PRIVATE_FILE, store_file(record(UID, "srk", 1, HMAC_KEY),
                                            record(UID, "short", 2, "0102"),
                                            record(UID, "odd", 3, HMAC_KEY[1:]),
                                            record(UID, "text", 4, "g" * 64),
                                            record(UID, "ecdsa_prv", 5, "0" * 64),
                                            record(UID, "ecdh_prv", 6, "f" * 64),
                                            record(UID, "ECDSA_DS_PuK", 7, "1" * 128)))
        causes = ["the key is none of P-256"] * 4 + ["not within 1 to n - 1"] * 2 + \
                 ["not a point on the curve"]
        for handle, cause in enumerate(causes, start=1):
            with self.subTest(handle):
                error = self.refusal_without_change(REFUSED, "export", "--handle", handle)
                self.assertTrue(error.startswith(f"{PRIVATE_FILE}:{handle + 2}: "), error)
                self.assertIn(cause, error)

    def test_export_refuses_a_key_that_is_not_there(self):
        self.assertIn("there is no key", self.refusal_without_change(
            REFUSED, "export", UID, "ecdsa_prv"))

    def test_export_tells_as_json_what_it_wrote(self):
        self.tool("import", UID, "ecdsa_prv", "--from", "key.pem", "--quiet")
        key = {"file": "private", "handle": "1", "uid": UID, "key_name": "ecdsa_prv",
               "key_length": 32, "metadata": ""}
        self.assertEqual(self.json("export", UID, "ecdsa_prv", "--public"),
                         {"command": "export", "exported": "public", "key": key,
                          "pem": self.read("public.pem")})
        self.assertEqual(self.json("export", UID, "ecdsa_prv", "--output", "out.pem"),
                         {"command": "export", "exported": "private", "key": key,
                          "output": "out.pem"})
        self.assertIn("no place for the bytes of DER", self.refusal_without_change(
            USAGE, "export", UID, "ecdsa_prv", "--format", "der", "--json"))

    # ---- What the tests above share

    def run_openssl(self, *arguments):
        return subprocess.run(["openssl", *arguments], cwd=self.directory, text=True, check=False,
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE)

    def openssl(self, *arguments):
        """Runs the openssl command, which has to succeed; what it printed on standard output."""
        result = self.run_openssl(*arguments)
        self.assertEqual(result.returncode, 0, result.stderr)
        return result.stdout

    def encrypt(self, *arguments):
        self.openssl("pkcs8", "-topk8", "-in", "key.pem", "-passout", "pass:" + PASSPHRASE,
                     *arguments)

    def numbers(self, file):
        """The private scalar and X, Y of a key, as the openssl command tells them."""
        text = self.openssl("pkey", "-in", file, "-noout", "-text")
        scalar, point = (re.sub(r"[\s:]", "", part) for part in
                         re.search(r"priv:([\s0-9a-f:]*)pub:([\s0-9a-f:]*)", text).groups())
        return scalar.zfill(64)[-64:], point.removeprefix("04")

    def follow(self, error, *arguments):
        """Runs the openssl command that an error tells for a remedy."""
        command = shlex.split(error.partition("convert it: ")[2])
        self.assertEqual(command[0], "openssl", error)
        self.openssl(*command[1:], *arguments)

    def key_in(self, file, name):
        key, = [each["key"] for each in self.records(file) if each["key_name"] == name]
        return key

    def change(self, file, changed):
        path = self.directory / file
        path.write_bytes(changed(path.read_bytes()))

    def mode(self, file):
        return stat.S_IMODE((self.directory / file).stat().st_mode)

    def refusal_without_change(self, code, *arguments):
        """As refusal, of a tool that has no terminal; every file is as it was."""
        before = self.files()
        error = self.refusal(code, *arguments, start_new_session=True)
        self.assertEqual(self.files(), before)
        for secret in (PASSPHRASE, self.scalar):
            self.assertNotIn(secret, error)
        return error

    def run_on_own_terminal(self, *arguments, typed=""):
        """Runs the tool in a session of its own whose terminal /dev/tty is; what that showed. The
        answer is typed as soon as a question stands there, whether the echo is off or not."""
        ours, its = pty.openpty()
        with subprocess.Popen([*build.emulator, build.tool, *arguments], cwd=self.directory,
                              stdin=its, stdout=its, stderr=its, start_new_session=True,
                              preexec_fn=lambda: fcntl.ioctl(its, termios.TIOCSCTTY, 0),
                              env={**os.environ, "NO_COLOR": "1"}) as process:
            os.close(its)
            try:
                shown = self.answered(ours, typed)
            finally:
                process.kill()  # if it still waits; else nothing
        os.close(ours)
        return shown, process.returncode

    def answered(self, terminal, typed):
        """Everything that the terminal showed until the program's end."""
        shown = b""
        while select.select([terminal], [], [], PATIENCE)[0]:
            try:
                shown += os.read(terminal, 65536)
            except OSError:  # nobody has the other side open any more
                return shown.decode()
            if typed and shown.endswith(b": "):
                os.write(terminal, typed.encode())
                typed = ""
        self.fail(f"still waiting, having shown {shown}")


if __name__ == "__main__":
    run_test(ToolKeyFiles)
