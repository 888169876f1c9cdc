"""The build that a test looks at: where it lies, and which tools and flags made it."""

import argparse
import os
import shlex
import subprocess
import sys
import unittest
from pathlib import Path

# Filled by run_test from the command line.
build = argparse.Namespace()


def run_test(test_case, loads_library=False):
    """Runs one test method, the last argument: the others say what build it is about."""
    parser = argparse.ArgumentParser()
    for name in ("source", "build", "library", "tool", "key-user", "memory-scan", "cmake",
                 "toolchain", "pkg-config", "nm", "readelf", "cc", "cxx"):
        parser.add_argument("--" + name)
    for name in ("c-flags", "cxx-flags"):
        parser.add_argument("--" + name, type=shlex.split)
    for name in ("emulator", "include-dirs", "libraries"):
        parser.add_argument("--" + name, type=lambda text: text.split(";") if text else [])
    parser.add_argument("sentence")
    parser.parse_args(namespace=build)
    build.is_sanitized = any(flag.startswith("-fsanitize=") for flag in build.c_flags)
    if loads_library and build.is_sanitized and "LD_PRELOAD" not in os.environ:
        start_again_with_sanitizer()
    suite = unittest.TestSuite([test_case("test_" + build.sentence)])
    sys.exit(not unittest.TextTestRunner(verbosity=2).run(suite).wasSuccessful())


def start_again_with_sanitizer():
    """A process that loads a library built with AddressSanitizer has to begin with its runtime."""
    runtime = subprocess.run([build.cc, "-print-file-name=libasan.so"], check=True, text=True,
                             stdout=subprocess.PIPE).stdout.strip()
    os.execve(sys.executable, [sys.executable, "-B", *sys.argv],
              # Python keeps memory of its own to the end, and cuts buffers from blocks of its own.
              {**os.environ, "LD_PRELOAD": runtime, "ASAN_OPTIONS": "detect_leaks=0",
               "PYTHONMALLOC": "malloc"})


class BuildTestCase(unittest.TestCase):
    maxDiff = None

    def run_command(self, command, cwd=None, **environment):
        """Runs a command, which has to succeed, and returns what it printed."""
        command = [str(argument) for argument in command]
        result = subprocess.run(command, cwd=cwd, text=True,
                                env={**os.environ, "LC_ALL": "C", **environment},
                                stdout=subprocess.PIPE, stderr=subprocess.STDOUT, check=False)
        if result.returncode != 0:
            self.fail(f"{shlex.join(command)}\nended with {result.returncode}:\n{result.stdout}")
        return result.stdout


def exported_functions():
    """The public headers, each with the functions it declares, from exported_functions.txt."""
    functions = {}
    text = Path(build.source, "tests", "exported_functions.txt").read_text(encoding="ascii")
    for line in text.split("\n"):
        if line.startswith("#") and line.endswith(".h"):
            functions[line.strip("# ")] = group = []
        elif line and not line.startswith("#"):
            group.append(line)
    return functions
