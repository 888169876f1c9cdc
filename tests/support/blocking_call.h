// Calls that may block for good.
#pragma once

#include "tests/support/child_process.h"
#include "tests/support/process_lock.h"

#include <signal.h>
#include <stdio.h>
#include <unistd.h>

// In place of a result, of a call that did not come back, without and with the lock between
// processes.
inline constexpr int BLOCKED = 10;
inline constexpr int BLOCKED_WITH_PROCESS_LOCK = 11;

// Calls in a process of its own, which is ended after two seconds.
template <typename Call> Ending ending_within_two_seconds(Call call)
{
    return run_in_child([&] {
        setvbuf(stdout, nullptr, _IONBF, 0);
        signal(SIGALRM,
               [](int) { _exit(process_lock_is_held() ? BLOCKED_WITH_PROCESS_LOCK : BLOCKED); });
        alarm(2);
        return call();
    });
}
