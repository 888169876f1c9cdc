// init: makes the two store files.

#include "commands.h"
#include "record_output.h"

#include "key_driver/store_lock.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

static const char EMPTY_STORE_FILE[] = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
                                       "<keys>\n"
                                       "</keys>\n";

static mode_t mode_of(FileKind kind)
{
    return kind == PRIVATE_FILE ? 0600 : 0644;
}

static Failure cannot_make(FileKind kind)
{
    return {INPUT_OUTPUT, file_name(kind), 0, std::string("cannot be made: ") + strerror(errno),
            "see to the directory's permissions and to the space on the disk"};
}

// The mode is set on its own, so that no umask takes part.
static bool fill_new_file(int fd, FileKind kind)
{
    const size_t size = sizeof EMPTY_STORE_FILE - 1;
    const ssize_t count = write(fd, EMPTY_STORE_FILE, size);
    return count == static_cast<ssize_t>(size) && fchmod(fd, mode_of(kind)) == 0 && fsync(fd) == 0;
}

static std::optional<Failure> make_file(FileKind kind)
{
    const int fd =
        open(file_name(kind), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, S_IRUSR | S_IWUSR);
    if (fd < 0) {
        return cannot_make(kind);
    }
    std::optional<Failure> failure;
    if (!fill_new_file(fd, kind)) {
        failure = cannot_make(kind);
        unlink(file_name(kind));
    }
    close(fd);
    return failure;
}

// Makes the files of this list, all or none.
static std::optional<Failure> make_files(const std::vector<FileKind>& kinds)
{
    for (size_t i = 0; i < kinds.size(); ++i) {
        if (std::optional<Failure> failure = make_file(kinds[i])) {
            for (size_t made = 0; made < i; ++made) {
                unlink(file_name(kinds[made]));
            }
            return failure;
        }
    }
    const int directory = open(".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (directory >= 0) {
        fsync(directory);
        close(directory);
    }
    return std::nullopt;
}

// A link counts as a file, wherever it leads.
static bool is_there(FileKind kind)
{
    struct stat status;
    return lstat(file_name(kind), &status) == 0;
}

static std::optional<Failure> make_store(bool only_missing, std::vector<FileKind>* made)
{
    for (FileKind kind : FILE_KINDS) {
        if (!is_there(kind)) {
            made->push_back(kind);
        } else if (!only_missing) {
            return Failure{REFUSED, file_name(kind), 0, "is there already and is not overwritten",
                           "take another directory, or say --missing to make only what is missing"};
        }
    }
    return make_files(*made);
}

static void print_made(const Common& common, const std::vector<FileKind>& made)
{
    if (common.json) {
        nlohmann::ordered_json files = nlohmann::ordered_json::array();
        for (FileKind kind : made) {
            files.push_back({{"file", kind_name(kind)}, {"name", file_name(kind)}});
        }
        print_json({{"command", "init"}, {"files", files}});
    } else if (!common.quiet) {
        for (FileKind kind : made) {
            printf("made %s\n", file_name(kind));
        }
    }
}

std::optional<Failure> run_init(const Common& common, const InitOptions& options)
{
    std::vector<FileKind> made;
    store_lock_take();
    std::optional<Failure> failure = make_store(options.only_missing, &made);
    store_lock_give_back();
    if (!failure) {
        print_made(common, made);
    }
    return failure;
}
