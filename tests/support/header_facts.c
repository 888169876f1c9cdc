/*
 * What the public headers fix, and what the functions do with lengths: each fact a line of a name
 * and numbers. It runs in the directory of an empty key store.
 */
#include <ecc/ecc.h>
#include <key_driver/zentrava_key_driver.h>

#include <stddef.h>
#include <stdio.h>
#include <string.h>

#define FACT(name, number) printf("%s %d\n", name, (int)(number))
#define AREA_LEN 256

struct aligned_context {
    char before;
    KeyLibraryContext context;
};

static KeyLibraryContext context;
static const uint8_t* const context_buf = (const uint8_t*)&context;
static const uint8_t private_key[32] = {1, 2, 3};
static uint8_t areas[2][2][AREA_LEN]; /* of two runs, two outputs each */

/* How many bytes of an output were written: those that differ from what was there, in either run. */
static int written(int output)
{
    int len = 0;
    for (int i = 0; i < AREA_LEN; ++i) {
        if (areas[0][output][i] != 0x00 || areas[1][output][i] != 0xff) {
            len = i + 1;
        }
    }
    return len;
}

static void run_twice(void (*run)(uint8_t* first, uint8_t* second))
{
    memset(areas[0], 0x00, sizeof areas[0]);
    memset(areas[1], 0xff, sizeof areas[1]);
    run(areas[0][0], areas[0][1]);
    run(areas[1][0], areas[1][1]);
}

static void make_key(uint8_t* public_key, uint8_t* made_private_key)
{
    ecc_make_key(public_key, made_private_key);
}

static void agree(uint8_t* secret, uint8_t* unused)
{
    static const uint8_t base_point[33] = {0x03, 0x6b, 0x17, 0xd1, 0xf2, 0xe1, 0x2c, 0x42, 0x47,
                                           0xf8, 0xbc, 0xe6, 0xe5, 0x63, 0xa4, 0x40, 0xf2, 0x77,
                                           0x03, 0x7d, 0x81, 0x2d, 0xeb, 0x33, 0xa0, 0xf4, 0xa1,
                                           0x39, 0x45, 0xd8, 0x98, 0xc2, 0x96};
    (void)unused;
    ecdh_shared_secret(base_point, private_key, secret);
}

static void sign(uint8_t* signature, uint8_t* unused)
{
    (void)unused;
    ecdsa_sign(private_key, private_key, signature);
}

static void tag(uint8_t* digest, uint8_t* unused)
{
    (void)unused;
    gen_root_sha256_hmac(context_buf, private_key, 1, digest);
}

static void print_lengths_accepted(void)
{
    char key[65] = "";
    printf("AMTC0_LENGTHS");
    for (uint32_t len = 0; len <= 9; ++len) {
        if (derive_hmac_session_key(context_buf, private_key, len, true) == KeyLibrary_OK) {
            printf(" %u", (unsigned)len);
        }
    }
    int min_len = 0;
    while (set_hmac_root_signing_key(context_buf, key, (uint32_t)min_len) != KeyLibrary_OK) {
        ++min_len;
    }
    printf("\n");
    FACT("MIN_HMAC_KEY_LENGTH", min_len);
}

int main(void)
{
    FACT("OK", KeyLibrary_OK);
    FACT("ERROR", KeyLibrary_ERROR);
    FACT("BAD_PARAMETER", KeyLibrary_BAD_PARAMETER);
    FACT("MEMORY", KeyLibrary_MEMORY);
    FACT("KEY_NOT_FOUND", KeyLibrary_KEY_NOT_FOUND);
    FACT("INVALID_KEY", KeyLibrary_INVALID_KEY);
    FACT("CRYPTO", KeyLibrary_CRYPTO);
    FACT("size_of_code", sizeof(KeyLibraryErrorCode));
    FACT("size_of_context", sizeof(KeyLibraryContext));
    FACT("alignment_of_context", offsetof(struct aligned_context, context));
    FACT("size_of_bool", sizeof(bool));

    if (key_lib_open("uid", NULL, NULL, (uint8_t*)&context) != KeyLibrary_OK ||
        set_hmac_root_signing_key(context_buf, (const char*)private_key, 32) != KeyLibrary_OK) {
        return 1;
    }
    run_twice(tag);
    FACT("TAG_LENGTH", written(0));
    run_twice(make_key);
    FACT("COMPRESSED_KEY_LENGTH", written(0));
    FACT("PRIVATE_KEY_LENGTH", written(1));
    run_twice(agree);
    FACT("SECRET_LENGTH", written(0));
    run_twice(sign);
    FACT("SIGNATURE_LENGTH", written(0));
    print_lengths_accepted();
    return key_lib_close((uint8_t*)&context);
}
