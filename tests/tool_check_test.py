"""zentrava-keystore check: what it prints, its exit codes, and that it changes nothing."""

import json
import sys
import time
from pathlib import Path

sys.path.insert(0, str(Path(__file__).parent / "support"))
from build_under_test import run_test
from key_store_tool import (DONE, HMAC_KEY, INPUT_OUTPUT, OTHER_UID, PRIVATE_FILE, PRIVATE_KEY,
                            PUBLIC_FILE, PUBLIC_KEY, STORE_DAMAGED, UID, USAGE, ToolTestCase,
                            record, store_file)

# One record with an error in line 3, one with a warning in line 4.
SURPRISING = store_file(record(UID, "srk", "x", HMAC_KEY), record(OTHER_UID, "own", 2, "a1b2c3"))
SURPRISING_TEXT = f"""\
{PRIVATE_FILE}:3: error: non-numeric-handle
    srk of UID {UID}, handle x
    the handle is not a decimal number
    remedy: delete the record and add the key anew
{PRIVATE_FILE}:4: warning: unconverted-key
    own of UID {OTHER_UID}, handle 2
    the key has 3 bytes: at any length but 32 and 64, the characters of its text
    are handed out in place of bytes
    remedy: see whether the key is complete
"""
SURPRISING_ERROR = (f"zentrava-keystore: {PRIVATE_FILE}:3: the handle is not a decimal number; "
                    "delete the record and add the key anew\n")


class ToolCheck(ToolTestCase):
    def setUp(self):
        super().setUp()
        self.init()

    def test_a_store_that_the_tool_made_has_no_findings(self):
        self.assertEqual(self.tool("check"), "check: 0 errors, 0 warnings\n")
        self.add(UID, "srk", HMAC_KEY)
        self.add(UID, "ecdsa_prv", PRIVATE_KEY, "--slot", "7", "--metadata", "a bench")
        self.add(UID, "ECDSA_DS_PuK", PUBLIC_KEY)
        self.tool("generate", UID, "ecdh_prv", "--quiet")
        self.assertEqual(self.tool("check"), "check: 0 errors, 0 warnings\n")
        self.assertEqual(self.tool("check", "--quiet"), "")

    def test_findings_are_told_with_file_line_cause_and_remedy(self):
        self.write(PRIVATE_FILE, SURPRISING)
        self.expect_check(STORE_DAMAGED, SURPRISING_TEXT + "check: 1 error, 1 warning\n",
                          SURPRISING_ERROR)
        self.expect_check(STORE_DAMAGED, SURPRISING_TEXT, SURPRISING_ERROR, "--quiet")

    def test_warnings_alone_are_no_damage_unless_the_check_is_strict(self):
        (self.directory / PRIVATE_FILE).chmod(0o640)
        text = (f"{PRIVATE_FILE}: warning: readable-by-others\n"
                "    others than the owner can read private keys\n"
                f"    remedy: chmod 600 {PRIVATE_FILE}\n"
                "check: 0 errors, 1 warning\n")
        self.expect_check(DONE, text, "")
        self.expect_check(STORE_DAMAGED, text,
                          f"zentrava-keystore: {PRIVATE_FILE}: others than the owner can read "
                          f"private keys; chmod 600 {PRIVATE_FILE}\n", "--strict")

    def test_findings_are_told_as_json(self):
        self.write(PRIVATE_FILE, SURPRISING)
        value = self.checked_json()
        self.assertEqual((value["errors"], value["warnings"]), (1, 1))
        self.assertEqual(value["findings"][0],
                         {"severity": "error", "what": "non-numeric-handle", "file": PRIVATE_FILE,
                          "line": 3, "uid": UID, "key_name": "srk", "handle": "x",
                          "cause": "the handle is not a decimal number",
                          "remedy": "delete the record and add the key anew"})
        self.assertEqual([finding["what"] for finding in value["findings"]],
                         ["non-numeric-handle", "unconverted-key"])

    def test_json_without_findings_has_an_empty_list(self):
        self.assertEqual(self.json("check"),
                         {"command": "check", "errors": 0, "warnings": 0, "findings": []})

    def test_a_file_that_is_not_well_formed_is_told_with_its_line(self):
        self.write(PUBLIC_FILE, "<keys>\n<key_content>\n</keys>\n")
        result = self.run_tool("check", "--quiet")
        self.assertEqual(result.returncode, STORE_DAMAGED)
        self.assertTrue(result.stdout.decode().startswith(
            f"{PUBLIC_FILE}:3: error: not-well-formed\n"), result.stdout)

    def test_a_missing_file_is_damage_and_its_remedy_helps(self):
        (self.directory / PUBLIC_FILE).unlink()
        result = self.run_tool("check")
        self.assertEqual(result.returncode, STORE_DAMAGED)
        self.assertIn("make it with init --missing", result.stderr.decode())
        self.tool("init", "--missing", "--quiet")
        self.tool("check")

    def test_what_cannot_be_read_is_an_input_output_error(self):
        (self.directory / PUBLIC_FILE).unlink()
        (self.directory / PUBLIC_FILE).mkdir()
        self.assertEqual(self.run_tool("check").returncode, INPUT_OUTPUT)

    def test_the_store_of_another_directory_is_checked_with_dir(self):
        self.write(PRIVATE_FILE, SURPRISING)
        elsewhere = self.directory / "elsewhere"
        self.tool("--dir", elsewhere, "init", "--quiet")
        self.tool("--dir", elsewhere, "check")

    def test_an_argument_too_many_is_a_usage_error(self):
        self.assertEqual(self.run_tool("check", "this").returncode, USAGE)

    def test_nothing_is_changed_and_no_key_is_shown(self):
        self.write(PRIVATE_FILE, store_file(
            record(UID, "ecdsa_prv", 1, "f" * 63), record(UID, "srk", "", HMAC_KEY),
            record(UID, "srk", 1, HMAC_KEY + "zz"), record("", "crk", "1", HMAC_KEY)))
        before = self.files()
        for arguments in ((), ("--json",)):
            result = self.run_tool("check", *arguments)
            self.assertEqual(result.returncode, STORE_DAMAGED)
            for text in (result.stdout.decode(), result.stderr.decode()):
                self.assertNotIn(HMAC_KEY[:8], text)
                self.assertNotIn("ffffffff", text)
        self.assertEqual(self.files(), before)

    def test_a_finding_fits_a_terminal_and_its_control_characters_are_escaped(self):
        name = "a long name " * 20 + "\u009b31m"
        self.write(PRIVATE_FILE, store_file(record(UID, name, "x", HMAC_KEY)))
        for columns in (80, 60):
            shown, code = self.run_on_terminal("check", columns=columns,
                                               environment={"NO_COLOR": "1"})
            self.assertEqual(code, STORE_DAMAGED)
            findings = shown.split("check: ")[0]
            self.assertLessEqual(max(map(len, findings.splitlines())), columns)
            self.assertNotIn("\u009b", shown)
            self.assertIn("\\u009b31m", shown)

    def test_colours_are_for_terminals_and_never_with_no_color(self):
        self.write(PRIVATE_FILE, SURPRISING)
        self.assertIn("\033[", self.run_on_terminal("check")[0])
        self.assertNotIn("\033[", self.run_on_terminal("check", environment={"NO_COLOR": "1"})[0])
        self.assertNotIn("\033[", self.run_tool("check").stdout.decode())

    def test_a_hundred_thousand_records_take_seconds(self):
        records = [record(f"{number:032x}", "ecdsa_prv", number, PRIVATE_KEY)
                   for number in range(1, 100001)]
        self.write(PRIVATE_FILE, store_file(*records, record(UID, "srk", 5, HMAC_KEY)))
        begin = time.monotonic()
        value = self.checked_json()
        seconds = time.monotonic() - begin
        self.assertEqual([(finding["what"], finding["line"]) for finding in value["findings"]],
                         [("duplicate-handle", 100003)])
        self.assertLess(seconds, 60)  # with a sanitizer or an emulator; else about one second

    # ---- What the tests above share

    def expect_check(self, code, output, error, *arguments):
        result = self.run_tool("check", *arguments)
        self.assertEqual((result.returncode, result.stdout.decode(), result.stderr.decode()),
                         (code, output, error))

    def checked_json(self):
        """The value that a check with errors prints, of the form that is told."""
        result = self.run_tool("check", "--json")
        self.assertEqual(result.returncode, STORE_DAMAGED)
        value = json.loads(result.stdout)
        self.check_form(value)
        return value


if __name__ == "__main__":
    run_test(ToolCheck)
