"""The Python package over the library under test, in the directory of a key store of the test."""

import sys
import tempfile
from pathlib import Path

from build_under_test import BuildTestCase, build
from key_store_files import write_store


class LibraryTestCase(BuildTestCase):
    def setUp(self):
        sys.path.insert(0, str(Path(build.source, "python")))
        import zentrava_keys  # what is under test is known by now, and not before

        self.zentrava_keys = zentrava_keys
        self.keys = zentrava_keys.Library(build.library)
        self.directory = Path(self.enterContext(tempfile.TemporaryDirectory()))
        self.enterContext(zentrava_keys.working_in(self.directory))

    def write_store(self, private_keys, public_keys=None):
        write_store(self.directory, private_keys, public_keys)
