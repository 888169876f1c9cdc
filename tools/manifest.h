// Manifests: lists of keys to provision, as CSV or JSON.
#ifndef ZENTRAVA_TOOLS_MANIFEST_H
#define ZENTRAVA_TOOLS_MANIFEST_H

#include "failure.h"

#include <optional>
#include <string>
#include <vector>

// One key, as it is written in the manifest: nothing is checked yet. Empty texts are missing ones.
struct ManifestEntry {
    int line;
    std::string uid;
    std::string key_name;
    std::string file;
    std::string key;
    std::string metadata;
};

// CSV as in RFC 4180, with a first line that names the columns: uid, key_name and key, and if
// wanted file and metadata, in any order. `name` is the manifest's in messages.
std::optional<Failure> read_csv_manifest(const std::string& name, const std::string& content,
                                         std::vector<ManifestEntry>* entries);

// An array of objects with members of the same names; all values are strings.
std::optional<Failure> read_json_manifest(const std::string& name, const std::string& content,
                                          std::vector<ManifestEntry>* entries);

#endif
