// Saving where space runs out: a file system that is full, and a limit on the size of files.
#include "tests/support/child_process.h"
#include "tests/support/pauses.h"
#include "tests/support/printed.h"
#include "tests/support/private_mounts.h"
#include "tests/support/store_directory.h"
#include "tests/support/writing_operations.h"
#include "tests/support/xml_document.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <set>
#include <string>

namespace {

const size_t PAGE = 4096;
const uid_t OWNER = 61001;
const gid_t GROUP = 62001;

// A small file system in memory that has no room left but some pages.
class FullDisk : public StoreDirectory {
  protected:
    void SetUp() override
    {
        StoreDirectory::SetUp();
        std::filesystem::create_directory("disk");
        disk_path_ = directory_ / "disk";
        disk_ = std::make_unique<Mount>("none", disk_path_.c_str(), "tmpfs", 0,
                                        "size=128k,nr_inodes=16,mode=0755");
        if (!disk_->is_there()) {
            GTEST_SKIP() << "mounting is not permitted here";
        }
        ASSERT_EQ(chdir("disk"), 0);
    }

    void TearDown() override
    {
        ASSERT_EQ(chdir("/"), 0);
        disk_.reset();
        StoreDirectory::TearDown();
    }

    // Puts the store in place and fills the rest of the disk up to so many pages.
    void leave_free(size_t pages)
    {
        std::filesystem::remove("filler");
        store_.put_in_place();
        const int fd = open("filler", O_WRONLY | O_CREAT, 0600);
        const std::string page(PAGE, '.');
        off_t size = 0;
        while (write(fd, page.data(), PAGE) == static_cast<ssize_t>(PAGE)) {
            size += static_cast<off_t>(PAGE);
        }
        ASSERT_GT(size, static_cast<off_t>(pages * PAGE));
        ASSERT_EQ(ftruncate(fd, size - static_cast<off_t>(pages * PAGE)), 0);
        close(fd);
    }

    // The operation's outcome, which has to fit what is in the file afterwards. True when it saved.
    bool saves(const WritingOperation& operation)
    {
        uint32_t result = 99;
        const std::string printed = printed_by([&] { result = operation.run(); });
        const bool complained = printed.find(operation.complaint()) != std::string::npos;
        const bool is_old = read_file(operation.file) == store_.content(operation.file);
        EXPECT_EQ(complained, is_old);
        EXPECT_EQ(result, complained ? 1u : operation.result);
        EXPECT_NE(parsed(read_file(operation.file)), nullptr);
        EXPECT_TRUE(read_file(other_file(operation.file)) ==
                    store_.content(other_file(operation.file)));
        EXPECT_FALSE(std::filesystem::exists(std::string(operation.file) + ".saving"));
        return !complained;
    }

    FilledStore store_;
    std::filesystem::path disk_path_;
    std::unique_ptr<Mount> disk_;
};

TEST_F(FullDisk, KeepsTheOldFileUntilThereIsRoomForTheNewOne)
{
    for (const WritingOperation& operation : writing_operations()) {
        for (size_t pages = 0; pages < 3; ++pages) {
            SCOPED_TRACE(operation.sentence + ", " + std::to_string(pages) + " pages free");
            leave_free(pages);
            EXPECT_FALSE(saves(operation));
        }
        leave_free(5);
        EXPECT_TRUE(saves(operation)) << operation.sentence;
    }
}

TEST_F(FullDisk, KeepsTheOldFileWhereThereIsNoRoomForOneFileMore)
{
    store_.put_in_place();
    for (int i = 0; i < 16; ++i) {
        write_file("filler" + std::to_string(i), "");
    }
    for (const WritingOperation& operation : writing_operations()) {
        SCOPED_TRACE(operation.sentence);
        EXPECT_FALSE(saves(operation));
    }
}

// In place there is no second file, but a longer one may not fit.
TEST_F(FullDisk, KeepsTheOldFileWhereALongerOneDoesNotFitInItsPlace)
{
    const std::string metadata(3 * PAGE, 'm');
    for (const size_t pages : {0u, 1u, 2u, 4u}) {
        SCOPED_TRACE(std::to_string(pages) + " pages free");
        leave_free(pages);
        ASSERT_EQ(chown(PRIVATE_FILE, OWNER, GROUP), 0);
        const Ending ending = run_as(OWNER, GROUP, [&] {
            return add_nonvolatile_based_key(DEVICE_UID, "new", NEW_KEY.c_str(), metadata.c_str(),
                                             true, false);
        });
        if (pages == 4) {
            EXPECT_EQ(ending.code, 0);
            EXPECT_NE(read_file(PRIVATE_FILE).find(metadata), std::string::npos);
            EXPECT_NE(parsed(read_file(PRIVATE_FILE)), nullptr);
        } else {
            EXPECT_EQ(ending.code, 1);
            EXPECT_EQ(ending.printed, "[add_nonvolatile_based_key] error: could not save file "
                                      "key_contents_prv.xml\n");
            EXPECT_TRUE(read_file(PRIVATE_FILE) == store_.private_content);
        }
    }
}

// A limit on the size of files stops a write midway, with an error or with a signal.
class FileSizeLimit : public StoreDirectory, public testing::WithParamInterface<bool> {
  protected:
    Ending run_limited(const WritingOperation& operation, rlim_t limit)
    {
        return run_in_child([&] {
            if (GetParam()) {
                signal(SIGXFSZ, SIG_IGN);
            }
            const rlimit both = {limit, limit};
            setrlimit(RLIMIT_FSIZE, &both);
            return operation.run();
        });
    }

    FilledStore store_;
};

INSTANTIATE_TEST_SUITE_P(SignalIgnored, FileSizeLimit, testing::Bool());

TEST_P(FileSizeLimit, LeavesTheOldFile)
{
    for (const WritingOperation& operation : writing_operations()) {
        for (const rlim_t limit : {0u, 1u, 4095u, 4096u, 5000u, 8192u, 12288u, 13000u}) {
            SCOPED_TRACE(operation.sentence + ", limit " + std::to_string(limit));
            store_.put_in_place();
            const Ending ending = run_limited(operation, limit);
            EXPECT_TRUE(read_file(operation.file) == store_.content(operation.file));
            if (GetParam()) {
                EXPECT_EQ(ending.code, 1);
                EXPECT_NE(ending.printed.find(operation.complaint()), std::string::npos)
                    << ending.printed;
                EXPECT_FALSE(std::filesystem::exists(std::string(operation.file) + ".saving"));
            }
        }
    }
}

} // namespace
