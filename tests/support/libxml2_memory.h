// libxml2's memory in a test's hands: counted, and failing on demand. Nothing else may be inside
// libxml2 when the counting starts or ends.
#pragma once

#include <libxml/parser.h>
#include <libxml/xmlmemory.h>

#include <stdlib.h>
#include <string.h>

struct Libxml2Memory {
    long live;            // blocks that are allocated now
    unsigned long asked;  // allocations that were asked for
    unsigned long refuse; // the allocation to refuse, counted from 1; 0 for none
    bool refuse_rest;     // and all allocations after that one
};

inline Libxml2Memory libxml2_memory = {};

inline bool libxml2_may_allocate()
{
    const unsigned long number = ++libxml2_memory.asked;
    const unsigned long refuse = libxml2_memory.refuse;
    return refuse == 0 || (libxml2_memory.refuse_rest ? number < refuse : number != refuse);
}

inline void* libxml2_counted(void* block)
{
    libxml2_memory.live += block != nullptr ? 1 : 0;
    return block;
}

inline void libxml2_counted_free(void* block)
{
    libxml2_memory.live -= block != nullptr ? 1 : 0;
    free(block);
}

inline void* libxml2_counted_malloc(size_t size)
{
    return libxml2_may_allocate() ? libxml2_counted(malloc(size)) : nullptr;
}

inline void* libxml2_counted_realloc(void* block, size_t size)
{
    if (!libxml2_may_allocate()) {
        return nullptr;
    }
    return block == nullptr ? libxml2_counted(malloc(size)) : realloc(block, size);
}

inline char* libxml2_counted_strdup(const char* text)
{
    return libxml2_may_allocate() ? static_cast<char*>(libxml2_counted(strdup(text))) : nullptr;
}

inline void count_libxml2_memory()
{
    xmlCleanupParser();
    libxml2_memory = {};
    xmlMemSetup(libxml2_counted_free, libxml2_counted_malloc, libxml2_counted_realloc,
                libxml2_counted_strdup);
}

inline void leave_libxml2_memory_alone()
{
    libxml2_memory.refuse = 0;
    xmlCleanupParser();
    xmlMemSetup(free, malloc, realloc, strdup);
}
