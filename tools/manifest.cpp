#include "manifest.h"

#include <nlohmann/json.hpp>

#include <iterator>

// The names of an entry's parts, as columns and as members.
struct Part {
    const char* name;
    std::string ManifestEntry::*text;
    bool is_required;
};
static const Part PARTS[] = {
    {"uid", &ManifestEntry::uid, true},
    {"key_name", &ManifestEntry::key_name, true},
    {"key", &ManifestEntry::key, true},
    {"file", &ManifestEntry::file, false},
    {"metadata", &ManifestEntry::metadata, false},
};

static const Part* part_named(const std::string& name)
{
    for (const Part& part : PARTS) {
        if (name == part.name) {
            return &part;
        }
    }
    return NULL;
}

static Failure refused(const std::string& name, int line, const std::string& cause,
                       const std::string& remedy)
{
    return {REFUSED, name, line, cause, remedy};
}

// ---------------------------------------------------------------------------------------------
// CSV
// ---------------------------------------------------------------------------------------------

struct CsvReader {
    const std::string& name;
    const std::string& content;
    size_t position;
    int line;
};

struct CsvRow {
    int line; // where it begins
    std::vector<std::string> fields;
};

static bool is_at_end(const CsvReader& reader)
{
    return reader.position >= reader.content.size();
}

static char take(CsvReader* reader)
{
    const char character = reader->content[reader->position++];
    reader->line += character == '\n' ? 1 : 0;
    return character;
}

static bool take_if(CsvReader* reader, char wanted)
{
    const bool is_there = !is_at_end(*reader) && reader->content[reader->position] == wanted;
    if (is_there) {
        take(reader);
    }
    return is_there;
}

// The opening quotation mark is taken already. Two of them stand for one.
static std::optional<Failure> read_quoted(CsvReader* reader, std::string* field)
{
    const int first_line = reader->line;
    while (!is_at_end(*reader)) {
        const char character = take(reader);
        if (character == '"' && !take_if(reader, '"')) {
            return std::nullopt;
        }
        *field += character;
    }
    return refused(reader->name, first_line, "a quotation mark is opened and not closed",
                   "close it, and write each one inside a field twice");
}

static std::optional<Failure> read_field(CsvReader* reader, std::string* field)
{
    if (take_if(reader, '"')) {
        return read_quoted(reader, field);
    }
    const size_t end = std::min(reader->content.find_first_of(",\"\r\n", reader->position),
                                reader->content.size());
    *field = reader->content.substr(reader->position, end - reader->position);
    reader->position = end;
    return std::nullopt;
}

// A row ends with its line, or with the content.
static bool take_row_end(CsvReader* reader)
{
    if (take_if(reader, '\r')) {
        return take_if(reader, '\n');
    }
    return is_at_end(*reader) || take_if(reader, '\n');
}

static std::optional<Failure> read_row(CsvReader* reader, CsvRow* row)
{
    row->line = reader->line;
    row->fields.clear();
    do {
        row->fields.emplace_back();
        if (std::optional<Failure> failure = read_field(reader, &row->fields.back())) {
            return failure;
        }
    } while (take_if(reader, ','));
    if (!take_row_end(reader)) {
        return refused(reader->name, reader->line, "a field goes on behind its quotation marks",
                       "put the whole field into quotation marks");
    }
    return std::nullopt;
}

static std::optional<Failure> find_columns(const std::string& name, const CsvRow& heading,
                                           std::vector<const Part*>* columns)
{
    for (const std::string& title : heading.fields) {
        const Part* part = part_named(title);
        if (part == NULL || std::find(columns->begin(), columns->end(), part) != columns->end()) {
            return refused(name, heading.line,
                           part == NULL ? "there is no column named " + title
                                        : "the column " + title + " is there twice",
                           "name the columns uid, key_name, key, file, metadata in the first line");
        }
        columns->push_back(part);
    }
    for (const Part& part : PARTS) {
        if (part.is_required &&
            std::find(columns->begin(), columns->end(), &part) == columns->end()) {
            return refused(name, heading.line,
                           std::string("the column ") + part.name + " is missing",
                           "name the columns uid, key_name, key, file, metadata in the first line");
        }
    }
    return std::nullopt;
}

static bool is_blank(const CsvRow& row)
{
    return row.fields.size() == 1 && row.fields[0].empty();
}

static std::optional<Failure> add_entry(const std::string& name,
                                        const std::vector<const Part*>& columns, CsvRow* row,
                                        std::vector<ManifestEntry>* entries)
{
    if (row->fields.size() != columns.size()) {
        return refused(name, row->line,
                       "has " + std::to_string(row->fields.size()) + " fields instead of " +
                           std::to_string(columns.size()),
                       "give one field for each column, in quotation marks if it has a comma");
    }
    ManifestEntry entry = {};
    entry.line = row->line;
    for (size_t i = 0; i < columns.size(); ++i) {
        entry.*columns[i]->text = std::move(row->fields[i]);
    }
    entries->push_back(std::move(entry));
    return std::nullopt;
}

std::optional<Failure> read_csv_manifest(const std::string& name, const std::string& content,
                                         std::vector<ManifestEntry>* entries)
{
    static const char BYTE_ORDER_MARK[] = "\xEF\xBB\xBF"; // which spreadsheets begin with
    CsvReader reader = {name, content, content.rfind(BYTE_ORDER_MARK, 0) == 0 ? 3U : 0U, 1};
    CsvRow row = {};
    std::vector<const Part*> columns;
    if (std::optional<Failure> failure = read_row(&reader, &row)) {
        return failure;
    }
    if (std::optional<Failure> failure = find_columns(name, row, &columns)) {
        return failure;
    }
    while (!is_at_end(reader)) {
        if (std::optional<Failure> failure = read_row(&reader, &row)) {
            return failure;
        }
        if (is_blank(row)) {
            continue;
        }
        if (std::optional<Failure> failure = add_entry(name, columns, &row, entries)) {
            return failure;
        }
    }
    return std::nullopt;
}

// ---------------------------------------------------------------------------------------------
// JSON
// ---------------------------------------------------------------------------------------------

// The JSON reader tells no lines, so the characters that it takes are counted on their way.
struct CountedCharacters {
    using iterator_category = std::input_iterator_tag;
    using value_type = char;
    using difference_type = std::ptrdiff_t;
    using pointer = const char*;
    using reference = const char&;

    const char* position;
    int* line;

    reference operator*() const
    {
        return *position;
    }
    CountedCharacters& operator++()
    {
        *line += *position == '\n' ? 1 : 0;
        ++position;
        return *this;
    }
    bool operator==(const CountedCharacters& other) const
    {
        return position == other.position;
    }
    bool operator!=(const CountedCharacters& other) const
    {
        return position != other.position;
    }
};

// What the JSON reader calls for each thing that it meets. False ends the reading.
struct JsonEvents {
    const std::string& name;
    const int& line;
    std::vector<ManifestEntry>* entries;
    int depth; // 1: inside the array, 2: inside an object of it
    const Part* part;
    std::optional<Failure> failure;

    bool refuse(const std::string& cause, const std::string& remedy)
    {
        failure = refused(name, line, cause, remedy);
        return false;
    }
    bool refuse_shape()
    {
        return refuse("is not an array of objects whose members are strings",
                      "write [{\"uid\": \"...\", \"key_name\": \"...\", \"key\": \"...\"}, ...]");
    }
    bool start_array(size_t)
    {
        return depth++ == 0 ? true : refuse_shape();
    }
    bool end_array()
    {
        --depth;
        return true;
    }
    bool start_object(size_t)
    {
        entries->push_back({});
        entries->back().line = line;
        return depth++ == 1 ? true : refuse_shape();
    }
    bool end_object()
    {
        --depth;
        for (const Part& required : PARTS) {
            if (required.is_required && (entries->back().*required.text).empty()) {
                return refuse(std::string("the object has no ") + required.name,
                              "give each object uid, key_name and key");
            }
        }
        return true;
    }
    bool key(std::string& member)
    {
        part = part_named(member);
        return part != NULL ? true
                            : refuse("there is no member named " + member,
                                     "name the members uid, key_name, key, file, metadata");
    }
    bool string(std::string& text)
    {
        if (depth != 2) {
            return refuse_shape();
        }
        entries->back().*part->text = text;
        return true;
    }
    bool null()
    {
        return refuse_shape();
    }
    bool boolean(bool)
    {
        return refuse_shape();
    }
    bool number_integer(int64_t)
    {
        return refuse_shape();
    }
    bool number_unsigned(uint64_t)
    {
        return refuse_shape();
    }
    bool number_float(double, const std::string&)
    {
        return refuse_shape();
    }
    bool binary(std::vector<uint8_t>&)
    {
        return refuse_shape();
    }
    // The reader's own words quote what it read, which can be a key.
    bool parse_error(size_t, const std::string&, const nlohmann::json::exception&)
    {
        return refuse("is not well-formed JSON", "mend it there, or say --format csv");
    }
};

std::optional<Failure> read_json_manifest(const std::string& name, const std::string& content,
                                          std::vector<ManifestEntry>* entries)
{
    int line = 1;
    JsonEvents events = {name, line, entries, 0, NULL, std::nullopt};
    nlohmann::json::sax_parse(CountedCharacters{content.data(), &line},
                              CountedCharacters{content.data() + content.size(), &line}, &events);
    return events.failure;
}
