// The heap allocations of a call: counted, kept account of, and one of them made to fail. All of
// the process's allocations take part, those of the C library, libxml2 and mbed TLS included.
//
// A program that uses this is built with support/failing_allocation.cpp and has one thread.
#pragma once

#include <stddef.h>

#include <utility>
#include <vector>

inline constexpr unsigned int NO_ALLOCATION = 0;

struct Block {
    void* address;
    size_t size;
    const void* caller; // the code that asked for it
};

struct Allocations {
    std::vector<size_t> requested; // bytes of each allocation asked for, the failed one included
    std::vector<Block> left;       // what was allocated and not freed by the end
    bool any_failed;
};

// Whether the code that asked for the block is part of the shared library of this name, "liblzma".
bool is_block_of(const Block& block, const char* library);

enum class Failing { ONE_ALLOCATION, ALL_FROM_THERE_ON };

void start_failing_allocation(unsigned int fail_at, Failing failing);
Allocations stop_failing_allocation();

// The allocations made by `call`, of which the `fail_at`-th fails, counted from 1, and if wanted
// all that follow.
template <typename Call>
Allocations failing_allocation(unsigned int fail_at, Call call,
                               Failing failing = Failing::ONE_ALLOCATION)
{
    start_failing_allocation(fail_at, failing);
    call();
    return stop_failing_allocation();
}

template <typename Call> Allocations allocations_of(Call call)
{
    return failing_allocation(NO_ALLOCATION, std::move(call));
}
