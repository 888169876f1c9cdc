// Records as the tool shows them, to people and to programs.
#ifndef ZENTRAVA_TOOLS_RECORD_OUTPUT_H
#define ZENTRAVA_TOOLS_RECORD_OUTPUT_H

#include "store_file.h"

#include <nlohmann/json.hpp>

#include <string>
#include <vector>

// Everything but the key itself.
nlohmann::ordered_json json_of(const Record& record);

void print_json(const nlohmann::ordered_json& value);

void print_records(const std::vector<Record>& records);

// "handle 7, private, 32 bytes: srk of UID 0123...", for the line that reports a change.
std::string words_for(const Record& record);

#endif
