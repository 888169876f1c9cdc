"""zentrava-keystore: what each command does to a store, and what it prints."""

import os
import stat
import subprocess
import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).parent / "support"))
from build_under_test import run_test
from key_store_tool import (EMPTY_FILE, HMAC_KEY, INPUT_OUTPUT, OTHER_UID, PRIVATE_FILE,
                            PRIVATE_KEY, PUBLIC_FILE, PUBLIC_KEY, REFUSED, STORE_DAMAGED, UID,
                            USAGE, ToolTestCase, record, store_file)

ORDER = "ffffffff00000000ffffffffffffffffbce6faada7179e84f3b9cac2fc632551"


class ToolCommands(ToolTestCase):
    # ---- init

    def test_init_makes_both_files_with_their_permissions_whatever_the_umask(self):
        self.assertEqual(self.tool("init", preexec_fn=lambda: os.umask(0)),
                         f"made {PRIVATE_FILE}\nmade {PUBLIC_FILE}\n")
        self.assertEqual(self.files(), {PRIVATE_FILE: EMPTY_FILE.encode(),
                                        PUBLIC_FILE: EMPTY_FILE.encode()})
        self.assertEqual(self.mode(PRIVATE_FILE), 0o600)
        self.assertEqual(self.mode(PUBLIC_FILE), 0o644)

    def test_init_gives_the_public_file_its_permissions_under_a_narrow_umask_too(self):
        self.tool("init", preexec_fn=lambda: os.umask(0o777))
        self.assertEqual((self.mode(PRIVATE_FILE), self.mode(PUBLIC_FILE)), (0o600, 0o644))

    def test_init_overwrites_neither_file(self):
        for name in (PRIVATE_FILE, PUBLIC_FILE):
            with self.subTest(name):
                self.write(name, "precious")
                self.assertEqual(
                    self.refusal(REFUSED, "init"),
                    f"{name}: is there already and is not overwritten; take another directory, or "
                    "say --missing to make only what is missing")
                self.assertEqual(self.files(), {name: b"precious"})
                (self.directory / name).unlink()

    def test_init_missing_makes_only_the_file_that_is_missing(self):
        self.write(PRIVATE_FILE, "precious")
        self.assertEqual(self.tool("init", "--missing"), f"made {PUBLIC_FILE}\n")
        self.assertEqual(self.files(),
                         {PRIVATE_FILE: b"precious", PUBLIC_FILE: EMPTY_FILE.encode()})

    def test_init_makes_the_directory_for_its_owner_alone(self):
        self.tool("--dir", "store", "init", "--quiet", preexec_fn=lambda: os.umask(0))
        self.assertEqual(self.mode("store"), 0o700)
        self.assertEqual(sorted(os.listdir(self.directory / "store")), [PRIVATE_FILE, PUBLIC_FILE])

    def test_init_tells_as_json_what_it_made(self):
        self.assertEqual(self.json("init")["files"],
                         [{"file": "private", "name": PRIVATE_FILE},
                          {"file": "public", "name": PUBLIC_FILE}])

    def test_init_in_a_place_that_is_no_directory_is_an_input_output_error(self):
        self.write("file", "")
        self.assertEqual(self.refusal(INPUT_OUTPUT, "init", "--dir", "file"),
                         "file: cannot be entered: Not a directory; name the store's directory "
                         "with --dir")

    def test_init_in_a_directory_that_cannot_be_made_is_an_input_output_error(self):
        self.assertEqual(self.refusal(INPUT_OUTPUT, "init", "--dir", "missing/store"),
                         "missing/store: cannot be made: No such file or directory; see to its "
                         "name and to the permissions of the directory that it goes to")

    # ---- add

    def test_add_appends_a_record_with_the_next_handle(self):
        self.init()
        self.assertEqual(self.tool("add", UID, "srk", stdin=HMAC_KEY + "\n"),
                         f"add: handle 1, private, 32 bytes: srk of UID {UID}\n")
        self.add(UID, "ECDSA_DS_PuK", PUBLIC_KEY, "--metadata", "a < b & c")
        self.assertEqual(self.read(PRIVATE_FILE), store_file(record(UID, "srk", 1, HMAC_KEY)))
        self.assertEqual(
            self.read(PUBLIC_FILE),
            store_file(record(UID, "ECDSA_DS_PuK", 2, PUBLIC_KEY, "a &lt; b &amp; c")))

    def test_add_reads_a_file_as_hexadecimal_text_or_as_bytes(self):
        self.init()
        self.write("key.txt", "00 01 02\n  0f\n")
        (self.directory / "key.bin").write_bytes(b"\x00\n\xff ")
        self.add(UID, "text", "", "--from", "key.txt")
        self.add(UID, "bytes", "", "--from", "key.bin", "--raw")
        self.assertEqual([found["key"] for found in self.records()], ["0001020f", "000aff20"])

    def test_add_finds_its_key_file_where_the_user_stands_not_in_the_store(self):
        self.tool("--dir", "store", "init", "--quiet")
        self.write("key.txt", HMAC_KEY)
        self.tool("--dir", "store", "add", UID, "srk", "--from", "key.txt", "--quiet")
        self.assertEqual([found["key"] for found in self.records("store/" + PRIVATE_FILE)],
                         [HMAC_KEY])

    def test_add_keeps_the_digits_as_they_are_given(self):
        self.init()
        self.add(UID, "mixed", "aAbBcC")
        self.assertEqual(self.records()[0]["key"], "aAbBcC")

    def test_add_takes_any_length_for_a_name_of_the_users_own_and_notes_what_comes_of_it(self):
        self.init()
        self.tool("add", UID, "own", "--quiet", stdin="00" * 32)
        self.tool("add", UID, "long", "--quiet", stdin="00" * 64)
        self.tool("add", UID, "short", stdin="abcd",
                  messages="zentrava-keystore: note: the library hands out a key of 2 bytes as "
                           "characters of its text, not as bytes\n")
        self.assertEqual([found["key"] for found in self.records()],
                         ["00" * 32, "00" * 64, "abcd"])

    def test_add_refuses_a_length_that_the_driver_refuses_for_the_name(self):
        self.init()
        lengths = {"srk": 32, "crk": 32, "tmp_client_session_key": 32, "ecdsa_prv": 32,
                   "ecdh_prv": 32, "ecdsa_prv_slot_7": 32, "ecdh_prv_slot_-1": 32,
                   "ECDSA_DS_PuK": 64}
        for name, length in lengths.items():
            for wrong in (length - 1, length + 1, 96 - length):
                with self.subTest(name, wrong=wrong):
                    self.assertEqual(
                        self.refusal(REFUSED, "add", UID, name, stdin="11" * wrong),
                        f"standard input: a key named {name} has {length} bytes, this one has "
                        f"{wrong}; give a key of that length, or another name")
        self.assertEqual(self.read(PRIVATE_FILE), EMPTY_FILE)

    def test_add_refuses_a_private_key_out_of_range_and_takes_the_last_one(self):
        self.init()
        below = f"{int(ORDER, 16) - 1:064x}"
        for key in ("00" * 32, ORDER, "ff" * 32):
            self.assertEqual(
                self.refusal(REFUSED, "add", UID, "ecdsa_prv", stdin=key),
                "standard input: the key is no private key of P-256: it is 0, or not below the "
                "order; give another key")
        self.add(UID, "ecdsa_prv", below)
        self.add(UID, "ecdh_prv", "00" * 31 + "01")

    def test_add_refuses_a_public_key_off_the_curve(self):
        self.init()
        self.assertEqual(
            self.refusal(REFUSED, "add", UID, "ECDSA_DS_PuK", stdin=PUBLIC_KEY[:-1] + "8"),
            "standard input: the key is no public key of P-256: the point is not on the curve; "
            "give X and Y, 32 bytes each, big-endian")

    def test_add_refuses_what_is_no_key_text_and_tells_the_line(self):
        self.init()
        self.write("key.txt", "00\n0x")
        self.assertEqual(self.refusal(REFUSED, "add", UID, "own", "--from", "key.txt"),
                         "key.txt:2: has a character that is no hexadecimal digit; say --raw if "
                         "the file holds the key's bytes")
        self.assertEqual(self.refusal(REFUSED, "add", UID, "own", stdin="000"),
                         "standard input: has an odd number of hexadecimal digits; give two digits "
                         "for each byte")
        self.assertEqual(self.refusal(REFUSED, "add", UID, "own", stdin=""),
                         "standard input: the key is empty; give a key of at least one byte")
        self.assertEqual(self.read(PRIVATE_FILE), EMPTY_FILE)

    def test_add_refuses_texts_that_a_store_cannot_hold(self):
        self.init()
        self.assertEqual(self.refusal(REFUSED, "add", "short", "srk", stdin=HMAC_KEY),
                         "standard input: UID short has 5 characters instead of 32; give the whole "
                         "UID")
        self.assertEqual(self.refusal(REFUSED, "add", UID, "", stdin=HMAC_KEY),
                         "standard input: the key name is empty; give the key a name")
        for text in ("\x01", "\udcff", "\ufffe"):
            with self.subTest(repr(text)):
                self.assertEqual(
                    self.refusal(REFUSED, "add", UID, "own", "--metadata",
                                 os.fsdecode(os.fsencode(text)), stdin=HMAC_KEY),
                    "standard input: a text cannot be stored in XML; leave out control characters "
                    "and what is not UTF-8, and keep below 10,000,000 bytes")

    def test_add_replaces_only_on_request_and_keeps_handle_and_metadata(self):
        self.init()
        self.add(UID, "srk", "11" * 32, "--metadata", "first")
        self.assertEqual(self.refusal(REFUSED, "add", UID, "srk", stdin=HMAC_KEY),
                         f"{PRIVATE_FILE}:3: has a key srk of UID {UID} already; take another "
                         "name, or say --replace")
        self.assertEqual(self.tool("add", UID, "srk", "--replace", stdin=HMAC_KEY),
                         f"add (replaced): handle 1, private, 32 bytes: srk of UID {UID}\n")
        self.assertEqual(self.read(PRIVATE_FILE),
                         store_file(record(UID, "srk", 1, HMAC_KEY, "first")))
        self.add(UID, "srk", HMAC_KEY, "--replace", "--metadata", "second")
        self.assertEqual(self.records()[0]["metadata"], "second")
        self.add(UID, "srk", HMAC_KEY, "--replace", "--metadata", "")
        self.assertEqual(self.records()[0]["metadata"], "")

    def test_add_refuses_a_name_that_the_other_file_has(self):
        self.init()
        self.add(UID, "own", "00", "--file", "public")
        self.assertEqual(self.refusal(REFUSED, "add", UID, "own", "--replace", stdin="11"),
                         f"{PUBLIC_FILE}: has a key own of UID {UID} already; delete that one "
                         "first")

    def test_add_names_a_slot_by_its_number_as_the_driver_does(self):
        self.init()
        for slot in ("0", "7", "4294967295"):
            self.add(UID, "ecdh_prv", PRIVATE_KEY, "--slot", slot)
        self.assertEqual([found["key_name"] for found in self.records()],
                         ["ecdh_prv_slot_0", "ecdh_prv_slot_7", "ecdh_prv_slot_-1"])
        self.assertEqual(self.refusal(USAGE, "add", UID, "srk", "--slot", "1", stdin=HMAC_KEY),
                         "there are no KTS slots of the key srk; say --slot with ecdsa_prv or "
                         "ecdh_prv only")
        self.refusal(USAGE, "add", UID, "ecdh_prv", "--slot", "4294967296", stdin=PRIVATE_KEY)

    def test_add_tells_as_json_what_it_added(self):
        self.init()
        self.assertEqual(self.json("add", UID, "srk", "--metadata", "mine", stdin=HMAC_KEY),
                         {"command": "add", "replaced": False,
                          "key": {"file": "private", "handle": "1", "uid": UID, "key_name": "srk",
                                  "key_length": 32, "metadata": "mine"}})
        self.assertIs(self.json("add", UID, "srk", "--replace", stdin=HMAC_KEY)["replaced"], True)

    def test_a_new_handle_follows_the_largest_one_of_both_files(self):
        self.write(PRIVATE_FILE, store_file(record(UID, "a", "7", "00"), record(UID, "b", "x", "")))
        self.write(PUBLIC_FILE, store_file(record(UID, "c", "41", "00")))
        self.add(UID, "d", "00")
        self.assertEqual(self.records()[-1]["handle"], "42")
        self.write(PUBLIC_FILE, store_file(record(UID, "c", "-5", "00")))
        self.add(UID, "e", "00")
        self.assertEqual(self.records()[-1]["handle"], "-4")

    def test_no_handle_is_given_out_twice_behind_the_last_one(self):
        self.write(PRIVATE_FILE, store_file(record(UID, "a", "-1", "00")))
        self.tool("init", "--missing", "--quiet")
        self.assertEqual(self.refusal(REFUSED, "add", UID, "b", stdin="00"),
                         "there is no handle behind the largest one, which is negative; give the "
                         "records that check names handles from 1 on")

    # ---- generate

    def test_generate_makes_random_hmac_keys_of_32_bytes(self):
        self.init()
        for name in ("srk", "crk", "tmp_client_session_key", "own"):
            self.tool("generate", UID, name, "--quiet")
        keys = [found["key"] for found in self.records()]
        for key in keys:
            self.assertRegex(key, r"\A[0-9a-f]{64}\Z")
        self.assertEqual(len(set(keys)), 4)

    def test_generate_prints_the_public_key_of_a_pair_and_nothing_else_on_standard_output(self):
        self.init()
        pem = self.tool("generate", UID, "ecdsa_prv",
                        messages=f"generate: handle 1, private, 32 bytes: ecdsa_prv of UID {UID}\n")
        self.assertEqual(self.point_of(pem), self.point_of_stored(0))

    def test_generate_writes_the_public_key_to_a_file_and_overwrites_none(self):
        self.init()
        self.assertEqual(
            self.tool("generate", UID, "ecdh_prv", "--slot", "3", "--public-key", "key.pem"),
            f"generate: handle 1, private, 32 bytes: ecdh_prv_slot_3 of UID {UID}\n")
        self.assertEqual(self.point_of(self.read("key.pem")), self.point_of_stored(0))
        before = self.files()
        self.assertEqual(
            self.refusal(REFUSED, "generate", UID, "ecdh_prv", "--public-key", "key.pem"),
            "key.pem: is there already and is not overwritten; name another file")
        self.assertEqual(self.files(), before)

    def test_generate_stores_the_public_key_for_a_verifier(self):
        self.init()
        self.tool("generate", UID, "ecdsa_prv", "--verifier", OTHER_UID, "--quiet")
        self.tool("generate", UID, "own", "--type", "p256", "--verifier", UID, "--verifier-name",
                  "peer", "--quiet")
        first, second = self.records(PUBLIC_FILE)
        self.assertEqual((first["uid"], first["key_name"], first["handle"], first["key"]),
                         (OTHER_UID, "ECDSA_DS_PuK", "2", self.point_of_stored(0)))
        self.assertEqual((second["uid"], second["key_name"], second["key"]),
                         (UID, "peer", self.point_of_stored(1)))

    def test_generate_changes_nothing_if_the_verifier_has_a_key_already(self):
        self.init()
        self.add(UID, "ECDSA_DS_PuK", PUBLIC_KEY)
        before = self.files()
        self.assertEqual(
            self.refusal(REFUSED, "generate", UID, "ecdsa_prv", "--verifier", UID, "--public-key",
                         "key.pem"),
            f"{PUBLIC_FILE}:3: has a key ECDSA_DS_PuK of UID {UID} already; take another name, or "
            "say --replace")
        self.assertEqual(self.files(), before)
        self.tool("generate", UID, "ecdsa_prv", "--verifier", UID, "--replace", "--quiet")
        self.assertEqual(self.records(PUBLIC_FILE)[0]["key"], self.point_of_stored(0))

    def test_generate_refuses_what_it_cannot_make(self):
        self.init()
        self.assertEqual(self.refusal(REFUSED, "generate", UID, "ECDSA_DS_PuK"),
                         "ECDSA_DS_PuK is the name of a public key; generate the private key, with "
                         "--verifier for the public one")
        self.assertEqual(self.refusal(REFUSED, "generate", UID, "srk", "--type", "p256"),
                         "the library uses a key named srk otherwise; leave out --type, or take "
                         "another name")
        self.assertEqual(self.refusal(USAGE, "generate", UID, "srk", "--verifier", UID),
                         "an HMAC key has no public key to store for a verifier; leave out "
                         "--verifier, or say --type p256")
        self.assertEqual(self.refusal(USAGE, "generate", UID, "srk", "--public-key", "key.pem"),
                         "an HMAC key has no public key to write to a file; leave out "
                         "--public-key, or say --type p256")
        self.assertEqual(self.read(PRIVATE_FILE), EMPTY_FILE)

    def test_generate_gives_the_public_key_as_json_too(self):
        self.init()
        pair = self.json("generate", UID, "ecdsa_prv")
        self.assertEqual(self.point_of(pair["public_key"]), self.point_of_stored(0))
        self.assertNotIn("public_key", self.json("generate", UID, "srk"))

    # ---- show

    def test_show_hides_the_key_unless_it_is_to_be_revealed(self):
        self.init()
        self.add(UID, "srk", HMAC_KEY, "--metadata", "mine")
        shown = ("file:     private (key_contents_prv.xml, line 3)\n"
                 "handle:   1\n"
                 f"UID:      {UID}\n"
                 "name:     srk\n"
                 "bytes:    32\n"
                 "metadata: mine\n")
        hidden = shown + "key:      hidden (--reveal shows it)\n"
        self.assertEqual(self.tool("show", UID, "srk"), hidden)
        self.assertEqual(self.tool("show", "--handle", "1"), hidden)
        self.assertEqual(self.tool("show", UID, "srk", "--reveal"),
                         shown + f"key:      {HMAC_KEY}\n")

    def test_show_gives_json_with_the_key_only_if_it_is_to_be_revealed(self):
        self.init()
        self.add(UID, "srk", HMAC_KEY)
        told = {"file": "private", "handle": "1", "uid": UID, "key_name": "srk", "key_length": 32,
                "metadata": ""}
        self.assertEqual(self.json("show", UID, "srk"), {"command": "show", "key": told})
        self.assertEqual(self.json("show", UID, "srk", "--reveal"),
                         {"command": "show", "key": {**told, "key": HMAC_KEY}})

    def test_a_key_that_is_not_there_is_not_found(self):
        self.init()
        self.add(UID, "srk", HMAC_KEY)
        for command in (["show"], ["copy", "--as", "x"], ["rename", "--as", "x"], ["delete"]):
            with self.subTest(command[0]):
                self.assertEqual(self.refusal(REFUSED, *command, UID, "crk"),
                                 f"there is no key crk of UID {UID}; see what there is with list")
                self.assertEqual(self.refusal(REFUSED, *command, "--handle", "2"),
                                 "there is no key with handle 2; see what there is with list")
                self.assertEqual(self.refusal(REFUSED, *command, UID, "srk", "--file", "public"),
                                 f"{PUBLIC_FILE}: there is no key srk of UID {UID}; see what there "
                                 "is with list")

    def test_a_key_that_both_files_have_needs_a_file(self):
        self.write(PRIVATE_FILE, store_file(record(UID, "own", 1, "00")))
        self.write(PUBLIC_FILE, store_file(record(UID, "own", 1, "11")))
        self.assertEqual(self.refusal(REFUSED, "show", UID, "own"),
                         f"both files have a key own of UID {UID}; say which with --file private "
                         "or --file public")
        self.assertEqual(self.refusal(REFUSED, "delete", "--handle", "1"),
                         "both files have a key with handle 1; say which with --file private or "
                         "--file public")
        self.assertEqual(
            self.json("show", "--handle", "1", "--file", "public", "--reveal")["key"]["key"], "11")

    def test_a_record_is_found_as_the_library_finds_it(self):
        hidden = (f"<key_content><key_name>early</key_name><uid>{UID}</uid><handle>1</handle>"
                  "<key>00</key></key_content>\n")
        inside = "<key_content><inner>" + record(UID, "inner", 2, "11") + "</inner></key_content>"
        deep = "<a><b>" + record(UID, "deep", 3, "22") + "</b></a>"
        twice = record(UID, "twice", 4, "33") + record(UID, "twice", 5, "44")
        self.write(PRIVATE_FILE, store_file(hidden, inside, deep, twice))
        self.refusal(REFUSED, "show", UID, "early")
        self.refusal(REFUSED, "show", UID, "inner")
        self.assertEqual(self.json("show", UID, "deep", "--reveal")["key"]["key"], "22")
        self.assertEqual(self.json("show", UID, "twice", "--reveal")["key"]["key"], "33")

    def test_key_names_that_look_like_commands_or_options_are_names(self):
        self.init()
        for name in ("list", "--name", "-x", "{}", "[a,b]"):
            self.tool("add", "--quiet", "--", UID, name, stdin="00")
        self.assertEqual([found["key_name"] for found in self.records()],
                         ["list", "--name", "-x", "{}", "[a,b]"])
        self.assertEqual(self.json("show", UID, "list")["key"]["key_name"], "list")

    # ---- copy, rename, delete

    def test_copy_makes_a_record_with_a_handle_of_its_own_and_no_metadata(self):
        self.init()
        self.add(UID, "srk", HMAC_KEY, "--metadata", "mine")
        self.assertEqual(self.tool("copy", UID, "srk", "--as", "crk"),
                         f"copy: handle 2, private, 32 bytes: crk of UID {UID}\n")
        self.tool("copy", "--handle", "1", "--as", "srk", "--to", OTHER_UID, "--metadata", "its",
                  "--quiet")
        self.assertEqual(self.read(PRIVATE_FILE),
                         store_file(record(UID, "srk", 1, HMAC_KEY, "mine"),
                                    record(UID, "crk", 2, HMAC_KEY),
                                    record(OTHER_UID, "srk", 3, HMAC_KEY, "its")))

    def test_copy_replaces_only_on_request(self):
        self.init()
        self.add(UID, "srk", HMAC_KEY)
        self.add(UID, "crk", "11" * 32)
        self.assertEqual(self.refusal(REFUSED, "copy", UID, "srk", "--as", "crk"),
                         f"{PRIVATE_FILE}:4: has a key crk of UID {UID} already; take another "
                         "name, or say --replace")
        self.assertIs(self.json("copy", UID, "srk", "--as", "crk", "--replace")["replaced"], True)
        self.assertEqual(self.records()[1]["key"], HMAC_KEY)

    def test_copy_refuses_a_name_that_the_driver_would_not_load_the_key_under(self):
        self.init()
        self.add(UID, "own", "0011")
        self.assertEqual(self.refusal(REFUSED, "copy", UID, "own", "--as", "srk"),
                         "a key named srk has 32 bytes, this one has 2; give a key of that length, "
                         "or another name")

    def test_rename_keeps_the_rest_of_the_record(self):
        self.init()
        self.add(UID, "old", HMAC_KEY, "--metadata", "mine")
        self.assertEqual(self.tool("rename", UID, "old", "--as", "srk"),
                         f"rename: handle 1, private, 32 bytes: srk of UID {UID}\n")
        self.assertEqual(self.read(PRIVATE_FILE),
                         store_file(record(UID, "srk", 1, HMAC_KEY, "mine")))
        self.assertEqual(self.json("rename", "--handle", "1", "--as", "crk")["key"]["key_name"],
                         "crk")

    def test_rename_refuses_a_name_that_is_taken_or_does_not_fit(self):
        self.init()
        self.add(UID, "a", "00")
        self.add(UID, "b", "00", "--file", "public")
        self.assertEqual(self.refusal(REFUSED, "rename", UID, "a", "--as", "b"),
                         f"{PUBLIC_FILE}: has a key b of UID {UID} already; take another name, or "
                         "delete that one first")
        self.assertEqual(self.refusal(REFUSED, "rename", UID, "a", "--as", "srk"),
                         "a key named srk has 32 bytes, this one has 1; give a key of that length, "
                         "or another name")
        self.refusal(REFUSED, "rename", UID, "a", "--as", "")

    def test_delete_takes_one_record_and_its_line_out(self):
        self.init()
        for name in ("a", "b", "c"):
            self.add(UID, name, "00")
        self.assertEqual(self.tool("delete", UID, "b"),
                         f"delete: handle 2, private, 1 bytes: b of UID {UID}\n")
        self.assertEqual(self.read(PRIVATE_FILE),
                         store_file(record(UID, "a", 1, "00"), record(UID, "c", 3, "00")))
        self.assertEqual(self.json("delete", "--handle", "3")["key"]["key_name"], "c")
        self.tool("delete", UID, "a", "--quiet")
        self.assertEqual(self.read(PRIVATE_FILE), EMPTY_FILE)

    # ---- backup, restore

    def test_backup_copies_both_files_with_their_permissions(self):
        self.init()
        self.add(UID, "srk", HMAC_KEY)
        (self.directory / PUBLIC_FILE).chmod(0o640)
        private_size, public_size = (len(self.read(name)) for name in (PRIVATE_FILE, PUBLIC_FILE))
        self.assertEqual(
            self.tool("backup", "copy"),
            f"backup: key_contents_prv.xml, {private_size} bytes, mode 0600\n"
            f"backup: key_contents_pub.xml, {public_size} bytes, mode 0640\n")
        for name, mode in ((PRIVATE_FILE, 0o600), (PUBLIC_FILE, 0o640)):
            self.assertEqual(self.read("copy/" + name), self.read(name))
            self.assertEqual(self.mode("copy/" + name), mode)
        self.assertEqual(self.mode("copy"), 0o700)

    def test_backup_overwrites_no_copy_and_leaves_none_half_made(self):
        self.init()
        (self.directory / "copy").mkdir()
        self.write("copy/" + PUBLIC_FILE, "precious")
        self.assertEqual(self.refusal(REFUSED, "backup", "copy"),
                         f"copy/{PUBLIC_FILE}: is there already and is not overwritten; name "
                         "another directory")
        self.assertEqual(os.listdir(self.directory / "copy"), [PUBLIC_FILE])
        self.assertEqual(self.read("copy/" + PUBLIC_FILE), "precious")

    def test_backup_needs_both_files(self):
        self.init()
        (self.directory / PUBLIC_FILE).unlink()
        self.assertEqual(self.refusal(INPUT_OUTPUT, "backup", "copy"),
                         f"{PUBLIC_FILE}: is missing; make it with init --missing")

    def test_restore_brings_back_what_was_there_and_its_permissions(self):
        self.init()
        self.add(UID, "srk", HMAC_KEY)
        self.add(UID, "ECDSA_DS_PuK", PUBLIC_KEY)
        before = self.files()
        (self.directory / PUBLIC_FILE).chmod(0o640)
        self.tool("backup", "copy", "--quiet")
        self.tool("delete", UID, "ECDSA_DS_PuK", "--quiet")
        self.write(PRIVATE_FILE, "no store any more")
        (self.directory / PUBLIC_FILE).chmod(0o600)
        told = self.json("restore", "copy")
        self.assertEqual(told["files"][1], {"file": "public", "name": PUBLIC_FILE, "mode": "0640",
                                            "bytes": len(before[PUBLIC_FILE])})
        self.assertEqual(self.files(), before)
        self.assertEqual((self.mode(PRIVATE_FILE), self.mode(PUBLIC_FILE)), (0o600, 0o640))

    def test_restore_makes_the_files_that_are_missing(self):
        self.init()
        self.add(UID, "srk", HMAC_KEY)
        self.json("backup", "copy")
        before = self.files()
        for name in (PRIVATE_FILE, PUBLIC_FILE):
            (self.directory / name).unlink()
        self.assertEqual(
            self.tool("restore", "copy"),
            f"restore: key_contents_prv.xml, {len(before[PRIVATE_FILE])} bytes, mode 0600\n"
            f"restore: key_contents_pub.xml, {len(before[PUBLIC_FILE])} bytes, mode 0644\n")
        self.assertEqual(self.files(), before)
        self.assertEqual(self.mode(PRIVATE_FILE), 0o600)

    def test_restore_refuses_a_damaged_backup_and_changes_nothing(self):
        self.init()
        self.add(UID, "srk", HMAC_KEY)
        self.tool("backup", "copy", "--quiet")
        before = self.files()
        self.write("copy/" + PUBLIC_FILE, "<keys>")
        self.assertRegex(self.refusal(STORE_DAMAGED, "restore", "copy"),
                         rf"\Acopy/{PUBLIC_FILE}:\d+: is not well-formed")
        self.write("copy/" + PUBLIC_FILE,
                   store_file(record(UID, "a", 5, "00"), record(UID, "b", 5, "00")))
        self.assertRegex(self.refusal(STORE_DAMAGED, "restore", "copy"),
                         rf"\Acopy/{PUBLIC_FILE}:4: .*, so nothing was restored; ")
        self.assertEqual(self.files(), before)

    def test_restore_follows_a_link_in_the_stores_place_and_keeps_it(self):
        self.init()
        self.add(UID, "srk", HMAC_KEY)
        self.tool("backup", "copy", "--quiet")
        (self.directory / "elsewhere").mkdir()
        (self.directory / PRIVATE_FILE).rename(self.directory / "elsewhere" / "file")
        (self.directory / PRIVATE_FILE).symlink_to("elsewhere/file")
        self.tool("delete", UID, "srk", "--quiet")
        self.tool("restore", "copy", "--quiet")
        self.assertTrue((self.directory / PRIVATE_FILE).is_symlink())
        self.assertEqual(self.read("elsewhere/file"), self.read("copy/" + PRIVATE_FILE))
        self.assertEqual(os.listdir(self.directory / "elsewhere"), ["file"])

    def test_restore_from_a_place_without_a_backup_is_an_input_output_error(self):
        self.init()
        self.assertEqual(self.refusal(INPUT_OUTPUT, "restore", "nowhere"),
                         f"nowhere/{PRIVATE_FILE}: cannot be read: No such file or directory; see "
                         "to its permissions and to the space on the disk")

    # ---- All of them

    def test_a_directory_without_a_store_is_an_input_output_error(self):
        for command in (["list"], ["show", UID, "srk"], ["add", UID, "srk"],
                        ["generate", UID, "srk"], ["copy", UID, "srk", "--as", "crk"],
                        ["rename", UID, "srk", "--as", "crk"], ["delete", UID, "srk"],
                        ["backup", "copy"]):
            with self.subTest(command[0]):
                self.assertEqual(self.refusal(INPUT_OUTPUT, *command, stdin=HMAC_KEY),
                                 f"{PRIVATE_FILE}: there is no key store here; make one with init, "
                                 "or name its directory with --dir")
        self.assertEqual(self.files(), {})

    def test_a_file_that_is_not_well_formed_is_a_damaged_store(self):
        self.init()
        for broken in ("", "<keys>\n<key_content>\n</keys>\n", "text"):
            self.write(PUBLIC_FILE, broken)
            for command in (["list"], ["show", UID, "srk"], ["add", UID, "srk"],
                            ["generate", UID, "srk"], ["copy", UID, "srk", "--as", "crk"],
                            ["rename", UID, "srk", "--as", "crk"], ["delete", UID, "srk"],
                            ["backup", "copy"]):
                with self.subTest(command[0], broken=broken):
                    self.assertRegex(
                        self.refusal(STORE_DAMAGED, *command, stdin=HMAC_KEY),
                        rf"\A{PUBLIC_FILE}(:\d)?: is not well-formed; mend it by hand, or bring a "
                        r"backup back with restore\Z")
        self.assertEqual(self.read(PRIVATE_FILE), EMPTY_FILE)

    def test_a_store_of_one_file_can_be_read_and_its_file_changed(self):
        self.write(PRIVATE_FILE, store_file(record(UID, "srk", 1, HMAC_KEY)))
        self.add(UID, "crk", HMAC_KEY)
        self.assertEqual(len(self.json("list")["keys"]), 2)
        self.assertEqual(
            self.refusal(INPUT_OUTPUT, "add", UID, "ECDSA_DS_PuK", stdin=PUBLIC_KEY),
            f"{PUBLIC_FILE}: is missing; make it with init --missing")

    def test_quiet_leaves_out_what_is_no_result(self):
        self.assertEqual(self.tool("init", "-q"), "")
        self.assertEqual(self.tool("add", UID, "short", "-q", stdin="00"), "")
        self.assertEqual(self.tool("copy", UID, "short", "--as", "b", "-q"), "")
        self.assertEqual(self.tool("rename", UID, "b", "--as", "c", "-q"), "")
        self.assertEqual(self.tool("delete", UID, "c", "-q"), "")
        self.assertEqual(self.tool("backup", "copy", "-q"), "")
        self.assertEqual(self.tool("restore", "copy", "-q"), "")
        self.assertIn("short", self.tool("list", "-q"))

    # ---- What the tests use

    def mode(self, name):
        return stat.S_IMODE((self.directory / name).stat().st_mode)

    def point_of(self, pem):
        """X and Y of a public key, as the openssl command reads it."""
        der = subprocess.run(["openssl", "pkey", "-pubin", "-outform", "DER"], input=pem.encode(),
                             check=True, stdout=subprocess.PIPE).stdout
        return der[-64:].hex()

    def point_of_stored(self, index):
        """X and Y of the public key of a stored private one, as the openssl command computes it."""
        key = self.records()[index]["key"]
        self.assertRegex(key, r"\A[0-9a-f]{64}\Z")
        der = bytes.fromhex(f"30310201010420{key}a00a06082a8648ce3d030107")
        public = subprocess.run(["openssl", "pkey", "-inform", "DER", "-pubout", "-outform", "DER"],
                                input=der, check=True, stdout=subprocess.PIPE).stdout
        return public[-64:].hex()


if __name__ == "__main__":
    run_test(ToolCommands)
