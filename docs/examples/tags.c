/* HMAC-SHA256 tags. */
#include "example_store.h"

#include <key_driver/zentrava_key_driver.h>

#include <stddef.h>

/* [make and check] */
static bool make_and_check(void)
{
    KeyLibraryContext context = NULL;
    uint8_t* context_buf = (uint8_t*)&context;
    uint8_t tag[32];
    bool verified = false;

    if (key_lib_open(DEVICE_UID, NULL, NULL, context_buf) != KeyLibrary_OK) {
        return false;
    }
    /* Under the root key. */
    bool ok = set_srk_as_hmac_root_signing_key(context_buf, false) == KeyLibrary_OK &&
              gen_root_sha256_hmac(context_buf, message, message_len, tag) == KeyLibrary_OK &&
              is_equal(tag, "b06a07c5f67e45bc931b974ffc55d99d8f8470f65528c5d95269f531abff639f") &&
              verify_root_sha256_hmac(context_buf, message, message_len, tag, &verified) ==
                  KeyLibrary_OK &&
              verified;

    /* Under the session key. */
    ok = ok && set_csk_as_hmac_session_signing_key(context_buf, false) == KeyLibrary_OK &&
         gen_session_sha256_hmac(context_buf, message, message_len, tag) == KeyLibrary_OK &&
         is_equal(tag, "5f181cf3ce4640d2f2810522bb3bba5c8e114762c22e17579e38e1d0b5d17bc3");

    /* A wrong tag is no error: the result is KeyLibrary_OK, and verified tells. */
    tag[31] ^= 0x01;
    ok = ok &&
         verify_session_sha256_hmac(context_buf, message, message_len, tag, &verified) ==
             KeyLibrary_OK &&
         !verified;
    key_lib_close(context_buf);
    return ok;
}
/* [make and check] */

/* [without a context] */
static bool without_a_context(void)
{
    static const uint8_t key[] = "Jefe"; /* test case 2 of RFC 4231 */
    static const uint8_t text[] = "what do ya want for nothing?";
    uint8_t tag[32];

    return _sha256_hmac(key, 4, text, 28, tag) == KeyLibrary_OK &&
           is_equal(tag, "5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843");
}
/* [without a context] */

int main(void)
{
    return run("make and check", make_and_check) && run("without a context", without_a_context) ? 0
                                                                                                : 1;
}
