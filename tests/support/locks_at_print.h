// Whether the store's locks are held while an operation prints. For tests that include the store's
// unit; include this after it.
#pragma once

#include "tests/support/store_watch.h"

#include <stdio.h>
#include <sys/types.h>

#include <utility>

inline ssize_t note_locks(void* held, const char*, size_t size)
{
    bool* either = static_cast<bool*>(held);
    *either = *either || lock_is_held() || process_lock_is_held();
    return static_cast<ssize_t>(size);
}

// Takes what is printed off standard output.
template <typename Call> bool prints_with_locks_held(Call call)
{
    bool held = false;
    FILE* watched = fopencookie(&held, "w", {nullptr, note_locks, nullptr, nullptr});
    setvbuf(watched, nullptr, _IONBF, 0);
    FILE* standard_output = std::exchange(stdout, watched);
    call();
    stdout = standard_output;
    fclose(watched);
    return held;
}
