// A heap that forgets nothing: a block that is freed is not given out again and keeps its content, so
// that whatever was not wiped before can be seen, and every byte belongs to one block and its owner.
// The program that is built with remembering_heap.cpp has this heap in place of the C library's, and
// so have all shared libraries in it.
#pragma once

#include <stddef.h>

struct HeapBlock {
    const unsigned char* begin;
    size_t size;
    const void* caller; // the place in the code that asked for it
    bool is_freed;
};

// The blocks in the order in which they were given out, from `place` on; null behind the last. Starts
// with null.
const HeapBlock* next_heap_block(const HeapBlock* block);

// The block that an address lies in; null outside the heap.
const HeapBlock* heap_block_at(const void* address);

// What the heap has given out so far lies between these two.
const unsigned char* heap_begin();
const unsigned char* heap_end();
