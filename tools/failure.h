// What went wrong, and with which code the tool ends. Functions return a Failure, or none.
#ifndef ZENTRAVA_TOOLS_FAILURE_H
#define ZENTRAVA_TOOLS_FAILURE_H

#include <string>

enum ExitCode { DONE = 0, FAILED = 1, USAGE = 2, REFUSED = 3, STORE_DAMAGED = 4, INPUT_OUTPUT = 5 };

// Reported as one line: file, line, cause, remedy. An empty file and line 0 are left out.
struct Failure {
    ExitCode code;
    std::string file;
    int line;
    std::string cause;
    std::string remedy;
};

#endif
