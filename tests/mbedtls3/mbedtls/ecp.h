#ifndef STUB_MBEDTLS3_ECP_H
#define STUB_MBEDTLS3_ECP_H

#include "bignum.h"
#include "private_access.h"

#include <stddef.h>
#include <stdint.h>

#define MBEDTLS_ECP_PF_UNCOMPRESSED 0

typedef enum { MBEDTLS_ECP_DP_NONE = 0, MBEDTLS_ECP_DP_SECP256R1 = 3 } mbedtls_ecp_group_id;

typedef struct mbedtls_ecp_curve_info {
    mbedtls_ecp_group_id grp_id;
    uint16_t tls_id;
    uint16_t bit_size;
    const char* name;
} mbedtls_ecp_curve_info;

typedef struct mbedtls_ecp_point {
    mbedtls_mpi MBEDTLS_PRIVATE(X);
    mbedtls_mpi MBEDTLS_PRIVATE(Y);
    mbedtls_mpi MBEDTLS_PRIVATE(Z);
} mbedtls_ecp_point;

typedef struct mbedtls_ecp_group {
    mbedtls_ecp_group_id id;
    mbedtls_mpi P;
    mbedtls_mpi A;
    mbedtls_mpi B;
    mbedtls_ecp_point G;
    mbedtls_mpi N;
    size_t pbits;
    size_t nbits;
    unsigned int MBEDTLS_PRIVATE(h);
} mbedtls_ecp_group;

const mbedtls_ecp_curve_info* mbedtls_ecp_curve_info_from_grp_id(mbedtls_ecp_group_id grp_id);
void mbedtls_ecp_point_init(mbedtls_ecp_point* pt);
void mbedtls_ecp_group_init(mbedtls_ecp_group* grp);
void mbedtls_ecp_point_free(mbedtls_ecp_point* pt);
void mbedtls_ecp_group_free(mbedtls_ecp_group* grp);
int mbedtls_ecp_group_load(mbedtls_ecp_group* grp, mbedtls_ecp_group_id id);
int mbedtls_ecp_point_write_binary(const mbedtls_ecp_group* grp, const mbedtls_ecp_point* P,
                                   int format, size_t* olen, unsigned char* buf, size_t buflen);
int mbedtls_ecp_point_read_binary(const mbedtls_ecp_group* grp, mbedtls_ecp_point* P,
                                  const unsigned char* buf, size_t ilen);
int mbedtls_ecp_check_pubkey(const mbedtls_ecp_group* grp, const mbedtls_ecp_point* pt);

/* 3.x demands the random source: a call of mbedtls_ecp_mul without one does not compile here. */
int mbedtls_ecp_mul(mbedtls_ecp_group* grp, mbedtls_ecp_point* R, const mbedtls_mpi* m,
                    const mbedtls_ecp_point* P, mbedtls_f_rng_t& f_rng, void* p_rng);
int mbedtls_ecp_gen_privkey(const mbedtls_ecp_group* grp, mbedtls_mpi* d, mbedtls_f_rng_t& f_rng,
                            void* p_rng);

#endif
