"""The Python package: how it finds the library, what it hands to C, and what it raises."""

import ctypes
import os
import pickle
import re
import shutil
import subprocess
import sys
import threading
from pathlib import Path

sys.path.insert(0, str(Path(__file__).parent / "support"))
from build_under_test import build, exported_functions, run_test
from key_store_files import UID
from python_library import LibraryTestCase

SONAME = "libzentrava_keys.so.1"
# What the package does not call: short forms of what it calls, and conversions that Python has.
NOT_CALLED = {"add_crk", "add_csk", "delete_crk", "contains_crk", "contains_csk",
              "_prv_keyfile_contains_key", "GetPublicKeyFromString", "GetPrivateKeyFromString",
              "_convert_hex_char_key_to_bytes"}
C_TYPES = {"KeyLibraryErrorCode": ctypes.c_int, "_Bool": ctypes.c_bool, "int": ctypes.c_int,
           "uint32_t": ctypes.c_uint32, "unsigned int": ctypes.c_uint,
           "uint32_t *": ctypes.POINTER(ctypes.c_uint32),
           "_Bool *": ctypes.POINTER(ctypes.c_bool)}
BYTE_POINTERS = {"char *", "unsigned char *", "uint8_t *"}


class PythonPackage(LibraryTestCase):
    # ---- Finding the library

    def test_the_library_that_is_given_goes_before_the_one_of_the_environment(self):
        self.assertEqual(self.loaded(build.library, ZENTRAVA_KEYS_LIBRARY="/nowhere"),
                         build.library)
        self.assertEqual(self.loaded(Path(build.library), ZENTRAVA_KEYS_LIBRARY="/nowhere"),
                         build.library)

    def test_the_library_of_the_environment_goes_before_the_one_of_the_loader(self):
        copy = self.directory / "copy.so"
        shutil.copy(build.library, copy)
        self.assertEqual(self.loaded(ZENTRAVA_KEYS_LIBRARY=str(copy),
                                     LD_LIBRARY_PATH=str(Path(build.library).parent)), str(copy))

    def test_without_both_the_loader_finds_the_library_by_its_soname(self):
        for environment in ({}, {"ZENTRAVA_KEYS_LIBRARY": ""}):
            self.assertEqual(self.loaded(LD_LIBRARY_PATH=str(Path(build.library).parent),
                                         **environment), SONAME)

    def test_a_missing_library_is_told_with_its_name_and_where_that_comes_from(self):
        self.assertRegex(self.loaded("/nowhere/lib.so"),
                         "'/nowhere/lib.so', which was given: .*No such file.*"
                         "Give Library the path of the file, or set ZENTRAVA_KEYS_LIBRARY to it")
        self.assertRegex(self.loaded(ZENTRAVA_KEYS_LIBRARY="/nowhere/lib.so"),
                         "'/nowhere/lib.so', which is the value of ZENTRAVA_KEYS_LIBRARY: ")
        self.assertRegex(self.loaded(), f"'{SONAME}', which the loader looks for: ")

    def test_another_library_is_told_from_the_key_library(self):
        self.assertRegex(self.loaded("libc.so.6"),
                         "'libc.so.6' is not the key library: it has no function key_lib_open")

    # ---- Agreeing with the headers

    def test_the_functions_have_the_types_that_the_headers_declare(self):
        declared = {}
        for header in exported_functions():
            prototypes = self.directory / "prototypes"
            self.run_command([build.cc, *build.c_flags, "-std=c99", "-fsyntax-only", "-aux-info",
                              prototypes, Path(build.source, header)])
            declared.update(types_of(prototypes.read_text(encoding="utf-8"), header))
        native = sys.modules["zentrava_keys._native"]
        self.assertEqual(set(native.FUNCTIONS) | NOT_CALLED, set(declared))
        for name, (result, arguments) in native.FUNCTIONS.items():
            with self.subTest(name):
                types = declared[name]
                self.assertEqual(len(arguments), len(types) - 1)
                for ours, theirs in zip([result, *arguments], types):
                    if theirs in BYTE_POINTERS:
                        self.assertIn(ours, (ctypes.c_char_p, ctypes.c_void_p))
                    else:
                        self.assertIs(ours, C_TYPES[theirs], theirs)

    def test_codes_sizes_and_lengths_are_those_of_the_headers_and_of_the_functions(self):
        program = self.directory / "header_facts"
        self.run_command([build.cc, *build.c_flags, "-std=c99", f"-I{build.source}",
                          Path(build.source, "tests", "support", "header_facts.c"), build.library,
                          f"-Wl,-rpath,{Path(build.library).parent}", "-o", program])
        facts = {}
        for line in self.run_command([program], LSAN_OPTIONS="detect_leaks=0").splitlines():
            name, *numbers = line.split()
            facts[name] = list(map(int, numbers))
        ours = {"size_of_code": [ctypes.sizeof(ctypes.c_int)],
                "size_of_context": [ctypes.sizeof(ctypes.c_void_p)],
                "alignment_of_context": [ctypes.alignment(ctypes.c_void_p)],
                "size_of_bool": [ctypes.sizeof(ctypes.c_bool)]}
        ours.update((code.name, [code.value]) for code in self.zentrava_keys.ResultCode)
        arguments = sys.modules["zentrava_keys._arguments"]
        ours.update((name, [getattr(arguments, name)])
                    for name in ("TAG_LENGTH", "SIGNATURE_LENGTH", "SECRET_LENGTH",
                                 "PRIVATE_KEY_LENGTH", "COMPRESSED_KEY_LENGTH",
                                 "MIN_HMAC_KEY_LENGTH"))
        ours["AMTC0_LENGTHS"] = list(arguments.AMTC0_LENGTHS)
        self.assertEqual(facts, ours)

    def test_the_constants_of_the_stores_texts_are_those_of_its_functions(self):
        arguments = sys.modules["zentrava_keys._arguments"]
        key = b"0" * 2 * arguments.STORED_KEY_LENGTH
        uid = b"u" * arguments.UID_LENGTH
        handle = ctypes.create_string_buffer(128)
        add = ctypes.CDLL(build.library).add_volatile_based_key
        self.assertEqual(add(uid, b"n", key, None, handle, 128), 0)
        for wrong_uid, wrong_key in ((uid + b"u", key), (uid[1:], key), (uid, key + b"0"),
                                     (uid, key[1:])):
            self.assertEqual(add(wrong_uid, b"m", wrong_key, None, handle, 128), 1)

    def test_the_key_names_are_those_that_the_headers_tell(self):
        header = Path(build.source, "key_driver", "zentrava_key_driver.h").read_text("utf-8")
        told = {name for name in re.findall(r'"(\w+)"', header) if "_slot_" not in name} - {"C"}
        self.assertEqual(set(self.zentrava_keys.KEY_NAMES), told)

    # ---- Errors

    def test_an_error_carries_the_functions_name_and_its_result(self):
        self.write_store({})
        with self.keys.open(UID) as device:
            with self.assertRaises(self.zentrava_keys.KeyNotFoundError) as raised:
                device.load_signing_key()
        error = raised.exception
        self.assertEqual((error.function, error.code), ("set_ecdsa_signing_key", 4))
        self.assertRegex(str(error), r"\Aset_ecdsa_signing_key returned 4: "
                                     r"KeyLibrary_KEY_NOT_FOUND, the key store did not deliver")
        self.assertEqual(str(pickle.loads(pickle.dumps(error))), str(error))

    def test_each_result_code_has_its_error(self):
        errors = sys.modules["zentrava_keys._errors"]
        package = self.zentrava_keys
        errors.check_driver("f", 0)
        for code, kind, name in ((1, package.KeyLibraryError, "ERROR"),
                                 (2, package.BadParameterError, "BAD_PARAMETER"),
                                 (3, package.OutOfMemoryError, "MEMORY"),
                                 (4, package.KeyNotFoundError, "KEY_NOT_FOUND"),
                                 (5, package.InvalidKeyError, "INVALID_KEY"),
                                 (6, package.CryptoError, "CRYPTO")):
            with self.assertRaisesRegex(kind, f"^f returned {code}: KeyLibrary_{name}, ") as raised:
                errors.check_driver("f", code)
            self.assertIs(type(raised.exception), kind)
        with self.assertRaisesRegex(package.KeyLibraryError, "^f returned 7: unknown result"):
            errors.check_driver("f", 7)

    def test_what_the_library_prints_comes_out_at_the_call(self):
        self.write_store({})
        # A process that ends like this leaves what is buffered unwritten.
        self.assertEqual(self.printed_by("import os, zentrava_keys\n"
                                         "try:\n"
                                         f"    zentrava_keys.Library().store.get('{UID}', 'srk')\n"
                                         "except zentrava_keys.StoreError:\n"
                                         "    os._exit(0)\n", ZENTRAVA_KEYS_LIBRARY=build.library),
                         "[get_key] error: can't find key\n")

    def test_a_context_that_is_still_open_is_closed_when_the_process_ends(self):
        printed = self.printed_by("import zentrava_keys\n"
                                  "keys = zentrava_keys.Library()\n"
                                  "close = keys._native._functions['key_lib_close']\n"
                                  "keys._native._functions['key_lib_close'] = (\n"
                                  "    lambda location: print('closed') or close(location))\n"
                                  f"device = keys.open('{UID}')\n"
                                  "print('end')\n", ZENTRAVA_KEYS_LIBRARY=build.library)
        self.assertEqual(printed, "end\nclosed\n")

    def test_wrong_types_are_refused_before_the_call(self):
        with self.keys.open(UID) as device:
            for call in (lambda: device.root_tag("text"), lambda: device.root_tag(None),
                         lambda: device.set_root_key(32), lambda: device.derive_session_key([1]),
                         lambda: device.verify_root_tag(b"", "0" * 32),
                         lambda: device.load_slot_signing_key("3"),
                         lambda: self.keys.open(UID.encode()), lambda: self.keys.open(None),
                         lambda: self.keys.tag(None, b""),
                         lambda: self.keys.store.get(UID, None),
                         lambda: self.keys.store.delete_by_handle(3),
                         lambda: self.keys.store.add(UID, "n", "0" * 32),
                         lambda: self.keys.store.add(UID, "n", bytes(32), metadata=b"m"),
                         lambda: self.keys.engine.sign("0" * 32, bytes(32)),
                         lambda: self.zentrava_keys.point("0" * 64)):
                with self.assertRaisesRegex(TypeError, r"^\w+: .* needed, not \w+$"):
                    call()

    def test_wrong_lengths_and_characters_are_refused_before_the_call(self):
        engine, store = self.keys.engine, self.keys.store
        with self.keys.open(UID) as device:
            device.set_root_key(bytes(32))
            device.set_session_key(bytes(32))
            for call in (lambda: device.set_root_key(bytes(31)),
                         lambda: device.set_session_key(bytes(31)),
                         lambda: device.derive_session_key(b""),
                         lambda: device.derive_session_key(bytes(7)),
                         lambda: device.derive_ecdh_session_key(bytes(65), b"1"),
                         lambda: device.derive_ecdh_session_key(bytes(64), bytes(7)),
                         lambda: device.make_slot_tag_key(3, bytes(63)),
                         lambda: device.make_slot_tag_key(-1, bytes(64)),
                         lambda: device.load_slot_signing_key(2**32),
                         lambda: device.verify_root_tag(b"", bytes(31)),
                         lambda: device.verify_session_tag(b"", bytes(33)),
                         lambda: device.verify(b"", bytes(63)),
                         lambda: self.keys.open(""), lambda: self.keys.open("a\0b"),
                         lambda: store.add(UID[1:], "n", bytes(32)),
                         lambda: store.add(UID, "n", bytes(31)),
                         lambda: store.add(UID, "n\0", bytes(32)),
                         lambda: store.add(UID, "n", bytes(32), metadata="\0"),
                         lambda: store.add_volatile_named(UID + "f", "n", bytes(32)),
                         lambda: store.get("", "srk"), lambda: store.copy(UID, "srk", "a\0"),
                         lambda: engine.sign(bytes(31), bytes(32)),
                         lambda: engine.sign(bytes(32), bytes(33)),
                         lambda: engine.verify(bytes(33), bytes(32), bytes(65)),
                         lambda: engine.verify(b"\4" + bytes(32), bytes(32), bytes(64)),
                         lambda: engine.shared_secret(b"\2" + bytes(64), bytes(32)),
                         lambda: engine.shared_secret(b"", bytes(32))):
                with self.assertRaisesRegex(ValueError, r"^\w+: "):
                    call()

    def test_a_message_that_would_count_as_empty_is_refused(self):
        message = memoryview(bytes(1)).cast("B", (1,))
        too_long = bytes(2**31)  # which takes no memory as long as nobody looks into it
        with self.keys.open(UID) as device:
            device.set_root_key(bytes(32))
            device.root_tag(message)
            for call in (lambda: device.root_tag(too_long), lambda: self.keys.tag(b"k", too_long),
                         lambda: device.verify_root_tag(too_long, bytes(32))):
                with self.assertRaisesRegex(ValueError, "message: 0 to 2147483647 bytes"):
                    call()

    # ---- The directory

    def test_working_in_a_directory_goes_there_and_back_whatever_happens(self):
        inner = self.directory / "inner"
        inner.mkdir()
        before = Path.cwd()
        with self.assertRaises(KeyError):
            with self.zentrava_keys.working_in(inner) as there:
                self.assertEqual((there, Path.cwd()), (inner.resolve(), inner.resolve()))
                raise KeyError
        self.assertEqual(Path.cwd(), before)
        with self.assertRaises(FileNotFoundError):
            with self.zentrava_keys.working_in("nowhere"):
                self.fail("there is no such directory")
        self.assertEqual(Path.cwd(), before)

    def test_working_in_a_directory_goes_back_to_one_that_was_renamed(self):
        for name in ("old", "inner"):
            (self.directory / name).mkdir()
        with self.zentrava_keys.working_in("old"):
            with self.zentrava_keys.working_in(self.directory / "inner"):
                (self.directory / "old").rename(self.directory / "new")
            self.assertEqual(Path.cwd(), (self.directory / "new").resolve())

    def test_a_second_thread_cannot_work_in_another_directory(self):
        refused = []

        def work():
            try:
                with self.zentrava_keys.working_in("/"):
                    pass
            except RuntimeError as error:
                refused.append(str(error))
        # setUp is in a directory already.
        thread = threading.Thread(target=work)
        thread.start()
        thread.join()
        self.assertEqual(refused,
                         ["another thread is working in a directory: a process has only one"])
        self.assertEqual(Path.cwd(), self.directory.resolve())

    # ---- What the tests use

    def loaded(self, path=None, **environment):
        """The path that another process says it loaded, or the error that it had."""
        argument = "" if path is None else repr(path).replace("PosixPath", "pathlib.Path")
        return self.printed_by("import pathlib, zentrava_keys\n"
                               "try:\n"
                               f"    print(zentrava_keys.Library({argument}).path)\n"
                               "except zentrava_keys.LibraryNotFoundError as error:\n"
                               "    print(error)\n", **environment).strip()

    def printed_by(self, program, **environment):
        """What another process prints, in an environment of its own."""
        return subprocess.run([sys.executable, "-B", "-c", program], check=True, text=True,
                              cwd=self.directory, stdout=subprocess.PIPE,
                              env={"PATH": os.environ["PATH"],
                                   "PYTHONPATH": str(Path(build.source, "python")),
                                   **environment}).stdout


def types_of(prototypes, header):
    """Of each function, the types of its result and its arguments, without const."""
    functions = {}
    for line in prototypes.splitlines():
        found = re.search(rf"{re.escape(header)}:\d+:\w+ \*/ extern (.*?)(\w+) \((.*?)\);", line)
        if found:
            result, name, arguments = found.groups()
            functions[name] = [re.sub(r"\bconst\b ?", "", part).strip()
                               for part in (result, *arguments.split(", "))]
    return functions


if __name__ == "__main__":
    run_test(PythonPackage)
