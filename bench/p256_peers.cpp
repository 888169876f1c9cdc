#include "p256_peers.h"

#include "ecc/ecc.h"

#include <bearssl.h>
#include <mbedtls/ecdh.h>
#include <mbedtls/ecdsa.h>
#include <mbedtls/ecp.h>
#include <openssl/core_names.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/param_build.h>

#include <string.h>

static P256Input inputs[INPUT_COUNT];

// Random enough for a benchmark, and the same in each run (Vigna's splitmix64).
static uint64_t random_state = 1;

static int fixed_random(void*, unsigned char* bytes, size_t len)
{
    for (size_t i = 0; i < len; ++i) {
        uint64_t z = (random_state += 0x9E3779B97F4A7C15);
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EB;
        bytes[i] = static_cast<unsigned char>(z >> 56);
    }
    return 0;
}

// ---- This library's engine

static bool engine_make_key(size_t)
{
    uint8_t public_key[33];
    uint8_t private_key[32];
    return ecc_make_key(public_key, private_key) == 1;
}

static bool engine_ecdh(size_t input)
{
    uint8_t secret[32];
    return ecdh_shared_secret(inputs[input].peer_public_key, inputs[input].private_key, secret) ==
           1;
}

static bool engine_sign(size_t input)
{
    uint8_t signature[64];
    return ecdsa_sign(inputs[input].private_key, inputs[input].hash, signature) == 1;
}

static bool engine_verify(size_t input)
{
    return ecdsa_verify(inputs[input].public_key, inputs[input].hash, inputs[input].signature) == 1;
}

// ---- mbed TLS, the group kept between calls

struct MbedTlsInput {
    mbedtls_mpi d, r, s;
    mbedtls_ecp_point q, peer;
};

static mbedtls_ecp_group mbedtls_group;
static MbedTlsInput mbedtls_inputs[INPUT_COUNT];

static bool mbedtls_make_key(size_t)
{
    mbedtls_mpi d;
    mbedtls_ecp_point q;
    mbedtls_mpi_init(&d);
    mbedtls_ecp_point_init(&q);
    const int result = mbedtls_ecp_gen_keypair(&mbedtls_group, &d, &q, fixed_random, nullptr);
    mbedtls_ecp_point_free(&q);
    mbedtls_mpi_free(&d);
    return result == 0;
}

static bool mbedtls_secret(size_t input, uint8_t* secret)
{
    mbedtls_mpi z;
    mbedtls_mpi_init(&z);
    MbedTlsInput& in = mbedtls_inputs[input];
    const int result =
        mbedtls_ecdh_compute_shared(&mbedtls_group, &z, &in.peer, &in.d, fixed_random, nullptr);
    const int written = mbedtls_mpi_write_binary(&z, secret, 32);
    mbedtls_mpi_free(&z);
    return result == 0 && written == 0;
}

static bool mbedtls_ecdh(size_t input)
{
    uint8_t secret[32];
    return mbedtls_secret(input, secret);
}

static bool mbedtls_sign(size_t input)
{
    mbedtls_mpi r, s;
    mbedtls_mpi_init(&r);
    mbedtls_mpi_init(&s);
    const int result = mbedtls_ecdsa_sign(&mbedtls_group, &r, &s, &mbedtls_inputs[input].d,
                                          inputs[input].hash, 32, fixed_random, nullptr);
    mbedtls_mpi_free(&r);
    mbedtls_mpi_free(&s);
    return result == 0;
}

static bool mbedtls_verify(size_t input)
{
    MbedTlsInput& in = mbedtls_inputs[input];
    return mbedtls_ecdsa_verify(&mbedtls_group, inputs[input].hash, 32, &in.q, &in.r, &in.s) == 0;
}

// Makes a key pair; its public half in the 65-byte form.
static bool mbedtls_make_input_pair(mbedtls_mpi* d, mbedtls_ecp_point* q, uint8_t* public_key)
{
    size_t len = 0;
    return mbedtls_ecp_gen_keypair(&mbedtls_group, d, q, fixed_random, nullptr) == 0 &&
           mbedtls_ecp_point_write_binary(&mbedtls_group, q, MBEDTLS_ECP_PF_UNCOMPRESSED, &len,
                                          public_key, 65) == 0;
}

static bool make_input(size_t input)
{
    MbedTlsInput& in = mbedtls_inputs[input];
    P256Input& out = inputs[input];
    mbedtls_mpi peer_private;
    mbedtls_mpi_init(&peer_private);
    for (mbedtls_mpi* number : {&in.d, &in.r, &in.s}) {
        mbedtls_mpi_init(number);
    }
    mbedtls_ecp_point_init(&in.q);
    mbedtls_ecp_point_init(&in.peer);
    fixed_random(nullptr, out.hash, sizeof out.hash);
    const bool made = mbedtls_make_input_pair(&in.d, &in.q, out.public_key) &&
                      mbedtls_make_input_pair(&peer_private, &in.peer, out.peer_public_key) &&
                      mbedtls_ecdsa_sign(&mbedtls_group, &in.r, &in.s, &in.d, out.hash, 32,
                                         fixed_random, nullptr) == 0 &&
                      mbedtls_mpi_write_binary(&in.d, out.private_key, 32) == 0 &&
                      mbedtls_mpi_write_binary(&in.r, out.signature, 32) == 0 &&
                      mbedtls_mpi_write_binary(&in.s, out.signature + 32, 32) == 0;
    mbedtls_mpi_free(&peer_private);
    return made;
}

// ---- BearSSL: its m31 code on 32-bit machines, its own choice elsewhere

#ifdef __arm__
static const br_ec_impl* const bearssl_ec = &br_ec_p256_m31;
#else
static const br_ec_impl* const bearssl_ec = br_ec_get_default();
#endif
static br_hmac_drbg_context bearssl_random;

static br_ec_private_key bearssl_private_key(size_t input)
{
    return {BR_EC_secp256r1, inputs[input].private_key, 32};
}

static bool bearssl_make_key(size_t)
{
    unsigned char private_key[BR_EC_KBUF_PRIV_MAX_SIZE];
    unsigned char public_key[BR_EC_KBUF_PUB_MAX_SIZE];
    br_ec_private_key key;
    return br_ec_keygen(&bearssl_random.vtable, bearssl_ec, &key, private_key, BR_EC_secp256r1) !=
               0 &&
           br_ec_compute_pub(bearssl_ec, nullptr, public_key, &key) != 0;
}

static bool bearssl_secret(size_t input, uint8_t* secret)
{
    unsigned char point[65];
    memcpy(point, inputs[input].peer_public_key, sizeof point);
    const bool done =
        bearssl_ec->mul(point, sizeof point, inputs[input].private_key, 32, BR_EC_secp256r1) == 1;
    memcpy(secret, point + 1, 32);
    return done;
}

static bool bearssl_ecdh(size_t input)
{
    uint8_t secret[32];
    return bearssl_secret(input, secret);
}

static bool bearssl_sign(size_t input)
{
    unsigned char signature[64];
    const br_ec_private_key key = bearssl_private_key(input);
    return br_ecdsa_i31_sign_raw(bearssl_ec, &br_sha256_vtable, inputs[input].hash, &key,
                                 signature) == 64;
}

static bool bearssl_verify(size_t input)
{
    const br_ec_public_key key = {BR_EC_secp256r1, inputs[input].public_key, 65};
    return br_ecdsa_i31_vrfy_raw(bearssl_ec, inputs[input].hash, 32, &key, inputs[input].signature,
                                 64) == 1;
}

// ---- OpenSSL

static EVP_PKEY* openssl_keys[INPUT_COUNT];
static EVP_PKEY* openssl_peer_keys[INPUT_COUNT];
static unsigned char openssl_signatures[INPUT_COUNT][80];
static size_t openssl_signature_lens[INPUT_COUNT];

// A key pair, or a public key alone when `private_key` is null.
static EVP_PKEY* openssl_key(const uint8_t* public_key, const uint8_t* private_key)
{
    OSSL_PARAM_BLD* builder = OSSL_PARAM_BLD_new();
    BIGNUM* d = private_key != nullptr ? BN_bin2bn(private_key, 32, nullptr) : nullptr;
    OSSL_PARAM_BLD_push_utf8_string(builder, OSSL_PKEY_PARAM_GROUP_NAME, "P-256", 0);
    OSSL_PARAM_BLD_push_octet_string(builder, OSSL_PKEY_PARAM_PUB_KEY, public_key, 65);
    if (d != nullptr) {
        OSSL_PARAM_BLD_push_BN(builder, OSSL_PKEY_PARAM_PRIV_KEY, d);
    }
    OSSL_PARAM* params = OSSL_PARAM_BLD_to_param(builder);
    EVP_PKEY* key = nullptr;
    EVP_PKEY_CTX* context = EVP_PKEY_CTX_new_from_name(nullptr, "EC", nullptr);
    EVP_PKEY_fromdata_init(context);
    EVP_PKEY_fromdata(context, &key, EVP_PKEY_KEYPAIR, params);
    EVP_PKEY_CTX_free(context);
    OSSL_PARAM_free(params);
    BN_free(d);
    OSSL_PARAM_BLD_free(builder);
    return key;
}

static bool openssl_make_key(size_t)
{
    EVP_PKEY* key = EVP_EC_gen("P-256");
    EVP_PKEY_free(key);
    return key != nullptr;
}

static bool openssl_secret(size_t input, uint8_t* secret)
{
    size_t len = 32;
    EVP_PKEY_CTX* context = EVP_PKEY_CTX_new(openssl_keys[input], nullptr);
    const bool done = EVP_PKEY_derive_init(context) == 1 &&
                      EVP_PKEY_derive_set_peer_ex(context, openssl_peer_keys[input], 0) == 1 &&
                      EVP_PKEY_derive(context, secret, &len) == 1;
    EVP_PKEY_CTX_free(context);
    return done;
}

static bool openssl_ecdh(size_t input)
{
    uint8_t secret[32];
    return openssl_secret(input, secret);
}

static bool openssl_sign_into(size_t input, unsigned char* signature, size_t* len)
{
    *len = 80;
    EVP_PKEY_CTX* context = EVP_PKEY_CTX_new(openssl_keys[input], nullptr);
    const bool done = EVP_PKEY_sign_init(context) == 1 &&
                      EVP_PKEY_sign(context, signature, len, inputs[input].hash, 32) == 1;
    EVP_PKEY_CTX_free(context);
    return done;
}

static bool openssl_sign(size_t input)
{
    unsigned char signature[80];
    size_t len = 0;
    return openssl_sign_into(input, signature, &len);
}

static bool openssl_verify(size_t input)
{
    EVP_PKEY_CTX* context = EVP_PKEY_CTX_new(openssl_keys[input], nullptr);
    const bool done = EVP_PKEY_verify_init(context) == 1 &&
                      EVP_PKEY_verify(context, openssl_signatures[input],
                                      openssl_signature_lens[input], inputs[input].hash, 32) == 1;
    EVP_PKEY_CTX_free(context);
    return done;
}

static bool set_up_openssl_input(size_t input)
{
    openssl_keys[input] = openssl_key(inputs[input].public_key, inputs[input].private_key);
    openssl_peer_keys[input] = openssl_key(inputs[input].peer_public_key, nullptr);
    return openssl_keys[input] != nullptr && openssl_peer_keys[input] != nullptr &&
           openssl_sign_into(input, openssl_signatures[input], &openssl_signature_lens[input]);
}

// ---- All of them

static bool agree_on_secret(size_t input)
{
    uint8_t ours[32];
    uint8_t theirs[32];
    ecdh_shared_secret(inputs[input].peer_public_key, inputs[input].private_key, ours);
    for (bool (*peer)(size_t, uint8_t*) : {mbedtls_secret, bearssl_secret, openssl_secret}) {
        if (!peer(input, theirs) || memcmp(ours, theirs, sizeof ours) != 0) {
            return false;
        }
    }
    return true;
}

bool set_up_p256_peers(std::vector<P256Peer>* peers)
{
    *peers = {
        {"zentrava", engine_make_key, engine_ecdh, engine_sign, engine_verify},
        {"mbedTLS", mbedtls_make_key, mbedtls_ecdh, mbedtls_sign, mbedtls_verify},
        {"BearSSL", bearssl_make_key, bearssl_ecdh, bearssl_sign, bearssl_verify},
        {"OpenSSL", openssl_make_key, openssl_ecdh, openssl_sign, openssl_verify},
    };
    br_hmac_drbg_init(&bearssl_random, &br_sha256_vtable, "benchmark", 9);
    mbedtls_ecp_group_init(&mbedtls_group);
    if (mbedtls_ecp_group_load(&mbedtls_group, MBEDTLS_ECP_DP_SECP256R1) != 0) {
        return false;
    }
    for (size_t input = 0; input < INPUT_COUNT; ++input) {
        if (!make_input(input) || !set_up_openssl_input(input) || !agree_on_secret(input)) {
            return false;
        }
        for (const P256Peer& peer : *peers) {
            if (!peer.verify(input)) {
                return false;
            }
        }
    }
    return true;
}
