// The tool's commands. Each takes what the command line said, and tells how it went.
#ifndef ZENTRAVA_TOOLS_COMMANDS_H
#define ZENTRAVA_TOOLS_COMMANDS_H

#include "failure.h"
#include "store_file.h"

#include <optional>
#include <string>

// What every command understands. The commands work in the store's directory; files that the user
// names are opened from `start_directory`, where the user stands.
struct Common {
    std::string directory;
    bool quiet;
    bool json;
    int start_directory;
};

struct InitOptions {
    bool only_missing;
};
std::optional<Failure> run_init(const Common& common, const InitOptions& options);

struct ListOptions {
    std::string uid_pattern;  // of the shell's kind; empty: all
    std::string name_pattern; // likewise
    std::optional<FileKind> file;
};
std::optional<Failure> run_list(const Common& common, const ListOptions& options);

#endif
