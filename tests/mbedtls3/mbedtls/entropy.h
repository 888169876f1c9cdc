#ifndef STUB_MBEDTLS3_ENTROPY_H
#define STUB_MBEDTLS3_ENTROPY_H

#include "private_access.h"

#include <stddef.h>

#define MBEDTLS_ERR_ENTROPY_SOURCE_FAILED -0x003C

typedef struct mbedtls_entropy_context {
    int MBEDTLS_PRIVATE(accumulator_started);
} mbedtls_entropy_context;

void mbedtls_entropy_init(mbedtls_entropy_context* ctx);
void mbedtls_entropy_free(mbedtls_entropy_context* ctx);
int mbedtls_entropy_func(void* data, unsigned char* output, size_t len);

#endif
