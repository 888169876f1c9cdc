// What heap blocks hold at the moment they are freed, and in which order that happens.
//
// A program that uses this is built with support/freed_blocks.cpp and with WRAP free.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <vector>

struct FreedBlock {
    const void* address;
    std::vector<uint8_t> content; // as many bytes as were asked for
};

// Keeps the blocks that it was asked to watch. One at a time.
class FreedBlocks {
  public:
    FreedBlocks();
    ~FreedBlocks();
    FreedBlocks(const FreedBlocks&) = delete;
    FreedBlocks& operator=(const FreedBlocks&) = delete;

    // `size` bytes of the block are looked at when it is freed.
    void watch(const void* address, size_t size);

    std::vector<FreedBlock> in_order;

  private:
    friend void note_free(const void* address);

    struct Watched {
        const void* address;
        size_t size;
    };
    std::vector<Watched> watched_;
};
