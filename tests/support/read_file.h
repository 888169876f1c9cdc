// What a file holds. One that cannot be read holds nothing.
#pragma once

#include <fstream>
#include <sstream>
#include <string>

// By the stream buffer as a whole: byte for byte through iterators takes long in a test that is
// compiled without optimisation, and some tests read a file thousands of times.
inline std::string read_file(const std::string& name)
{
    std::ostringstream content;
    content << std::ifstream(name, std::ios::binary).rdbuf();
    return content.str();
}
