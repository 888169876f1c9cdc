"""The Python package's documentation and types: what they say is so."""

import doctest
import importlib
import os
import pkgutil
import re
import subprocess
import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).parent / "support"))
from build_under_test import build, run_test
from key_store_files import UID, write_store
from python_library import LibraryTestCase

KEY = bytes(range(32))


class PythonDocuments(LibraryTestCase):
    def test_the_page_prints_what_it_says(self):
        (self.directory / "zentrava-keystore").symlink_to(build.tool)
        blocks = self.blocks_of_page()
        for language, block in blocks:
            if language == "sh":
                self.run_command(["sh", "-euc", block], cwd=self.directory,
                                 PATH=f"{self.directory}:{os.environ['PATH']}")
        ends = "print('----')\n"
        script = "".join(block + ends for language, block in blocks if language == "python")
        printed = subprocess.run([sys.executable, "-Bu", "-c", script], check=True, text=True,
                                 cwd=self.directory, stdout=subprocess.PIPE,
                                 env={**os.environ, **self.environment()}).stdout
        told = [block for language, block in blocks if language == "text"]
        self.assertEqual(printed.split("----\n")[:-1], told)

    def test_the_pages_blocks_each_have_their_output(self):
        languages = [language for language, _ in self.blocks_of_page()]
        self.assertEqual(languages, ["sh"] + ["python", "text"] * (len(languages) // 2))

    def test_the_examples_of_the_docstrings_give_what_they_say(self):
        (self.directory / "bench").mkdir()
        write_store(self.directory / "bench", {"srk": KEY})
        examples = 0
        os.environ.update(self.environment())
        for module in [self.zentrava_keys, *modules_of(self.zentrava_keys)]:
            names = {"zentrava_keys": self.zentrava_keys, "uid": UID,
                     "keys": self.zentrava_keys.Library()}
            result = doctest.testmod(module, globs=names)
            self.assertEqual(result.failed, 0)
            examples += result.attempted
        self.assertGreater(examples, 15)

    def test_every_public_name_has_a_docstring(self):
        for name in self.zentrava_keys.__all__:
            thing = getattr(self.zentrava_keys, name)
            if not isinstance(thing, (str, tuple)):
                self.assertTrue(thing.__doc__, name)
                methods = [getattr(thing, method) for method in vars(thing)
                           if not method.startswith("_")] if isinstance(thing, type) else []
                for method in methods:
                    if callable(method):
                        self.assertTrue(method.__doc__, method)

    def test_the_package_and_the_page_are_typed_for_the_oldest_python(self):
        page = self.directory / "page.py"
        page.write_text("".join(block for language, block in self.blocks_of_page()
                                if language == "python"), encoding="utf-8")
        self.run_command(["/usr/bin/mypy", "--strict", "--python-version=3.9",
                          f"--cache-dir={self.directory}", page,
                          Path(build.source, "python", "zentrava_keys")],
                         MYPYPATH=Path(build.source, "python"))

    def test_the_package_is_installed_with_its_types_and_works_from_there(self):
        tree = self.directory / "installed"
        self.run_command([build.cmake, "--install", build.build, "--prefix", tree])
        cache = Path(build.build, "CMakeCache.txt").read_text(encoding="utf-8")
        place = re.search(r"^ZENTRAVA_PYTHON_DIR:\w+=(.*)$", cache, re.M).group(1)
        self.assertEqual(place, "lib/python3/dist-packages")
        source = Path(build.source, "python", "zentrava_keys")
        self.assertEqual({path.name for path in (tree / place / "zentrava_keys").iterdir()},
                         {path.name for path in source.iterdir()} - {"__pycache__"})
        self.assertIn("py.typed", {path.name for path in source.iterdir()})
        library, = tree.rglob("libzentrava_keys.so.1")
        program = "import zentrava_keys; print(zentrava_keys.Library().tag(b'k', b'm').hex()[:8])"
        printed = self.run_command([sys.executable, "-B", "-c", program], PYTHONPATH=tree / place,
                                   LD_LIBRARY_PATH=library.parent)
        self.assertRegex(printed, r"\A[0-9a-f]{8}\n\Z")

    # ---- What the tests use

    def blocks_of_page(self):
        page = Path(build.source, "docs", "python.md").read_text(encoding="utf-8")
        return re.findall(r"^```(\w+)\n(.*?)^```$", page, re.M | re.S)

    def environment(self):
        return {"PYTHONPATH": str(Path(build.source, "python")),
                "ZENTRAVA_KEYS_LIBRARY": str(Path(build.library).parent / "libzentrava_keys.so.1")}


def modules_of(package):
    return [importlib.import_module(f"{package.__name__}.{module.name}")
            for module in pkgutil.iter_modules(package.__path__)]


if __name__ == "__main__":
    run_test(PythonDocuments)
