// The volatile tree, seen from inside the store's unit. Include this after the unit.
#pragma once

#include "tests/support/xml_reader.h"

#include <gtest/gtest.h>

#include <libxml/tree.h>

#include <vector>

// Names and texts of each record's children.
inline std::vector<Children> volatile_records()
{
    std::vector<Children> records;
    const xmlNode* first = tmpTree_rootNode != nullptr ? tmpTree_rootNode->children : nullptr;
    for (const xmlNode* record = first; record != nullptr; record = record->next) {
        EXPECT_STREQ(as_chars(record->name), "key_content");
        records.emplace_back();
        for (xmlNode* child = record->children; child != nullptr; child = child->next) {
            xmlChar* text = xmlNodeGetContent(child);
            records.back().emplace_back(as_chars(child->name), as_chars(text));
            xmlFree(text);
        }
    }
    return records;
}

inline void empty_volatile_tree()
{
    xmlFreeNode(tmpTree_rootNode);
    tmpTree_rootNode = nullptr;
}
