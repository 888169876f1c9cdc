// What a call leaves behind on its stack.
#pragma once

#include "ecc_numbers.h"

#include <ucontext.h>

#include <functional>

// The call that runs on the stack under observation: makecontext passes no pointers.
inline std::function<void()>& observed_call()
{
    static std::function<void()> call;
    return call;
}

// Runs the call on a stack of our own, and returns the content of that stack.
inline Bytes stack_after(const std::function<void()>& call)
{
    Bytes stack(1 << 18);
    ucontext_t caller = {};
    ucontext_t callee = {};
    getcontext(&callee);
    callee.uc_stack.ss_sp = stack.data();
    callee.uc_stack.ss_size = stack.size();
    callee.uc_link = &caller;
    observed_call() = call;
    makecontext(
        &callee, [] { observed_call()(); }, 0);
    swapcontext(&caller, &callee);
    return stack;
}

// Whether the number stands anywhere in the memory, in the form of the engine's numbers or in that
// of its byte strings.
inline bool holds(const Bytes& memory, const mpz_class& number)
{
    const Bytes big_endian = bytes(number);
    const Bytes little_endian(big_endian.rbegin(), big_endian.rend());
    const auto found = [&](const Bytes& form) {
        return std::search(memory.begin(), memory.end(), form.begin(), form.end()) != memory.end();
    };
    return found(big_endian) || found(little_endian);
}
