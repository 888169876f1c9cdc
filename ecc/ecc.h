/**
 * @file
 * Elliptic-curve engine for the NIST curve P-256 (secp256r1): key pairs, ECDH and ECDSA.
 *
 * @par Methods
 * The curve and the fast reduction modulo its prime are those of FIPS 186-4 (appendix D),
 * the signature scheme that of FIPS 186-4 section 6, the byte forms of points those of SEC 1
 * section 2.3. Scalar multiplication is a Montgomery ladder on points that share their Z
 * coordinate ("co-Z"): Meloni, "New Point Addition Formulae for ECC Applications" (2007); Goundar,
 * Joye, Miyaji, Rivain, Venelli, "Scalar multiplication on Weierstrass elliptic curves from co-Z
 * arithmetic" (2011); Rivain, "Fast and Regular Algorithms for Scalar Multiplication over Elliptic
 * Curves" (2011).
 *
 * @par Byte forms
 * The same in all four functions. Every integer is big-endian in 32 bytes.
 *
 *     private key  32 bytes         the scalar d, 1 <= d < n (n is the order of the curve)
 *     public key   33 or 65 bytes   first byte 0x04: the point in full, X (32) then Y (32);
 *                                   any other first byte: X (32) alone, and the lowest bit of the
 *                                   first byte is the parity of Y (0x02 even, 0x03 odd; the other
 *                                   bits are ignored)
 *     hash         32 bytes         the hash of the message, for instance SHA-256
 *     signature    64 bytes         r (32) then s (32)
 *     secret       32 bytes         the X coordinate of the shared point
 *
 * @par Pointers
 * They are not checked: a null pointer is an error of the caller and ends in a memory fault.
 * No pointer needs an alignment. An output must not overlap an input or another output. How many
 * bytes of a public key are read is decided by its first byte alone.
 *
 * @par Threads
 * The functions share no state that changes and take no lock; any number of threads may
 * call them at once, each with its own outputs. Nothing is allocated on the heap.
 *
 * @par Random numbers
 * They come from "/dev/urandom", or from "/dev/random" if the former cannot be opened.
 * The device is opened and closed anew for every number (32 bytes). A read that fails, one that a
 * signal interrupts, and an end of file count as a failure and are not repeated.
 *
 * @par Limits
 * Running time depends on the data: this is not a constant-time implementation, and it
 * does not belong where an attacker can measure time or power precisely. Public keys are not
 * validated: neither the range of the coordinates nor that the point lies on the curve is checked,
 * and an X for which no Y exists gives some point off the curve without an error. Private keys are
 * not checked for their range. Whoever receives keys from an untrusted source has to check them
 * first (for instance as in SEC 1, section 3.2.2).
 */
#ifndef ZENTRAVA_ECC_ECC_H
#define ZENTRAVA_ECC_ECC_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The library is built with hidden visibility; these declarations are its public part. */
#pragma GCC visibility push(default)

/**
 * @defgroup engine Elliptic-curve engine
 * @{
 */

/**
 * Makes a key pair from the random source.
 *
 * @param[out] p_publicKey   33 bytes: the public key, compressed (first byte 0x02 or 0x03)
 * @param[out] p_privateKey  32 bytes: the private key
 *
 * @retval 1  Success.
 * @retval 0  The random source failed, or 16 random candidates in a row were unusable (with a
 *            working source that does not happen); both outputs are left as they were.
 *
 * @snippet engine.c key pair
 */
int ecc_make_key(uint8_t* p_publicKey, uint8_t* p_privateKey);

/**
 * Computes the ECDH shared secret of one's own private key and the other side's public key: the X
 * coordinate of the shared point as it is, without a key derivation function.
 *
 * The private keys 0 and 1, which no key pair has by chance, are not refused and give the secrets
 * that belong to 2 and 3.
 *
 * @param[in]  p_publicKey   33 or 65 bytes: the other side's public key
 * @param[in]  p_privateKey  32 bytes: one's own private key
 * @param[out] p_secret      32 bytes: the shared secret
 *
 * @retval 1  Success.
 * @retval 0  The random source failed (it supplies a number that blinds the computation without an
 *            effect on its result); p_secret is left as it was. Or the computation ended at the
 *            point at infinity; p_secret then holds 32 zero bytes. That is the case for the private
 *            key n - 1 and for a public key with X = 0, which this function therefore cannot serve.
 *            What is no key at all, such as the private key n or a point off the curve, can end
 *            there as well.
 *
 * @snippet engine.c shared secret
 */
int ecdh_shared_secret(const uint8_t* p_publicKey, const uint8_t* p_privateKey, uint8_t* p_secret);

/**
 * Signs a hash with ECDSA and a random nonce.
 *
 * A signature with s = 0, which has a chance of one in 2^256, is not looked for: it is returned
 * with success, and ecdsa_verify refuses it.
 *
 * @param[in]  p_privateKey  32 bytes: the private key
 * @param[in]  p_hash        32 bytes: the hash. Every value is accepted, also one that is not below
 *                           n.
 * @param[out] p_signature   64 bytes: the signature. It is written in part before the inputs are
 *                           read, hence it must not overlap them.
 *
 * @retval 1  Success.
 * @retval 0  The random source failed, or 16 random candidates for the nonce in a row were unusable
 *            (with a working source that does not happen); p_signature is left as it was.
 *
 * @snippet engine.c signature
 */
int ecdsa_sign(const uint8_t* p_privateKey, const uint8_t* p_hash, uint8_t* p_signature);

/**
 * Verifies an ECDSA signature of a hash.
 *
 * @param[in] p_publicKey  33 or 65 bytes: the signer's public key
 * @param[in] p_hash       32 bytes: the hash
 * @param[in] p_signature  64 bytes: the signature
 *
 * @retval 1  The signature is valid.
 * @retval 0  It is not: r or s is 0 or not below n, or the signature does not belong to this hash
 *            and this key. Nothing tells the causes apart. A valid signature is refused where the
 *            computation meets two points with the same X: with a random key that does not happen,
 *            with the keys d = 1 and d = n - 1 (whose public keys have the X of the base point)
 *            nearly always.
 *
 * @snippet engine.c signature
 */
int ecdsa_verify(const uint8_t* p_publicKey, const uint8_t* p_hash, const uint8_t* p_signature);

/** @} */

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif
