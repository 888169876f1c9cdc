// Files that the user names, "-" for standard input or output, and keys that are read from them.
#ifndef ZENTRAVA_TOOLS_USER_FILE_H
#define ZENTRAVA_TOOLS_USER_FILE_H

#include "commands.h"

#include <sys/types.h>

// How a file is called in messages.
std::string name_in_messages(const std::string& name);

// Reads all of a file. What is typed on a terminal is not shown there.
std::optional<Failure> read_user_file(const Common& common, const std::string& name,
                                      std::string* content);

// Makes a file; one that is there already is not overwritten.
std::optional<Failure> write_user_file(const Common& common, const std::string& name,
                                       const std::string& content, mode_t mode);

void remove_user_file(const Common& common, const std::string& name);

// ---- Keys

std::string hexadecimal(const uint8_t* bytes, size_t size);

// The bytes of a key of checked hexadecimal text; `bytes` takes half as many as the text is long.
void bytes_of_hexadecimal(const std::string& text, uint8_t* bytes);

bool is_hexadecimal(const std::string& text);

// The key that a file holds, as hexadecimal text: the file's own, without white space, or that of
// its bytes.
std::optional<Failure> read_key(const Common& common, const std::string& name, bool is_raw,
                                std::string* key);

#endif
