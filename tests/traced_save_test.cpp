// Saving under attack, as the kernel sees it: at each system call of an operation that works on
// files the process is killed, and each one of a save fails.
#include "tests/support/in_memory.h"
#include "tests/support/pauses.h"
#include "tests/support/traced_child.h"
#include "tests/support/writing_operations.h"

#include "key_driver/durable_save.h"

#include <gtest/gtest.h>

#include <errno.h>
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <filesystem>
#include <iostream>
#include <set>
#include <string>
#include <vector>

bool real_durable_save(const char* file_name,
                       xmlDocPtr document) __asm__("__real__Z12durable_savePKcP7_xmlDoc");
bool marked_durable_save(const char* file_name,
                         xmlDocPtr document) __asm__("__wrap__Z12durable_savePKcP7_xmlDoc");

bool marked_durable_save(const char* file_name, xmlDocPtr document)
{
    enter_stretch();
    const bool saved = real_durable_save(file_name, document);
    leave_stretch();
    return saved;
}

namespace {

class TracedSave : public StoreInMemory {
  protected:
    void SetUp() override
    {
        StoreInMemory::SetUp();
        output_ = open("/dev/null", O_WRONLY | O_CLOEXEC);
    }

    void TearDown() override
    {
        close(output_);
        StoreInMemory::TearDown();
    }

    TracedRun run(const WritingOperation& operation, const Blow& blow = NO_BLOW)
    {
        store_.put_in_place();
        return run_traced(
            [&] {
                dup2(output_, STDOUT_FILENO);
                return static_cast<int>(operation.run());
            },
            blow);
    }

    TracedRun run_undisturbed(const WritingOperation& operation)
    {
        const TracedRun undisturbed = run(operation);
        EXPECT_EQ(undisturbed.code, static_cast<int>(operation.result));
        new_content_ = read_file(operation.file);
        EXPECT_NE(new_content_, store_.content(operation.file));
        return undisturbed;
    }

    std::string content_of(const WritingOperation& operation) const
    {
        const std::string content = read_file(operation.file);
        if (content == store_.content(operation.file)) {
            return "old";
        }
        return content == new_content_ ? "new" : "damaged: " + content;
    }

    // Whether a sibling is there.
    bool is_left_over(const WritingOperation& operation) const
    {
        return std::filesystem::exists(std::string(operation.file) + ".saving");
    }

    size_t kill_at_each_call(const WritingOperation& operation, Strike when);
    void fail_each_call(const WritingOperation& operation, Strike strike, int error);

    FilledStore store_;
    std::string new_content_;
    int output_ = -1;
    size_t points_ = 0;
    size_t failed_ = 0;
};

size_t TracedSave::kill_at_each_call(const WritingOperation& operation, Strike when)
{
    run_undisturbed(operation);
    std::set<std::string> seen;
    size_t point = 1;
    for (; !HasFailure(); ++point) {
        SCOPED_TRACE(operation.sentence + ", killed at call " + std::to_string(point));
        const TracedRun killed = run(operation, {point, when, 0});
        if (!killed.killed) {
            EXPECT_EQ(killed.calls.size(), point - 1);
            break;
        }
        const std::string content = content_of(operation);
        EXPECT_TRUE(content == "old" || content == "new") << content;
        EXPECT_EQ(read_file(other_file(operation.file)),
                  store_.content(other_file(operation.file)));
        seen.insert(content);
        add_nonvolatile_based_key(DEVICE_UID, "next", NEW_KEY.c_str(), nullptr,
                                  operation.file == std::string(PRIVATE_FILE), false);
        EXPECT_NE(read_file(operation.file).find("<key_name>next<"), std::string::npos);
        EXPECT_FALSE(is_left_over(operation));
    }
    EXPECT_EQ(seen, (std::set<std::string>{"old", "new"}));
    return point - 1;
}

void TracedSave::fail_each_call(const WritingOperation& operation, Strike strike, int error)
{
    const TracedRun undisturbed = run_undisturbed(operation);
    std::set<long> met;
    for (size_t point = 1; point <= undisturbed.calls.size(); ++point) {
        const TracedCall& call = undisturbed.calls[point - 1];
        const bool writes = call.number == SYS_write || call.number == SYS_pwrite64;
        if (!call.in_stretch || (strike == Strike::HALF && !writes)) {
            continue;
        }
        SCOPED_TRACE(operation.sentence + ", call " + std::to_string(point) + ": number " +
                     std::to_string(call.number));
        met.insert(call.number);
        ++points_;
        const TracedRun disturbed = run(operation, {point, strike, error});
        EXPECT_FALSE(is_left_over(operation));
        const std::string content = content_of(operation);
        EXPECT_TRUE(content == "old" || content == "new") << content;
        if (content == "old") {
            ++failed_;
            EXPECT_EQ(disturbed.code, 1);
        }
    }
    EXPECT_EQ(met.count(SYS_write), 1u);
    EXPECT_EQ(met.count(SYS_fsync), strike == Strike::HALF ? 0u : 1u);
}

TEST_F(TracedSave, HoldsTheOldOrTheNewContentWhenKilledAfterAnySystemCall)
{
    size_t points = 0;
    for (const WritingOperation& operation : writing_operations()) {
        points += kill_at_each_call(operation, Strike::KILL_AFTER);
    }
    std::cout << points << " points\n";
    EXPECT_GE(points, 30 * writing_operations().size());
}

TEST_F(TracedSave, HoldsTheOldOrTheNewContentWhenKilledBeforeAnySystemCall)
{
    size_t points = 0;
    for (const WritingOperation& operation : writing_operations()) {
        points += kill_at_each_call(operation, Strike::KILL_BEFORE);
    }
    std::cout << points << " points\n";
    EXPECT_GE(points, 30 * writing_operations().size());
}

TEST_F(TracedSave, HoldsTheOldOrTheNewContentWhicheverSystemCallFails)
{
    for (const int error : {ENOSPC, EIO, EINTR}) {
        for (const WritingOperation& operation : writing_operations()) {
            fail_each_call(operation, Strike::FAIL, error);
        }
    }
    std::cout << points_ << " points, " << failed_ << " of them failed saves\n";
    EXPECT_GT(failed_, 0u);
}

TEST_F(TracedSave, GoesOnWithAShortWrite)
{
    for (const WritingOperation& operation : writing_operations()) {
        fail_each_call(operation, Strike::HALF, 0);
    }
    std::cout << points_ << " points\n";
    EXPECT_EQ(failed_, 0u);
}

} // namespace
