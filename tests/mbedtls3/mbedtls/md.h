#ifndef STUB_MBEDTLS3_MD_H
#define STUB_MBEDTLS3_MD_H

#include "private_access.h"

#include <stddef.h>

typedef enum { MBEDTLS_MD_NONE = 0, MBEDTLS_MD_SHA256 = 0x09 } mbedtls_md_type_t;
typedef struct mbedtls_md_info_t mbedtls_md_info_t;

typedef struct mbedtls_md_context_t {
    const mbedtls_md_info_t* MBEDTLS_PRIVATE(md_info);
    void* MBEDTLS_PRIVATE(md_ctx);
    void* MBEDTLS_PRIVATE(hmac_ctx);
} mbedtls_md_context_t;

const mbedtls_md_info_t* mbedtls_md_info_from_type(mbedtls_md_type_t md_type);
void mbedtls_md_init(mbedtls_md_context_t* ctx);
void mbedtls_md_free(mbedtls_md_context_t* ctx);
int mbedtls_md_setup(mbedtls_md_context_t* ctx, const mbedtls_md_info_t* md_info, int hmac);
int mbedtls_md_hmac_starts(mbedtls_md_context_t* ctx, const unsigned char* key, size_t keylen);
int mbedtls_md_hmac_update(mbedtls_md_context_t* ctx, const unsigned char* input, size_t ilen);
int mbedtls_md_hmac_finish(mbedtls_md_context_t* ctx, unsigned char* output);

#endif
