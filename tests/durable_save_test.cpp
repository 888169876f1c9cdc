// Saving under attack: at each call that an operation makes of the operating system, the process is
// killed, or the call fails. The store then holds the old content or the new one, to the byte.
#include "tests/support/child_process.h"
#include "tests/support/in_memory.h"
#include "tests/support/pauses.h"
#include "tests/support/printed.h"
#include "tests/support/store_directory.h"
#include "tests/support/system_calls.h"
#include "tests/support/writing_operations.h"
#include "tests/support/xml_document.h"

#include <gtest/gtest.h>

#include <errno.h>
#include <libxml/parser.h>
#include <libxml/xmlIO.h>
#include <string.h>

#include <algorithm>
#include <filesystem>
#include <iostream>
#include <set>
#include <string>
#include <vector>

namespace {

using Names = std::set<std::string>;

Names files()
{
    Names names;
    for (const auto& entry : std::filesystem::directory_iterator(".")) {
        names.insert(entry.path().filename());
    }
    return names;
}

const Names STORE_FILES = {PRIVATE_FILE, PUBLIC_FILE};

std::ptrdiff_t open_files()
{
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

// The number of records in a text that has to be a document.
size_t records_in(const std::string& text)
{
    const Document document = parsed(text);
    EXPECT_NE(document, nullptr);
    size_t records = 0;
    const xmlNode* node = document != nullptr ? root_of(document)->children : nullptr;
    for (; node != nullptr; node = node->next) {
        records += chars(node->name) == "key_content" ? 1 : 0;
    }
    return records;
}

// An operation that nobody disturbs: what it does, and what it leaves.
struct Undisturbed {
    SystemCalls calls;
    uint32_t result;
    std::string printed;
    unsigned int paused; // seconds
    std::string old_content;
    std::string new_content;
};

// How a save replaces the file.
enum class Way { BY_RENAMING, IN_PLACE };

// Which of the two contents a file holds.
std::string content_of(const char* file, const Undisturbed& undisturbed)
{
    const std::string content = read_file(file);
    if (content == undisturbed.old_content) {
        return "old";
    }
    return content == undisturbed.new_content
               ? "new"
               : "damaged: " + std::to_string(content.size()) + " bytes ending in " +
                     testing::PrintToString(content.substr(content.size() * 49 / 50));
}

class DurableSave : public StoreInMemory {
  protected:
    void SetUp() override
    {
        StoreInMemory::SetUp();
        store_.put_in_place();
    }

    void TearDown() override
    {
        accept_system_calls();
        after_each_system_call({});
        StoreInMemory::TearDown();
    }

    Undisturbed run_undisturbed(const WritingOperation& operation, Scope scope)
    {
        store_.put_in_place();
        Undisturbed run;
        seconds_paused = 0;
        run.old_content = read_file(operation.file);
        run.printed = printed_by(
            [&] { run.calls = system_calls_of([&] { run.result = operation.run(); }, scope); });
        run.paused = seconds_paused;
        run.new_content = read_file(operation.file);
        EXPECT_EQ(run.result, operation.result);
        EXPECT_NE(run.new_content, run.old_content);
        EXPECT_GE(records_in(run.new_content) + 1, records_in(run.old_content));
        EXPECT_EQ(files(), STORE_FILES);
        return run;
    }

    // The process is killed at each call in turn; afterwards another one saves.
    size_t kill_at_each_call(const WritingOperation& operation, Meddling when);
    // Each call of the save fails in turn. Counts the points, and at how many of them the save
    // failed.
    void fail_each_call(const WritingOperation& operation, Meddling how, int error, Way way);
    void fail_one_call(const WritingOperation& operation, const Undisturbed& undisturbed,
                       const Interference& interference, Way way);

    void expect_old_or_new(const WritingOperation& operation, const Undisturbed& undisturbed);
    void expect_that_the_next_save_clears_up(const WritingOperation& operation);

    FilledStore store_;
    size_t points_ = 0;
    size_t failed_saves_ = 0;
};

void DurableSave::expect_old_or_new(const WritingOperation& operation,
                                    const Undisturbed& undisturbed)
{
    const std::string content = content_of(operation.file, undisturbed);
    EXPECT_TRUE(content == "old" || content == "new") << content;
    EXPECT_NE(parsed(read_file(operation.file)), nullptr);
    EXPECT_TRUE(read_file(other_file(operation.file)) ==
                store_.content(other_file(operation.file)));
}

void DurableSave::expect_that_the_next_save_clears_up(const WritingOperation& operation)
{
    const size_t records = records_in(read_file(operation.file));
    EXPECT_EQ(add_nonvolatile_based_key(DEVICE_UID, "next", NEW_KEY.c_str(), nullptr,
                                        operation.file == std::string(PRIVATE_FILE), false),
              0u);
    EXPECT_EQ(records_in(read_file(operation.file)), records + 1);
    EXPECT_EQ(files(), STORE_FILES);
}

size_t DurableSave::kill_at_each_call(const WritingOperation& operation, Meddling when)
{
    const Undisturbed undisturbed = run_undisturbed(operation, Scope::EVERYTHING);
    bool saw_old = false;
    bool saw_new = false;
    size_t point = 1;
    for (; !HasFailure(); ++point) {
        SCOPED_TRACE(operation.sentence + ", killed at call " + std::to_string(point));
        store_.put_in_place();
        const Ending ending = run_in_child([&] {
            system_calls_of(operation.run, Scope::EVERYTHING, {point, when, 0});
            return 0;
        });
        if (!ending.killed) {
            EXPECT_EQ(ending.code, 0);
            break;
        }
        expect_old_or_new(operation, undisturbed);
        (content_of(operation.file, undisturbed) == "old" ? saw_old : saw_new) = true;
        expect_that_the_next_save_clears_up(operation);
    }
    EXPECT_EQ(point - 1, undisturbed.calls.size()) << operation.sentence;
    EXPECT_TRUE(saw_old && saw_new) << operation.sentence;
    return point - 1;
}

// Whether a save may succeed although this call failed: nothing that matters hangs on it.
bool may_go_unnoticed(const SystemCall& call)
{
    const bool of_the_sibling = call.is(call.name, ".saving");
    return call.name == "unlink" || call.name == "lstat" || call.name == "fremovexattr" ||
           call.is("open", ".") || (call.name == "close" && !of_the_sibling);
}

void DurableSave::fail_one_call(const WritingOperation& operation, const Undisturbed& undisturbed,
                                const Interference& interference, Way way)
{
    store_.put_in_place();
    const std::ptrdiff_t files_open_before = open_files();
    uint32_t result = 99;
    seconds_paused = 0;
    const std::string printed = printed_by(
        [&] { system_calls_of([&] { result = operation.run(); }, Scope::SAVES, interference); });
    ++points_;
    EXPECT_EQ(seconds_paused, undisturbed.paused); // whether the save succeeded or not
    expect_old_or_new(operation, undisturbed);
    EXPECT_EQ(open_files(), files_open_before);
    const SystemCall& call = undisturbed.calls[interference.at - 1];
    if (way == Way::IN_PLACE && call.name == "unlink") {
        // The sibling was in the way already, and could not be taken away again.
        std::filesystem::remove(std::string(operation.file) + ".saving");
    }
    EXPECT_EQ(files(), STORE_FILES);

    if (printed == undisturbed.printed) {
        EXPECT_EQ(result, operation.result);
        EXPECT_EQ(content_of(operation.file, undisturbed), "new");
        const bool has_to_be_noticed =
            interference.meddling == Meddling::FAIL &&
            (interference.error == ENOSPC || interference.error == EIO) &&
            !(way == Way::IN_PLACE && call.name == "rename");
        EXPECT_TRUE(!has_to_be_noticed || may_go_unnoticed(call));
        return;
    }
    ++failed_saves_;
    EXPECT_EQ(printed, undisturbed.printed + operation.complaint());
    EXPECT_EQ(result, 1u);
    const bool only_the_directory_was_not_flushed = call.is("fsync", directory_.filename());
    EXPECT_EQ(content_of(operation.file, undisturbed),
              only_the_directory_was_not_flushed ? "new" : "old");
    const bool comes_short = interference.meddling == Meddling::HALF;
    EXPECT_TRUE(!comes_short || call.name == "fallocate") << "writing was not gone on with";
}

void DurableSave::fail_each_call(const WritingOperation& operation, Meddling how, int error,
                                 Way way)
{
    const Undisturbed undisturbed = run_undisturbed(operation, Scope::SAVES);
    for (size_t point = 1; point <= undisturbed.calls.size(); ++point) {
        const SystemCall& call = undisturbed.calls[point - 1];
        if (how == Meddling::FAIL || call.writes()) {
            SCOPED_TRACE(operation.sentence + ", call " + std::to_string(point) + ": " +
                         call.text());
            fail_one_call(operation, undisturbed, {point, how, error}, way);
        }
    }
}

// Where in a list of calls one of this name and file stands; the last one if there are several.
size_t place_of(const SystemCalls& calls, const std::string& name, const std::string& end_of_path)
{
    for (size_t i = calls.size(); i > 0; --i) {
        if (calls[i - 1].is(name, end_of_path)) {
            return i;
        }
    }
    ADD_FAILURE() << "no " << name << " of " << end_of_path;
    return 0;
}

TEST_F(DurableSave, FlushesTheSiblingThenRenamesItThenFlushesTheDirectory)
{
    for (const WritingOperation& operation : writing_operations()) {
        SCOPED_TRACE(operation.sentence);
        const SystemCalls calls = run_undisturbed(operation, Scope::SAVES).calls;
        const std::string sibling = std::string(operation.file) + ".saving";
        const size_t write = place_of(calls, "write", sibling);
        const size_t flush = place_of(calls, "fsync", sibling);
        const size_t rename = place_of(calls, "rename", operation.file);
        const size_t flush_directory = place_of(calls, "fsync", directory_.filename());
        EXPECT_LT(write, flush);
        EXPECT_LT(flush, rename);
        EXPECT_LT(rename, flush_directory);
    }
}

TEST_F(DurableSave, NeitherTruncatesNorWritesTheStoreFileItself)
{
    for (const WritingOperation& operation : writing_operations()) {
        SCOPED_TRACE(operation.sentence);
        for (const SystemCall& call : run_undisturbed(operation, Scope::SAVES).calls) {
            EXPECT_FALSE((call.writes() || call.name == "ftruncate") &&
                         call.is(call.name, operation.file))
                << call.text();
        }
    }
}

// Without it, the renaming could be undone by a power cut after the operation has reported success.
TEST_F(DurableSave, DoesNotSucceedWithoutTheFlushOfTheDirectory)
{
    const WritingOperation operation = writing_operations().front();
    const Undisturbed undisturbed = run_undisturbed(operation, Scope::SAVES);
    const size_t opening = place_of(undisturbed.calls, "open", ".");
    for (const int error : {EMFILE, ENFILE, ENOMEM, EIO}) {
        SCOPED_TRACE(strerror(error));
        store_.put_in_place();
        uint32_t result = 99;
        EXPECT_EQ(printed_by([&] {
                      system_calls_of([&] { result = operation.run(); }, Scope::SAVES,
                                      {opening, Meddling::FAIL, error});
                  }),
                  operation.complaint());
        EXPECT_EQ(result, 1u);
        EXPECT_EQ(content_of(operation.file, undisturbed), "old");
        EXPECT_EQ(files(), STORE_FILES);
    }
}

TEST_F(DurableSave, SucceedsWhereTheDirectoryMayNotBeReadAndSoCannotBeFlushed)
{
    const WritingOperation operation = writing_operations().front();
    const Undisturbed undisturbed = run_undisturbed(operation, Scope::SAVES);
    const size_t opening = place_of(undisturbed.calls, "open", ".");
    store_.put_in_place();
    system_calls_of([&] { EXPECT_EQ(operation.run(), operation.result); }, Scope::SAVES,
                    {opening, Meddling::FAIL, EACCES});
    EXPECT_EQ(content_of(operation.file, undisturbed), "new");
}

TEST_F(DurableSave, SucceedsWhereTheFileSystemDoesNotFlushDirectories)
{
    const WritingOperation operation = writing_operations().front();
    const Undisturbed undisturbed = run_undisturbed(operation, Scope::SAVES);
    const size_t flush = place_of(undisturbed.calls, "fsync", directory_.filename());
    store_.put_in_place();
    system_calls_of([&] { EXPECT_EQ(operation.run(), operation.result); }, Scope::SAVES,
                    {flush, Meddling::FAIL, EINVAL});
    EXPECT_EQ(content_of(operation.file, undisturbed), "new");
}

TEST_F(DurableSave, HoldsTheOldOrTheNewContentWhenKilledBeforeAnyCall)
{
    size_t points = 0;
    for (const WritingOperation& operation : writing_operations()) {
        points += kill_at_each_call(operation, Meddling::KILL_BEFORE);
    }
    EXPECT_GE(points, 20 * writing_operations().size());
    std::cout << points << " points, in " << writing_operations().size() << " operations\n";
}

TEST_F(DurableSave, HoldsTheOldOrTheNewContentWhenKilledAfterAnyCall)
{
    size_t points = 0;
    for (const WritingOperation& operation : writing_operations()) {
        points += kill_at_each_call(operation, Meddling::KILL_AFTER);
    }
    EXPECT_GE(points, 20 * writing_operations().size());
    std::cout << points << " points, in " << writing_operations().size() << " operations\n";
}

// A document of many blocks reaches the disk in many writes, and libxml2 goes on after one that
// failed in the middle.
TEST_F(DurableSave, NoticesAWriteThatFailsInTheMiddleOfALargeFile)
{
    store_ = FilledStore(2000);
    const WritingOperation operation = writing_operations().front();
    const Undisturbed undisturbed = run_undisturbed(operation, Scope::SAVES);
    for (size_t point = 1; point <= undisturbed.calls.size(); ++point) {
        if (undisturbed.calls[point - 1].name == "write") {
            SCOPED_TRACE(undisturbed.calls[point - 1].text() + ", call " + std::to_string(point));
            fail_one_call(operation, undisturbed, {point, Meddling::FAIL, EIO}, Way::BY_RENAMING);
        }
    }
    EXPECT_GE(points_, 10u);
    EXPECT_EQ(failed_saves_, points_);
}

// Not even with zeros at its end.
TEST_F(DurableSave, InPlaceLeavesAFileAsItIsThatCannotBeWritten)
{
    const WritingOperation operation = writing_operations().front();
    refuse_system_calls("rename", EBUSY); // as over a mount point
    refuse_system_calls("pwrite", EIO);
    EXPECT_EQ(printed_by([&] { system_calls_of(operation.run, Scope::SAVES); }),
              operation.complaint());
    EXPECT_EQ(read_file(operation.file), store_.content(operation.file));
}

TEST_F(DurableSave, InPlaceSucceedsWhereTheFileSystemReservesNoSpace)
{
    const WritingOperation operation = writing_operations().front();
    const Undisturbed undisturbed = run_undisturbed(operation, Scope::SAVES);
    refuse_system_calls("rename", EBUSY);
    refuse_system_calls("fallocate", EOPNOTSUPP);
    for (const int error : {0, ENOSPC}) {
        store_.put_in_place();
        if (error != 0) {
            refuse_system_calls("posix_fallocate", error);
        }
        printed_by([&] { system_calls_of(operation.run, Scope::SAVES); });
        EXPECT_EQ(content_of(operation.file, undisturbed), error == 0 ? "new" : "old");
    }
}

// As at the end of a file that has become shorter meanwhile.
TEST_F(DurableSave, InPlaceGivesUpWhereNothingIsReadOrWrittenAnyMore)
{
    refuse_system_calls("rename", EBUSY); // as over a mount point
    const WritingOperation operation = writing_operations().front();
    const Undisturbed undisturbed = run_undisturbed(operation, Scope::SAVES);
    for (const char* name : {"pread", "pwrite"}) {
        SCOPED_TRACE(name);
        const size_t point = place_of(undisturbed.calls, name, operation.file);
        fail_one_call(operation, undisturbed, {point, Meddling::NOTHING, 0}, Way::IN_PLACE);
    }
    EXPECT_EQ(failed_saves_, 2u);
}

// A warning of libxml2's is none that a save has to fail for. Here it comes from somebody else's way
// to write files, which libxml2 asks first.
TEST_F(DurableSave, SucceedsInSpiteOfAWarning)
{
    static bool was_asked = false;
    xmlInitParser(); // which has ways of its own, to be asked later
    xmlRegisterOutputCallbacks(
        [](const char*) {
            was_asked = true;
            xmlFreeDoc(parsed("<keys xmlns='relative'/>").release());
            EXPECT_NE(xmlGetLastError(), nullptr);
            return 0; // not for us
        },
        nullptr, nullptr, nullptr);
    const WritingOperation operation = writing_operations().front();
    EXPECT_EQ(operation.run(), operation.result);
    EXPECT_TRUE(was_asked);
    EXPECT_NE(read_file(operation.file), store_.content(operation.file));
}

struct Failure {
    std::string name;
    Meddling meddling;
    int error;
};

std::ostream& operator<<(std::ostream& stream, const Failure& failure)
{
    return stream << failure.name;
}

const Failure FAILURES[] = {
    {"NoSpace", Meddling::FAIL, ENOSPC},
    {"InputOutputError", Meddling::FAIL, EIO},
    {"Interrupted", Meddling::FAIL, EINTR},
    {"NotPermitted", Meddling::FAIL, EPERM},
    {"ShortWrite", Meddling::HALF, ENOSPC},
    {"ShortWriteThenNoSpace", Meddling::HALF_THEN_FAIL, ENOSPC},
    {"ShortWriteThenInputOutputError", Meddling::HALF_THEN_FAIL, EIO},
};

class DurableSaveWithFailure : public DurableSave, public testing::WithParamInterface<Failure> {
  protected:
    void expect_old_or_new_whichever_call_fails(Way way)
    {
        const std::vector<WritingOperation> operations = writing_operations();
        for (const WritingOperation& operation : operations) {
            fail_each_call(operation, GetParam().meddling, GetParam().error, way);
        }
        std::cout << points_ << " points, " << failed_saves_ << " of them failed saves\n";
        EXPECT_GE(points_, GetParam().meddling == Meddling::FAIL ? 15 * operations.size()
                                                                 : 2 * operations.size());
    }
};

INSTANTIATE_TEST_SUITE_P(Each, DurableSaveWithFailure, testing::ValuesIn(FAILURES),
                         [](const auto& failure) { return failure.param.name; });

TEST_P(DurableSaveWithFailure, LeavesTheOldFileAndNoSiblingOrTheNewFile)
{
    expect_old_or_new_whichever_call_fails(Way::BY_RENAMING);
}

TEST_P(DurableSaveWithFailure, LeavesTheOldFileOrTheNewOneWhenItOverwritesInPlace)
{
    refuse_system_calls("rename", EBUSY); // as over a mount point
    expect_old_or_new_whichever_call_fails(Way::IN_PLACE);
}

} // namespace
