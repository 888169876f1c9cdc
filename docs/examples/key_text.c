/* Bytes out of key text. */
#include "example_store.h"

#include <key_driver/zentrava_key_management_utils.h>

#include <string.h>

/* [fixed lengths] */
static bool fixed_lengths(void)
{
    uint8_t private_key[32];
    uint8_t public_key[64];

    GetPrivateKeyFromString(private_key, SRK_TEXT); /* the result is always 0 */
    GetPublicKeyFromString(public_key, ECDSA_PUBLIC_TEXT);
    if (!is_equal(private_key, SRK_TEXT) || public_key[0] != 0x60 || public_key[63] != 0x99) {
        return false;
    }

    /* Padded with zeros; what is no hexadecimal digit counts as 0. */
    GetPrivateKeyFromString(private_key, "A?5");
    return private_key[0] == 0xa0 && private_key[1] == 0x50 && private_key[2] == 0x00;
}
/* [fixed lengths] */

/* [any length] */
static bool any_length(void)
{
    uint8_t key[32];

    if (_convert_hex_char_key_to_bytes(SRK_TEXT, key, sizeof key) != 0 ||
        !is_equal(key, SRK_TEXT)) {
        return false;
    }
    /* At any length but 32 and 64 bytes: the characters themselves, as many as bytes. */
    if (_convert_hex_char_key_to_bytes("a1b2c3", key, sizeof key) != 0 ||
        memcmp(key, "a1b", 3) != 0) {
        return false;
    }
    return _convert_hex_char_key_to_bytes(SRK_TEXT, key, 31) == 1; /* no room for 32 bytes */
}
/* [any length] */

int main(void)
{
    return run("fixed lengths", fixed_lengths) && run("any length", any_length) ? 0 : 1;
}
