"""The Python package over the library under test, in the directory of a key store of the test."""

import os
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

    def printed_by(self, function, *arguments):
        """What a call brings out on file descriptor 1 before it returns or raises."""
        with tempfile.TemporaryFile() as file:
            before = os.dup(1)
            os.dup2(file.fileno(), 1)
            try:
                function(*arguments)
            except self.zentrava_keys.KeyLibraryError:
                pass
            finally:
                file.seek(0)
                printed = file.read().decode()
                os.dup2(before, 1)
                os.close(before)
        return printed
