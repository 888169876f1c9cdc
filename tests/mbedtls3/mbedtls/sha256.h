#ifndef STUB_MBEDTLS3_SHA256_H
#define STUB_MBEDTLS3_SHA256_H

#include <stddef.h>

/* What 2.28 calls mbedtls_sha256_ret is gone; the plain name has a result. */
int mbedtls_sha256(const unsigned char* input, size_t ilen, unsigned char* output, int is224);

#endif
