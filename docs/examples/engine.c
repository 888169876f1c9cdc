/* The elliptic-curve engine by itself. */
#include "example_store.h"

#include <ecc/ecc.h>

#include <string.h>

/* [key pair] */
static bool key_pair(void)
{
    uint8_t public_key[33]; /* 0x02 or 0x03, then X */
    uint8_t private_key[32];

    return ecc_make_key(public_key, private_key) == 1 &&
           (public_key[0] == 0x02 || public_key[0] == 0x03);
}
/* [key pair] */

/* [shared secret] */
static bool shared_secret(void)
{
    uint8_t my_public[33], my_private[32], my_secret[32];
    uint8_t their_public[33], their_private[32], their_secret[32];

    return ecc_make_key(my_public, my_private) == 1 &&
           ecc_make_key(their_public, their_private) == 1 &&
           ecdh_shared_secret(their_public, my_private, my_secret) == 1 &&
           ecdh_shared_secret(my_public, their_private, their_secret) == 1 &&
           memcmp(my_secret, their_secret, sizeof my_secret) == 0;
}
/* [shared secret] */

/* [signature] */
static bool signature(void)
{
    static const uint8_t hash[32] = {0x01}; /* in its place: the SHA-256 of a message */
    static const uint8_t other_hash[32] = {0x02};
    uint8_t public_key[33];
    uint8_t private_key[32];
    uint8_t made[64]; /* r, then s */

    return ecc_make_key(public_key, private_key) == 1 && ecdsa_sign(private_key, hash, made) == 1 &&
           ecdsa_verify(public_key, hash, made) == 1 &&
           ecdsa_verify(public_key, other_hash, made) == 0;
}
/* [signature] */

int main(void)
{
    return run("key pair", key_pair) && run("shared secret", shared_secret) &&
                   run("signature", signature)
               ? 0
               : 1;
}
