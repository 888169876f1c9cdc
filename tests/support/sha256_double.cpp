#include "tests/support/sha256_double.h"

#include <algorithm>
#include <optional>

struct Sha256Failure {
    int error;
    Bytes output;
};
static std::optional<Sha256Failure> prepared_failure;
static std::vector<Sha256Request> requests;

void restore_sha256()
{
    prepared_failure.reset();
    requests.clear();
}

void fail_sha256(int error, const Bytes& output)
{
    prepared_failure = {error, output};
}

const std::vector<Sha256Request>& sha256_requests()
{
    return requests;
}

extern "C" {

int __real_mbedtls_sha256_ret(const unsigned char* input, size_t len, unsigned char* output,
                              int is224);
int __wrap_mbedtls_sha256_ret(const unsigned char* input, size_t len, unsigned char* output,
                              int is224);

int __wrap_mbedtls_sha256_ret(const unsigned char* input, size_t len, unsigned char* output,
                              int is224)
{
    requests.push_back({input, len, bytes_at(output, 32), is224});
    if (!prepared_failure) {
        return __real_mbedtls_sha256_ret(input, len, output, is224);
    }
    std::copy(prepared_failure->output.begin(), prepared_failure->output.end(), output);
    return prepared_failure->error;
}
}
