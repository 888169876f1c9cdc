// show: one record.

#include "commands.h"
#include "record_output.h"
#include "text_output.h"

#include <string.h>

static void show_as_json(const Record& record, bool reveal)
{
    nlohmann::ordered_json value = json_of(record);
    if (reveal) {
        value["key"] = record.key;
    }
    print_json({{"command", "show"}, {"key", value}});
}

static void show_line(const char* what, const std::string& text)
{
    printf("%s %s\n", styled(what, HEADING, stdout).c_str(), text.c_str());
}

// Free text can be long; the lines behind the first stand below it.
static void show_metadata(const std::string& metadata)
{
    const char* what = "metadata:";
    for (const std::string& line : wrapped(metadata, output_width() - strlen("metadata: "))) {
        show_line(what, line);
        what = "         ";
    }
}

static void show_as_text(const Record& record, bool reveal)
{
    show_line("file:    ", std::string(kind_name(record.file)) + " (" + file_name(record.file) +
                               ", line " + std::to_string(record.line) + ")");
    show_line("handle:  ", printable(record.handle));
    show_line("UID:     ", printable(record.uid));
    show_line("name:    ", printable(record.key_name));
    show_line("bytes:   ", std::to_string(key_length_of(record)));
    show_metadata(printable(record.metadata));
    show_line("key:     ", reveal ? printable(record.key) : "hidden (--reveal shows it)");
}

std::optional<Failure> run_show(const Common& common, const ShowOptions& options)
{
    return with_store(TO_READ, [&](Store* store) -> std::optional<Failure> {
        Record record = {};
        if (std::optional<Failure> failure = select_record(*store, options.selection, &record)) {
            return failure;
        }
        if (common.json) {
            show_as_json(record, options.reveal);
        } else {
            show_as_text(record, options.reveal);
        }
        return std::nullopt;
    });
}
