// Threads that use every operation of the store which takes its mutex, at the same time, on both
// files.
#include "tests/support/deadline.h"
#include "tests/support/in_memory.h"
#include "tests/support/pauses.h"
#include "tests/support/plain_records.h"
#include "tests/support/printed.h"
#include "tests/support/store_directory.h"

#include "key_driver/zentrava_key_management_utils.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <iostream>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;

const int THREADS = 8;

// The handle of a key of this file, by searching its text: a thread of the program must not be
// inside libxml2 while the store cleans up.
std::string handle_in(const char* file, const std::string& uid, const std::string& key_name)
{
    const std::string text = read_file(file);
    const std::string before =
        "<uid>" + uid + "</uid><key_name>" + key_name + "</key_name><handle>";
    const size_t found = text.find(before);
    if (found == std::string::npos) {
        return "";
    }
    const size_t begin = found + before.size();
    return text.substr(begin, text.find('<', begin) - begin);
}

// One identity, whose keys only one thread works with: it knows at any time what there is.
class Identity {
  public:
    explicit Identity(int number)
        : uid_(std::string(31, 'f') + std::to_string(number)), number_(number)
    {
    }

    const Keys& keys() const
    {
        return keys_;
    }

    int refusals() const
    {
        return refusals_;
    }

    void work(int round)
    {
        const std::string number = std::to_string(round % 5);
        add("private" + number, key(round, 1), true);
        refuse("private" + number, true);
        add("public" + number, key(round, 2), false);
        refuse("public" + number, false);
        replace("private" + number, key(round, 3), true);
        replace("public" + number, key(round, 4), false);
        copy("private" + number, "copy" + number);
        look_at("private" + number, "public" + number);
        overwrite_srk("copy" + number);
        shortcuts(round);
        delete_by_handle(PUBLIC_FILE, "public" + number);
        if (round % 2 == 0) {
            delete_by_handle(PRIVATE_FILE, "private" + number);
        } else {
            delete_by_name("private" + number);
        }
        delete_by_name("copy" + std::to_string((round + 2) % 5));
    }

    // So that there is something left to find.
    void finish()
    {
        add("left", key(0, 8), true);
        add("left behind", key(0, 9), false);
    }

    void begin()
    {
        add("srk", key(0, 0), true);
    }

  private:
    std::string key(int round, int kind) const
    {
        const std::string text =
            std::to_string(number_) + std::to_string(kind) + std::to_string(round);
        return text + std::string(64 - text.size(), 'e');
    }

    void add(const std::string& name, const std::string& key, bool is_private)
    {
        ASSERT_EQ(add_nonvolatile_based_key(uid_.c_str(), name.c_str(), key.c_str(), "metadata",
                                            is_private, false),
                  0u);
        keys_[{uid_, name}] = key;
    }

    void refuse(const std::string& name, bool is_private)
    {
        ASSERT_EQ(add_nonvolatile_based_key(uid_.c_str(), name.c_str(), key(0, 7).c_str(), nullptr,
                                            is_private, false),
                  1u);
        ++refusals_;
    }

    void replace(const std::string& name, const std::string& key, bool is_private)
    {
        ASSERT_EQ(add_nonvolatile_based_key(uid_.c_str(), name.c_str(), key.c_str(), "", is_private,
                                            true),
                  1u);
        keys_[{uid_, name}] = key;
    }

    void copy(const std::string& name, const std::string& copy_name)
    {
        ASSERT_EQ(copy_private_key(uid_.c_str(), name.c_str(), copy_name.c_str()), 0u);
        keys_[{uid_, copy_name}] = keys_[{uid_, name}];
    }

    void overwrite_srk(const std::string& name)
    {
        const std::string handle = handle_in(PRIVATE_FILE, uid_, name);
        ASSERT_EQ(set_new_srk_key_data_for_uid(uid_.c_str(), handle.c_str()), 0u);
        keys_[{uid_, "srk"}] = keys_[{uid_, name}];
    }

    void shortcuts(int round)
    {
        ASSERT_EQ(add_crk(uid_.c_str(), key(round, 5).c_str(), nullptr), 0u);
        ASSERT_EQ(add_csk(uid_.c_str(), key(round, 6).c_str(), "metadata"), 0u);
        ASSERT_TRUE(contains_crk(uid_.c_str()));
        ASSERT_TRUE(contains_csk(uid_.c_str()));
        ASSERT_EQ(delete_crk(uid_.c_str()), 0u);
        ASSERT_EQ(delete_key_by_key_type(uid_.c_str(), "tmp_client_session_key"), 0u);
        ASSERT_FALSE(contains_crk(uid_.c_str()));
        ASSERT_FALSE(contains_csk(uid_.c_str()));
    }

    void look_at(const std::string& private_name, const std::string& public_name) const
    {
        const std::string& private_key = keys_.at({uid_, private_name});
        char text[65] = "";
        uint32_t length = sizeof text;
        ASSERT_EQ(export_prv_key_in_clear_as_hex(uid_.c_str(), private_name.c_str(), text, &length),
                  0u);
        ASSERT_EQ(text, private_key);
        length = sizeof text;
        ASSERT_EQ(read_public_key_as_hex(uid_.c_str(), public_name.c_str(), text, &length), 0u);
        ASSERT_EQ(text, keys_.at({uid_, public_name}));

        uint8_t bytes[32] = {};
        uint32_t size = sizeof bytes;
        ASSERT_EQ(get_key(reinterpret_cast<const unsigned char*>(uid_.c_str()),
                          private_name.c_str(), bytes, &size),
                  0u);
        ASSERT_EQ(bytes[0], std::stoi(private_key.substr(0, 2), nullptr, 16));
        ASSERT_TRUE(contains_key(uid_.c_str(), private_name.c_str()));
        ASSERT_FALSE(contains_key(uid_.c_str(), public_name.c_str()));
        ASSERT_TRUE(_prv_keyfile_contains_key(uid_.c_str(), "srk"));
    }

    void delete_by_handle(const char* file, const std::string& name)
    {
        ASSERT_EQ(delete_key_by_handle(handle_in(file, uid_, name).c_str()), 0u);
        keys_.erase({uid_, name});
    }

    void delete_by_name(const std::string& name)
    {
        const bool is_there = keys_.erase({uid_, name}) == 1;
        ASSERT_EQ(delete_key_by_key_type(uid_.c_str(), name.c_str()), is_there ? 0u : 1u);
    }

    std::string uid_;
    int number_;
    Keys keys_; // that have to be in the store
    int refusals_ = 0;
};

class StoreThreads : public StoreInMemory {
  protected:
    // Each thread does this with an identity of its own; all of them start at the same moment.
    template <typename Work> void at_the_same_time(Work work)
    {
        std::atomic<bool> go = false;
        std::vector<std::thread> threads;
        for (Identity& identity : identities_) {
            threads.emplace_back([&] {
                while (!go) {
                    std::this_thread::yield();
                }
                work(identity);
            });
        }
        go = true;
        for (std::thread& thread : threads) {
            thread.join();
        }
    }

    std::vector<Identity> identities_ = {Identity(0), Identity(1), Identity(2), Identity(3),
                                         Identity(4), Identity(5), Identity(6), Identity(7)};
};

size_t lines_of(const std::string& text)
{
    return static_cast<size_t>(std::count(text.begin(), text.end(), '\n'));
}

TEST_F(StoreThreads, LoseAndDoubleNoKeyInEveryMixOfOperations)
{
    const Deadline deadline(60);
    const auto end = std::chrono::steady_clock::now() + 3s;
    std::atomic<int> rounds = 0;
    const std::string printed = printed_by([&] {
        at_the_same_time([&](Identity& identity) {
            identity.begin();
            for (int round = 0; std::chrono::steady_clock::now() < end && !HasFailure(); ++round) {
                identity.work(round);
                ++rounds;
            }
            identity.finish();
        });
    });
    std::cout << rounds << " rounds of 22 operations\n";
    EXPECT_GE(rounds, THREADS);

    Keys expected;
    size_t refusals = 0;
    for (const Identity& identity : identities_) {
        expected.insert(identity.keys().begin(), identity.keys().end());
        refusals += static_cast<size_t>(identity.refusals());
    }
    EXPECT_EQ(distinct_keys_of_store(), expected);
    // Nothing was said but the reasons of the refusals.
    EXPECT_EQ(lines_of(printed), refusals) << printed;
}

// The first operations of a program look for the volatile tree, which is not there yet.
TEST_F(StoreThreads, MakeTheVolatileTreeOnce)
{
    std::atomic<int> refusals = 0;
    at_the_same_time(
        [&](Identity&) { refusals += delete_key_by_key_type(DEVICE_UID, "missing") == 1 ? 1 : 0; });
    EXPECT_EQ(refusals, THREADS);
}

} // namespace
