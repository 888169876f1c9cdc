#include "tests/support/traced_child.h"

#include <gtest/gtest.h>

#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

#include <set>

namespace {

// System calls without an effect, which serve as signs to the tracer.
const long BEGIN_OF_STRETCH = SYS_getpgrp;
const long END_OF_STRETCH = SYS_getppid;

const std::set<long> FILE_CALLS = {
    SYS_open,       SYS_openat,       SYS_close,     SYS_read,       SYS_write,      SYS_pread64,
    SYS_pwrite64,   SYS_lseek,        SYS_fsync,     SYS_fdatasync,  SYS_rename,     SYS_renameat,
    SYS_renameat2,  SYS_unlink,       SYS_unlinkat,  SYS_stat,       SYS_lstat,      SYS_fstat,
    SYS_newfstatat, SYS_statx,        SYS_readlink,  SYS_readlinkat, SYS_fchown,     SYS_fchmod,
    SYS_fchmodat,   SYS_fallocate,    SYS_ftruncate, SYS_flock,      SYS_flistxattr, SYS_fgetxattr,
    SYS_fsetxattr,  SYS_fremovexattr,
};

const int STOP_AT_SYSTEM_CALL = SIGTRAP | 0x80; // PTRACE_O_TRACESYSGOOD

class Tracer {
  public:
    Tracer(pid_t child, const Blow& blow) : child_(child), blow_(blow)
    {
    }

    TracedRun run()
    {
        int status = 0;
        waitpid(child_, &status, 0);
        EXPECT_TRUE(WIFSTOPPED(status) && WSTOPSIG(status) == SIGSTOP);
        EXPECT_EQ(
            ptrace(PTRACE_SETOPTIONS, child_, nullptr, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL),
            0);
        int signal = 0;
        while (go_on_until_stop(signal, &status)) {
            signal = 0;
            if (WSTOPSIG(status) != STOP_AT_SYSTEM_CALL) {
                signal = WSTOPSIG(status);
            } else if (!entered_) {
                enter();
            } else {
                leave();
            }
        }
        run_.killed = WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
        run_.code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        return run_;
    }

  private:
    bool go_on_until_stop(int signal, int* status)
    {
        ptrace(PTRACE_SYSCALL, child_, nullptr, signal);
        return waitpid(child_, status, 0) == child_ && WIFSTOPPED(*status);
    }

    bool is_hit(Strike strike) const
    {
        return counted_ && run_.calls.size() == blow_.at && blow_.strike == strike;
    }

    void enter()
    {
        entered_ = true;
        ptrace(PTRACE_GETREGS, child_, nullptr, &registers_);
        const long number = static_cast<long>(registers_.orig_rax);
        in_stretch_ = (in_stretch_ || number == BEGIN_OF_STRETCH) && number != END_OF_STRETCH;
        counted_ = FILE_CALLS.count(number) != 0;
        if (counted_) {
            run_.calls.push_back({number, in_stretch_});
        }
        if (is_hit(Strike::KILL_BEFORE)) {
            kill(child_, SIGKILL);
        } else if (is_hit(Strike::FAIL) && number != SYS_close) {
            registers_.orig_rax = static_cast<unsigned long long>(-1); // no such call
            ptrace(PTRACE_SETREGS, child_, nullptr, &registers_);
        } else if (is_hit(Strike::HALF)) {
            registers_.rdx = (registers_.rdx + 1) / 2; // the count of bytes of write and pwrite64
            ptrace(PTRACE_SETREGS, child_, nullptr, &registers_);
        }
    }

    void leave()
    {
        entered_ = false;
        if (is_hit(Strike::KILL_AFTER)) {
            kill(child_, SIGKILL);
        } else if (is_hit(Strike::FAIL)) {
            ptrace(PTRACE_GETREGS, child_, nullptr, &registers_);
            registers_.rax = static_cast<unsigned long long>(-static_cast<long long>(blow_.error));
            ptrace(PTRACE_SETREGS, child_, nullptr, &registers_);
        }
    }

    pid_t child_;
    Blow blow_;
    TracedRun run_ = {};
    user_regs_struct registers_ = {};
    bool entered_ = false;
    bool counted_ = false; // the call that the child is stopped at
    bool in_stretch_ = false;
};

} // namespace

void enter_stretch()
{
    syscall(BEGIN_OF_STRETCH);
}

void leave_stretch()
{
    syscall(END_OF_STRETCH);
}

TracedRun run_traced(const std::function<int()>& call, const Blow& blow)
{
    fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
        raise(SIGSTOP);
        const int code = call();
        fflush(nullptr);
        _exit(code);
    }
    return Tracer(child, blow).run();
}
