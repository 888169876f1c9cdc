#ifndef STUB_MBEDTLS3_ASN1_H
#define STUB_MBEDTLS3_ASN1_H

#include <stddef.h>

#define MBEDTLS_ASN1_INTEGER 0x02
#define MBEDTLS_ASN1_BIT_STRING 0x03
#define MBEDTLS_ASN1_OCTET_STRING 0x04
#define MBEDTLS_ASN1_OID 0x06
#define MBEDTLS_ASN1_SEQUENCE 0x10
#define MBEDTLS_ASN1_CONSTRUCTED 0x20
#define MBEDTLS_ASN1_CONTEXT_SPECIFIC 0x80
#define MBEDTLS_OID_SIZE(x) (sizeof(x) - 1)

typedef struct mbedtls_asn1_buf {
    int tag;
    size_t len;
    unsigned char* p;
} mbedtls_asn1_buf;

int mbedtls_asn1_get_tag(unsigned char** p, const unsigned char* end, size_t* len, int tag);

#endif
