"""How integrators take the library up: programs built against an installed and moved tree, and
the units compiled by hand."""

import re
import shlex
import shutil
import subprocess
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
        headers = [path.relative_to(tree / "include") for path in (tree / "include").rglob("*.*")]
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
        tree = self.install_and_move()
        self.run_consumer(self.build_project(CONSUMERS, *self.packages_in(tree)) / "consumer")

    def test_the_installed_examples_are_built_by_themselves_against_the_installed_tree(self):
        if build.toolchain or build.is_sanitized:
            self.skipTest("takes long, and is no different there")
        tree = self.install_and_move()
        project, = tree.rglob("doc/**/examples/CMakeLists.txt")
        out = self.build_project(project.parent, *self.packages_in(tree))
        self.run_consumer(out / "tag_and_verify")

    def test_a_c_program_links_the_static_library_through_pkg_config(self):
        package, = self.install_without_shared_library().rglob("zentrava_keys.pc")
        arguments = self.run_command(
            [build.pkg_config, "--static", "--cflags", "--libs", "zentrava_keys"],
            PKG_CONFIG_PATH=package.parent)
        self.build_c_consumer(*shlex.split(arguments))
        self.run_without_the_shared_library(self.directory / "consumer")

    def test_a_cxx_program_links_the_static_library_through_pkg_config(self):
        package, = self.install_without_shared_library().rglob("zentrava_keys.pc")
        arguments = self.run_command(
            [build.pkg_config, "--static", "--cflags", "--libs", "zentrava_keys"],
            PKG_CONFIG_PATH=package.parent)
        self.run_command([build.cxx, *build.cxx_flags, "-std=c++17", CONSUMERS / "consumer.cpp",
                          *shlex.split(arguments), *self.link_flags,
                          "-o", self.directory / "consumer"])
        self.run_without_the_shared_library(self.directory / "consumer")

    def test_a_project_in_c_alone_links_the_static_library_through_find_package(self):
        tree = self.install_and_move()
        out = self.build_project(CONSUMERS / "static", *self.packages_in(tree))
        self.run_without_the_shared_library(out / "consumer")

    def test_a_static_library_that_is_not_installed_is_said_to_be_missing(self):
        tree = self.install_and_move()
        for targets in tree.rglob("zentrava_keys-static-targets.cmake"):
            targets.unlink()
        found = subprocess.run(self.configure_project(CONSUMERS / "static", *self.packages_in(tree)),
                               text=True, capture_output=True, check=False)
        self.assertNotEqual(found.returncode, 0)
        self.assertIn("zentrava_keys is installed without 'static'", found.stderr)

    def test_the_static_library_defines_every_exported_function_for_all_to_see(self):
        archive, = self.install_and_move().rglob("libzentrava_keys.a")
        symbols = self.run_command([build.readelf, "-W", "--symbols", archive])
        visible = re.findall(r" FUNC +GLOBAL +DEFAULT +\d+ (\w+)", symbols)
        functions = [name for group in exported_functions().values() for name in group]
        self.assertEqual(sorted(visible), sorted(functions))

    def test_an_application_builds_the_library_as_a_part_of_itself(self):
        out = self.build_project(CONSUMERS / "subdirectory", f"-DZENTRAVA_SOURCE={build.source}")
        self.run_consumer(out / "shared_consumer")
        self.run_without_the_shared_library(out / "static_consumer")
        self.run_command([build.cmake, "--install", out, "--prefix", self.directory / "tree"])
        installed = [path.name for path in (self.directory / "tree").rglob("*") if path.is_file()]
        self.assertEqual(installed, ["static_consumer"])

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

    def install_without_shared_library(self):
        tree = self.install_and_move()
        for library in tree.rglob("libzentrava_keys.so*"):
            library.unlink()
        return tree

    @staticmethod
    def packages_in(tree):
        """A cross build looks for packages below its roots alone."""
        return f"-DCMAKE_FIND_ROOT_PATH={tree}", f"-DCMAKE_PREFIX_PATH={tree}"

    def configure_project(self, source, *arguments):
        return [build.cmake, "-S", source, "-B", self.directory / "out", "-DCMAKE_BUILD_TYPE=Debug",
                f"-DCMAKE_TOOLCHAIN_FILE={build.toolchain}",
                f"-DCMAKE_C_COMPILER={build.cc}", f"-DCMAKE_CXX_COMPILER={build.cxx}",
                f"-DCMAKE_C_FLAGS={shlex.join(build.c_flags)}",
                f"-DCMAKE_CXX_FLAGS={shlex.join(build.cxx_flags)}",
                f"-DCMAKE_EXE_LINKER_FLAGS={shlex.join(map(str, self.link_flags))}", *arguments]

    def build_project(self, source, *arguments):
        """Builds a CMake project and returns the directory that it was built in."""
        self.run_command(self.configure_project(source, *arguments))
        self.run_command([build.cmake, "--build", self.directory / "out", "--parallel", "2"])
        return self.directory / "out"

    def build_c_consumer(self, *arguments):
        self.run_command([build.cc, *build.c_flags, "-std=c99", CONSUMERS / "consumer.c",
                          *arguments, *self.link_flags, "-o", self.directory / "consumer"])

    def compiled_leak_ledger(self):
        """Tells the leak checker what to expect of every program that makes tags."""
        ledger = self.directory / "leak_ledger.o"
        self.run_command([build.cxx, *build.cxx_flags, "-c", LEAK_LEDGER, "-o", ledger])
        return ledger

    def run_without_the_shared_library(self, program):
        needed = self.run_command([build.readelf, "-W", "-d", program])
        self.assertNotIn("libzentrava_keys", needed)
        self.run_consumer(program)

    def run_consumer(self, program):
        working_directory = self.directory / "work"
        working_directory.mkdir(exist_ok=True)
        self.run_command([*build.emulator, program], cwd=working_directory)


if __name__ == "__main__":
    run_test(Consumers)
