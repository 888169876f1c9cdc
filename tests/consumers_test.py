"""How integrators take the library up: programs built against an installed and moved tree, and
the units compiled by hand."""

import shlex
import shutil
import sys
import tempfile
from pathlib import Path

sys.path.insert(0, str(Path(__file__).parent / "support"))
from build_under_test import BuildTestCase, build, exported_functions, run_test

CONSUMERS = Path(__file__).parent / "consumers"
LEAK_LEDGER = Path(__file__).parent / "support" / "leak_ledger.cpp"


class Consumers(BuildTestCase):
    def setUp(self):
        self.directory = Path(self.enterContext(tempfile.TemporaryDirectory()))
        self.link_flags = [self.compiled_leak_ledger()] if build.is_sanitized else []

    def test_an_installed_tree_has_the_public_headers_and_no_others(self):
        tree = self.install_and_move()
        headers = [path.relative_to(tree / "include") for path in tree.rglob("include/**/*.h")]
        self.assertEqual(sorted(map(str, headers)),
                         sorted("zentrava/" + header for header in exported_functions()))

    def test_a_c_program_finds_an_installed_tree_through_pkg_config(self):
        tree = self.install_and_move()
        package, = tree.rglob("zentrava_keys.pc")
        arguments = self.run_command([build.pkg_config, "--cflags", "--libs", "zentrava_keys"],
                                     PKG_CONFIG_PATH=package.parent)
        library, = tree.rglob("libzentrava_keys.so")
        self.build_c_consumer(*shlex.split(arguments), f"-Wl,-rpath,{library.parent}")
        self.run_consumer(self.directory / "consumer")

    def test_a_cxx_program_finds_an_installed_tree_through_find_package(self):
        self.run_consumer(self.build_against(self.install_and_move(), CONSUMERS) / "consumer")

    def test_the_installed_examples_are_built_by_themselves_against_the_installed_tree(self):
        if build.toolchain or build.is_sanitized:
            self.skipTest("takes long, and is no different there")
        tree = self.install_and_move()
        examples, = tree.rglob("doc/**/examples")
        self.run_consumer(self.build_against(tree, examples) / "tag_and_verify")

    def test_the_units_compiled_by_hand_make_a_working_library(self):
        for folder in ("key_driver", "ecc"):
            shutil.copytree(Path(build.source, folder), self.directory / folder)
        units = [unit.relative_to(self.directory) for unit in self.directory.glob("*/*.cpp")]
        include_flags = ["-I" + directory for directory in build.include_dirs]
        self.run_command([build.cxx, *build.cxx_flags, "-std=c++17", "-shared", "-fPIC", *units,
                          *include_flags, *build.libraries, "-o", "libzentrava_keys.so"],
                         cwd=self.directory)
        self.build_c_consumer(f"-I{self.directory}", f"-L{self.directory}", "-lzentrava_keys",
                              "-Wl,-rpath,$ORIGIN")
        self.run_consumer(self.directory / "consumer")

    def install_and_move(self):
        """Installs to one place and moves the tree to another, which it returns."""
        installed = self.directory / "installed"
        moved = self.directory / "moved" / "else where"
        self.run_command([build.cmake, "--install", build.build, "--prefix", installed])
        moved.parent.mkdir()
        return installed.rename(moved)

    def build_against(self, tree, source):
        """Builds a project with CMake against an installed tree; the directory of what came out."""
        out = self.directory / "out"
        self.run_command([build.cmake, "-S", source, "-B", out,
                          f"-DCMAKE_TOOLCHAIN_FILE={build.toolchain}",
                          f"-DCMAKE_C_COMPILER={build.cc}",
                          f"-DCMAKE_CXX_COMPILER={build.cxx}",
                          f"-DCMAKE_C_FLAGS={shlex.join(build.c_flags)}",
                          f"-DCMAKE_CXX_FLAGS={shlex.join(build.cxx_flags)}",
                          f"-DCMAKE_EXE_LINKER_FLAGS={shlex.join(map(str, self.link_flags))}",
                          # A cross build looks for packages below its roots alone.
                          f"-DCMAKE_FIND_ROOT_PATH={tree}", f"-DCMAKE_PREFIX_PATH={tree}"])
        self.run_command([build.cmake, "--build", out])
        return out

    def build_c_consumer(self, *arguments):
        self.run_command([build.cc, *build.c_flags, "-std=c99", CONSUMERS / "consumer.c",
                          *arguments, *self.link_flags, "-o", self.directory / "consumer"])

    def compiled_leak_ledger(self):
        """Tells the leak checker what to expect of every program that makes tags."""
        ledger = self.directory / "leak_ledger.o"
        self.run_command([build.cxx, *build.cxx_flags, "-c", LEAK_LEDGER, "-o", ledger])
        return ledger

    def run_consumer(self, program):
        working_directory = self.directory / "work"
        working_directory.mkdir()
        self.run_command([*build.emulator, program], cwd=working_directory)


if __name__ == "__main__":
    run_test(Consumers)
