// The whole life of a device on real store files: provisioned, used with every kind of key,
// cleared, loaded again, closed. OpenSSL is the other end of every tag, signature and agreement.

#include "key_driver/zentrava_key_driver.h"
#include "key_driver/zentrava_key_management_utils.h"
#include "tests/support/curve_context.h"
#include "tests/support/device.h"
#include "tests/support/pauses.h"
#include "tests/support/printed.h"

#include <gtest/gtest.h>

#include <stdint.h>

#include <map>
#include <string>
#include <vector>

namespace {

const Bytes MSG = bytes_of("open valve 7 by 40 percent");
const uint32_t MSG_LEN = static_cast<uint32_t>(MSG.size());

// AMTC0 values of every length.
std::vector<Bytes> amtc0_values()
{
    std::vector<Bytes> values;
    for (size_t len = 1; len <= 6; ++len) {
        values.push_back(counting_from(static_cast<uint8_t>(0x10 * len), len));
    }
    return values;
}

class DeviceLife : public CurveContext {
  protected:
    // ---- Provisioning

    // The store's own operations take 32-byte keys only; the public key comes in a file that the
    // provisioning side wrote.
    void provision()
    {
        seconds_paused = 0;
        write_store_file(PUBLIC_FILE, device_.public_records());
        for (const auto& [name, key] : device_.private_keys()) {
            if (name != "crk" && name != "tmp_client_session_key") {
                ASSERT_EQ(add_nonvolatile_based_key(DEVICE_UID, name.c_str(), to_hex(key).c_str(),
                                                    "provisioned", true, false),
                          0U)
                    << name;
            }
        }
        ASSERT_EQ(add_crk(DEVICE_UID, to_hex(device_.crk).c_str(), nullptr), 0U);
        ASSERT_EQ(add_csk(DEVICE_UID, to_hex(device_.csk).c_str(), nullptr), 0U);
        EXPECT_EQ(seconds_paused, 5 * device_.private_keys().size());
        expect_stored();
    }

    void expect_stored()
    {
        for (const auto& [name, key] : device_.private_keys()) {
            char hex_key[65] = "";
            uint32_t len = sizeof hex_key;
            ASSERT_EQ(export_prv_key_in_clear_as_hex(DEVICE_UID, name.c_str(), hex_key, &len), 0U);
            EXPECT_EQ(hex_key, to_hex(key)) << name;
        }
        char hex_key[129] = "";
        uint32_t len = sizeof hex_key;
        ASSERT_EQ(read_public_key_as_hex(DEVICE_UID, "ECDSA_DS_PuK", hex_key, &len), 0U);
        EXPECT_EQ(hex_key, to_hex(device_.ecdsa.coordinates));
    }

    // ---- Use

    void load_named_keys()
    {
        ASSERT_EQ(set_srk_as_hmac_root_signing_key(context_buf(), false), KeyLibrary_OK);
        ASSERT_EQ(set_csk_as_hmac_session_signing_key(context_buf(), false), KeyLibrary_OK);
        ASSERT_EQ(set_ecdsa_signing_key(context_buf(), false), KeyLibrary_OK);
        ASSERT_EQ(set_ecdsa_verification_key(context_buf(), false), KeyLibrary_OK);
        EXPECT_EQ(state(),
                  with(opened_, {{"hmac_root_key", to_hex(device_.srk)},
                                 {"hmac_session_key", to_hex(device_.csk)},
                                 {"ecdsa_signing_key", to_hex(device_.ecdsa.private_key)},
                                 {"ecdsa_verification_key", to_hex(device_.ecdsa.point)}}));
    }

    void expect_tags(const TagFunctions& functions, const Bytes& key)
    {
        const Bytes expected = hmac_under(key, MSG);
        Bytes tag(32);
        ASSERT_EQ(functions.make(context_buf(), MSG.data(), MSG_LEN, tag.data()), KeyLibrary_OK);
        EXPECT_EQ(to_hex(tag), to_hex(expected));
        bool verified = false;
        ASSERT_EQ(functions.verify(context_buf(), MSG.data(), MSG_LEN, expected.data(), &verified),
                  KeyLibrary_OK);
        EXPECT_TRUE(verified);
        tag[31] ^= 1;
        ASSERT_EQ(functions.verify(context_buf(), MSG.data(), MSG_LEN, tag.data(), &verified),
                  KeyLibrary_OK);
        EXPECT_FALSE(verified);
    }

    void expect_session_keys_of_root_key(const Bytes& root_key)
    {
        for (const Bytes& amtc0 : amtc0_values()) {
            ASSERT_EQ(derive_hmac_session_key(context_buf(), amtc0.data(),
                                              static_cast<uint32_t>(amtc0.size()), false),
                      KeyLibrary_OK);
            expect_tags(SESSION, hmac_under(root_key, amtc0));
        }
    }

    void use_root_keys()
    {
        expect_tags(ROOT, device_.srk);
        expect_tags(SESSION, device_.csk);
        expect_session_keys_of_root_key(device_.srk);
        ASSERT_EQ(set_crk_as_hmac_root_signing_key(context_buf(), false), KeyLibrary_OK);
        expect_tags(ROOT, device_.srk); // the one loaded first stays
        ASSERT_EQ(set_crk_as_hmac_root_signing_key(context_buf(), true), KeyLibrary_OK);
        expect_tags(ROOT, device_.crk);
        expect_session_keys_of_root_key(device_.crk);
    }

    void use_signatures()
    {
        Bytes signature(64);
        ASSERT_EQ(generate_ecdsa_signature(context_buf(), MSG.data(), MSG_LEN, signature.data()),
                  KeyLibrary_OK);
        EXPECT_TRUE(openssl_verify(device_.ecdsa.point, openssl_sha256(MSG), signature));
        expect_verified(signature, true);
        expect_verified(openssl_sign(device_.ecdsa.private_key, openssl_sha256(MSG)), true);
        signature[17] ^= 0x20;
        expect_verified(signature, false);
    }

    void expect_verified(const Bytes& signature, bool expected)
    {
        bool verified = !expected;
        ASSERT_EQ(
            verify_ecdsa_signature(context_buf(), MSG.data(), MSG_LEN, signature.data(), &verified),
            KeyLibrary_OK);
        EXPECT_EQ(verified, expected);
    }

    void use_agreements()
    {
        for (const P256KeyPair& peer : peers_) {
            for (const Bytes& amtc0 : amtc0_values()) {
                ASSERT_EQ(derive_ecdh_session_key(context_buf(), peer.coordinates.data(),
                                                  amtc0.data(), static_cast<uint32_t>(amtc0.size()),
                                                  false),
                          KeyLibrary_OK);
                // The peer's side of the agreement.
                const Bytes secret = openssl_ecdh(peer.private_key, device_.ecdh.point);
                expect_tags(SESSION, hmac_under(secret, amtc0));
            }
        }
    }

    void use_slots()
    {
        for (const P256KeyPair& peer : peers_) {
            for (const auto& [decimal, number] : SLOT_NUMBERS) {
                use_slot(number, device_.slots.at(decimal), peer);
            }
        }
    }

    void use_slot(uint32_t number, const Slot& slot, const P256KeyPair& peer)
    {
        SCOPED_TRACE("slot " + std::to_string(number));
        ASSERT_EQ(set_kts_hmac_signing_key(context_buf(), number, peer.coordinates.data(), false),
                  KeyLibrary_OK);
        ASSERT_EQ(set_kts_ecdsa_signing_key(context_buf(), number, true), KeyLibrary_OK);

        Bytes tag(32);
        ASSERT_EQ(gen_kts_sha256_hmac(context_buf(), MSG.data(), MSG_LEN, tag.data()),
                  KeyLibrary_OK);
        const Bytes secret = openssl_ecdh(peer.private_key, slot.ecdh.point);
        EXPECT_EQ(to_hex(tag), to_hex(hmac_under(secret, MSG)));

        Bytes signature(64);
        ASSERT_EQ(
            generate_kts_ecdsa_signature(context_buf(), MSG.data(), MSG_LEN, signature.data()),
            KeyLibrary_OK);
        EXPECT_TRUE(openssl_verify(slot.ecdsa.point, openssl_sha256(MSG), signature));
    }

    // Everything that a device does between opening and clearing.
    void work()
    {
        load_named_keys();
        use_root_keys();
        use_signatures();
        use_agreements();
        use_slots();
        use_signatures();
        expect_tags(ROOT, device_.crk);
    }

    // ---- Without keys

    void expect_everything_refused()
    {
        Bytes output(64, 0xEE);
        bool verified = true;
        const uint8_t* msg = MSG.data();
        uint8_t* out = output.data();
        const uint8_t* buf = context_buf();
        const std::map<std::string, KeyLibraryErrorCode> results = {
            {"gen_root_sha256_hmac", gen_root_sha256_hmac(buf, msg, MSG_LEN, out)},
            {"gen_session_sha256_hmac", gen_session_sha256_hmac(buf, msg, MSG_LEN, out)},
            {"gen_kts_sha256_hmac", gen_kts_sha256_hmac(buf, msg, MSG_LEN, out)},
            {"verify_root_sha256_hmac", verify_root_sha256_hmac(buf, msg, MSG_LEN, out, &verified)},
            {"verify_session_sha256_hmac",
             verify_session_sha256_hmac(buf, msg, MSG_LEN, out, &verified)},
            {"derive_hmac_session_key", derive_hmac_session_key(buf, msg, 6, false)},
            {"generate_ecdsa_signature", generate_ecdsa_signature(buf, msg, MSG_LEN, out)},
            {"generate_kts_ecdsa_signature", generate_kts_ecdsa_signature(buf, msg, MSG_LEN, out)},
            {"verify_ecdsa_signature", verify_ecdsa_signature(buf, msg, MSG_LEN, out, &verified)},
        };
        for (const auto& [function, result] : results) {
            EXPECT_EQ(result, KeyLibrary_KEY_NOT_FOUND) << function;
        }
        EXPECT_EQ(output, Bytes(64, 0xEE));
        EXPECT_TRUE(verified);
        EXPECT_EQ(state(), opened_);
    }

    // ---- The end of the keys in the store

    void decommission()
    {
        for (const auto& [name, key] : device_.private_keys()) {
            ASSERT_EQ(delete_key_by_key_type(DEVICE_UID, name.c_str()), 0U) << name;
        }
        ASSERT_EQ(delete_key_by_key_type(DEVICE_UID, "ECDSA_DS_PuK"), 0U);
    }

    void expect_nothing_to_load()
    {
        const uint8_t* buf = context_buf();
        const uint8_t* peer = peers_[0].coordinates.data();
        const std::map<std::string, KeyLibraryErrorCode> results = {
            {"srk", set_srk_as_hmac_root_signing_key(buf, true)},
            {"crk", set_crk_as_hmac_root_signing_key(buf, true)},
            {"csk", set_csk_as_hmac_session_signing_key(buf, true)},
            {"ecdsa_prv", set_ecdsa_signing_key(buf, true)},
            {"ECDSA_DS_PuK", set_ecdsa_verification_key(buf, true)},
            {"ecdh_prv", derive_ecdh_session_key(buf, peer, MSG.data(), 6, true)},
            {"ecdsa slot", set_kts_ecdsa_signing_key(buf, 5, true)},
            {"ecdh slot", set_kts_hmac_signing_key(buf, 5, peer, true)},
        };
        for (const auto& [name, result] : results) {
            EXPECT_EQ(result, KeyLibrary_KEY_NOT_FOUND) << name;
        }
    }

    const Device device_ = Device(DEVICE_UID);
    const std::vector<P256KeyPair> peers_ = {random_key_pair_with_y(false),
                                             random_key_pair_with_y(true)};
    ContextState opened_;
};

TEST_F(DeviceLife, GoesFromProvisioningThroughTwoSessionsToTheEndOfItsKeys)
{
    opened_ = state();
    expect_everything_refused();
    EXPECT_EQ(printed_by([&] { provision(); }), "");

    EXPECT_EQ(printed_by([&] { work(); }), "");
    ASSERT_EQ(clear(), KeyLibrary_OK);
    expect_everything_refused();

    EXPECT_EQ(printed_by([&] { work(); }), "");
    EXPECT_EQ(printed_by([&] { decommission(); }), "");
    use_signatures(); // with the keys that the context holds

    ASSERT_EQ(clear(), KeyLibrary_OK);
    expect_everything_refused();
    printed_by([&] { expect_nothing_to_load(); });
}

// Two devices of the library's, in two contexts over the same store files.
TEST_F(DeviceLife, AgreesOnKeysWithAnotherDevice)
{
    const Device other(std::string(32, 'b'));
    write_store_file(PRIVATE_FILE, device_.private_records() + other.private_records());
    write_store_file(PUBLIC_FILE, other.public_records("900") + device_.public_records("901"));
    uint8_t other_buf[sizeof(void*)];
    ASSERT_EQ(key_lib_open(other.uid.c_str(), nullptr, nullptr, other_buf), KeyLibrary_OK);

    for (const Bytes& amtc0 : amtc0_values()) {
        const uint32_t len = static_cast<uint32_t>(amtc0.size());
        ASSERT_EQ(derive_ecdh_session_key(context_buf(), other.ecdh.coordinates.data(),
                                          amtc0.data(), len, false),
                  KeyLibrary_OK);
        ASSERT_EQ(derive_ecdh_session_key(other_buf, device_.ecdh.coordinates.data(), amtc0.data(),
                                          len, false),
                  KeyLibrary_OK);
        Bytes tag(32);
        bool verified = false;
        ASSERT_EQ(gen_session_sha256_hmac(context_buf(), MSG.data(), MSG_LEN, tag.data()),
                  KeyLibrary_OK);
        ASSERT_EQ(verify_session_sha256_hmac(other_buf, MSG.data(), MSG_LEN, tag.data(), &verified),
                  KeyLibrary_OK);
        EXPECT_TRUE(verified);
    }

    for (const auto& [decimal, number] : SLOT_NUMBERS) {
        ASSERT_EQ(set_kts_hmac_signing_key(context_buf(), number,
                                           other.slots.at(decimal).ecdh.coordinates.data(), false),
                  KeyLibrary_OK);
        ASSERT_EQ(set_kts_hmac_signing_key(
                      other_buf, number, device_.slots.at(decimal).ecdh.coordinates.data(), false),
                  KeyLibrary_OK);
        Bytes here(32);
        Bytes there(32);
        ASSERT_EQ(gen_kts_sha256_hmac(context_buf(), MSG.data(), MSG_LEN, here.data()),
                  KeyLibrary_OK);
        ASSERT_EQ(gen_kts_sha256_hmac(other_buf, MSG.data(), MSG_LEN, there.data()), KeyLibrary_OK);
        EXPECT_EQ(to_hex(here), to_hex(there)) << "slot " << number;
    }

    KtsKeys kept;
    kept.adopt_from(*record_of(other_buf));
    EXPECT_EQ(key_lib_close(other_buf), KeyLibrary_OK);
}

} // namespace
