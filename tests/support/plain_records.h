// What store files hold, read by libxml2 alone: for files that have no records but directly below
// the root.
#pragma once

#include "tests/support/store_directory.h"
#include "tests/support/xml_document.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

struct PlainRecord {
    std::string uid;
    std::string key_name;
    std::string handle;
    std::string key;
};
using PlainRecords = std::vector<PlainRecord>;

inline PlainRecords plain_records_of(const std::string& file)
{
    PlainRecords records;
    const Document document = parsed(read_file(file));
    EXPECT_NE(document, nullptr) << file << " does not parse";
    const xmlNode* node = document != nullptr ? root_of(document)->children : nullptr;
    for (; node != nullptr; node = node->next) {
        std::map<std::string, std::string> texts;
        for (const xmlNode* child = node->children; child != nullptr; child = child->next) {
            texts[chars(child->name)] =
                child->children != nullptr ? chars(child->children->content) : "";
        }
        if (node->type == XML_ELEMENT_NODE) {
            records.push_back({texts["uid"], texts["key_name"], texts["handle"], texts["key"]});
        }
    }
    return records;
}

// The keys of both files, by UID and name. A name that is there twice fails the test, and so does a
// handle.
using Keys = std::map<std::pair<std::string, std::string>, std::string>;

inline Keys distinct_keys_of_store()
{
    Keys keys;
    std::vector<std::string> handles;
    for (const char* file : {PRIVATE_FILE, PUBLIC_FILE}) {
        for (const PlainRecord& record : plain_records_of(file)) {
            EXPECT_TRUE(keys.insert({{record.uid, record.key_name}, record.key}).second)
                << record.key_name << " is there twice";
            handles.push_back(record.handle);
        }
    }
    std::sort(handles.begin(), handles.end());
    EXPECT_EQ(std::adjacent_find(handles.begin(), handles.end()), handles.end())
        << "a handle was given out twice";
    return keys;
}
