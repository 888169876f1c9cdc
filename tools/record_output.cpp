#include "record_output.h"

#include "text_output.h"

#include <stdio.h>

nlohmann::ordered_json json_of(const Record& record)
{
    return {{"file", kind_name(record.file)},
            {"handle", record.handle},
            {"uid", record.uid},
            {"key_name", record.key_name},
            {"key_length", key_length_of(record)},
            {"metadata", record.metadata}};
}

void print_json(const nlohmann::ordered_json& value)
{
    printf("%s\n", value.dump(2).c_str());
}

void print_records(const std::vector<Record>& records)
{
    std::vector<Row> rows;
    rows.reserve(records.size());
    for (const Record& record : records) {
        rows.push_back({{kind_name(record.file), printable(record.handle), printable(record.uid),
                         printable(record.key_name), std::to_string(key_length_of(record))},
                        printable(record.metadata)});
    }
    print_table({"FILE", "HANDLE", "UID", "NAME", "BYTES", "METADATA"}, rows);
}

std::string words_for(const Record& record)
{
    return "handle " + printable(record.handle) + ", " + kind_name(record.file) + ", " +
           std::to_string(key_length_of(record)) + " bytes: " + printable(record.key_name) +
           " of UID " + printable(record.uid);
}
