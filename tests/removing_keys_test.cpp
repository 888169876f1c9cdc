// Removing keys by handle, and by UID and name.

#include "key_driver/zentrava_key_management_utils.cpp"

#include "tests/support/blocking_call.h"
#include "tests/support/changing_store.h"
#include "tests/support/locks_at_print.h"
#include "tests/support/xml_reader.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

namespace {

const std::string UID = DEVICE_UID;
const std::string OTHER_UID(32, 'f');
const std::string KEY(64, 'a');

const std::string BOTH_LOCKS = ", locked, locked between processes";

const FileNames NOTHING = {};
const Pauses NO_PAUSE = {};

// A declaration that libxml2 writes otherwise, so that a file that is saved unchanged differs.
const std::string AS_PREPARED = "<?xml version='1.0'?>\n<keys>\n";
const std::string AS_SAVED = "<?xml version=\"1.0\"?>\n<keys>\n";

Outcome deleted_from(const char* file_name)
{
    return {0, "", {file_name}, NO_PAUSE};
}

Outcome refused(const std::string& printed)
{
    return {1, printed, NOTHING, NO_PAUSE};
}

// The volatile handle.
std::string add_volatile(const char* key_name)
{
    char handle[16];
    EXPECT_EQ(
        add_volatile_based_key(UID.c_str(), key_name, KEY.c_str(), nullptr, handle, sizeof handle),
        0U);
    return handle;
}

std::vector<std::string> handles_in(const char* file_name)
{
    std::vector<std::string> handles;
    for (const Children& children : records_of(file_name)) {
        for (const auto& [name, text] : children) {
            if (name == "handle") {
                handles.push_back(text);
            }
        }
    }
    return handles;
}

using Handles = std::vector<std::string>;

const char* const UNREADABLE[] = {"", "no XML", "<keys>", "<keys></keyz>"};

} // namespace

// ---------------------------------------------------------------------------------------------
// By handle
// ---------------------------------------------------------------------------------------------

class DeleteKeyByHandle : public ChangingStore {
  protected:
    static Outcome remove(const std::string& handle)
    {
        return outcome_of([&] { return delete_key_by_handle(handle.c_str()); });
    }

    static std::string not_found(const std::string& handle)
    {
        return "error: can't find key with handle " + handle + "\n";
    }
};

using DeleteKeyByHandleDeathTest = DeleteKeyByHandle;

TEST_F(DeleteKeyByHandleDeathTest, AssertsThatThereIsAHandle)
{
    EXPECT_DEATH(delete_key_by_handle(nullptr),
                 ": key_driver/zentrava_key_management_utils\\.cpp:[0-9]+: "
                 ".*delete_key_by_handle.*: Assertion `handle != NULL' failed\\.");
}

// ---- The volatile tree ----

TEST_F(DeleteKeyByHandle, DeletesAVolatileKeyAndTouchesNoFile)
{
    const std::string handle = add_volatile("n");
    EXPECT_EQ(remove(handle), (Outcome{0, "", NOTHING, NO_PAUSE}));
    EXPECT_TRUE(volatile_records().empty());
}

TEST_F(DeleteKeyByHandle, DeletesOneVolatileKeyOnly)
{
    add_volatile("a");
    const std::string handle = add_volatile("b");
    add_volatile("c");
    remove(handle);
    ASSERT_EQ(volatile_records().size(), 2U);
    EXPECT_EQ(volatile_records()[0][1].second, "a");
    EXPECT_EQ(volatile_records()[1][1].second, "c");
}

TEST_F(DeleteKeyByHandle, DeletesAVolatileKeyWithoutUidAndName)
{
    char handle[16];
    ASSERT_EQ(add_volatile_key("ab", handle, sizeof handle), 0U);
    EXPECT_EQ(remove(handle).result, 0U);
    EXPECT_TRUE(volatile_records().empty());
}

TEST_F(DeleteKeyByHandle, TakesNoLockAndReadsNoFileForAVolatileKey)
{
    const Deadline deadline(60);
    const std::string handle = add_volatile("n");
    pthread_mutex_lock(&lock);
    EXPECT_EQ(steps_of([&] { return delete_key_by_handle(handle.c_str()); }), Events());
    EXPECT_TRUE(lock_is_held());
    pthread_mutex_unlock(&lock);
}

TEST_F(DeleteKeyByHandle, LooksIntoTheVolatileTreeBeforeTheFiles)
{
    const std::string handle = add_volatile("n");
    write_store_file(PUBLIC_FILE, record(UID, "a", handle, KEY));
    write_store_file(PRIVATE_FILE, record(UID, "b", handle, KEY));
    EXPECT_EQ(remove(handle), (Outcome{0, "", NOTHING, NO_PAUSE}));
    EXPECT_EQ(remove(handle), deleted_from(PUBLIC_FILE));
    EXPECT_EQ(remove(handle), deleted_from(PRIVATE_FILE));
    EXPECT_EQ(remove(handle), refused(not_found(handle)));
}

TEST_F(DeleteKeyByHandle, MakesTheVolatileRootWhenThereIsNone)
{
    remove("1");
    EXPECT_NE(tmpTree_rootNode, nullptr);
}

TEST_F(DeleteKeyByHandle, GoesOnToTheFilesWithoutAVolatileRoot)
{
    write_store_file(PUBLIC_FILE, record(UID, "a", "1", KEY));
    nodes_cannot_be_made = true;
    EXPECT_EQ(remove("1"), deleted_from(PUBLIC_FILE));
}

TEST_F(DeleteKeyByHandle, DeletesAVolatileKeyWhateverTheStateOfTheFiles)
{
    const Deadline deadline(60);
    const std::string handle = add_volatile("n");
    std::filesystem::remove(PUBLIC_FILE);
    std::filesystem::remove(PRIVATE_FILE);
    EXPECT_EQ(remove(handle), (Outcome{0, "", NOTHING, NO_PAUSE}));
}

// ---- The files ----

TEST_F(DeleteKeyByHandle, DeletesARecordOfThePublicFile)
{
    write_store_file(PUBLIC_FILE, record(UID, "n", "7", KEY));
    EXPECT_EQ(remove("7"), deleted_from(PUBLIC_FILE));
    EXPECT_EQ(handles_in(PUBLIC_FILE), Handles());
}

TEST_F(DeleteKeyByHandle, DeletesARecordOfThePrivateFile)
{
    write_store_file(PRIVATE_FILE, record(UID, "n", "7", KEY));
    EXPECT_EQ(remove("7"), deleted_from(PRIVATE_FILE));
    EXPECT_EQ(handles_in(PRIVATE_FILE), Handles());
}

TEST_F(DeleteKeyByHandle, DeletesThePublicFilesRecordOnlyWhenBothFilesHoldTheHandle)
{
    write_store_file(PUBLIC_FILE, record(UID, "a", "7", KEY));
    write_store_file(PRIVATE_FILE, record(UID, "b", "7", KEY));
    EXPECT_EQ(remove("7"), deleted_from(PUBLIC_FILE));
    EXPECT_EQ(handles_in(PRIVATE_FILE), Handles{"7"});
}

TEST_F(DeleteKeyByHandle, DeletesTheFirstRecordOnlyWhenOneFileHoldsTheHandleTwice)
{
    write_store_file(PUBLIC_FILE, "<group>" + record(UID, "a", "7", KEY) + "</group>" +
                                      record(UID, "b", "7", KEY));
    EXPECT_EQ(remove("7"), deleted_from(PUBLIC_FILE));
    ASSERT_EQ(records_of(PUBLIC_FILE).size(), 1U);
    EXPECT_EQ(records_of(PUBLIC_FILE)[0][1].second, "b");
}

TEST_F(DeleteKeyByHandle, DeletesTheRecordAndNothingElse)
{
    const std::string before = "<!-- comment -->" + record(UID, "a", "1", KEY, "m") + "<group>\n ";
    const std::string after = "\n</group>text" + record(OTHER_UID, "n", "3", KEY) + "<?pi data?>";
    write_file(PRIVATE_FILE, AS_PREPARED + before +
                                 "<key_content><uid>U</uid><handle>2</handle></key_content>" +
                                 after + "</keys>");
    EXPECT_EQ(remove("2"), deleted_from(PRIVATE_FILE));
    EXPECT_EQ(read_file(PRIVATE_FILE), AS_SAVED + before + after + "</keys>\n");
}

TEST_F(DeleteKeyByHandle, DeletesTheFirstAndTheLastRecord)
{
    write_store_file(PUBLIC_FILE, record(UID, "a", "1", KEY) + record(UID, "b", "2", KEY) +
                                      record(UID, "c", "3", KEY));
    EXPECT_EQ(remove("1"), deleted_from(PUBLIC_FILE));
    EXPECT_EQ(remove("3"), deleted_from(PUBLIC_FILE));
    EXPECT_EQ(handles_in(PUBLIC_FILE), Handles{"2"});
    EXPECT_EQ(remove("2"), deleted_from(PUBLIC_FILE));
    EXPECT_EQ(handles_in(PUBLIC_FILE), Handles());
}

TEST_F(DeleteKeyByHandle, ComparesTheTextOfTheHandleAndNotItsNumber)
{
    write_store_file(PUBLIC_FILE, record(UID, "a", "7", KEY) + record(UID, "b", " 8", KEY) +
                                      record(UID, "c", "nine", KEY));
    for (const char* handle : {"07", "7 ", "+7", "8", "NINE"}) {
        EXPECT_EQ(remove(handle), refused(not_found(handle))) << handle;
    }
    EXPECT_EQ(remove("nine"), deleted_from(PUBLIC_FILE));
    EXPECT_EQ(remove(" 8"), deleted_from(PUBLIC_FILE));
}

TEST_F(DeleteKeyByHandle, FindsARecordByAnyOfItsHandles)
{
    write_store_file(PUBLIC_FILE,
                     "<key_content><handle>1</handle><handle>2</handle></key_content>");
    EXPECT_EQ(remove("2"), deleted_from(PUBLIC_FILE));
}

TEST_F(DeleteKeyByHandle, FindsARecordWhoseNameStandsBeforeItsUid)
{
    write_store_file(PUBLIC_FILE, "<key_content><key_name>n</key_name><uid>U</uid><handle>1"
                                  "</handle></key_content>");
    EXPECT_EQ(remove("1"), deleted_from(PUBLIC_FILE));
}

TEST_F(DeleteKeyByHandle, EmptiesARecordThatIsTheRoot)
{
    write_file(PUBLIC_FILE,
               "<key_content kind='root'><uid>U</uid><handle>7</handle></key_content>");
    EXPECT_EQ(remove("7"), deleted_from(PUBLIC_FILE));
    EXPECT_EQ(elements_of(PUBLIC_FILE).size(), 1U);
    EXPECT_EQ(remove("7"), refused(not_found("7")));
}

TEST_F(DeleteKeyByHandle, ReportsAHandleThatIsNotThereAndTouchesNothing)
{
    write_file(PUBLIC_FILE, AS_PREPARED + record(UID, "a", "1", KEY) + "</keys>");
    write_file(PRIVATE_FILE, AS_PREPARED + record(UID, "b", "2", KEY) + "</keys>");
    EXPECT_EQ(remove("3"), refused(not_found("3")));
    EXPECT_EQ(remove(""), refused(not_found("")));
}

TEST_F(DeleteKeyByHandle, WarnsOfEachFileWithoutARoot)
{
    documents_seem_rootless = true;
    EXPECT_EQ(remove("7"), refused("warn: missing data in key file key_contents_pub.xml\n"
                                   "warn: missing data in key file key_contents_prv.xml\n" +
                                   not_found("7")));
    EXPECT_FALSE(lock_is_held());
}

TEST_F(DeleteKeyByHandle, FailsWhenItCannotSave)
{
    write_store_file(PUBLIC_FILE, record(UID, "a", "1", KEY));
    write_store_file(PRIVATE_FILE, record(UID, "b", "2", KEY));
    saving_fails = true;
    EXPECT_EQ(remove("1"), refused("[delete_key_by_handle] error: could not save file "
                                   "key_contents_pub.xml\n"));
    EXPECT_FALSE(lock_is_held());
    EXPECT_EQ(remove("2"), refused("[delete_key_by_handle] error: could not save file "
                                   "key_contents_prv.xml\n"));
    EXPECT_FALSE(lock_is_held());
}

// ---- Locks and parser ----

TEST_F(DeleteKeyByHandle, HoldsTheLocksFromTheReadToTheSaveAndDoesNotCleanUp)
{
    write_store_file(PUBLIC_FILE, record(UID, "n", "7", KEY));
    EXPECT_EQ(steps_of([] { return delete_key_by_handle("7"); }),
              (Events{"read key_contents_pub.xml" + BOTH_LOCKS,
                      "save key_contents_pub.xml" + BOTH_LOCKS, "free"}));
}

TEST_F(DeleteKeyByHandle, GivesTheLocksBackBetweenTheFilesAndCleansUpAfterTheFirst)
{
    write_store_file(PRIVATE_FILE, record(UID, "n", "7", KEY));
    EXPECT_EQ(steps_of([] { return delete_key_by_handle("7"); }),
              as_built({"read key_contents_pub.xml" + BOTH_LOCKS, "free", "clean up",
                        "read key_contents_prv.xml" + BOTH_LOCKS,
                        "save key_contents_prv.xml" + BOTH_LOCKS, "free"}));
}

TEST_F(DeleteKeyByHandle, CleansUpAfterEachFileThatDoesNotHoldTheHandle)
{
    EXPECT_EQ(steps_of([] { return delete_key_by_handle("7"); }),
              as_built({"read key_contents_pub.xml" + BOTH_LOCKS, "free", "clean up",
                        "read key_contents_prv.xml" + BOTH_LOCKS, "free", "clean up"}));
}

TEST_F(DeleteKeyByHandle, WarnsOfAFileWithoutARootBeforeItGivesTheLocksBack)
{
    documents_seem_rootless = true;
    EXPECT_TRUE(prints_with_locks_held([] { delete_key_by_handle("7"); }));
}

TEST_F(DeleteKeyByHandle, GivesTheLocksBackBeforeItReportsAFailure)
{
    EXPECT_FALSE(prints_with_locks_held([] { delete_key_by_handle("7"); })) << "not found";
    write_store_file(PUBLIC_FILE, record(UID, "n", "7", KEY));
    saving_fails = true;
    EXPECT_FALSE(prints_with_locks_held([] { delete_key_by_handle("7"); })) << "cannot save";
}

// ---- Files that cannot be read: the mutex stays locked, deliberately ----

TEST_F(DeleteKeyByHandle, BlocksOnThePrivateFileWhenThePublicOneCannotBeRead)
{
    write_store_file(PRIVATE_FILE, record(UID, "n", "7", KEY));
    for (const char* content : UNREADABLE) {
        write_file(PUBLIC_FILE, content);
        const Ending ending = ending_within_two_seconds([] { return delete_key_by_handle("7"); });
        EXPECT_EQ(ending.code, BLOCKED) << content;
        EXPECT_EQ(ending.printed, "error: could not parse file key_contents_pub.xml\n") << content;
    }
    EXPECT_EQ(handles_in(PRIVATE_FILE), Handles{"7"});
}

TEST_F(DeleteKeyByHandle, BlocksOnThePrivateFileWhenThereIsNoPublicOne)
{
    std::filesystem::remove(PUBLIC_FILE);
    const Ending ending = ending_within_two_seconds([] { return delete_key_by_handle("7"); });
    EXPECT_EQ(ending.code, BLOCKED);
    EXPECT_EQ(ending.printed, "error: could not parse file key_contents_pub.xml\n");
}

TEST_F(DeleteKeyByHandle, ComesBackWithinTheSameTimeWhenBothFilesCanBeRead)
{
    const Ending ending = ending_within_two_seconds([] { return delete_key_by_handle("7"); });
    EXPECT_EQ(ending.code, 1);
    EXPECT_EQ(ending.printed, not_found("7"));
}

TEST_F(DeleteKeyByHandle, ReturnsWithTheMutexLockedWhenThePrivateFileCannotBeRead)
{
    for (const char* content : UNREADABLE) {
        write_file(PRIVATE_FILE, content);
        EXPECT_EQ(remove("7"),
                  refused("error: could not parse file key_contents_prv.xml\n" + not_found("7")))
            << content;
        EXPECT_TRUE(lock_is_held()) << content;
        EXPECT_FALSE(process_lock_is_held()) << content;
        pthread_mutex_unlock(&lock);
    }
    std::filesystem::remove(PRIVATE_FILE);
    EXPECT_EQ(remove("7").result, 1U);
    EXPECT_TRUE(lock_is_held());
    EXPECT_FALSE(process_lock_is_held());
    pthread_mutex_unlock(&lock);
}

TEST_F(DeleteKeyByHandle, MakesTheNextOperationThatTakesTheMutexBlock)
{
    write_file(PRIVATE_FILE, "");
    write_store_file(PUBLIC_FILE, record(UID, "n", "8", KEY));
    const auto delete_and = [](auto call) {
        return ending_within_two_seconds([&] {
                   delete_key_by_handle("7");
                   return call();
               })
            .code;
    };
    EXPECT_EQ(delete_and([] { return contains_key("U", "n"); }), BLOCKED);
    EXPECT_EQ(delete_and([] { return delete_key_by_handle("8"); }), BLOCKED);
    EXPECT_EQ(delete_and([] { return add_crk(DEVICE_UID, KEY.c_str(), nullptr); }), BLOCKED);
}

TEST_F(DeleteKeyByHandle, DoesNotCleanUpAfterAFileThatCannotBeRead)
{
    write_file(PRIVATE_FILE, "");
    EXPECT_EQ(steps_of([] { return delete_key_by_handle("7"); }),
              as_built({"read key_contents_pub.xml" + BOTH_LOCKS, "free", "clean up",
                        "read key_contents_prv.xml" + BOTH_LOCKS}));
    pthread_mutex_unlock(&lock);
}

TEST_F(DeleteKeyByHandle, DoesNotReadThePrivateFileForAHandleOfThePublicOne)
{
    write_file(PRIVATE_FILE, "");
    write_store_file(PUBLIC_FILE, record(UID, "n", "7", KEY));
    EXPECT_EQ(remove("7"), deleted_from(PUBLIC_FILE));
    EXPECT_FALSE(lock_is_held());
}

// ---------------------------------------------------------------------------------------------
// By UID and name
// ---------------------------------------------------------------------------------------------

class DeleteKeyByKeyType : public ChangingStore {
  protected:
    static Outcome remove(const std::string& uid, const std::string& key_name)
    {
        return outcome_of([&] { return delete_key_by_key_type(uid.c_str(), key_name.c_str()); });
    }

    static Outcome remove(const std::string& key_name)
    {
        return remove(UID, key_name);
    }
};

using DeleteKeyByKeyTypeDeathTest = DeleteKeyByKeyType;

static const char* const KEY_TYPE_ASSERTION =
    ": key_driver/zentrava_key_management_utils\\.cpp:[0-9]+: .*delete_key_by_key_type.*: "
    "Assertion `uid != NULL && key_name != NULL' failed\\.";

TEST_F(DeleteKeyByKeyTypeDeathTest, AssertsThatThereIsAUid)
{
    EXPECT_DEATH(delete_key_by_key_type(nullptr, "n"), KEY_TYPE_ASSERTION);
}

TEST_F(DeleteKeyByKeyTypeDeathTest, AssertsThatThereIsAName)
{
    EXPECT_DEATH(delete_key_by_key_type("U", nullptr), KEY_TYPE_ASSERTION);
}

// ---- The volatile tree ----

TEST_F(DeleteKeyByKeyType, DeletesNoVolatileKey)
{
    add_volatile("n");
    EXPECT_EQ(remove("n"), refused(""));
    EXPECT_EQ(volatile_records().size(), 1U);
}

TEST_F(DeleteKeyByKeyType, ReturnsAtOnceForAVolatileKey)
{
    const Deadline deadline(60);
    add_volatile("n");
    write_store_file(PRIVATE_FILE, record(UID, "n", "1", KEY));
    write_store_file(PUBLIC_FILE, record(UID, "n", "2", KEY));
    pthread_mutex_lock(&lock);
    EXPECT_EQ(remove("n"), refused(""));
    EXPECT_EQ(store_events, Events());
    pthread_mutex_unlock(&lock);
}

TEST_F(DeleteKeyByKeyType, GoesOnToTheFilesForVolatileKeysOfOtherNamesAndUids)
{
    add_volatile("m");
    char handle[16];
    add_volatile_based_key(OTHER_UID.c_str(), "n", KEY.c_str(), nullptr, handle, sizeof handle);
    add_volatile_key(KEY.c_str(), handle, sizeof handle);
    write_store_file(PRIVATE_FILE, record(UID, "n", "1", KEY));
    EXPECT_EQ(remove("n"), deleted_from(PRIVATE_FILE));
    EXPECT_EQ(volatile_records().size(), 3U);
}

TEST_F(DeleteKeyByKeyType, MakesTheVolatileRootWhenThereIsNone)
{
    remove("n");
    EXPECT_NE(tmpTree_rootNode, nullptr);
}

TEST_F(DeleteKeyByKeyType, GoesOnToTheFilesWithoutAVolatileRoot)
{
    write_store_file(PRIVATE_FILE, record(UID, "n", "1", KEY));
    nodes_cannot_be_made = true;
    EXPECT_EQ(remove("n"), deleted_from(PRIVATE_FILE));
}

// ---- The files ----

TEST_F(DeleteKeyByKeyType, DeletesARecordOfThePrivateFile)
{
    write_store_file(PRIVATE_FILE, record(UID, "n", "7", KEY));
    EXPECT_EQ(remove("n"), deleted_from(PRIVATE_FILE));
    EXPECT_EQ(handles_in(PRIVATE_FILE), Handles());
}

TEST_F(DeleteKeyByKeyType, DeletesARecordOfThePublicFile)
{
    write_store_file(PUBLIC_FILE, record(UID, "n", "7", KEY));
    EXPECT_EQ(remove("n"), deleted_from(PUBLIC_FILE));
    EXPECT_EQ(handles_in(PUBLIC_FILE), Handles());
}

TEST_F(DeleteKeyByKeyType, DeletesThePrivateFilesRecordOnlyWhenBothFilesHoldTheName)
{
    write_store_file(PUBLIC_FILE, record(UID, "n", "1", KEY));
    write_store_file(PRIVATE_FILE, record(UID, "n", "2", KEY));
    EXPECT_EQ(remove("n"), deleted_from(PRIVATE_FILE));
    EXPECT_EQ(handles_in(PUBLIC_FILE), Handles{"1"});
    EXPECT_EQ(remove("n"), deleted_from(PUBLIC_FILE));
    EXPECT_EQ(remove("n"), refused(""));
}

TEST_F(DeleteKeyByKeyType, DeletesTheFirstRecordOnlyWhenOneFileHoldsTheNameTwice)
{
    write_store_file(PRIVATE_FILE, "<group>" + record(UID, "n", "1", KEY) + "</group>" +
                                       record(UID, "n", "2", KEY));
    EXPECT_EQ(remove("n"), deleted_from(PRIVATE_FILE));
    EXPECT_EQ(handles_in(PRIVATE_FILE), Handles{"2"});
}

TEST_F(DeleteKeyByKeyType, DeletesTheRecordAndNothingElse)
{
    const std::string before = "<!-- comment -->" + record(UID, "a", "1", KEY, "m") + "<group>\n ";
    const std::string after = "\n</group>text" + record(OTHER_UID, "n", "3", KEY) + "<?pi data?>";
    const std::string middle = record(UID, "n", "2", KEY, "m");
    write_file(PUBLIC_FILE,
               AS_PREPARED + before + middle.substr(0, middle.size() - 1) + after + "</keys>");
    EXPECT_EQ(remove("n"), deleted_from(PUBLIC_FILE));
    EXPECT_EQ(read_file(PUBLIC_FILE), AS_SAVED + before + after + "</keys>\n");
}

TEST_F(DeleteKeyByKeyType, ComparesUidAndNameExactly)
{
    write_store_file(PRIVATE_FILE, record(UID, "name", "1", KEY));
    EXPECT_EQ(remove("nam"), refused(""));
    EXPECT_EQ(remove("name "), refused(""));
    EXPECT_EQ(remove("NAME"), refused(""));
    EXPECT_EQ(remove(""), refused(""));
    EXPECT_EQ(remove(OTHER_UID, "name"), refused(""));
    EXPECT_EQ(remove("", "name"), refused(""));
    EXPECT_EQ(remove(UID, "name"), deleted_from(PRIVATE_FILE));
}

TEST_F(DeleteKeyByKeyType, DeletesAKeyWithTheEmptyName)
{
    write_store_file(PRIVATE_FILE, record(UID, "n", "1", KEY) + record(UID, "", "2", KEY));
    EXPECT_EQ(remove(""), deleted_from(PRIVATE_FILE));
    EXPECT_EQ(handles_in(PRIVATE_FILE), Handles{"1"});
}

TEST_F(DeleteKeyByKeyType, AcceptsAUidOfAnyLength)
{
    write_store_file(PRIVATE_FILE, record("U", "n", "1", KEY));
    EXPECT_EQ(remove("U", "n"), deleted_from(PRIVATE_FILE));
}

TEST_F(DeleteKeyByKeyType, DoesNotFindARecordWhoseNameStandsBeforeItsUid)
{
    write_store_file(PRIVATE_FILE,
                     "<key_content><key_name>n</key_name><uid>" + UID + "</uid></key_content>");
    EXPECT_EQ(remove("n"), refused(""));
}

TEST_F(DeleteKeyByKeyType, EmptiesARecordThatIsTheRoot)
{
    write_file(PRIVATE_FILE, "<key_content><uid>U</uid><key_name>n</key_name></key_content>");
    EXPECT_EQ(remove("U", "n"), deleted_from(PRIVATE_FILE));
    EXPECT_EQ(elements_of(PRIVATE_FILE).size(), 1U);
    EXPECT_EQ(remove("U", "n"), refused(""));
}

TEST_F(DeleteKeyByKeyType, FailsWithoutAMessageWhenNoFileHoldsTheKey)
{
    write_file(PUBLIC_FILE, AS_PREPARED + "</keys>");
    write_file(PRIVATE_FILE, AS_PREPARED + "</keys>");
    EXPECT_EQ(remove("n"), refused(""));
}

TEST_F(DeleteKeyByKeyType, ReportsAnUnreadablePrivateFileAndGoesOn)
{
    for (const char* content : UNREADABLE) {
        write_file(PRIVATE_FILE, content);
        write_store_file(PUBLIC_FILE, record(UID, "n", "1", KEY));
        Outcome expected = deleted_from(PUBLIC_FILE);
        expected.printed = "[delete_key_by_key_type] error: could not parse file "
                           "key_contents_prv.xml\n";
        EXPECT_EQ(remove("n"), expected) << content;
        EXPECT_FALSE(lock_is_held()) << content;
    }
}

TEST_F(DeleteKeyByKeyType, DoesNotReadThePublicFileForAKeyOfThePrivateOne)
{
    write_file(PUBLIC_FILE, "");
    write_store_file(PRIVATE_FILE, record(UID, "n", "1", KEY));
    EXPECT_EQ(remove("n"), deleted_from(PRIVATE_FILE));
}

TEST_F(DeleteKeyByKeyType, ReportsBothFilesWhenNeitherCanBeRead)
{
    std::filesystem::remove(PRIVATE_FILE);
    std::filesystem::remove(PUBLIC_FILE);
    EXPECT_EQ(remove("n"),
              refused("[delete_key_by_key_type] error: could not parse file key_contents_prv.xml\n"
                      "[delete_key_by_key_type] error: could not parse file "
                      "key_contents_pub.xml\n"));
    EXPECT_FALSE(lock_is_held());
    EXPECT_FALSE(process_lock_is_held());
    EXPECT_TRUE(std::filesystem::is_empty("."));
}

TEST_F(DeleteKeyByKeyType, WarnsOfEachFileWithoutARoot)
{
    documents_seem_rootless = true;
    EXPECT_EQ(
        remove("n"),
        refused("[delete_key_by_key_type] warn: missing data in key file key_contents_prv.xml\n"
                "[delete_key_by_key_type] warn: missing data in key file key_contents_pub.xml\n"));
    EXPECT_FALSE(lock_is_held());
}

TEST_F(DeleteKeyByKeyType, FailsWhenItCannotSave)
{
    write_store_file(PRIVATE_FILE, record(UID, "a", "1", KEY));
    write_store_file(PUBLIC_FILE, record(UID, "b", "2", KEY));
    saving_fails = true;
    EXPECT_EQ(remove("a"), refused("[delete_key_by_key_type] error: could not save file "
                                   "key_contents_prv.xml\n"));
    EXPECT_FALSE(lock_is_held());
    EXPECT_EQ(remove("b"), refused("[delete_key_by_key_type] error: could not save file "
                                   "key_contents_pub.xml\n"));
    EXPECT_FALSE(lock_is_held());
}

// ---- Locks and parser ----

TEST_F(DeleteKeyByKeyType, HoldsTheLocksFromTheReadToTheSaveAndThenCleansUp)
{
    write_store_file(PRIVATE_FILE, record(UID, "n", "7", KEY));
    EXPECT_EQ(steps_of([] { return delete_key_by_key_type(DEVICE_UID, "n"); }),
              as_built({"read key_contents_prv.xml" + BOTH_LOCKS,
                        "save key_contents_prv.xml" + BOTH_LOCKS, "free", "clean up"}));
}

TEST_F(DeleteKeyByKeyType, GivesTheLocksBackBetweenTheFiles)
{
    write_store_file(PUBLIC_FILE, record(UID, "n", "7", KEY));
    EXPECT_EQ(steps_of([] { return delete_key_by_key_type(DEVICE_UID, "n"); }),
              as_built({"read key_contents_prv.xml" + BOTH_LOCKS, "free", "clean up",
                        "read key_contents_pub.xml" + BOTH_LOCKS,
                        "save key_contents_pub.xml" + BOTH_LOCKS, "free", "clean up"}));
}

TEST_F(DeleteKeyByKeyType, ReportsAFileThatCannotBeUsedBeforeItGivesTheLocksBack)
{
    const auto remove_key = [] {
        delete_key_by_key_type(DEVICE_UID, "n");
    };
    documents_seem_rootless = true;
    EXPECT_TRUE(prints_with_locks_held(remove_key)) << "no root";
    documents_seem_rootless = false;
    write_file(PRIVATE_FILE, "");
    EXPECT_TRUE(prints_with_locks_held(remove_key)) << "unreadable";
}

TEST_F(DeleteKeyByKeyType, GivesTheLocksBackBeforeItReportsThatItCannotSave)
{
    write_store_file(PRIVATE_FILE, record(UID, "n", "7", KEY));
    saving_fails = true;
    EXPECT_FALSE(prints_with_locks_held([] { delete_key_by_key_type(DEVICE_UID, "n"); }));
}

TEST_F(DeleteKeyByKeyType, CleansUpAfterEachFileThatDoesNotHoldTheKey)
{
    EXPECT_EQ(steps_of([] { return delete_key_by_key_type(DEVICE_UID, "n"); }),
              as_built({"read key_contents_prv.xml" + BOTH_LOCKS, "free", "clean up",
                        "read key_contents_pub.xml" + BOTH_LOCKS, "free", "clean up"}));
}

TEST_F(DeleteKeyByKeyType, CleansUpAfterAFileWithoutARoot)
{
    documents_seem_rootless = true;
    EXPECT_EQ(steps_of([] { return delete_key_by_key_type(DEVICE_UID, "n"); }),
              as_built({"read key_contents_prv.xml" + BOTH_LOCKS, "free", "clean up",
                        "read key_contents_pub.xml" + BOTH_LOCKS, "free", "clean up"}));
}

TEST_F(DeleteKeyByKeyType, DoesNotCleanUpAfterAFileThatCannotBeRead)
{
    write_file(PRIVATE_FILE, "");
    write_file(PUBLIC_FILE, "");
    EXPECT_EQ(steps_of([] { return delete_key_by_key_type(DEVICE_UID, "n"); }),
              (Events{"read key_contents_prv.xml" + BOTH_LOCKS,
                      "read key_contents_pub.xml" + BOTH_LOCKS}));
}

// ---------------------------------------------------------------------------------------------
// The key named "crk"
// ---------------------------------------------------------------------------------------------

class DeleteCrk : public ChangingStore {
  protected:
    static Outcome remove(const char* uid)
    {
        return outcome_of([&] { return delete_crk(uid); });
    }
};

TEST_F(DeleteCrk, FailsWithoutAMessageForANullUid)
{
    write_store_file(PRIVATE_FILE, record(UID, "crk", "1", KEY));
    EXPECT_EQ(remove(nullptr), refused(""));
    EXPECT_EQ(store_events, Events());
}

TEST_F(DeleteCrk, DeletesTheCrkOfTheUidOnly)
{
    write_store_file(PRIVATE_FILE, record(UID, "srk", "1", KEY) +
                                       record(OTHER_UID, "crk", "2", KEY) +
                                       record(UID, "crk", "3", KEY) +
                                       record(UID, "tmp_client_session_key", "4", KEY));
    EXPECT_EQ(remove(UID.c_str()), deleted_from(PRIVATE_FILE));
    EXPECT_EQ(handles_in(PRIVATE_FILE), (Handles{"1", "2", "4"}));
}

TEST_F(DeleteCrk, DeletesTheCrkOfThePublicFileWhenThePrivateOneHasNone)
{
    write_store_file(PUBLIC_FILE, record(UID, "crk", "1", KEY));
    EXPECT_EQ(remove(UID.c_str()), deleted_from(PUBLIC_FILE));
}

TEST_F(DeleteCrk, FailsWithoutAMessageWhenThereIsNoCrk)
{
    EXPECT_EQ(remove(UID.c_str()), refused(""));
}

TEST_F(DeleteCrk, DeletesNoVolatileKey)
{
    add_volatile("crk");
    write_store_file(PRIVATE_FILE, record(UID, "crk", "1", KEY));
    EXPECT_EQ(remove(UID.c_str()), refused(""));
    EXPECT_EQ(volatile_records().size(), 1U);
}

TEST_F(DeleteCrk, DeletesWhatAddCrkHasAdded)
{
    ASSERT_EQ(add_crk(DEVICE_UID, KEY.c_str(), "m"), 0U);
    EXPECT_TRUE(contains_crk(DEVICE_UID));
    EXPECT_EQ(remove(DEVICE_UID), deleted_from(PRIVATE_FILE));
    EXPECT_FALSE(contains_crk(DEVICE_UID));
}
