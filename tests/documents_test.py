"""The documentation says what is: examples that run, messages that exist, files that do what is
told of them."""

import ctypes
import json
import os
import re
import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).parent / "support"))
from build_under_test import build, exported_functions, run_test
from document_blocks import blocks, text_of
from key_store_tool import PRIVATE_FILE, PUBLIC_FILE, UID, ToolTestCase
from printed_messages import assertions_of, messages_of


class Documents(ToolTestCase):

    # ---- Examples

    def test_each_function_shows_an_example_that_calls_it_and_is_compiled(self):
        compiled = re.search(r"set\(doc_examples ([^)]*)\)",
                             text_of("docs", "examples", "CMakeLists.txt")).group(1).split()
        for header, functions in exported_functions().items():
            shown = examples_by_function(text_of(header), functions)
            for function in functions:
                with self.subTest(function):
                    calls = []
                    for file, name in shown[function]:
                        self.assertIn(file.split(".")[0], compiled)
                        snippet = text_of("docs", "examples", file).split(f"[{name}]")
                        self.assertEqual(len(snippet), 3, f"[{name}] stands twice in {file}")
                        calls += re.findall(rf"\b{function}\(", snippet[1])
                    self.assertNotEqual(calls, [])

    # ---- Links

    def test_the_links_of_the_documents_lead_somewhere(self):
        root = Path(build.source)
        for page in [*root.glob("*.md"), *root.glob("docs/*.md")]:
            for link in re.findall(r"\]\(([^)]+)\)", page.read_text(encoding="utf-8")):
                with self.subTest(page.name, link=link):
                    file, _, place = link.partition("#")
                    if not file.startswith("http"):
                        target = page.parent / file if file else page
                        self.assertTrue(target.exists())
                        self.assertIn(place, ["", *headings_of(target)])

    def test_the_files_that_the_documents_name_exist(self):
        root = Path(build.source)
        for page in [*root.glob("*.md"), *root.glob("docs/*.md")]:
            named = re.findall(r"`((?:[\w.-]+/)+[\w.-]+)[`:]", page.read_text(encoding="utf-8"))
            for name in named:
                with self.subTest(page.name, name=name):
                    self.assertTrue(name.startswith("build/") or (root / name).exists())

    def test_the_searches_that_contributors_are_told_of_find_something(self):
        searches = re.findall(r"`(grep [^`]+)`", text_of("CONTRIBUTING.md"))
        self.assertNotEqual(searches, [])
        for search in searches:
            self.assertNotEqual(self.run_command(["bash", "-c", search], cwd=build.source), "")

    # ---- Functions

    def test_the_man_page_tells_of_the_exported_functions_and_of_no_others(self):
        page = text_of("docs", "man", "zentrava-keys.3")
        told = re.search(r"^\.SS Contexts\n(.*?)^\.SH ", page, re.M | re.S).group(1)
        self.assertEqual(sorted(re.findall(r"(\w+)\"? \(\)", told)), self.exported())

    def test_the_readme_tells_of_the_exported_functions_and_of_no_others(self):
        told = re.search(r"^## Functions\n(.*?)^## ", text_of("README.md"), re.M | re.S).group(1)
        first_cells = "".join(re.findall(r"^\|([^|]*)\|", told, re.M))
        self.assertEqual(sorted(re.findall(r"`(\w+)`", first_cells)), self.exported())

    @staticmethod
    def exported():
        return sorted(name for group in exported_functions().values() for name in group)

    # ---- Messages

    def test_the_troubleshooting_page_has_the_messages_of_the_sources_and_no_others(self):
        told = [line for _, lines in blocks(text_of("docs", "troubleshooting.md"), "text")
                for line in lines.splitlines()]
        self.assertEqual(sorted(told), sorted(set(told)), "each message once")
        self.assertEqual(sorted(told), sorted(self.gathered(messages_of)))

    def test_the_troubleshooting_page_has_the_assertions_of_the_sources_and_no_others(self):
        (_, told), = blocks(text_of("docs", "troubleshooting.md"), "assertion")
        self.assertEqual(sorted(told.splitlines()), sorted(self.gathered(assertions_of)))

    def test_the_headers_quote_the_messages_of_the_sources_and_no_others(self):
        # Two functions share a comment, with "[%s]" where each prints its own name.
        sharing = ("export_prv_key_in_clear_as_hex", "read_public_key_as_hex")
        quoted = set()
        for header in exported_functions():
            functions = text_of(header).split("#include <stdint.h>")[1]
            for message in re.findall(r'"((?:\[|error: |warn: |  ! )[^"]*)"', functions):
                message = message.replace("\\n", "")
                quoted |= {message.replace("[%s]", f"[{name}]") for name in sharing}
        self.assertEqual(sorted(quoted), sorted(self.gathered(messages_of)))

    @staticmethod
    def gathered(gather):
        sources = [path for folder in ("key_driver", "ecc")
                   for path in Path(build.source, folder).iterdir()]
        return {found for path in sources for found in gather(path.read_text(encoding="utf-8"))}

    # ---- Key store files

    def test_the_files_of_the_format_page_do_what_is_told_of_them(self):
        page = text_of("docs", "key-store-format.md")
        library = Library()
        asked = 0
        for section in re.split(r"^(?=##)", page, flags=re.M):
            heading = section.splitlines()[0]
            files = dict(blocks(section, "xml"))
            for _, lines in blocks(section, "result"):
                self.assertNotEqual(files, {}, heading)
                self.write(PRIVATE_FILE, "<keys/>")
                self.write(PUBLIC_FILE, "<keys/>")
                for name, content in files.items():
                    self.write(name, content)
                (self.directory / PRIVATE_FILE).chmod(0o600)
                self.ask(library, heading, lines, self.findings())
                asked += 1
        self.assertEqual(asked, page.count("```result"))

    def ask(self, library, heading, lines, findings):
        os.chdir(self.directory)
        for line in lines.splitlines():
            question, told = re.split(r" +-> ", line)
            with self.subTest(heading, question=question):
                if question == "check":
                    answer = ", ".join(findings) or "nothing"
                else:
                    answer = library.answer(question)
                pattern = re.escape(told).replace(re.escape("..."), "[0-9a-f]+")
                self.assertRegex(answer, f"\\A{pattern}\\Z")

    def findings(self):
        printed = self.run_tool("check", "--json").stdout
        return sorted({finding["what"] for finding in json.loads(printed)["findings"]})


def headings_of(page):
    """As a link names them."""
    if page.suffix != ".md":
        return []
    headings = re.findall(r"^#+ (.*)", page.read_text(encoding="utf-8"), re.M)
    return [re.sub(r"[^\w -]", "", heading.lower()).replace(" ", "-") for heading in headings]


def examples_by_function(header, functions):
    """File and name of the examples in each function's comment; those that follow it within a group
    share it."""
    shown = {}
    comment = ""
    for part in re.findall(r"/\*\*.*?\*/|^\w[^;/]*?\b\w+\([^;]*\);", header, re.M | re.S):
        if part.startswith("/**"):
            if "@param" in part:
                comment = part
        else:
            function = re.search(r"(\w+)\(", part).group(1)
            if function in functions:
                shown[function] = re.findall(r"@snippet (\S+) (.*)", comment)
    return shown


class Library:
    """The library, asked about the store in the working directory."""

    RESULTS = ("KeyLibrary_OK", "KeyLibrary_ERROR", "KeyLibrary_BAD_PARAMETER",
               "KeyLibrary_MEMORY", "KeyLibrary_KEY_NOT_FOUND", "KeyLibrary_INVALID_KEY",
               "KeyLibrary_CRYPTO")

    def __init__(self):
        self.functions = ctypes.CDLL(build.library)
        self.functions.contains_key.restype = ctypes.c_bool
        self.uid = UID.encode()

    def answer(self, question):
        names = [name.encode() for name in re.findall('"(.*?)"', question)]
        operation = re.sub(' *".*', "", question).replace(" ", "_")
        return getattr(self, operation)(*names)

    def get_key(self, name):
        key = ctypes.create_string_buffer(128)
        length = ctypes.c_uint32(len(key))
        if self.functions.get_key(self.uid, name, key, ctypes.byref(length)) != 0:
            return "not found"
        return f"{length.value} bytes {key.raw[:length.value].hex()}"

    def get_key_handle(self, name):
        handle = ctypes.create_string_buffer(64)
        metadata = ctypes.create_string_buffer(64)
        if self.functions.get_key_handle(self.uid, name, metadata, 64, handle, 64) != 0:
            return "not found"
        return f'handle "{handle.value.decode()}" metadata "{metadata.value.decode()}"'

    def key_text_of(self, name):
        text = ctypes.create_string_buffer(256)
        length = ctypes.c_uint32(len(text))
        self.functions.export_prv_key_in_clear_as_hex(self.uid, name, text, ctypes.byref(length))
        return text.value.decode()

    def contains_key(self, name):
        return str(self.functions.contains_key(self.uid, name)).lower()

    def next_handle(self):
        handle = ctypes.create_string_buffer(64)
        self.functions.add_volatile_key(b"00", handle, 64)
        self.functions.delete_key_by_handle(handle)
        return handle.value.decode()

    def delete_key_by_handle(self, handle):
        return "deleted" if self.functions.delete_key_by_handle(handle) == 0 else "not found"

    def delete_key_by_key_type(self, name):
        return "deleted" if self.functions.delete_key_by_key_type(self.uid, name) == 0 else "not found"

    def copy_private_key(self, name, copy):
        return "copied" if self.functions.copy_private_key(self.uid, name, copy) == 0 else "not copied"

    def set_srk_as_hmac_root_signing_key(self):
        context = ctypes.c_void_p()
        self.functions.key_lib_open(self.uid, None, None, ctypes.byref(context))
        result = self.functions.set_srk_as_hmac_root_signing_key(ctypes.byref(context), False)
        self.functions.key_lib_close(ctypes.byref(context))
        return self.RESULTS[result]


if __name__ == "__main__":
    run_test(Documents)
