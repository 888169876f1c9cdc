// Every operation of the key driver while memory runs out: at its first allocation, at its second
// and so on until it needs no more, whether the memory is the driver's, libxml2's or mbed TLS's.

#include "key_driver/zentrava_key_driver.h"
#include "tests/support/bytes.h"
#include "tests/support/context_record.h"
#include "tests/support/failing_allocation.h"
#include "tests/support/loaders.h"
#include "tests/support/memory_shortage.h"
#include "tests/support/open_context.h"
#include "tests/support/openssl_hmac.h"
#include "tests/support/printed.h"
#include "tests/support/store_directory.h"

#include <gtest/gtest.h>

#include <libxml/parser.h>

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <ostream>
#include <set>
#include <string>
#include <vector>

namespace {

const auto BOTH_WAYS = testing::Values(Failing::ONE_ALLOCATION, Failing::ALL_FROM_THERE_ON);

class MemoryShortage : public OpenContext {
  protected:
    void SetUp() override
    {
        OpenContext::SetUp();
        printed_by([] { puts(""); }); // standard output has its buffer from here on
    }

    void reopen()
    {
        ASSERT_EQ(key_lib_close(context_buf()), KeyLibrary_OK);
        ASSERT_EQ(key_lib_open(DEVICE_UID, nullptr, nullptr, context_buf()), KeyLibrary_OK);
    }

    // Prepares, makes the first allocation of a call fail, and looks at the outcome; then the same
    // with the second, and so on. The last outcome is that of a call that had all it needed.
    template <typename Prepare, typename Call, typename Look>
    void run_short(Failing failing, Prepare prepare, Call call, Look look)
    {
        for (unsigned int k = 1;; ++k) {
            SCOPED_TRACE("allocation " + std::to_string(k) + " fails");
            reopen();
            prepare();
            const Attempt outcome = attempt(k, failing, call);
            EXPECT_EQ(outcome.printed_on_stderr, "");
            look(outcome);
            if (outcome.had_enough() || HasFatalFailure()) {
                return;
            }
        }
    }

    const Bytes key_ = counting_from(0x21, 32);
    const Bytes other_key_ = counting_from(0x81, 32);
    const Bytes msg_ = bytes_of("a message of more than thirty-two bytes");
};

using Blocks = std::set<const void*>;
const Blocks NOTHING;

// ---- Opening, clearing, closing -------------------------------------------------------------

class OpeningInMemoryShortage : public testing::TestWithParam<Failing> {
  protected:
    KeyLibraryErrorCode open(unsigned int k)
    {
        KeyLibraryErrorCode result = KeyLibrary_OK;
        made_ = failing_allocation(
            k, [&] { result = key_lib_open(DEVICE_UID, nullptr, nullptr, location_); }, GetParam());
        return result;
    }

    bool location_is_untouched()
    {
        return bytes_at(location_, sizeof location_) == Bytes(sizeof location_, 0xA5);
    }

    void SetUp() override
    {
        memset(location_, 0xA5, sizeof location_);
    }

    uint8_t location_[sizeof(void*)];
    Allocations made_;
};

INSTANTIATE_TEST_SUITE_P(When, OpeningInMemoryShortage, BOTH_WAYS,
                         [](const auto& test) { return name_of(test.param); });

TEST_P(OpeningInMemoryShortage, FailsWithoutARecordAndHandsOutNothing)
{
    EXPECT_EQ(open(1), KeyLibrary_MEMORY);
    EXPECT_TRUE(location_is_untouched());
    EXPECT_EQ(made_.requested.size(), 1U);
    EXPECT_TRUE(made_.left.empty());
}

TEST_P(OpeningInMemoryShortage, FailsWithoutAUidAndHandsOutNothing)
{
    EXPECT_EQ(open(2), KeyLibrary_MEMORY);
    EXPECT_TRUE(location_is_untouched());
    EXPECT_EQ(made_.requested.size(), 2U);
    for (const Block& block : made_.left) {
        free(block.address);
    }
}

// The record is deliberately not freed then. This test does it, since it knows where it is.
TEST_P(OpeningInMemoryShortage, LosesTheZeroedRecordWithoutAUid)
{
    EXPECT_EQ(open(2), KeyLibrary_MEMORY);
    ASSERT_EQ(made_.left.size(), 1U);
    ASSERT_EQ(made_.left[0].size, sizeof(ContextRecord));
    EXPECT_EQ(bytes_at(made_.left[0].address, sizeof(ContextRecord)),
              Bytes(sizeof(ContextRecord), 0));
    free(made_.left[0].address);
}

TEST_P(OpeningInMemoryShortage, NeedsTwoBlocks)
{
    EXPECT_EQ(open(3), KeyLibrary_OK);
    EXPECT_FALSE(made_.any_failed);
    key_lib_close(location_);
}

TEST_F(MemoryShortage, IsNoConcernWhenKeysAreCleared)
{
    context().hmac_root_key = malloc_copy(key_);
    const Attempt outcome =
        attempt(1, Failing::ALL_FROM_THERE_ON, [&] { return key_lib_clear_keys(context_buf()); });
    EXPECT_EQ(outcome.result, KeyLibrary_OK);
    EXPECT_EQ(outcome.made.requested, std::vector<size_t>());
    EXPECT_EQ(context().hmac_root_key, nullptr);
}

TEST_F(MemoryShortage, IsNoConcernWhenAContextIsClosed)
{
    uint8_t other[sizeof(void*)];
    ASSERT_EQ(key_lib_open(DEVICE_UID, nullptr, nullptr, other), KeyLibrary_OK);
    record_of(other)->hmac_root_key = malloc_copy(key_);
    const Attempt outcome =
        attempt(1, Failing::ALL_FROM_THERE_ON, [&] { return key_lib_close(other); });
    EXPECT_EQ(outcome.result, KeyLibrary_OK);
    EXPECT_EQ(outcome.made.requested, std::vector<size_t>());
}

// ---- Loading --------------------------------------------------------------------------------

// libxml2 sets itself up when it is used for the first time since a clean-up, and keeps that.
enum class Libxml2 { COLD, WARM };

struct LoadCase {
    Loader loader;
    Failing failing;
    Libxml2 start;
    const char* file;
};

std::ostream& operator<<(std::ostream& stream, const LoadCase& load)
{
    return stream << load.loader << (load.start == Libxml2::COLD ? ", cold, " : ", warm, ")
                  << load.file << ", " << name_of(load.failing);
}

std::vector<LoadCase> load_cases()
{
    std::vector<LoadCase> cases;
    for (const Loader& loader : LOADERS) {
        for (const Failing failing : {Failing::ONE_ALLOCATION, Failing::ALL_FROM_THERE_ON}) {
            for (const Libxml2 start : {Libxml2::COLD, Libxml2::WARM}) {
                for (const char* file : {PRIVATE_FILE, PUBLIC_FILE}) {
                    cases.push_back({loader, failing, start, file});
                }
            }
        }
    }
    return cases;
}

class LoadingInMemoryShortage : public MemoryShortage,
                                public testing::WithParamInterface<LoadCase> {
  protected:
    void SetUp() override
    {
        MemoryShortage::SetUp();
        write_store_file(GetParam().file,
                         record(DEVICE_UID, loader_.key_name, "1", to_hex(stored_key_)) +
                             record(DEVICE_UID, "warm", "2", to_hex(other_key_)));
    }

    void prepare()
    {
        if (GetParam().start == Libxml2::COLD) {
            xmlCleanupParser();
        } else {
            ASSERT_EQ(loader_.load(context_buf(), true), KeyLibrary_OK);
            key_lib_clear_keys(context_buf());
        }
    }

    // libxml2 keeps its last error and its set-up; with both gone, what is left is the driver's.
    KeyLibraryErrorCode load_and_clean_up(bool force)
    {
        const KeyLibraryErrorCode result = loader_.load(context_buf(), force);
        xmlCleanupParser();
        return result;
    }

    uint8_t*& buffer()
    {
        return context().*loader_.field;
    }

    Bytes loaded_key()
    {
        return bytes_at(buffer() + loader_.prefix_len(), loader_.key_len);
    }

    void expect_usable()
    {
        EXPECT_EQ(loader_.load(context_buf(), true), KeyLibrary_OK);
        EXPECT_EQ(to_hex(loaded_key()), to_hex(stored_key_));
    }

    const Loader loader_ = GetParam().loader;
    const Bytes stored_key_ = counting_from(0x31, loader_.key_len);
};

INSTANTIATE_TEST_SUITE_P(By, LoadingInMemoryShortage, testing::ValuesIn(load_cases()),
                         [](const auto& test) {
                             const LoadCase& load = test.param;
                             return std::string(load.loader.function) +
                                    (load.file == PRIVATE_FILE ? "_Private" : "_Public") +
                                    (load.start == Libxml2::COLD ? "_Cold_" : "_Warm_") +
                                    name_of(load.failing);
                         });

TEST_P(LoadingInMemoryShortage, FailsWithTheRightResultAndLeavesAUsableContext)
{
    run_short(
        GetParam().failing, [&] { prepare(); }, [&] { return load_and_clean_up(false); },
        [&](const Attempt& outcome) {
            const Blocks left = left_by_library(outcome.made);
            if (outcome.k == 1) {
                EXPECT_EQ(outcome.result, KeyLibrary_MEMORY);
                EXPECT_EQ(buffer(), nullptr);
                EXPECT_EQ(outcome.printed, "");
                EXPECT_EQ(left, NOTHING);
            } else {
                // libxml2 gets over some failures; over all others the store does not deliver.
                EXPECT_EQ(left, Blocks{buffer()});
                if (outcome.had_enough() || outcome.result == KeyLibrary_OK) {
                    EXPECT_EQ(outcome.result, KeyLibrary_OK);
                    EXPECT_EQ(to_hex(loaded_key()), to_hex(stored_key_));
                } else {
                    EXPECT_EQ(outcome.result, KeyLibrary_KEY_NOT_FOUND);
                    EXPECT_EQ(to_hex(loaded_key()), to_hex(Bytes(loader_.key_len, 0)));
                }
            }
            if (outcome.had_enough()) {
                EXPECT_GT(outcome.k, 30U) << "libxml2's allocations did not take part";
            }
            expect_usable();
        });
}

TEST_P(LoadingInMemoryShortage, LeavesTheOldKeyWhenForced)
{
    const Bytes old_key = counting_from(0xB1, loader_.buffer_size);
    run_short(
        GetParam().failing,
        [&] {
            prepare();
            buffer() = malloc_copy(old_key);
        },
        [&] { return load_and_clean_up(true); },
        [&](const Attempt& outcome) {
            EXPECT_EQ(left_by_library(outcome.made), NOTHING);
            if (outcome.had_enough() || outcome.result == KeyLibrary_OK) {
                EXPECT_EQ(outcome.result, KeyLibrary_OK);
                EXPECT_EQ(to_hex(loaded_key()), to_hex(stored_key_));
            } else {
                EXPECT_EQ(outcome.result, KeyLibrary_KEY_NOT_FOUND);
                EXPECT_EQ(bytes_at(buffer() + 1, loader_.buffer_size - 1),
                          Bytes(old_key.begin() + 1, old_key.end()));
            }
            expect_usable();
        });
}

TEST_P(LoadingInMemoryShortage, IsNotNoticedWhenTheKeyIsInPlace)
{
    buffer() = malloc_copy(counting_from(0xB1, loader_.buffer_size));
    const Attempt outcome =
        attempt(1, GetParam().failing, [&] { return loader_.load(context_buf(), false); });
    EXPECT_EQ(outcome.result, KeyLibrary_OK);
    EXPECT_TRUE(outcome.had_enough());
}

// ---- The caller's keys ----------------------------------------------------------------------

struct Setter {
    const char* name;
    KeyLibraryErrorCode (*set)(const uint8_t* context_buf, const char* key, uint32_t key_len);
    KeyPointer field;
};

std::ostream& operator<<(std::ostream& stream, const Setter& setter)
{
    return stream << setter.name;
}

class SettingInMemoryShortage : public MemoryShortage, public testing::WithParamInterface<Setter> {
  protected:
    KeyLibraryErrorCode set()
    {
        return GetParam().set(context_buf(), reinterpret_cast<const char*>(key_.data()), 32);
    }

    uint8_t*& buffer()
    {
        return context().*GetParam().field;
    }
};

INSTANTIATE_TEST_SUITE_P(
    Of, SettingInMemoryShortage,
    testing::Values(Setter{"RootKey", set_hmac_root_signing_key, &ContextRecord::hmac_root_key},
                    Setter{"SessionKey", set_hmac_session_key, &ContextRecord::hmac_session_key}),
    [](const auto& test) { return test.param.name; });

TEST_P(SettingInMemoryShortage, FailsWithTheRightResultAndLeavesAUsableContext)
{
    run_short(
        Failing::ONE_ALLOCATION, [] {}, [&] { return set(); },
        [&](const Attempt& outcome) {
            if (outcome.had_enough()) {
                EXPECT_EQ(outcome.k, 2U);
                EXPECT_EQ(outcome.result, KeyLibrary_OK);
                EXPECT_EQ(left_by_library(outcome.made), Blocks{buffer()});
            } else {
                EXPECT_EQ(outcome.result, KeyLibrary_MEMORY);
                EXPECT_EQ(buffer(), nullptr);
                EXPECT_EQ(left_by_library(outcome.made), NOTHING);
            }
            EXPECT_EQ(outcome.printed, "");
            EXPECT_EQ(set(), KeyLibrary_OK);
            EXPECT_EQ(bytes_at(buffer(), 32), key_);
        });
}

TEST_P(SettingInMemoryShortage, IsNotNoticedWhenABufferIsInPlace)
{
    buffer() = malloc_copy(other_key_);
    const Attempt outcome = attempt(1, Failing::ALL_FROM_THERE_ON, [&] { return set(); });
    EXPECT_EQ(outcome.result, KeyLibrary_OK);
    EXPECT_TRUE(outcome.had_enough());
    EXPECT_EQ(bytes_at(buffer(), 32), key_);
}

// ---- Tags -----------------------------------------------------------------------------------

class TagsInMemoryShortage : public MemoryShortage, public testing::WithParamInterface<Failing> {
  protected:
    void SetUp() override
    {
        MemoryShortage::SetUp();
        tag_ = openssl_hmac_sha256(key_.data(), 32, msg_.data(), msg_.size());
    }

    void load_keys()
    {
        context().hmac_root_key = malloc_copy(key_);
        context().hmac_session_key = malloc_copy(key_);
        context().kts_hmac_signing_key = kts_key_.data(); // never freed by the library
    }

    using Verifier = KeyLibraryErrorCode (*)(const uint8_t*, const uint8_t*, uint32_t,
                                             const uint8_t*, bool*);

    uint32_t msg_len() const
    {
        return static_cast<uint32_t>(msg_.size());
    }

    static void expect_failed_set_up(const Attempt& outcome)
    {
        EXPECT_EQ(outcome.result, KeyLibrary_CRYPTO);
        EXPECT_EQ(outcome.printed, HMAC_SETUP_WITHOUT_MEMORY);
        EXPECT_EQ(left_by_library(outcome.made), NOTHING);
    }

    void expect_keys_in_place()
    {
        EXPECT_EQ(bytes_at(context().hmac_root_key, 32), key_);
        EXPECT_EQ(bytes_at(context().hmac_session_key, 32), key_);
        EXPECT_EQ(bytes_at(context().kts_hmac_signing_key, 32), key_);
    }

    template <typename Make> void expect_made_or_failed(Make make)
    {
        Tag tag = {};
        run_short(
            GetParam(),
            [&] {
                load_keys();
                tag.fill(0xEE);
            },
            [&] { return make(tag.data()); },
            [&](const Attempt& outcome) {
                if (outcome.had_enough()) {
                    EXPECT_EQ(outcome.result, KeyLibrary_OK);
                    EXPECT_EQ(outcome.printed, "");
                    EXPECT_EQ(tag, tag_);
                    EXPECT_EQ(outcome.made.requested, allocations_of_mbedtls());
                    EXPECT_GT(outcome.k, 1U) << "mbed TLS's allocations did not take part";
                } else {
                    expect_failed_set_up(outcome);
                    EXPECT_EQ(bytes_at(tag.data(), tag.size()), Bytes(tag.size(), 0xEE));
                }
                expect_keys_in_place();
                EXPECT_EQ(make(tag.data()), KeyLibrary_OK);
                EXPECT_EQ(tag, tag_);
            });
    }

    void expect_verified_or_failed(Verifier verifier)
    {
        for (const bool before : {false, true}) {
            bool verified = before;
            const auto verify = [&] {
                return verifier(context_buf(), msg_.data(), msg_len(), tag_.data(), &verified);
            };
            run_short(
                GetParam(),
                [&] {
                    load_keys();
                    verified = before;
                },
                verify,
                [&](const Attempt& outcome) {
                    if (outcome.had_enough()) {
                        EXPECT_EQ(outcome.result, KeyLibrary_OK);
                        EXPECT_EQ(outcome.printed, "");
                        EXPECT_TRUE(verified);
                        EXPECT_EQ(outcome.made.requested, allocations_of_mbedtls());
                    } else {
                        expect_failed_set_up(outcome);
                        EXPECT_EQ(verified, before);
                    }
                    expect_keys_in_place();
                    EXPECT_EQ(verify(), KeyLibrary_OK);
                    EXPECT_TRUE(verified);
                });
        }
    }

    Tag tag_ = {};
    Bytes kts_key_ = key_;
};

INSTANTIATE_TEST_SUITE_P(When, TagsInMemoryShortage, BOTH_WAYS,
                         [](const auto& test) { return name_of(test.param); });

TEST_P(TagsInMemoryShortage, AreNotMadeByTheRoutineItself)
{
    expect_made_or_failed([&](uint8_t* tag) {
        return _sha256_hmac(key_.data(), 32, msg_.data(), static_cast<int>(msg_.size()), tag);
    });
}

TEST_P(TagsInMemoryShortage, AreNotMadeUnderTheRootKey)
{
    expect_made_or_failed([&](uint8_t* tag) {
        return gen_root_sha256_hmac(context_buf(), msg_.data(), msg_len(), tag);
    });
}

TEST_P(TagsInMemoryShortage, AreNotMadeUnderTheSessionKey)
{
    expect_made_or_failed([&](uint8_t* tag) {
        return gen_session_sha256_hmac(context_buf(), msg_.data(), msg_len(), tag);
    });
}

TEST_P(TagsInMemoryShortage, AreNotMadeUnderTheKtsKey)
{
    expect_made_or_failed([&](uint8_t* tag) {
        return gen_kts_sha256_hmac(context_buf(), msg_.data(), msg_len(), tag);
    });
}

TEST_P(TagsInMemoryShortage, AreNotVerifiedUnderTheRootKey)
{
    expect_verified_or_failed(verify_root_sha256_hmac);
}

TEST_P(TagsInMemoryShortage, AreNotVerifiedUnderTheSessionKey)
{
    expect_verified_or_failed(verify_session_sha256_hmac);
}

// ---- Session key derivation -----------------------------------------------------------------

class DerivingInMemoryShortage : public MemoryShortage,
                                 public testing::WithParamInterface<Failing> {
  protected:
    KeyLibraryErrorCode derive(const Bytes& amtc0, bool force = false)
    {
        return derive_hmac_session_key(context_buf(), amtc0.data(),
                                       static_cast<uint32_t>(amtc0.size()), force);
    }

    Bytes remembered()
    {
        return bytes_at(context().pwr_on_amtc0, context().pwr_on_amtc0_len);
    }

    void expect_derived(const Bytes& amtc0)
    {
        const Tag derived = openssl_hmac_sha256(key_.data(), 32, amtc0.data(), amtc0.size());
        ASSERT_NE(context().hmac_session_key, nullptr);
        EXPECT_EQ(bytes_at(context().hmac_session_key, 32), Bytes(derived.begin(), derived.end()));
        EXPECT_EQ(remembered(), amtc0);
    }

    const Bytes amtc0_ = {1, 2, 3, 4, 5, 6};
    const Bytes earlier_amtc0_ = {9, 8};
};

INSTANTIATE_TEST_SUITE_P(When, DerivingInMemoryShortage, BOTH_WAYS,
                         [](const auto& test) { return name_of(test.param); });

TEST_P(DerivingInMemoryShortage, FailsWithTheRightResultAndLeavesAUsableContext)
{
    run_short(
        GetParam(), [&] { context().hmac_root_key = malloc_copy(key_); },
        [&] { return derive(amtc0_); },
        [&](const Attempt& outcome) {
            const Blocks left = left_by_library(outcome.made);
            if (outcome.had_enough()) {
                EXPECT_EQ(outcome.result, KeyLibrary_OK);
                EXPECT_EQ(outcome.printed, "");
                expect_derived(amtc0_);
                EXPECT_EQ(left, Blocks{context().hmac_session_key});
                EXPECT_EQ(outcome.made.requested.size(), 1 + allocations_of_mbedtls().size());
            } else {
                EXPECT_EQ(outcome.result, outcome.k == 1 ? KeyLibrary_MEMORY : KeyLibrary_CRYPTO);
                EXPECT_EQ(outcome.printed, outcome.k == 1 ? "" : HMAC_SETUP_WITHOUT_MEMORY);
                EXPECT_EQ(context().hmac_session_key, nullptr);
                EXPECT_EQ(context().pwr_on_amtc0_len, 0U);
                EXPECT_EQ(left, NOTHING);
            }
            EXPECT_EQ(bytes_at(context().hmac_root_key, 32), key_);
            EXPECT_EQ(derive(amtc0_), KeyLibrary_OK);
            expect_derived(amtc0_);
        });
}

TEST_P(DerivingInMemoryShortage, FailsForAnotherValueAndLeavesTheRememberedOne)
{
    run_short(
        GetParam(),
        [&] {
            context().hmac_root_key = malloc_copy(key_);
            ASSERT_EQ(derive(earlier_amtc0_), KeyLibrary_OK);
        },
        [&] { return derive(amtc0_); },
        [&](const Attempt& outcome) {
            if (outcome.had_enough()) {
                EXPECT_EQ(outcome.result, KeyLibrary_OK);
                expect_derived(amtc0_);
                EXPECT_EQ(outcome.made.requested, allocations_of_mbedtls());
            } else {
                EXPECT_EQ(outcome.result, KeyLibrary_CRYPTO);
                EXPECT_EQ(outcome.printed, HMAC_SETUP_WITHOUT_MEMORY);
                EXPECT_EQ(context().hmac_session_key, nullptr);
                EXPECT_EQ(remembered(), earlier_amtc0_);
            }
            EXPECT_EQ(derive(amtc0_), KeyLibrary_OK);
            expect_derived(amtc0_);
        });
}

TEST_P(DerivingInMemoryShortage, IsNotNoticedForTheValueInPlace)
{
    context().hmac_root_key = malloc_copy(key_);
    ASSERT_EQ(derive(amtc0_), KeyLibrary_OK);
    const Attempt outcome = attempt(1, GetParam(), [&] { return derive(amtc0_); });
    EXPECT_EQ(outcome.result, KeyLibrary_OK);
    EXPECT_TRUE(outcome.had_enough());
    expect_derived(amtc0_);
}

} // namespace
