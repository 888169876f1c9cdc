"""zentrava-keystore provision: the keys of many devices, all of them or none."""

import json
import sys
import time
from pathlib import Path

sys.path.insert(0, str(Path(__file__).parent / "support"))
from build_under_test import build, run_test
from key_store_tool import (EMPTY_FILE, HMAC_KEY, INPUT_OUTPUT, OTHER_UID, PRIVATE_FILE,
                            PRIVATE_KEY, PUBLIC_FILE, PUBLIC_KEY, REFUSED, UID, ToolTestCase,
                            record, store_file)

HEADING = "uid,key_name,key,file,metadata\n"
CSV = (HEADING
       + f"{UID},srk,{HMAC_KEY},,\n"
       + f"{OTHER_UID},ECDSA_DS_PuK,{PUBLIC_KEY},public,\"lot 7, \"\"bench\"\" 2\"\n"
       + f"{OTHER_UID},ecdsa_prv,{PRIVATE_KEY},private,<&>\n")
OBJECTS = [{"uid": UID, "key_name": "srk", "key": HMAC_KEY},
           {"uid": OTHER_UID, "key_name": "ECDSA_DS_PuK", "key": PUBLIC_KEY, "file": "public",
            "metadata": 'lot 7, "bench" 2'},
           {"uid": OTHER_UID, "key_name": "ecdsa_prv", "key": PRIVATE_KEY, "file": "private",
            "metadata": "<&>"}]
PRIVATE_RESULT = store_file(record(UID, "srk", 1, HMAC_KEY),
                            record(OTHER_UID, "ecdsa_prv", 3, PRIVATE_KEY, "&lt;&amp;&gt;"))
PUBLIC_RESULT = store_file(record(OTHER_UID, "ECDSA_DS_PuK", 2, PUBLIC_KEY, 'lot 7, "bench" 2'))


class ToolProvision(ToolTestCase):
    def setUp(self):
        super().setUp()
        self.init()

    def provision(self, text, *arguments):
        return self.tool("provision", "-", *arguments, stdin=text)

    def refused(self, text, *arguments):
        """What is said of a manifest that has to be refused, without the manifest's name."""
        before = self.files()
        self.write("manifest", text)
        error = self.refusal(REFUSED, "provision", "manifest", *arguments)
        (self.directory / "manifest").unlink()
        self.assertEqual(self.files(), before)
        self.assertTrue(error.startswith("manifest:"), error)
        return error.removeprefix("manifest:")

    def assert_provisioned(self):
        self.assertEqual(self.read(PRIVATE_FILE), PRIVATE_RESULT)
        self.assertEqual(self.read(PUBLIC_FILE), PUBLIC_RESULT)

    # ---- Manifests

    def test_a_csv_manifest_is_provisioned_in_its_order(self):
        self.assertEqual(self.provision(CSV), "provision: 3 added, 0 replaced\n")
        self.assert_provisioned()

    def test_a_json_manifest_is_provisioned_in_its_order(self):
        self.write("manifest.json", json.dumps(OBJECTS))
        self.assertEqual(self.tool("provision", "manifest.json"),
                         "provision: 3 added, 0 replaced\n")
        self.assert_provisioned()

    def test_csv_may_come_from_a_spreadsheet(self):
        self.provision("\ufeff" + CSV.replace("\n", "\r\n") + "\r\n")
        self.assert_provisioned()

    def test_csv_columns_may_stand_in_any_order_and_optional_ones_be_left_out(self):
        self.provision(f"key,uid,key_name\n{HMAC_KEY},{UID},srk")
        self.assertEqual(self.read(PRIVATE_FILE), store_file(record(UID, "srk", 1, HMAC_KEY)))

    def test_csv_fields_in_quotation_marks_may_hold_line_ends(self):
        self.provision(HEADING + f'{UID},srk,{HMAC_KEY},,"two\nlines"\n')
        self.assertEqual(self.records()[0]["metadata"], "two\nlines")
        self.assertEqual(
            self.refused(HEADING + f'{UID},a,{HMAC_KEY},,"two\nlines"\n{UID},b,0x,,\n'),
            "4: the key is not two hexadecimal digits for each byte; give another key")

    def test_the_format_can_be_told(self):
        self.provision(CSV, "--format", "csv")
        self.assert_provisioned()
        self.assertEqual(self.refused(CSV, "--format", "json"),
                         "1: is not well-formed JSON; mend it there, or say --format csv")

    def test_generate_makes_a_key_of_each_kind(self):
        names = ("srk", "crk", "tmp_client_session_key", "own", "ecdsa_prv", "ecdh_prv_slot_3")
        self.provision(HEADING + "".join(f"{UID},{name},generate,,\n" for name in names))
        keys = [found["key"] for found in self.records()]
        for key in keys:
            self.assertRegex(key, r"\A[0-9a-f]{64}\Z")
        self.assertEqual(len(set(keys)), len(names))

    # ---- Refusals

    def test_a_csv_manifest_of_the_wrong_form_is_refused_with_its_line(self):
        row = f"{UID},srk,{HMAC_KEY},,\n"
        remedy = "; name the columns uid, key_name, key, file, metadata in the first line"
        cases = {
            "uid,key_name\n": "1: the column key is missing" + remedy,
            "": "1: there is no column named " + remedy,
            "uid,key_name,key,colour\n": "1: there is no column named colour" + remedy,
            "uid,uid,key_name,key\n": "1: the column uid is there twice" + remedy,
            HEADING + row + "a,b\n":
                "3: has 2 fields instead of 5; give one field for each column, in quotation marks "
                "if it has a comma",
            HEADING + row + f'{UID},"a':
                "3: a quotation mark is opened and not closed; close it, and write each one inside "
                "a field twice",
            HEADING + f'{UID},"a"b,00,,\n':
                "2: a field goes on behind its quotation marks; put the whole field into quotation "
                "marks",
        }
        for text, error in cases.items():
            with self.subTest(error):
                self.assertEqual(self.refused(text), error)

    def test_a_json_manifest_of_the_wrong_form_is_refused_with_its_line(self):
        shape = ('is not an array of objects whose members are strings; write [{"uid": "...", '
                 '"key_name": "...", "key": "..."}, ...]')
        first = json.dumps(OBJECTS[0])
        cases = {
            "{}": "1: " + shape,
            "[1]": "1: " + shape,
            '["a"]': "1: " + shape,
            "[[]]": "1: " + shape,
            "[null]": "1: " + shape,
            f'[{first},\n{{"uid": 1}}]': "2: " + shape,
            f'[{first},\n{{"uid": {{}}}}]': "2: " + shape,
            f'[{first},\n{{"uid": [true]}}]': "2: " + shape,
            '[\n\n{"colour": "red"}]': "3: there is no member named colour; name the members uid, "
                                       "key_name, key, file, metadata",
            f'[{first},\n{{"uid": "{UID}", "key_name": "a"}}]':
                "2: the object has no key; give each object uid, key_name and key",
            f"[{first},\n": "2: is not well-formed JSON; mend it there, or say --format csv",
            f"[{first}]\nx": "2: is not well-formed JSON; mend it there, or say --format csv",
        }
        for text, error in cases.items():
            with self.subTest(text):
                self.assertEqual(self.refused(text), error)

    def test_a_key_that_cannot_be_stored_is_refused_with_its_line(self):
        cases = {
            "short,srk,generate,,": "UID short has 5 characters instead of 32; give the whole UID",
            f"{UID},,generate,,": "the key name is empty; give the key a name",
            f"{UID},own,,,": "the key is empty; give a key of at least one byte",
            f"{UID},own,Generate,,":
                "the key is not two hexadecimal digits for each byte; give another key",
            f"{UID},own,000,,":
                "the key is not two hexadecimal digits for each byte; give another key",
            f"{UID},own,00,secret,": "there is no file secret; say private, public or nothing",
            f"{UID},srk,00,,": "a key named srk has 32 bytes, this one has 1; give a key of that "
                               "length, or another name",
            f"{UID},ecdsa_prv,{'00' * 32},,":
                "the key is no private key of P-256: it is 0, or not below the order; give another "
                "key",
            f"{UID},ECDSA_DS_PuK,{'11' * 64},,":
                "the key is no public key of P-256: the point is not on the curve; give X and Y, "
                "32 bytes each, big-endian",
            f"{UID},ECDSA_DS_PuK,generate,,":
                "a public key cannot be generated by itself; give the key",
            f"{UID},own,00,,\x01":
                "a text cannot be stored in XML; leave out control characters and what is not "
                "UTF-8, and keep below 10,000,000 bytes",
        }
        for row, error in cases.items():
            with self.subTest(row):
                self.assertEqual(self.refused(f"{HEADING}{UID},first,00,,\n{row}\n"), "3: " + error)

    def test_a_key_that_is_in_the_manifest_twice_is_refused(self):
        for file in ("", "public"):
            self.assertEqual(
                self.refused(f"{HEADING}{UID},a,00,,\n{UID},b,00,,\n{UID},a,00,{file},\n"),
                f"4: line 2 has a key a of UID {UID} already; leave one of them out")

    def test_a_key_that_is_in_the_store_is_refused_and_replaced_only_on_request(self):
        self.add(UID, "b", "ff", "--metadata", "kept")
        manifest = f"{HEADING}{UID},a,00,,\n{UID},b,11,,\n"
        self.assertEqual(self.refused(manifest),
                         f"3: {PRIVATE_FILE}:3 has a key b of UID {UID} already; take another "
                         "name, or say --replace")
        self.assertEqual(self.provision(manifest, "--replace"), "provision: 1 added, 1 replaced\n")
        self.assertEqual(self.read(PRIVATE_FILE), store_file(record(UID, "b", 1, "11", "kept"),
                                                             record(UID, "a", 2, "00")))

    def test_a_key_that_the_other_file_has_is_refused(self):
        self.add(UID, "a", "ff", "--file", "public")
        self.assertEqual(
            self.refused(f"{HEADING}{UID},a,00,,\n", "--replace"),
            f"2: {PUBLIC_FILE} has a key a of UID {UID} already; delete that one first")

    def test_a_manifest_that_is_not_there_is_an_input_output_error(self):
        self.assertEqual(self.refusal(INPUT_OUTPUT, "provision", "nowhere"),
                         "nowhere: cannot be opened: No such file or directory; see to its name "
                         "and permissions")

    # ---- Ways to go about it

    def test_a_dry_run_checks_everything_and_changes_nothing(self):
        before = self.files()
        self.assertEqual(self.provision(CSV, "--dry-run"),
                         "provision (dry run): 3 added, 0 replaced\n")
        self.assertEqual(self.files(), before)
        self.add(UID, "srk", HMAC_KEY)
        self.assertEqual(self.refused(CSV, "--dry-run"),
                         f"2: {PRIVATE_FILE}:3 has a key srk of UID {UID} already; take another "
                         "name, or say --replace")

    def test_the_counts_come_as_json(self):
        self.assertEqual(self.json("provision", "-", "--dry-run", stdin=CSV),
                         {"command": "provision", "dry_run": True, "added": 3, "replaced": 0})
        self.assertEqual(self.json("provision", "-", stdin=CSV),
                         {"command": "provision", "dry_run": False, "added": 3, "replaced": 0})

    def test_an_empty_manifest_adds_nothing(self):
        self.assertEqual(self.provision(HEADING), "provision: 0 added, 0 replaced\n")
        self.assertEqual(self.provision("[]"), "provision: 0 added, 0 replaced\n")
        self.assertEqual(self.read(PRIVATE_FILE), EMPTY_FILE)

    def test_a_progress_bar_is_shown_on_a_terminal_and_taken_away(self):
        self.write("manifest.csv", CSV)
        shown, code = self.run_on_terminal("provision", "manifest.csv")
        self.assertEqual(code, 0)
        self.assertIn("\rchecking [" + "#" * 40 + "] 100%\r\033[K", shown)
        self.assertTrue(shown.endswith("\r\033[Kprovision: 3 added, 0 replaced\n"), shown)

    def test_no_progress_bar_is_shown_to_programs_or_in_quiet(self):
        self.write("manifest.csv", CSV)
        for option in ("--json", "--quiet"):
            shown, _ = self.run_on_terminal("provision", "manifest.csv", "--dry-run", option)
            self.assertNotIn("#", shown)

    def test_100000_keys_are_provisioned_within_seconds(self):
        count = 100000
        self.write("manifest.csv", HEADING + "".join(
            f"{number // 5:032x},{name},{key},,bench {number}\n" for number, (name, key) in (
                (number, (("srk", "generate"), ("crk", HMAC_KEY), ("ecdsa_prv", "generate"),
                          ("ecdh_prv", PRIVATE_KEY), ("ECDSA_DS_PuK", PUBLIC_KEY))[number % 5])
                for number in range(count))))
        begin = time.monotonic()
        self.tool("provision", "manifest.csv", "--quiet")
        duration = time.monotonic() - begin
        found = self.records() + self.records(PUBLIC_FILE)
        self.assertEqual(len(found), count)
        self.assertEqual({each["handle"] for each in found},
                         {str(number) for number in range(1, count + 1)})
        # On its own it takes about one second; sanitizers and emulators are for other things.
        if not build.emulator and not any("-fsanitize" in flag for flag in build.cxx_flags or []):
            self.assertLess(duration, 10)


if __name__ == "__main__":
    run_test(ToolProvision)
