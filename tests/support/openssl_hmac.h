// HMAC-SHA256 as OpenSSL computes it: the oracle that this library's tags are compared with.
#pragma once

#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <stddef.h>
#include <stdint.h>

#include <array>

using Tag = std::array<uint8_t, 32>;

inline Tag openssl_hmac_sha256(const void* key, size_t key_len, const void* msg, size_t msg_len)
{
    Tag tag = {};
    unsigned int tag_len = 0;
    HMAC(EVP_sha256(), key, static_cast<int>(key_len), static_cast<const unsigned char*>(msg),
         msg_len, tag.data(), &tag_len);
    return tag;
}
