// Programs of calls across the store and the driver, several contexts open, against a plain model:
// which records the files and the volatile tree hold, which keys each context holds, and what
// OpenSSL computes with them.

#include "store_model.h"

// The unit itself, for its volatile tree.
#include "no_pause.h"

#include "key_driver/zentrava_key_management_utils.cpp"

#include "key_driver/zentrava_key_driver.h"
#include "tests/support/context_record.h"
#include "tests/support/ecc_openssl.h"
#include "tests/support/openssl_hmac.h"

#include <mbedtls/md.h>
#include <openssl/sha.h>

#include <map>

// The driver never releases a digest context, deliberately. That would use up a long run's memory.
static std::vector<mbedtls_md_context_t> digest_contexts;

extern "C" int __real_mbedtls_md_setup(mbedtls_md_context_t* context, const mbedtls_md_info_t* info,
                                       int hmac);
extern "C" int __wrap_mbedtls_md_setup(mbedtls_md_context_t* context, const mbedtls_md_info_t* info,
                                       int hmac);

int __wrap_mbedtls_md_setup(mbedtls_md_context_t* context, const mbedtls_md_info_t* info, int hmac)
{
    const int result = __real_mbedtls_md_setup(context, info, hmac);
    digest_contexts.push_back(*context);
    return result;
}

namespace {

// ---- What calls are made with

const char* const UIDS[] = {"0123456789abcdef0123456789abcdef", "ffffffffffffffffffffffffffffffff",
                            "short"};
const char* const NAMES[] = {"srk",
                             "crk",
                             "tmp_client_session_key",
                             "ecdsa_prv",
                             "ecdh_prv",
                             "new",
                             "ecdsa_prv_slot_1",
                             "ecdh_prv_slot_1",
                             "ecdsa_prv_slot_-1",
                             "ecdh_prv_slot_-1",
                             "ECDSA_DS_PuK"};
const uint32_t SLOTS[] = {0, 1, 0xFFFFFFFF};
const char* const METADATA[] = {nullptr, "", "note", "<&> \xC3\xA9", "\x01"};

// All are private keys in range but the last two, whose length is wrong.
const std::vector<std::string> KEY_TEXTS = {
    "0123456789abcdef0123456789abcdef0123456789abcdef0123456789abcdef",
    "FEDCBA9876543210FEDCBA9876543210FEDCBA9876543210FEDCBA9876543210",
    "00000000000000000000000000000000000000000000000000000000deadbeef",
    "7y7y7y7y7y7y7y7y7y7y7y7y7y7y7y7y7y7y7y7y7y7y7y7y7y7y7y7y7y7y7y7y",
    std::string(63, 'a'),
    std::string(65, 'a')};
const size_t PRIVATE_KEYS = 4;

template <typename Value, size_t count> Value take_of(Input* input, const Value (&values)[count])
{
    return values[take_byte(input) % count];
}

std::string take_key_text(Input* input)
{
    return KEY_TEXTS[take_byte(input) % KEY_TEXTS.size()];
}

std::string take_handle(Input* input)
{
    return std::to_string(take_byte(input) % 24);
}

bool take_bool(Input* input)
{
    return take_byte(input) % 2 != 0;
}

// The 65 bytes of the public key of one of the private ones.
Bytes public_key(size_t index)
{
    static std::map<size_t, Bytes> known;
    Bytes& key = known[index];
    if (key.empty()) {
        key = openssl_base_mult(integer(converted(KEY_TEXTS[index], 32)));
    }
    return key;
}

Bytes without_prefix(const Bytes& point)
{
    return {point.begin() + 1, point.end()};
}

std::string hexadecimal(const Bytes& bytes)
{
    std::string text;
    for (const uint8_t byte : bytes) {
        char digits[3];
        snprintf(digits, sizeof digits, "%02X", byte);
        text += digits;
    }
    return text;
}

std::string record_text(const std::string& uid, const char* name, int handle,
                        const std::string& key)
{
    return "<key_content><uid>" + uid + "</uid><key_name>" + name + "</key_name><handle>" +
           std::to_string(handle) + "</handle><key>" + key + "</key></key_content>\n";
}

// Keys of lengths that no adder accepts are in the files from the start.
void write_files()
{
    static const std::string PRIVATE = "<keys>\n" +
                                       record_text(UIDS[0], "ecdsa_prv", 1, KEY_TEXTS[0]) +
                                       record_text(UIDS[0], "ecdh_prv", 2, KEY_TEXTS[1]) +
                                       record_text(UIDS[1], "srk", 3, std::string(32, 'c')) +
                                       record_text(UIDS[1], "crk", 4, std::string(128, 'd')) +
                                       record_text(UIDS[2], "srk", 5, KEY_TEXTS[2]) + "</keys>\n";
    static const std::string PUBLIC =
        "<keys>\n" +
        record_text(UIDS[0], "ECDSA_DS_PuK", 6, hexadecimal(without_prefix(public_key(0)))) +
        record_text(UIDS[1], "ECDSA_DS_PuK", 7, std::string(62, 'e')) +
        record_text(UIDS[1], "ecdh_prv", 8, KEY_TEXTS[3]) + "</keys>\n";
    write_store_file(PRIVATE_FILE, PRIVATE);
    write_store_file(PUBLIC_FILE, PUBLIC);
}

// ---- Contexts

// A key in a context: not loaded, or loaded; without bytes when nobody can tell which they are.
using LoadedKey = std::optional<Bytes>;
const Bytes UNKNOWN;

bool is_known(const LoadedKey& key)
{
    return key && *key != UNKNOWN;
}

struct ContextModel {
    std::string uid;
    LoadedKey root, session, signing, verification, peer, kts_hmac, kts_signing;
    Bytes amtc0;
    uint32_t slot;
};

struct Context {
    std::optional<ContextModel> model; // none while it is not open
    KeyLibraryContext pointer;
    std::vector<uint8_t*> kts_keys; // which the library drops and does not free
};

struct Machine {
    Store store;
    Context contexts[2];
};

const uint8_t* buf_of(const Context& context)
{
    return reinterpret_cast<const uint8_t*>(&context.pointer);
}

void demand_result(KeyLibraryErrorCode result, KeyLibraryErrorCode expected, const char* rule)
{
    demand(result == expected, rule);
}

// The caller's responsibility from here on.
void keep_kts_keys(Context* context)
{
    const ContextRecord* record = record_of(buf_of(*context));
    context->kts_keys.push_back(record->kts_hmac_signing_key);
    context->kts_keys.push_back(record->kts_ecdsa_signing_key);
}

void close(Context* context)
{
    keep_kts_keys(context);
    demand_result(key_lib_close(reinterpret_cast<uint8_t*>(&context->pointer)), KeyLibrary_OK,
                  "a context closes");
    context->model.reset();
    for (uint8_t* key : context->kts_keys) {
        free(key);
    }
    context->kts_keys.clear();
}

void open_or_close(Context* context, Input* input)
{
    if (context->model) {
        close(context);
        return;
    }
    const char* uid = take_of(input, UIDS);
    demand_result(
        key_lib_open(uid, nullptr, nullptr, reinterpret_cast<uint8_t*>(&context->pointer)),
        KeyLibrary_OK, "a context opens");
    context->model = ContextModel{};
    context->model->uid = uid;
}

void clear(Context* context)
{
    keep_kts_keys(context);
    demand_result(key_lib_clear_keys(buf_of(*context)), KeyLibrary_OK, "keys are cleared");
    const std::string uid = context->model->uid;
    context->model = ContextModel{};
    context->model->uid = uid;
}

// ---- Loading

// Gets a key of exactly `size` bytes for a field that may be loaded already. A key that is too long
// counts as not found, and leaves the buffer as it was.
KeyLibraryErrorCode load(const Store& store, const std::string& uid, const std::string& name,
                         size_t size, LoadedKey* field)
{
    if (!*field) {
        *field = UNKNOWN;
    }
    const std::optional<std::string> text = model::key_text_in(store, uid, name);
    if (!text || key_of_text(*text).size() > size) {
        return KeyLibrary_KEY_NOT_FOUND;
    }
    *field = key_of_text(*text);
    if ((*field)->size() != size) {
        field->reset();
        return KeyLibrary_INVALID_KEY;
    }
    return KeyLibrary_OK;
}

struct Loader {
    decltype(&set_ecdsa_signing_key) load;
    LoadedKey ContextModel::*field;
    const char* name;
    size_t size;
};
const Loader LOADERS[] = {
    {set_srk_as_hmac_root_signing_key, &ContextModel::root, "srk", 32},
    {set_crk_as_hmac_root_signing_key, &ContextModel::root, "crk", 32},
    {set_csk_as_hmac_session_signing_key, &ContextModel::session, "tmp_client_session_key", 32},
    {set_ecdsa_signing_key, &ContextModel::signing, "ecdsa_prv", 32},
    {set_ecdsa_verification_key, &ContextModel::verification, "ECDSA_DS_PuK", 64},
};

void load_named(const Store& store, Context* context, Input* input)
{
    const Loader loader = take_of(input, LOADERS);
    const bool force = take_bool(input);
    LoadedKey& field = (*context->model).*loader.field;
    const KeyLibraryErrorCode expected =
        field && !force ? KeyLibrary_OK
                        : load(store, context->model->uid, loader.name, loader.size, &field);
    demand_result(loader.load(buf_of(*context), force), expected, "a key is loaded");
}

void load_given(Context* context, Input* input)
{
    const bool is_root = take_bool(input);
    const Bytes key = take_bytes(input, 28 + take_byte(input) % 16);
    const auto set = is_root ? set_hmac_root_signing_key : set_hmac_session_key;
    const bool is_long_enough = key.size() >= 32;
    demand_result(set(buf_of(*context), reinterpret_cast<const char*>(key.data()),
                      static_cast<uint32_t>(key.size())),
                  is_long_enough ? KeyLibrary_OK : KeyLibrary_INVALID_KEY, "a key is taken");
    if (is_long_enough) {
        (is_root ? context->model->root : context->model->session) =
            Bytes(key.begin(), key.begin() + 32);
    }
}

void load_kts_signing_key(const Store& store, Context* context, Input* input)
{
    ContextModel& m = *context->model;
    const uint32_t slot = take_of(input, SLOTS);
    const bool force = take_bool(input);
    const std::string name = "ecdsa_prv_slot_" + std::to_string(static_cast<int32_t>(slot));
    const KeyLibraryErrorCode expected = m.kts_signing && !force && m.slot == slot
                                             ? KeyLibrary_OK
                                             : load(store, m.uid, name, 32, &m.kts_signing);
    demand_result(set_kts_ecdsa_signing_key(buf_of(*context), slot, force), expected,
                  "a slot's signing key is loaded");
}

// ---- Deriving

Bytes hmac(const Bytes& key, const Bytes& message)
{
    const Tag tag = openssl_hmac_sha256(key.data(), key.size(), message.data(), message.size());
    return {tag.begin(), tag.end()};
}

Bytes take_amtc0(Input* input)
{
    const size_t size = take_byte(input) % 8;
    return Bytes(size, take_byte(input) % 3);
}

void derive_from_root(Context* context, Input* input)
{
    ContextModel& m = *context->model;
    const Bytes amtc0 = take_amtc0(input);
    const bool force = take_bool(input);
    const auto derive = [&] {
        if (amtc0.empty() || amtc0.size() > 6) {
            return KeyLibrary_BAD_PARAMETER;
        }
        if (!m.root) {
            return KeyLibrary_KEY_NOT_FOUND;
        }
        if (force || !m.session || amtc0 != m.amtc0) {
            m.session = is_known(m.root) ? hmac(*m.root, amtc0) : UNKNOWN;
            m.amtc0 = amtc0;
        }
        return KeyLibrary_OK;
    };
    static const uint8_t NO_BYTES[1] = {};
    demand_result(derive_hmac_session_key(buf_of(*context), amtc0.empty() ? NO_BYTES : amtc0.data(),
                                          static_cast<uint32_t>(amtc0.size()), force),
                  derive(), "a session key is derived from the root key");
}

// The shared secret of a stored private key and a peer; none with the driver's reason.
KeyLibraryErrorCode agree(const Store& store, const std::string& uid, const std::string& name,
                          const Bytes& peer, Bytes* secret)
{
    LoadedKey own;
    const KeyLibraryErrorCode result = load(store, uid, name, 32, &own);
    if (result == KeyLibrary_OK) {
        *secret = openssl_ecdh(*own, peer);
    }
    return result;
}

void derive_by_agreement(const Store& store, Context* context, Input* input)
{
    ContextModel& m = *context->model;
    const Bytes amtc0 = take_amtc0(input);
    const Bytes peer = public_key(take_byte(input) % PRIVATE_KEYS);
    const bool force = take_bool(input);
    const auto derive = [&] {
        if (amtc0.empty() || amtc0.size() > 6) {
            return KeyLibrary_BAD_PARAMETER;
        }
        if (!force && m.session && amtc0 == m.amtc0 && m.peer == peer) {
            return KeyLibrary_OK;
        }
        m.peer = peer;
        Bytes secret;
        const KeyLibraryErrorCode result = agree(store, m.uid, "ecdh_prv", peer, &secret);
        if (result == KeyLibrary_OK) {
            m.session = hmac(secret, amtc0);
            m.amtc0 = amtc0;
        }
        return result;
    };
    static const uint8_t NO_BYTES[1] = {};
    demand_result(derive_ecdh_session_key(buf_of(*context), without_prefix(peer).data(),
                                          amtc0.empty() ? NO_BYTES : amtc0.data(),
                                          static_cast<uint32_t>(amtc0.size()), force),
                  derive(), "a session key is derived by agreement");
}

void derive_kts_hmac_key(const Store& store, Context* context, Input* input)
{
    ContextModel& m = *context->model;
    const uint32_t slot = take_of(input, SLOTS);
    const Bytes peer = public_key(take_byte(input) % PRIVATE_KEYS);
    const bool force = take_bool(input);
    const auto derive = [&] {
        if (!force && m.kts_hmac && m.slot == slot && m.peer == peer) {
            return KeyLibrary_OK;
        }
        m.peer = peer;
        Bytes secret;
        const std::string name = "ecdh_prv_slot_" + std::to_string(static_cast<int32_t>(slot));
        const KeyLibraryErrorCode result = agree(store, m.uid, name, peer, &secret);
        if (result == KeyLibrary_OK) {
            m.kts_hmac = secret;
            m.slot = slot;
        }
        return result;
    };
    demand_result(
        set_kts_hmac_signing_key(buf_of(*context), slot, without_prefix(peer).data(), force),
        derive(), "a slot's HMAC key is derived");
}

// ---- Using

struct TagFunctions {
    decltype(&gen_root_sha256_hmac) make;
    decltype(&verify_root_sha256_hmac) verify; // null: there is none
    LoadedKey ContextModel::*key;
};
const TagFunctions TAG_FUNCTIONS[] = {
    {gen_root_sha256_hmac, verify_root_sha256_hmac, &ContextModel::root},
    {gen_session_sha256_hmac, verify_session_sha256_hmac, &ContextModel::session},
    {gen_kts_sha256_hmac, nullptr, &ContextModel::kts_hmac},
};

Bytes take_message(Input* input)
{
    Bytes message = take_bytes(input, 1 + take_byte(input) % 70);
    message.shrink_to_fit();
    return message;
}

void check_tag(const Context& context, Input* input)
{
    const TagFunctions functions = take_of(input, TAG_FUNCTIONS);
    const Bytes message = take_message(input);
    const uint32_t size = static_cast<uint32_t>(message.size());
    const LoadedKey& key = (*context.model).*functions.key;
    const KeyLibraryErrorCode expected = key ? KeyLibrary_OK : KeyLibrary_KEY_NOT_FOUND;
    Bytes tag(32);
    demand_result(functions.make(buf_of(context), message.data(), size, tag.data()), expected,
                  "a tag is made with a key that is loaded");
    demand(!is_known(key) || tag == hmac(*key, message), "the tag is OpenSSL's");
    if (functions.verify == nullptr) {
        return;
    }
    const uint8_t damage = take_byte(input);
    tag[damage % 32] ^= damage;
    bool verified = damage == 0;
    demand_result(functions.verify(buf_of(context), message.data(), size, tag.data(), &verified),
                  expected, "a tag is verified with a key that is loaded");
    demand(verified == (damage == 0), "the undamaged tag, and no other, is verified");
}

Bytes sha256(const Bytes& message)
{
    Bytes digest(32);
    SHA256(message.data(), message.size(), digest.data());
    return digest;
}

void check_signing(const Context& context, Input* input)
{
    const bool is_kts = take_bool(input);
    const Bytes message = take_message(input);
    const LoadedKey& key = is_kts ? context.model->kts_signing : context.model->signing;
    Bytes signature(64);
    const auto sign = is_kts ? generate_kts_ecdsa_signature : generate_ecdsa_signature;
    demand_result(sign(buf_of(context), message.data(), static_cast<uint32_t>(message.size()),
                       signature.data()),
                  key ? KeyLibrary_OK : KeyLibrary_KEY_NOT_FOUND,
                  "a signature is made with a key that is loaded");
    demand(!is_known(key) ||
               openssl_verify(openssl_base_mult(integer(*key)), sha256(message), signature),
           "OpenSSL accepts the signature");
}

// The key to verify by is the first private key's, or damaged by nobody knows what.
void check_verifying(const Context& context, Input* input)
{
    const size_t signer = take_byte(input) % PRIVATE_KEYS;
    const Bytes message = take_message(input);
    const uint8_t damage = take_byte(input);
    Bytes signature = openssl_sign(converted(KEY_TEXTS[signer], 32), sha256(message));
    signature[damage % 64] ^= damage;
    const LoadedKey& key = context.model->verification;
    bool verified = false;
    demand_result(verify_ecdsa_signature(buf_of(context), message.data(),
                                         static_cast<uint32_t>(message.size()), signature.data(),
                                         &verified),
                  key ? KeyLibrary_OK : KeyLibrary_KEY_NOT_FOUND,
                  "a signature is verified with a key that is loaded");
    const bool is_signers = is_known(key) && *key == without_prefix(public_key(signer));
    demand(!is_known(key) || verified == (is_signers && damage == 0),
           "the signer's undamaged signature, and no other, is verified");
}

// ---- The store

void add_key(Store* store, Input* input)
{
    const model::KeyTexts texts = {take_of(input, UIDS), take_of(input, NAMES),
                                   take_key_text(input), take_of(input, METADATA)};
    const bool is_private = take_bool(input);
    const bool allow_replace = take_bool(input);
    demand(add_nonvolatile_based_key(texts.uid.c_str(), texts.name.c_str(), texts.key.c_str(),
                                     texts.metadata, is_private, allow_replace) ==
               model::add_nonvolatile_based_key(store, texts, is_private, allow_replace),
           "a key is added to a file");
}

void add_shortcut(Store* store, Input* input)
{
    const bool is_crk = take_bool(input);
    const model::KeyTexts texts = {take_of(input, UIDS), is_crk ? "crk" : "tmp_client_session_key",
                                   take_key_text(input), take_of(input, METADATA)};
    const auto add = is_crk ? add_crk : add_csk;
    demand(add(texts.uid.c_str(), texts.key.c_str(), texts.metadata) ==
               model::add_nonvolatile_based_key(store, texts, true, false),
           "a key is added by its shortcut");
}

void demand_handle(uint32_t result, const char* handle, const Store& store)
{
    demand(result != 0 || has_handle(store.volatile_tree.back(), handle), "its handle is told");
}

void add_to_volatile_tree(Store* store, Input* input)
{
    const bool is_anonymous = take_bool(input);
    const model::KeyTexts texts = {take_of(input, UIDS), take_of(input, NAMES),
                                   take_key_text(input), take_of(input, METADATA)};
    Bytes handle(1 + take_byte(input) % 16);
    char* text = reinterpret_cast<char*>(handle.data());
    const uint32_t size = static_cast<uint32_t>(handle.size());
    const uint32_t result =
        is_anonymous ? add_volatile_key(texts.key.c_str(), text, size)
                     : add_volatile_based_key(texts.uid.c_str(), texts.name.c_str(),
                                              texts.key.c_str(), texts.metadata, text, size);
    const uint32_t expected = is_anonymous ? model::add_volatile_key(store, texts.key, size)
                                           : model::add_volatile_based_key(store, texts, size);
    demand(result == expected, "a key is added to the volatile tree");
    demand_handle(result, text, *store);
}

void remove_key(Store* store, Input* input)
{
    const std::string uid = take_of(input, UIDS);
    const std::string name = take_of(input, NAMES);
    demand((name == "crk" ? delete_crk(uid.c_str())
                          : delete_key_by_key_type(uid.c_str(), name.c_str())) ==
               model::delete_key_by_key_type(store, uid, name),
           "a key is deleted by its name");
}

void remove_by_handle(Store* store, Input* input)
{
    const std::string handle = take_handle(input);
    demand(delete_key_by_handle(handle.c_str()) == model::delete_key_by_handle(store, handle),
           "a key is deleted by its handle");
}

void copy_key(Store* store, Input* input)
{
    const std::string uid = take_of(input, UIDS);
    const std::string name = take_of(input, NAMES);
    const std::string copy = take_of(input, NAMES);
    demand(copy_private_key(uid.c_str(), name.c_str(), copy.c_str()) ==
               model::copy_private_key(store, uid, name, copy),
           "a key is copied");
}

void overwrite_srk_key(Store* store, Input* input)
{
    const std::string uid = take_of(input, UIDS);
    const std::string handle = take_handle(input);
    demand(set_new_srk_key_data_for_uid(uid.c_str(), handle.c_str()) ==
               model::set_new_srk_key_data_for_uid(store, uid, handle),
           "a root key is overwritten");
}

void check_key(const Store& store, Input* input)
{
    const std::string uid = take_of(input, UIDS);
    const std::string name = take_of(input, NAMES);
    uint8_t key[64];
    uint32_t size = sizeof key;
    const std::optional<std::string> text = model::key_text_in(store, uid, name);
    demand(get_key(reinterpret_cast<const unsigned char*>(uid.c_str()), name.c_str(), key, &size) ==
               (text ? 0U : 1U),
           "a key is found where the model has it");
    demand(!text || Bytes(key, key + size) == key_of_text(*text), "and is the one that was stored");
}

// What the files and the tree hold in the end.
Records volatile_records()
{
    Records records;
    const xmlNode* first = tmpTree_rootNode != NULL ? tmpTree_rootNode->children : NULL;
    for (const xmlNode* node = first; node != NULL; node = node->next) {
        records.push_back(record_of(node, tmpTree_rootNode));
    }
    return records;
}

void check_store(const Store& expected)
{
    const Store store = model::read_store();
    demand(store.private_file.is_readable && store.public_file.is_readable, "the files are whole");
    demand(store.private_file.records == expected.private_file.records, "the private file's keys");
    demand(store.public_file.records == expected.public_file.records, "the public file's keys");
    demand(volatile_records() == expected.volatile_tree, "the volatile tree's keys");
}

// ---- Programs

void call_store(Machine* machine, uint8_t operation, Input* input)
{
    void (*const CHANGES[])(Store*, Input*) = {add_key,          add_shortcut, add_to_volatile_tree,
                                               remove_key,       copy_key,     remove_by_handle,
                                               overwrite_srk_key};
    const size_t count = sizeof CHANGES / sizeof *CHANGES;
    if (operation < count) {
        CHANGES[operation](&machine->store, input);
    } else {
        check_key(machine->store, input);
    }
}

void call_driver(Machine* machine, uint8_t operation, Input* input)
{
    Context* context = &machine->contexts[take_byte(input) % 2];
    if (operation == 0 || !context->model) {
        open_or_close(context, input);
        return;
    }
    switch (operation) {
    case 1:
        return clear(context);
    case 2:
    case 3:
        return load_named(machine->store, context, input);
    case 4:
        return load_given(context, input);
    case 5:
        return load_kts_signing_key(machine->store, context, input);
    case 6:
        return derive_from_root(context, input);
    case 7:
        return derive_by_agreement(machine->store, context, input);
    case 8:
        return derive_kts_hmac_key(machine->store, context, input);
    case 9:
        return check_signing(*context, input);
    case 10:
        return check_verifying(*context, input);
    default:
        return check_tag(*context, input);
    }
}

void release(Machine* machine)
{
    for (Context& context : machine->contexts) {
        if (context.model) {
            close(&context);
        }
    }
    for (mbedtls_md_context_t& context : digest_contexts) {
        mbedtls_md_free(&context);
    }
    digest_contexts.clear();
    xmlFreeNode(tmpTree_rootNode);
    tmpTree_rootNode = NULL;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const FILE* const messages = freopen("/dev/null", "w", stdout);
    demand(messages != nullptr, "there is a place for messages");

    Input input = {data, std::min<size_t>(size, 512)};
    write_files();
    Machine machine = {model::read_store(), {}};
    while (input.left > 0) {
        const uint8_t operation = take_byte(&input) % 24;
        if (operation < 12) {
            call_driver(&machine, operation, &input);
        } else {
            call_store(&machine, static_cast<uint8_t>(operation - 12), &input);
        }
    }
    check_store(machine.store);
    release(&machine);
    return 0;
}
