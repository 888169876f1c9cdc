// Eight threads that use the library at the same time, each with contexts of its own for a UID of
// its own. Every result code, tag and key is compared with what it has to be.
#pragma once

#include "tests/support/key_user.h"
#include "tests/support/printed.h"
#include "tests/support/store_directory.h"

#include <gtest/gtest.h>

#include <stddef.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

class ThreadsAtWork : public StoreDirectory {
  protected:
    void SetUp() override
    {
        StoreDirectory::SetUp();
        std::string private_records;
        std::string public_records;
        for (int i = 0; i < 8; ++i) {
            users_.emplace_back(std::string(31, 'e') + std::to_string(i));
            private_records += users_.back().private_records();
            public_records += users_.back().public_records();
        }
        write_store_file(PRIVATE_FILE, private_records);
        write_store_file(PUBLIC_FILE, public_records);
    }

    // Lets the threads work for this long. The store has nothing to complain about.
    void work_for(std::chrono::seconds duration)
    {
        const auto end = std::chrono::steady_clock::now() + duration;
        EXPECT_EQ(printed_by([&] { work_until(end); }), "");
    }

  private:
    using Time = std::chrono::steady_clock::time_point;

    void work_until(Time end)
    {
        std::vector<std::thread> threads;
        for (size_t i = 0; i < users_.size(); ++i) {
            threads.emplace_back([this, end, i] { work(i, end); });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
    }

    // Some of the threads look handles up as well, which takes another way through the store.
    void work(size_t number, Time end)
    {
        const KeyUser& user = users_[number];
        for (size_t round = number; !HasFailure(); ++round) {
            use_keys(user, round);
            if (number % 2 == 0) {
                expect_handle(user, "srk", "1" + user.uid, "root of " + user.uid);
                expect_handle(user, "ECDSA_DS_PuK", "5" + user.uid, "point of " + user.uid);
            }
            if (std::chrono::steady_clock::now() >= end) {
                break;
            }
        }
    }

    std::vector<KeyUser> users_;
};
