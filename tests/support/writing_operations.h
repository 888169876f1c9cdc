// The operations that write a store file, each on a store in which it has something to do.
#pragma once

#include "key_driver/zentrava_key_management_utils.h"
#include "tests/support/store_directory.h"

#include <stdint.h>

#include <functional>
#include <string>
#include <vector>

inline const std::string NEW_KEY(64, 'd');

// A store whose files take several blocks of the disk each. The declaration is not as the library
// writes it, so that a file that was saved unchanged differs as well.
struct FilledStore {
    explicit FilledStore(int records = 60)
        : private_content(filled("private", records, 1)),
          public_content(filled("public", records, records + 41))
    {
    }

    static std::string filled(const std::string& kind, int records, int first_handle)
    {
        std::string text = "<?xml version='1.0'?>\n<keys>\n";
        for (int i = 0; i < records; ++i) {
            const std::string number = std::to_string(i);
            text += record(DEVICE_UID, kind + number, std::to_string(first_handle + i),
                           std::string(64, static_cast<char>('0' + i % 10)), "metadata " + number);
        }
        return text +
               record(DEVICE_UID, kind == "private" ? "srk" : "common", "90" + kind, NEW_KEY) +
               "</keys>\n";
    }

    std::string private_content;
    std::string public_content;

    const std::string& content(const std::string& file) const
    {
        return file == PRIVATE_FILE ? private_content : public_content;
    }

    void put_in_place() const
    {
        write_file(PRIVATE_FILE, private_content);
        write_file(PUBLIC_FILE, public_content);
    }
};

struct WritingOperation {
    std::string sentence;
    std::function<uint32_t()> run;
    uint32_t result; // of an operation that could save
    const char* file;
    std::string tag; // of the message when it could not

    std::string complaint() const
    {
        return "[" + tag + "] error: could not save file " + file + "\n";
    }
};

inline std::vector<WritingOperation> writing_operations()
{
    const auto add = [](const char* name, bool is_private, bool allow_replace) {
        return [=] {
            return add_nonvolatile_based_key(DEVICE_UID, name, NEW_KEY.c_str(), "new & <metadata>",
                                             is_private, allow_replace);
        };
    };
    const std::string adder = "add_nonvolatile_based_key";
    return {
        {"add to the private file", add("new", true, false), 0, PRIVATE_FILE, adder},
        {"add to the public file", add("new", false, false), 0, PUBLIC_FILE, adder},
        {"add a crk", [] { return add_crk(DEVICE_UID, NEW_KEY.c_str(), nullptr); }, 0, PRIVATE_FILE,
         adder},
        {"add a csk", [] { return add_csk(DEVICE_UID, NEW_KEY.c_str(), "csk"); }, 0, PRIVATE_FILE,
         adder},
        {"refuse a duplicate in the private file", add("private7", true, false), 1, PRIVATE_FILE,
         adder},
        {"refuse a duplicate in the public file", add("public7", false, false), 1, PUBLIC_FILE,
         adder},
        {"replace in the private file", add("private7", true, true), 1, PRIVATE_FILE, adder},
        {"replace in the public file", add("public7", false, true), 1, PUBLIC_FILE, adder},
        {"delete from the public file by handle", [] { return delete_key_by_handle("107"); }, 0,
         PUBLIC_FILE, "delete_key_by_handle"},
        {"delete from the private file by handle", [] { return delete_key_by_handle("7"); }, 0,
         PRIVATE_FILE, "delete_key_by_handle"},
        {"delete from the private file by name",
         [] { return delete_key_by_key_type(DEVICE_UID, "private7"); }, 0, PRIVATE_FILE,
         "delete_key_by_key_type"},
        {"delete from the public file by name",
         [] { return delete_key_by_key_type(DEVICE_UID, "public7"); }, 0, PUBLIC_FILE,
         "delete_key_by_key_type"},
        {"copy", [] { return copy_private_key(DEVICE_UID, "private7", "copy"); }, 0, PRIVATE_FILE,
         "copy_prv_key"},
        {"copy a key that is not there",
         [] { return copy_private_key(DEVICE_UID, "missing", "copy"); }, 1, PRIVATE_FILE,
         "copy_prv_key"},
        {"overwrite the srk", [] { return set_new_srk_key_data_for_uid(DEVICE_UID, "7"); }, 0,
         PRIVATE_FILE, "key_driver.set_new_srk_key_data_for_uid"},
    };
}

// What a store file of two that an operation does not write holds.
inline const char* other_file(const std::string& file)
{
    return file == PRIVATE_FILE ? PUBLIC_FILE : PRIVATE_FILE;
}
