"""What the shared library shows to the outside, and the public headers that declare it."""

import os
import re
import sys
import tempfile
from pathlib import Path

sys.path.insert(0, str(Path(__file__).parent / "support"))
from build_under_test import BuildTestCase, build, exported_functions, run_test

SONAME = "libzentrava_keys.so.1"
VERSION_NODE = "ZENTRAVA_KEYS_1"


class Exports(BuildTestCase):
    def test_the_dynamic_symbols_are_the_listed_functions_in_their_version_node(self):
        lines = self.run_command([build.nm, "-D", "--defined-only", build.library]).splitlines()
        symbols = [tuple(line.split()[1:]) for line in lines]
        functions = [name for group in exported_functions().values() for name in group]
        expected = [("T", f"{name}@@{VERSION_NODE}") for name in functions]
        self.assertEqual(sorted(symbols), sorted(expected + [("A", VERSION_NODE)]))

    def test_each_public_header_declares_exactly_its_listed_functions(self):
        for header, functions in exported_functions().items():
            with self.subTest(header), tempfile.TemporaryDirectory() as directory:
                # GCC's list of prototypes: each line tells the file that declares the function.
                prototypes = Path(directory, "prototypes")
                self.run_command(
                    self.compile_as_c99(header, "-fsyntax-only", "-aux-info", prototypes))
                declared = re.findall(rf"{re.escape(header)}:\d+:\w+ \*/ extern .*?(\w+) \(",
                                      prototypes.read_text(encoding="utf-8"))
                self.assertEqual(sorted(declared), sorted(functions))

    def test_each_public_header_compiles_alone_as_c99(self):
        for header in exported_functions():
            with self.subTest(header):
                self.run_command(self.compile_as_c99(header))

    def test_each_public_header_compiles_alone_as_cxx17(self):
        for header in exported_functions():
            with self.subTest(header):
                self.run_command(self.compile_as_cxx17(header))

    def test_the_public_headers_pull_in_nothing_of_libxml2_or_mbed_tls(self):
        for header in exported_functions():
            for compilation in (self.compile_as_c99, self.compile_as_cxx17):
                with self.subTest(header, compilation=compilation.__name__):
                    included = self.run_command(compilation(header, "-M")).split()
                    self.assertTrue(any(name.endswith("/stdint.h") for name in included))
                    foreign = [name for name in included if re.search("libxml|mbedtls|psa/", name)]
                    self.assertEqual(foreign, [])

    def test_the_soname_carries_the_major_version(self):
        self.assertEqual(self.dynamic_entries("SONAME"), [f"Library soname: [{SONAME}]"])

    def test_no_cxx_runtime_is_needed(self):
        needed = " ".join(self.dynamic_entries("NEEDED"))
        self.assertIn("libxml2", needed)
        self.assertNotIn("libstdc++", needed)

    def test_all_symbols_are_bound_at_load_time(self):
        self.assertRegex(" ".join(self.dynamic_entries("FLAGS_1")), r"\bNOW\b")

    def test_relocated_data_is_read_only(self):
        self.assertEqual(len(self.program_headers("GNU_RELRO")), 1)

    def test_the_stack_is_not_executable(self):
        stack, = self.program_headers("GNU_STACK")
        self.assertNotIn("E", stack.split()[6])

    def test_loading_it_runs_no_code_of_its_own(self):
        if any("-fsanitize" in flag for flag in build.cxx_flags):
            self.skipTest("sanitizers run code of theirs when the library is loaded")
        # What there is is the compiler's: one pointer, to its own start-up function.
        pointer = {"ELF32": "4 (bytes)", "ELF64": "8 (bytes)"}[self.readelf("-h", r"Class: +(.*)")[0]]
        self.assertEqual(self.dynamic_entries("INIT_ARRAYSZ"), [pointer])

    def test_assertions_name_the_sources_from_the_root_of_the_tree(self):
        if any("address" in flag or "undefined" in flag for flag in build.cxx_flags):
            self.skipTest("these sanitizers put full source names of their own into the library")
        content = Path(build.library).read_bytes()
        names = re.findall(rb"[ -~]*/zentrava_key_driver\.cpp", content) # not the whole library in a failure
        self.assertEqual(names, [b"key_driver/zentrava_key_driver.cpp"])
        self.assertFalse(os.fsencode(build.source) in content, "the library names the source directory")

    def compile_as_c99(self, header, *options):
        return self.compile(build.cc, build.c_flags, "-std=c99", "-xc", header, options)

    def compile_as_cxx17(self, header, *options):
        return self.compile(build.cxx, build.cxx_flags, "-std=c++17", "-xc++", header, options)

    def compile(self, compiler, flags, standard, language, header, options):
        """Compiles a source file that consists of nothing but the header."""
        return [compiler, *flags, "-Wall", "-Wextra", "-Wpedantic", "-Werror",
                *(options or ("-c", "-o", os.devnull)),
                standard, "-include", Path(build.source, header), language, os.devnull]

    def dynamic_entries(self, tag):
        return self.readelf("-d", rf"\({tag}\) +(.*)")

    def program_headers(self, kind):
        return self.readelf("-l", rf"^ +({kind} .*)")

    def readelf(self, option, pattern):
        printed = self.run_command([build.readelf, "-W", option, build.library])
        return re.findall(pattern, printed, re.MULTILINE)


if __name__ == "__main__":
    run_test(Exports)
