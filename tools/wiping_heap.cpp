#include "wiping_heap.h"

#include <libxml/xmlmemory.h>

#include <malloc.h>
#include <stdlib.h>
#include <string.h>

#include <new>

static void wipe_and_free(void* memory)
{
    if (memory != NULL) {
        explicit_bzero(memory, malloc_usable_size(memory));
        free(memory);
    }
}

// Never in place, so that the old block is wiped like every other.
static void* wiping_realloc(void* memory, size_t size)
{
    void* larger = malloc(size);
    if (larger != NULL && memory != NULL) {
        const size_t old_size = malloc_usable_size(memory);
        memcpy(larger, memory, old_size < size ? old_size : size);
        wipe_and_free(memory);
    }
    return larger;
}

void begin_wiping_heap()
{
    xmlMemSetup(wipe_and_free, malloc, wiping_realloc, strdup);
    // The C library's own buffers (of files being written) are overwritten when they are freed.
    mallopt(M_PERTURB, 0xff);
}

__attribute__((noinline)) void wipe_stack()
{
    char below[1 << 18]; // deeper than any call of the tool goes
    explicit_bzero(below, sizeof below);
}

void* operator new(std::size_t size)
{
    void* memory = malloc(size);
    if (memory == NULL) {
        throw std::bad_alloc();
    }
    return memory;
}

void* operator new(std::size_t size, const std::nothrow_t&) noexcept
{
    return malloc(size);
}

void operator delete(void* memory) noexcept
{
    wipe_and_free(memory);
}

void operator delete(void* memory, std::size_t) noexcept
{
    wipe_and_free(memory);
}
