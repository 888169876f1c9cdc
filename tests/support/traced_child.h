// A child process that is stopped by ptrace at every system call that works on files, whoever makes
// it, the C library included; at one of them it is killed, or the call is made to fail. x86-64
// only. Calls for memory and the like are not counted: how many there are differs from run to run.
//
// A program that uses this is built with support/traced_child.cpp.
#pragma once

#include <stddef.h>

#include <functional>
#include <string>
#include <vector>

enum class Strike {
    NONE,
    KILL_BEFORE, // the system call is not made
    KILL_AFTER,
    FAIL, // the call does nothing and reports the error; close does close
    HALF  // of the bytes are written
};

struct Blow {
    size_t at; // the system call it hits, counted from 1
    Strike strike;
    int error;
};
inline const Blow NO_BLOW = {0, Strike::NONE, 0};

struct TracedCall {
    long number;     // as in <sys/syscall.h>
    bool in_stretch; // between enter_stretch and leave_stretch
};

struct TracedRun {
    std::vector<TracedCall> calls;
    bool killed;
    int code; // what `call` returned, -1 if it did not
};

// Told to the tracer by the child.
void enter_stretch();
void leave_stretch();

TracedRun run_traced(const std::function<int()>& call, const Blow& blow = NO_BLOW);
