#include "tests/support/remembering_heap.h"

#include <errno.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>

#include <algorithm>
#include <atomic>

static const size_t HEAP_SIZE = size_t{192} << 20;
static const size_t MAX_BLOCKS = 2000000;
static const size_t ALIGNMENT = alignof(max_align_t);

static unsigned char* heap = nullptr;
static size_t used = 0;
static HeapBlock* blocks = nullptr;
static size_t block_count = 0;
static std::atomic_flag busy = ATOMIC_FLAG_INIT;

static void* reserve(size_t size)
{
    void* memory = mmap(nullptr, size, PROT_READ | PROT_WRITE,
                        MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (memory == MAP_FAILED) {
        abort();
    }
    return memory;
}

// Blocks lie one behind the other, with a gap so that no two touch.
static void* give_out(size_t alignment, size_t size, const void* caller)
{
    while (busy.test_and_set()) {
    }
    if (heap == nullptr) {
        heap = static_cast<unsigned char*>(reserve(HEAP_SIZE));
        blocks = static_cast<HeapBlock*>(reserve(MAX_BLOCKS * sizeof(HeapBlock)));
    }
    const size_t start = (used + alignment) / alignment * alignment;
    void* block = nullptr;
    if (block_count < MAX_BLOCKS && size < HEAP_SIZE && start < HEAP_SIZE - size) {
        block = heap + start;
        blocks[block_count++] = {heap + start, size, caller, false};
        used = start + size;
    }
    busy.clear();
    if (block == nullptr) {
        errno = ENOMEM;
    }
    return block;
}

const HeapBlock* next_heap_block(const HeapBlock* block)
{
    const HeapBlock* next = block == nullptr ? blocks : block + 1;
    return next < blocks + block_count ? next : nullptr;
}

static HeapBlock* block_at(const void* address)
{
    HeapBlock* end = blocks + block_count;
    HeapBlock* behind =
        std::upper_bound(blocks, end, address, [](const void* place, const HeapBlock& block) {
            return place < block.begin;
        });
    if (behind == blocks ||
        static_cast<const unsigned char*>(address) > (behind - 1)->begin + (behind - 1)->size) {
        return nullptr;
    }
    return behind - 1;
}

const HeapBlock* heap_block_at(const void* address)
{
    return address >= heap && address < heap + used ? block_at(address) : nullptr;
}

const unsigned char* heap_begin()
{
    return heap;
}

const unsigned char* heap_end()
{
    return heap + used;
}

extern "C" {

void* malloc(size_t size) noexcept
{
    return give_out(ALIGNMENT, size, __builtin_return_address(0));
}

// The memory is fresh from the system, hence zero.
void* calloc(size_t count, size_t size) noexcept
{
    size_t whole = 0;
    if (__builtin_mul_overflow(count, size, &whole)) {
        errno = ENOMEM;
        return nullptr;
    }
    return give_out(ALIGNMENT, whole, __builtin_return_address(0));
}

void free(void* block) noexcept
{
    if (block != nullptr) {
        block_at(block)->is_freed = true;
    }
}

void* realloc(void* block, size_t size) noexcept
{
    void* moved = give_out(ALIGNMENT, size, __builtin_return_address(0));
    if (block != nullptr && moved != nullptr) {
        memcpy(moved, block, std::min(size, block_at(block)->size));
        free(block);
    }
    return moved;
}

void* memalign(size_t alignment, size_t size) noexcept
{
    return give_out(alignment, size, __builtin_return_address(0));
}

void* aligned_alloc(size_t alignment, size_t size) noexcept
{
    return give_out(alignment, size, __builtin_return_address(0));
}

int posix_memalign(void** block, size_t alignment, size_t size) noexcept
{
    *block = give_out(alignment, size, __builtin_return_address(0));
    return *block != nullptr ? 0 : ENOMEM;
}

size_t malloc_usable_size(void* block) noexcept
{
    return block != nullptr ? block_at(block)->size : 0;
}
}
