/*
 * The elliptic-curve engine by itself: two key pairs, one secret, a signature.
 *
 *     key_agreement
 */
#include "example_support.h"

#include <ecc/ecc.h>

#include <stdio.h>
#include <string.h>

struct key_pair {
    uint8_t public_key[33]; /* compressed: 0x02 or 0x03, then X */
    uint8_t private_key[32];
};

/* Engine functions return 1 for success. */
static bool make_pair(struct key_pair* pair, const char* whose)
{
    char text[67] = "";
    const bool made = ecc_make_key(pair->public_key, pair->private_key) == 1;
    to_hex(text, pair->public_key, sizeof pair->public_key);
    return plain_step("ecc_make_key", made, whose, text);
}

static bool agree(const struct key_pair* mine, const struct key_pair* theirs, uint8_t* secret)
{
    char text[65] = "";
    const bool agreed = ecdh_shared_secret(theirs->public_key, mine->private_key, secret) == 1;
    to_hex(text, secret, 32);
    return plain_step("ecdh_shared_secret", agreed, "secret", text);
}

static bool sign_and_verify(const struct key_pair* pair)
{
    uint8_t hash[32]; /* stands for the SHA-256 of a message */
    uint8_t signature[64];
    char hash_text[65] = "";
    char signature_text[129] = "";
    if (!fill_random(hash, sizeof hash)) {
        return false;
    }
    to_hex(hash_text, hash, sizeof hash);
    note("hash", hash_text);
    const bool is_signed = ecdsa_sign(pair->private_key, hash, signature) == 1;
    to_hex(signature_text, signature, sizeof signature);
    return plain_step("ecdsa_sign", is_signed, "signature", signature_text) &&
           plain_step("ecdsa_verify", ecdsa_verify(pair->public_key, hash, signature) == 1,
                      "signature", "holds");
}

int main(void)
{
    struct key_pair alice;
    struct key_pair bob;
    uint8_t alices_secret[32] = {0};
    uint8_t bobs_secret[32] = {0};

    printf("Two key pairs, one secret\n");
    const bool ok = make_pair(&alice, "Alice") && make_pair(&bob, "Bob") &&
                    agree(&alice, &bob, alices_secret) && agree(&bob, &alice, bobs_secret) &&
                    memcmp(alices_secret, bobs_secret, sizeof alices_secret) == 0 &&
                    sign_and_verify(&alice);
    wipe(alice.private_key, sizeof alice.private_key);
    wipe(bob.private_key, sizeof bob.private_key);
    wipe(alices_secret, sizeof alices_secret);
    wipe(bobs_secret, sizeof bobs_secret);
    return end_example(ok);
}
