#ifndef STUB_MBEDTLS3_CIPHER_H
#define STUB_MBEDTLS3_CIPHER_H

typedef enum { MBEDTLS_CIPHER_NONE = 0 } mbedtls_cipher_type_t;

#endif
