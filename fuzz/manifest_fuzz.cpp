// The readers of manifests: whatever they accept reads the same when it is written anew, JSON means
// what a reader of whole documents makes of it, and lines are lines of the manifest.

#include "target.h"

#include "tools/manifest.h"

#include <nlohmann/json.hpp>

#include <set>

using nlohmann::json;
using Entries = std::vector<ManifestEntry>;

namespace {

const std::string NAME = "manifest";

std::vector<std::string> texts_of(const ManifestEntry& entry)
{
    return {entry.uid, entry.key_name, entry.file, entry.key, entry.metadata};
}

void demand_same(const Entries& a, const Entries& b, const char* rule)
{
    demand(std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [](const ManifestEntry& left, const ManifestEntry& right) {
                          return texts_of(left) == texts_of(right);
                      }),
           rule);
}

void check_lines(const Entries& entries, const std::optional<Failure>& failure,
                 const std::string& content)
{
    const long last = 1 + std::count(content.begin(), content.end(), '\n');
    int line = 1;
    for (const ManifestEntry& entry : entries) {
        demand(entry.line >= line && entry.line <= last, "entries follow one another");
        line = entry.line;
    }
    if (failure) {
        demand(failure->line >= line && failure->line <= last, "a failure has a line");
        demand(!failure->cause.empty() && !failure->remedy.empty(), "a failure is explained");
    }
}

// ---- CSV

std::string quoted(const std::string& field)
{
    std::string text = "\"";
    for (const char character : field) {
        text += character == '"' ? "\"\"" : std::string(1, character);
    }
    return text + "\"";
}

std::string csv_of(const Entries& entries)
{
    std::string content = "uid,key_name,file,key,metadata\r\n";
    for (const ManifestEntry& entry : entries) {
        for (const std::string& text : texts_of(entry)) {
            content += quoted(text) + ",";
        }
        content.back() = '\n';
    }
    return content;
}

void check_csv(const std::string& content)
{
    Entries entries;
    const std::optional<Failure> failure = read_csv_manifest(NAME, content, &entries);
    check_lines(entries, failure, content);
    if (failure) {
        return;
    }
    Entries read_anew;
    demand(!read_csv_manifest(NAME, csv_of(entries), &read_anew),
           "what was accepted is accepted again");
    demand_same(entries, read_anew, "CSV reads the same");
}

// ---- JSON

std::string text_of(const json& object, const char* member)
{
    return object.contains(member) ? object.at(member).get<std::string>() : "";
}

bool is_entry(const json& object)
{
    static const std::set<std::string> MEMBERS = {"uid", "key_name", "key", "file", "metadata"};
    if (!object.is_object()) {
        return false;
    }
    for (const auto& [name, value] : object.items()) {
        if (MEMBERS.count(name) == 0 || !value.is_string()) {
            return false;
        }
    }
    return !text_of(object, "uid").empty() && !text_of(object, "key_name").empty() &&
           !text_of(object, "key").empty();
}

size_t member_count(const json& array)
{
    size_t count = 0;
    for (const json& object : array) {
        count += object.size();
    }
    return count;
}

void check_json(const std::string& content)
{
    Entries entries;
    const std::optional<Failure> failure = read_json_manifest(NAME, content, &entries);
    check_lines(entries, failure, content);

    size_t names = 0;
    const json document = json::parse(
        content,
        [&](int, json::parse_event_t event, json&) {
            names += event == json::parse_event_t::key ? 1 : 0;
            return true;
        },
        false);
    const bool is_manifest =
        document.is_array() && std::all_of(document.begin(), document.end(), is_entry);
    demand(failure || is_manifest, "only a manifest is accepted");
    if (!is_manifest) {
        return;
    }
    // Of a member that is there twice the document shows the last value only.
    demand(!failure || names > member_count(document), "each manifest is accepted");
    if (failure) {
        return;
    }
    Entries expected;
    for (const json& object : document) {
        expected.push_back({0, text_of(object, "uid"), text_of(object, "key_name"),
                            text_of(object, "file"), text_of(object, "key"),
                            text_of(object, "metadata")});
    }
    demand_same(entries, expected, "JSON means what it says");
}

// ---- Any texts

// Up to a NUL, which is dropped.
std::string take_up_to_nul(Input* input)
{
    std::string text;
    while (const uint8_t byte = take_byte(input)) {
        text += static_cast<char>(byte);
    }
    return text;
}

Entries take_entries(Input* input)
{
    Entries entries;
    while (input->left > 0) {
        entries.push_back({});
        for (auto text : {&ManifestEntry::uid, &ManifestEntry::key_name, &ManifestEntry::file,
                          &ManifestEntry::key, &ManifestEntry::metadata}) {
            entries.back().*text = take_up_to_nul(input);
        }
    }
    return entries;
}

// Whatever texts there are, what is written as CSV is read.
void check_texts(const Entries& entries)
{
    Entries read;
    demand(!read_csv_manifest(NAME, csv_of(entries), &read), "CSV can hold every text");
    demand_same(entries, read, "and holds it as it is");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    Input input = {data, size};
    switch (take_byte(&input)) { // in front of a readable file
    case 'c':
        check_csv(take_text(&input));
        break;
    case 't':
        check_texts(take_entries(&input));
        break;
    default:
        check_json(take_text(&input));
    }
    return 0;
}
