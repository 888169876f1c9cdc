// On 32-bit systems the status of a file with a large inode number is only had this way.
#define _FILE_OFFSET_BITS 64

#include "store_lock.h"

#include "key_store_format.h"

#include <errno.h>
#include <fcntl.h>
#include <libgen.h>
#include <stdlib.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

struct Directory {
    int fd;
    dev_t device;
    ino_t inode;
};

// The working directory and those that the store files' links lead to, each once. All processes
// lock them in the order of device and inode, so that no two wait for each other.
static Directory directories[3];
static int directory_count = 0;
static bool all_are_locked = false;

static bool is_before(const Directory& a, const Directory& b)
{
    return a.device != b.device ? a.device < b.device : a.inode < b.inode;
}

// Puts a directory in its place; one that is there already is closed instead.
static void insert_directory(const Directory& directory)
{
    int place = directory_count;
    while (place > 0 && is_before(directory, directories[place - 1])) {
        --place;
    }
    if (place > 0 && !is_before(directories[place - 1], directory)) {
        close(directory.fd);
        return;
    }
    for (int i = directory_count; i > place; --i) {
        directories[i] = directories[i - 1];
    }
    directories[place] = directory;
    ++directory_count;
}

static bool open_directory(const char* path)
{
    const int fd = open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    struct stat status;
    if (fstat(fd, &status) != 0) {
        close(fd);
        return false;
    }
    insert_directory({fd, status.st_dev, status.st_ino});
    return true;
}

// A file that is not there has no directory to be locked beside the working directory.
static bool open_directory_of(const char* file_name)
{
    char* target = realpath(file_name, NULL);
    if (target == NULL) {
        return true;
    }
    const bool is_open = open_directory(dirname(target));
    free(target);
    return is_open;
}

static bool lock_directory(int fd)
{
    int result = -1;
    do {
        result = flock(fd, LOCK_EX);
    } while (result != 0 && errno == EINTR);
    return result == 0;
}

void store_lock_take()
{
    directory_count = 0;
    all_are_locked = open_directory(".");
    for (const char* file_name : PRIVATE_THEN_PUBLIC) {
        all_are_locked = open_directory_of(file_name) && all_are_locked;
    }
    for (int i = 0; i < directory_count; ++i) {
        all_are_locked = lock_directory(directories[i].fd) && all_are_locked;
    }
}

void store_lock_give_back()
{
    for (int i = directory_count; i > 0; --i) {
        flock(directories[i - 1].fd, LOCK_UN);
        close(directories[i - 1].fd);
    }
    directory_count = 0;
    all_are_locked = false;
}

bool store_lock_is_held()
{
    return all_are_locked;
}
