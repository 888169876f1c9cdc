// What is left of keys in memory. After each operation, and after a context is closed, nothing of the
// keys in use is found but what the ledger names; it stands in docs/security.md too. The library is
// the shared one, as it is shipped, and its calls of three functions are taken over here.

#include "ecc/ecc.h"
#include "key_driver/zentrava_key_driver.h"
#include "key_driver/zentrava_key_management_utils.h"
#include "tests/support/child_process.h"
#include "tests/support/context_record.h"
#include "tests/support/in_memory.h"
#include "tests/support/pauses.h"
#include "tests/support/secret_scan.h"

#include <gtest/gtest.h>

#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <mbedtls/md.h>
#include <pthread.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>

#include <fstream>
#include <functional>
#include <map>
#include <string>
#include <vector>

static bool renaming_fails = false;
static bool hmac_fails = false;

// Where a file cannot be renamed over another, the save overwrites that in place.
extern "C" int rename(const char* from, const char* to) noexcept
{
    if (renaming_fails) {
        errno = EBUSY;
        return -1;
    }
    return renameat(AT_FDCWD, from, AT_FDCWD, to);
}

extern "C" int mbedtls_md_hmac_starts(mbedtls_md_context_t* context, const unsigned char* key,
                                      size_t size)
{
    using Function = int (*)(mbedtls_md_context_t*, const unsigned char*, size_t);
    static const Function real =
        reinterpret_cast<Function>(dlsym(RTLD_NEXT, "mbedtls_md_hmac_starts"));
    return hmac_fails ? MBEDTLS_ERR_MD_BAD_INPUT_DATA : real(context, key, size);
}

namespace {

// ---------------------------------------------------------------------------------------------
// The ledger: what the design leaves in memory. docs/security.md has the same entries.
// ---------------------------------------------------------------------------------------------

struct LedgerEntry {
    const char* name;
    const char* owner; // how the name of the place begins where the secret lies
    bool is_live;      // whether the memory is still in use
};

const char* const FILE_READ = "file read by libxml2";
const char* const FILE_WRITTEN = "file written by libxml2";
const char* const PASSED_OVER = "records passed over";
const char* const VOLATILE_TREE = "volatile tree";
const char* const DIGEST_CONTEXTS = "digest contexts";
const char* const KTS_KEYS = "keys of KTS slots";
const char* const LONG_HMAC_KEY = "HMAC key beyond 32 bytes";
const char* const VERIFICATION_KEY = "verification key beyond 33 bytes";
const char* const FAILED_DERIVATION = "session key of a failed derivation";
const char* const STACK = "stack of an ECDH derivation";

// The first one that fits a finding is its entry.
const std::vector<LedgerEntry> LEDGER = {
    {FILE_READ, "libxml2 xmlBufCreateSize", false},
    {FILE_READ, "libxml2 internal", false},
    {FILE_WRITTEN, "libxml2 xmlBufCreate", false},
    {FILE_WRITTEN, "libxml2 xmlBufGrow", false},
    {FILE_WRITTEN, "libc _IO_file_doallocate", false},
    {PASSED_OVER, "libxml2 xmlStrndup", false},
    {VOLATILE_TREE, "libxml2 xmlStrdup", true},
    {DIGEST_CONTEXTS, "libmbedcrypto mbedtls_md_setup", true},
    {KTS_KEYS, "libzentrava_keys set_kts_", true},
    {LONG_HMAC_KEY, "libzentrava_keys set_hmac_", false},
    {VERIFICATION_KEY, "libzentrava_keys set_ecdsa_verification_key", false},
    {FAILED_DERIVATION, "libzentrava_keys set_csk_", false},
    {STACK, "no name", true},
};

std::string entry_of(const Finding& finding)
{
    for (const LedgerEntry& entry : LEDGER) {
        if (finding.place.rfind(entry.owner, 0) == 0 && finding.is_live == entry.is_live) {
            return entry.name;
        }
    }
    return "not in the ledger: " + finding.form + " in memory of " + finding.place;
}

// What is left of one key: bytes by the names of the ledger. What libxml2 keeps for itself depends on
// its version and on where the key stands in the file, and is only SOME, within limits.
using Left = std::map<std::string, size_t>;
const size_t SOME = 1;

Left left_of(const Secret& secret)
{
    Left left;
    for (const Finding& finding : find_secrets({secret})) {
        left[entry_of(finding)] += finding.size;
    }
    const size_t text_size = 2 * secret.flipped.size();
    for (const char* libxml2s : {FILE_READ, FILE_WRITTEN}) {
        const auto entry = left.find(libxml2s);
        if (entry != left.end()) {
            EXPECT_GE(entry->second, text_size) << entry->first;
            EXPECT_LE(entry->second, 12 * text_size) << entry->first;
            entry->second = SOME;
        }
    }
    return left;
}

// ---------------------------------------------------------------------------------------------
// A store of keys that this process does not know
// ---------------------------------------------------------------------------------------------

const char* const NAMES[] = {"srk",
                             "crk",
                             "tmp_client_session_key",
                             "ecdsa_prv",
                             "ecdh_prv",
                             "ecdsa_prv_slot_3",
                             "ecdh_prv_slot_3"};
const uint32_t SLOT = 3;
const uint8_t AMTC0[] = {1, 2, 3};
const uint8_t MESSAGE[] = "message";

// The base point of P-256 (FIPS 186-4, D.1.2.3), for a peer's public key.
const uint8_t BASE_POINT[64] = {
    0x6b, 0x17, 0xd1, 0xf2, 0xe1, 0x2c, 0x42, 0x47, 0xf8, 0xbc, 0xe6, 0xe5, 0x63, 0xa4, 0x40, 0xf2,
    0x77, 0x03, 0x7d, 0x81, 0x2d, 0xeb, 0x33, 0xa0, 0xf4, 0xa1, 0x39, 0x45, 0xd8, 0x98, 0xc2, 0x96,
    0x4f, 0xe3, 0x42, 0xe2, 0xfe, 0x1a, 0x7f, 0x9b, 0x8e, 0xe7, 0xeb, 0x4a, 0x7c, 0x0f, 0x9e, 0x16,
    0x2b, 0xce, 0x33, 0x57, 0x6b, 0x31, 0x5e, 0xce, 0xcb, 0xb6, 0x40, 0x68, 0x37, 0xbf, 0x51, 0xf5};

class Secrets : public StoreInMemory {
  protected:
    void SetUp() override
    {
        StoreInMemory::SetUp();
        for (const char* name : NAMES) {
            keys_.push_back(random_secret(name, 32));
        }
        keys_.push_back(random_secret("short", 16));
        public_key_ = random_secret("ECDSA_DS_PuK", 64);
        new_key_ = random_secret("new", 32);
        write_store("");
    }

    // In a process of its own, so that this one never holds the keys' texts.
    void write_store(const std::string& declaration)
    {
        const Ending ending = run_in_child([&] {
            std::string records;
            char text[129];
            for (const Secret& key : keys_) {
                write_secret_text(key, text);
                records += record(DEVICE_UID, key.name, handle_of(key.name), text);
            }
            write_file(PRIVATE_FILE, declaration + "<keys>\n" + records + "</keys>\n");
            write_secret_text(public_key_, text);
            write_store_file(PUBLIC_FILE, record(DEVICE_UID, public_key_.name, "99", text));
            return 0;
        });
        ASSERT_EQ(ending.code, 0);
    }

    std::string handle_of(const std::string& name) const
    {
        size_t i = 0;
        while (keys_[i].name != name) {
            ++i;
        }
        return std::to_string(i + 1);
    }

    const Secret& key(const std::string& name) const
    {
        return keys_[std::stoul(handle_of(name)) - 1];
    }

    // Calls with the text of the new key.
    uint32_t with_new_text(const std::function<uint32_t(const char*)>& call)
    {
        char text[65];
        write_secret_text(new_key_, text);
        const uint32_t result = call(text);
        explicit_bzero(text, sizeof text);
        return result;
    }

    uint32_t lookup(const char* name, uint32_t size)
    {
        uint8_t bytes[64];
        const uint32_t result =
            get_key(reinterpret_cast<const unsigned char*>(DEVICE_UID), name, bytes, &size);
        explicit_bzero(bytes, sizeof bytes);
        return result;
    }

    uint32_t read_text(decltype(&read_public_key_as_hex) read, const char* name, uint32_t size)
    {
        char text[129];
        const uint32_t result = read(DEVICE_UID, name, text, &size);
        explicit_bzero(text, sizeof text);
        return result;
    }

    // Works with a context from opening it to closing it.
    void in_context(const std::function<void(uint8_t*)>& work)
    {
        uint8_t context_buf[sizeof(KeyLibraryContext)];
        ASSERT_EQ(key_lib_open(DEVICE_UID, nullptr, nullptr, context_buf), KeyLibrary_OK);
        work(context_buf);
        ASSERT_EQ(key_lib_close(context_buf), KeyLibrary_OK);
    }

    // The shared secret of one of the store's keys and the peer's.
    Secret agreed_secret(const std::string& name)
    {
        uint8_t peer[65] = {0x04};
        memcpy(peer + 1, BASE_POINT, sizeof BASE_POINT);
        uint8_t scalar[32];
        uint8_t shared[32];
        write_secret(key(name), scalar);
        EXPECT_EQ(ecdh_shared_secret(peer, scalar, shared), 1);
        const Secret secret = secret_at("shared secret", shared, sizeof shared);
        explicit_bzero(scalar, sizeof scalar);
        explicit_bzero(shared, sizeof shared);
        return secret;
    }

    std::vector<Secret> keys_;
    Secret public_key_;
    Secret new_key_;
};

const Left ONLY_READ = {{FILE_READ, SOME}};
const Left READ_AND_WRITTEN = {{FILE_READ, SOME}, {FILE_WRITTEN, SOME}};
const Left ONLY_WRITTEN = {{FILE_WRITTEN, SOME}};

TEST_F(Secrets, AreThereForTheScanToFind)
{
    uint8_t bytes[32];
    uint8_t* heap_bytes = static_cast<uint8_t*>(malloc(32));
    static uint8_t static_bytes[32];
    write_secret(new_key_, bytes);
    EXPECT_EQ(left_of(new_key_), Left());
    memcpy(heap_bytes, bytes, 8);
    memcpy(static_bytes, bytes + 20, 9);
    explicit_bzero(bytes, sizeof bytes);
    size_t found = 0;
    for (const auto& [entry, size] : left_of(new_key_)) {
        EXPECT_EQ(entry.find("not in the ledger: bytes in memory of"), 0u) << entry;
        found += size;
    }
    EXPECT_EQ(found, 17u);
    explicit_bzero(heap_bytes, 32);
    explicit_bzero(static_bytes, sizeof static_bytes);
    free(heap_bytes);
    EXPECT_EQ(left_of(new_key_), Left());
}

// ---------------------------------------------------------------------------------------------
// Lookups
// ---------------------------------------------------------------------------------------------

TEST_F(Secrets, AreWipedFromTheRecordThatALookupFinds)
{
    char handle[16];
    const std::map<std::string, std::function<bool()>> lookups = {
        {"get_key",
         [&] {
             return lookup("srk", 32) == 0;
         }},
        {"get_key, small buffer",
         [&] {
             return lookup("srk", 31) == 1;
         }},
        {"get_key_handle",
         [&] {
             return get_key_handle(DEVICE_UID, "srk", nullptr, 0, handle, sizeof handle) == 0;
         }},
        {"export",
         [&] {
             return read_text(export_prv_key_in_clear_as_hex, "srk", 65) == 0;
         }},
        {"export, small buffer",
         [&] {
             return read_text(export_prv_key_in_clear_as_hex, "srk", 64) == 1;
         }},
        {"contains_key",
         [&] {
             return contains_key(DEVICE_UID, "srk");
         }},
    };
    for (const auto& [name, call] : lookups) {
        SCOPED_TRACE(name);
        SetUp();
        EXPECT_TRUE(call());
        EXPECT_EQ(left_of(key("srk")), ONLY_READ);
        TearDown();
    }
}

TEST_F(Secrets, ArePassedOverInTheRecordsThatALookupDoesNotTakeUp)
{
    EXPECT_EQ(lookup("srk", 32), 0u);
    EXPECT_EQ(left_of(key("crk")), (Left{{FILE_READ, SOME}, {PASSED_OVER, 64}}));
}

TEST_F(Secrets, AreWipedFromTheRecordOfAPublicKey)
{
    EXPECT_EQ(read_text(read_public_key_as_hex, "ECDSA_DS_PuK", 129), 0u);
    EXPECT_EQ(left_of(public_key_), ONLY_READ);
}

// ---------------------------------------------------------------------------------------------
// Changes
// ---------------------------------------------------------------------------------------------

TEST_F(Secrets, AreWipedFromARecordThatWasAdded)
{
    EXPECT_EQ(with_new_text([](const char* text) {
                  return add_nonvolatile_based_key(DEVICE_UID, "new", text, "metadata", true,
                                                   false);
              }),
              0u);
    EXPECT_EQ(left_of(new_key_), ONLY_WRITTEN);
    // The private file was read twice, the second time for the new handle.
    EXPECT_EQ(left_of(key("srk")),
              (Left{{FILE_READ, SOME}, {PASSED_OVER, 128}, {FILE_WRITTEN, SOME}}));
}

TEST_F(Secrets, AreWipedFromARecordThatWasReplaced)
{
    EXPECT_EQ(with_new_text([](const char* text) {
                  return add_nonvolatile_based_key(DEVICE_UID, "srk", text, nullptr, true, true);
              }),
              1u);
    EXPECT_EQ(left_of(new_key_), ONLY_WRITTEN);
    EXPECT_EQ(left_of(key("srk")), ONLY_READ);
}

TEST_F(Secrets, AreWipedFromARecordThatIsInTheWay)
{
    EXPECT_EQ(with_new_text([](const char* text) { return add_crk(DEVICE_UID, text, nullptr); }),
              1u);
    EXPECT_EQ(left_of(new_key_), Left());
    EXPECT_EQ(left_of(key("crk")), READ_AND_WRITTEN);
}

TEST_F(Secrets, AreWipedFromARecordThatWasDeleted)
{
    EXPECT_EQ(delete_key_by_key_type(DEVICE_UID, "srk"), 0u);
    EXPECT_EQ(left_of(key("srk")), ONLY_READ);
    EXPECT_EQ(delete_key_by_handle(handle_of("ecdh_prv").c_str()), 0u);
    EXPECT_EQ(left_of(key("ecdh_prv")),
              (Left{{FILE_READ, SOME}, {PASSED_OVER, 64}, {FILE_WRITTEN, SOME}}));
}

TEST_F(Secrets, AreWipedFromBothRecordsOfACopy)
{
    EXPECT_EQ(copy_private_key(DEVICE_UID, "srk", "copy"), 0u);
    EXPECT_EQ(left_of(key("srk")),
              (Left{{FILE_READ, SOME}, {PASSED_OVER, 64}, {FILE_WRITTEN, SOME}}));
    EXPECT_EQ(copy_private_key(DEVICE_UID, "ecdh_prv", "crk"), 1u);
    EXPECT_EQ(left_of(key("crk")).at(PASSED_OVER), 128u); // of the first copy alone
}

TEST_F(Secrets, AreWipedFromBothRecordsOfANewSrk)
{
    EXPECT_EQ(set_new_srk_key_data_for_uid(DEVICE_UID, handle_of("crk").c_str()), 0u);
    EXPECT_EQ(left_of(key("srk")), ONLY_READ);
    EXPECT_EQ(left_of(key("crk")), READ_AND_WRITTEN);
}

TEST_F(Secrets, AreWipedFromTheCopiesOfASaveInPlace)
{
    renaming_fails = true;
    EXPECT_EQ(copy_private_key(DEVICE_UID, "srk", "copy"), 0u);
    renaming_fails = false;
    EXPECT_EQ(left_of(key("srk")),
              (Left{{FILE_READ, SOME}, {PASSED_OVER, 64}, {FILE_WRITTEN, SOME}}));
}

TEST_F(Secrets, AreWipedFromTheCopyThatIsReadBackOnTrial)
{
    write_store("<!DOCTYPE keys>\n");
    EXPECT_EQ(set_new_srk_key_data_for_uid(DEVICE_UID, handle_of("crk").c_str()), 0u);
    EXPECT_EQ(left_of(key("srk")), ONLY_READ);
    EXPECT_EQ(left_of(key("crk")), READ_AND_WRITTEN);
}

TEST_F(Secrets, StayInTheVolatileTreeUntilTheyAreDeleted)
{
    char handle[16];
    EXPECT_EQ(with_new_text(
                  [&](const char* text) { return add_volatile_key(text, handle, sizeof handle); }),
              0u);
    EXPECT_EQ(left_of(new_key_), (Left{{VOLATILE_TREE, 64}}));
    EXPECT_EQ(delete_key_by_handle(handle), 0u);
    EXPECT_EQ(left_of(new_key_), Left());

    EXPECT_EQ(with_new_text([&](const char* text) {
                  return add_volatile_based_key(DEVICE_UID, "volatile", text, "metadata", handle,
                                                sizeof handle);
              }),
              0u);
    EXPECT_EQ(left_of(new_key_), (Left{{VOLATILE_TREE, 64}}));
    EXPECT_EQ(delete_key_by_handle(handle), 0u);
    EXPECT_EQ(left_of(new_key_), Left());
}

// ---------------------------------------------------------------------------------------------
// Contexts
// ---------------------------------------------------------------------------------------------

void load_key_and_sign(uint8_t* context)
{
    EXPECT_EQ(set_ecdsa_signing_key(context, false), KeyLibrary_OK);
    uint8_t signature[64];
    EXPECT_EQ(generate_ecdsa_signature(context, MESSAGE, sizeof MESSAGE, signature), KeyLibrary_OK);
}

TEST_F(Secrets, AreWipedFromAContextThatIsClosed)
{
    in_context(load_key_and_sign);
    EXPECT_EQ(left_of(key("ecdsa_prv")), ONLY_READ);
}

TEST_F(Secrets, AreWipedFromAContextThatIsCleared)
{
    in_context([&](uint8_t* context) {
        EXPECT_EQ(set_srk_as_hmac_root_signing_key(context, false), KeyLibrary_OK);
        EXPECT_EQ(key_lib_clear_keys(context), KeyLibrary_OK);
        EXPECT_EQ(left_of(key("srk")), ONLY_READ);
    });
}

TEST_F(Secrets, OfAWrongLengthAreWiped)
{
    const Ending preparation = run_in_child([] {
        return delete_key_by_key_type(DEVICE_UID, "ecdsa_prv") +
               copy_private_key(DEVICE_UID, "short", "ecdsa_prv");
    });
    ASSERT_EQ(preparation.code, 0);
    in_context([](uint8_t* context) {
        EXPECT_EQ(set_ecdsa_signing_key(context, false), KeyLibrary_INVALID_KEY);
    });
    EXPECT_EQ(left_of(key("short")), (Left{{FILE_READ, SOME}, {PASSED_OVER, 32}}));
}

// An HMAC's context keeps the key under two masks, and its result, which may be a key too.
TEST_F(Secrets, StayInTheDigestContextOfEachHmac)
{
    Secret session_key;
    in_context([&](uint8_t* context) {
        EXPECT_EQ(set_srk_as_hmac_root_signing_key(context, false), KeyLibrary_OK);
        EXPECT_EQ(derive_hmac_session_key(context, AMTC0, sizeof AMTC0, false), KeyLibrary_OK);
        session_key = secret_at("session key", record_of(context)->hmac_session_key, 32);
        uint8_t tag[32];
        bool verified = false;
        EXPECT_EQ(gen_root_sha256_hmac(context, MESSAGE, sizeof MESSAGE, tag), KeyLibrary_OK);
        EXPECT_EQ(verify_root_sha256_hmac(context, MESSAGE, sizeof MESSAGE, tag, &verified),
                  KeyLibrary_OK);
    });
    EXPECT_EQ(left_of(key("srk")), (Left{{FILE_READ, SOME}, {DIGEST_CONTEXTS, 3 * 64}}));
    EXPECT_EQ(left_of(session_key), (Left{{DIGEST_CONTEXTS, 32}}));
}

TEST_F(Secrets, StayInAnHmacKeyBeyond32Bytes)
{
    const Secret long_key = random_secret("long", 48);
    char bytes[48];
    write_secret(long_key, reinterpret_cast<uint8_t*>(bytes));
    in_context([&](uint8_t* context) {
        EXPECT_EQ(set_hmac_root_signing_key(context, bytes, sizeof bytes), KeyLibrary_OK);
        explicit_bzero(bytes, sizeof bytes);
    });
    EXPECT_EQ(left_of(long_key), (Left{{LONG_HMAC_KEY, 16}}));
}

TEST_F(Secrets, StayInAVerificationKeyBeyond33Bytes)
{
    in_context([](uint8_t* context) {
        EXPECT_EQ(set_ecdsa_verification_key(context, false), KeyLibrary_OK);
    });
    EXPECT_EQ(left_of(public_key_), (Left{{FILE_READ, SOME}, {VERIFICATION_KEY, 32}}));
}

TEST_F(Secrets, StayWhereADerivationFailed)
{
    Secret session_key;
    in_context([&](uint8_t* context) {
        EXPECT_EQ(set_csk_as_hmac_session_signing_key(context, false), KeyLibrary_OK);
        EXPECT_EQ(set_srk_as_hmac_root_signing_key(context, false), KeyLibrary_OK);
        hmac_fails = true;
        EXPECT_EQ(derive_hmac_session_key(context, AMTC0, sizeof AMTC0, true), KeyLibrary_CRYPTO);
        hmac_fails = false;
    });
    Left left = left_of(key("tmp_client_session_key"));
    EXPECT_EQ(left.erase(PASSED_OVER), 1u);
    const Left expected = {{FILE_READ, SOME}, {FAILED_DERIVATION, 32}};
    EXPECT_EQ(left, expected);
}

TEST_F(Secrets, StayInKtsSlotsAndNowhereElse)
{
    const Secret agreed = agreed_secret("ecdh_prv_slot_3");
    in_context([](uint8_t* context) {
        EXPECT_EQ(set_kts_hmac_signing_key(context, SLOT, BASE_POINT, false), KeyLibrary_OK);
    });
    EXPECT_EQ(left_of(agreed), (Left{{KTS_KEYS, 32}}));
    EXPECT_EQ(left_of(key("ecdh_prv_slot_3")), ONLY_READ);
    in_context([](uint8_t* context) {
        EXPECT_EQ(set_kts_ecdsa_signing_key(context, SLOT, false), KeyLibrary_OK);
    });
    EXPECT_EQ(left_of(key("ecdsa_prv_slot_3")),
              (Left{{FILE_READ, SOME}, {PASSED_OVER, 64}, {KTS_KEYS, 32}}));
}

TEST_F(Secrets, OfAnEcdhDerivationStayInTheDigestContextOnly)
{
    const Secret agreed = agreed_secret("ecdh_prv");
    Secret session_key;
    in_context([&](uint8_t* context) {
        EXPECT_EQ(derive_ecdh_session_key(context, BASE_POINT, AMTC0, sizeof AMTC0, false),
                  KeyLibrary_OK);
        session_key = secret_at("session key", record_of(context)->hmac_session_key, 32);
    });
    EXPECT_EQ(left_of(key("ecdh_prv")), ONLY_READ);
    EXPECT_EQ(left_of(agreed), (Left{{DIGEST_CONTEXTS, 64}}));
    EXPECT_EQ(left_of(session_key), (Left{{DIGEST_CONTEXTS, 32}}));
}

TEST_F(Secrets, OfAPeerAreWiped)
{
    const Secret peer = random_secret("peer", 64); // no point of the curve, which nobody minds
    uint8_t bytes[64];
    write_secret(peer, bytes);
    in_context([&](uint8_t* context) {
        EXPECT_EQ(derive_ecdh_session_key(context, bytes, AMTC0, sizeof AMTC0, false),
                  KeyLibrary_OK);
        explicit_bzero(bytes, sizeof bytes);
    });
    EXPECT_EQ(left_of(peer), Left());
}

// ---------------------------------------------------------------------------------------------
// Stacks
// ---------------------------------------------------------------------------------------------

// Runs in a thread whose stack stays in memory when it has ended. Nothing but the library's own doing
// is to be seen there: run by hand, the program needs LD_BIND_NOW=1 in its environment, as the suite sets it.
void on_a_stack_of_its_own(const std::function<void()>& work)
{
    ASSERT_NE(getenv("LD_BIND_NOW"), nullptr);
    const size_t size = size_t{1} << 20;
    void* stack = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(stack, MAP_FAILED);
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    ASSERT_EQ(pthread_attr_setstack(&attributes, stack, size), 0);
    const auto run = [](void* its_work) -> void* {
        (*static_cast<const std::function<void()>*>(its_work))();
        return nullptr;
    };
    pthread_t thread;
    std::function<void()> copy = work;
    ASSERT_EQ(pthread_create(&thread, &attributes, run, &copy), 0);
    pthread_join(thread, nullptr);
    pthread_attr_destroy(&attributes);
}

TEST_F(Secrets, AreWipedFromTheStackOfAKtsAgreement)
{
    on_a_stack_of_its_own([&] {
        in_context([](uint8_t* context) {
            EXPECT_EQ(set_kts_hmac_signing_key(context, SLOT, BASE_POINT, false), KeyLibrary_OK);
        });
    });
    EXPECT_EQ(left_of(key("ecdh_prv_slot_3")), ONLY_READ);
}

TEST_F(Secrets, StayOnTheStackOfAnEcdhDerivation)
{
    on_a_stack_of_its_own([&] {
        in_context([](uint8_t* context) {
            EXPECT_EQ(derive_ecdh_session_key(context, BASE_POINT, AMTC0, sizeof AMTC0, false),
                      KeyLibrary_OK);
        });
    });
    EXPECT_EQ(left_of(key("ecdh_prv")), (Left{{FILE_READ, SOME}, {STACK, 32}}));
}

TEST_F(Secrets, AreWipedFromTheStackOfASignature)
{
    on_a_stack_of_its_own([&] { in_context(load_key_and_sign); });
    EXPECT_EQ(left_of(key("ecdsa_prv")), ONLY_READ);
}

TEST(SecretsLedger, IsInTheDocumentation)
{
    std::ifstream file(ZENTRAVA_SECURITY_DOCUMENT);
    const std::string text = {std::istreambuf_iterator<char>(file), {}};
    for (const LedgerEntry& entry : LEDGER) {
        EXPECT_NE(text.find(std::string("\n| ") + entry.name + " |"), std::string::npos)
            << entry.name;
    }
}

} // namespace
