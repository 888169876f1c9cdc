"""Running zentrava-keystore in a directory of its own, and looking at what it prints and writes."""

import fcntl
import json
import os
import pty
import select
import struct
import subprocess
import tempfile
import termios
import time
import xml.etree.ElementTree
from pathlib import Path

import jsonschema
from build_under_test import BuildTestCase, build

DONE, FAILED, USAGE, REFUSED, STORE_DAMAGED, INPUT_OUTPUT = range(6)

UID = "0123456789abcdef0123456789abcdef"
OTHER_UID = "fedcba9876543210fedcba9876543210"

# The example key pair of RFC 6979, appendix A.2.5.
PRIVATE_KEY = "c9afa9d845ba75166b5c215767b1d6934e50c3db36e89b127b8a622b120f6721"
PUBLIC_KEY = ("60fed4ba255a9d31c961eb74c6356d68c049b8923b61fa6ce669622e60f29fb6"
              "7903fe1008b8bc99a41ae9e95628bc64f2f1b20c2d7e9f5177a3c294d4462299")
HMAC_KEY = "9b2f01c7d4e85a6310bd7f92e6c84d05a1f37e6b2c90d8544fe1b3a6720c59d8"

PRIVATE_FILE = "key_contents_prv.xml"
PUBLIC_FILE = "key_contents_pub.xml"
EMPTY_FILE = '<?xml version="1.0" encoding="UTF-8"?>\n<keys>\n</keys>\n'

# What a test says about its terminal is not to depend on the one that the suite runs on.
TERMINAL_SETTINGS = ("NO_COLOR", "COLUMNS", "TERM")


def record(uid, key_name, handle, key, metadata=None):
    """A record as the tool writes it."""
    last = f"<metadata>{metadata}</metadata>" if metadata else ""
    return (f"<key_content><uid>{uid}</uid><key_name>{key_name}</key_name><handle>{handle}</handle>"
            f"<key>{key}</key>{last}</key_content>\n")


def store_file(*records):
    return EMPTY_FILE.replace("</keys>", "".join(records) + "</keys>")


class ToolTestCase(BuildTestCase):
    def setUp(self):
        self.directory = Path(self.enterContext(tempfile.TemporaryDirectory()))

    def run_tool(self, *arguments, stdin="", **options):
        """Runs the tool in the store's directory, whatever comes of it."""
        environment = {name: value for name, value in os.environ.items()
                       if name not in TERMINAL_SETTINGS}
        return subprocess.run([*build.emulator, build.tool, *map(str, arguments)],
                              input=stdin if isinstance(stdin, bytes) else stdin.encode(),
                              **{"cwd": self.directory, "check": False, "stdout": subprocess.PIPE,
                                 "stderr": subprocess.PIPE,
                                 "env": {**environment, **options.pop("environment", {})},
                                 **options})

    def tool(self, *arguments, messages="", **options):
        """Runs the tool, which has to succeed; what it printed on standard output."""
        result = self.run_tool(*arguments, **options)
        self.assertEqual((result.returncode, result.stderr.decode()), (DONE, messages))
        return result.stdout.decode()

    def refusal(self, code, *arguments, **options):
        """Runs the tool, which has to end with this code; the one line that it said."""
        result = self.run_tool(*arguments, **options)
        error = result.stderr.decode()
        self.assertEqual((result.returncode, result.stdout), (code, b""), error)
        self.assertRegex(error, r"\Azentrava-keystore: [^\n]+\n\Z")
        return error.removeprefix("zentrava-keystore: ").removesuffix("\n")

    def json(self, *arguments, **options):
        """Runs the tool with --json; the value that it printed, which has the form that is told."""
        value = json.loads(self.tool(*arguments, "--json", **options))
        self.check_form(value)
        self.assertEqual(value["command"], arguments[0])
        return value

    @staticmethod
    def check_form(value):
        schema = Path(build.source, "tools", "zentrava-keystore.schema.json")
        jsonschema.Draft202012Validator(
            json.loads(schema.read_text(encoding="utf-8"))).validate(value)

    # ---- The store

    def init(self):
        self.tool("init", "--quiet")

    def add(self, uid, key_name, key, *arguments):
        self.tool("add", uid, key_name, "--quiet", *arguments, stdin=key)

    def read(self, name):
        return (self.directory / name).read_text(encoding="utf-8")

    def write(self, name, text):
        (self.directory / name).write_text(text, encoding="utf-8")

    def files(self):
        """Every file in the directory, with its content."""
        return {path.name: path.read_bytes() for path in self.directory.iterdir() if path.is_file()}

    def records(self, name=PRIVATE_FILE):
        """The records of a file, each as a dictionary of its texts."""
        root = xml.etree.ElementTree.fromstring(self.read(name))
        return [{child.tag: child.text or "" for child in element} for element in root]

    # ---- Terminals

    def run_on_terminal(self, *arguments, columns=80, typed=b"", environment=None):
        """Runs the tool on a terminal; everything that the terminal showed, and the exit code."""
        ours, its = pty.openpty()
        fcntl.ioctl(its, termios.TIOCSWINSZ, struct.pack("HHHH", 24, columns, 0, 0))
        settings = {name: value for name, value in os.environ.items()
                    if name not in TERMINAL_SETTINGS}
        with subprocess.Popen([*build.emulator, build.tool, *map(str, arguments)],
                              cwd=self.directory, stdin=its, stdout=its, stderr=its,
                              env={**settings, "TERM": "xterm", **(environment or {})}) as process:
            os.close(its)
            shown = self.converse(ours, typed)
        os.close(ours)
        return shown.decode().replace("\r\n", "\n"), process.returncode

    @staticmethod
    def converse(terminal, typed):
        """Types once the program waits for it with the echo off, or else after a while; what was
        shown until the end."""
        shown = b""
        begin = time.monotonic()
        while True:
            echoes = termios.tcgetattr(terminal)[3] & termios.ECHO
            if typed and (not echoes or time.monotonic() > begin + 10):
                os.write(terminal, typed)
                typed = b""
            if not select.select([terminal], [], [], 0.05)[0]:
                continue
            try:
                piece = os.read(terminal, 65536)
            except OSError:  # nobody has the other side open any more
                return shown
            if not piece:
                return shown
            shown += piece
