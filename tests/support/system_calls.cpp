// The functions below are defined anew, so that calls from everywhere in the process come here;
// each hands its work on to the definition that comes next, the C library's or a sanitizer's.
#undef _FORTIFY_SOURCE // would define some of them in the headers

#include "tests/support/system_calls.h"

#include "key_driver/durable_save.h"

#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <map>

namespace {

struct Watch {
    bool started = false;
    bool paused = false; // while this file is at work itself
    Scope scope = Scope::EVERYTHING;
    Interference interference = NO_INTERFERENCE;
    std::string name_to_fail; // the next call of this name fails
    SystemCalls calls;
    std::map<std::string, int> refused;
    std::function<void()> look;
};

Watch* watch = nullptr; // made when it is first needed: other static objects open files
bool in_save = false;

Watch& the_watch()
{
    static Watch one;
    watch = &one;
    return one;
}

bool is_watching()
{
    return watch != nullptr && watch->started && !watch->paused &&
           (watch->scope != Scope::SAVES || in_save);
}

bool is_watching_reading()
{
    return is_watching() && watch->scope == Scope::EVERYTHING_AND_READING;
}

template <typename Function> Function* next(const char* name)
{
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}
#define NEXT(function) next<decltype(function)>(#function)

std::string path_of(int fd)
{
    char path[PATH_MAX] = "";
    const std::string link = "/proc/self/fd/" + std::to_string(fd);
    return readlink(link.c_str(), path, sizeof path - 1) >= 0 ? path : "";
}

std::string path_of(const char* path)
{
    return path;
}

void die()
{
    kill(getpid(), SIGKILL);
}

// What is to become of the call that has just been written down.
Interference interference_with(const SystemCall& call)
{
    Watch& w = the_watch();
    const bool refused = w.refused.count(call.name) != 0;
    if (refused || w.name_to_fail == call.name) {
        w.name_to_fail.clear();
        return {0, Meddling::FAIL, refused ? w.refused[call.name] : w.interference.error};
    }
    if (w.interference.meddling == Meddling::FAIL_FROM_THERE_ON && w.interference.at != 0 &&
        w.calls.size() >= w.interference.at) {
        return {0, Meddling::FAIL, w.interference.error};
    }
    if (w.calls.size() != w.interference.at) {
        return NO_INTERFERENCE;
    }
    if (w.interference.meddling == Meddling::HALF_THEN_FAIL) {
        w.name_to_fail = call.name;
    }
    return w.interference;
}

// How a function reports an error.
int minus_one(int error)
{
    errno = error;
    return -1;
}

int error_itself(int error)
{
    return error;
}

char* null(int error)
{
    errno = error;
    return nullptr;
}

// Makes a call, unless it is one to be meddled with. `half` makes it with half of its bytes.
template <typename File, typename Make, typename MakeHalf, typename Report>
auto call(const char* name, File file, Make make, MakeHalf make_half, Report report)
    -> decltype(make())
{
    if (!is_watching()) {
        return make();
    }
    Watch& w = the_watch();
    w.paused = true;
    w.calls.push_back({name, path_of(file)});
    const Interference interference = interference_with(w.calls.back());
    if (interference.meddling == Meddling::KILL_BEFORE) {
        die();
    }
    errno = 0;
    decltype(make()) result = {};
    if (interference.meddling == Meddling::FAIL) {
        if (strcmp(name, "close") == 0) {
            make(); // a descriptor is gone even if closing it reports an error
        }
        result = report(interference.error);
    } else if (interference.meddling == Meddling::NOTHING) {
        result = {};
    } else if (interference.meddling == Meddling::HALF ||
               interference.meddling == Meddling::HALF_THEN_FAIL) {
        result = make_half();
    } else {
        result = make();
    }
    const int error = errno;
    if (interference.meddling == Meddling::KILL_AFTER) {
        die();
    }
    if (w.look) {
        w.look();
    }
    w.paused = false;
    errno = error;
    return result;
}

template <typename File, typename Make> int call(const char* name, File file, Make make)
{
    return call(name, file, make, make, minus_one);
}

ssize_t call_write(int fd, const void* bytes, size_t count)
{
    const auto write_some = [&](size_t some) {
        return NEXT(write)(fd, bytes, some);
    };
    return call(
        "write", fd, [&] { return write_some(count); }, [&] { return write_some((count + 1) / 2); },
        minus_one);
}

template <typename ReadSome> ssize_t call_read(int fd, size_t count, ReadSome read_some)
{
    if (!is_watching_reading()) {
        return read_some(count);
    }
    return call(
        "read", fd, [&] { return read_some(count); }, [&] { return read_some((count + 1) / 2); },
        minus_one);
}

template <typename Make> int call_stat(const char* path, Make make)
{
    return is_watching_reading() ? call("stat", path, make) : make();
}

template <typename Make> auto call_lseek(int fd, Make make)
{
    return is_watching_reading() ? call("lseek", fd, make, make, minus_one) : make();
}

template <typename Make> ssize_t call_pread(int fd, Make make)
{
    return call("pread", fd, make, make, minus_one);
}

template <typename WriteSome> ssize_t call_pwrite(int fd, size_t count, WriteSome write_some)
{
    return call(
        "pwrite", fd, [&] { return write_some(count); },
        [&] { return write_some((count + 1) / 2); }, minus_one);
}

// Half of its work: half of the space that was asked for stays with the file.
template <typename Allocate> int call_fallocate(int fd, off64_t size, Allocate allocate)
{
    const auto allocate_half = [&] {
        allocate(size / 2);
        return minus_one(ENOSPC);
    };
    return call(
        "fallocate", fd, [&] { return allocate(size); }, allocate_half, minus_one);
}

// For file systems that do not do it otherwise: the file grows by half of what was asked for.
template <typename Allocate> int call_posix_fallocate(int fd, off64_t size, Allocate allocate)
{
    const auto allocate_half = [&] {
        struct stat64 status = {};
        NEXT(fstat64)(fd, &status);
        allocate(size > status.st_size ? status.st_size + (size - status.st_size) / 2 : size);
        return ENOSPC;
    };
    return call(
        "posix_fallocate", fd, [&] { return allocate(size); }, allocate_half, error_itself);
}

// A stream that is opened for writing.
struct Stream {
    int fd;
};

// Like the C library's own streams: what comes short is gone on with.
ssize_t write_to_stream(void* cookie, const char* bytes, size_t size)
{
    size_t done = 0;
    while (done < size) {
        const ssize_t count =
            call_write(static_cast<Stream*>(cookie)->fd, bytes + done, size - done);
        if (count < 0) {
            break;
        }
        done += static_cast<size_t>(count);
    }
    return static_cast<ssize_t>(done);
}

int close_stream(void* cookie)
{
    Stream* stream = static_cast<Stream*>(cookie);
    const int result = close(stream->fd);
    delete stream;
    return result;
}

FILE* open_stream(const char* path)
{
    const int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC, 0666);
    if (fd < 0) {
        return nullptr;
    }
    FILE* file =
        fopencookie(new Stream{fd}, "w", {nullptr, write_to_stream, nullptr, close_stream});
    setvbuf(file, nullptr, _IOFBF, 4096); // a file's own block, as the C library chooses it
    return file;
}

mode_t mode_argument(int flags, va_list arguments)
{
    return (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
}

} // namespace

void refuse_system_calls(const std::string& name, int error)
{
    the_watch().refused[name] = error;
}

void accept_system_calls()
{
    the_watch().refused.clear();
}

void after_each_system_call(std::function<void()> look)
{
    the_watch().look = std::move(look);
}

void start_watching_system_calls(Scope scope, const Interference& interference)
{
    Watch& w = the_watch();
    w.scope = scope;
    w.interference = interference;
    w.name_to_fail.clear();
    w.calls.clear();
    w.started = true;
}

SystemCalls stop_watching_system_calls()
{
    the_watch().started = false;
    return the_watch().calls;
}

// The store's calls of durable_save come here.
bool real_durable_save(const char* file_name,
                       xmlDocPtr document) __asm__("__real__Z12durable_savePKcP7_xmlDoc");
bool watched_durable_save(const char* file_name,
                          xmlDocPtr document) __asm__("__wrap__Z12durable_savePKcP7_xmlDoc");

bool watched_durable_save(const char* file_name, xmlDocPtr document)
{
    in_save = true;
    const bool saved = real_durable_save(file_name, document);
    in_save = false;
    return saved;
}

extern "C" {

int open(const char* path, int flags, ...)
{
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = mode_argument(flags, arguments);
    va_end(arguments);
    return call("open", path, [&] { return NEXT(open)(path, flags, mode); });
}

int open64(const char* path, int flags, ...)
{
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = mode_argument(flags, arguments);
    va_end(arguments);
    return call("open", path, [&] { return NEXT(open64)(path, flags, mode); });
}

FILE* fopen(const char* path, const char* mode)
{
    return is_watching() && mode[0] == 'w' ? open_stream(path) : NEXT(fopen)(path, mode);
}

FILE* fopen64(const char* path, const char* mode)
{
    return is_watching() && mode[0] == 'w' ? open_stream(path) : NEXT(fopen64)(path, mode);
}

int close(int fd)
{
    return call("close", fd, [&] { return NEXT(close)(fd); });
}

ssize_t write(int fd, const void* bytes, size_t count)
{
    return call_write(fd, bytes, count);
}

ssize_t read(int fd, void* bytes, size_t count)
{
    return call_read(fd, count, [&](size_t some) { return NEXT(read)(fd, bytes, some); });
}

ssize_t __read_chk(int fd, void* bytes, size_t count, size_t capacity);
ssize_t __read_chk(int fd, void* bytes, size_t count, size_t capacity)
{
    return call_read(fd, count,
                     [&](size_t some) { return NEXT(__read_chk)(fd, bytes, some, capacity); });
}

off_t lseek(int fd, off_t offset, int whence) noexcept
{
    return call_lseek(fd, [&] { return NEXT(lseek)(fd, offset, whence); });
}

off64_t lseek64(int fd, off64_t offset, int whence) noexcept
{
    return call_lseek(fd, [&] { return NEXT(lseek64)(fd, offset, whence); });
}

int stat(const char* path, struct stat* status) noexcept
{
    return call_stat(path, [&] { return NEXT(stat)(path, status); });
}

int stat64(const char* path, struct stat64* status) noexcept
{
    return call_stat(path, [&] { return NEXT(stat64)(path, status); });
}

int fsync(int fd)
{
    return call("fsync", fd, [&] { return NEXT(fsync)(fd); });
}

ssize_t pread(int fd, void* bytes, size_t count, off_t offset)
{
    return call_pread(fd, [&] { return NEXT(pread)(fd, bytes, count, offset); });
}

ssize_t pread64(int fd, void* bytes, size_t count, off64_t offset)
{
    return call_pread(fd, [&] { return NEXT(pread64)(fd, bytes, count, offset); });
}

// The two as they are called by a hardened build.
ssize_t __pread_chk(int fd, void* bytes, size_t count, off_t offset, size_t capacity);
ssize_t __pread_chk(int fd, void* bytes, size_t count, off_t offset, size_t capacity)
{
    return call_pread(fd, [&] { return NEXT(__pread_chk)(fd, bytes, count, offset, capacity); });
}

ssize_t __pread64_chk(int fd, void* bytes, size_t count, off64_t offset, size_t capacity);
ssize_t __pread64_chk(int fd, void* bytes, size_t count, off64_t offset, size_t capacity)
{
    return call_pread(fd, [&] { return NEXT(__pread64_chk)(fd, bytes, count, offset, capacity); });
}

ssize_t pwrite(int fd, const void* bytes, size_t count, off_t offset)
{
    return call_pwrite(fd, count,
                       [&](size_t some) { return NEXT(pwrite)(fd, bytes, some, offset); });
}

ssize_t pwrite64(int fd, const void* bytes, size_t count, off64_t offset)
{
    return call_pwrite(fd, count,
                       [&](size_t some) { return NEXT(pwrite64)(fd, bytes, some, offset); });
}

int fallocate(int fd, int mode, off_t offset, off_t size)
{
    return call_fallocate(fd, size, [&](off64_t some) {
        return NEXT(fallocate)(fd, mode, offset, static_cast<off_t>(some));
    });
}

int fallocate64(int fd, int mode, off64_t offset, off64_t size)
{
    return call_fallocate(fd, size,
                          [&](off64_t some) { return NEXT(fallocate64)(fd, mode, offset, some); });
}

int posix_fallocate(int fd, off_t offset, off_t size)
{
    return call_posix_fallocate(fd, size, [&](off64_t some) {
        return NEXT(posix_fallocate)(fd, offset, static_cast<off_t>(some));
    });
}

int posix_fallocate64(int fd, off64_t offset, off64_t size)
{
    return call_posix_fallocate(
        fd, size, [&](off64_t some) { return NEXT(posix_fallocate64)(fd, offset, some); });
}

int ftruncate(int fd, off_t size) noexcept
{
    return call("ftruncate", fd, [&] { return NEXT(ftruncate)(fd, size); });
}

int ftruncate64(int fd, off64_t size) noexcept
{
    return call("ftruncate", fd, [&] { return NEXT(ftruncate64)(fd, size); });
}

int flock(int fd, int operation) noexcept
{
    return call("flock", fd, [&] { return NEXT(flock)(fd, operation); });
}

int rename(const char* from, const char* to) noexcept
{
    return call("rename", to, [&] { return NEXT(rename)(from, to); });
}

int unlink(const char* path) noexcept
{
    return call("unlink", path, [&] { return NEXT(unlink)(path); });
}

char* realpath(const char* path, char* resolved) noexcept
{
    const auto make = [&] {
        return NEXT(realpath)(path, resolved);
    };
    return call("realpath", path, make, make, null);
}

int lstat(const char* path, struct stat* status) noexcept
{
    return call("lstat", path, [&] { return NEXT(lstat)(path, status); });
}

int fstat(int fd, struct stat* status) noexcept
{
    return call("fstat", fd, [&] { return NEXT(fstat)(fd, status); });
}

int lstat64(const char* path, struct stat64* status) noexcept
{
    return call("lstat", path, [&] { return NEXT(lstat64)(path, status); });
}

int fstat64(int fd, struct stat64* status) noexcept
{
    return call("fstat", fd, [&] { return NEXT(fstat64)(fd, status); });
}

int fchown(int fd, uid_t owner, gid_t group) noexcept
{
    return call("fchown", fd, [&] { return NEXT(fchown)(fd, owner, group); });
}

int fchmod(int fd, mode_t mode) noexcept
{
    return call("fchmod", fd, [&] { return NEXT(fchmod)(fd, mode); });
}

ssize_t flistxattr(int fd, char* names, size_t size) noexcept
{
    const auto make = [&] {
        return NEXT(flistxattr)(fd, names, size);
    };
    return call("flistxattr", fd, make, make, minus_one);
}

ssize_t fgetxattr(int fd, const char* name, void* value, size_t size) noexcept
{
    const auto make = [&] {
        return NEXT(fgetxattr)(fd, name, value, size);
    };
    return call("fgetxattr", fd, make, make, minus_one);
}

int fsetxattr(int fd, const char* name, const void* value, size_t size, int flags) noexcept
{
    return call("fsetxattr", fd, [&] { return NEXT(fsetxattr)(fd, name, value, size, flags); });
}

int fremovexattr(int fd, const char* name) noexcept
{
    return call("fremovexattr", fd, [&] { return NEXT(fremovexattr)(fd, name); });
}

} // extern "C"
