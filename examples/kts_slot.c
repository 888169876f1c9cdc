/*
 * The two keys of a KTS slot: a tag under the slot's HMAC key, and a signature with its ECDSA key.
 *
 *     kts_slot [directory]
 *
 * Works on the key store of the directory, or makes one with slot 3: its ECDSA key is the example
 * key of RFC 6979, appendix A.2.5, its ECDH key and the peer's are those of RFC 5903, section 8.1.
 * They are published: use them for nothing else.
 */
#include "example_support.h"

#include <stdio.h>
#include <string.h>

static const char device_uid[] = "0123456789abcdef0123456789abcdef";
static const uint32_t slot = 3;
static const char message[] = "Set valve 7 to 40 percent";

static const struct stored_key private_keys[] = {
    {"ecdsa_prv_slot_3", "c9afa9d845ba75166b5c215767b1d6934e50c3db36e89b127b8a622b120f6721"},
    {"ecdh_prv_slot_3", "c88f01f510d9ac3f70a292daa2316de544e9aab8afe84049c62a9c57862d1433"},
    {NULL, NULL}};

static const char peer_key_text[] =
    "d12dfb5289c8d4f81208b70270398c342296970a0bccb74c736fc7554494bf63"
    "56fbf3ca366cc23e8157854c13c58d6aac23f046ada30f8353e74f33039872ab";

static bool make_tag(const uint8_t* context_buf)
{
    uint8_t tag[32] = {0};
    char tag_text[65] = "";
    const KeyLibraryErrorCode code =
        gen_kts_sha256_hmac(context_buf, (const uint8_t*)message, (uint32_t)strlen(message), tag);
    to_hex(tag_text, tag, sizeof tag);
    return step("gen_kts_sha256_hmac", code, "tag", tag_text);
}

static bool sign(const uint8_t* context_buf)
{
    uint8_t signature[64] = {0};
    char signature_text[129] = "";
    const KeyLibraryErrorCode code = generate_kts_ecdsa_signature(
        context_buf, (const uint8_t*)message, (uint32_t)strlen(message), signature);
    to_hex(signature_text, signature, sizeof signature);
    return step("generate_kts_ecdsa_signature", code, "signature", signature_text);
}

static bool use_slot(const uint8_t* context_buf)
{
    uint8_t peer_key[64];
    from_hex(peer_key, peer_key_text, sizeof peer_key);

    /* The HMAC key first: it decides which slot the context takes for the current one. */
    return step("set_kts_hmac_signing_key",
                set_kts_hmac_signing_key(context_buf, slot, peer_key, false), "key",
                "ecdh_prv_slot_3") &&
           step("set_kts_ecdsa_signing_key", set_kts_ecdsa_signing_key(context_buf, slot, false),
                "key", "ecdsa_prv_slot_3") &&
           make_tag(context_buf) && sign(context_buf);
}

static bool request(void)
{
    KeyLibraryContext context = NULL;
    uint8_t* context_buf = (uint8_t*)&context;

    printf("A message for KTS slot 3: %s\n", message);
    if (!step("key_lib_open", key_lib_open(device_uid, NULL, NULL, context_buf), "peer",
              peer_key_text)) {
        return false;
    }
    const bool ok = use_slot(context_buf);
    return step("key_lib_close", key_lib_close(context_buf), "keys", "wiped, but for the slot's") &&
           ok;
}

int main(int argc, char** argv)
{
    const struct stored_key no_keys[] = {{NULL, NULL}};
    return end_example(begin_example(argc, argv, device_uid, private_keys, no_keys) && request());
}
