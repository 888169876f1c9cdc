#include "tests/support/mbedtls_double.h"

#include <algorithm>

static MbedtlsCalls calls;

struct Failure {
    std::string function; // none while empty
    int error;
    size_t calls_to_go;
};
static Failure failure = {};

size_t MbedtlsCalls::count(const std::string& function) const
{
    return static_cast<size_t>(std::count(functions.begin(), functions.end(), function));
}

void restore_mbedtls()
{
    calls = {};
    failure = {};
}

void fail_in_mbedtls(const std::string& function, int error, size_t fail_at)
{
    failure = {function, error, fail_at};
}

const MbedtlsCalls& mbedtls_calls()
{
    return calls;
}

// Enters the call; what it returns if it is the one to fail, else 0.
static int enter_call(const std::string& function)
{
    calls.functions.push_back(function);
    if (function != failure.function || --failure.calls_to_go != 0) {
        return 0;
    }
    failure.function.clear();
    return failure.error;
}

extern "C" {

void __real_mbedtls_md_init(mbedtls_md_context_t* context);
void __real_mbedtls_md_free(mbedtls_md_context_t* context);
const mbedtls_md_info_t* __real_mbedtls_md_info_from_type(mbedtls_md_type_t type);
int __real_mbedtls_md_setup(mbedtls_md_context_t* context, const mbedtls_md_info_t* info, int hmac);
int __real_mbedtls_md_hmac_starts(mbedtls_md_context_t* context, const uint8_t* key,
                                  size_t key_len);
int __real_mbedtls_md_hmac_update(mbedtls_md_context_t* context, const uint8_t* input,
                                  size_t input_len);
int __real_mbedtls_md_hmac_finish(mbedtls_md_context_t* context, uint8_t* output);

void __wrap_mbedtls_md_init(mbedtls_md_context_t* context);
void __wrap_mbedtls_md_free(mbedtls_md_context_t* context);
const mbedtls_md_info_t* __wrap_mbedtls_md_info_from_type(mbedtls_md_type_t type);
int __wrap_mbedtls_md_setup(mbedtls_md_context_t* context, const mbedtls_md_info_t* info, int hmac);
int __wrap_mbedtls_md_hmac_starts(mbedtls_md_context_t* context, const uint8_t* key,
                                  size_t key_len);
int __wrap_mbedtls_md_hmac_update(mbedtls_md_context_t* context, const uint8_t* input,
                                  size_t input_len);
int __wrap_mbedtls_md_hmac_finish(mbedtls_md_context_t* context, uint8_t* output);

void __wrap_mbedtls_md_init(mbedtls_md_context_t* context)
{
    enter_call("mbedtls_md_init");
    __real_mbedtls_md_init(context);
}

void __wrap_mbedtls_md_free(mbedtls_md_context_t* context)
{
    enter_call("mbedtls_md_free");
    __real_mbedtls_md_free(context);
}

const mbedtls_md_info_t* __wrap_mbedtls_md_info_from_type(mbedtls_md_type_t type)
{
    enter_call("mbedtls_md_info_from_type");
    calls.info_types.push_back(type);
    return __real_mbedtls_md_info_from_type(type);
}

int __wrap_mbedtls_md_setup(mbedtls_md_context_t* context, const mbedtls_md_info_t* info, int hmac)
{
    calls.hmac_flags.push_back(hmac);
    const int error = enter_call("mbedtls_md_setup");
    return error != 0 ? error : __real_mbedtls_md_setup(context, info, hmac);
}

int __wrap_mbedtls_md_hmac_starts(mbedtls_md_context_t* context, const uint8_t* key, size_t key_len)
{
    calls.keys.push_back(key);
    calls.key_lens.push_back(key_len);
    const int error = enter_call("mbedtls_md_hmac_starts");
    return error != 0 ? error : __real_mbedtls_md_hmac_starts(context, key, key_len);
}

int __wrap_mbedtls_md_hmac_update(mbedtls_md_context_t* context, const uint8_t* input,
                                  size_t input_len)
{
    calls.piece_lens.push_back(input_len);
    calls.fed.insert(calls.fed.end(), input, input + input_len);
    const int error = enter_call("mbedtls_md_hmac_update");
    return error != 0 ? error : __real_mbedtls_md_hmac_update(context, input, input_len);
}

int __wrap_mbedtls_md_hmac_finish(mbedtls_md_context_t* context, uint8_t* output)
{
    calls.outputs.push_back(output);
    const int error = enter_call("mbedtls_md_hmac_finish");
    return error != 0 ? error : __real_mbedtls_md_hmac_finish(context, output);
}
}
