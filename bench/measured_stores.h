// Key stores of known sizes to measure on, and the key store's operations on their last records.
#pragma once

#include <stdint.h>

#include <filesystem>
#include <string>
#include <vector>

inline const char* const PRIVATE_FILE = "key_contents_prv.xml";
inline const char* const PUBLIC_FILE = "key_contents_pub.xml";

// Of every record.
inline const char* const DEVICE_UID = "0123456789abcdef0123456789abcdef";
inline const std::string KEY_TEXT(64, 'a');

// A directory for the stores to lie in, in memory if possible: what a disk takes is not the
// library's doing. Empty when there is none to be had.
std::filesystem::path make_store_directory();

// Writes both files, with so many records each, into a directory and makes it the working directory.
void enter_store(const std::filesystem::path& directory, int records);

// An operation of the key store and what its libxml2 work costs by itself. Both get the name of the
// last record, so that the search passes all others; both tell whether they succeeded.
struct MeasuredOperation {
    const char* name;
    bool writes;
    bool (*run)(const char* last_name);
    bool (*floor)(const char* last_name);
};

// In these the floor is reading the files, walking to the last record, saving, and freeing, as often
// as the operation does each.
extern const std::vector<MeasuredOperation> MEASURED_OPERATIONS;
