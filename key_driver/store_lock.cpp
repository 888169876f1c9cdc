#include "store_lock.h"

#include "key_store_format.h"

#include <errno.h>
#include <fcntl.h>
#include <libgen.h>
#include <stdlib.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

// The working directory, and the directories that links lead to, in the order of their inodes.
struct Directory {
    int fd;
    dev_t device;
    ino_t inode;
};
static Directory locked[3];
static int count = 0;
static bool all_locked = false;

static bool lock_file(int fd)
{
    int result = -1;
    do {
        result = flock(fd, LOCK_EX);
    } while (result != 0 && errno == EINTR);
    return result == 0;
}

static bool before(const Directory& a, const Directory& b)
{
    return a.device != b.device ? a.device < b.device : a.inode < b.inode;
}

static bool add_directory(const char* path)
{
    struct stat status;
    const int fd = open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0 || fstat(fd, &status) != 0) {
        if (fd >= 0) {
            close(fd);
        }
        return false;
    }
    const Directory directory = {fd, status.st_dev, status.st_ino};
    int place = count;
    while (place > 0 && before(directory, locked[place - 1])) {
        --place;
    }
    if (place > 0 && !before(locked[place - 1], directory)) {
        close(fd);
        return true;
    }
    for (int i = count; i > place; --i) {
        locked[i] = locked[i - 1];
    }
    locked[place] = directory;
    ++count;
    return true;
}

void store_lock_take()
{
    count = 0;
    all_locked = add_directory(".");
    for (const char* file_name : PRIVATE_THEN_PUBLIC) {
        char* target = realpath(file_name, NULL);
        if (target != NULL) {
            all_locked = add_directory(dirname(target)) && all_locked;
            free(target);
        }
    }
    for (int i = 0; i < count; ++i) {
        all_locked = lock_file(locked[i].fd) && all_locked;
    }
}

void store_lock_give_back()
{
    for (int i = count; i > 0; --i) {
        flock(locked[i - 1].fd, LOCK_UN);
        close(locked[i - 1].fd);
    }
    count = 0;
    all_locked = false;
}

bool store_lock_is_held()
{
    return all_locked;
}
