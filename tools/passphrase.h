// Passphrases of encrypted key files.
#ifndef ZENTRAVA_TOOLS_PASSPHRASE_H
#define ZENTRAVA_TOOLS_PASSPHRASE_H

#include "commands.h"

#include <optional>
#include <string>

// The first line of a file that the user names, without its end.
std::optional<Failure> read_passphrase(const Common& common, const std::string& file_name,
                                       std::string* passphrase);

// Asks on the terminal that the process belongs to, whatever its standard streams are, without
// showing what is typed. Refused where there is none.
std::optional<Failure> ask_for_passphrase(const std::string& key_file, std::string* passphrase);

#endif
