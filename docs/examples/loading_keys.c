/* Loading keys into a context. */
#include "example_store.h"

#include <key_driver/zentrava_key_driver.h>

#include <stddef.h>

/* [from the store] */
static bool from_the_store(void)
{
    KeyLibraryContext context = NULL;
    uint8_t* context_buf = (uint8_t*)&context;
    uint8_t tag[32];

    if (key_lib_open(DEVICE_UID, NULL, NULL, context_buf) != KeyLibrary_OK) {
        return false;
    }
    bool ok = set_srk_as_hmac_root_signing_key(context_buf, false) == KeyLibrary_OK &&
              set_csk_as_hmac_session_signing_key(context_buf, false) == KeyLibrary_OK &&
              set_ecdsa_signing_key(context_buf, false) == KeyLibrary_OK &&
              set_ecdsa_verification_key(context_buf, false) == KeyLibrary_OK;

    /* "srk" and "crk" share one place: without force, what was loaded first stays. */
    ok = ok && set_crk_as_hmac_root_signing_key(context_buf, false) == KeyLibrary_OK &&
         gen_root_sha256_hmac(context_buf, message, message_len, tag) == KeyLibrary_OK &&
         is_equal(tag, "b06a07c5f67e45bc931b974ffc55d99d8f8470f65528c5d95269f531abff639f");
    ok = ok && set_crk_as_hmac_root_signing_key(context_buf, true) == KeyLibrary_OK &&
         gen_root_sha256_hmac(context_buf, message, message_len, tag) == KeyLibrary_OK &&
         is_equal(tag, "f67b9adfa687500855306a2d9a8f722051c37dac5e3a514b75b4e92ee20c86d2");
    key_lib_close(context_buf);
    return ok;
}
/* [from the store] */

/* [a failed load] */
static bool a_failed_load(void)
{
    KeyLibraryContext context = NULL;
    uint8_t* context_buf = (uint8_t*)&context;

    if (key_lib_open("a device without keys", NULL, NULL, context_buf) != KeyLibrary_OK) {
        return false;
    }
    bool ok = set_srk_as_hmac_root_signing_key(context_buf, false) == KeyLibrary_KEY_NOT_FOUND;
    /* The buffer is in place now, filled with zeros: a load without force takes it for a key. */
    ok = ok && set_srk_as_hmac_root_signing_key(context_buf, false) == KeyLibrary_OK;
    /* So, after KeyLibrary_KEY_NOT_FOUND: clear, or use force. */
    ok = ok && set_srk_as_hmac_root_signing_key(context_buf, true) == KeyLibrary_KEY_NOT_FOUND &&
         key_lib_clear_keys(context_buf) == KeyLibrary_OK;
    key_lib_close(context_buf);
    return ok;
}
/* [a failed load] */

/* [from the caller] */
static bool from_the_caller(void)
{
    static const char key[32] = "thirty-two bytes, and no text...";
    KeyLibraryContext context = NULL;
    uint8_t* context_buf = (uint8_t*)&context;
    uint8_t root_tag[32];
    bool verified = false;

    if (key_lib_open(DEVICE_UID, NULL, NULL, context_buf) != KeyLibrary_OK) {
        return false;
    }
    bool ok = set_hmac_root_signing_key(context_buf, key, sizeof key) == KeyLibrary_OK &&
              set_hmac_session_key(context_buf, key, sizeof key) == KeyLibrary_OK;
    /* A key of fewer than 32 bytes is refused, and the one in place stays. */
    ok = ok && set_hmac_session_key(context_buf, key, 31) == KeyLibrary_INVALID_KEY;

    /* Both places hold the same key, so what one makes the other accepts. */
    ok = ok && gen_root_sha256_hmac(context_buf, message, message_len, root_tag) == KeyLibrary_OK &&
         verify_session_sha256_hmac(context_buf, message, message_len, root_tag, &verified) ==
             KeyLibrary_OK &&
         verified;
    key_lib_close(context_buf);
    return ok;
}
/* [from the caller] */

int main(void)
{
    return run("from the store", from_the_store) && run("a failed load", a_failed_load) &&
                   run("from the caller", from_the_caller)
               ? 0
               : 1;
}
