// Pieces of a test that run in a process of their own.
#pragma once

#include <gtest/gtest.h>

#include <grp.h>
#include <signal.h>
#include <stdio.h>
#include <sys/prctl.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

struct Ending {
    bool killed; // by SIGKILL
    int code;    // that the process ended with by itself; -1 if a signal ended it
    std::string printed;
};

inline Ending ending_of(pid_t child)
{
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    const bool killed = WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
    return {killed, WIFEXITED(status) ? WEXITSTATUS(status) : -1, ""};
}

// Starts a process that ends with what `call` returns.
template <typename Call> pid_t start_child(Call call)
{
    fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL); // a test that is given up takes its processes with it
        const int code = static_cast<int>(call());
        fflush(nullptr);
        _exit(code);
    }
    EXPECT_GT(child, 0);
    return child;
}

inline std::string everything_from(int pipe_end)
{
    std::string text;
    char bytes[4096];
    for (ssize_t count = 1; count > 0;) {
        count = read(pipe_end, bytes, sizeof bytes);
        text.append(bytes, count > 0 ? static_cast<size_t>(count) : 0);
    }
    return text;
}

// Runs such a process to its end. What it prints on standard output is part of the ending.
template <typename Call> Ending run_in_child(Call call)
{
    int ends[2] = {};
    EXPECT_EQ(pipe(ends), 0);
    const pid_t child = start_child([&] {
        dup2(ends[1], STDOUT_FILENO);
        close(ends[0]);
        close(ends[1]);
        return call();
    });
    close(ends[1]);
    const std::string printed = everything_from(ends[0]);
    close(ends[0]);
    Ending ending = ending_of(child);
    ending.printed = printed;
    return ending;
}

// The same as a user without any privileges, who is in one group. Takes root to become one.
template <typename Call> Ending run_as(uid_t user, gid_t group, Call call)
{
    return run_in_child([&]() -> int {
        const bool became = setgroups(0, nullptr) == 0 && setresgid(group, group, group) == 0 &&
                            setresuid(user, user, user) == 0;
        return became ? static_cast<int>(call()) : 126;
    });
}

#ifdef __SANITIZE_ADDRESS__
// Forking copies what the process has mapped, and AddressSanitizer maps a lot for blocks that were
// freed: programs that fork a thousand times keep fewer of them.
extern "C" __attribute__((used)) inline const char* __asan_default_options()
{
    return "quarantine_size_mb=4";
}
#endif
