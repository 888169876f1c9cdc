// ecdsa_verify and ecdh_shared_secret on keys and signatures that are right, damaged or made up:
// against OpenSSL where the curve's theory decides, and against a model of the engine's steps where
// it does not (a public key that is not on the curve, a scalar at the end of its range).

#include "gmp_memory.h"
#include "target.h"

#include "ecc/ecc.h"
#include "tests/support/ecc_model.h"
#include "tests/support/ecc_openssl.h"

#include <memory>

using ecc_model::n;
using ecc_model::p;

namespace {

// What a byte can ask for is any 32 bytes, or a number at an end of the order's range.
mpz_class take_number(Input* input)
{
    switch (take_byte(input)) {
    case 0:
        return take_byte(input);
    case 1:
        return n - take_byte(input);
    case 2:
        return n + take_byte(input);
    case 3:
        return p - take_byte(input);
    default:
        return integer(take_bytes(input, 32));
    }
}

// As 64 bytes.
Bytes take_two_numbers(Input* input)
{
    const Bytes first = bytes(take_number(input));
    return first + bytes(take_number(input));
}

mpz_class into_range(const mpz_class& number)
{
    return 1 + number % (n - 1);
}

// Flips bits of one byte, or of none.
void damage(Input* input, Bytes* bytes)
{
    const size_t position = take_byte(input);
    (*bytes)[position % bytes->size()] ^= take_byte(input);
}

// The size is that of the form, which the first byte tells.
Bytes take_public_key(Input* input, const mpz_class& private_key)
{
    const uint8_t form = take_byte(input);
    Bytes key = openssl_base_mult(private_key);
    if (form % 4 == 1) {
        key = openssl_compressed(key);
    } else if (form % 4 == 2) {
        key = Bytes{4} + take_two_numbers(input);
    } else if (form % 4 == 3) {
        key = Bytes{static_cast<uint8_t>(form / 4)} + bytes(take_number(input));
    }
    damage(input, &key);
    key.resize(key[0] == 4 ? 65 : 33);
    return key;
}

// FIPS 186-4, section 6.4, with the nonce from the input.
Bytes signature_of(const Bytes& hash, const mpz_class& private_key, const mpz_class& nonce)
{
    const Bytes point = openssl_base_mult(nonce);
    const mpz_class r = integer(Bytes(point.begin() + 1, point.begin() + 33)) % n;
    mpz_class inverse;
    mpz_invert(inverse.get_mpz_t(), nonce.get_mpz_t(), n.get_mpz_t());
    const mpz_class s = (integer(hash) + r * private_key) * inverse % n;
    return bytes(r) + bytes(s);
}

Bytes take_signature(Input* input, const Bytes& hash, const mpz_class& private_key)
{
    Bytes signature;
    if (take_byte(input) % 2 == 0) {
        signature = signature_of(hash, private_key, into_range(take_number(input)));
    } else {
        signature = take_two_numbers(input);
    }
    damage(input, &signature);
    return signature;
}

bool is_on_curve(const Bytes& key)
{
    const mpz_class x = integer(Bytes(key.begin() + 1, key.begin() + 33));
    const mpz_class right = (x * x * x - 3 * x + ecc_model::b) % p;
    if (key[0] != 4) {
        return x < p && mpz_legendre(right.get_mpz_t(), p.get_mpz_t()) == 1;
    }
    const mpz_class y = integer(Bytes(key.begin() + 33, key.end()));
    return x < p && y < p && (y * y - right) % p == 0;
}

// The engine takes any first byte but 4 for the parity of Y; OpenSSL wants 2 or 3.
Bytes standard_form(Bytes key)
{
    if (key[0] != 4) {
        key[0] = static_cast<uint8_t>(2 + key[0] % 2);
    }
    return key;
}

// A copy without a byte too many, for the sanitizer to watch.
std::unique_ptr<uint8_t[]> exact_copy(const Bytes& bytes)
{
    std::unique_ptr<uint8_t[]> copy(new uint8_t[bytes.size()]);
    std::copy(bytes.begin(), bytes.end(), copy.get());
    return copy;
}

// A valid signature is refused where an addition meets two points with the same X, as it always does
// for the base point's own key. The other way round there is no exception.
void check_verification(const Bytes& key, const Bytes& hash, const Bytes& signature)
{
    const bool accepted = ecdsa_verify(exact_copy(key).get(), exact_copy(hash).get(),
                                       exact_copy(signature).get()) == 1;
    if (is_on_curve(key)) {
        if (accepted == openssl_verify(standard_form(key), hash, signature)) {
            return;
        }
        demand(!accepted, "no signature is accepted that OpenSSL refuses");
    }
    demand(accepted == ecc_model::verify(key, hash, signature), "verification, step by step");
}

bool theory_decides(const Bytes& key, const mpz_class& scalar)
{
    const Bytes x(key.begin() + 1, key.begin() + 33);
    return is_on_curve(key) && integer(x) != 0 && scalar >= 2 && scalar <= n - 2;
}

// The ladder's random Z does not show in the result, so that the model needs none.
void check_agreement(const Bytes& key, const mpz_class& scalar)
{
    const std::unique_ptr<uint8_t[]> secret = exact_copy(Bytes(32));
    const int agreed =
        ecdh_shared_secret(exact_copy(key).get(), exact_copy(bytes(scalar)).get(), secret.get());
    const Bytes x(secret.get(), secret.get() + 32);
    if (theory_decides(key, scalar)) {
        const Bytes point = openssl_mult(scalar, standard_form(key));
        demand(agreed == 1, "there is a shared secret");
        demand(x == Bytes(point.begin() + 1, point.begin() + 33), "the shared secret is OpenSSL's");
        return;
    }
    const ecc_model::Point point = ecc_model::shared_point(key, bytes(scalar), 1);
    demand((agreed == 1) == (point.x != 0 || point.y != 0), "agreement, step by step");
    demand(x == bytes(point.x), "shared secret, step by step");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const bool has_memory = use_gmp_blocks();
    demand(has_memory, "GMP has memory");
    Input input = {data, size};
    const bool is_agreement = take_byte(&input) % 2 == 1;
    const mpz_class private_key = into_range(take_number(&input));
    const Bytes key = take_public_key(&input, private_key);
    if (is_agreement) {
        check_agreement(key, take_number(&input));
    } else {
        const Bytes hash = bytes(take_number(&input));
        check_verification(key, hash, take_signature(&input, hash, private_key));
    }
    return 0;
}
