// Every exported function, with a failure at each point where something can fail: each allocation of the
// process, each call that the process makes of the operating system for its files and random devices,
// with each error that such a call can report, and each read and write that comes short. Whatever fails,
// the result is one that the function is documented to have, the store is what it was or what the
// function makes of it, and the library works on as before.

#include "key_driver/zentrava_key_management_utils.cpp"

#include "ecc/ecc.h"
#include "key_driver/zentrava_key_driver.h"
#include "tests/support/bytes.h"
#include "tests/support/context_record.h"
#include "tests/support/deadline.h"
#include "tests/support/failure_points.h"
#include "tests/support/in_memory.h"
#include "tests/support/openssl_hmac.h"
#include "tests/support/p256_key_pair.h"
#include "tests/support/pauses.h"
#include "tests/support/printed.h"
#include "tests/support/process_lock.h"
#include "tests/support/slot_names.h"
#include "tests/support/volatile_tree.h"

#include <gtest/gtest.h>

#include <limits.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <set>
#include <string>
#include <vector>

namespace {

// ---- What the functions work on --------------------------------------------------------------

// The device whose keys the driver uses. The store's functions change those of another one.
const char* const DRIVER_UID = "fedcba9876543210fedcba9876543210";

const std::string KEY(64, 'a');
const std::string OTHER_KEY(64, 'b');
const char* const METADATA = "new <metadata> & more";
const char* const OLD_METADATA = "old metadata";
const char* const SLOT = "5";

const P256KeyPair OWN = key_pair_of(counting_from(0x21, 32));
const P256KeyPair PEER = key_pair_of(counting_from(0x51, 32));
const Bytes HMAC_KEY = counting_from(0x71, 32);
const Bytes MSG = bytes_of("a message of more than thirty-two bytes");
const uint32_t MSG_LEN = static_cast<uint32_t>(MSG.size());
const Bytes HASH = openssl_sha256(MSG);
const Bytes SIGNATURE = openssl_sign(OWN.private_key, HASH);
const Bytes AMTC0 = {1, 2, 3, 4, 5, 6};

Bytes hmac_of(const Bytes& key, const Bytes& msg)
{
    const Tag tag = openssl_hmac_sha256(key.data(), key.size(), msg.data(), msg.size());
    return {tag.begin(), tag.end()};
}
const Bytes TAG = hmac_of(HMAC_KEY, MSG);

const std::string PRIVATE_RECORDS =
    record(DEVICE_UID, "srk", "1", std::string(64, '1'), "root &amp; more") +
    record(DEVICE_UID, "old", "2", std::string(64, '2'), OLD_METADATA) +
    record("another", "crk", "3", std::string(64, '3')) +
    record("another", "tmp_client_session_key", "4", std::string(64, '4')) +
    record(DRIVER_UID, "srk", "5", to_hex(HMAC_KEY)) +
    record(DRIVER_UID, "crk", "6", to_hex(HMAC_KEY)) +
    record(DRIVER_UID, "tmp_client_session_key", "7", to_hex(HMAC_KEY)) +
    record(DRIVER_UID, "ecdsa_prv", "8", to_hex(OWN.private_key)) +
    record(DRIVER_UID, "ecdh_prv", "9", to_hex(OWN.private_key)) +
    record(DRIVER_UID, ecdsa_slot_key(SLOT), "10", to_hex(OWN.private_key)) +
    record(DRIVER_UID, ecdh_slot_key(SLOT), "11", to_hex(OWN.private_key));
const std::string PUBLIC_RECORDS =
    record(DEVICE_UID, "public", "20", std::string(64, '5')) +
    record(DRIVER_UID, "ECDSA_DS_PuK", "21", to_hex(OWN.coordinates));

// What functions hand out, in memory that is not of the heap.
struct Output {
    char handle[16];
    char text[128];
    uint32_t length;
    uint8_t bytes[64];
    uint8_t more_bytes[33];
    bool verified;
    KeyLibraryContext opened;
};
Output out;

KeyLibraryContext open_context = nullptr;

uint8_t* context_buf()
{
    return reinterpret_cast<uint8_t*>(&open_context);
}

uint8_t* opened_buf()
{
    return reinterpret_cast<uint8_t*>(&out.opened);
}

ContextRecord& context()
{
    return *record_of(context_buf());
}

// Whether the function has failed before in this context: it is then to do its work all the same.
bool force = false;

bool holds(const uint8_t* key, const Bytes& expected)
{
    return key != nullptr && bytes_at(key, expected.size()) == expected;
}

bool handed_out(const Bytes& expected)
{
    return bytes_at(out.bytes, expected.size()) == expected;
}

// ---- The table -------------------------------------------------------------------------------

using Results = std::set<uint32_t>;
using Prepare = void (*)();
using Run = uint32_t (*)();
using Check = bool (*)();

struct Case {
    const char* function;
    const char* situation; // where there is more than one case of a function
    Prepare prepare;
    Run run;
    uint32_t success;
    Results without_memory; // what it may give instead when an allocation fails
    Results without_system; // and when a system call does
    Check is_right;         // whether what it handed out with success is right
};

std::ostream& operator<<(std::ostream& stream, const Case& c)
{
    return stream << c.function << c.situation;
}

const Results NONE = {};
const Results ERROR = {1};
const Results FALSE = {0};

void nothing()
{
}

bool nothing_handed_out()
{
    return true;
}

bool next_handle()
{
    return strcmp(out.handle, "91") == 0;
}

void plant_keys()
{
    context().hmac_root_key = malloc_copy(HMAC_KEY);
    context().hmac_session_key = malloc_copy(HMAC_KEY);
    context().ecdsa_signing_key = malloc_copy(OWN.private_key);
    context().ecdsa_verification_key = malloc_copy(OWN.point);
    context().kts_hmac_signing_key = malloc_copy(HMAC_KEY);
    context().kts_ecdsa_signing_key = malloc_copy(OWN.private_key);
}

// Nothing can stand beside a file whose name is as long as a name can be: it is overwritten in place.
const std::string LONGEST_NAME(NAME_MAX, 'x');

void link_to_longest_name()
{
    std::filesystem::rename(PRIVATE_FILE, LONGEST_NAME);
    std::filesystem::create_symlink(LONGEST_NAME, PRIVATE_FILE);
}

void plant_root_key()
{
    context().hmac_root_key = malloc_copy(HMAC_KEY);
}

void open_another()
{
    key_lib_open(DRIVER_UID, nullptr, nullptr, opened_buf());
    record_of(opened_buf())->hmac_root_key = malloc_copy(HMAC_KEY);
}

uint32_t add_to_file(const char* name, bool is_private, bool allow_replace)
{
    return add_nonvolatile_based_key(DEVICE_UID, name, OTHER_KEY.c_str(), METADATA, is_private,
                                     allow_replace);
}

// In a record without metadata.
uint32_t replace(const char* metadata)
{
    return add_nonvolatile_based_key(DRIVER_UID, "crk", OTHER_KEY.c_str(), metadata, true, true);
}

uint32_t add_named_volatile(const char* name, const char* metadata = METADATA)
{
    return add_volatile_based_key(DEVICE_UID, name, KEY.c_str(), metadata, out.handle,
                                  sizeof out.handle);
}

const char* key_as_chars()
{
    return reinterpret_cast<const char*>(HMAC_KEY.data());
}

using DriverFunction = KeyLibraryErrorCode (*)(const uint8_t*, const uint8_t*, uint32_t, uint8_t*);
using Verifier = KeyLibraryErrorCode (*)(const uint8_t*, const uint8_t*, uint32_t, const uint8_t*,
                                         bool*);

template <DriverFunction make> uint32_t made()
{
    return make(context_buf(), MSG.data(), MSG_LEN, out.bytes);
}

template <Verifier verify> uint32_t verified(const Bytes& signature)
{
    return verify(context_buf(), MSG.data(), MSG_LEN, signature.data(), &out.verified);
}

template <KeyLibraryErrorCode (*load)(const uint8_t*, bool)> uint32_t loaded()
{
    return load(context_buf(), force);
}

template <KeyPointer field> bool has_hmac_key()
{
    return holds(context().*field, HMAC_KEY);
}

template <KeyPointer field> bool has_private_key()
{
    return holds(context().*field, OWN.private_key);
}

bool tag_is_right()
{
    return handed_out(TAG);
}

bool signature_is_right()
{
    return openssl_verify(OWN.point, HASH, bytes_at(out.bytes, 64));
}

bool is_verified()
{
    return out.verified;
}

bool key_pair_is_right()
{
    return openssl_compressed(openssl_base_mult(integer(bytes_at(out.bytes, 32)))) ==
           bytes_at(out.more_bytes, 33);
}

bool secret_is_right()
{
    return handed_out(openssl_ecdh(OWN.private_key, PEER.point));
}

bool session_key_is_derived()
{
    return holds(context().hmac_session_key, hmac_of(HMAC_KEY, AMTC0)) &&
           bytes_at(context().pwr_on_amtc0, 6) == AMTC0;
}

// It reports success also when the HMAC finds no memory: then there is no session key.
bool session_key_is_agreed_or_absent()
{
    return context().hmac_session_key == nullptr ||
           holds(context().hmac_session_key,
                 hmac_of(openssl_ecdh(OWN.private_key, PEER.point), AMTC0));
}

const Results LOAD_WITHOUT_MEMORY = {KeyLibrary_MEMORY, KeyLibrary_KEY_NOT_FOUND};
const Results NOT_FOUND = {KeyLibrary_KEY_NOT_FOUND};
const Results MEMORY = {KeyLibrary_MEMORY};
const Results CRYPTO = {KeyLibrary_CRYPTO};
const Results MEMORY_OR_CRYPTO = {KeyLibrary_MEMORY, KeyLibrary_CRYPTO};
const Results NOT_FOUND_OR_CRYPTO = {KeyLibrary_KEY_NOT_FOUND, KeyLibrary_CRYPTO};

using Context = ContextRecord;

const Case STORE_CASES[] = {
    {"get_key_handle", "", nothing,
     [] {
         return get_key_handle(DEVICE_UID, "old", out.text, sizeof out.text, out.handle,
                               sizeof out.handle);
     },
     0, ERROR, ERROR,
     // A record's handle and metadata come together or not at all.
     [] {
         return strcmp(out.handle, "2") == 0 && strcmp(out.text, OLD_METADATA) == 0;
     }},
    {"get_key", "InPrivateFile", nothing,
     [] {
         out.length = 32;
         return get_key(reinterpret_cast<const unsigned char*>(DEVICE_UID), "old", out.bytes,
                        &out.length);
     },
     0, ERROR, ERROR,
     [] {
         return out.length == 32 && handed_out(Bytes(32, 0x22));
     }},
    {"get_key", "InPublicFile", nothing,
     [] {
         out.length = 64;
         return get_key(reinterpret_cast<const unsigned char*>(DRIVER_UID), "ECDSA_DS_PuK",
                        out.bytes, &out.length);
     },
     0, ERROR, ERROR,
     [] {
         return out.length == 64 && handed_out(OWN.coordinates);
     }},
    {"add_volatile_key", "", nothing,
     [] { return add_volatile_key(KEY.c_str(), out.handle, sizeof out.handle); }, 0, ERROR, ERROR,
     next_handle},
    {"add_nonvolatile_based_key", "ToPrivateFile", nothing,
     [] { return add_to_file("new", true, false); }, 0, ERROR, ERROR, nothing_handed_out},
    {"add_nonvolatile_based_key", "ToPublicFile", nothing,
     [] { return add_to_file("new", false, false); }, 0, ERROR, ERROR, nothing_handed_out},
    {"add_nonvolatile_based_key", "Twice", nothing, [] { return add_to_file("old", true, false); },
     1, ERROR, ERROR, nothing_handed_out},
    {"add_nonvolatile_based_key", "Replacing", nothing,
     [] { return add_to_file("old", true, true); }, 1, ERROR, ERROR, nothing_handed_out},
    {"add_nonvolatile_based_key", "InPlace", link_to_longest_name,
     [] { return add_to_file("new", true, false); }, 0, ERROR, ERROR, nothing_handed_out},
    {"add_nonvolatile_based_key", "ReplacingTheKeyAlone", nothing, [] { return replace(nullptr); },
     1, ERROR, ERROR, nothing_handed_out},
    {"add_nonvolatile_based_key", "GivingMetadata", nothing, [] { return replace(METADATA); }, 1,
     ERROR, ERROR, nothing_handed_out},
    {"add_nonvolatile_based_key", "GivingEmptyMetadata", nothing, [] { return replace(""); }, 1,
     ERROR, ERROR, nothing_handed_out},
    {"add_volatile_based_key", "WithEmptyMetadata", nothing,
     [] { return add_named_volatile("new", ""); }, 0, ERROR, ERROR, next_handle},
    {"add_volatile_based_key", "", nothing, [] { return add_named_volatile("new"); }, 0, ERROR,
     ERROR, next_handle},
    {"add_volatile_based_key", "Twice", nothing, [] { return add_named_volatile("volatile"); }, 1,
     ERROR, ERROR, nothing_handed_out},
    {"add_crk", "", nothing, [] { return add_crk(DEVICE_UID, KEY.c_str(), METADATA); }, 0, ERROR,
     ERROR, nothing_handed_out},
    {"add_csk", "", nothing, [] { return add_csk(DEVICE_UID, KEY.c_str(), nullptr); }, 0, ERROR,
     ERROR, nothing_handed_out},
    {"delete_key_by_handle", "InVolatileTree", nothing, [] { return delete_key_by_handle("90"); },
     0, ERROR, ERROR, nothing_handed_out},
    {"delete_key_by_handle", "InPublicFile", nothing, [] { return delete_key_by_handle("20"); }, 0,
     ERROR, ERROR, nothing_handed_out},
    {"delete_key_by_handle", "InPrivateFile", nothing, [] { return delete_key_by_handle("2"); }, 0,
     ERROR, ERROR, nothing_handed_out},
    {"delete_key_by_key_type", "InPrivateFile", nothing,
     [] { return delete_key_by_key_type(DEVICE_UID, "old"); }, 0, ERROR, ERROR, nothing_handed_out},
    {"delete_key_by_key_type", "InPublicFile", nothing,
     [] { return delete_key_by_key_type(DEVICE_UID, "public"); }, 0, ERROR, ERROR,
     nothing_handed_out},
    {"delete_crk", "", nothing, [] { return delete_crk("another"); }, 0, ERROR, ERROR,
     nothing_handed_out},
    {"copy_private_key", "", nothing, [] { return copy_private_key(DEVICE_UID, "old", "copy"); }, 0,
     ERROR, ERROR, nothing_handed_out},
    {"copy_private_key", "OfAMissingKey", nothing,
     [] { return copy_private_key(DEVICE_UID, "missing", "copy"); }, 1, ERROR, ERROR,
     nothing_handed_out},
    {"export_prv_key_in_clear_as_hex", "", nothing,
     [] {
         out.length = sizeof out.text;
         return export_prv_key_in_clear_as_hex(DEVICE_UID, "old", out.text, &out.length);
     },
     0, ERROR, ERROR,
     [] {
         return std::string(64, '2') == out.text && out.length == 64;
     }},
    {"read_public_key_as_hex", "", nothing,
     [] {
         out.length = sizeof out.text;
         return read_public_key_as_hex(DEVICE_UID, "public", out.text, &out.length);
     },
     0, ERROR, ERROR,
     [] {
         return std::string(64, '5') == out.text && out.length == 64;
     }},
    {"set_new_srk_key_data_for_uid", "", nothing,
     [] { return set_new_srk_key_data_for_uid(DEVICE_UID, "2"); }, 0, ERROR, ERROR,
     nothing_handed_out},
    {"_prv_keyfile_contains_key", "", nothing,
     [] { return static_cast<uint32_t>(_prv_keyfile_contains_key(DEVICE_UID, "old")); }, 1, FALSE,
     FALSE, nothing_handed_out},
    {"contains_crk", "", nothing, [] { return static_cast<uint32_t>(contains_crk("another")); }, 1,
     FALSE, FALSE, nothing_handed_out},
    {"contains_csk", "", nothing, [] { return static_cast<uint32_t>(contains_csk("another")); }, 1,
     FALSE, FALSE, nothing_handed_out},
    {"contains_key", "", nothing,
     [] { return static_cast<uint32_t>(contains_key(DEVICE_UID, "old")); }, 1, FALSE, FALSE,
     nothing_handed_out},
    {"GetPublicKeyFromString", "", nothing,
     [] { return GetPublicKeyFromString(out.bytes, KEY.c_str()); }, 0, NONE, NONE,
     [] {
         return handed_out(Bytes(32, 0xaa));
     }},
    {"GetPrivateKeyFromString", "", nothing,
     [] { return GetPrivateKeyFromString(out.bytes, KEY.c_str()); }, 0, NONE, NONE,
     [] {
         return handed_out(Bytes(32, 0xaa));
     }},
    {"_convert_hex_char_key_to_bytes", "", nothing,
     [] { return _convert_hex_char_key_to_bytes(KEY.c_str(), out.bytes, 32); }, 0, NONE, NONE,
     [] {
         return handed_out(Bytes(32, 0xaa));
     }},
};

const Case DRIVER_CASES[] = {
    {"key_lib_open", "", nothing,
     [] { return uint32_t{key_lib_open(DRIVER_UID, nullptr, nullptr, opened_buf())}; }, 0, MEMORY,
     NONE,
     [] {
         return strcmp(reinterpret_cast<char*>(record_of(opened_buf())->uid), DRIVER_UID) == 0;
     }},
    {"key_lib_close", "", open_another,
     [] {
         const uint32_t result = key_lib_close(opened_buf());
         out.opened = nullptr;
         return result;
     },
     0, NONE, NONE, nothing_handed_out},
    {"key_lib_clear_keys", "", plant_root_key,
     [] { return uint32_t{key_lib_clear_keys(context_buf())}; }, 0, NONE, NONE,
     [] {
         return context().hmac_root_key == nullptr;
     }},
    {"set_srk_as_hmac_root_signing_key", "", nothing, loaded<set_srk_as_hmac_root_signing_key>, 0,
     LOAD_WITHOUT_MEMORY, NOT_FOUND, has_hmac_key<&Context::hmac_root_key>},
    {"set_crk_as_hmac_root_signing_key", "", nothing, loaded<set_crk_as_hmac_root_signing_key>, 0,
     LOAD_WITHOUT_MEMORY, NOT_FOUND, has_hmac_key<&Context::hmac_root_key>},
    {"set_csk_as_hmac_session_signing_key", "", nothing,
     loaded<set_csk_as_hmac_session_signing_key>, 0, LOAD_WITHOUT_MEMORY, NOT_FOUND,
     has_hmac_key<&Context::hmac_session_key>},
    {"set_ecdsa_signing_key", "", nothing, loaded<set_ecdsa_signing_key>, 0, LOAD_WITHOUT_MEMORY,
     NOT_FOUND, has_private_key<&Context::ecdsa_signing_key>},
    {"set_ecdsa_verification_key", "", nothing, loaded<set_ecdsa_verification_key>, 0,
     LOAD_WITHOUT_MEMORY, NOT_FOUND,
     [] {
         return holds(context().ecdsa_verification_key, OWN.point);
     }},
    {"set_hmac_root_signing_key", "", nothing,
     [] { return uint32_t{set_hmac_root_signing_key(context_buf(), key_as_chars(), 32)}; }, 0,
     MEMORY, NONE, has_hmac_key<&Context::hmac_root_key>},
    {"set_hmac_session_key", "", nothing,
     [] { return uint32_t{set_hmac_session_key(context_buf(), key_as_chars(), 32)}; }, 0, MEMORY,
     NONE, has_hmac_key<&Context::hmac_session_key>},
    {"_sha256_hmac", "", nothing,
     [] {
         return uint32_t{
             _sha256_hmac(HMAC_KEY.data(), 32, MSG.data(), static_cast<int>(MSG_LEN), out.bytes)};
     },
     0, CRYPTO, NONE, tag_is_right},
    {"gen_root_sha256_hmac", "", plant_keys, made<gen_root_sha256_hmac>, 0, CRYPTO, NONE,
     tag_is_right},
    {"gen_session_sha256_hmac", "", plant_keys, made<gen_session_sha256_hmac>, 0, CRYPTO, NONE,
     tag_is_right},
    {"gen_kts_sha256_hmac", "", plant_keys, made<gen_kts_sha256_hmac>, 0, CRYPTO, NONE,
     tag_is_right},
    {"verify_root_sha256_hmac", "", plant_keys,
     [] { return verified<verify_root_sha256_hmac>(TAG); }, 0, CRYPTO, NONE, is_verified},
    {"verify_session_sha256_hmac", "", plant_keys,
     [] { return verified<verify_session_sha256_hmac>(TAG); }, 0, CRYPTO, NONE, is_verified},
    {"derive_hmac_session_key", "", plant_root_key,
     [] { return uint32_t{derive_hmac_session_key(context_buf(), AMTC0.data(), 6, force)}; }, 0,
     MEMORY_OR_CRYPTO, NONE, session_key_is_derived},
    {"generate_ecdsa_signature", "", plant_keys, made<generate_ecdsa_signature>, 0, NONE, CRYPTO,
     signature_is_right},
    {"generate_kts_ecdsa_signature", "", plant_keys, made<generate_kts_ecdsa_signature>, 0, NONE,
     CRYPTO, signature_is_right},
    {"verify_ecdsa_signature", "", plant_keys,
     [] { return verified<verify_ecdsa_signature>(SIGNATURE); }, 0, NONE, NONE, is_verified},
    {"derive_ecdh_session_key", "", nothing,
     [] {
         return uint32_t{derive_ecdh_session_key(context_buf(), PEER.coordinates.data(),
                                                 AMTC0.data(), 6, force)};
     },
     0, LOAD_WITHOUT_MEMORY, NOT_FOUND_OR_CRYPTO, session_key_is_agreed_or_absent},
    {"set_kts_ecdsa_signing_key", "", nothing,
     [] { return uint32_t{set_kts_ecdsa_signing_key(context_buf(), 5, force)}; }, 0,
     LOAD_WITHOUT_MEMORY, NOT_FOUND, has_private_key<&Context::kts_ecdsa_signing_key>},
    {"set_kts_hmac_signing_key", "", nothing,
     [] {
         return uint32_t{
             set_kts_hmac_signing_key(context_buf(), 5, PEER.coordinates.data(), force)};
     },
     0, LOAD_WITHOUT_MEMORY, NOT_FOUND_OR_CRYPTO,
     [] {
         return holds(context().kts_hmac_signing_key, openssl_ecdh(OWN.private_key, PEER.point));
     }},
};

const Case ENGINE_CASES[] = {
    {"ecc_make_key", "", nothing,
     [] { return static_cast<uint32_t>(ecc_make_key(out.more_bytes, out.bytes)); }, 1, NONE, FALSE,
     key_pair_is_right},
    {"ecdh_shared_secret", "", nothing,
     [] {
         return static_cast<uint32_t>(
             ecdh_shared_secret(PEER.point.data(), OWN.private_key.data(), out.bytes));
     },
     1, NONE, FALSE, secret_is_right},
    {"ecdsa_sign", "", nothing,
     [] {
         return static_cast<uint32_t>(ecdsa_sign(OWN.private_key.data(), HASH.data(), out.bytes));
     },
     1, NONE, FALSE, signature_is_right},
    {"ecdsa_verify", "", nothing,
     [] {
         return static_cast<uint32_t>(
             ecdsa_verify(OWN.point.data(), HASH.data(), SIGNATURE.data()));
     },
     1, NONE, NONE, nothing_handed_out},
};

std::vector<Case> cases()
{
    std::vector<Case> all(std::begin(STORE_CASES), std::end(STORE_CASES));
    all.insert(all.end(), std::begin(DRIVER_CASES), std::end(DRIVER_CASES));
    all.insert(all.end(), std::begin(ENGINE_CASES), std::end(ENGINE_CASES));
    return all;
}

// ---- What must hold whatever fails -------------------------------------------------------------

struct Store {
    std::string private_file;
    std::string public_file;
    std::vector<Children> tree;

    bool operator==(const Store& other) const
    {
        return private_file == other.private_file && public_file == other.public_file &&
               tree == other.tree;
    }
};

std::ostream& operator<<(std::ostream& stream, const Store& store)
{
    return stream << store.private_file << store.public_file << testing::PrintToString(store.tree);
}

Store present_store()
{
    return {read_file(PRIVATE_FILE), read_file(PUBLIC_FILE), volatile_records()};
}

std::ptrdiff_t open_files()
{
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

using Blocks = std::set<const void*>;

Blocks blocks_of_tree(const xmlNode* node)
{
    Blocks blocks;
    for (; node != nullptr; node = node->next) {
        blocks.merge(Blocks{node, node->name, node->content});
        blocks.merge(blocks_of_tree(node->children));
    }
    return blocks;
}

Blocks blocks_of_context(KeyLibraryContext context)
{
    if (context == nullptr) {
        return {};
    }
    const ContextRecord* record = record_of(reinterpret_cast<uint8_t*>(&context));
    return {record,
            record->uid,
            record->hmac_root_key,
            record->hmac_session_key,
            record->ecdsa_signing_key,
            record->ecdsa_verification_key,
            record->ecdh_pub_key,
            record->kts_hmac_signing_key,
            record->kts_ecdsa_signing_key};
}

// What the C library asks for when it opens a stream.
size_t size_of_stream()
{
    FILE* stream = nullptr;
    const Allocations made = allocations_of([&] { stream = fopen("/dev/null", "w"); });
    fclose(stream);
    return made.requested.at(0);
}

// Blocks that are known to get lost, and why.
bool is_known_loss(const Block& block, const Case& c)
{
    return is_block_of(block, "libmbedcrypto") || // digest contexts, deliberately never released
           is_block_of(block, "liblzma") || // by libxml2, when its decompressor finds no memory
           // by libxml2, when it finds no memory behind the opening of a stream
           (is_block_of(block, "libc.so") && block.size == size_of_stream()) ||
           // by key_lib_open, deliberately, when there is no memory for the UID
           (strcmp(c.function, "key_lib_open") == 0 && block.size == sizeof(ContextRecord));
}

void take_back(const Block& block)
{
    if (is_block_of(block, "libc.so")) {
        fclose(static_cast<FILE*>(block.address));
    } else if (!is_block_of(block, "libmbedcrypto")) {
        free(block.address);
    }
}

// The sizes of the blocks that nothing leads to any more, less the known losses, which are freed.
std::vector<size_t> take_back_losses(const std::vector<Block>& left, const Case& c)
{
    Blocks known = blocks_of_tree(tmpTree_rootNode);
    known.merge(blocks_of_context(open_context));
    known.merge(blocks_of_context(out.opened));
    std::vector<size_t> lost;
    for (const Block& block : left) {
        if (known.count(block.address) != 0 || is_block_of(block, "libstdc++")) {
            continue; // the latter are the test's own
        }
        if (is_known_loss(block, c)) {
            take_back(block);
        } else {
            lost.push_back(block.size);
        }
    }
    return lost;
}

const pthread_mutex_t PLAIN_MUTEX = PTHREAD_MUTEX_INITIALIZER;
const pthread_mutex_t CHECKING_MUTEX = PTHREAD_ERRORCHECK_MUTEX_INITIALIZER_NP;

// Whether the function keeps the mutex when it cannot read a file, to be stopped by it the next time.
bool keeps_mutex(const Case& c)
{
    return strcmp(c.function, "delete_key_by_handle") == 0;
}

bool mutex_is_free()
{
    const bool is_free = pthread_mutex_trylock(&lock) == 0;
    if (is_free) {
        pthread_mutex_unlock(&lock);
    }
    return is_free;
}

struct Outcome {
    uint32_t result;
    std::string printed;
    FaultyRun run;
    Store store;
};

class FailureAtEveryPoint : public StoreInMemory, public testing::WithParamInterface<Case> {
  protected:
    void SetUp() override
    {
        StoreInMemory::SetUp();
        printed_by([] { puts(""); }); // standard output has its buffer from here on
        put_in_place();
        before_ = present_store();
        undisturbed_ = attempt(NO_FAULT);
        ASSERT_EQ(undisturbed_.result, tested().success);
        ASSERT_TRUE(tested().is_right());
    }

    void TearDown() override
    {
        close_contexts();
        empty_volatile_tree();
        StoreInMemory::TearDown();
    }

    static Case tested()
    {
        return GetParam();
    }

    static void close_contexts();
    static void put_in_place();
    static Outcome attempt(const Fault& fault);

    std::vector<int> errors_at(FaultKind kind, size_t point) const;
    void expect_sound(const Fault& fault, const Outcome& outcome);
    void expect_usable();
    bool fail_at(const Fault& fault);
    size_t fail_at_every_point(FaultKind kind);

    Store before_;
    Outcome undisturbed_;
};

// The keys of KTS slots outlive their context, deliberately.
void FailureAtEveryPoint::close_contexts()
{
    for (KeyLibraryContext* location : {&open_context, &out.opened}) {
        if (*location != nullptr) {
            uint8_t* location_bytes = reinterpret_cast<uint8_t*>(location);
            free(record_of(location_bytes)->kts_hmac_signing_key);
            free(record_of(location_bytes)->kts_ecdsa_signing_key);
            EXPECT_EQ(key_lib_close(location_bytes), KeyLibrary_OK);
            *location = nullptr;
        }
    }
}

void FailureAtEveryPoint::put_in_place()
{
    close_contexts();
    unlink(PRIVATE_FILE); // which may have become a link
    write_store_file(PRIVATE_FILE, PRIVATE_RECORDS);
    write_store_file(PUBLIC_FILE, PUBLIC_RECORDS);
    empty_volatile_tree();
    // The largest handle is not in a file: a file that cannot be read does not change the next one.
    append_record(getTmpTreeRootNode(), {DEVICE_UID, "volatile", "90", "v", "m"});
    out = {};
    force = false;
    lock = keeps_mutex(tested()) ? CHECKING_MUTEX : PLAIN_MUTEX;
    ASSERT_EQ(key_lib_open(DRIVER_UID, nullptr, nullptr, context_buf()), KeyLibrary_OK);
    tested().prepare();
    xmlCleanupParser();
}

Outcome FailureAtEveryPoint::attempt(const Fault& fault)
{
    Outcome outcome;
    const auto run = tested().run;
    outcome.printed = printed_by([&] {
        outcome.run = run_with_fault(fault, [&] {
            outcome.result = run();
            xmlCleanupParser(); // what libxml2 keeps for itself goes with it
        });
    });
    outcome.store = present_store();
    return outcome;
}

#if defined(__arm__) || defined(__SANITIZE_ADDRESS__)
const bool PROGRAM_IS_SLOW = true; // under an emulator or a sanitizer
#else
const bool PROGRAM_IS_SLOW = false;
#endif

// The errors to be tried at a point; none for a point that is passed over. Where programs are slow, a
// system call has one error, in turn, and allocations fail in one way at the odd points, in the other
// at the even ones.
std::vector<int> FailureAtEveryPoint::errors_at(FaultKind kind, size_t point) const
{
    if (is_of_memory(kind)) {
        const bool is_the_others = (point % 2 == 1) != (kind == FaultKind::ONE_ALLOCATION);
        return PROGRAM_IS_SLOW && is_the_others ? std::vector<int>{} : std::vector<int>{0};
    }
    if (point > undisturbed_.run.calls.size()) {
        return {0};
    }
    const SystemCall& call = undisturbed_.run.calls[point - 1];
    if (kind == FaultKind::SHORT_TRANSFER) {
        const bool transfers = call.name == "read" || call.name == "write" || call.name == "pwrite";
        return transfers ? std::vector<int>{0} : std::vector<int>{};
    }
    const std::vector<int>& errors =
        kind == FaultKind::ONE_SYSTEM_CALL ? errors_of(call.name) : LASTING_ERRORS;
    return PROGRAM_IS_SLOW ? std::vector<int>{errors[point % errors.size()]} : errors;
}

void FailureAtEveryPoint::expect_sound(const Fault& fault, const Outcome& outcome)
{
    const Case c = tested();
    const Results& failures = is_of_memory(fault.kind) ? c.without_memory : c.without_system;
    const bool succeeded = outcome.result == c.success;
    const bool comes_short = fault.kind == FaultKind::SHORT_TRANSFER;
    EXPECT_TRUE(succeeded || (failures.count(outcome.result) != 0 && !comes_short))
        << outcome.result;
    EXPECT_TRUE(!succeeded || c.is_right());
    const bool may_be_old = !succeeded || (c.success == 1 && !comes_short);
    EXPECT_TRUE(outcome.store == undisturbed_.store || (may_be_old && outcome.store == before_))
        << "result " << outcome.result << ", printed " << outcome.printed << outcome.store;
    const bool is_of_store = std::any_of(std::begin(STORE_CASES), std::end(STORE_CASES),
                                         [&](const Case& s) { return s.function == c.function; });
    EXPECT_TRUE(succeeded || !is_of_store || !outcome.printed.empty());

    EXPECT_EQ(take_back_losses(outcome.run.made.left, c), std::vector<size_t>());
    EXPECT_FALSE(process_lock_is_held());
    const bool may_keep_mutex =
        keeps_mutex(c) && outcome.printed.find("could not parse") != std::string::npos;
    EXPECT_TRUE(mutex_is_free() || may_keep_mutex);
    for (const auto& entry : std::filesystem::directory_iterator(".")) {
        const std::string name = entry.path().filename();
        // A sibling can only stay where taking it away fails as well.
        const bool is_sibling = name.find(".saving") != std::string::npos;
        EXPECT_TRUE(name == PRIVATE_FILE || name == PUBLIC_FILE || name == LONGEST_NAME ||
                    (is_sibling && fault.kind == FaultKind::SYSTEM_CALLS_FROM_THERE_ON))
            << name;
        if (is_sibling) {
            std::filesystem::remove(entry);
        }
    }
}

// The store answers, and the context does what has just failed in it.
void FailureAtEveryPoint::expect_usable()
{
    lock = PLAIN_MUTEX;
    uint8_t key[32];
    uint32_t length = sizeof key;
    EXPECT_EQ(get_key(reinterpret_cast<const unsigned char*>(DRIVER_UID), "srk", key, &length), 0U);
    EXPECT_EQ(bytes_at(key, sizeof key), HMAC_KEY);
    const bool is_of_driver =
        std::any_of(std::begin(DRIVER_CASES), std::end(DRIVER_CASES),
                    [&](const Case& c) { return c.function == tested().function; });
    if (is_of_driver && out.opened == nullptr && tested().prepare != open_another) {
        force = true;
        EXPECT_EQ(tested().run(), 0U);
        EXPECT_TRUE(tested().is_right());
    }
}

// Whether the fault was met.
bool FailureAtEveryPoint::fail_at(const Fault& fault)
{
    SCOPED_TRACE(fault.text());
    put_in_place();
    const std::ptrdiff_t files_open_before = open_files();
    const Outcome outcome = attempt(fault);
    expect_sound(fault, outcome);
    EXPECT_EQ(open_files(), files_open_before);
    expect_usable();
    return outcome.run.was_hit;
}

// The number of faults that were met.
size_t FailureAtEveryPoint::fail_at_every_point(FaultKind kind)
{
    size_t faults = 0;
    bool reached = true;
    for (size_t point = 1; reached && !HasFailure(); ++point) {
        const std::vector<int> errors = errors_at(kind, point);
        reached = errors.empty();
        for (const int error : errors) {
            const bool was_hit = fail_at({kind, point, error});
            faults += was_hit ? 1 : 0;
            reached = reached || was_hit;
        }
    }
    return faults;
}

INSTANTIATE_TEST_SUITE_P(Of, FailureAtEveryPoint, testing::ValuesIn(cases()), [](const auto& test) {
    return std::string(test.param.function) + test.param.situation;
});

TEST_P(FailureAtEveryPoint, EndsWellAndLeavesOldOrNew)
{
    for (const FaultKindName& kind : FAULT_KINDS) {
        SCOPED_TRACE(kind.name);
        const Deadline deadline(250);
        RecordProperty(kind.name, std::to_string(fail_at_every_point(kind.kind)));
    }
}

TEST(FailureTable, HoldsEveryExportedFunction)
{
    std::set<std::string> exported;
    std::ifstream list(EXPORTED_FUNCTIONS);
    for (std::string line; std::getline(list, line);) {
        if (!line.empty() && line[0] != '#') {
            exported.insert(line);
        }
    }
    std::set<std::string> in_table;
    for (const Case& c : cases()) {
        in_table.insert(c.function);
    }
    EXPECT_EQ(in_table, exported);
    EXPECT_EQ(exported.size(), 48U);
}

} // namespace
