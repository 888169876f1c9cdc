"""zentrava-keystore: what people see, on terminals and elsewhere, and the command line."""

import re
import shlex
import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).parent / "support"))
from build_under_test import build, run_test
from key_store_tool import (HMAC_KEY, OTHER_UID, PRIVATE_FILE, PUBLIC_FILE, PUBLIC_KEY, UID, USAGE,
                            ToolTestCase, record, store_file)

LONG_UID = "x" * 100
LONG_TEXT = "made on the bench at the far end of the hall in the second shift by operator 17"
COLOUR = "\033["


class ToolOutput(ToolTestCase):
    # ---- Tables

    def test_a_table_shows_each_key_with_its_metadata_below(self):
        self.init()
        self.add(UID, "tmp_client_session_key", HMAC_KEY, "--metadata", LONG_TEXT)
        self.add(OTHER_UID, "ECDSA_DS_PuK", PUBLIC_KEY)
        self.assertEqual(
            self.tool("list"),
            "FILE     HANDLE  UID                               NAME                    BYTES\n"
            "    METADATA\n"
            f"private  1       {UID}  tmp_client_session_key  32\n"
            "    made on the bench at the far end of the hall in the second shift by operator\n"
            "    17\n"
            f"public   2       {OTHER_UID}  ECDSA_DS_PuK            64\n")

    def test_a_table_without_keys_is_its_heading(self):
        self.init()
        self.assertEqual(self.tool("list"), "FILE  HANDLE  UID  NAME  BYTES  METADATA\n")

    def test_a_table_shows_metadata_beside_the_keys_where_there_is_room(self):
        self.init()
        self.add(UID, "srk", HMAC_KEY, "--metadata", LONG_TEXT)
        shown, _ = self.run_on_terminal("list", columns=120, environment={"NO_COLOR": "1"})
        self.assertEqual(
            shown,
            "FILE     HANDLE  UID                               NAME  BYTES  METADATA\n"
            f"private  1       {UID}  srk   32     made on the bench at the far end of the hall in "
            "the\n"
            f"{' ' * 64}second shift by operator 17\n")

    def test_a_table_fits_80_columns_whatever_the_texts_and_shows_all_of_them(self):
        wide = "漢字" * 30
        self.write(PRIVATE_FILE, store_file(record(LONG_UID, "n" * 90, "-" * 40, "00", "m" * 300),
                                            record(UID, wide, 2, "11", wide)))
        for columns in (80, 60, 132):
            shown, _ = self.run_on_terminal("list", columns=columns, environment={"NO_COLOR": "1"})
            for line in shown.splitlines():
                self.assertLessEqual(sum(2 if ord(character) > 0x2E80 else 1 for character in line),
                                     columns, line)
            for character, count in (("x", 100), ("n", 90), ("-", 40), ("m", 300), ("漢", 60)):
                self.assertEqual(shown.count(character), count, shown)

    def test_a_line_end_or_an_escape_in_a_text_does_not_reach_the_terminal(self):
        self.write(PRIVATE_FILE, store_file(record(UID, "a&#10;b", 1, "00", "c\u009bd\te")))
        for arguments in (["list"], ["show", "--handle", "1"]):
            shown = self.tool(*arguments)
            self.assertIn("a\\nb", shown)
            self.assertIn("c\\u009bd\\te", shown)
            self.assertNotIn("\u009b", shown)
        self.assertEqual(self.json("list")["keys"][0]["metadata"], "c\u009bd\te")

    def test_the_filters_of_list_are_patterns(self):
        self.init()
        for uid, name in ((UID, "srk"), (UID, "ecdsa_prv"), (OTHER_UID, "srk")):
            self.json("generate", uid, name)
        self.add(UID, "ECDSA_DS_PuK", PUBLIC_KEY)
        for arguments, handles in ((["--uid", UID], "124"), (["--uid", "fedc*"], "3"),
                                   (["--name", "srk"], "13"), (["--name", "?rk"], "13"),
                                   (["--name", "ec*"], "2"), (["--file", "public"], "4"),
                                   (["--file", "private"], "123"), (["--name", "none"], ""),
                                   (["--uid", UID, "--name", "srk", "--file", "private"], "1")):
            with self.subTest(arguments):
                self.assertEqual("".join(key["handle"]
                                         for key in self.json("list", *arguments)["keys"]), handles)

    def test_show_wraps_long_metadata_at_the_terminals_width(self):
        self.init()
        self.add(UID, "srk", HMAC_KEY, "--metadata", LONG_TEXT)
        self.assertIn(
            "metadata: made on the bench at the far end of the hall in the second shift by\n"
            "          operator 17\n", self.tool("show", UID, "srk"))

    # ---- Colours

    def test_colours_are_used_on_a_terminal_only(self):
        self.init()
        self.add(UID, "srk", HMAC_KEY, "--metadata", "mine")
        for arguments in (["list"], ["show", UID, "srk"], ["show", UID, "crk"]):
            with self.subTest(arguments):
                shown, _ = self.run_on_terminal(*arguments)
                self.assertIn(COLOUR, shown)
                result = self.run_tool(*arguments, environment={"TERM": "xterm"})
                self.assertNotIn(COLOUR.encode(), result.stdout + result.stderr)

    def test_no_colours_are_used_with_no_color_or_on_a_dumb_terminal(self):
        self.init()
        self.add(UID, "srk", HMAC_KEY, "--metadata", "mine")
        for settings, is_coloured in (({"NO_COLOR": "1"}, False), ({"NO_COLOR": ""}, True),
                                      ({"TERM": "dumb"}, False)):
            for arguments in (["list"], ["show", UID, "srk"], ["show", UID, "crk"]):
                with self.subTest(arguments, settings=settings):
                    shown, _ = self.run_on_terminal(*arguments, environment=settings)
                    self.assertEqual(COLOUR in shown, is_coloured)

    def test_json_is_never_coloured(self):
        self.init()
        shown, _ = self.run_on_terminal("list", "--json")
        self.assertNotIn(COLOUR, shown)

    # ---- The command line

    def test_a_wrong_command_line_is_a_usage_error(self):
        cases = {
            "list extra": "The following argument was not expected: extra",
            "list --colour": "The following argument was not expected: --colour",
            "list --file secret": "--file: secret not in {private,public}",
            "list --dir": "--dir: 1 required DIRECTORY missing",
            "show": "either UID and NAME or --handle tells which key",
            f"show {UID}": "either UID and NAME or --handle tells which key",
            f"show {UID} srk --handle 1": "either UID and NAME or --handle tells which key",
            f"show {UID} --handle 1": "either UID and NAME or --handle tells which key",
            "show --handle ''": "--handle: is empty",
            "list --dir ''": "--dir: is empty",
            f"generate {UID} own --verifier-name mine": "--verifier-name requires --verifier",
            f"add {UID}": "NAME is required",
            f"generate {UID} srk --type rsa": "--type: rsa not in {hmac,p256}",
            f"copy {UID} srk": "--as is required",
            f"rename {UID} srk": "--as is required",
            "provision": "MANIFEST is required",
            "provision m.csv --format xml": "--format: xml not in {csv,json}",
            "backup": "DIRECTORY is required",
            "restore": "DIRECTORY is required",
        }
        self.init()
        before = self.files()
        for line, cause in cases.items():
            with self.subTest(line):
                words = shlex.split(line)
                self.assertEqual(self.refusal(USAGE, *words),
                                 f"{cause}; see zentrava-keystore {words[0]} --help")
        self.assertEqual(self.files(), before)

    def test_a_command_line_without_a_command_that_there_is_is_a_usage_error(self):
        cases = {
            "": "a command is missing",
            "frobnicate": "The following argument was not expected: frobnicate",
            "--dir": "--dir: 1 required DIRECTORY missing",
        }
        for line, cause in cases.items():
            with self.subTest(line):
                self.assertEqual(self.refusal(USAGE, *line.split()),
                                 f"{cause}; see zentrava-keystore --help")

    def test_common_options_stand_before_or_behind_the_command(self):
        self.tool("--quiet", "--dir", "store", "init")
        self.assertEqual(self.tool("--dir", "store", "--json", "list"),
                         self.tool("list", "--json", "--dir", "store"))

    def test_an_error_is_one_line_whatever_the_arguments(self):
        self.init()
        self.assertEqual(self.refusal(3, "show", "a\nb", "c\033[2Jd"),
                         "there is no key c\\u001b[2Jd of UID a\\nb; see what there is with list")

    def test_help_goes_to_standard_output(self):
        self.assertRegex(self.tool("--help"), r"\AProvisions, inspects and checks key stores\.\n")
        self.assertRegex(self.tool("list", "--help"), r"\AShow the keys as a table\n")

    # ---- The readme

    def test_the_quick_start_of_the_readme_works(self):
        readme = Path(build.source, "README.md").read_text(encoding="utf-8")
        start = readme.split("From nothing to a verified signature")[1]
        commands = re.search(r"\n\n((?:    .*\n)+)", start).group(1).split("\n    ")
        self.assertEqual(len(commands), 5)
        self.assertEqual(commands[0].strip(), "scripts/build")
        printed = ""
        for command in commands[1:]:
            words = shlex.split(command)
            program = words[0].replace("build/release", build.build)
            (self.directory / "build").mkdir(exist_ok=True)
            printed = self.run_command([*build.emulator, program, *words[1:]], cwd=self.directory)
            if program.endswith("sign_and_verify"):
                self.assertRegex(printed, r"verify_ecdsa_signature +KeyLibrary_OK +verified true\n")
        self.assertIn("ECDSA_DS_PuK", printed)
        stored, = self.records("build/store/" + PUBLIC_FILE)
        self.assertNotEqual(stored["key"], PUBLIC_KEY)


if __name__ == "__main__":
    run_test(ToolOutput)
