// The key driver: a context per UID, the keys loaded and derived into it, and their use.

#include "zentrava_key_driver.h"

#include "../ecc/ecc.h"
#include "zentrava_key_management_utils.h"

#include <mbedtls/md.h>
#include <mbedtls/sha256.h>
#include <mbedtls/version.h>

#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#undef NDEBUG // preconditions are checked in every build type, Release included
#include <assert.h>

static const uint32_t HMAC_KEY_LEN = 32; // every HMAC key is used with this length
static const uint32_t DIGEST_LEN = 32;   // of SHA-256
static const uint32_t PRIVATE_KEY_LEN = 32;
static const uint32_t POINT_LEN = 64;           // X, then Y
static const uint8_t UNCOMPRESSED_POINT = 0x04; // in front of X and Y (SEC 1, section 2.3.3)
static const uint32_t MAX_PWR_ON_AMTC0_LEN = 6;

struct KeyLibraryContext_struct {
    uint8_t* uid;                               // NUL-terminated copy of the caller's
    uint8_t pwr_on_amtc0[MAX_PWR_ON_AMTC0_LEN]; // what the session key was derived from
    uint32_t pwr_on_amtc0_len;                  // 0 while no session key has been derived
    uint8_t* hmac_root_key;                     // every key: its own heap buffer, null when
    uint8_t* hmac_session_key;                  // not loaded
    uint8_t* ecdsa_signing_key;
    uint8_t* ecdsa_verification_key; // 0x04, X, Y
    uint8_t* ecdh_pub_key;           // the peer's: 0x04, X, Y
    uint32_t kts_slot;               // the slot that kts_hmac_signing_key was derived for
    uint8_t* kts_hmac_signing_key;
    uint8_t* kts_ecdsa_signing_key;
};

static_assert(sizeof(KeyLibraryErrorCode) == 4, "result codes are 32 bits wide");
static_assert(sizeof(KeyLibraryContext) == sizeof(void*), "a context is handled by its pointer");
static_assert(offsetof(KeyLibraryContext_struct, uid) == 0, "the UID comes first");
static_assert(offsetof(KeyLibraryContext_struct, pwr_on_amtc0) == sizeof(void*),
              "the AMTC0 value follows the UID");
static_assert(offsetof(KeyLibraryContext_struct, pwr_on_amtc0_len) == sizeof(void*) + 8,
              "its length follows at the next multiple of 4");
static_assert(sizeof(void*) != 4 || sizeof(KeyLibraryContext_struct) == 48,
              "on the 32-bit target the record has 12 words");

// ---------------------------------------------------------------------------------------------
// Context
// ---------------------------------------------------------------------------------------------

// `context_buf` is a byte address and may be unaligned, hence no access through a pointer type.
static KeyLibraryContext read_context(const uint8_t* context_buf)
{
    KeyLibraryContext context;
    memcpy(&context, context_buf, sizeof(KeyLibraryContext));
    return context;
}

static void write_context(uint8_t* context_buf, KeyLibraryContext context)
{
    memcpy(context_buf, &context, sizeof(KeyLibraryContext));
}

// Overwrites `len` bytes of a heap buffer and frees it; a null buffer is left alone.
// explicit_bzero is the library's one way to wipe: the optimiser may not drop it.
static void wipe_and_free(uint8_t* buffer, size_t len)
{
    if (buffer != NULL) {
        explicit_bzero(buffer, len);
        free(buffer);
    }
}

KeyLibraryErrorCode key_lib_open(const char* uid, const char* /*device_info_json*/,
                                 const uint8_t* /*user_defined_data*/, uint8_t* context_buf)
{
    if (uid == NULL || uid[0] == '\0') {
        return KeyLibrary_BAD_PARAMETER;
    }

    KeyLibraryContext context =
        static_cast<KeyLibraryContext>(calloc(1, sizeof(KeyLibraryContext_struct)));
    if (context == NULL) {
        return KeyLibrary_MEMORY;
    }
    const size_t uid_size = strlen(uid) + 1;
    context->uid = static_cast<uint8_t*>(malloc(uid_size));
    if (context->uid == NULL) {
        return KeyLibrary_MEMORY; // the record is lost, deliberately NOLINT(*-unix.Malloc)
    }
    memcpy(context->uid, uid, uid_size);
    write_context(context_buf, context);
    return KeyLibrary_OK;
}

// Wipes and frees the key buffers and frees the UID; the pointers stay as they are.
// The lengths are deliberate, also where a buffer is longer; the KTS keys are not touched.
static void _clear_context_keys(KeyLibraryContext context)
{
    wipe_and_free(context->hmac_root_key, 32);
    wipe_and_free(context->hmac_session_key, 32);
    wipe_and_free(context->ecdh_pub_key, 64);
    wipe_and_free(context->ecdsa_signing_key, 32);
    wipe_and_free(context->ecdsa_verification_key, 33);
    free(context->uid);
}

KeyLibraryErrorCode key_lib_close(uint8_t* context_buf)
{
    if (context_buf == NULL) {
        return KeyLibrary_OK; // unlike key_lib_clear_keys
    }

    KeyLibraryContext context = read_context(context_buf);
    _clear_context_keys(context);
    free(context);
    return KeyLibrary_OK;
}

KeyLibraryErrorCode key_lib_clear_keys(const uint8_t* context_buf)
{
    if (context_buf == NULL) {
        return KeyLibrary_BAD_PARAMETER;
    }

    KeyLibraryContext context = read_context(context_buf);
    uint8_t* uid = context->uid;
    context->uid = NULL;
    _clear_context_keys(context);
    // The pointers to the KTS keys go with the rest; what they point to is not freed.
    explicit_bzero(context, sizeof *context);
    context->uid = uid;
    return KeyLibrary_OK;
}

// ---------------------------------------------------------------------------------------------
// Key selection
// ---------------------------------------------------------------------------------------------

typedef uint8_t* KeyLibraryContext_struct::*KeyField;

// How much of a buffer is wiped when the store's key has the wrong length.
enum WrongLengthWipe {
    WIPE_WHOLE_KEY,      // the required length
    WIPE_REPORTED_LENGTH // what the store reported, and the bytes in front of the key
};

// A key that is loaded from the store under a fixed name.
struct NamedKey {
    KeyField field;
    const char* name;
    uint32_t prefix_len; // bytes of the buffer in front of the key: 1 for the 0x04 of a point
    uint32_t key_len;    // required of the store
    bool needs_uid;      // whether a context without UID is refused, or left to the store
    WrongLengthWipe wipe;
};

typedef KeyLibraryContext_struct Fields;
static const NamedKey SRK = {&Fields::hmac_root_key, "srk", 0, 32, true, WIPE_WHOLE_KEY};
static const NamedKey CRK = {&Fields::hmac_root_key, "crk", 0, 32, false, WIPE_WHOLE_KEY};
static const NamedKey CSK = {
    &Fields::hmac_session_key, "tmp_client_session_key", 0, 32, false, WIPE_WHOLE_KEY};
static const NamedKey ECDSA_PRIVATE = {&Fields::ecdsa_signing_key, "ecdsa_prv", 0, 32, true,
                                       WIPE_REPORTED_LENGTH};
static const NamedKey ECDSA_PUBLIC = {
    &Fields::ecdsa_verification_key, "ECDSA_DS_PuK", 1, 64, true, WIPE_REPORTED_LENGTH};

// Gives a field that is null a zeroed buffer; a buffer in place stays. False without memory.
static bool ensure_buffer(uint8_t** field, size_t size)
{
    if (*field == NULL) {
        *field = static_cast<uint8_t*>(calloc(1, size));
    }
    return *field != NULL;
}

// Fetches the key from the store into the field's buffer, a new one if there is none. When the
// store fails, the buffer stays attached as it is, so that a later load without `force` finds it in
// place and succeeds.
static KeyLibraryErrorCode fetch_key(KeyLibraryContext context, const NamedKey& key)
{
    uint8_t*& buffer = context->*key.field;
    if (!ensure_buffer(&buffer, key.prefix_len + key.key_len)) {
        return KeyLibrary_MEMORY;
    }
    if (key.prefix_len == 1) {
        buffer[0] = UNCOMPRESSED_POINT;
    }
    uint32_t len = key.key_len;
    if (get_key(context->uid, key.name, buffer + key.prefix_len, &len) != 0) {
        return KeyLibrary_KEY_NOT_FOUND;
    }
    if (len == key.key_len) {
        return KeyLibrary_OK;
    }
    // Never more than the buffer holds: the store refuses a key longer than asked for.
    wipe_and_free(buffer, key.wipe == WIPE_WHOLE_KEY ? key.key_len : key.prefix_len + len);
    buffer = NULL;
    return KeyLibrary_INVALID_KEY;
}

static KeyLibraryErrorCode load_key(const uint8_t* context_buf, const NamedKey& key, bool force)
{
    if (context_buf == NULL) {
        return KeyLibrary_BAD_PARAMETER;
    }
    KeyLibraryContext context = read_context(context_buf);
    if (key.needs_uid && context->uid == NULL) {
        return KeyLibrary_BAD_PARAMETER;
    }
    if (!force && context->*key.field != NULL) {
        return KeyLibrary_OK; // the key loaded first stays
    }
    return fetch_key(context, key);
}

KeyLibraryErrorCode set_srk_as_hmac_root_signing_key(const uint8_t* context_buf, bool force)
{
    return load_key(context_buf, SRK, force);
}

KeyLibraryErrorCode set_crk_as_hmac_root_signing_key(const uint8_t* context_buf, bool force)
{
    return load_key(context_buf, CRK, force);
}

KeyLibraryErrorCode set_csk_as_hmac_session_signing_key(const uint8_t* context_buf, bool force)
{
    return load_key(context_buf, CSK, force);
}

KeyLibraryErrorCode set_ecdsa_signing_key(const uint8_t* context_buf, bool force)
{
    return load_key(context_buf, ECDSA_PRIVATE, force);
}

KeyLibraryErrorCode set_ecdsa_verification_key(const uint8_t* context_buf, bool force)
{
    return load_key(context_buf, ECDSA_PUBLIC, force);
}

// Takes an HMAC key from the caller: `key_len` bytes into a new buffer, the first 32 into one that
// is in place, whose size is not known to be more. No more than 32 bytes are ever used.
static KeyLibraryErrorCode take_hmac_key(const uint8_t* context_buf, KeyField key_field,
                                         const char* key, uint32_t key_len)
{
    if (context_buf == NULL || key == NULL) {
        return KeyLibrary_BAD_PARAMETER;
    }
    if (key_len < HMAC_KEY_LEN) {
        return KeyLibrary_INVALID_KEY;
    }
    uint8_t** field = &(read_context(context_buf)->*key_field);
    const uint32_t copy_len = *field == NULL ? key_len : HMAC_KEY_LEN;
    if (!ensure_buffer(field, key_len)) {
        return KeyLibrary_MEMORY;
    }
    memcpy(*field, key, copy_len);
    return KeyLibrary_OK;
}

KeyLibraryErrorCode set_hmac_root_signing_key(const uint8_t* context_buf, const char* key,
                                              uint32_t key_len)
{
    return take_hmac_key(context_buf, &Fields::hmac_root_key, key, key_len);
}

KeyLibraryErrorCode set_hmac_session_key(const uint8_t* context_buf, const char* key,
                                         uint32_t key_len)
{
    return take_hmac_key(context_buf, &Fields::hmac_session_key, key, key_len);
}

// ---------------------------------------------------------------------------------------------
// HMAC-SHA256 (RFC 2104, FIPS 180-4)
// ---------------------------------------------------------------------------------------------

// Reports a failed step of the HMAC computation; `result` is what mbed TLS returned.
static bool hmac_step_failed(const char* function, int result)
{
    if (result != 0) {
        printf("  ! %s() returned -0x%04x\n", function, static_cast<unsigned int>(-result));
    }
    return result != 0;
}

// Feeds the message in pieces of one staging buffer's size, 32 bytes.
static int update_in_pieces(mbedtls_md_context_t* hmac, const uint8_t* msg, size_t msg_len)
{
    const size_t piece_len = 32;
    int result = 0;
    for (size_t offset = 0; offset < msg_len && result == 0; offset += piece_len) {
        const size_t left = msg_len - offset;
        result = mbedtls_md_hmac_update(hmac, msg + offset, left < piece_len ? left : piece_len);
    }
    return result;
}

KeyLibraryErrorCode _sha256_hmac(const uint8_t* key, int key_len, const uint8_t* msg_buf,
                                 const int msg_size, uint8_t* digest)
{
    assert(key != NULL && msg_buf != NULL && digest != NULL);

    // The digest context is never released, on no path: mbedtls_md_free stays uncalled.
    mbedtls_md_context_t hmac;
    mbedtls_md_init(&hmac);
    const mbedtls_md_info_t* sha256 = mbedtls_md_info_from_type(MBEDTLS_MD_SHA256);
    if (hmac_step_failed("mbedtls_md_setup", mbedtls_md_setup(&hmac, sha256, 1))) {
        return KeyLibrary_CRYPTO;
    }
    if (hmac_step_failed("mbedtls_md_hmac_starts",
                         mbedtls_md_hmac_starts(&hmac, key, static_cast<size_t>(key_len)))) {
        return KeyLibrary_CRYPTO;
    }
    // A negative size feeds nothing: the tag is that of the empty message.
    const size_t msg_len = msg_size > 0 ? static_cast<size_t>(msg_size) : 0;
    if (hmac_step_failed("mbedtls_md_hmac_update", update_in_pieces(&hmac, msg_buf, msg_len))) {
        return KeyLibrary_CRYPTO;
    }
    if (hmac_step_failed("mbedtls_md_hmac_finish", mbedtls_md_hmac_finish(&hmac, digest))) {
        return KeyLibrary_CRYPTO;
    }
    return KeyLibrary_OK;
}

static KeyLibraryErrorCode gen_sha256_hmac(const uint8_t* context_buf, KeyField key_field,
                                           const uint8_t* msg_buf, uint32_t msg_len,
                                           uint8_t* digest)
{
    if (context_buf == NULL || msg_buf == NULL || digest == NULL) {
        return KeyLibrary_BAD_PARAMETER;
    }
    const uint8_t* key = read_context(context_buf)->*key_field;
    if (key == NULL) {
        return KeyLibrary_KEY_NOT_FOUND;
    }
    return _sha256_hmac(key, HMAC_KEY_LEN, msg_buf, static_cast<int>(msg_len), digest);
}

KeyLibraryErrorCode gen_root_sha256_hmac(const uint8_t* context_buf, const uint8_t* msg_buf,
                                         uint32_t msg_len, uint8_t* digest)
{
    return gen_sha256_hmac(context_buf, &Fields::hmac_root_key, msg_buf, msg_len, digest);
}

KeyLibraryErrorCode gen_session_sha256_hmac(const uint8_t* context_buf, const uint8_t* msg_buf,
                                            uint32_t msg_len, uint8_t* digest)
{
    return gen_sha256_hmac(context_buf, &Fields::hmac_session_key, msg_buf, msg_len, digest);
}

KeyLibraryErrorCode gen_kts_sha256_hmac(const uint8_t* context_buf, const uint8_t* msg_buf,
                                        uint32_t msg_len, uint8_t* digest)
{
    return gen_sha256_hmac(context_buf, &Fields::kts_hmac_signing_key, msg_buf, msg_len, digest);
}

static KeyLibraryErrorCode _verify_sha256_hmac(const uint8_t* key, const uint8_t* msg,
                                               uint32_t msg_len, const uint8_t* sig, bool* verified)
{
    assert(key != NULL && msg != NULL && sig != NULL && verified != NULL);

    uint8_t digest[DIGEST_LEN];
    const KeyLibraryErrorCode result =
        _sha256_hmac(key, HMAC_KEY_LEN, msg, static_cast<int>(msg_len), digest);
    if (result != KeyLibrary_OK) {
        return result;
    }
    *verified = memcmp(digest, sig, DIGEST_LEN) == 0; // an ordinary comparison, not constant-time
    return KeyLibrary_OK;
}

static KeyLibraryErrorCode verify_sha256_hmac(const uint8_t* context_buf, KeyField key_field,
                                              const uint8_t* msg, uint32_t msg_len,
                                              const uint8_t* sig, bool* verified)
{
    if (msg == NULL || context_buf == NULL || verified == NULL || sig == NULL) {
        return KeyLibrary_BAD_PARAMETER;
    }
    const uint8_t* key = read_context(context_buf)->*key_field;
    if (key == NULL) {
        return KeyLibrary_KEY_NOT_FOUND;
    }
    return _verify_sha256_hmac(key, msg, msg_len, sig, verified);
}

KeyLibraryErrorCode verify_root_sha256_hmac(const uint8_t* context_buf, const uint8_t* msg,
                                            uint32_t msg_len, const uint8_t* sig, bool* verified)
{
    return verify_sha256_hmac(context_buf, &Fields::hmac_root_key, msg, msg_len, sig, verified);
}

KeyLibraryErrorCode verify_session_sha256_hmac(const uint8_t* context_buf, const uint8_t* msg,
                                               uint32_t msg_len, const uint8_t* sig, bool* verified)
{
    return verify_sha256_hmac(context_buf, &Fields::hmac_session_key, msg, msg_len, sig, verified);
}

// ---------------------------------------------------------------------------------------------
// Session key derivation
// ---------------------------------------------------------------------------------------------

static bool is_amtc0_len(uint32_t len)
{
    return len >= 1 && len <= MAX_PWR_ON_AMTC0_LEN;
}

// Whether a session key is in place and this is the remembered value. Where the key came from is
// not asked: one that was loaded or set after the derivation counts as in place too.
static bool session_key_is_in_place(KeyLibraryContext context, const uint8_t* amtc0,
                                    uint32_t amtc0_len)
{
    return context->hmac_session_key != NULL && amtc0_len == context->pwr_on_amtc0_len &&
           memcmp(amtc0, context->pwr_on_amtc0, amtc0_len) == 0;
}

// Sets the session key to HMAC-SHA256(key, AMTC0 value) and remembers the value. A failure frees
// the session key, unwiped, and leaves the remembered value as it was.
static KeyLibraryErrorCode derive_session_key_from(KeyLibraryContext context, const uint8_t* key,
                                                   const uint8_t* amtc0, uint32_t amtc0_len)
{
    const KeyLibraryErrorCode result = _sha256_hmac(
        key, HMAC_KEY_LEN, amtc0, static_cast<int>(amtc0_len), context->hmac_session_key);
    if (result == KeyLibrary_OK) {
        context->pwr_on_amtc0_len = amtc0_len;
        memcpy(context->pwr_on_amtc0, amtc0, amtc0_len);
    } else {
        free(context->hmac_session_key);
        context->hmac_session_key = NULL;
    }
    return result;
}

KeyLibraryErrorCode derive_hmac_session_key(const uint8_t* context_buf, const uint8_t* powerOnAmtc0,
                                            uint32_t powerOnAmtc0_len, bool force)
{
    if (context_buf == NULL || powerOnAmtc0 == NULL || !is_amtc0_len(powerOnAmtc0_len)) {
        return KeyLibrary_BAD_PARAMETER;
    }
    KeyLibraryContext context = read_context(context_buf);
    if (context->hmac_root_key == NULL) {
        return KeyLibrary_KEY_NOT_FOUND;
    }
    if (!force && session_key_is_in_place(context, powerOnAmtc0, powerOnAmtc0_len)) {
        return KeyLibrary_OK;
    }
    if (!ensure_buffer(&context->hmac_session_key, HMAC_KEY_LEN)) {
        return KeyLibrary_MEMORY;
    }
    return derive_session_key_from(context, context->hmac_root_key, powerOnAmtc0, powerOnAmtc0_len);
}

// ---------------------------------------------------------------------------------------------
// ECDSA (FIPS 186-4, with P-256 and SHA-256)
// ---------------------------------------------------------------------------------------------

// The name that mbed TLS 2.28 has for this function is another in 3.x.
#if MBEDTLS_VERSION_MAJOR >= 3
static int mbedtls_sha256_ret(const unsigned char* input, size_t len, unsigned char* output,
                              int is224)
{
    return mbedtls_sha256(input, len, output, is224);
}
#endif

// A failure is not looked at: the hash is then all zeros, or what mbed TLS left.
static void hash_message(const uint8_t* msg, uint32_t msg_len, uint8_t* hash)
{
    memset(hash, 0, DIGEST_LEN);
    static_cast<void>(mbedtls_sha256_ret(msg, msg_len, hash, 0));
}

static KeyLibraryErrorCode sign_message(const uint8_t* context_buf, KeyField key_field,
                                        const uint8_t* msg, uint32_t msg_len, uint8_t* signature)
{
    if (context_buf == NULL || msg == NULL || signature == NULL) {
        return KeyLibrary_BAD_PARAMETER;
    }
    const uint8_t* key = read_context(context_buf)->*key_field;
    if (key == NULL) {
        return KeyLibrary_KEY_NOT_FOUND;
    }
    uint8_t hash[DIGEST_LEN];
    hash_message(msg, msg_len, hash);
    return ecdsa_sign(key, hash, signature) != 0 ? KeyLibrary_OK : KeyLibrary_CRYPTO;
}

KeyLibraryErrorCode generate_ecdsa_signature(const uint8_t* context_buf, const uint8_t* msg_buf,
                                             uint32_t msg_len, uint8_t* signature)
{
    return sign_message(context_buf, &Fields::ecdsa_signing_key, msg_buf, msg_len, signature);
}

KeyLibraryErrorCode generate_kts_ecdsa_signature(const uint8_t* context_buf, const uint8_t* msg_buf,
                                                 uint32_t msg_len, uint8_t* signature)
{
    return sign_message(context_buf, &Fields::kts_ecdsa_signing_key, msg_buf, msg_len, signature);
}

KeyLibraryErrorCode verify_ecdsa_signature(const uint8_t* context_buf, const uint8_t* msg,
                                           uint32_t msg_len, const uint8_t* sig, bool* verified)
{
    if (msg == NULL || context_buf == NULL || sig == NULL || verified == NULL) {
        return KeyLibrary_BAD_PARAMETER;
    }
    const uint8_t* key = read_context(context_buf)->ecdsa_verification_key;
    if (key == NULL) {
        return KeyLibrary_KEY_NOT_FOUND;
    }
    uint8_t hash[DIGEST_LEN];
    hash_message(msg, msg_len, hash);
    *verified = ecdsa_verify(key, hash, sig) != 0;
    return KeyLibrary_OK;
}

// ---------------------------------------------------------------------------------------------
// ECDH
// ---------------------------------------------------------------------------------------------

static bool peer_key_is_in_place(KeyLibraryContext context, const uint8_t* peer_key)
{
    return context->ecdh_pub_key != NULL &&
           memcmp(context->ecdh_pub_key + 1, peer_key, POINT_LEN) == 0;
}

// Keeps the peer's key in the context, where it stays whatever comes of the operation. False
// without memory.
static bool keep_peer_key(KeyLibraryContext context, const uint8_t* peer_key)
{
    if (!ensure_buffer(&context->ecdh_pub_key, 1 + POINT_LEN)) {
        return false;
    }
    context->ecdh_pub_key[0] = UNCOMPRESSED_POINT;
    memcpy(context->ecdh_pub_key + 1, peer_key, POINT_LEN);
    return true;
}

// Fetches a private ECDH key of the context's UID, which may be null: that is left to the store.
static KeyLibraryErrorCode fetch_ecdh_private_key(KeyLibraryContext context, const char* key_name,
                                                  uint8_t* private_key)
{
    uint32_t len = PRIVATE_KEY_LEN;
    if (get_key(context->uid, key_name, private_key, &len) != 0) {
        return KeyLibrary_KEY_NOT_FOUND;
    }
    return len == PRIVATE_KEY_LEN ? KeyLibrary_OK : KeyLibrary_INVALID_KEY;
}

KeyLibraryErrorCode derive_ecdh_session_key(const uint8_t* context_buf, const uint8_t* ecdh_pub_key,
                                            const uint8_t* powerOnAmtc0, uint32_t powerOnAmtc0_len,
                                            bool force)
{
    if (ecdh_pub_key == NULL || powerOnAmtc0 == NULL || !is_amtc0_len(powerOnAmtc0_len) ||
        context_buf == NULL) {
        return KeyLibrary_BAD_PARAMETER;
    }
    KeyLibraryContext context = read_context(context_buf);
    if (!force && session_key_is_in_place(context, powerOnAmtc0, powerOnAmtc0_len) &&
        peer_key_is_in_place(context, ecdh_pub_key)) {
        return KeyLibrary_OK;
    }
    if (!keep_peer_key(context, ecdh_pub_key)) {
        return KeyLibrary_MEMORY;
    }

    // Neither the private key nor the secret is wiped here before returning.
    uint8_t private_key[PRIVATE_KEY_LEN];
    const KeyLibraryErrorCode fetched = fetch_ecdh_private_key(context, "ecdh_prv", private_key);
    if (fetched != KeyLibrary_OK) {
        return fetched;
    }
    uint8_t secret[HMAC_KEY_LEN] = {};
    if (ecdh_shared_secret(context->ecdh_pub_key, private_key, secret) == 0) {
        return KeyLibrary_CRYPTO;
    }
    if (!ensure_buffer(&context->hmac_session_key, HMAC_KEY_LEN)) {
        return KeyLibrary_MEMORY;
    }
    // Unlike derive_hmac_session_key, a failed HMAC is not reported: no session key is loaded then.
    derive_session_key_from(context, secret, powerOnAmtc0, powerOnAmtc0_len);
    return KeyLibrary_OK;
}

// ---------------------------------------------------------------------------------------------
// KTS slots
// ---------------------------------------------------------------------------------------------

static const size_t SLOT_KEY_NAME_SIZE = 32;

// Slot numbers are printed as signed decimals: slot 2^32 - 1 has the key "..._slot_-1".
static void get_kts_ecdsa_slot_key_name(uint32_t slot_num, char* key_name)
{
    snprintf(key_name, SLOT_KEY_NAME_SIZE, "ecdsa_prv_slot_%i", static_cast<int>(slot_num));
}

static void get_kts_ecdh_slot_key_name(uint32_t slot_num, char* key_name)
{
    snprintf(key_name, SLOT_KEY_NAME_SIZE, "ecdh_prv_slot_%i", static_cast<int>(slot_num));
}

KeyLibraryErrorCode set_kts_ecdsa_signing_key(const uint8_t* context_buf, uint32_t slot_id,
                                              bool force)
{
    if (context_buf == NULL) {
        return KeyLibrary_BAD_PARAMETER;
    }
    KeyLibraryContext context = read_context(context_buf);
    if (context->uid == NULL) {
        return KeyLibrary_BAD_PARAMETER;
    }
    // kts_slot is the slot of the HMAC key; it is compared with here, and never written.
    if (!force && context->kts_ecdsa_signing_key != NULL && context->kts_slot == slot_id) {
        return KeyLibrary_OK;
    }
    char key_name[SLOT_KEY_NAME_SIZE];
    get_kts_ecdsa_slot_key_name(slot_id, key_name);
    return fetch_key(context, {&Fields::kts_ecdsa_signing_key, key_name, 0, PRIVATE_KEY_LEN, true,
                               WIPE_REPORTED_LENGTH});
}

// The slot's HMAC key out of the peer's key in the context. `private_key` is the caller's to wipe.
static KeyLibraryErrorCode agree_on_kts_key(KeyLibraryContext context, uint32_t slot_id,
                                            uint8_t* private_key)
{
    char key_name[SLOT_KEY_NAME_SIZE];
    get_kts_ecdh_slot_key_name(slot_id, key_name);
    const KeyLibraryErrorCode fetched = fetch_ecdh_private_key(context, key_name, private_key);
    if (fetched != KeyLibrary_OK) {
        return fetched;
    }
    if (!ensure_buffer(&context->kts_hmac_signing_key, HMAC_KEY_LEN)) {
        return KeyLibrary_MEMORY;
    }
    // The shared secret itself is the key.
    if (ecdh_shared_secret(context->ecdh_pub_key, private_key, context->kts_hmac_signing_key) ==
        0) {
        return KeyLibrary_CRYPTO;
    }
    context->kts_slot = slot_id;
    return KeyLibrary_OK;
}

KeyLibraryErrorCode set_kts_hmac_signing_key(const uint8_t* context_buf, uint32_t slot_id,
                                             const uint8_t* ecdh_pub_key, bool force)
{
    if (ecdh_pub_key == NULL || context_buf == NULL) {
        return KeyLibrary_BAD_PARAMETER;
    }
    KeyLibraryContext context = read_context(context_buf);
    if (!force && context->kts_hmac_signing_key != NULL && context->kts_slot == slot_id &&
        peer_key_is_in_place(context, ecdh_pub_key)) {
        return KeyLibrary_OK;
    }
    if (!keep_peer_key(context, ecdh_pub_key)) {
        return KeyLibrary_MEMORY;
    }
    uint8_t private_key[PRIVATE_KEY_LEN];
    const KeyLibraryErrorCode result = agree_on_kts_key(context, slot_id, private_key);
    explicit_bzero(private_key, sizeof private_key);
    return result;
}
