"""The Python package at work: tags, signatures, agreements and the key store, beside Python's hmac
and the openssl command."""

import gc
import hashlib
import os
import sys
import threading
import time
import traceback
from pathlib import Path

sys.path.insert(0, str(Path(__file__).parent / "support"))
import oracles
from build_under_test import run_test
from key_store_files import PRIVATE_FILE, PUBLIC_FILE, UID, private_keys, records, write_store
from python_library import LibraryTestCase

MESSAGE = b"Set valve 7 to 40 percent"
AMTC0 = bytes.fromhex("20261121")
OTHER_AMTC0 = bytes.fromhex("202611210001")
KEY, OTHER_KEY = bytes(range(32)), bytes(range(100, 132))


class PythonKeys(LibraryTestCase):
    # ---- Contexts

    def test_tags_under_stored_keys_are_those_of_python(self):
        crk, csk = os.urandom(32), os.urandom(32)
        self.write_store({"srk": KEY, "crk": crk, "tmp_client_session_key": csk})
        with self.keys.open(UID) as device:
            device.load_srk()
            self.assertEqual(device.root_tag(MESSAGE), oracles.tag(KEY, MESSAGE))
            device.load_crk()
            self.assertEqual(device.root_tag(MESSAGE), oracles.tag(KEY, MESSAGE))
            device.load_crk(force=True)
            self.assertEqual(device.root_tag(MESSAGE), oracles.tag(crk, MESSAGE))
            device.load_srk(force=True)
            self.assertEqual(device.root_tag(b""), oracles.tag(KEY, b""))
            device.load_csk()
            self.assertEqual(device.session_tag(MESSAGE), oracles.tag(csk, MESSAGE))
            write_store(self.directory, {"tmp_client_session_key": KEY})
            device.load_csk(force=True)
            self.assertEqual(device.session_tag(MESSAGE), oracles.tag(KEY, MESSAGE))

    def test_tags_under_keys_of_the_callers_are_those_of_python(self):
        with self.keys.open(UID) as device:
            device.set_root_key(KEY)
            device.set_session_key(bytearray(OTHER_KEY) + b"not used")
            self.assertEqual(device.root_tag(memoryview(MESSAGE)), oracles.tag(KEY, MESSAGE))
            self.assertEqual(device.session_tag(MESSAGE), oracles.tag(OTHER_KEY, MESSAGE))
        self.assertEqual(self.keys.tag(b"short", b"\0" + MESSAGE),
                         oracles.tag(b"short", b"\0" + MESSAGE))

    def test_a_tag_is_verified_and_a_wrong_one_is_not(self):
        with self.keys.open(UID) as device:
            device.set_root_key(KEY)
            device.set_session_key(OTHER_KEY)
            for key, verify in ((KEY, device.verify_root_tag),
                                (OTHER_KEY, device.verify_session_tag)):
                tag = oracles.tag(key, MESSAGE)
                self.assertIs(verify(MESSAGE, tag), True)
                self.assertIs(verify(MESSAGE, tag[:-1] + bytes([tag[-1] ^ 1])), False)
                self.assertIs(verify(MESSAGE + b"\0", tag), False)

    def test_session_keys_are_derived_as_python_derives_them(self):
        with self.keys.open(UID) as device:
            device.set_root_key(KEY)
            for amtc0 in (AMTC0, b"1", OTHER_AMTC0):
                device.derive_session_key(amtc0)
                self.assertEqual(device.session_tag(MESSAGE), session_tag(KEY, amtc0))
            device.set_root_key(OTHER_KEY)
            device.derive_session_key(OTHER_AMTC0)  # which is in place
            self.assertEqual(device.session_tag(MESSAGE), session_tag(KEY, OTHER_AMTC0))
            device.derive_session_key(OTHER_AMTC0, force=True)
            self.assertEqual(device.session_tag(MESSAGE), session_tag(OTHER_KEY, OTHER_AMTC0))

    def test_session_keys_are_agreed_on_as_openssl_agrees_on_them(self):
        own, peer = oracles.new_private_key(), oracles.new_private_key()
        self.write_store({"ecdh_prv": own})
        peer_key = oracles.public_key_of(peer)
        with self.keys.open(UID) as device:
            device.derive_ecdh_session_key(peer_key, AMTC0)
            expected = session_tag(oracles.secret(own, peer_key), AMTC0)
            self.assertEqual(device.session_tag(MESSAGE), expected)
            self.write_store({"ecdh_prv": peer})
            device.derive_ecdh_session_key(peer_key, AMTC0)  # which is in place
            self.assertEqual(device.session_tag(MESSAGE), expected)
            device.derive_ecdh_session_key(peer_key, AMTC0, force=True)
            self.assertEqual(device.session_tag(MESSAGE),
                             session_tag(oracles.secret(peer, peer_key), AMTC0))

    def test_openssl_accepts_signatures_and_its_own_are_verified(self):
        private_key = oracles.new_private_key()
        public_key = oracles.public_key_of(private_key)
        self.write_store({"ecdsa_prv": private_key}, {"ECDSA_DS_PuK": public_key})
        with self.keys.open(UID) as device:
            device.load_signing_key()
            device.load_verification_key()
            for message in (MESSAGE, b""):
                self.assertTrue(oracles.accepts(public_key, message, device.sign(message)))
                signature = oracles.sign(private_key, message)
                self.assertIs(device.verify(message, signature), True)
                self.assertIs(device.verify(message + b"\0", signature), False)
            other = oracles.new_private_key()
            self.write_store({"ecdsa_prv": other},
                             {"ECDSA_DS_PuK": oracles.public_key_of(other)})
            device.load_signing_key(force=True)
            device.load_verification_key(force=True)
            self.assertTrue(device.verify(MESSAGE, device.sign(MESSAGE)))
            self.assertFalse(device.verify(MESSAGE, oracles.sign(private_key, MESSAGE)))

    def test_the_keys_of_slots_tag_and_sign_as_openssl_says(self):
        peer = oracles.public_key_of(oracles.new_private_key())
        names = {3: "3", 2**32 - 1: "-1"}
        slots = {slot: (oracles.new_private_key(), oracles.new_private_key()) for slot in names}
        self.write_store({f"{kind}_prv_slot_{names[slot]}": key for slot, pair in slots.items()
                          for kind, key in zip(("ecdh", "ecdsa"), pair)})
        with self.keys.open(UID) as device:
            for slot, (agreement_key, signing_key) in slots.items():
                device.make_slot_tag_key(slot, peer)
                device.load_slot_signing_key(slot, force=True)
                self.assertEqual(device.slot_tag(MESSAGE),
                                 oracles.tag(oracles.secret(agreement_key, peer), MESSAGE))
                self.assertTrue(oracles.accepts(oracles.public_key_of(signing_key), MESSAGE,
                                                device.slot_sign(MESSAGE)))

    def test_a_context_without_its_keys_raises(self):
        self.write_store({})
        peer = oracles.public_key_of(KEY)
        with self.keys.open(UID) as device:
            for call, function in (
                    (device.load_srk, "set_srk_as_hmac_root_signing_key"),
                    (device.load_crk, "set_crk_as_hmac_root_signing_key"),
                    (device.load_csk, "set_csk_as_hmac_session_signing_key"),
                    (device.load_signing_key, "set_ecdsa_signing_key"),
                    (device.load_verification_key, "set_ecdsa_verification_key"),
                    (lambda: device.derive_ecdh_session_key(peer, AMTC0),
                     "derive_ecdh_session_key"),
                    (lambda: device.make_slot_tag_key(3, peer), "set_kts_hmac_signing_key"),
                    (lambda: device.load_slot_signing_key(3), "set_kts_ecdsa_signing_key")):
                with self.assertRaisesRegex(self.zentrava_keys.KeyNotFoundError, function):
                    call()
                device.clear_keys()
            for call, function in (
                    (lambda: device.root_tag(b""), "gen_root_sha256_hmac returned 4"),
                    (lambda: device.session_tag(b""), "gen_session_sha256_hmac returned 4"),
                    (lambda: device.slot_tag(b""), "gen_kts_sha256_hmac returned 4"),
                    (lambda: device.verify_root_tag(b"", bytes(32)), "verify_root_sha256_hmac"),
                    (lambda: device.derive_session_key(b"1"), "derive_hmac_session_key"),
                    (lambda: device.sign(b""), "generate_ecdsa_signature"),
                    (lambda: device.slot_sign(b""), "generate_kts_ecdsa_signature"),
                    (lambda: device.verify(b"", bytes(64)), "verify_ecdsa_signature")):
                with self.assertRaisesRegex(self.zentrava_keys.KeyNotFoundError, function):
                    call()

    def test_a_load_that_failed_leaves_an_empty_key_until_it_is_forced_or_cleared(self):
        self.write_store({"crk": KEY})
        with self.keys.open(UID) as device:
            with self.assertRaises(self.zentrava_keys.KeyNotFoundError):
                device.load_srk()
            device.load_crk()
            self.assertEqual(device.root_tag(MESSAGE), oracles.tag(bytes(32), MESSAGE))
            device.load_crk(force=True)
            self.assertEqual(device.root_tag(MESSAGE), oracles.tag(KEY, MESSAGE))
            device.clear_keys()
            device.load_crk()
            self.assertEqual(device.root_tag(MESSAGE), oracles.tag(KEY, MESSAGE))

    def test_a_key_that_is_too_short_raises(self):
        self.write_store({"srk": bytes(16)})
        with self.keys.open(UID) as device:
            with self.assertRaisesRegex(self.zentrava_keys.InvalidKeyError,
                                        "set_srk_as_hmac_root_signing_key returned 5"):
                device.load_srk()

    def test_a_closed_context_raises_and_may_be_closed_again(self):
        with self.keys.open(UID) as device:
            self.assertIn("open", repr(device))
            self.assertFalse(device.closed)
        self.assertTrue(device.closed)
        self.assertIn("closed", repr(device))
        device.close()
        with self.assertRaisesRegex(ValueError, "^key_lib_clear_keys: the context is closed$"):
            device.clear_keys()

    def test_a_context_is_closed_after_an_error_and_when_it_is_forgotten(self):
        closed = self.count_calls("key_lib_close")
        with self.assertRaises(KeyError), self.keys.open(UID) as device:
            raise KeyError
        self.assertEqual(len(closed), 1)
        device = self.keys.open(UID)
        self.assertEqual(len(closed), 1)
        del device
        gc.collect()
        self.assertEqual(len(closed), 2)

    def test_threads_that_share_a_context_come_one_after_another(self):
        inside, most = [], []
        with self.keys.open(UID) as device:
            device.set_root_key(KEY)

            def slow(*_):
                inside.append(1)
                most.append(len(inside))
                time.sleep(0.01)
                inside.pop()
                return 0
            self.keys._native._functions["gen_root_sha256_hmac"] = slow
            run_in_threads(4, lambda: device.root_tag(MESSAGE))
        self.assertEqual(most, [1] * 4)

    # ---- The engine

    def test_key_pairs_and_secrets_are_those_of_openssl(self):
        pair = self.keys.engine.make_key()
        self.assertNotIn(repr(pair.private_key), repr(pair))
        public_key = self.zentrava_keys.point(pair.public_key)
        self.assertEqual(public_key, oracles.public_key_of(pair.private_key))
        peer = oracles.new_private_key()
        expected = oracles.secret(peer, public_key)
        peer_key = oracles.public_key_of(peer)
        for form in (b"\4" + peer_key, bytes([2 + peer_key[-1] % 2]) + peer_key[:32]):
            self.assertEqual(self.keys.engine.shared_secret(form, pair.private_key), expected)

    def test_signatures_of_hashes_are_exchanged_with_openssl(self):
        pair = self.keys.engine.make_key()
        hashed = hashlib.sha256(MESSAGE).digest()
        signature = self.keys.engine.sign(pair.private_key, hashed)
        self.assertTrue(oracles.accepts_hash(pair.public_key, hashed, signature))
        signature = oracles.sign(pair.private_key, MESSAGE)
        self.assertIs(self.keys.engine.verify(pair.public_key, hashed, signature), True)
        self.assertIs(self.keys.engine.verify(pair.public_key, bytes(32), signature), False)

    def test_an_agreement_without_a_result_raises(self):
        with self.assertRaisesRegex(self.zentrava_keys.EngineError,
                                    "^ecdh_shared_secret returned 0: "):
            self.keys.engine.shared_secret(b"\2" + bytes(32), KEY)

    def test_a_point_is_taken_in_each_form_and_only_on_the_curve(self):
        point = self.zentrava_keys.point
        for _ in range(8):
            key = oracles.public_key_of(oracles.new_private_key())
            for form in (key, b"\4" + key, bytes([2 + key[-1] % 2]) + key[:32]):
                self.assertEqual(point(form), key)
            self.assertNotEqual(point(bytes([3 - key[-1] % 2]) + key[:32]), key)
        prime = 2**256 - 2**224 + 2**192 + 2**96 - 1
        self.assertEqual(point(b"\2" + (5).to_bytes(32, "big"))[:32], (5).to_bytes(32, "big"))
        for wrong in (key[:-1] + bytes([key[-1] ^ 1]), b"\4" + bytes(64), b"\2" + (prime + 5).to_bytes(32, "big"),
                      key[:32] + (prime + 1).to_bytes(32, "big"), b"\5" + key[:32],
                      b"\2" + (1).to_bytes(32, "big"), b"\2" + key, key[:33], b""):
            with self.subTest(wrong.hex()), self.assertRaisesRegex(ValueError, "^public_key: "):
                point(wrong)

    # ---- The key store

    def test_keys_are_got_and_exported_as_they_are_stored(self):
        public_key = oracles.public_key_of(KEY)
        self.write_store({"srk": KEY, "long": bytes(range(200))}, {"ECDSA_DS_PuK": public_key})
        store = self.keys.store
        self.assertEqual(store.get(UID, "srk"), KEY)
        self.assertEqual(store.get(UID, "ECDSA_DS_PuK"), public_key)
        self.assertEqual(store.get(UID, "long"), bytes(range(100)).hex().encode())
        self.assertEqual(store.export_private(UID, "srk"), KEY.hex())
        self.assertEqual(store.read_public(UID, "ECDSA_DS_PuK"), public_key.hex())
        for call, function in ((lambda: store.get(UID, "none"), "get_key"),
                               (lambda: store.export_private(UID, "ECDSA_DS_PuK"),
                                "export_prv_key_in_clear_as_hex"),
                               (lambda: store.export_private(UID, "srk", capacity=64),
                                "export_prv_key_in_clear_as_hex"),
                               (lambda: store.read_public(UID, "srk"), "read_public_key_as_hex"),
                               (lambda: store.describe(UID, "none"), "get_key_handle")):
            with self.assertRaisesRegex(self.zentrava_keys.StoreError, f"^{function} returned 1: "):
                call()

    def test_presence_is_told_of_the_private_file(self):
        self.write_store({"srk": KEY, "ecdh_prv": KEY, "mine": KEY}, {"crk": KEY})
        store = self.keys.store
        self.assertIs(store.contains(UID, "srk"), True)
        self.assertIs(store.contains(UID, "crk"), False)
        self.assertEqual(store.present(UID), ["srk", "ecdh_prv"])
        self.assertEqual(store.present(UID, ["mine", "crk", "srk"]), ["mine", "srk"])

    def test_keys_are_copied_overwritten_and_deleted(self):
        self.write_store({"srk": KEY, "next": OTHER_KEY}, {"public": KEY})
        store = self.keys.store
        store.copy(UID, "srk", "backup")
        self.assertEqual(store.describe(UID, "backup"), ("3", ""))
        store.overwrite_srk(UID, store.handle(UID, "next"))
        self.assertEqual(private_keys(self.directory),
                         {"srk": OTHER_KEY, "next": OTHER_KEY, "backup": KEY})
        store.delete(UID, "next")
        store.delete_by_handle("3")
        store.delete(UID, "public")
        self.assertEqual(private_keys(self.directory), {"srk": OTHER_KEY})
        self.assertEqual(records(self.directory, PUBLIC_FILE), [])
        for call, function in ((lambda: store.copy(UID, "none", "other"), "copy_private_key"),
                               (lambda: store.copy(UID, "srk", "srk"), "copy_private_key"),
                               (lambda: store.overwrite_srk(UID, "77"),
                                "set_new_srk_key_data_for_uid"),
                               (lambda: store.delete(UID, "none"), "delete_key_by_key_type"),
                               (lambda: store.delete_by_handle("77"), "delete_key_by_handle")):
            with self.assertRaisesRegex(self.zentrava_keys.StoreError, f"^{function} returned 1: "):
                call()

    def test_a_key_is_added_replaced_and_not_replaced_unasked(self):
        store = self.keys.store

        def add():
            self.write_store({"other": KEY})
            store.add(UID, "srk", KEY, metadata="made on the bench & kept")
            self.assertEqual(store.describe(UID, "srk"), ("2", "made on the bench & kept"))
            self.assertEqual(private_keys(self.directory), {"other": KEY, "srk": KEY})

        def add_again():
            self.write_store({"srk": KEY})
            with self.assertRaisesRegex(self.zentrava_keys.StoreError,
                                        "^add_nonvolatile_based_key returned 1: "):
                store.add(UID, "srk", KEY)  # which is the one in place
            self.assertEqual(private_keys(self.directory), {"srk": KEY})

        def replace():
            self.write_store({"other": KEY, "srk": KEY}, {"srk": KEY})
            store.add(UID, "srk", OTHER_KEY, replace=True)
            self.assertEqual(private_keys(self.directory), {"other": KEY, "srk": OTHER_KEY})
            self.assertEqual(store.read_public(UID, "srk"), KEY.hex())

        def replace_public():
            self.write_store({"srk": KEY}, {"srk": KEY})
            store.add(UID, "srk", OTHER_KEY, private=False, replace=True)
            self.assertEqual(private_keys(self.directory), {"srk": KEY})
            self.assertEqual(store.read_public(UID, "srk"), OTHER_KEY.hex())
        # At the same time: in each of them the library sleeps for five seconds.
        self.run_in_processes(add, add_again, replace, replace_public)

    def test_a_replacement_that_fails_raises(self):
        # Without a file to read, the library returns at once.
        with self.assertRaisesRegex(self.zentrava_keys.StoreError, "^add_nonvolatile_based_key"):
            self.keys.store.add(UID, "srk", KEY, replace=True)

    def test_volatile_keys_are_added_and_deleted_by_their_handles(self):
        store = self.keys.store
        first = store.add_volatile(b"of any length")
        second = store.add_volatile_named(UID, "in memory", KEY, metadata="for now")
        self.assertEqual((first, second), ("1", "2"))
        with self.assertRaisesRegex(self.zentrava_keys.StoreError, "^add_volatile_based_key"):
            store.add_volatile_named(UID, "in memory", KEY)
        for handle in (first, second):  # although there are no files
            store.delete_by_handle(handle)
        self.assertEqual(store.add_volatile(b""), "1")

    def test_a_deletion_by_handle_that_would_not_come_back_is_not_begun(self):
        for damaged in (PUBLIC_FILE, PRIVATE_FILE):
            self.write_store({"srk": KEY})
            (self.directory / damaged).write_text("<keys>", encoding="ascii")
            for _ in range(2):
                with self.assertRaisesRegex(self.zentrava_keys.StoreUnreadableError,
                                            f"delete_key_by_handle was not called.*{damaged}"):
                    self.keys.store.delete_by_handle("1")
                (self.directory / damaged).unlink(missing_ok=True)

    def test_threads_that_change_the_store_come_one_after_another(self):
        self.write_store({"srk": KEY})
        store = self.keys.store
        inside, most = [], []

        def slow(*_):
            inside.append(1)
            most.append(len(inside))
            time.sleep(0.01)
            inside.pop()
            return 0
        for function in ("add_volatile_key", "add_nonvolatile_based_key", "copy_private_key",
                         "delete_key_by_handle", "get_key_handle"):
            self.keys._native._functions[function] = slow
        run_in_threads(2, lambda: store.add_volatile(b""), lambda: store.add(UID, "n", KEY),
                       lambda: store.copy(UID, "srk", "n"), lambda: store.delete_by_handle("1"),
                       lambda: store.describe(UID, "srk"))
        self.assertEqual(most, [1] * 10)

    # ---- What the tests use

    def run_in_processes(self, *calls):
        """Runs each call in a process and a directory of its own; all have to succeed."""
        children = []
        for call in calls:
            child = os.fork()
            if child == 0:
                try:
                    self.directory = self.directory / call.__name__
                    self.directory.mkdir()
                    with self.zentrava_keys.working_in(self.directory):
                        call()
                except BaseException:
                    traceback.print_exc()
                    os._exit(1)
                os._exit(0)
            children.append(child)
        self.assertEqual([os.waitpid(child, 0)[1] for child in children], [0] * len(children))

    def count_calls(self, function):
        """A list that grows with each call of a function."""
        calls = []
        original = self.keys._native._functions[function]

        def counted(*arguments):
            calls.append(arguments)
            return original(*arguments)
        self.keys._native._functions[function] = counted
        return calls


def session_tag(root_key, amtc0):
    return oracles.tag(oracles.session_key(root_key, amtc0), MESSAGE)


def run_in_threads(times, *calls):
    threads = [threading.Thread(target=call) for call in calls * times]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()


if __name__ == "__main__":
    run_test(PythonKeys, loads_library=True)
