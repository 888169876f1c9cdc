"""The scripts of the tree: their help, and what they say to arguments that they do not know."""

import os
import subprocess
import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).parent / "support"))
from build_under_test import BuildTestCase, build, run_test


class Scripts(BuildTestCase):
    def test_each_script_tells_its_usage_when_asked(self):
        for script in scripts():
            for question in ("--help", "-h"):
                with self.subTest(script.name, question=question):
                    told = self.run_command([script, question])
                    self.assertTrue(told.startswith(f"Usage: scripts/{script.name}"), told)

    def test_each_script_refuses_an_argument_that_it_does_not_know(self):
        for script in scripts():
            with self.subTest(script.name):
                result = subprocess.run([script, "--frobnicate"], check=False, text=True,
                                        stdout=subprocess.PIPE, stderr=subprocess.PIPE)
                self.assertEqual((result.returncode != 0, result.stdout), (True, ""))
                self.assertRegex(result.stderr.splitlines()[-1],
                                 rf"\A(scripts/)?{script.name}: error: .*--frobnicate")


def scripts():
    return [path for path in sorted(Path(build.source, "scripts").iterdir())
            if os.access(path, os.X_OK)]


if __name__ == "__main__":
    run_test(Scripts)
