// On 32-bit systems the status of a file with a large inode number is only had this way.
#define _FILE_OFFSET_BITS 64

#include "durable_save.h"

#include "key_record.h"
#include "read_back.h"
#include "store_lock.h"

#include <libxml/uri.h>
#include <libxml/xmlerror.h>

#include <errno.h>
#include <fcntl.h>
#include <libgen.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

enum Outcome {
    SAVED,
    FAILED,
    NOT_POSSIBLE_HERE // for permissions or the kind of file alone: overwrite in place instead
};

static Outcome outcome_of_errno()
{
    switch (errno) {
    case EACCES:
    case EPERM:
    case EROFS:
    case EBUSY:  // a mount point
    case EXDEV:  // likewise
    case EINVAL: // an owner or a listed user who has no number in this user namespace
    case ENAMETOOLONG:
    case ENOTSUP:
    case ERANGE: // more attributes than are copied
        return NOT_POSSIBLE_HERE;
    default:
        return FAILED;
    }
}

// ---------------------------------------------------------------------------------------------
// The sibling
// ---------------------------------------------------------------------------------------------

// Without the lock another process may be saving too, so the name is then this process's alone.
static void name_sibling(char* sibling, size_t size, const char* target)
{
    if (store_lock_is_held()) {
        snprintf(sibling, size, "%s.saving", target);
    } else {
        snprintf(sibling, size, "%s.saving.%ld", target, static_cast<long>(getpid()));
    }
    unlink(sibling);
}

// Copies one extended attribute (an access control list, a security label) unless it is the same
// already.
static bool copy_attribute(int from, int to, const char* name)
{
    char wanted[4096];
    char present[4096];
    const ssize_t wanted_size = fgetxattr(from, name, wanted, sizeof wanted);
    if (wanted_size < 0) {
        return false;
    }
    const ssize_t present_size = fgetxattr(to, name, present, sizeof present);
    if (present_size == wanted_size &&
        memcmp(present, wanted, static_cast<size_t>(wanted_size)) == 0) {
        return true;
    }
    return fsetxattr(to, name, wanted, static_cast<size_t>(wanted_size), 0) == 0;
}

static bool copy_attributes(int from, int to)
{
    char names[4096];
    const ssize_t size = flistxattr(from, names, sizeof names);
    if (size < 0) {
        return errno == ENOTSUP;
    }
    for (const char* name = names; name < names + size; name += strlen(name) + 1) {
        if (!copy_attribute(from, to, name)) {
            return false;
        }
    }
    return true;
}

// Gives the sibling the owner and the permissions of the file that it is to replace. It was created
// for its owner alone, and nothing on the way opens it to more people than the file: the owner
// comes first, and an access control list that the directory handed down goes before the mode is
// set.
static bool copy_owner_and_permissions(int from, int to)
{
    struct stat wanted;
    struct stat present;
    if (fstat(from, &wanted) != 0 || fstat(to, &present) != 0) {
        return false;
    }
    if ((wanted.st_uid != present.st_uid || wanted.st_gid != present.st_gid) &&
        fchown(to, wanted.st_uid, wanted.st_gid) != 0) {
        return false;
    }
    if (fremovexattr(to, "system.posix_acl_access") != 0 && errno != ENODATA && errno != ENOTSUP) {
        return false;
    }
    return copy_attributes(from, to) && fchmod(to, wanted.st_mode & 07777) == 0;
}

// Whether libxml2 reported an error in this thread since xmlResetLastError. The number of bytes
// that it returns does not tell: what it finds no memory for it leaves out.
static bool error_was_reported()
{
    const auto* error = xmlGetLastError();
    return error != NULL && error->level >= XML_ERR_ERROR;
}

// libxml2 takes a file name for a URI and unescapes it. Where that file cannot be opened, it tries
// the name as it was given. Then "%2E", the escaped ".", names a directory that is not there, so
// that no file of a strange name comes into being.
static bool name_as_uri(const char* path, char* uri, size_t size)
{
    xmlChar* escaped = xmlURIEscapeStr(as_xml(path), as_xml("/"));
    if (escaped == NULL) {
        return false;
    }
    const char* whole = as_chars(escaped);
    const char* slash = strrchr(whole, '/');
    const char* base = slash != NULL ? slash + 1 : whole;
    snprintf(uri, size, "%.*s%%2E/%s", static_cast<int>(base - whole), whole, base);
    xmlFree(escaped);
    return true;
}

static bool save_to(const char* path, xmlDocPtr document)
{
    char uri[3 * PATH_MAX + 64]; // an escaped byte takes three
    if (!name_as_uri(path, uri, sizeof uri)) {
        return false;
    }
    xmlResetLastError();
    const int written = xmlSaveFile(uri, document);
    return written >= 0 && !error_was_reported();
}

// Fills the sibling that was just created, and brings it to the disk.
static Outcome fill_sibling(int original, int fd, const char* sibling, xmlDocPtr document)
{
    if (!copy_owner_and_permissions(original, fd)) {
        return outcome_of_errno();
    }
    return save_to(sibling, document) && fsync(fd) == 0 ? SAVED : FAILED;
}

static Outcome make_sibling(int original, const char* sibling, xmlDocPtr document)
{
    const int fd = open(sibling, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, S_IRUSR | S_IWUSR);
    if (fd < 0) {
        return outcome_of_errno();
    }
    const Outcome outcome = fill_sibling(original, fd, sibling, document);
    return close(fd) == 0 ? outcome : FAILED;
}

// The directory of a file, opened so that it can be flushed; -1 when that is not permitted.
static int open_directory_of(const char* target)
{
    char path[PATH_MAX];
    snprintf(path, sizeof path, "%s", target);
    return open(dirname(path), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
}

static Outcome rename_over(const char* sibling, const char* target)
{
    // Opened beforehand, so that behind the renaming nothing but the flush can fail.
    const int directory = open_directory_of(target);
    if (directory < 0 && errno != EACCES && errno != EPERM) {
        return FAILED;
    }
    Outcome outcome = rename(sibling, target) == 0 ? SAVED : outcome_of_errno();
    if (directory >= 0) {
        // EINVAL: a file system that does not flush directories.
        if (outcome == SAVED && fsync(directory) != 0 && errno != EINVAL) {
            outcome = FAILED;
        }
        close(directory);
    }
    return outcome;
}

static Outcome replace_by_sibling(const char* target, xmlDocPtr document)
{
    // Opened for writing to find out whether this is permitted: a write-protected store stays as
    // it is, although its directory would allow to replace it.
    const int original = open(target, O_RDWR | O_CLOEXEC);
    if (original < 0) {
        return outcome_of_errno();
    }
    char sibling[PATH_MAX + 32];
    name_sibling(sibling, sizeof sibling, target);
    Outcome outcome = make_sibling(original, sibling, document);
    close(original);
    if (outcome == SAVED) {
        outcome = rename_over(sibling, target);
    }
    if (outcome != SAVED) {
        unlink(sibling);
    }
    return outcome;
}

// ---------------------------------------------------------------------------------------------
// In place
// ---------------------------------------------------------------------------------------------

// The whole content of a file, to be wiped and freed; null when it cannot be had.
static char* read_content(int fd, size_t* size)
{
    struct stat status;
    if (fstat(fd, &status) != 0) {
        return NULL;
    }
    *size = static_cast<size_t>(status.st_size);
    char* content = static_cast<char*>(malloc(*size + 1));
    for (size_t done = 0; content != NULL && done < *size;) {
        const ssize_t count = pread(fd, content + done, *size - done, static_cast<off_t>(done));
        if (count > 0) {
            done += static_cast<size_t>(count);
        } else if (count == 0 || errno != EINTR) {
            explicit_bzero(content, done);
            free(content);
            content = NULL;
        }
    }
    return content;
}

// Makes sure of the space for a content that may be longer than the file, which itself stays as long
// as it is: where nothing can be written after all, there is then nothing to undo.
static bool reserve_space(int fd, off_t size)
{
    if (fallocate(fd, FALLOC_FL_KEEP_SIZE, 0, size) == 0) {
        return true;
    }
    return errno == EOPNOTSUPP && posix_fallocate(fd, 0, size) == 0; // not every file system can
}

// Overwrites a file from its beginning, without truncating it first: as long as the new content is
// not all there, no space is given up.
static bool write_content(int fd, const char* content, size_t size)
{
    for (size_t done = 0; done < size;) {
        const ssize_t count = pwrite(fd, content + done, size - done, static_cast<off_t>(done));
        if (count > 0) {
            done += static_cast<size_t>(count);
        } else if (count == 0 || errno != EINTR) {
            return false;
        }
    }
    return ftruncate(fd, static_cast<off_t>(size)) == 0 && fsync(fd) == 0;
}

// As xmlSaveFile would write it; null without memory. To be wiped and freed by xmlFree.
static xmlChar* text_of_document(xmlDocPtr document, size_t* size)
{
    xmlChar* text = NULL;
    int text_size = 0;
    xmlResetLastError();
    xmlDocDumpMemory(document, &text, &text_size);
    *size = static_cast<size_t>(text_size);
    if (text != NULL && error_was_reported()) {
        explicit_bzero(text, *size);
        xmlFree(text);
        text = NULL;
    }
    return text;
}

// A write that fails is undone from a copy of the old content.
static bool overwrite_keeping_old(int fd, const char* content, size_t size)
{
    size_t old_size = 0;
    char* old_content = read_content(fd, &old_size);
    if (old_content == NULL) {
        return false;
    }
    const bool saved =
        reserve_space(fd, static_cast<off_t>(size)) && write_content(fd, content, size);
    if (!saved) {
        write_content(fd, old_content, old_size);
    }
    explicit_bzero(old_content, old_size);
    free(old_content);
    return saved;
}

static bool overwrite_in_place(const char* target, xmlDocPtr document)
{
    const int fd = open(target, O_RDWR | O_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    size_t size = 0;
    xmlChar* content = text_of_document(document, &size);
    bool saved = false;
    if (content != NULL) {
        saved = overwrite_keeping_old(fd, reinterpret_cast<const char*>(content), size);
        explicit_bzero(content, size);
        xmlFree(content);
    }
    close(fd);
    return saved;
}

// ---------------------------------------------------------------------------------------------

// The file that a name leads to: the name itself unless it is a symbolic link. To be freed.
static char* target_of(const char* file_name)
{
    struct stat status;
    if (lstat(file_name, &status) != 0) {
        return NULL;
    }
    return S_ISLNK(status.st_mode) ? realpath(file_name, NULL) : strdup(file_name);
}

bool durable_save(const char* file_name, xmlDocPtr document)
{
    if (!can_be_read_back(document)) {
        return false;
    }
    char* target = target_of(file_name);
    if (target == NULL) {
        return false;
    }
    Outcome outcome = replace_by_sibling(target, document);
    if (outcome == NOT_POSSIBLE_HERE) {
        outcome = overwrite_in_place(target, document) ? SAVED : FAILED;
    }
    free(target);
    return outcome == SAVED;
}
