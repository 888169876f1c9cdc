#include "tests/support/engine_double.h"

#include <string.h>

#include <algorithm>
#include <optional>

struct EngineAnswer {
    int result;
    Bytes output;
};
static std::optional<EngineAnswer> prepared_answer;
static EngineRequests requests;

void restore_engine()
{
    prepared_answer.reset();
    requests = {};
    requests.secrets.reserve(64);
    requests.signatures.reserve(64);
    requests.verifications.reserve(64);
}

void answer_for_engine(int result, const Bytes& output)
{
    prepared_answer = {result, output};
}

const EngineRequests& engine_requests()
{
    return requests;
}

template <size_t count> static std::array<uint8_t, count> copy_of(const uint8_t* bytes)
{
    std::array<uint8_t, count> copy;
    std::copy_n(bytes, count, copy.begin());
    return copy;
}

static int answer_into(uint8_t* output)
{
    std::copy(prepared_answer->output.begin(), prepared_answer->output.end(), output);
    return prepared_answer->result;
}

extern "C" {

int __real_ecdh_shared_secret(const uint8_t* public_key, const uint8_t* private_key,
                              uint8_t* secret);
int __real_ecdsa_sign(const uint8_t* private_key, const uint8_t* hash, uint8_t* signature);
int __real_ecdsa_verify(const uint8_t* public_key, const uint8_t* hash, const uint8_t* signature);

int __wrap_ecdh_shared_secret(const uint8_t* public_key, const uint8_t* private_key,
                              uint8_t* secret);
int __wrap_ecdsa_sign(const uint8_t* private_key, const uint8_t* hash, uint8_t* signature);
int __wrap_ecdsa_verify(const uint8_t* public_key, const uint8_t* hash, const uint8_t* signature);

int __wrap_ecdh_shared_secret(const uint8_t* public_key, const uint8_t* private_key,
                              uint8_t* secret)
{
    requests.secrets.push_back({public_key, copy_of<65>(public_key), copy_of<32>(private_key),
                                secret, copy_of<32>(secret)});
    return prepared_answer ? answer_into(secret)
                           : __real_ecdh_shared_secret(public_key, private_key, secret);
}

int __wrap_ecdsa_sign(const uint8_t* private_key, const uint8_t* hash, uint8_t* signature)
{
    requests.signatures.push_back({private_key, copy_of<32>(hash), signature});
    return prepared_answer ? answer_into(signature)
                           : __real_ecdsa_sign(private_key, hash, signature);
}

int __wrap_ecdsa_verify(const uint8_t* public_key, const uint8_t* hash, const uint8_t* signature)
{
    requests.verifications.push_back({public_key, copy_of<32>(hash), signature});
    return prepared_answer ? prepared_answer->result
                           : __real_ecdsa_verify(public_key, hash, signature);
}
}
