// Which files of the working directory a call writes, replaces, makes or removes.
#pragma once

#include "tests/support/read_file.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

using FileNames = std::vector<std::string>; // in alphabetical order

struct FileState {
    ino_t inode;
    timespec modified;
    std::string content;

    bool operator==(const FileState& other) const
    {
        return inode == other.inode && modified.tv_sec == other.modified.tv_sec &&
               modified.tv_nsec == other.modified.tv_nsec && content == other.content;
    }
};

using DirectoryState = std::map<std::string, FileState>;

inline DirectoryState directory_state()
{
    DirectoryState state;
    for (const auto& entry : std::filesystem::directory_iterator(".")) {
        struct stat status = {};
        stat(entry.path().c_str(), &status);
        std::string content;
        if (entry.is_regular_file()) {
            content = read_file(entry.path());
        }
        state[entry.path().filename()] = {status.st_ino, status.st_mtim, content};
    }
    return state;
}

// So that a write shows in the time of modification, however soon it comes and whatever it writes.
inline void make_files_look_old()
{
    const timespec long_ago[2] = {{1000000000, 0}, {1000000000, 0}};
    for (const auto& entry : std::filesystem::directory_iterator(".")) {
        utimensat(AT_FDCWD, entry.path().c_str(), long_ago, 0);
    }
}

template <typename Call> FileNames touched_by(Call call)
{
    make_files_look_old();
    const DirectoryState before = directory_state();
    call();
    const DirectoryState after = directory_state();

    FileNames touched;
    for (const auto& [name, state] : before) {
        if (after.count(name) == 0 || !(after.at(name) == state)) {
            touched.push_back(name);
        }
    }
    for (const auto& [name, state] : after) {
        if (before.count(name) == 0) {
            touched.push_back(name);
        }
    }
    std::sort(touched.begin(), touched.end());
    return touched;
}
