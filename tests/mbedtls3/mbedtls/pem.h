#ifndef STUB_MBEDTLS3_PEM_H
#define STUB_MBEDTLS3_PEM_H

#include "private_access.h"

#include <stddef.h>

#define MBEDTLS_ERR_PEM_UNKNOWN_ENC_ALG -0x1280
#define MBEDTLS_ERR_PEM_PASSWORD_REQUIRED -0x1300
#define MBEDTLS_ERR_PEM_PASSWORD_MISMATCH -0x1380

typedef struct mbedtls_pem_context {
    unsigned char* MBEDTLS_PRIVATE(buf);
    size_t MBEDTLS_PRIVATE(buflen);
    unsigned char* MBEDTLS_PRIVATE(info);
} mbedtls_pem_context;

void mbedtls_pem_init(mbedtls_pem_context* ctx);
int mbedtls_pem_read_buffer(mbedtls_pem_context* ctx, const char* header, const char* footer,
                            const unsigned char* data, const unsigned char* pwd, size_t pwdlen,
                            size_t* use_len);
const unsigned char* mbedtls_pem_get_buffer(mbedtls_pem_context* ctx, size_t* buflen);
void mbedtls_pem_free(mbedtls_pem_context* ctx);
int mbedtls_pem_write_buffer(const char* header, const char* footer, const unsigned char* der_data,
                             size_t der_len, unsigned char* buf, size_t buf_len, size_t* olen);

#endif
