"""Whether what uses mbed TLS compiles against declarations in the shape of mbed TLS 3.x as well."""

import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).parent / "support"))
from build_under_test import BuildTestCase, build, run_test

DECLARATIONS = Path(__file__).parent / "mbedtls3"


class MbedTls3(BuildTestCase):
    def test_the_library_compiles(self):
        self.assertEqual(self.compile_users_below("key_driver", "ecc"), ["zentrava_key_driver.cpp"])

    def test_the_tool_compiles(self):
        self.assertEqual(self.compile_users_below("tools"), ["p256_key_file.cpp"])

    def compile_users_below(self, *directories):
        """Compiles the units that include headers of mbed TLS, and returns their names."""
        units = sorted(unit for directory in directories
                       for unit in Path(build.source, directory).glob("*.cpp")
                       if "#include <mbedtls/" in unit.read_text(encoding="utf-8"))
        for unit in units:
            self.run_command([build.cxx, *build.cxx_flags, "-std=c++17", "-Wall", "-Wextra", "-Werror",
                              "-fsyntax-only", f"-I{DECLARATIONS}", f"-I{build.source}", unit])
        return [unit.name for unit in units]


if __name__ == "__main__":
    run_test(MbedTls3)
