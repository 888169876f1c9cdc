"""The documents of the source tree, and the fenced blocks in them."""

import re
from pathlib import Path

from build_under_test import build

BLOCK = re.compile(r"^```(\w+) ?([^\n]*)\n(.*?)^```$", re.M | re.S)


def text_of(*path):
    return Path(build.source, *path).read_text(encoding="utf-8")


def blocks(text, language):
    """What stands behind the language, and the content, of each block in this language."""
    return [(info, content) for found, info, content in BLOCK.findall(text) if found == language]
