#ifndef STUB_MBEDTLS3_PKCS5_H
#define STUB_MBEDTLS3_PKCS5_H

#include "asn1.h"

#include <stddef.h>

#define MBEDTLS_ERR_PKCS5_FEATURE_UNAVAILABLE -0x2e80
#define MBEDTLS_ERR_PKCS5_PASSWORD_MISMATCH -0x2f80
#define MBEDTLS_PKCS5_DECRYPT 0

int mbedtls_pkcs5_pbes2_ext(const mbedtls_asn1_buf* pbe_params, int mode, const unsigned char* pwd,
                            size_t pwdlen, const unsigned char* data, size_t datalen,
                            unsigned char* output, size_t output_size, size_t* output_len);

#endif
