#include "ecc_openssl.h"

#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/ec.h>
#include <openssl/ecdsa.h>
#include <openssl/evp.h>
#include <openssl/obj_mac.h>
#include <openssl/param_build.h>

#include <memory>
#include <stdexcept>

template <typename Object, void (*release)(Object*)> struct Release {
    void operator()(Object* object) const
    {
        release(object);
    }
};
template <typename Object, void (*release)(Object*)>
using Owned = std::unique_ptr<Object, Release<Object, release>>;

using BigNumber = Owned<BIGNUM, BN_free>;
using CurvePoint = Owned<EC_POINT, EC_POINT_free>;
using Key = Owned<EVP_PKEY, EVP_PKEY_free>;
using KeyContext = Owned<EVP_PKEY_CTX, EVP_PKEY_CTX_free>;
using Parameters = Owned<OSSL_PARAM, OSSL_PARAM_free>;
using ParameterBuilder = Owned<OSSL_PARAM_BLD, OSSL_PARAM_BLD_free>;
using RawSignature = Owned<ECDSA_SIG, ECDSA_SIG_free>;

static void demand(bool condition)
{
    if (!condition) {
        throw std::runtime_error("an OpenSSL function failed");
    }
}

static const EC_GROUP* group()
{
    static EC_GROUP* const p256 = EC_GROUP_new_by_curve_name(NID_X9_62_prime256v1);
    return p256;
}

static BigNumber big_number(const Bytes& big_endian)
{
    return BigNumber(BN_bin2bn(big_endian.data(), static_cast<int>(big_endian.size()), nullptr));
}

static mpz_class integer(const BIGNUM* number)
{
    Bytes big_endian(static_cast<size_t>(BN_num_bytes(number)));
    BN_bn2bin(number, big_endian.data());
    return integer(big_endian);
}

static CurvePoint new_point()
{
    return CurvePoint(EC_POINT_new(group()));
}

static CurvePoint read_point(const Bytes& form)
{
    CurvePoint point = new_point();
    demand(EC_POINT_oct2point(group(), point.get(), form.data(), form.size(), nullptr) == 1);
    return point;
}

static Bytes write_point(const EC_POINT* point, point_conversion_form_t form)
{
    Bytes result(65);
    result.resize(EC_POINT_point2oct(group(), point, form, result.data(), result.size(), nullptr));
    demand(!result.empty());
    return result;
}

Bytes openssl_mult(const mpz_class& scalar, const Bytes& point)
{
    const CurvePoint operand = read_point(point);
    const CurvePoint result = new_point();
    demand(EC_POINT_mul(group(), result.get(), nullptr, operand.get(),
                        big_number(bytes(scalar)).get(), nullptr) == 1);
    return write_point(result.get(), POINT_CONVERSION_UNCOMPRESSED);
}

Bytes openssl_base_mult(const mpz_class& scalar)
{
    const CurvePoint result = new_point();
    demand(EC_POINT_mul(group(), result.get(), big_number(bytes(scalar)).get(), nullptr, nullptr,
                        nullptr) == 1);
    return write_point(result.get(), POINT_CONVERSION_UNCOMPRESSED);
}

Bytes openssl_add(const Bytes& left, const Bytes& right)
{
    const CurvePoint first = read_point(left);
    const CurvePoint second = read_point(right);
    demand(EC_POINT_add(group(), first.get(), first.get(), second.get(), nullptr) == 1);
    return write_point(first.get(), POINT_CONVERSION_UNCOMPRESSED);
}

Bytes openssl_compressed(const Bytes& point)
{
    return write_point(read_point(point).get(), POINT_CONVERSION_COMPRESSED);
}

Bytes openssl_uncompressed(const Bytes& point)
{
    return write_point(read_point(point).get(), POINT_CONVERSION_UNCOMPRESSED);
}

static Key new_key(int selection, const Bytes& public_key, const BIGNUM* private_key)
{
    const ParameterBuilder builder(OSSL_PARAM_BLD_new());
    demand(OSSL_PARAM_BLD_push_utf8_string(builder.get(), OSSL_PKEY_PARAM_GROUP_NAME,
                                           SN_X9_62_prime256v1, 0) == 1);
    demand(OSSL_PARAM_BLD_push_octet_string(builder.get(), OSSL_PKEY_PARAM_PUB_KEY,
                                            public_key.data(), public_key.size()) == 1);
    if (private_key != nullptr) {
        demand(OSSL_PARAM_BLD_push_BN(builder.get(), OSSL_PKEY_PARAM_PRIV_KEY, private_key) == 1);
    }
    const Parameters parameters(OSSL_PARAM_BLD_to_param(builder.get()));
    const KeyContext context(EVP_PKEY_CTX_new_from_name(nullptr, "EC", nullptr));
    EVP_PKEY* key = nullptr;
    demand(EVP_PKEY_fromdata_init(context.get()) == 1 &&
           EVP_PKEY_fromdata(context.get(), &key, selection, parameters.get()) == 1);
    return Key(key);
}

static Key public_key_object(const Bytes& public_key)
{
    return new_key(EVP_PKEY_PUBLIC_KEY, public_key, nullptr);
}

static Key private_key_object(const Bytes& private_key)
{
    return new_key(EVP_PKEY_KEYPAIR, openssl_base_mult(integer(private_key)),
                   big_number(private_key).get());
}

static KeyContext context_of(const Key& key)
{
    return KeyContext(EVP_PKEY_CTX_new_from_pkey(nullptr, key.get(), nullptr));
}

Bytes openssl_ecdh(const Bytes& private_key, const Bytes& public_key)
{
    const Key own = private_key_object(private_key);
    const Key peer = public_key_object(public_key);
    const KeyContext context = context_of(own);
    Bytes secret(32);
    size_t length = secret.size();
    demand(EVP_PKEY_derive_init(context.get()) == 1 &&
           EVP_PKEY_derive_set_peer(context.get(), peer.get()) == 1 &&
           EVP_PKEY_derive(context.get(), secret.data(), &length) == 1 && length == 32);
    return secret;
}

Bytes openssl_sign(const Bytes& private_key, const Bytes& hash)
{
    const Key key = private_key_object(private_key);
    const KeyContext context = context_of(key);
    Bytes der(80);
    size_t length = der.size();
    demand(EVP_PKEY_sign_init(context.get()) == 1 &&
           EVP_PKEY_sign(context.get(), der.data(), &length, hash.data(), hash.size()) == 1);
    const unsigned char* start = der.data();
    const RawSignature raw(d2i_ECDSA_SIG(nullptr, &start, static_cast<long>(length)));
    return bytes(integer(ECDSA_SIG_get0_r(raw.get()))) +
           bytes(integer(ECDSA_SIG_get0_s(raw.get())));
}

bool openssl_verify(const Bytes& public_key, const Bytes& hash, const Bytes& signature)
{
    const RawSignature raw(ECDSA_SIG_new());
    demand(ECDSA_SIG_set0(raw.get(), BN_bin2bn(signature.data(), 32, nullptr),
                          BN_bin2bn(signature.data() + 32, 32, nullptr)) == 1);
    Bytes der(80);
    unsigned char* end = der.data();
    const int length = i2d_ECDSA_SIG(raw.get(), &end);
    demand(length > 0);

    const Key key = public_key_object(public_key);
    const KeyContext context = context_of(key);
    demand(EVP_PKEY_verify_init(context.get()) == 1);
    return EVP_PKEY_verify(context.get(), der.data(), static_cast<size_t>(length), hash.data(),
                           hash.size()) == 1;
}

std::array<mpz_class, 6> openssl_curve()
{
    std::array<BigNumber, 5> numbers;
    std::generate(numbers.begin(), numbers.end(), [] { return BigNumber(BN_new()); });
    demand(EC_GROUP_get_curve(group(), numbers[0].get(), numbers[1].get(), numbers[2].get(),
                              nullptr) == 1);
    demand(EC_POINT_get_affine_coordinates(group(), EC_GROUP_get0_generator(group()),
                                           numbers[3].get(), numbers[4].get(), nullptr) == 1);
    return {integer(numbers[0].get()), integer(numbers[1].get()),
            integer(numbers[2].get()), integer(EC_GROUP_get0_order(group())),
            integer(numbers[3].get()), integer(numbers[4].get())};
}
