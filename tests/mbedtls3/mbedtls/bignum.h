#ifndef STUB_MBEDTLS3_BIGNUM_H
#define STUB_MBEDTLS3_BIGNUM_H

#include "private_access.h"

#include <stddef.h>
#include <stdint.h>

typedef uint64_t mbedtls_mpi_uint;

typedef struct mbedtls_mpi {
    mbedtls_mpi_uint* MBEDTLS_PRIVATE(p);
    signed short MBEDTLS_PRIVATE(s);
    unsigned short MBEDTLS_PRIVATE(n);
} mbedtls_mpi;

typedef int mbedtls_f_rng_t(void* p_rng, unsigned char* output, size_t output_size);

void mbedtls_mpi_init(mbedtls_mpi* X);
void mbedtls_mpi_free(mbedtls_mpi* X);
int mbedtls_mpi_read_binary(mbedtls_mpi* X, const unsigned char* buf, size_t buflen);
int mbedtls_mpi_write_binary(const mbedtls_mpi* X, unsigned char* buf, size_t buflen);

#endif
