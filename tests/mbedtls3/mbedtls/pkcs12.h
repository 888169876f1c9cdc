#ifndef STUB_MBEDTLS3_PKCS12_H
#define STUB_MBEDTLS3_PKCS12_H

#include "asn1.h"
#include "cipher.h"
#include "md.h"

#include <stddef.h>

#define MBEDTLS_ERR_PKCS12_PASSWORD_MISMATCH -0x1e00
#define MBEDTLS_PKCS12_PBE_DECRYPT 0

int mbedtls_pkcs12_pbe_ext(mbedtls_asn1_buf* pbe_params, int mode,
                           mbedtls_cipher_type_t cipher_type, mbedtls_md_type_t md_type,
                           const unsigned char* pwd, size_t pwdlen, const unsigned char* input,
                           size_t len, unsigned char* output, size_t output_size,
                           size_t* output_len);

#endif
