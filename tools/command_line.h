// The tool's command line: which commands and options there are.
#ifndef ZENTRAVA_TOOLS_COMMAND_LINE_H
#define ZENTRAVA_TOOLS_COMMAND_LINE_H

#include "commands.h"

#include <functional>

// What the command line asks for: a command to run, or nothing more than the text that was printed.
struct Request {
    Common common;
    bool makes_directory; // the store's, if it is not there yet
    std::function<std::optional<Failure>(const Common&)> run;
};

std::optional<Failure> parse_command_line(int argc, char** argv, Request* request);

#endif
