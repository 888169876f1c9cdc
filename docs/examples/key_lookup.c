/* Looking up keys in the store. */
#include "example_store.h"

#include <key_driver/zentrava_key_management_utils.h>

#include <string.h>

/* [handle and metadata] */
static bool handle_and_metadata(void)
{
    char handle[16] = "";
    char metadata[64] = ""; /* cleared, since a record without metadata leaves it as it is */

    return get_key_handle(DEVICE_UID, "srk", metadata, sizeof metadata, handle, sizeof handle) ==
               0 &&
           strcmp(handle, "1") == 0 && strcmp(metadata, "bench 3") == 0;
}
/* [handle and metadata] */

/* [bytes of a key] */
static bool bytes_of_a_key(void)
{
    uint8_t key[32];
    uint32_t key_len = sizeof key; /* in: the room there is; out: the length of the key */

    if (get_key((const unsigned char*)DEVICE_UID, "srk", key, &key_len) != 0) {
        return false;
    }
    if (key_len != 32 || !is_equal(key, SRK_TEXT)) {
        return false;
    }

    /* Where there is not room enough, the call fails and tells how much there has to be. */
    key_len = sizeof key;
    return get_key((const unsigned char*)DEVICE_UID, "ECDSA_DS_PuK", key, &key_len) == 1 &&
           key_len == 64;
}
/* [bytes of a key] */

/* [key text] */
static bool key_text(void)
{
    char text[129]; /* 64 bytes as hexadecimal text, and a terminator */
    uint32_t text_len = sizeof text;

    if (export_prv_key_in_clear_as_hex(DEVICE_UID, "srk", text, &text_len) != 0) {
        return false;
    }
    if (text_len != 64 || strcmp(text, SRK_TEXT) != 0) {
        return false;
    }

    text_len = sizeof text; /* it held the length of the text before */
    return read_public_key_as_hex(DEVICE_UID, "ECDSA_DS_PuK", text, &text_len) == 0 &&
           text_len == 128 && strcmp(text, ECDSA_PUBLIC_TEXT) == 0;
}
/* [key text] */

/* [presence] */
static bool presence(void)
{
    return contains_crk(DEVICE_UID) && contains_csk(DEVICE_UID) &&
           contains_key(DEVICE_UID, "ecdh_prv") &&
           _prv_keyfile_contains_key(DEVICE_UID, "ecdsa_prv_slot_3") &&
           !contains_key(DEVICE_UID, "ECDSA_DS_PuK"); /* in the public file: not looked at */
}
/* [presence] */

int main(void)
{
    return run("handle and metadata", handle_and_metadata) &&
                   run("bytes of a key", bytes_of_a_key) && run("key text", key_text) &&
                   run("presence", presence)
               ? 0
               : 1;
}
