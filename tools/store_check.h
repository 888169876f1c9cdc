// What in a key store would surprise the library, or the people who use it.
#ifndef ZENTRAVA_TOOLS_STORE_CHECK_H
#define ZENTRAVA_TOOLS_STORE_CHECK_H

#include <string>
#include <vector>

enum Severity {
    WARNING, // works, though hardly as it was meant
    ERROR    // a key or a handle that the library cannot use, or takes another for
};

// One thing found. Texts that the record does not have are empty; key texts never stand in here.
struct Finding {
    Severity severity;
    std::string file;
    int line; // 0: of the file as a whole
    std::string uid;
    std::string key_name;
    std::string handle;
    std::string what; // a stable name, such as "duplicate-handle"
    std::string cause;
    std::string remedy;
};

// Reads both files as the library does and tells what was found, in the order of their lines. It
// takes time in proportion to the number of records.
std::vector<Finding> check_store(const char* private_file, const char* public_file);

// Whether there is an error among the findings.
bool store_is_damaged(const std::vector<Finding>& findings);

#endif
