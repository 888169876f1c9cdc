/* Deriving the session key. */
#include "example_store.h"

#include <key_driver/zentrava_key_driver.h>
#include <key_driver/zentrava_key_management_utils.h>

#include <stddef.h>

/* [from the root key] */
static bool from_the_root_key(void)
{
    static const char other_key[32] = "some other key, set by hand here";
    KeyLibraryContext context = NULL;
    uint8_t* context_buf = (uint8_t*)&context;
    uint8_t tag[32];

    if (key_lib_open(DEVICE_UID, NULL, NULL, context_buf) != KeyLibrary_OK) {
        return false;
    }
    bool ok = set_srk_as_hmac_root_signing_key(context_buf, false) == KeyLibrary_OK &&
              derive_hmac_session_key(context_buf, amtc0, sizeof amtc0, false) == KeyLibrary_OK &&
              gen_session_sha256_hmac(context_buf, message, message_len, tag) == KeyLibrary_OK &&
              is_equal(tag, "e255f7bd52f3403468726c1ec0499b173e10737a918ea8a65c0ce8e33b1db69c");

    /* With a session key in place and the remembered value, nothing is derived, wherever the key
     * came from since. force derives anew. */
    ok = ok && set_hmac_session_key(context_buf, other_key, sizeof other_key) == KeyLibrary_OK &&
         derive_hmac_session_key(context_buf, amtc0, sizeof amtc0, false) == KeyLibrary_OK &&
         gen_session_sha256_hmac(context_buf, message, message_len, tag) == KeyLibrary_OK &&
         !is_equal(tag, "e255f7bd52f3403468726c1ec0499b173e10737a918ea8a65c0ce8e33b1db69c");
    ok = ok && derive_hmac_session_key(context_buf, amtc0, sizeof amtc0, true) == KeyLibrary_OK &&
         gen_session_sha256_hmac(context_buf, message, message_len, tag) == KeyLibrary_OK &&
         is_equal(tag, "e255f7bd52f3403468726c1ec0499b173e10737a918ea8a65c0ce8e33b1db69c");
    key_lib_close(context_buf);
    return ok;
}
/* [from the root key] */

/* [from an agreement] */
static bool from_an_agreement(void)
{
    KeyLibraryContext context = NULL;
    uint8_t* context_buf = (uint8_t*)&context;
    uint8_t peer[64]; /* X, then Y, as the peer sent them */
    uint8_t tag[32];
    bool verified = false;

    GetPublicKeyFromString(peer, PEER_TEXT);
    if (key_lib_open(DEVICE_UID, NULL, NULL, context_buf) != KeyLibrary_OK) {
        return false;
    }
    bool ok =
        derive_ecdh_session_key(context_buf, peer, amtc0, sizeof amtc0, false) == KeyLibrary_OK &&
        gen_session_sha256_hmac(context_buf, message, message_len, tag) == KeyLibrary_OK &&
        is_equal(tag, "ab246cb3ee4c9065540ec697b97c0abbee2406d37f8987f35971bbc79e90d3ef") &&
        verify_session_sha256_hmac(context_buf, message, message_len, tag, &verified) ==
            KeyLibrary_OK &&
        verified;
    key_lib_close(context_buf);
    return ok;
}
/* [from an agreement] */

int main(void)
{
    return run("from the root key", from_the_root_key) &&
                   run("from an agreement", from_an_agreement)
               ? 0
               : 1;
}
