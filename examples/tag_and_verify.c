/*
 * Tagging a message under a session key, and checking the tag.
 *
 *     tag_and_verify [directory]
 *
 * Works on the key store of the directory, or makes one with a random root key ("srk") for one
 * device.
 */
#include "example_support.h"

#include <stdio.h>
#include <string.h>

static const char device_uid[] = "0123456789abcdef0123456789abcdef";
static const uint8_t amtc0[] = {0x20, 0x26, 0x11, 0x21};
static const char message[] = "Set valve 7 to 40 percent";

/* Whether the tag is found to be as expected. A wrong tag is not an error: the result is
   KeyLibrary_OK, and `verified` says no. */
static bool check_tag(const uint8_t* context_buf, const uint8_t* tag, bool expected)
{
    bool verified = !expected;
    const KeyLibraryErrorCode code = verify_session_sha256_hmac(
        context_buf, (const uint8_t*)message, (uint32_t)strlen(message), tag, &verified);
    return step("verify_session_sha256_hmac", code, "verified", verified ? "true" : "false") &&
           verified == expected;
}

static bool make_and_check_tag(const uint8_t* context_buf)
{
    uint8_t tag[32] = {0};
    char tag_text[65] = "";
    const KeyLibraryErrorCode code = gen_session_sha256_hmac(context_buf, (const uint8_t*)message,
                                                             (uint32_t)strlen(message), tag);
    to_hex(tag_text, tag, sizeof tag);
    if (!step("gen_session_sha256_hmac", code, "tag", tag_text) ||
        !check_tag(context_buf, tag, true)) {
        return false;
    }

    printf("  ... with one bit of the tag flipped:\n");
    tag[0] ^= 0x01;
    return check_tag(context_buf, tag, false);
}

static bool use_session_key(const uint8_t* context_buf)
{
    char amtc0_text[2 * sizeof amtc0 + 1] = "";
    to_hex(amtc0_text, amtc0, sizeof amtc0);
    return step("set_srk_as_hmac_root_signing_key",
                set_srk_as_hmac_root_signing_key(context_buf, false), "key", "srk") &&
           step("derive_hmac_session_key",
                derive_hmac_session_key(context_buf, amtc0, sizeof amtc0, false), "AMTC0",
                amtc0_text) &&
           make_and_check_tag(context_buf);
}

static bool request(void)
{
    /* A context is handled by the address of a location that holds its pointer. */
    KeyLibraryContext context = NULL;
    uint8_t* context_buf = (uint8_t*)&context;

    printf("A tagged message: %s\n", message);
    if (!step("key_lib_open", key_lib_open(device_uid, NULL, NULL, context_buf), "UID",
              device_uid)) {
        return false;
    }
    const bool ok = use_session_key(context_buf);
    /* Whatever happened before: closing wipes the keys. */
    return step("key_lib_close", key_lib_close(context_buf), "keys", "wiped") && ok;
}

int main(int argc, char** argv)
{
    uint8_t root_key[32];
    char root_key_text[65] = "";
    const struct stored_key private_keys[] = {{"srk", root_key_text}, {NULL, NULL}};
    const struct stored_key no_keys[] = {{NULL, NULL}};
    if (!fill_random(root_key, sizeof root_key)) {
        return end_example(false);
    }
    to_hex(root_key_text, root_key, sizeof root_key);
    wipe(root_key, sizeof root_key);
    const bool begun = begin_example(argc, argv, device_uid, private_keys, no_keys);
    wipe(root_key_text, sizeof root_key_text);
    return end_example(begun && request());
}
