// The lock between processes from within: which directories it consists of, in which order.

#include "key_driver/store_lock.cpp"

#include "tests/support/deadline.h"
#include "tests/support/store_directory.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <filesystem>
#include <string>
#include <utility>
#include <vector>

namespace {

using Places = std::vector<std::pair<dev_t, ino_t>>;

class DirectoriesToLock : public StoreDirectory {
  protected:
    void TearDown() override
    {
        store_lock_give_back();
        StoreDirectory::TearDown();
    }

    static void insert(dev_t device, ino_t inode)
    {
        insert_directory({open("/dev/null", O_RDONLY | O_CLOEXEC), device, inode});
    }

    static Places places()
    {
        Places in_order;
        for (int i = 0; i < directory_count; ++i) {
            in_order.emplace_back(directories[i].device, directories[i].inode);
        }
        return in_order;
    }
};

TEST_F(DirectoriesToLock, AreInTheOrderOfTheirDevicesAndOnADeviceOfTheirInodes)
{
    insert(2, 5);
    insert(1, 9);
    insert(2, 3);
    EXPECT_EQ(places(), (Places{{1, 9}, {2, 3}, {2, 5}}));
}

TEST_F(DirectoriesToLock, AreEachThereOnce)
{
    insert(2, 5);
    insert(1, 9);
    insert(2, 5);
    insert(1, 9);
    EXPECT_EQ(places(), (Places{{1, 9}, {2, 5}}));
}

TEST_F(DirectoriesToLock, AreTheWorkingDirectoryAndThoseThatLinksLeadTo)
{
    std::filesystem::create_directory("elsewhere");
    std::filesystem::rename(PRIVATE_FILE, "elsewhere/keys.xml");
    std::filesystem::create_symlink("elsewhere/keys.xml", PRIVATE_FILE);
    const Deadline deadline(60); // a directory that is locked twice is waited for
    store_lock_take();
    EXPECT_EQ(directory_count, 2);
    EXPECT_TRUE(store_lock_is_held());
    store_lock_give_back();
    EXPECT_EQ(directory_count, 0);
    EXPECT_FALSE(store_lock_is_held());
}

} // namespace
