// The two store files: read, searched, changed and saved together.
#ifndef ZENTRAVA_TOOLS_STORE_FILE_H
#define ZENTRAVA_TOOLS_STORE_FILE_H

#include "failure.h"

#include <libxml/tree.h>

#include <stdint.h>

#include <functional>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

// In the order in which the library looks a key up.
enum FileKind { PRIVATE_FILE, PUBLIC_FILE };
static const FileKind FILE_KINDS[] = {PRIVATE_FILE, PUBLIC_FILE};

// "private" or "public", and the name of the file.
const char* kind_name(FileKind kind);
const char* file_name(FileKind kind);

struct StoreFile {
    bool is_present;
    std::string content; // as it was read
    xmlDocPtr document;
    bool is_changed;
    std::unordered_map<std::string, xmlNodePtr> index; // the first record of each UID and key name
};

struct Store {
    StoreFile files[2]; // by FileKind
    uint32_t largest_handle;
    bool is_indexed;
};

enum Access { TO_READ, TO_CHANGE };

// Reads both files of the working directory and does the work. If the store is to be changed, the
// lock between processes is held meanwhile, and after success the files that the work changed are
// saved: both or none. One of the files may be missing; one that is not well-formed is refused.
std::optional<Failure> with_store(Access access,
                                  const std::function<std::optional<Failure>(Store*)>& work);

// All that can be read from a descriptor; false, with errno set, on an error.
bool read_descriptor(int fd, std::string* content);

// Writes all of it and brings it to the disk; false, with errno set, on an error.
bool write_descriptor(int fd, const std::string& content);

// Parses a store file's content; the caller is inside libxml2 (libxml2_guard.h).
std::optional<Failure> read_document(const std::string& name, const std::string& content,
                                     xmlDocPtr* document);

// ---- Records

// A record as the library finds it. The texts are those of its first elements of these names, empty
// where there is none; they point into the document.
struct Record {
    FileKind file;
    xmlNodePtr node;
    int line;
    const char* uid;
    const char* key_name;
    const char* handle;
    const char* key;
    const char* metadata;
};

// The bytes that the library counts for a record's key text.
size_t key_length_of(const Record& record);

// All records that the library's search visits, in its order.
std::vector<Record> records_of(const Store& store);

// Which record a command is about: by UID and key name, or by handle; in both files or in one.
struct Selection {
    std::string uid;
    std::string key_name;
    std::string handle; // if not empty, it decides alone
    std::optional<FileKind> file;
};

// The record that is selected: in each file the first one, as for the library. Refused if both
// files have one, since the library's functions differ in which of them they take.
std::optional<Failure> select_record(const Store& store, const Selection& selection,
                                     Record* record);

// ---- Changes

struct NewKey {
    FileKind file;
    std::string uid;
    std::string key_name;
    std::string key;                     // hexadecimal
    std::optional<std::string> metadata; // a replacement without it keeps the record's
};

// Whether the library's adders would take such a key, and its driver would load it.
std::optional<Failure> check_new_key(const NewKey& key);

enum Existing { KEEP_EXISTING, REPLACE_EXISTING };

// Adds a checked key under a new handle, or replaces the one of the same UID and name in this file.
std::optional<Failure> put_key(Store* store, const NewKey& key, Existing existing, bool* replaced,
                               Record* record);

std::optional<Failure> rename_record(Store* store, const std::string& name, Record* record);

void delete_record(Store* store, const Record& record);

#endif
