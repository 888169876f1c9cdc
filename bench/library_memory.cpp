// Memory of the key store's operations beside that of the libxml2 work they consist of: the peak of
// the heap during one call, and what 10,000 calls leave behind. A line for each: operation, number of
// records, peak, peak of the floor, both in bytes, and their ratio; then the growth.

#include "measured_stores.h"

#include <libxml/parser.h>

#include <malloc.h>
#include <stdio.h>
#include <stdlib.h>

#include <algorithm>

static size_t live = 0;
static size_t peak = 0;

static void* taken(void* block)
{
    live += malloc_usable_size(block);
    peak = std::max(peak, live);
    return block;
}

extern "C" {

void* __libc_malloc(size_t size) noexcept;
void* __libc_calloc(size_t count, size_t size) noexcept;
void* __libc_realloc(void* block, size_t size) noexcept;
void __libc_free(void* block) noexcept;

// These take the place of the C library's, for all shared libraries of the process.
void* malloc(size_t size) noexcept
{
    return taken(__libc_malloc(size));
}

void* calloc(size_t count, size_t size) noexcept
{
    return taken(__libc_calloc(count, size));
}

void* realloc(void* block, size_t size) noexcept
{
    live -= malloc_usable_size(block);
    void* moved = __libc_realloc(block, size);
    return taken(moved != nullptr || size == 0 ? moved : block);
}

void free(void* block) noexcept
{
    live -= malloc_usable_size(block);
    __libc_free(block);
}
}

// The most that the heap holds at a time during a call, beyond what it holds before.
static size_t peak_of(bool (*work)(const char*), const char* last_name)
{
    const size_t before = live;
    peak = live;
    if (!work(last_name)) {
        fputs("the operation failed\n", stderr);
        exit(1);
    }
    return peak - before;
}

static void compare_peaks(const MeasuredOperation& operation, int size)
{
    const std::string last_name = "key" + std::to_string(size);
    xmlCleanupParser();
    const size_t of_operation = peak_of(operation.run, last_name.c_str());
    xmlCleanupParser();
    const size_t of_floor = peak_of(operation.floor, last_name.c_str());
    printf("%-20s %8d %12zu %12zu %7.3f\n", operation.name, size, of_operation, of_floor,
           static_cast<double>(of_operation) / static_cast<double>(of_floor));
}

static void show_growth(const MeasuredOperation& operation)
{
    const int calls = 10000;
    peak_of(operation.run, "key10");
    const size_t before = live;
    for (int i = 0; i < calls; ++i) {
        peak_of(operation.run, "key10");
    }
    printf("%-20s grows by %zd bytes in %d calls\n", operation.name,
           static_cast<ssize_t>(live - before), calls);
}

int main()
{
    const std::filesystem::path stores = make_store_directory();
    printf("%-20s %8s %12s %12s %7s\n", "peak of the heap", "records", "bytes", "floor", "ratio");
    for (const int size : {10, 1000, 10000, 100000}) {
        enter_store(stores / std::to_string(size), size);
        for (const MeasuredOperation& operation : MEASURED_OPERATIONS) {
            compare_peaks(operation, size);
        }
    }
    enter_store(stores / "10", 10);
    for (const MeasuredOperation& operation : MEASURED_OPERATIONS) {
        show_growth(operation);
    }
    std::filesystem::current_path("/");
    std::filesystem::remove_all(stores);
    return 0;
}
