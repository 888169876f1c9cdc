// Memory for GMP's numbers from a stock of blocks: the oracles make and drop millions of them, and
// under AddressSanitizer the allocator takes ten times as long as their arithmetic.
#pragma once

#include <gmp.h>

#include <stddef.h>
#include <stdlib.h>
#include <string.h>

#include <vector>

const size_t GMP_BLOCK_SIZE = 256;

inline std::vector<void*>& gmp_blocks()
{
    static auto* blocks = new std::vector<void*>; // never destroyed: constants come back at the end
    return *blocks;
}

inline void* gmp_allocate(size_t size)
{
    if (size > GMP_BLOCK_SIZE || gmp_blocks().empty()) {
        return malloc(size > GMP_BLOCK_SIZE ? size : GMP_BLOCK_SIZE);
    }
    void* block = gmp_blocks().back();
    gmp_blocks().pop_back();
    return block;
}

inline void gmp_free(void* block, size_t size)
{
    if (size > GMP_BLOCK_SIZE) {
        free(block);
    } else {
        gmp_blocks().push_back(block);
    }
}

inline void* gmp_reallocate(void* block, size_t old_size, size_t new_size)
{
    if (old_size <= GMP_BLOCK_SIZE && new_size <= GMP_BLOCK_SIZE) {
        return block;
    }
    void* moved = gmp_allocate(new_size);
    memcpy(moved, block, old_size < new_size ? old_size : new_size);
    gmp_free(block, old_size);
    return moved;
}

// To be called before any input is looked at. Numbers made earlier are constants, whose memory comes
// here only when the program ends.
inline bool use_gmp_blocks()
{
    mp_set_memory_functions(gmp_allocate, gmp_reallocate, gmp_free);
    return true;
}
