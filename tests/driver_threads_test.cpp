// Contexts in eight threads that do everything at the same time, each for a device of its own. What
// they have to give was computed by OpenSSL before; the signatures are checked afterwards.

#include "key_driver/zentrava_key_driver.h"
#include "tests/support/device.h"
#include "tests/support/key_user.h"
#include "tests/support/kts_keys.h"
#include "tests/support/printed.h"
#include "tests/support/store_directory.h"

#include <gtest/gtest.h>

#include <stddef.h>
#include <stdint.h>

#include <chrono>
#include <map>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

const size_t THREADS = 8;

// What a device's threads are to find, for the messages and AMTC0 values of KeyUser.
struct Figures {
    Figures(const Device& device, const std::vector<P256KeyPair>& peers)
    {
        for (const Bytes& message : MESSAGES) {
            signatures.push_back(openssl_sign(device.ecdsa.private_key, openssl_sha256(message)));
        }
        for (const P256KeyPair& peer : peers) {
            session_tags.push_back(
                session_tags_under(openssl_ecdh(peer.private_key, device.ecdh.point)));
            std::map<std::string, Tags> tags;
            for (const auto& [decimal, slot] : device.slots) {
                tags[decimal] = tags_under(openssl_ecdh(peer.private_key, slot.ecdh.point));
            }
            slot_tags.push_back(tags);
        }
    }

    std::vector<Bytes> signatures;                      // one for each message
    std::vector<std::vector<Tags>> session_tags;        // for each peer and AMTC0 value
    std::vector<std::map<std::string, Tags>> slot_tags; // for each peer and slot
};

struct MadeSignature {
    size_t message;
    Bytes signer_point;
    Bytes signature;
};

// One thread's device and what it does with it.
class DeviceThread {
  public:
    DeviceThread(const std::string& uid, const std::vector<P256KeyPair>& peers)
        : device(uid), user_(uid), peers_(peers), figures_(device, peers)
    {
        user_.ecdsa_point = device.ecdsa.point;
    }

    void work_until(Clock::time_point end, size_t first_round)
    {
        for (size_t round = first_round; !testing::Test::HasFailure(); ++round) {
            work(round);
            if (Clock::now() >= end) {
                break;
            }
        }
    }

    Device device;
    std::vector<MadeSignature> made;
    size_t rounds = 0;

  private:
    void work(size_t round)
    {
        use_keys(user_, round); // the root, session and ECDSA keys, in a context of their own

        KeyLibraryContext context = nullptr;
        context_buf_ = reinterpret_cast<uint8_t*>(&context);
        ASSERT_EQ(key_lib_open(device.uid.c_str(), nullptr, nullptr, context_buf_), KeyLibrary_OK);
        KtsKeys kept;
        use_signatures(round);
        use_agreement(round);
        use_slots(round);
        kept.adopt_from(*record_of(context_buf_));
        ASSERT_EQ(key_lib_clear_keys(context_buf_), KeyLibrary_OK);
        expect_no_keys();
        use_agreement(round + 1);
        ASSERT_EQ(key_lib_close(context_buf_), KeyLibrary_OK);
        ++rounds;
    }

    void use_signatures(size_t round)
    {
        ASSERT_EQ(set_ecdsa_signing_key(context_buf_, false), KeyLibrary_OK);
        ASSERT_EQ(set_ecdsa_verification_key(context_buf_, false), KeyLibrary_OK);
        const size_t i = round % MESSAGES.size();
        expect_verified(i, figures_.signatures[i], true);
        Bytes signature = sign(generate_ecdsa_signature, i, device.ecdsa.point);
        expect_verified(i, signature, true);
        signature[round % 64] ^= 1;
        expect_verified(i, signature, false);
    }

    void expect_verified(size_t message, const Bytes& signature, bool expected)
    {
        const Bytes& msg = MESSAGES[message];
        bool verified = !expected;
        ASSERT_EQ(verify_ecdsa_signature(context_buf_, msg.data(),
                                         static_cast<uint32_t>(msg.size()), signature.data(),
                                         &verified),
                  KeyLibrary_OK);
        ASSERT_EQ(verified, expected);
    }

    // The signature is kept for OpenSSL to look at.
    Bytes sign(decltype(&generate_ecdsa_signature) function, size_t message, const Bytes& point)
    {
        const Bytes& msg = MESSAGES[message];
        Bytes signature(64);
        EXPECT_EQ(
            function(context_buf_, msg.data(), static_cast<uint32_t>(msg.size()), signature.data()),
            KeyLibrary_OK);
        made.push_back({message, point, signature});
        return signature;
    }

    void use_agreement(size_t round)
    {
        const size_t peer = round % peers_.size();
        const size_t value = round % AMTC0_VALUES.size();
        const Bytes& amtc0 = AMTC0_VALUES[value];
        ASSERT_EQ(derive_ecdh_session_key(context_buf_, peers_[peer].coordinates.data(),
                                          amtc0.data(), static_cast<uint32_t>(amtc0.size()), false),
                  KeyLibrary_OK);
        expect_tags(context_buf_, SESSION, figures_.session_tags[peer][value]);
    }

    void use_slots(size_t round)
    {
        const size_t peer = (round + 1) % peers_.size();
        for (const auto& [decimal, number] : SLOT_NUMBERS) {
            ASSERT_EQ(set_kts_hmac_signing_key(context_buf_, number,
                                               peers_[peer].coordinates.data(), false),
                      KeyLibrary_OK);
            ASSERT_EQ(set_kts_ecdsa_signing_key(context_buf_, number, true), KeyLibrary_OK);
            const size_t i = (round + number) % MESSAGES.size();
            Tag tag = {};
            ASSERT_EQ(gen_kts_sha256_hmac(context_buf_, MESSAGES[i].data(),
                                          static_cast<uint32_t>(MESSAGES[i].size()), tag.data()),
                      KeyLibrary_OK);
            ASSERT_EQ(tag, figures_.slot_tags[peer].at(decimal)[i]);
            sign(generate_kts_ecdsa_signature, i, device.slots.at(decimal).ecdsa.point);
        }
    }

    void expect_no_keys()
    {
        Bytes output(64);
        const uint8_t* msg = MESSAGES[0].data();
        ASSERT_EQ(gen_kts_sha256_hmac(context_buf_, msg, 1, output.data()),
                  KeyLibrary_KEY_NOT_FOUND);
        ASSERT_EQ(generate_ecdsa_signature(context_buf_, msg, 1, output.data()),
                  KeyLibrary_KEY_NOT_FOUND);
        ASSERT_EQ(generate_kts_ecdsa_signature(context_buf_, msg, 1, output.data()),
                  KeyLibrary_KEY_NOT_FOUND);
    }

    KeyUser user_;
    std::vector<P256KeyPair> peers_;
    Figures figures_;
    uint8_t* context_buf_ = nullptr;
};

class DriverThreads : public StoreDirectory {
  protected:
    void SetUp() override
    {
        StoreDirectory::SetUp();
        const std::vector<P256KeyPair> peers = {random_key_pair_with_y(false),
                                                random_key_pair_with_y(true)};
        std::string private_records;
        std::string public_records;
        for (size_t i = 0; i < THREADS; ++i) {
            threads_.emplace_back(std::string(31, 'd') + std::to_string(i), peers);
            private_records += threads_.back().device.private_records();
            public_records += threads_.back().device.public_records();
        }
        write_store_file(PRIVATE_FILE, private_records);
        write_store_file(PUBLIC_FILE, public_records);
    }

    void work_until(Clock::time_point end)
    {
        std::vector<std::thread> running;
        for (size_t i = 0; i < THREADS; ++i) {
            running.emplace_back([this, end, i] { threads_[i].work_until(end, i); });
        }
        for (std::thread& thread : running) {
            thread.join();
        }
    }

    void expect_accepted_by_openssl(const DeviceThread& thread)
    {
        for (const MadeSignature& made : thread.made) {
            ASSERT_TRUE(openssl_verify(made.signer_point, openssl_sha256(MESSAGES[made.message]),
                                       made.signature))
                << "message " << made.message << ", signature " << to_hex(made.signature);
        }
    }

    std::vector<DeviceThread> threads_;
};

// The store has nothing to complain about either.
TEST_F(DriverThreads, DoEverythingAtTheSameTimeWithoutAWrongByte)
{
    const auto end = Clock::now() + 3s;
    EXPECT_EQ(printed_by([&] { work_until(end); }), "");
    for (const DeviceThread& thread : threads_) {
        EXPECT_GE(thread.rounds, 1U);
        EXPECT_EQ(thread.made.size(), thread.rounds * (1 + SLOT_NUMBERS.size()));
        expect_accepted_by_openssl(thread);
    }
}

} // namespace
