// What an XML reader that has nothing to do with libxml2 makes of a store file: Python's, which is
// built on Expat. It runs on this machine, whatever processor the tests were built for.
//
// A program that uses this is built with support/xml_reader.cpp.
#pragma once

#include <string>
#include <utility>
#include <vector>

struct XmlElement {
    int depth; // the root's is 0
    std::string name;
    std::string text; // up to the first element inside; comments do not count
};

// All elements in document order. A file that is not well-formed has none, and fails the test.
std::vector<XmlElement> elements_of(const std::string& file_name);

// Whether the file is well-formed.
bool is_well_formed(const std::string& file_name);

// Names and texts of a record's children.
using Children = std::vector<std::pair<std::string, std::string>>;

// The records of a file at any depth, in document order.
std::vector<Children> records_of(const std::string& file_name);
