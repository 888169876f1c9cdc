// The reader of key files on any bytes: a key that it accepts is one by OpenSSL's arithmetic, is the
// one that OpenSSL reads if it reads any, and comes back from each of the forms it can be written
// in, by both readers.

#include "target.h"

#include "tests/support/ecc_openssl.h"
#include "tools/p256_key_file.h"

#include <openssl/bio.h>
#include <openssl/core_names.h>
#include <openssl/decoder.h>
#include <openssl/evp.h>

#include <string.h>

#include <memory>

namespace {

const char* const PASSPHRASE = "zentrava"; // that of the encrypted files in the corpus

// X and Y, behind the byte of the uncompressed form.
Bytes point_of(const P256Key& key)
{
    return Bytes{4} + Bytes(key.x, key.x + 32) + Bytes(key.y, key.y + 32);
}

Bytes scalar_of(const P256Key& key)
{
    return {key.scalar, key.scalar + 32};
}

bool is_same_key(const P256Key& a, const P256Key& b)
{
    return a.has_private == b.has_private && point_of(a) == point_of(b) &&
           scalar_of(a) == scalar_of(b);
}

struct FreeOpenssl {
    void operator()(EVP_PKEY* key) const
    {
        EVP_PKEY_free(key);
    }
    void operator()(BIO* bio) const
    {
        BIO_free(bio);
    }
    void operator()(OSSL_DECODER_CTX* decoder) const
    {
        OSSL_DECODER_CTX_free(decoder);
    }
};
template <typename Object> using Owned = std::unique_ptr<Object, FreeOpenssl>;

// The P-256 key that OpenSSL reads from the front of the bytes; none if it reads another or nothing.
Owned<EVP_PKEY> openssl_key(const Bytes& file)
{
    EVP_PKEY* key = nullptr;
    const Owned<OSSL_DECODER_CTX> decoder(
        OSSL_DECODER_CTX_new_for_pkey(&key, nullptr, nullptr, "EC", 0, nullptr, nullptr));
    const Owned<BIO> bio(BIO_new_mem_buf(file.data(), static_cast<int>(file.size())));
    OSSL_DECODER_from_bio(decoder.get(), bio.get());
    Owned<EVP_PKEY> owned(key);
    char curve[32] = "";
    if (key == nullptr || EVP_PKEY_get_group_name(key, curve, sizeof curve, nullptr) != 1 ||
        strcmp(curve, "prime256v1") != 0 ||
        EVP_PKEY_get_octet_string_param(key, OSSL_PKEY_PARAM_PUB_KEY, nullptr, 0, nullptr) != 1) {
        return nullptr; // or the parameters alone, which can stand in front of a key
    }
    return owned;
}

Bytes number_of(EVP_PKEY* key, const char* parameter)
{
    BIGNUM* number = nullptr;
    Bytes result(32);
    if (EVP_PKEY_get_bn_param(key, parameter, &number) == 1) {
        BN_bn2binpad(number, result.data(), 32);
    }
    BN_clear_free(number);
    return result;
}

bool is_key_of_openssl(const P256Key& key, EVP_PKEY* other)
{
    const Bytes point = Bytes{4} + number_of(other, OSSL_PKEY_PARAM_EC_PUB_X) +
                        number_of(other, OSSL_PKEY_PARAM_EC_PUB_Y);
    return point_of(key) == point && scalar_of(key) == number_of(other, OSSL_PKEY_PARAM_PRIV_KEY);
}

void check_written(const P256Key& key, const Bytes& file)
{
    P256Key read_back;
    demand(!read_p256_key("", file.data(), file.size(), nullptr, &read_back) &&
               is_same_key(key, read_back),
           "a written key reads the same");
    const Owned<EVP_PKEY> by_openssl = openssl_key(file);
    demand(by_openssl != nullptr && is_key_of_openssl(key, by_openssl.get()),
           "OpenSSL reads a written key");
}

void check_forms(const P256Key& key)
{
    Bytes file;
    P256Key public_part = key;
    public_part.has_private = false;
    memset(public_part.scalar, 0, sizeof public_part.scalar);
    for (const bool pem : {true, false}) {
        demand(!write_p256_public_key(key, pem, &file), "a public key can be written");
        check_written(public_part, file);
    }
    for (const KeyFileFormat format : {PEM_PKCS8, PEM_SEC1, DER_PKCS8, DER_SEC1}) {
        const bool failed = write_p256_private_key(key, format, &file).has_value();
        demand(failed == !key.has_private, "a private key, and no other, can be written");
        if (!failed) {
            check_written(key, file);
        }
    }
}

void check_key(const P256Key& key, const Bytes& file)
{
    if (key.has_private) {
        demand(openssl_base_mult(integer(scalar_of(key))) == point_of(key), "X and Y belong to it");
    } else {
        demand(scalar_of(key) == Bytes(32), "a public key has no scalar");
    }
    demand(p256_point_is_on_curve(key.x, key.y), "it is on the curve");
    openssl_uncompressed(point_of(key)); // throws if it is not
    const Owned<EVP_PKEY> by_openssl = openssl_key(file);
    demand(by_openssl == nullptr || is_key_of_openssl(key, by_openssl.get()),
           "OpenSSL reads the same");
    check_forms(key);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const Bytes file(data, data + size);
    P256Key key;
    const bool is_encrypted = p256_key_file_is_encrypted(file.data(), file.size());
    const std::optional<Failure> failure =
        read_p256_key("file", file.data(), file.size(), PASSPHRASE, &key);
    if (!failure) {
        check_key(key, is_encrypted ? Bytes() : file);
        return 0;
    }
    demand(!failure->cause.empty() && !failure->remedy.empty(), "a failure is explained");
    static const P256Key WIPED = {};
    demand(is_same_key(key, WIPED), "nothing is left of a key that was refused");
    return 0;
}
