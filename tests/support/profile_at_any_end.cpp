// Saves what a process has covered also when it ends by an abort, as death tests have it, or by _exit,
// as child processes do. Part of the tests when coverage is measured.

#include <signal.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

extern "C" int __llvm_profile_write_file();

static void save_and_abort(int signal_number)
{
    __llvm_profile_write_file();
    signal(signal_number, SIG_DFL);
    raise(signal_number);
}

__attribute__((constructor)) static void save_at_abort()
{
    signal(SIGABRT, save_and_abort);
}

// A process with a limit to the size of its files would leave a damaged one.
static bool may_write_profile()
{
    struct rlimit limit = {};
    return getrlimit(RLIMIT_FSIZE, &limit) == 0 && limit.rlim_cur == RLIM_INFINITY;
}

extern "C" void _exit(int status)
{
    if (may_write_profile()) {
        __llvm_profile_write_file();
    }
    syscall(SYS_exit_group, status);
    __builtin_unreachable();
}
