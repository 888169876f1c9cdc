"""The programs and commands of the documentation, as a reader would copy them."""

import os
import sys
import tempfile
from pathlib import Path

sys.path.insert(0, str(Path(__file__).parent / "support"))
from build_under_test import BuildTestCase, build, run_test
from document_blocks import blocks, text_of

# What the page builds or installs before it uses it; here the build under test stands in for it.
BUILDING = ("scripts/build", "scripts/setup", "scripts/armhf-sysroot", "cmake --preset")


class Integration(BuildTestCase):
    def setUp(self):
        self.root = Path(self.enterContext(tempfile.TemporaryDirectory()))

    def test_the_steps_for_this_machine_lead_to_verified_signatures(self):
        self.skip_unless_native()
        printed = self.follow("release", "## This machine")
        self.assertRegex(printed, r"(?m)^[0-9a-f]{128}$")
        self.assertIn("\nopenssl accepts the signature\n", printed)
        self.assertTrue(printed.endswith("\nverified\n"), printed)

    def test_the_steps_for_an_arm_board_lead_to_verified_signatures(self):
        if not build.toolchain:
            self.skipTest("not a cross build")
        printed = self.follow("armhf", "## An ARM board")
        self.assertIn("check: 0 errors, 0 warnings\n", printed)
        self.assertRegex(printed, r"\n[0-9a-f]{128}\nverified\n\Z")

    def test_the_program_and_the_store_of_the_readme_belong_together(self):
        self.skip_unless_native()
        readme = text_of("README.md")
        (_, program), = blocks(readme, "c")
        (_, store), = blocks(readme, "xml")
        self.assertEqual(self.run_program(program, {"key_contents_prv.xml": store}), "result 0\n")

    def test_the_program_and_the_store_of_the_man_page_belong_together(self):
        self.skip_unless_native()
        page = text_of("docs", "man", "zentrava-keys.3").replace("\\-", "-").replace("\\e", "\\")
        program, commands = (part.split("\n.EE\n")[0] for part in page.split(".EX\n")[1:])
        self.run_command(["bash", "-euc", f"zentrava-keystore() {{ '{build.tool}' \"$@\"; }}\n"
                          + commands], cwd=self.root)
        self.assertEqual(self.run_program(program, {}), "verified\n")

    def follow(self, preset, heading):
        """Runs the commands below a heading of the page, in what looks like a source tree whose
        library is built; what they printed."""
        page = text_of("docs", "integration.md")
        self.make_tree(preset)
        for language in ("c", "cpp", "cmake"):
            for name, content in blocks(page, language):
                path = self.root / name
                path.parent.mkdir(parents=True, exist_ok=True)
                path.write_text(content, encoding="utf-8")
        section = page.split(f"\n{heading}\n")[1].split("\n## ")[0]
        commands = [block for _, block in blocks(section, "sh") if not block.startswith(BUILDING)]
        self.assertGreater(len(commands), 3)
        return self.run_command(["bash", "-euo", "pipefail", "-c", "\n".join(commands)], cwd=self.root)

    def make_tree(self, preset):
        for name in ("cmake", "scripts"):
            (self.root / name).symlink_to(Path(build.source, name))
        (self.root / "build").mkdir()
        (self.root / "build" / preset).symlink_to(build.build)
        sysroot = os.environ.get("ZENTRAVA_ARMHF_SYSROOT")
        if sysroot:
            (self.root / "build" / "armhf-sysroot").symlink_to(sysroot)

    def skip_unless_native(self):
        if build.toolchain:
            self.skipTest("a cross build")

    def run_program(self, source, files):
        for name, content in {"program.c": source, **files}.items():
            (self.root / name).write_text(content, encoding="utf-8")
        library = Path(build.library)
        self.run_command([build.cc, *build.c_flags, "-std=c99", "-Wall", "-Wextra", "-Werror",
                          "program.c", f"-I{build.source}", library, f"-Wl,-rpath,{library.parent}",
                          "-o", "program"], cwd=self.root)
        return self.run_command([self.root / "program"], cwd=self.root)


if __name__ == "__main__":
    run_test(Integration)
