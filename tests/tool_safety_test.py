"""zentrava-keystore: no key and no change gets lost, and no secret gets out."""

import fcntl
import os
import resource
import signal
import subprocess
import sys
import threading
import time
import unittest
from pathlib import Path

sys.path.insert(0, str(Path(__file__).parent / "support"))
from build_under_test import build, run_test
from key_store_tool import (EMPTY_FILE, FAILED, HMAC_KEY, INPUT_OUTPUT, PRIVATE_FILE, PUBLIC_FILE,
                            PUBLIC_KEY, UID, ToolTestCase, record, store_file)

NOBODY = 65534


def sanitized():
    return any(flag.startswith("-fsanitize=") for flag in build.cxx_flags or [])


class ToolSafety(ToolTestCase):
    # ---- Saving

    def test_a_save_that_fails_leaves_the_files_as_they_were(self):
        self.init()
        self.add(UID, "srk", HMAC_KEY)
        before = self.files()
        self.assertEqual(
            self.refusal(INPUT_OUTPUT, "add", UID, "crk", "--metadata", "m" * 9000, stdin=HMAC_KEY,
                         preexec_fn=lambda: limit_file_size(4096)),
            f"{PRIVATE_FILE}: could not be saved, and nothing was changed; see to its permissions "
            "and to the space on the disk")
        self.assertEqual(self.files(), before)

    def test_a_public_key_is_not_left_behind_if_its_private_key_cannot_be_saved(self):
        self.init()
        before = self.files()
        self.refusal(INPUT_OUTPUT, "generate", UID, "ecdsa_prv", "--public-key", "key.pem",
                     "--metadata", "m" * 9000, preexec_fn=lambda: limit_file_size(4096))
        self.assertEqual(self.files(), before)

    def test_a_change_of_both_files_is_undone_if_the_second_cannot_be_saved(self):
        self.init()
        self.add(UID, "srk", HMAC_KEY)
        self.write("manifest.csv", "uid,key_name,key,file,metadata\n"
                   f"{UID},crk,{HMAC_KEY},private,\n"
                   f"{UID},ECDSA_DS_PuK,{PUBLIC_KEY},public,{'m' * 9000}\n")
        before = self.files()
        self.assertEqual(
            self.refusal(INPUT_OUTPUT, "provision", "manifest.csv",
                         preexec_fn=lambda: limit_file_size(4096)),
            f"{PUBLIC_FILE}: could not be saved, and nothing was changed; see to its permissions "
            "and to the space on the disk")
        self.assertEqual(self.files(), before)

    def test_a_restore_is_undone_if_the_second_file_cannot_be_saved(self):
        self.init()
        self.add(UID, "srk", HMAC_KEY)
        self.add(UID, "ECDSA_DS_PuK", PUBLIC_KEY, "--metadata", "m" * 9000)
        self.tool("backup", "copy", "--quiet")
        self.tool("delete", UID, "srk", "--quiet")
        self.tool("delete", UID, "ECDSA_DS_PuK", "--quiet")
        self.write(PRIVATE_FILE, "no store any more")
        before = self.files()
        self.assertEqual(
            self.refusal(INPUT_OUTPUT, "restore", "copy",
                         preexec_fn=lambda: limit_file_size(4096)),
            f"{PUBLIC_FILE}: could not be saved, and nothing was changed; see to its permissions "
            "and to the space on the disk")
        self.assertEqual(self.files(), before)

    @unittest.skipUnless(os.geteuid() == 0, "needs to become another user")
    def test_a_restore_into_a_directory_that_may_not_be_written_changes_nothing(self):
        self.init()
        self.tool("backup", "copy", "--quiet")
        before = self.files()
        for path in [self.directory, *self.directory.rglob("*")]:
            os.chown(path, NOBODY, NOBODY)
        self.directory.chmod(0o555)
        self.assertEqual(
            self.refusal(INPUT_OUTPUT, "restore", "copy", preexec_fn=lambda: os.setuid(NOBODY)),
            f"{PRIVATE_FILE}: cannot be kept aside: Permission denied; see to the permissions of "
            "its directory")
        self.assertEqual(self.files(), before)

    def test_a_backup_that_cannot_be_written_leaves_no_copy(self):
        self.init()
        self.add(UID, "ECDSA_DS_PuK", PUBLIC_KEY, "--metadata", "m" * 9000)
        self.assertRegex(
            self.refusal(INPUT_OUTPUT, "backup", "copy", preexec_fn=lambda: limit_file_size(4096)),
            rf"\Acopy/{PUBLIC_FILE}: cannot be written: ")
        self.assertEqual(os.listdir(self.directory / "copy"), [])

    def test_a_save_keeps_the_permissions_of_the_file(self):
        self.init()
        (self.directory / PRIVATE_FILE).chmod(0o640)
        self.add(UID, "srk", HMAC_KEY)
        self.assertEqual((self.directory / PRIVATE_FILE).stat().st_mode & 0o7777, 0o640)

    @unittest.skipUnless(os.geteuid() == 0, "needs to become another user")
    def test_a_file_that_may_not_be_read_is_an_input_output_error(self):
        self.init()
        self.directory.chmod(0o755)
        error = self.refusal(INPUT_OUTPUT, "list", preexec_fn=lambda: os.setuid(NOBODY))
        self.assertEqual(error, f"{PRIVATE_FILE}: cannot be read: Permission denied; see to its "
                                "permissions")

    def test_output_that_cannot_be_written_is_an_input_output_error(self):
        self.init()
        with open("/dev/full", "wb") as full:
            result = self.run_tool("list", stdout=full)
        self.assertEqual((result.returncode, result.stderr.decode()),
                         (INPUT_OUTPUT, "zentrava-keystore: standard output: cannot be written: "
                                        "No space left on device\n"))

    def test_a_machine_without_memory_is_a_failure_and_changes_nothing(self):
        if sanitized() or build.emulator:
            self.skipTest("the limit would stop the sanitizer or the emulator")
        self.init()
        self.write("manifest.csv", "uid,key_name,key\n" + f"{UID},srk,{HMAC_KEY}\n" * 500000)
        before = self.files()
        self.assertEqual(
            self.refusal(FAILED, "provision", "manifest.csv",
                         preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_AS,
                                                               (100 << 20, 100 << 20))),
            "there is not enough memory; nothing was changed; free some memory")
        self.assertEqual(self.files(), before)

    # ---- Processes

    def test_a_change_waits_for_the_lock_between_processes(self):
        self.init()
        lock = os.open(self.directory, os.O_RDONLY)
        fcntl.flock(lock, fcntl.LOCK_EX)
        adding = threading.Thread(target=self.add, args=(UID, "srk", HMAC_KEY))
        adding.start()
        adding.join(1)
        was_waiting = adding.is_alive() and self.read(PRIVATE_FILE) == EMPTY_FILE
        os.close(lock)
        adding.join(60)
        self.assertTrue(was_waiting)
        self.assertEqual(self.read(PRIVATE_FILE), store_file(record(UID, "srk", 1, HMAC_KEY)))

    def test_reading_does_not_wait_for_the_lock(self):
        self.init()
        lock = os.open(self.directory, os.O_RDONLY)
        fcntl.flock(lock, fcntl.LOCK_EX)
        self.assertEqual(self.json("list")["keys"], [])
        os.close(lock)

    def test_changes_of_several_processes_are_all_kept_under_different_handles(self):
        self.init()
        threads = [threading.Thread(target=self.add, args=(UID, f"key {number}", "00"))
                   for number in range(16)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        found = self.records()
        self.assertEqual({each["key_name"] for each in found},
                         {f"key {number}" for number in range(16)})
        self.assertEqual({each["handle"] for each in found}, {str(n) for n in range(1, 17)})

    def test_a_kill_at_any_time_leaves_the_old_store_or_the_new_one(self):
        self.init()
        self.write("manifest.csv", "uid,key_name,key\n"
                   + "".join(f"{number:032x},srk,{HMAC_KEY}\n" for number in range(20000)))
        counts = set()
        for delay in (0.02, 0.05, 0.1, 0.15, 0.2, 0.3):
            with subprocess.Popen([*build.emulator, build.tool, "provision", "manifest.csv",
                                   "--quiet"], cwd=self.directory) as process:
                time.sleep(delay)
                process.send_signal(signal.SIGKILL)
            counts.add(len(self.records()))
            self.write(PRIVATE_FILE, EMPTY_FILE)
        self.assertLessEqual(counts, {0, 20000})

    # ---- Secrets

    def test_no_message_of_a_broken_file_or_manifest_shows_a_key(self):
        broken = store_file(record(UID, "srk", 1, HMAC_KEY)).replace("</key>", "</" + HMAC_KEY)
        self.write(PRIVATE_FILE, broken)
        self.write("manifest.json", f'[{{"uid": "{UID}", "key": "{HMAC_KEY}" "{HMAC_KEY}"}}]')
        self.write("manifest.csv", f'uid,key_name,key\n{UID},srk,"{HMAC_KEY}"{HMAC_KEY}\n')
        for arguments in (["list"], ["show", UID, "srk", "--reveal"],
                          ["provision", "manifest.json"], ["provision", "manifest.csv"],
                          ["restore", "."]):
            with self.subTest(arguments[0]):
                result = self.run_tool(*arguments)
                self.assertNotEqual(result.returncode, 0)
                self.assertNotIn(HMAC_KEY[:16].encode(), result.stdout + result.stderr)

    def test_a_key_is_shown_only_where_it_is_asked_for(self):
        self.init()
        shown = self.tool("add", UID, "srk", stdin=HMAC_KEY)
        shown += self.tool("copy", UID, "srk", "--as", "crk") + self.tool("list")
        shown += self.tool("show", UID, "srk") + str(self.json("list"))
        shown += self.tool("rename", UID, "crk", "--as", "own")
        shown += self.tool("delete", UID, "own")
        self.assertNotIn(HMAC_KEY, shown)
        self.assertIn(HMAC_KEY, self.tool("show", UID, "srk", "--reveal"))

    def test_a_key_that_is_typed_does_not_appear_on_the_terminal(self):
        self.init()
        shown, code = self.run_on_terminal("add", UID, "srk",
                                           typed=HMAC_KEY.encode() + b"\n\x04")
        self.assertEqual((code, [found["key"] for found in self.records()]), (0, [HMAC_KEY]))
        self.assertIn("add: handle 1", shown)
        self.assertNotIn(HMAC_KEY[:8], shown)

    def test_keys_are_wiped_from_memory_before_the_tool_ends(self):
        if sanitized() or build.emulator:
            self.skipTest("sanitizers and emulators keep memory of their own")
        self.init()
        (self.directory / "key.bin").write_bytes(bytes.fromhex(HMAC_KEY))
        self.write("manifest.csv", f"uid,key_name,key,metadata\n{UID},a,{HMAC_KEY},m\n")
        self.write("manifest.json",
                   f'[{{"uid": "{UID}", "key_name": "b", "key": "{HMAC_KEY}"}}]')
        commands = (["add", UID, "srk"], ["add", UID, "own", "--raw", "--from", "key.bin"],
                    ["add", UID, "srk", "--replace"], ["provision", "manifest.csv"],
                    ["provision", "manifest.json"], ["copy", UID, "srk", "--as", "crk"],
                    ["rename", UID, "crk", "--as", "last"], ["list"], ["show", UID, "srk"],
                    ["backup", "copy"], ["restore", "copy"], ["delete", UID, "last"])
        for command in commands:
            with self.subTest(" ".join(command)):
                self.assertEqual(self.left_in_memory(HMAC_KEY.encode(), *command), 0)
                self.assertEqual(self.left_in_memory(bytes.fromhex(HMAC_KEY), "list"), 0)

    def test_a_generated_key_is_wiped_from_memory_before_the_tool_ends(self):
        if sanitized() or build.emulator:
            self.skipTest("sanitizers and emulators keep memory of their own")
        self.init()
        for name in ("srk", "ecdsa_prv"):
            self.json("generate", UID, name)
            key = self.json("show", UID, name, "--reveal")["key"]["key"]
            self.assertEqual(self.left_in_memory(key.encode(), "list"), 0)
            self.assertEqual(self.left_in_memory(key.encode(), "generate", UID, "other " + name), 0)

    def test_what_looks_for_keys_in_memory_finds_one_that_is_there(self):
        if sanitized() or build.emulator:
            self.skipTest("sanitizers and emulators keep memory of their own")
        self.init()
        self.add(UID, "srk", HMAC_KEY, "--metadata", "searched for in the arguments")
        self.assertGreater(
            self.left_in_memory(b"searched for in the arguments", "add", UID, "crk", "--metadata",
                                "searched for in the arguments"), 0)

    def left_in_memory(self, secret, *arguments):
        """Runs the tool; how often its memory holds the secret's second half when it ends. (Over
        the beginning of what is freed, the C library writes notes of its own.)"""
        secret = secret[len(secret) // 2:]
        report = self.directory / "report"
        report.unlink(missing_ok=True)
        flipped = bytes(byte ^ 0xFF for byte in secret).hex()
        result = self.run_tool(*arguments, stdin=HMAC_KEY,
                               # Nothing is bound while the memory is looked through: the dynamic
                               # linker would save registers there, and what is left in them.
                               environment={"LD_BIND_NOW": "1",
                                            "LD_PRELOAD": build.memory_scan,
                                            "MEMORY_SCAN_SECRET": flipped,
                                            "MEMORY_SCAN_REPORT": str(report)})
        self.assertEqual(result.returncode, 0, result.stderr)
        return int(report.read_text(encoding="ascii"))


def limit_file_size(size):
    signal.signal(signal.SIGXFSZ, signal.SIG_IGN)
    resource.setrlimit(resource.RLIMIT_FSIZE, (size, size))


if __name__ == "__main__":
    run_test(ToolSafety)
