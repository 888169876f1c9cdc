// How far executed instructions depend on secrets. Run under qemu-user with the plugin
// count_instructions.c. The output, on standard error, is a line for each measurement: what was done,
// with which kind of secret, and the count. The random source is replaced by fixed bytes, so that in a
// measurement nothing changes but what it names.

#include "ecc/ecc.h"
#include "key_driver/zentrava_key_driver.h"

#include <stdio.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <random>
#include <string>

static uint8_t random_bytes[32];

// Takes the place of the C library's: the engine reads nothing but the random device.
extern "C" ssize_t read(int, void* buffer, size_t size)
{
    memcpy(buffer, random_bytes, size < sizeof random_bytes ? size : sizeof random_bytes);
    return static_cast<ssize_t>(size);
}

extern "C" ssize_t __read_chk(int fd, void* buffer, size_t size, size_t)
{
    return read(fd, buffer, size);
}

// System calls that do not exist, and do nothing but tell the plugin, which ends the line.
static const long START_MARK = 0x7001;
static const long STOP_MARK = 0x7002;

template <typename Work> static void count(const char* what, const std::string& kind, Work work)
{
    fprintf(stderr, "%s %s ", what, kind.c_str());
    syscall(START_MARK);
    work();
    syscall(STOP_MARK);
}

static std::mt19937 generator(20261121);

static void fill_at_random(uint8_t* bytes, size_t size)
{
    for (size_t i = 0; i < size; ++i) {
        bytes[i] = static_cast<uint8_t>(generator());
    }
}

// A scalar of so many bits; of 256 random ones it is below the group's order all but certainly.
static void make_scalar(uint8_t* scalar, size_t bits)
{
    memset(scalar, 0, 32);
    fill_at_random(scalar + 32 - bits / 8, bits / 8);
    if (bits < 256) {
        scalar[32 - bits / 8] |= 0x80;
    }
}

// The random device's bytes become a number whose lowest byte is the first.
static void make_nonce(size_t bits)
{
    uint8_t scalar[32];
    make_scalar(scalar, bits);
    for (size_t i = 0; i < 32; ++i) {
        random_bytes[i] = scalar[31 - i];
    }
}

static void measure_curve(const std::string& kind, size_t key_bits, size_t nonce_bits, bool new_key,
                          bool new_nonce)
{
    static uint8_t key[32];
    static uint8_t public_key[33];
    static const uint8_t hash[32] = {1, 2, 3};
    uint8_t secret[32];
    uint8_t signature[64];
    if (public_key[0] == 0) {
        make_nonce(256);
        ecc_make_key(public_key, key);
        // What the loader and the C library do but once is done before.
        ecdh_shared_secret(public_key, key, secret);
        ecdsa_sign(key, hash, signature);
    }
    for (int i = 0; i < 64; ++i) {
        if (new_key || i == 0) {
            make_scalar(key, key_bits);
        }
        if (new_nonce || i == 0) {
            make_nonce(nonce_bits);
        }
        count("ecdh_shared_secret", kind, [&] { ecdh_shared_secret(public_key, key, secret); });
        count("ecdsa_sign", kind, [&] { ecdsa_sign(key, hash, signature); });
    }
}

// How many bytes of a wrong tag are right can be seen where the comparison ends at the first that
// is not.
static void measure_comparison()
{
    KeyLibraryContext context;
    uint8_t* context_buf = reinterpret_cast<uint8_t*>(&context);
    const char key[32] = {1, 2, 3};
    const uint8_t message[] = {4, 5, 6};
    uint8_t tag[32];
    bool verified = false;
    key_lib_open("0123456789abcdef0123456789abcdef", nullptr, nullptr, context_buf);
    set_hmac_root_signing_key(context_buf, key, sizeof key);
    gen_root_sha256_hmac(context_buf, message, sizeof message, tag);
    verify_root_sha256_hmac(context_buf, message, sizeof message, tag, &verified);
    for (const size_t right : {0, 8, 16, 24, 31, 32}) {
        uint8_t guess[32];
        memcpy(guess, tag, sizeof guess);
        if (right < 32) {
            guess[right] ^= 1;
        }
        count("verify_root_sha256_hmac", std::to_string(right) + "_bytes_right", [&] {
            verify_root_sha256_hmac(context_buf, message, sizeof message, guess, &verified);
        });
    }
    key_lib_close(context_buf);
}

int main()
{
    measure_curve("same_key,_same_random_bytes", 256, 256, false, false);
    measure_curve("new_key,_same_random_bytes", 256, 256, true, false);
    measure_curve("same_key,_new_random_bytes", 256, 256, false, true);
    measure_curve("new_key_of_128_bits,_same_random_bytes", 128, 256, true, false);
    measure_curve("same_key,_new_random_bytes_of_128_bits", 256, 128, false, true);
    measure_comparison();
    return 0;
}
