// Which mutant is switched on, in a source that holds them all; see mutants.py. The number comes from
// the environment. For each mutant that a program comes by, a byte of the file given there is set: the
// file is mapped, so that a child process or a crash does not lose it.
#pragma once

#include <fcntl.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

static inline int mutant_from_environment()
{
    const char* number = getenv("ZENTRAVA_MUTANT");
    return number != nullptr ? atoi(number) : 0;
}

// By system calls: tests put themselves in the place of open and close.
static inline unsigned char* mutants_reached_file()
{
    const char* name = getenv("ZENTRAVA_MUTANTS_REACHED");
    if (name == nullptr) {
        return nullptr;
    }
    const long file = syscall(SYS_openat, AT_FDCWD, name, O_RDWR);
    void* bytes = mmap(nullptr, 16384, PROT_READ | PROT_WRITE, MAP_SHARED, static_cast<int>(file), 0);
    syscall(SYS_close, file);
    return bytes == MAP_FAILED ? nullptr : static_cast<unsigned char*>(bytes);
}

static const int selected_mutant = mutant_from_environment();
static unsigned char* const mutants_reached = mutants_reached_file();

static inline bool MUTANT(int number)
{
    if (mutants_reached != nullptr) {
        mutants_reached[number] = 1;
    }
    return number == selected_mutant;
}
