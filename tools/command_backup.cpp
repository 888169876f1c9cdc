// backup, restore: both store files, to another directory and back.

#include "commands.h"
#include "file_copy.h"
#include "record_output.h"
#include "store_check.h"
#include "text_output.h"

#include "key_driver/durable_save.h"
#include "key_driver/libxml2_guard.h"
#include "key_driver/store_lock.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

static std::string path_in(const std::string& directory, FileKind kind)
{
    return directory + "/" + file_name(kind);
}

static Failure cannot(const char* what, const std::string& name)
{
    return {INPUT_OUTPUT, name, 0, std::string(what) + ": " + strerror(errno),
            "see to its permissions and to the space on the disk"};
}

// What was copied, for the report.
struct Copied {
    size_t bytes;
    unsigned int mode;
};

static Copied describe_copy(int fd, const std::string& content)
{
    struct stat status = {};
    fstat(fd, &status);
    return {content.size(), static_cast<unsigned int>(status.st_mode & 07777)};
}

static void print_copied(const Common& common, const char* command, const std::string& directory,
                         const Copied (&copied)[2])
{
    nlohmann::ordered_json files = nlohmann::ordered_json::array();
    for (FileKind kind : FILE_KINDS) {
        char mode[8];
        snprintf(mode, sizeof mode, "%04o", copied[kind].mode);
        files.push_back({{"file", kind_name(kind)},
                         {"name", file_name(kind)},
                         {"bytes", copied[kind].bytes},
                         {"mode", mode}});
        if (!common.json && !common.quiet) {
            printf("%s: %s, %zu bytes, mode %s\n", command, file_name(kind), copied[kind].bytes,
                   mode);
        }
    }
    if (common.json) {
        print_json({{"command", command}, {"directory", directory}, {"files", files}});
    }
}

// ---------------------------------------------------------------------------------------------
// backup
// ---------------------------------------------------------------------------------------------

static std::optional<Failure> open_new_directory(const Common& common, const std::string& name,
                                                 int* fd)
{
    if (mkdirat(common.start_directory, name.c_str(), S_IRWXU) != 0 && errno != EEXIST) {
        return cannot("cannot be made", name);
    }
    *fd = openat(common.start_directory, name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    return *fd >= 0 ? std::nullopt : std::optional(cannot("cannot be opened", name));
}

static std::optional<Failure> back_up_file(const std::string& name, int directory, FileKind kind,
                                           const std::string& content, Copied* copied)
{
    const int original = open(file_name(kind), O_RDONLY | O_CLOEXEC);
    if (original < 0) {
        return cannot("cannot be read", file_name(kind));
    }
    std::optional<Failure> failure;
    if (!make_copy(directory, file_name(kind), content, original)) {
        failure = errno == EEXIST
                      ? Failure{REFUSED, path_in(name, kind), 0,
                                "is there already and is not overwritten", "name another directory"}
                      : cannot("cannot be written", path_in(name, kind));
    }
    *copied = describe_copy(original, content);
    close(original);
    return failure;
}

static std::optional<Failure> back_up_files(const Store& store, const std::string& name,
                                            int directory, Copied (&copied)[2])
{
    for (FileKind kind : FILE_KINDS) {
        if (!store.files[kind].is_present) {
            return Failure{INPUT_OUTPUT, file_name(kind), 0, "is missing",
                           "make it with init --missing"};
        }
    }
    for (FileKind kind : FILE_KINDS) {
        if (std::optional<Failure> failure =
                back_up_file(name, directory, kind, store.files[kind].content, &copied[kind])) {
            if (kind == PUBLIC_FILE) {
                unlinkat(directory, file_name(PRIVATE_FILE), 0);
            }
            return failure;
        }
    }
    return fsync(directory) == 0 ? std::nullopt : std::optional(cannot("cannot be written", name));
}

std::optional<Failure> run_backup(const Common& common, const BackupOptions& options)
{
    int directory = -1;
    Copied copied[2] = {};
    // With the lock, so that the two copies are of the same moment.
    std::optional<Failure> failure =
        with_store(TO_CHANGE, [&](Store* store) -> std::optional<Failure> {
            if (std::optional<Failure> refusal =
                    open_new_directory(common, options.directory, &directory)) {
                return refusal;
            }
            return back_up_files(*store, options.directory, directory, copied);
        });
    if (directory >= 0) {
        close(directory);
    }
    if (!failure) {
        print_copied(common, "backup", options.directory, copied);
    }
    return failure;
}

// ---------------------------------------------------------------------------------------------
// restore
// ---------------------------------------------------------------------------------------------

// A store file on its way back.
struct Restoration {
    int backup; // the backup's file
    std::string content;
    xmlDocPtr document;
    std::string target; // the store's file, where a link leads to it
    bool is_kept;       // what was there before has a second name
    bool was_made;      // there was nothing
};

static std::string kept_name(const Restoration& file)
{
    return file.target + ".before-restore";
}

static std::string target_of(const char* name)
{
    char* target = realpath(name, NULL);
    std::string result = target != NULL ? target : name;
    free(target);
    return result;
}

// check reads files by their names, as the user gave them.
static std::optional<Failure> check_backup(const Common& common, const std::string& name)
{
    const int here = open(".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    std::vector<Finding> findings;
    if (here >= 0 && fchdir(common.start_directory) == 0) {
        findings =
            check_store(path_in(name, PRIVATE_FILE).c_str(), path_in(name, PUBLIC_FILE).c_str());
    }
    const bool is_back = here >= 0 && fchdir(here) == 0;
    close(here);
    if (!is_back) {
        return cannot("cannot be entered", "the store's directory");
    }
    for (const Finding& finding : findings) {
        if (finding.severity == ERROR) {
            return Failure{STORE_DAMAGED, finding.file, finding.line,
                           finding.cause + ", so nothing was restored", finding.remedy};
        }
    }
    return std::nullopt;
}

static std::optional<Failure> read_backup(const Common& common, const std::string& name,
                                          Restoration (&files)[2])
{
    for (FileKind kind : FILE_KINDS) {
        const std::string path = path_in(name, kind);
        files[kind].backup = openat(common.start_directory, path.c_str(), O_RDONLY | O_CLOEXEC);
        if (files[kind].backup < 0 || !read_descriptor(files[kind].backup, &files[kind].content)) {
            return cannot("cannot be read", path);
        }
        if (std::optional<Failure> failure =
                read_document(path, files[kind].content, &files[kind].document)) {
            return failure;
        }
    }
    return check_backup(common, name);
}

// Makes sure that there is a file to be saved over, and that what it holds can be brought back.
static std::optional<Failure> prepare(FileKind kind, Restoration* file)
{
    const char* name = file_name(kind);
    struct stat status;
    if (lstat(name, &status) != 0) {
        file->was_made = errno == ENOENT && make_copy(AT_FDCWD, name, "", file->backup);
        return file->was_made ? std::nullopt : std::optional(cannot("cannot be made", name));
    }
    file->target = target_of(name);
    unlink(kept_name(*file).c_str()); // which a killed restore left
    file->is_kept = link(file->target.c_str(), kept_name(*file).c_str()) == 0;
    if (!file->is_kept) {
        return Failure{INPUT_OUTPUT, name, 0,
                       std::string("cannot be kept aside: ") + strerror(errno),
                       "see to the permissions of its directory"};
    }
    return std::nullopt;
}

static std::optional<Failure> restore_file(FileKind kind, const Restoration& file)
{
    const char* name = file_name(kind);
    if (!durable_save(name, file.document)) {
        return Failure{INPUT_OUTPUT, name, 0, "could not be saved, and nothing was changed",
                       "see to its permissions and to the space on the disk"};
    }
    const int fd = open(name, O_RDWR | O_CLOEXEC);
    const bool done = fd >= 0 && copy_permissions(file.backup, fd) && fsync(fd) == 0;
    const int error = errno;
    close(fd);
    errno = error;
    return done ? std::nullopt : std::optional(cannot("cannot be given the backup's owner", name));
}

// The kept name becomes the file's again, or goes: also where both are names of one file, of which
// rename would leave both.
static void settle(FileKind kind, const Restoration& file, bool restored)
{
    if (file.is_kept) {
        if (restored || rename(kept_name(file).c_str(), file.target.c_str()) == 0) {
            unlink(kept_name(file).c_str());
        }
    } else if (file.was_made && !restored) {
        unlink(file_name(kind));
    }
}

static std::optional<Failure> restore_files(Restoration (&files)[2])
{
    std::optional<Failure> failure;
    for (FileKind kind : FILE_KINDS) {
        failure = failure ? failure : prepare(kind, &files[kind]);
    }
    for (FileKind kind : FILE_KINDS) {
        failure = failure ? failure : restore_file(kind, files[kind]);
    }
    for (FileKind kind : FILE_KINDS) {
        settle(kind, files[kind], !failure);
    }
    return failure;
}

std::optional<Failure> run_restore(const Common& common, const RestoreOptions& options)
{
    Restoration files[2] = {{-1, "", NULL, "", false, false}, {-1, "", NULL, "", false, false}};
    Copied copied[2] = {};
    libxml2_enter();
    std::optional<Failure> failure = read_backup(common, options.directory, files);
    if (!failure) {
        store_lock_take();
        failure = restore_files(files);
        store_lock_give_back();
    }
    for (FileKind kind : FILE_KINDS) {
        copied[kind] = describe_copy(files[kind].backup, files[kind].content);
        xmlFreeDoc(files[kind].document);
        close(files[kind].backup);
    }
    libxml2_leave(true);
    if (!failure) {
        print_copied(common, "restore", options.directory, copied);
    }
    return failure;
}
