#include "tests/support/counted_heap.h"

#include <errno.h>
#include <stddef.h>
#include <string.h>

#include <algorithm>
#include <atomic>

static std::atomic<long> live = 0;

long live_heap_bytes()
{
    return live;
}

// Stands in front of each block.
struct Head {
    size_t size;
    void* whole; // what the C library gave
};
static const size_t HEAD_SIZE = alignof(max_align_t);
static_assert(sizeof(Head) <= HEAD_SIZE, "a block stays aligned behind its head");

static Head* head_of(void* block)
{
    return reinterpret_cast<Head*>(static_cast<char*>(block) - HEAD_SIZE);
}

extern "C" {

void* __libc_memalign(size_t alignment, size_t size) noexcept;
void __libc_free(void* block) noexcept;

void* memalign(size_t alignment, size_t size) noexcept
{
    const size_t space = std::max(alignment, HEAD_SIZE);
    if (size > PTRDIFF_MAX - space) {
        errno = ENOMEM;
        return nullptr;
    }
    char* whole = static_cast<char*>(__libc_memalign(space, size + space));
    if (whole == nullptr) {
        return nullptr;
    }
    void* block = whole + space;
    *head_of(block) = {size, whole};
    live += static_cast<long>(size);
    return block;
}

void* aligned_alloc(size_t alignment, size_t size) noexcept
{
    return memalign(alignment, size);
}

int posix_memalign(void** block, size_t alignment, size_t size) noexcept
{
    *block = memalign(alignment, size);
    return *block != nullptr ? 0 : ENOMEM;
}

void* malloc(size_t size) noexcept
{
    return memalign(HEAD_SIZE, size);
}

void* calloc(size_t count, size_t size) noexcept
{
    size_t whole = 0;
    void* block = __builtin_mul_overflow(count, size, &whole) ? nullptr : malloc(whole);
    if (block == nullptr) {
        errno = ENOMEM;
        return nullptr;
    }
    return memset(block, 0, whole);
}

void free(void* block) noexcept
{
    if (block != nullptr) {
        live -= static_cast<long>(head_of(block)->size);
        __libc_free(head_of(block)->whole);
    }
}

void* realloc(void* block, size_t size) noexcept
{
    void* moved = malloc(size);
    if (block != nullptr && moved != nullptr) {
        memcpy(moved, block, std::min(size, head_of(block)->size));
        free(block);
    }
    return moved;
}

size_t malloc_usable_size(void* block) noexcept
{
    return block != nullptr ? head_of(block)->size : 0;
}
}
