/* Opening, clearing and closing a context. */
#include "example_store.h"

#include <key_driver/zentrava_key_driver.h>

#include <stddef.h>

/* [open and close] */
static bool open_and_close(void)
{
    KeyLibraryContext context = NULL;
    uint8_t* context_buf = (uint8_t*)&context; /* the address of the pointer, as a byte address */

    if (key_lib_open(DEVICE_UID, NULL, NULL, context_buf) != KeyLibrary_OK) {
        return false;
    }
    /* ... load keys, make and check tags and signatures ... */
    return key_lib_close(context_buf) == KeyLibrary_OK;
}
/* [open and close] */

/* [clear] */
static bool clear(void)
{
    KeyLibraryContext context = NULL;
    uint8_t* context_buf = (uint8_t*)&context;
    uint8_t tag[32];

    if (key_lib_open(DEVICE_UID, NULL, NULL, context_buf) != KeyLibrary_OK) {
        return false;
    }
    bool ok = set_srk_as_hmac_root_signing_key(context_buf, false) == KeyLibrary_OK &&
              key_lib_clear_keys(context_buf) == KeyLibrary_OK;
    /* The keys are gone; the UID is still there, so that they can be loaded again. */
    ok = ok &&
         gen_root_sha256_hmac(context_buf, message, message_len, tag) == KeyLibrary_KEY_NOT_FOUND &&
         set_srk_as_hmac_root_signing_key(context_buf, false) == KeyLibrary_OK &&
         gen_root_sha256_hmac(context_buf, message, message_len, tag) == KeyLibrary_OK;
    key_lib_close(context_buf);
    return ok;
}
/* [clear] */

int main(void)
{
    return run("open and close", open_and_close) && run("clear", clear) ? 0 : 1;
}
