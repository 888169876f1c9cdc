// Store files as a plain reader sees them: records in the order of the search, and the rules by
// which the store finds them. libxml2 parses; everything behind that is independent of the store.
#pragma once

#include "key_text.h"

#include <libxml/parser.h>
#include <libxml/tree.h>

#include <stdlib.h>
#include <string.h>

#include <fstream>
#include <iterator>
#include <optional>

inline const char* const PRIVATE_FILE = "key_contents_prv.xml";
inline const char* const PUBLIC_FILE = "key_contents_pub.xml";

struct Child {
    std::string name;
    std::string text;
    bool is_element;
    bool has_others; // than text
    bool has_nodes;  // of any kind

    bool operator==(const Child& other) const
    {
        return name == other.name && text == other.text && is_element == other.is_element &&
               has_others == other.has_others && has_nodes == other.has_nodes;
    }
};

struct Record {
    std::vector<Child> children;
    bool is_below_root; // directly: the scan for the largest handle sees no others

    bool operator==(const Record& other) const
    {
        return children == other.children && is_below_root == other.is_below_root;
    }
};
using Records = std::vector<Record>;

struct StoreFile {
    bool is_readable;
    bool root_is_record; // which takes no further records
    bool is_plain;       // no document type, other encoding or namespace: a save is never refused
    Records records;
    std::string content;
};

// ---- Reading

inline std::string string_of(const xmlChar* text)
{
    return text != nullptr ? reinterpret_cast<const char*>(text) : "";
}

inline const xmlNode* first_node(const xmlNode* node)
{
    return node->type == XML_ENTITY_REF_NODE ? nullptr : node->children;
}

inline bool is_character_data(const xmlNode* node)
{
    return node->type == XML_TEXT_NODE || node->type == XML_CDATA_SECTION_NODE;
}

inline Child child_of(const xmlNode* node)
{
    Child child = {string_of(node->name), "", node->type == XML_ELEMENT_NODE, false, false};
    const xmlNode* first = first_node(node);
    if (first != nullptr && is_character_data(first)) {
        child.text = string_of(first->content);
    }
    for (const xmlNode* inner = first; inner != nullptr; inner = inner->next) {
        child.has_others = child.has_others || !is_character_data(inner);
        child.has_nodes = true;
    }
    return child;
}

inline Record record_of(const xmlNode* node, const xmlNode* root)
{
    Record record = {{}, node->parent == root};
    for (const xmlNode* inner = node->children; inner != nullptr; inner = inner->next) {
        if (!is_character_data(inner) && inner->type != XML_COMMENT_NODE) {
            record.children.push_back(child_of(inner));
        }
    }
    return record;
}

inline void add_nodes(const xmlNode* node, const xmlNode* root, StoreFile* file)
{
    for (; node != nullptr; node = node->next) {
        if (node->type == XML_ELEMENT_NODE && node->nsDef != nullptr) {
            file->is_plain = false;
        }
        if (node->type == XML_ELEMENT_NODE && string_of(node->name) == "key_content") {
            file->records.push_back(record_of(node, root));
            StoreFile inside = {}; // no records, but perhaps namespaces
            inside.is_plain = true;
            add_nodes(node->children, root, &inside);
            file->is_plain = file->is_plain && inside.is_plain;
        } else {
            add_nodes(first_node(node), root, file);
        }
    }
}

inline std::string content_of(const char* name)
{
    std::ifstream file(name, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

inline StoreFile read_store_file(const char* name)
{
    StoreFile file = {};
    file.content = content_of(name);
    xmlDocPtr document = xmlReadFile(name, nullptr, XML_PARSE_NOERROR | XML_PARSE_NOWARNING);
    file.is_readable = document != nullptr;
    if (file.is_readable) {
        const xmlNode* root = xmlDocGetRootElement(document);
        const std::string encoding = string_of(document->encoding);
        file.is_plain = document->intSubset == nullptr && (encoding.empty() || encoding == "UTF-8");
        file.root_is_record = string_of(root->name) == "key_content";
        add_nodes(root, root, &file);
    }
    xmlFreeDoc(document);
    return file;
}

inline void write_store_file(const char* name, const std::string& content)
{
    std::ofstream(name, std::ios::binary | std::ios::trunc) << content;
}

// ---- Rules

inline const Child* find_child(const Record& record, const char* name)
{
    for (const Child& child : record.children) {
        if (child.name == name) {
            return &child;
        }
    }
    return nullptr;
}

inline bool has_handle(const Record& record, const std::string& handle)
{
    return std::any_of(record.children.begin(), record.children.end(), [&](const Child& child) {
        return child.name == "handle" && child.text == handle;
    });
}

// The name counts behind the UID only.
inline bool has_uid_and_name(const Record& record, const std::string& uid, const std::string& name)
{
    const auto is_uid = [&](const Child& child) {
        return child.name == "uid" && child.text == uid;
    };
    const auto is_name = [&](const Child& child) {
        return child.name == "key_name" && child.text == name;
    };
    const auto end = record.children.end();
    const auto found = std::find_if(record.children.begin(), end, is_uid);
    return found != end && std::any_of(found + 1, end, is_name);
}

inline Record* find_by_name(Records* records, const std::string& uid, const std::string& name)
{
    const auto found = std::find_if(records->begin(), records->end(), [&](const Record& record) {
        return has_uid_and_name(record, uid, name);
    });
    return found != records->end() ? &*found : nullptr;
}

inline Record* find_by_handle(Records* records, const std::string& handle)
{
    const auto found = std::find_if(records->begin(), records->end(), [&](const Record& record) {
        return has_handle(record, handle);
    });
    return found != records->end() ? &*found : nullptr;
}

// None when no "key" child holds anything.
inline std::optional<std::string> key_text_of(const Record& record)
{
    for (const Child& child : record.children) {
        if (child.name == "key" && child.has_nodes) {
            return child.text;
        }
    }
    return std::nullopt;
}

inline uint32_t largest_handle(const Records& records)
{
    uint32_t largest = 0;
    for (const Record& record : records) {
        for (const Child& child : record.children) {
            if (record.is_below_root && child.name == "handle") {
                largest = std::max(largest,
                                   static_cast<uint32_t>(strtol(child.text.c_str(), nullptr, 10)));
            }
        }
    }
    return largest;
}

// One more than the largest, as a signed number.
inline std::string handle_after(uint32_t largest)
{
    return std::to_string(static_cast<int32_t>(largest + 1));
}

// ---- Changes

inline void set_child_text(Child* child, const std::string& text)
{
    child->text = text;
    child->has_nodes = !text.empty() || child->has_others;
}

inline Child new_child(const std::string& name, const std::string& text)
{
    return {name, text, true, false, !text.empty()};
}

// Metadata that is null or empty is left out.
inline Record new_record(const std::string& uid, const std::string& name, const std::string& handle,
                         const std::string& key, const char* metadata)
{
    Record record = {{new_child("uid", uid), new_child("key_name", name),
                      new_child("handle", handle), new_child("key", key)},
                     true};
    if (metadata != nullptr && metadata[0] != '\0') {
        record.children.push_back(new_child("metadata", metadata));
    }
    return record;
}

// Sets the text of all elements of this name; false when there is none.
inline bool set_texts(Record* record, const char* name, const std::string& text)
{
    bool is_there = false;
    for (Child& child : record->children) {
        if (child.is_element && child.name == name) {
            set_child_text(&child, text);
            is_there = true;
        }
    }
    return is_there;
}

inline void replace_key(Record* record, const std::string& key, const char* metadata)
{
    const bool has_key = set_texts(record, "key", key);
    const bool has_metadata = metadata != nullptr && set_texts(record, "metadata", metadata);
    if (!has_key) {
        record->children.push_back(new_child("key", key));
    }
    if (metadata != nullptr && metadata[0] != '\0' && !has_metadata) {
        record->children.push_back(new_child("metadata", metadata));
    }
}

// ---- Operations
//
// What the writing operations make of a store. Each returns the result that its namesake is to have.

struct Store {
    StoreFile private_file;
    StoreFile public_file;
    Records volatile_tree;
};

namespace model {

struct KeyTexts {
    std::string uid;
    std::string name;
    std::string key;
    const char* metadata;
};

inline Store read_store()
{
    return {read_store_file(PRIVATE_FILE), read_store_file(PUBLIC_FILE), {}};
}

inline std::string next_handle(const Store& store)
{
    return handle_after(
        std::max({largest_handle(store.private_file.records),
                  largest_handle(store.public_file.records), largest_handle(store.volatile_tree)}));
}

// The text of the key that is found in one file; none if it is empty.
inline std::optional<std::string> key_text_in(StoreFile file, const std::string& uid,
                                              const std::string& name)
{
    const Record* record = find_by_name(&file.records, uid, name);
    const std::optional<std::string> text = record ? key_text_of(*record) : std::nullopt;
    return text && !text->empty() ? text : std::nullopt;
}

// The private file's key goes first.
inline std::optional<std::string> key_text_in(const Store& store, const std::string& uid,
                                              const std::string& name)
{
    const std::optional<std::string> text = key_text_in(store.private_file, uid, name);
    return text ? text : key_text_in(store.public_file, uid, name);
}

inline bool is_valid(const KeyTexts& texts)
{
    const bool is_storable = texts.metadata == nullptr || strchr(texts.metadata, '\x01') == nullptr;
    return texts.uid.size() == 32 && texts.key.size() == 64 && is_storable;
}

// A replacement is reported as a failure.
inline uint32_t add_nonvolatile_based_key(Store* store, const KeyTexts& texts, bool is_private,
                                          bool allow_replace)
{
    StoreFile& file = is_private ? store->private_file : store->public_file;
    if (!file.is_readable || !is_valid(texts)) {
        return 1;
    }
    Record* record = find_by_name(&file.records, texts.uid, texts.name);
    if (record != nullptr && allow_replace) {
        replace_key(record, texts.key, texts.metadata);
    }
    if (record != nullptr || file.root_is_record) {
        return 1;
    }
    file.records.push_back(
        new_record(texts.uid, texts.name, next_handle(*store), texts.key, texts.metadata));
    return 0;
}

inline uint32_t add_volatile_based_key(Store* store, const KeyTexts& texts, size_t handle_size)
{
    const std::string handle = next_handle(*store);
    if (!is_valid(texts) || handle.size() >= handle_size ||
        find_by_name(&store->volatile_tree, texts.uid, texts.name) != nullptr) {
        return 1;
    }
    store->volatile_tree.push_back(
        new_record(texts.uid, texts.name, handle, texts.key, texts.metadata));
    return 0;
}

inline uint32_t add_volatile_key(Store* store, const std::string& key, size_t handle_size)
{
    const std::string handle = next_handle(*store);
    if (handle.size() >= handle_size) {
        return 1;
    }
    store->volatile_tree.push_back({{new_child("handle", handle), new_child("key", key)}, true});
    return 0;
}

inline void remove(Records* records, const Record* record)
{
    records->erase(records->begin() + (record - records->data()));
}

// A document keeps its root element, which is emptied only.
inline void remove(StoreFile* file, const Record* record)
{
    if (file->root_is_record) {
        file->records[0].children.clear();
    } else {
        remove(&file->records, record);
    }
}

inline uint32_t delete_key_by_handle(Store* store, const std::string& handle)
{
    if (const Record* record = find_by_handle(&store->volatile_tree, handle)) {
        remove(&store->volatile_tree, record);
        return 0;
    }
    for (StoreFile* file : {&store->public_file, &store->private_file}) {
        if (const Record* record = find_by_handle(&file->records, handle)) {
            remove(file, record);
            return 0;
        }
    }
    return 1;
}

// A volatile key is not deleted, and protects those of its name in the files.
inline uint32_t delete_key_by_key_type(Store* store, const std::string& uid,
                                       const std::string& name)
{
    if (find_by_name(&store->volatile_tree, uid, name) != nullptr) {
        return 1;
    }
    for (StoreFile* file : {&store->private_file, &store->public_file}) {
        if (const Record* record = find_by_name(&file->records, uid, name)) {
            remove(file, record);
            return 0;
        }
    }
    return 1;
}

inline uint32_t copy_private_key(Store* store, const std::string& uid, const std::string& name,
                                 const std::string& copy_name)
{
    StoreFile& file = store->private_file;
    const std::optional<std::string> key = key_text_in(file, uid, name);
    if (uid.empty() || find_by_name(&file.records, uid, copy_name) != nullptr || !key ||
        file.root_is_record) {
        return 1;
    }
    file.records.push_back(new_record(uid, copy_name, next_handle(*store), *key, nullptr));
    return 0;
}

inline uint32_t set_new_srk_key_data_for_uid(Store* store, const std::string& uid,
                                             const std::string& handle)
{
    Records& records = store->private_file.records;
    Record* srk = find_by_name(&records, uid, "srk");
    const Record* source = find_by_handle(&records, handle);
    const std::optional<std::string> key = source ? key_text_of(*source) : std::nullopt;
    if (srk == nullptr || !key) {
        return 1;
    }
    for (Child& child : srk->children) {
        if (child.is_element && child.name == "key") {
            set_child_text(&child, *key);
            return 0;
        }
    }
    return 1;
}

} // namespace model
