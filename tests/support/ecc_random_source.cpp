#include "ecc_random_source.h"

#include <errno.h>
#include <stdarg.h>
#include <stddef.h>
#include <string.h>
#include <sys/types.h>

static RandomSource* active = nullptr;

RandomSource::RandomSource()
{
    active = this;
}

RandomSource::~RandomSource()
{
    active = nullptr;
}

void RandomSource::supply(const mpz_class& number)
{
    // The engine takes the first byte for the lowest one.
    const Bytes big_endian = bytes(number);
    content.insert(content.end(), big_endian.rbegin(), big_endian.rend());
}

void RandomSource::supply(const std::vector<mpz_class>& numbers)
{
    for (const mpz_class& number : numbers) {
        supply(number);
    }
}

size_t RandomSource::count(const std::string& call) const
{
    return static_cast<size_t>(
        std::count_if(calls.begin(), calls.end(),
                      [&](const std::string& made) { return made.rfind(call, 0) == 0; }));
}

static bool is_device(const char* path)
{
    return strcmp(path, "/dev/urandom") == 0 || strcmp(path, "/dev/random") == 0;
}

static bool is_device(int fd)
{
    return active != nullptr && (fd == active->descriptor || fd == -1);
}

static int open_device(const std::string& path, int flags)
{
    active->calls.push_back("open " + path);
    active->open_flags.push_back(flags);
    if (path == "/dev/urandom" ? active->urandom_exists : active->random_exists) {
        return active->descriptor;
    }
    errno = ENOENT;
    return -1;
}

static ssize_t read_device(void* buffer, size_t count)
{
    active->calls.push_back("read " + std::to_string(count));
    size_t limit = count;
    if (!active->reads.empty()) {
        const int outcome = active->reads.front();
        active->reads.pop_front();
        if (outcome < 0) {
            errno = -outcome;
            return -1;
        }
        limit = std::min(limit, static_cast<size_t>(outcome));
    }
    limit = std::min(limit, active->content.size());
    const auto end = active->content.begin() + static_cast<ptrdiff_t>(limit);
    std::copy(active->content.begin(), end, static_cast<uint8_t*>(buffer));
    active->content.erase(active->content.begin(), end);
    return static_cast<ssize_t>(limit);
}

extern "C" {

int __real_open(const char* path, int flags, ...);
ssize_t __real_read(int fd, void* buffer, size_t count);
ssize_t __real___read_chk(int fd, void* buffer, size_t count, size_t size);
int __real_close(int fd);

int __wrap_open(const char* path, int flags, ...)
{
    if (active != nullptr && is_device(path)) {
        return open_device(path, flags);
    }
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = va_arg(arguments, mode_t); // without a meaning where none was given
    va_end(arguments);
    return __real_open(path, flags, mode);
}

ssize_t __wrap_read(int fd, void* buffer, size_t count)
{
    return is_device(fd) ? read_device(buffer, count) : __real_read(fd, buffer, count);
}

ssize_t __wrap___read_chk(int fd, void* buffer, size_t count, size_t size)
{
    return is_device(fd) ? read_device(buffer, count) : __real___read_chk(fd, buffer, count, size);
}

int __wrap_close(int fd)
{
    if (is_device(fd)) {
        active->calls.push_back("close");
        return 0;
    }
    return __real_close(fd);
}
}
