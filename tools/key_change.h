// What the commands that change one key have in common: where it goes, and how the change is told.
#ifndef ZENTRAVA_TOOLS_KEY_CHANGE_H
#define ZENTRAVA_TOOLS_KEY_CHANGE_H

#include "commands.h"

#include <nlohmann/json.hpp>

#include <stdint.h>

#include <optional>
#include <string>

// The file for a key of this name, if the user names none: a verification key is public.
FileKind usual_file_of(const std::string& key_name);

// The name of a key, or of the key of a KTS slot if there is one.
std::optional<Failure> name_with_slot(const std::string& key_name,
                                      const std::optional<uint32_t>& slot, std::string* name);

// A changed record, in words that outlive the store.
struct Change {
    bool replaced;
    std::string words;
    nlohmann::ordered_json record;
};

Change describe(const Record& record, bool replaced);

// put_key of a checked key, described.
std::optional<Failure> put_and_describe(Store* store, const NewKey& key, Existing existing,
                                        Change* change);

// Tells on `stream` what became of a command; as JSON on standard output, with what is in `more`
// beside it.
void print_change(const Common& common, const char* command, const Change& change,
                  FILE* stream = stdout,
                  const nlohmann::ordered_json& more = nlohmann::ordered_json::object());

#endif
