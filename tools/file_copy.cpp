#include "file_copy.h"

#include "store_file.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

static const char ACCESS_CONTROL_LIST[] = "system.posix_acl_access";

static bool copy_access_control_list(int from, int to)
{
    char list[4096];
    const ssize_t size = fgetxattr(from, ACCESS_CONTROL_LIST, list, sizeof list);
    if (size < 0) {
        return (errno == ENODATA || errno == ENOTSUP) &&
               (fremovexattr(to, ACCESS_CONTROL_LIST) == 0 || errno == ENODATA || errno == ENOTSUP);
    }
    return fsetxattr(to, ACCESS_CONTROL_LIST, list, static_cast<size_t>(size), 0) == 0;
}

// Closed to all but the owner first, so that no step on the way opens it.
bool copy_permissions(int from, int to)
{
    struct stat wanted;
    struct stat present;
    if (fstat(from, &wanted) != 0 || fstat(to, &present) != 0 ||
        fchmod(to, present.st_mode & S_IRWXU) != 0) {
        return false;
    }
    if ((wanted.st_uid != present.st_uid || wanted.st_gid != present.st_gid) &&
        fchown(to, wanted.st_uid, wanted.st_gid) != 0) {
        return false;
    }
    return copy_access_control_list(from, to) && fchmod(to, wanted.st_mode & 07777) == 0;
}

// The pages in memory are given up first, as far as the system allows, so that it is the disk that
// answers.
static bool holds(int fd, const std::string& content)
{
    posix_fadvise(fd, 0, 0, POSIX_FADV_DONTNEED);
    std::string written;
    if (lseek(fd, 0, SEEK_SET) != 0 || !read_descriptor(fd, &written)) {
        return false;
    }
    errno = EIO;
    return written == content;
}

bool make_copy(int directory, const char* name, const std::string& content, int permissions_of)
{
    const int fd =
        openat(directory, name, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, S_IRUSR | S_IWUSR);
    if (fd < 0) {
        return false;
    }
    const bool made = write_descriptor(fd, content) && holds(fd, content) &&
                      copy_permissions(permissions_of, fd) && fsync(fd) == 0;
    const int error = errno;
    close(fd);
    if (!made) {
        unlinkat(directory, name, 0);
    }
    errno = error;
    return made;
}
