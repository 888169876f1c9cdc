/* The keys of a KTS slot. */
#include "example_store.h"

#include <key_driver/zentrava_key_driver.h>
#include <key_driver/zentrava_key_management_utils.h>

#include <stddef.h>

/* [a tag] */
static bool a_tag(void)
{
    KeyLibraryContext context = NULL;
    uint8_t* context_buf = (uint8_t*)&context;
    uint8_t peer[64]; /* X, then Y, as the peer sent them */
    uint8_t tag[32];

    GetPublicKeyFromString(peer, PEER_TEXT);
    if (key_lib_open(DEVICE_UID, NULL, NULL, context_buf) != KeyLibrary_OK) {
        return false;
    }
    const bool ok =
        set_kts_hmac_signing_key(context_buf, 3, peer, false) == KeyLibrary_OK &&
        gen_kts_sha256_hmac(context_buf, message, message_len, tag) == KeyLibrary_OK &&
        is_equal(tag, "0d24387e4da21d7e589cd88ce8c91fcc0f9e4eaf2591876e5ed20669c376eecc");
    key_lib_close(context_buf);
    return ok;
}
/* [a tag] */

/* [a signature] */
static bool a_signature(void)
{
    KeyLibraryContext context = NULL;
    uint8_t* context_buf = (uint8_t*)&context;
    uint8_t peer[64];
    uint8_t signature[64];
    bool verified = false;

    GetPublicKeyFromString(peer, PEER_TEXT);
    if (key_lib_open(DEVICE_UID, NULL, NULL, context_buf) != KeyLibrary_OK) {
        return false;
    }
    /* The HMAC key first: its slot is the one that the context remembers. */
    const bool ok = set_kts_hmac_signing_key(context_buf, 3, peer, false) == KeyLibrary_OK &&
                    set_kts_ecdsa_signing_key(context_buf, 3, false) == KeyLibrary_OK &&
                    generate_kts_ecdsa_signature(context_buf, message, message_len, signature) ==
                        KeyLibrary_OK &&
                    set_ecdsa_verification_key(context_buf, false) == KeyLibrary_OK &&
                    verify_ecdsa_signature(context_buf, message, message_len, signature,
                                           &verified) == KeyLibrary_OK &&
                    verified;
    key_lib_close(context_buf);
    return ok;
}
/* [a signature] */

int main(void)
{
    return run("a tag", a_tag) && run("a signature", a_signature) ? 0 : 1;
}
