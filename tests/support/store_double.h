// Stands between the driver and the key store: keeps what the store was asked for and, when told
// to, answers in its place. What the real store does is untouched until then.
//
// A program that uses this is built with support/store_double.cpp and with WRAP get_key.
#pragma once

#include "tests/support/bytes.h"

#include <stdint.h>

#include <vector>

// Of a fixed size: keeping a request takes no memory, so that a test can count the driver's.
struct StoreRequest {
    const unsigned char* uid;
    char key_name[64];
    uint8_t* buffer;
    uint32_t len;
};

struct StoreAnswer {
    uint32_t result;
    Bytes key;    // written to the buffer whatever the result
    uint32_t len; // reported as the key's length
};

// The store answers by itself again, and the requests are forgotten.
void restore_store();
void answer_for_store(const StoreAnswer& answer);
const std::vector<StoreRequest>& store_requests();
