// Byte strings for tests: test material, and the hexadecimal form that stores and messages show.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

using Bytes = std::vector<uint8_t>;

// `count` bytes: `first`, `first` + 1 and so on, from 255 on to 0.
inline Bytes counting_from(uint8_t first, size_t count)
{
    Bytes bytes;
    for (size_t i = 0; i < count; ++i) {
        bytes.push_back(static_cast<uint8_t>(first + i));
    }
    return bytes;
}

inline Bytes bytes_at(const void* address, size_t count)
{
    const auto* bytes = static_cast<const uint8_t*>(address);
    return {bytes, bytes + count};
}

inline Bytes bytes_of(const std::string& text)
{
    return {text.begin(), text.end()};
}

inline std::string to_hex(const Bytes& bytes)
{
    std::string text;
    for (const uint8_t byte : bytes) {
        char digits[3];
        snprintf(digits, sizeof digits, "%02x", byte);
        text += digits;
    }
    return text;
}

inline Bytes from_hex(const std::string& text)
{
    Bytes bytes;
    for (size_t i = 0; i + 1 < text.size(); i += 2) {
        bytes.push_back(static_cast<uint8_t>(strtoul(text.substr(i, 2).c_str(), nullptr, 16)));
    }
    return bytes;
}

// A copy whose last byte is the last that can be accessed at all: one step further is a
// segmentation fault, in every build.
struct UnmapCopy {
    void* memory;
    size_t size;

    void operator()(uint8_t*) const
    {
        munmap(memory, size);
    }
};
using ExactCopy = std::unique_ptr<uint8_t[], UnmapCopy>;

inline ExactCopy exact_copy(const Bytes& bytes)
{
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    const size_t accessible = (bytes.size() + page) / page * page;
    const size_t size = accessible + page;
    void* memory = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) {
        abort();
    }
    uint8_t* end = static_cast<uint8_t*>(memory) + accessible;
    if (mprotect(end, page, PROT_NONE) != 0) {
        abort();
    }
    uint8_t* copy = end - bytes.size();
    if (!bytes.empty()) {
        memcpy(copy, bytes.data(), bytes.size());
    }
    return {copy, {memory, size}};
}

// A copy in memory that the library may free.
inline uint8_t* malloc_copy(const Bytes& bytes)
{
    auto* copy = static_cast<uint8_t*>(malloc(bytes.size()));
    if (copy == nullptr) {
        abort();
    }
    memcpy(copy, bytes.data(), bytes.size());
    return copy;
}
