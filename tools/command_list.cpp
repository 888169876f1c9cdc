// list: the records as a table.

#include "commands.h"
#include "record_output.h"

#include <fnmatch.h>

static bool matches(const std::string& pattern, const char* text)
{
    return pattern.empty() || fnmatch(pattern.c_str(), text, 0) == 0;
}

static bool is_wanted(const Record& record, const ListOptions& options)
{
    return options.file.value_or(record.file) == record.file &&
           matches(options.uid_pattern, record.uid) &&
           matches(options.name_pattern, record.key_name);
}

static void print_list(const Common& common, const std::vector<Record>& records)
{
    if (!common.json) {
        print_records(records);
        return;
    }
    nlohmann::ordered_json keys = nlohmann::ordered_json::array();
    for (const Record& record : records) {
        keys.push_back(json_of(record));
    }
    print_json({{"command", "list"}, {"keys", keys}});
}

std::optional<Failure> run_list(const Common& common, const ListOptions& options)
{
    return with_store(TO_READ, [&](Store* store) -> std::optional<Failure> {
        std::vector<Record> wanted;
        for (const Record& record : records_of(*store)) {
            if (is_wanted(record, options)) {
                wanted.push_back(record);
            }
        }
        print_list(common, wanted);
        return std::nullopt;
    });
}
