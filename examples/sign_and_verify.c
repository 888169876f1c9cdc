/*
 * Signing a message with ECDSA, and verifying the signature, with keys from the key store.
 *
 *     sign_and_verify [directory]
 *
 * Works on the key store of the directory, or makes one with the example key pair of RFC 6979,
 * appendix A.2.5. It is published: use it for nothing else.
 */
#include "example_support.h"

#include <stdio.h>
#include <string.h>

static const char device_uid[] = "0123456789abcdef0123456789abcdef";
static const char message[] = "Set valve 7 to 40 percent";

static const struct stored_key private_keys[] = {
    {"ecdsa_prv", "c9afa9d845ba75166b5c215767b1d6934e50c3db36e89b127b8a622b120f6721"},
    {NULL, NULL}};
static const struct stored_key public_keys[] = {
    {"ECDSA_DS_PuK", "60fed4ba255a9d31c961eb74c6356d68c049b8923b61fa6ce669622e60f29fb6"
                     "7903fe1008b8bc99a41ae9e95628bc64f2f1b20c2d7e9f5177a3c294d4462299"},
    {NULL, NULL}};

static bool check(const uint8_t* context_buf, const uint8_t* signature, bool expected)
{
    bool verified = !expected;
    const KeyLibraryErrorCode code = verify_ecdsa_signature(
        context_buf, (const uint8_t*)message, (uint32_t)strlen(message), signature, &verified);
    return step("verify_ecdsa_signature", code, "verified", verified ? "true" : "false") &&
           verified == expected;
}

static bool sign_and_check(const uint8_t* context_buf)
{
    uint8_t signature[64] = {0};
    char signature_text[129] = "";
    const KeyLibraryErrorCode code = generate_ecdsa_signature(context_buf, (const uint8_t*)message,
                                                              (uint32_t)strlen(message), signature);
    to_hex(signature_text, signature, sizeof signature);
    if (!step("generate_ecdsa_signature", code, "signature", signature_text) ||
        !check(context_buf, signature, true)) {
        return false;
    }

    printf("  ... with one bit of the signature flipped:\n");
    signature[63] ^= 0x01;
    return check(context_buf, signature, false);
}

static bool request(void)
{
    KeyLibraryContext context = NULL;
    uint8_t* context_buf = (uint8_t*)&context;

    printf("A signed message: %s\n", message);
    if (!step("key_lib_open", key_lib_open(device_uid, NULL, NULL, context_buf), "UID",
              device_uid)) {
        return false;
    }
    const bool ok = step("set_ecdsa_signing_key", set_ecdsa_signing_key(context_buf, false), "key",
                         "ecdsa_prv") &&
                    step("set_ecdsa_verification_key",
                         set_ecdsa_verification_key(context_buf, false), "key", "ECDSA_DS_PuK") &&
                    sign_and_check(context_buf);
    return step("key_lib_close", key_lib_close(context_buf), "keys", "wiped") && ok;
}

int main(int argc, char** argv)
{
    return end_example(begin_example(argc, argv, device_uid, private_keys, public_keys) &&
                       request());
}
