/*
 * Calls the library for a test in another language: one call for each line of standard input, its
 * arguments in hexadecimal digits ("-" for none), and its result as a line of standard output.
 *
 *   make NONCE                    1 and public and private key
 *   agree PUBLIC PRIVATE          result and shared secret
 *   sign PRIVATE HASH NONCE       result and signature
 *   verify PUBLIC HASH SIGNATURE  result
 *   hmac KEY MESSAGE              result and tag
 *
 * The engine's random source is replaced: it gives the NONCE, and otherwise ones.
 */
#include "ecc/ecc.h"
#include "key_driver/zentrava_key_driver.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/types.h>

#define MAX_BYTES 65536

static uint8_t nonce[32]; /* as the random device would give it: the lowest byte first */

ssize_t read(int fd, void* buffer, size_t size);
ssize_t __read_chk(int fd, void* buffer, size_t size, size_t buffer_size);

ssize_t read(int fd, void* buffer, size_t size)
{
    (void)fd;
    memcpy(buffer, nonce, size < sizeof nonce ? size : sizeof nonce);
    return (ssize_t)size;
}

ssize_t __read_chk(int fd, void* buffer, size_t size, size_t buffer_size)
{
    (void)buffer_size;
    return read(fd, buffer, size);
}

static size_t bytes_of(const char* digits, uint8_t* bytes)
{
    size_t size = 0;
    if (strcmp(digits, "-") == 0) {
        return 0;
    }
    for (; digits[2 * size] != '\0' && digits[2 * size + 1] != '\0'; ++size) {
        const char pair[3] = {digits[2 * size], digits[2 * size + 1], '\0'};
        bytes[size] = (uint8_t)strtoul(pair, NULL, 16);
    }
    return size;
}

static void set_nonce(const uint8_t* number)
{
    for (size_t i = 0; i < sizeof nonce; ++i) {
        nonce[i] = number != NULL ? number[31 - i] : 1;
    }
}

static void print(int result, const uint8_t* bytes, size_t size)
{
    printf("%d ", result);
    for (size_t i = 0; i < size; ++i) {
        printf("%02x", bytes[i]);
    }
    printf("\n");
    fflush(stdout);
}

static void call(const char* name, uint8_t arguments[3][MAX_BYTES], const size_t sizes[3])
{
    uint8_t out[65] = {0};
    set_nonce(NULL);
    if (strcmp(name, "make") == 0) {
        set_nonce(arguments[0]);
        const int result = ecc_make_key(out, out + 33);
        print(result, out, 65);
    } else if (strcmp(name, "agree") == 0) {
        const int result = ecdh_shared_secret(arguments[0], arguments[1], out);
        print(result, out, 32);
    } else if (strcmp(name, "sign") == 0) {
        set_nonce(arguments[2]);
        const int result = ecdsa_sign(arguments[0], arguments[1], out);
        print(result, out, 64);
    } else if (strcmp(name, "verify") == 0) {
        print(ecdsa_verify(arguments[0], arguments[1], arguments[2]), out, 0);
    } else {
        const int result =
            (int)_sha256_hmac(arguments[0], (int)sizes[0], arguments[1], (int)sizes[1], out);
        print(result, out, 32);
    }
}

int main(void)
{
    static char line[6 * MAX_BYTES + 64];
    static uint8_t arguments[3][MAX_BYTES];
    while (fgets(line, sizeof line, stdin) != NULL) {
        size_t sizes[3] = {0};
        const char* name = strtok(line, " \n");
        const char* word = strtok(NULL, " \n");
        for (size_t i = 0; i < 3 && word != NULL; ++i) {
            sizes[i] = bytes_of(word, arguments[i]);
            word = strtok(NULL, " \n");
        }
        call(name, arguments, sizes);
    }
    return 0;
}
