// A working directory of its own for each test, and the means to put store files into it.
#pragma once

#include "tests/support/read_file.h"

#include <gtest/gtest.h>

#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

inline const char* const PRIVATE_FILE = "key_contents_prv.xml";
inline const char* const PUBLIC_FILE = "key_contents_pub.xml";
inline const char* const DEVICE_UID = "0123456789abcdef0123456789abcdef";

// One record as the store writes it; an empty metadata text leaves that element out.
inline std::string record(const std::string& uid, const std::string& key_name,
                          const std::string& handle, const std::string& key,
                          const std::string& metadata = "")
{
    return "<key_content><uid>" + uid + "</uid><key_name>" + key_name + "</key_name><handle>" +
           handle + "</handle><key>" + key + "</key>" +
           (metadata.empty() ? "" : "<metadata>" + metadata + "</metadata>") + "</key_content>\n";
}

inline void write_file(const std::string& name, const std::string& content)
{
    std::ofstream(name, std::ios::binary | std::ios::trunc) << content;
}

inline void write_store_file(const std::string& name, const std::string& records)
{
    write_file(name, "<?xml version=\"1.0\"?>\n<keys>\n" + records + "</keys>\n");
}

// Each test starts in an empty directory with two store files that hold no records.
class StoreDirectory : public testing::Test {
  protected:
    void SetUp() override
    {
        std::string pattern = std::filesystem::temp_directory_path() / "zentrava_test_XXXXXX";
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        directory_ = pattern;
        ASSERT_EQ(chdir(directory_.c_str()), 0);
        write_store_file(PRIVATE_FILE, "");
        write_store_file(PUBLIC_FILE, "");
    }

    void TearDown() override
    {
        ASSERT_EQ(chdir("/"), 0);
        std::filesystem::remove_all(directory_);
    }

    std::filesystem::path directory_;
};
