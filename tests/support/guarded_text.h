// A text in read-only memory whose terminator is the last byte that can be read at all: one step
// further, or any write, is a segmentation fault.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <stdlib.h>
#include <string.h>

#include <string>

class GuardedText {
  public:
    explicit GuardedText(const std::string& text)
    {
        const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
        const size_t readable = (text.size() + page) / page * page;
        size_ = readable + page;
        void* memory =
            mmap(nullptr, size_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (memory == MAP_FAILED) {
            abort();
        }
        memory_ = static_cast<char*>(memory);
        text_ = memory_ + readable - text.size() - 1;
        memcpy(text_, text.c_str(), text.size() + 1);
        if (mprotect(memory_, readable, PROT_READ) != 0 ||
            mprotect(memory_ + readable, page, PROT_NONE) != 0) {
            abort();
        }
    }

    ~GuardedText()
    {
        munmap(memory_, size_);
    }

    GuardedText(const GuardedText&) = delete;
    GuardedText& operator=(const GuardedText&) = delete;

    const char* c_str() const
    {
        return text_;
    }

  private:
    char* memory_;
    char* text_;
    size_t size_;
};
