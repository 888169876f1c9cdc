// Looks for secrets in the memory of the process itself: its data, that of its shared libraries, and
// the heap, which is the one that forgets nothing (remembering_heap.h). The first thread's stack is
// left out.
//
// A secret is held with its bits flipped, and compared that way, so that the scan does not find
// itself.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <string>
#include <vector>

struct Secret {
    std::string name;
    std::vector<uint8_t> flipped;
};

// So many random bytes, none of them zero: what is wiped is never taken for a part of it.
Secret random_secret(const std::string& name, size_t size);

// A secret that lies in memory.
Secret secret_at(const std::string& name, const uint8_t* bytes, size_t size);

// The bytes, to be wiped by the caller.
void write_secret(const Secret& secret, uint8_t* bytes);
// The bytes as hexadecimal digits with a terminator, to be wiped by the caller.
void write_secret_text(const Secret& secret, char* text);

// What is left of a secret in one piece of memory.
struct Finding {
    std::string secret;
    std::string form;  // "bytes", "text", or what an HMAC, a hash or the engine makes of the bytes
    std::string place; // who asked for the block of the heap, or the name of the mapping
    bool is_live;      // whether the block is in use, which is always so outside the heap
    size_t size;       // bytes that belong to runs of at least 8 bytes of the secret
};

// In the order of their addresses.
std::vector<Finding> find_secrets(const std::vector<Secret>& secrets);
