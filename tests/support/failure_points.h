// One scheme for making a call fail at each of its points: at its first allocation or system call, at
// its second and so on, until it is through before the point is reached.
//
// A program that uses this is built with support/failing_allocation.cpp, support/system_calls.cpp and
// WRAP ${durable_save}, and has one thread.
#pragma once

#include "tests/support/failing_allocation.h"
#include "tests/support/system_calls.h"

#include <errno.h>
#include <string.h>

#include <map>
#include <string>
#include <vector>

enum class FaultKind {
    ONE_ALLOCATION,
    ALLOCATIONS_FROM_THERE_ON,
    ONE_SYSTEM_CALL,
    SYSTEM_CALLS_FROM_THERE_ON,
    SHORT_TRANSFER // a read or a write that does half of what it was asked for
};

struct FaultKindName {
    FaultKind kind;
    const char* name;
};
inline const FaultKindName FAULT_KINDS[] = {
    {FaultKind::ONE_ALLOCATION, "OneAllocation"},
    {FaultKind::ALLOCATIONS_FROM_THERE_ON, "AllocationsFromThereOn"},
    {FaultKind::ONE_SYSTEM_CALL, "OneSystemCall"},
    {FaultKind::SYSTEM_CALLS_FROM_THERE_ON, "SystemCallsFromThereOn"},
    {FaultKind::SHORT_TRANSFER, "ShortTransfer"},
};

inline bool is_of_memory(FaultKind kind)
{
    return kind == FaultKind::ONE_ALLOCATION || kind == FaultKind::ALLOCATIONS_FROM_THERE_ON;
}

struct Fault {
    FaultKind kind;
    size_t point; // counted from 1; no fault while 0
    int error;    // of a system call

    std::string text() const
    {
        return std::to_string(point) +
               (is_of_memory(kind) ? "" : std::string(", ") + strerror(error));
    }
};
inline const Fault NO_FAULT = {FaultKind::ONE_SYSTEM_CALL, 0, 0};

// What a call did while it met a fault.
struct FaultyRun {
    bool was_hit;      // whether it reached the point
    Allocations made;  // those of this file's own making are by libstdc++
    SystemCalls calls; // none where memory fails
};

template <typename Call> FaultyRun run_with_fault(const Fault& fault, Call call)
{
    if (is_of_memory(fault.kind)) {
        const bool is_one = fault.kind == FaultKind::ONE_ALLOCATION;
        const Allocations made =
            failing_allocation(static_cast<unsigned int>(fault.point), call,
                               is_one ? Failing::ONE_ALLOCATION : Failing::ALL_FROM_THERE_ON);
        return {made.any_failed, made, {}};
    }
    const Meddling meddling = fault.kind == FaultKind::SHORT_TRANSFER ? Meddling::HALF
                              : fault.kind == FaultKind::ONE_SYSTEM_CALL
                                  ? Meddling::FAIL
                                  : Meddling::FAIL_FROM_THERE_ON;
    SystemCalls calls;
    const Allocations made = allocations_of([&] {
        calls = system_calls_of(call, Scope::EVERYTHING_AND_READING,
                                {fault.point, meddling, fault.error});
    });
    return {fault.point != 0 && calls.size() >= fault.point, made, calls};
}

// The errors that a system call of this name can report, by its manual page, for a file or a random
// device that nobody but the system keeps from working.
inline const std::vector<int>& errors_of(const std::string& name)
{
    static const std::map<std::string, std::vector<int>> ERRORS = {
        {"open",
         {ENOENT, EACCES, EMFILE, ENFILE, ENOMEM, EIO, EINTR, EROFS, ENOSPC, EDQUOT, ELOOP}},
        {"read", {EIO, EINTR, ENOMEM}},
        {"lseek", {EIO, EOVERFLOW}},
        {"pread", {EIO, EINTR}},
        {"write", {ENOSPC, EDQUOT, EIO, EINTR, EFBIG}},
        {"pwrite", {ENOSPC, EDQUOT, EIO, EINTR}},
        {"close", {EIO, EINTR, ENOSPC, EDQUOT}},
        {"fsync", {EIO, ENOSPC, EDQUOT, EROFS, EINVAL}},
        {"fallocate", {ENOSPC, EDQUOT, EIO, EINTR, EFBIG, EOPNOTSUPP}},
        {"posix_fallocate", {ENOSPC, EIO, EINTR, EINVAL, EFBIG}},
        {"ftruncate", {EIO, EINTR, EPERM, EFBIG}},
        {"flock", {EINTR, ENOLCK}},
        {"rename",
         {EACCES, EPERM, EBUSY, EXDEV, EROFS, ENOSPC, EDQUOT, EIO, ENOMEM, ENOENT, EINVAL,
          ENAMETOOLONG}},
        {"unlink", {EACCES, EPERM, EBUSY, EROFS, EIO, ENOENT}},
        {"realpath", {EACCES, ENOENT, ELOOP, EIO, ENOMEM, ENAMETOOLONG}},
        {"stat", {EACCES, ENOENT, ELOOP, EIO, ENOMEM}},
        {"lstat", {EACCES, ENOENT, ELOOP, EIO, ENOMEM}},
        {"fstat", {EIO, ENOMEM, EOVERFLOW}},
        {"fchown", {EPERM, EROFS, EIO, EINVAL}},
        {"fchmod", {EPERM, EROFS, EIO}},
        {"flistxattr", {ENOTSUP, ERANGE, EIO}},
        {"fgetxattr", {ENODATA, ENOTSUP, ERANGE, EIO}},
        {"fsetxattr", {EPERM, ENOTSUP, ENOSPC, EDQUOT, ERANGE, EINVAL}},
        {"fremovexattr", {ENODATA, ENOTSUP, EPERM, EIO}},
    };
    return ERRORS.at(name);
}

// Errors that last. An interruption does not.
inline const std::vector<int> LASTING_ERRORS = {EIO, ENOSPC, EDQUOT, EACCES, EROFS, EMFILE, ENOMEM};
