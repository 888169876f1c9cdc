/* ECDSA signatures. */
#include "example_store.h"

#include <key_driver/zentrava_key_driver.h>

#include <stddef.h>

/* [sign and verify] */
static bool sign_and_verify(void)
{
    KeyLibraryContext context = NULL;
    uint8_t* context_buf = (uint8_t*)&context;
    uint8_t signature[64]; /* r, then s */
    bool verified = false;

    if (key_lib_open(DEVICE_UID, NULL, NULL, context_buf) != KeyLibrary_OK) {
        return false;
    }
    bool ok =
        set_ecdsa_signing_key(context_buf, false) == KeyLibrary_OK &&
        set_ecdsa_verification_key(context_buf, false) == KeyLibrary_OK &&
        generate_ecdsa_signature(context_buf, message, message_len, signature) == KeyLibrary_OK &&
        verify_ecdsa_signature(context_buf, message, message_len, signature, &verified) ==
            KeyLibrary_OK &&
        verified;

    /* The message without its last character has another signature. */
    ok = ok &&
         verify_ecdsa_signature(context_buf, message, message_len - 1, signature, &verified) ==
             KeyLibrary_OK &&
         !verified;
    key_lib_close(context_buf);
    return ok;
}
/* [sign and verify] */

int main(void)
{
    return run("sign and verify", sign_and_verify) ? 0 : 1;
}
