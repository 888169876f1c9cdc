#include "tests/support/store_double.h"

#include <stdio.h>
#include <string.h>

#include <optional>

static std::optional<StoreAnswer> prepared_answer;
static std::vector<StoreRequest> requests;

void restore_store()
{
    prepared_answer.reset();
    requests.clear();
    requests.reserve(64);
}

void answer_for_store(const StoreAnswer& answer)
{
    prepared_answer = answer;
}

const std::vector<StoreRequest>& store_requests()
{
    return requests;
}

extern "C" {

uint32_t __real_get_key(const unsigned char* uid, const char* key_name, uint8_t* key,
                        uint32_t* key_buf_len_p);
uint32_t __wrap_get_key(const unsigned char* uid, const char* key_name, uint8_t* key,
                        uint32_t* key_buf_len_p);

uint32_t __wrap_get_key(const unsigned char* uid, const char* key_name, uint8_t* key,
                        uint32_t* key_buf_len_p)
{
    StoreRequest request = {uid, "", key, *key_buf_len_p};
    snprintf(request.key_name, sizeof request.key_name, "%s", key_name);
    requests.push_back(request);
    if (!prepared_answer) {
        return __real_get_key(uid, key_name, key, key_buf_len_p);
    }
    if (!prepared_answer->key.empty()) {
        memcpy(key, prepared_answer->key.data(), prepared_answer->key.size());
    }
    *key_buf_len_p = prepared_answer->len;
    return prepared_answer->result;
}
}
