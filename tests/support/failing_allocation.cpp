// The allocator of the test program. What it defines here takes precedence over the C library's in
// every shared library of the process; the work is left to the allocator that was there before, the
// C library's or, in a sanitized build, the sanitizer's.

#include "tests/support/failing_allocation.h"

#include <dlfcn.h>
#include <errno.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define REAL_ALLOCATOR "__interceptor_"
#else
#define REAL_ALLOCATOR "__libc_"
#endif

// A sanitizer's own start-up allocates memory, before the code that it instruments can run.
#define NOT_SANITIZED __attribute__((no_sanitize("address", "undefined", "thread")))

extern "C" {
void* real_malloc(size_t size) noexcept __asm__(REAL_ALLOCATOR "malloc");
void* real_calloc(size_t count, size_t size) noexcept __asm__(REAL_ALLOCATOR "calloc");
void* real_realloc(void* block, size_t size) noexcept __asm__(REAL_ALLOCATOR "realloc");
void real_free(void* block) noexcept __asm__(REAL_ALLOCATOR "free");
}

namespace {

// Plain arrays, since the accounts must not allocate themselves.
const size_t CAPACITY = 4096;
size_t requested[CAPACITY];
size_t requested_count = 0;
Block blocks[CAPACITY];
size_t block_count = 0;

bool watching = false;
bool any_failed = false;
size_t failing_request = 0; // none while 0
bool rest_fails_too = false;

// Whether this allocation is to fail.
NOT_SANITIZED bool fails(size_t size)
{
    if (!watching) {
        return false;
    }
    if (requested_count == CAPACITY) {
        abort();
    }
    requested[requested_count++] = size;
    const bool rest_fails = any_failed && rest_fails_too;
    if (requested_count != failing_request && !rest_fails) {
        return false;
    }
    any_failed = true;
    errno = ENOMEM;
    return true;
}

NOT_SANITIZED void* enter_block(void* address, size_t size, const void* caller)
{
    if (watching && address != nullptr) {
        if (block_count == CAPACITY) {
            abort();
        }
        blocks[block_count++] = {address, size, caller};
    }
    return address;
}

NOT_SANITIZED void strike_out_block(const void* address)
{
    for (size_t i = 0; watching && i < block_count; ++i) {
        if (blocks[i].address == address) {
            blocks[i] = blocks[--block_count];
            return;
        }
    }
}

} // namespace

extern "C" {

NOT_SANITIZED void* malloc(size_t size) noexcept
{
    const void* caller = __builtin_return_address(0);
    return fails(size) ? nullptr : enter_block(real_malloc(size), size, caller);
}

NOT_SANITIZED void* calloc(size_t count, size_t size) noexcept
{
    const void* caller = __builtin_return_address(0);
    const size_t bytes = count * size;
    return fails(bytes) ? nullptr : enter_block(real_calloc(count, size), bytes, caller);
}

NOT_SANITIZED void* realloc(void* block, size_t size) noexcept
{
    const void* caller = __builtin_return_address(0);
    if (fails(size)) {
        return nullptr;
    }
    strike_out_block(block);
    return enter_block(real_realloc(block, size), size, caller);
}

NOT_SANITIZED void free(void* block) noexcept
{
    strike_out_block(block);
    real_free(block);
}

} // extern "C"

bool is_block_of(const Block& block, const char* library)
{
    Dl_info object;
    return dladdr(block.caller, &object) != 0 && strstr(object.dli_fname, library) != nullptr;
}

void start_failing_allocation(unsigned int fail_at, Failing failing)
{
    requested_count = 0;
    block_count = 0;
    any_failed = false;
    failing_request = fail_at;
    rest_fails_too = failing == Failing::ALL_FROM_THERE_ON;
    watching = true;
}

Allocations stop_failing_allocation()
{
    watching = false;
    return {{requested, requested + requested_count}, {blocks, blocks + block_count}, any_failed};
}
