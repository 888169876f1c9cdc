#include "tests/support/freed_blocks.h"

#include <algorithm>

static FreedBlocks* active = nullptr;

FreedBlocks::FreedBlocks()
{
    active = this;
}

FreedBlocks::~FreedBlocks()
{
    active = nullptr;
}

void FreedBlocks::watch(const void* address, size_t size)
{
    watched_.push_back({address, size});
}

void note_free(const void* address)
{
    if (active == nullptr) {
        return;
    }
    auto& watched = active->watched_;
    const auto block = std::find_if(watched.begin(), watched.end(), [address](const auto& entry) {
        return entry.address == address;
    });
    if (block == watched.end()) {
        return;
    }
    const auto* bytes = static_cast<const uint8_t*>(address);
    active->in_order.push_back({address, {bytes, bytes + block->size}});
    watched.erase(block); // the address may come back as another block's
}

extern "C" void __real_free(void* block);
extern "C" void __wrap_free(void* block);

extern "C" void __wrap_free(void* block)
{
    note_free(block);
    __real_free(block);
}
