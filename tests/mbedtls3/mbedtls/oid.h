#ifndef STUB_MBEDTLS3_OID_H
#define STUB_MBEDTLS3_OID_H

#include "asn1.h"
#include "cipher.h"
#include "ecp.h"
#include "md.h"

#include <stddef.h>

#define MBEDTLS_OID_EC_ALG_UNRESTRICTED "\x2a\x86\x48\xce\x3d\x02\x01"
#define MBEDTLS_OID_EC_GRP_SECP256R1 "\x2a\x86\x48\xce\x3d\x03\x01\x07"
#define MBEDTLS_OID_PKCS5_PBES2 "\x2a\x86\x48\x86\xf7\x0d\x01\x05\x0d"

int mbedtls_oid_get_numeric_string(char* buf, size_t size, const mbedtls_asn1_buf* oid);
int mbedtls_oid_get_ec_grp(const mbedtls_asn1_buf* oid, mbedtls_ecp_group_id* grp_id);
int mbedtls_oid_get_pkcs12_pbe_alg(const mbedtls_asn1_buf* oid, mbedtls_md_type_t* md_alg,
                                   mbedtls_cipher_type_t* cipher_alg);

#endif
