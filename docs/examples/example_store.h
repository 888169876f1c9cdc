/*
 * The key store that the examples of this directory work on, and the values they use. Keys and
 * points are published ones (RFC 5903, section 8.1; RFC 6979, appendix A.2.5): for use here only.
 */
#ifndef EXAMPLE_STORE_H
#define EXAMPLE_STORE_H

#include <stdbool.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define DEVICE_UID "0123456789abcdef0123456789abcdef"

#define SRK_TEXT "000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f"
#define CRK_TEXT "404142434445464748494a4b4c4d4e4f505152535455565758595a5b5c5d5e5f"
#define CSK_TEXT "808182838485868788898a8b8c8d8e8f909192939495969798999a9b9c9d9e9f"
#define ECDSA_PRIVATE_TEXT "c9afa9d845ba75166b5c215767b1d6934e50c3db36e89b127b8a622b120f6721"
#define ECDSA_PUBLIC_TEXT                                                                          \
    "60fed4ba255a9d31c961eb74c6356d68c049b8923b61fa6ce669622e60f29fb6"                             \
    "7903fe1008b8bc99a41ae9e95628bc64f2f1b20c2d7e9f5177a3c294d4462299"
#define ECDH_PRIVATE_TEXT "c88f01f510d9ac3f70a292daa2316de544e9aab8afe84049c62a9c57862d1433"
#define PEER_TEXT                                                                                  \
    "d12dfb5289c8d4f81208b70270398c342296970a0bccb74c736fc7554494bf63"                             \
    "56fbf3ca366cc23e8157854c13c58d6aac23f046ada30f8353e74f33039872ab"

extern const uint8_t message[];
extern const uint32_t message_len;
extern const uint8_t amtc0[4]; /* the device's power-on AMTC0 value */

/* Makes the two store files in the working directory: DEVICE_UID's "srk", "crk",
 * "tmp_client_session_key", "ecdsa_prv", "ecdh_prv" and the keys of KTS slot 3 in the private one,
 * its "ECDSA_DS_PuK" in the public one, with the handles 1 to 8 and metadata for the first. */
bool make_store(void);

/* Whether 32 bytes are those of a hexadecimal text. */
bool is_equal(const uint8_t* bytes, const char* text);

/* Reports an example that did not come out as it should. */
bool run(const char* example, bool (*function)(void));

#ifdef __cplusplus
}
#endif

#endif
