// P-256 keys in the files of the openssl command: PEM and DER, private keys as PKCS #8 (RFC 5958)
// or SEC 1 (RFC 5915), public ones as SubjectPublicKeyInfo (RFC 5480).
#ifndef ZENTRAVA_TOOLS_P256_KEY_FILE_H
#define ZENTRAVA_TOOLS_P256_KEY_FILE_H

#include "failure.h"

#include <stddef.h>
#include <stdint.h>

#include <optional>
#include <string>
#include <vector>

// A public key, X and Y of a point on the curve, and its private scalar if that is known. All
// numbers are big-endian. Whoever holds one with a scalar on the stack wipes it after use; vectors
// are wiped with the heap (wiping_heap.h).
struct P256Key {
    bool has_private;
    uint8_t scalar[32]; // 1 to n - 1
    uint8_t x[32];
    uint8_t y[32];
};

enum KeyFileFormat { PEM_PKCS8, PEM_SEC1, DER_PKCS8, DER_SEC1 };

void wipe_key(P256Key* key);

// Whether a number is a private key: 1 to n - 1, n being the order of the base point.
bool p256_scalar_is_in_range(const uint8_t scalar[32]);

bool p256_point_is_on_curve(const uint8_t x[32], const uint8_t y[32]);

// The key of a private scalar, with its public key computed; refused if it is out of range.
std::optional<Failure> p256_key_of_scalar(const uint8_t scalar[32], P256Key* key);

// The public key of a point; refused if it is not on the curve.
std::optional<Failure> p256_key_of_point(const uint8_t x[32], const uint8_t y[32], P256Key* key);

// A new key, from the operating system's random numbers.
std::optional<Failure> make_p256_key(P256Key* key);

// Reads the first key of a file's content; which of the forms above it has is seen from the content
// itself. Encrypted are read: PKCS #8 with DES or triple DES (PBES2, or PKCS #12's PBE with SHA-1
// and triple DES), and SEC 1 in PEM as its "DEK-Info" tells. Everything else that is no P-256 key
// with numbers in range is refused, with the reason; `key` is then wiped.
//
// file_name   for messages, and what a remedy tells to convert
// passphrase  NUL-terminated; null when there is none
std::optional<Failure> read_p256_key(const std::string& file_name, const uint8_t* bytes,
                                     size_t size, const char* passphrase, P256Key* key);

// Whether a file's content is an encrypted private key, for which a passphrase is to be had.
bool p256_key_file_is_encrypted(const uint8_t* bytes, size_t size);

// The bytes of the file that a key makes, not encrypted, as the openssl command writes them.
std::optional<Failure> write_p256_private_key(const P256Key& key, KeyFileFormat format,
                                              std::vector<uint8_t>* out);
std::optional<Failure> write_p256_public_key(const P256Key& key, bool pem,
                                             std::vector<uint8_t>* out);

#endif
