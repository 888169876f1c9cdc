/*
 * A session key agreed on with a peer: ECDH, then a tag under the session key.
 *
 *     ecdh_session [directory]
 *
 * Works on the key store of the directory, or makes one with the device's key of the example in
 * RFC 5903, section 8.1; the peer is the other side of that example. The keys are published: use
 * them for nothing else.
 */
#include "example_support.h"

#include <stdio.h>
#include <string.h>

static const char device_uid[] = "0123456789abcdef0123456789abcdef";
static const uint8_t amtc0[] = {0x20, 0x26, 0x11, 0x21, 0x00, 0x01};
static const char message[] = "Set valve 7 to 40 percent";

static const struct stored_key private_keys[] = {
    {"ecdh_prv", "c88f01f510d9ac3f70a292daa2316de544e9aab8afe84049c62a9c57862d1433"}, {NULL, NULL}};

/* What the peer sent: X and Y of its public key. Check that the point lies on the curve before you
   use one that came from elsewhere; the library does not. */
static const char peer_key_text[] =
    "d12dfb5289c8d4f81208b70270398c342296970a0bccb74c736fc7554494bf63"
    "56fbf3ca366cc23e8157854c13c58d6aac23f046ada30f8353e74f33039872ab";

static bool derive_and_tag(const uint8_t* context_buf)
{
    uint8_t peer_key[64];
    uint8_t tag[32] = {0};
    char amtc0_text[2 * sizeof amtc0 + 1] = "";
    char tag_text[65] = "";

    from_hex(peer_key, peer_key_text, sizeof peer_key);
    to_hex(amtc0_text, amtc0, sizeof amtc0);
    if (!step("derive_ecdh_session_key",
              derive_ecdh_session_key(context_buf, peer_key, amtc0, sizeof amtc0, false), "AMTC0",
              amtc0_text)) {
        return false;
    }
    const KeyLibraryErrorCode code = gen_session_sha256_hmac(context_buf, (const uint8_t*)message,
                                                             (uint32_t)strlen(message), tag);
    to_hex(tag_text, tag, sizeof tag);
    return step("gen_session_sha256_hmac", code, "tag", tag_text);
}

static bool request(void)
{
    KeyLibraryContext context = NULL;
    uint8_t* context_buf = (uint8_t*)&context;

    printf("A message tagged for a peer: %s\n", message);
    if (!step("key_lib_open", key_lib_open(device_uid, NULL, NULL, context_buf), "peer",
              peer_key_text)) {
        return false;
    }
    const bool ok = derive_and_tag(context_buf);
    return step("key_lib_close", key_lib_close(context_buf), "keys", "wiped") && ok;
}

int main(int argc, char** argv)
{
    const struct stored_key no_keys[] = {{NULL, NULL}};
    return end_example(begin_example(argc, argv, device_uid, private_keys, no_keys) && request());
}
