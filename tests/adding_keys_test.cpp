// Adding keys to the volatile tree and to the store files.

#include "tests/support/handle_failure.h"

#include "tests/support/changing_store.h"
#include "tests/support/locks_at_print.h"
#include "tests/support/xml_reader.h"

#include <gtest/gtest.h>

#include <stdint.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

namespace {

const std::string UID = DEVICE_UID;
const std::string OTHER_UID(32, 'f');
const std::string KEY(64, 'a');
const std::string OTHER_KEY(64, 'b');
const std::string OLD_KEY(64, '0');

const char* const BOTH_LOCKS = ", locked, locked between processes";

const std::string WRONG_SIZE = "[add_nonvolatile_based_key] error: size of input parameter (e.g., "
                               "uid or key) is not valid\n";
const std::string HANDLE_DOES_NOT_FIT =
    "error: size of output buffer for handle is not large enough\n";
const std::string NO_HANDLE = "[add_nonvolatile_based_key] error: could not get new key handle\n";

std::string already_exists(const std::string& uid, const std::string& key_name)
{
    return "error: Cannot add key for uid 0x" + uid + " and key name " + key_name +
           "! Key with same uid and key_name already exists\n";
}

const FileNames NOTHING = {};
const Pauses NO_PAUSE = {};
const Pauses FIVE_SECONDS = {5};

// A buffer whose every byte is known before and after.
class HandleBuffer {
  public:
    explicit HandleBuffer(size_t size = 16) : bytes_(size, '#')
    {
    }

    char* data()
    {
        return bytes_.data();
    }

    unsigned int size() const
    {
        return static_cast<unsigned int>(bytes_.size());
    }

    bool untouched() const
    {
        return bytes_ == std::string(bytes_.size(), '#');
    }

    // The text, given that the whole rest of the buffer is zero; otherwise all its bytes.
    std::string text() const
    {
        const size_t length = bytes_.find('\0');
        const bool zeroed = bytes_.find_first_not_of('\0', length) == std::string::npos;
        return zeroed ? bytes_.substr(0, length) : bytes_;
    }

  private:
    std::string bytes_;
};

} // namespace

// ---------------------------------------------------------------------------------------------
// Anonymous volatile keys
// ---------------------------------------------------------------------------------------------

class AddVolatileKey : public ChangingStore {
  protected:
    Outcome add(const std::string& key_hex)
    {
        return outcome_of(
            [&] { return add_volatile_key(key_hex.c_str(), handle_.data(), handle_.size()); });
    }

    HandleBuffer handle_;
};

using AddVolatileKeyDeathTest = AddVolatileKey;

static const char* const VOLATILE_KEY_ASSERTION =
    ": key_driver/zentrava_key_management_utils\\.cpp:[0-9]+: .*add_volatile_key.*: "
    "Assertion `key_hex != NULL && handle_out_buff != NULL' failed\\.";

TEST_F(AddVolatileKeyDeathTest, AssertsThatThereIsAKey)
{
    EXPECT_DEATH(add_volatile_key(nullptr, handle_.data(), 16), VOLATILE_KEY_ASSERTION);
}

TEST_F(AddVolatileKeyDeathTest, AssertsThatThereIsAHandleBuffer)
{
    EXPECT_DEATH(add_volatile_key("ab", nullptr, 16), VOLATILE_KEY_ASSERTION);
}

TEST_F(AddVolatileKey, ReturnsZeroWithoutAMessageAndTouchesNoFile)
{
    EXPECT_EQ(add(KEY), (Outcome{0, "", NOTHING, NO_PAUSE}));
}

TEST_F(AddVolatileKey, HandsTheHandleBack)
{
    add(KEY);
    EXPECT_EQ(handle_.text(), "1");
}

TEST_F(AddVolatileKey, WritesARecordOfHandleAndKey)
{
    add(KEY);
    EXPECT_EQ(volatile_records(), (std::vector<Children>{{{"handle", "1"}, {"key", KEY}}}));
}

TEST_F(AddVolatileKey, AppendsTheRecordBehindTheOthers)
{
    add("first");
    add("second");
    EXPECT_EQ(volatile_records(), (std::vector<Children>{{{"handle", "1"}, {"key", "first"}},
                                                         {{"handle", "2"}, {"key", "second"}}}));
}

TEST_F(AddVolatileKey, MakesTheVolatileRootWhenThereIsNone)
{
    ASSERT_EQ(tmpTree_rootNode, nullptr);
    add(KEY);
    ASSERT_NE(tmpTree_rootNode, nullptr);
    EXPECT_STREQ(as_chars(tmpTree_rootNode->name), "tmp_tree_root");
}

TEST_F(AddVolatileKey, KeepsTheVolatileRootThatThereIs)
{
    const xmlNode* root = getTmpTreeRootNode();
    add(KEY);
    EXPECT_EQ(tmpTree_rootNode, root);
}

TEST_F(AddVolatileKey, TakesTheHandleAfterTheLargestOfAllThreePlaces)
{
    write_store_file(PUBLIC_FILE, record(UID, "a", "3", KEY));
    write_store_file(PRIVATE_FILE, record(UID, "b", "7", KEY));
    add(KEY);
    EXPECT_EQ(handle_.text(), "8");
    add(KEY);
    EXPECT_EQ(handle_.text(), "9");
    write_store_file(PUBLIC_FILE, record(UID, "a", "30", KEY));
    add(KEY);
    EXPECT_EQ(handle_.text(), "31");
}

TEST_F(AddVolatileKey, AddsTheSameKeyAsOftenAsItIsCalled)
{
    EXPECT_EQ(add(KEY).result, 0U);
    EXPECT_EQ(add(KEY).result, 0U);
    EXPECT_EQ(volatile_records().size(), 2U);
}

TEST_F(AddVolatileKey, AcceptsAKeyTextOfAnyLengthAndStoresItAsGiven)
{
    for (const size_t length : {0U, 1U, 2U, 31U, 32U, 63U, 64U, 65U, 128U, 129U, 1000U}) {
        empty_volatile_tree();
        const std::string key(length, 'C');
        EXPECT_EQ(add(key), (Outcome{0, "", NOTHING, NO_PAUSE})) << length;
        EXPECT_EQ(volatile_records(), (std::vector<Children>{{{"handle", "1"}, {"key", key}}}))
            << length;
    }
}

TEST_F(AddVolatileKey, DoesNotLookAtTheCharactersOfTheKey)
{
    EXPECT_EQ(add("no hexadecimal, g").result, 0U);
    EXPECT_EQ(volatile_records(),
              (std::vector<Children>{{{"handle", "1"}, {"key", "no hexadecimal, g"}}}));
}

TEST_F(AddVolatileKey, MakesAKeyThatIsFoundByItsHandleOnly)
{
    add(KEY);
    uint8_t key[64];
    uint32_t length = sizeof key;
    printed_by([&] {
        EXPECT_EQ(get_key(reinterpret_cast<const unsigned char*>(""), "", key, &length), 1U);
        EXPECT_EQ(get_key(reinterpret_cast<const unsigned char*>(""), nullptr, key, &length), 1U);
    });
    EXPECT_EQ(delete_key_by_handle("1"), 0U);
    EXPECT_TRUE(volatile_records().empty());
}

TEST_F(AddVolatileKey, ReadsBothFilesWithoutAnyLockAndCleansUpOnce)
{
    EXPECT_EQ(steps_of([&] { return add_volatile_key("ab", handle_.data(), handle_.size()); }),
              as_built({"read key_contents_pub.xml", "free", "read key_contents_prv.xml", "free",
                        "clean up"}));
}

TEST_F(AddVolatileKey, DoesNotCleanUpWhenNoFileCanBeRead)
{
    std::filesystem::remove(PUBLIC_FILE);
    std::filesystem::remove(PRIVATE_FILE);
    EXPECT_EQ(steps_of([&] { return add_volatile_key("ab", handle_.data(), handle_.size()); }),
              (Events{"read key_contents_pub.xml", "read key_contents_prv.xml"}));
}

TEST_F(AddVolatileKey, TakesNoLock)
{
    const Deadline deadline(60);
    pthread_mutex_lock(&lock);
    EXPECT_EQ(add(KEY).result, 0U);
    EXPECT_TRUE(lock_is_held());
    pthread_mutex_unlock(&lock);
}

TEST_F(AddVolatileKey, GoesWithoutTheFilesWhenTheyCannotBeRead)
{
    std::filesystem::remove(PUBLIC_FILE);
    write_file(PRIVATE_FILE, "<keys>");
    EXPECT_EQ(add(KEY), (Outcome{0, "", NOTHING, NO_PAUSE}));
    EXPECT_EQ(handle_.text(), "1");
}

TEST_F(AddVolatileKey, FailsWhenTheHandleDoesNotFit)
{
    for (const size_t size : {0U, 1U}) {
        handle_ = HandleBuffer(size);
        EXPECT_EQ(add(KEY), (Outcome{1,
                                     HANDLE_DOES_NOT_FIT +
                                         "[add_volatile_key] error: could not get new key handle\n",
                                     NOTHING, NO_PAUSE}))
            << size;
        EXPECT_TRUE(volatile_records().empty()) << size;
    }
}

TEST_F(AddVolatileKey, NeedsRoomForTheHandleAndItsTerminatorAndNoMore)
{
    handle_ = HandleBuffer(2);
    EXPECT_EQ(add(KEY).result, 0U);
    EXPECT_EQ(handle_.text(), "1");
    write_store_file(PUBLIC_FILE, record(UID, "a", "9", KEY));
    EXPECT_EQ(add(KEY).result, 1U);
    handle_ = HandleBuffer(3);
    EXPECT_EQ(add(KEY).result, 0U);
    EXPECT_EQ(handle_.text(), "10");
}

TEST_F(AddVolatileKey, FailsWithoutAVolatileRoot)
{
    nodes_cannot_be_made = true;
    EXPECT_EQ(add(KEY), (Outcome{1,
                                 "[add_volatile_key] Failed to retrieve Temporary Key Tree root "
                                 "node!\n",
                                 NOTHING, NO_PAUSE}));
    EXPECT_TRUE(handle_.untouched());
}

// ---------------------------------------------------------------------------------------------
// Volatile keys with UID and name
// ---------------------------------------------------------------------------------------------

class AddVolatileBasedKey : public ChangingStore {
  protected:
    Outcome add(const char* uid, const char* key_name, const char* key, const char* metadata)
    {
        return outcome_of([&] {
            return add_volatile_based_key(uid, key_name, key, metadata, handle_.data(),
                                          handle_.size());
        });
    }

    Outcome add(const std::string& key_name, const std::string& key, const char* metadata = nullptr)
    {
        return add(UID.c_str(), key_name.c_str(), key.c_str(), metadata);
    }

    HandleBuffer handle_;
};

static Children named_record(const std::string& uid, const std::string& key_name,
                             const std::string& handle, const std::string& key)
{
    return {{"uid", uid}, {"key_name", key_name}, {"handle", handle}, {"key", key}};
}

TEST_F(AddVolatileBasedKey, ReturnsZeroWithoutAMessageAndTouchesNoFile)
{
    EXPECT_EQ(add("n", KEY, "m"), (Outcome{0, "", NOTHING, NO_PAUSE}));
    EXPECT_EQ(handle_.text(), "1");
}

TEST_F(AddVolatileBasedKey, WritesTheChildrenInOrder)
{
    add("n", KEY, "some metadata");
    Children expected = named_record(UID, "n", "1", KEY);
    expected.emplace_back("metadata", "some metadata");
    EXPECT_EQ(volatile_records(), std::vector<Children>{expected});
}

TEST_F(AddVolatileBasedKey, LeavesNullMetadataOut)
{
    add("n", KEY, nullptr);
    EXPECT_EQ(volatile_records(), std::vector<Children>{named_record(UID, "n", "1", KEY)});
}

TEST_F(AddVolatileBasedKey, LeavesEmptyMetadataOut)
{
    add("n", KEY, "");
    EXPECT_EQ(volatile_records(), std::vector<Children>{named_record(UID, "n", "1", KEY)});
}

TEST_F(AddVolatileBasedKey, AppendsTheRecordBehindTheOthers)
{
    add("n", KEY);
    add("m", OTHER_KEY);
    EXPECT_EQ(volatile_records(), (std::vector<Children>{named_record(UID, "n", "1", KEY),
                                                         named_record(UID, "m", "2", OTHER_KEY)}));
}

TEST_F(AddVolatileBasedKey, TakesTheHandleAfterTheLargestOfAllThreePlaces)
{
    write_store_file(PUBLIC_FILE, record(UID, "a", "3", KEY));
    write_store_file(PRIVATE_FILE, record(UID, "b", "7", KEY));
    add("n", KEY);
    EXPECT_EQ(handle_.text(), "8");
    add("m", KEY);
    EXPECT_EQ(handle_.text(), "9");
}

TEST_F(AddVolatileBasedKey, TellsKeysApartByUidAndName)
{
    EXPECT_EQ(add("n", KEY).result, 0U);
    EXPECT_EQ(add("N", KEY).result, 0U);
    EXPECT_EQ(add("", KEY).result, 0U);
    EXPECT_EQ(add(OTHER_UID.c_str(), "n", KEY.c_str(), nullptr).result, 0U);
    EXPECT_EQ(volatile_records().size(), 4U);
}

TEST_F(AddVolatileBasedKey, DoesNotCareForKeysOfTheSameNameInTheFiles)
{
    write_store_file(PUBLIC_FILE, record(UID, "n", "1", OLD_KEY));
    write_store_file(PRIVATE_FILE, record(UID, "n", "2", OLD_KEY));
    EXPECT_EQ(add("n", KEY), (Outcome{0, "", NOTHING, NO_PAUSE}));
    EXPECT_EQ(volatile_records(), std::vector<Children>{named_record(UID, "n", "3", KEY)});
}

// ---- Null arguments and lengths ----

TEST_F(AddVolatileBasedKey, FailsWithoutAMessageForANullArgument)
{
    const Outcome failed = {1, "", NOTHING, NO_PAUSE};
    EXPECT_EQ(add(nullptr, "n", KEY.c_str(), "m"), failed) << "uid";
    EXPECT_EQ(add(UID.c_str(), nullptr, KEY.c_str(), "m"), failed) << "key name";
    EXPECT_EQ(add(UID.c_str(), "n", nullptr, "m"), failed) << "key";
    EXPECT_EQ(outcome_of([] {
                  return add_volatile_based_key(UID.c_str(), "n", KEY.c_str(), "m", nullptr, 16);
              }),
              failed)
        << "handle buffer";
    EXPECT_TRUE(handle_.untouched());
    EXPECT_EQ(tmpTree_rootNode, nullptr);
    EXPECT_EQ(store_events, Events());
}

TEST_F(AddVolatileBasedKey, LooksForNullArgumentsBeforeItLooksAtLengths)
{
    EXPECT_EQ(add("short", "n", nullptr, nullptr).printed, "");
    EXPECT_EQ(add(nullptr, "n", "short", nullptr).printed, "");
}

TEST_F(AddVolatileBasedKey, RefusesAUidThatIsNot32CharactersLong)
{
    for (const size_t length : {0U, 1U, 31U, 33U, 64U}) {
        EXPECT_EQ(add(std::string(length, 'u').c_str(), "n", KEY.c_str(), nullptr),
                  (Outcome{1, WRONG_SIZE, NOTHING, NO_PAUSE}))
            << length;
    }
    EXPECT_TRUE(handle_.untouched());
    EXPECT_EQ(tmpTree_rootNode, nullptr);
    EXPECT_EQ(store_events, Events());
}

TEST_F(AddVolatileBasedKey, RefusesAKeyThatIsNot64CharactersLong)
{
    for (const size_t length : {0U, 1U, 32U, 63U, 65U, 128U}) {
        EXPECT_EQ(add("n", std::string(length, 'k')), (Outcome{1, WRONG_SIZE, NOTHING, NO_PAUSE}))
            << length;
    }
    EXPECT_TRUE(handle_.untouched());
    EXPECT_EQ(tmpTree_rootNode, nullptr);
    EXPECT_EQ(store_events, Events());
}

// ---- Duplicates ----

TEST_F(AddVolatileBasedKey, NeverReplacesAVolatileKey)
{
    add("n", KEY, "m");
    const std::vector<Children> before = volatile_records();
    EXPECT_EQ(add("n", OTHER_KEY, "other"),
              (Outcome{1, already_exists(UID, "n"), NOTHING, NO_PAUSE}));
    EXPECT_EQ(volatile_records(), before);
}

TEST_F(AddVolatileBasedKey, LeavesKeysOfTheSameNameInTheFilesAloneWhenItRefuses)
{
    write_store_file(PUBLIC_FILE, record(UID, "n", "1", OLD_KEY));
    write_store_file(PRIVATE_FILE, record(UID, "n", "2", OLD_KEY));
    add("n", KEY);
    EXPECT_EQ(add("n", OTHER_KEY), (Outcome{1, already_exists(UID, "n"), NOTHING, NO_PAUSE}));
}

TEST_F(AddVolatileBasedKey, ReadsNoFileForADuplicateAndCleansUp)
{
    add("n", KEY);
    EXPECT_EQ(steps_of([&] {
                  return add_volatile_based_key(UID.c_str(), "n", KEY.c_str(), nullptr,
                                                handle_.data(), handle_.size());
              }),
              as_built({"clean up"}));
}

TEST_F(AddVolatileBasedKey, AddsTheKeyAgainOnceItIsDeletedByItsHandle)
{
    add("n", KEY);
    ASSERT_EQ(delete_key_by_handle(handle_.text().c_str()), 0U);
    EXPECT_EQ(add("n", OTHER_KEY).result, 0U);
    EXPECT_EQ(volatile_records(), std::vector<Children>{named_record(UID, "n", "1", OTHER_KEY)});
}

// ---- Locks, parser, handle, volatile root ----

TEST_F(AddVolatileBasedKey, ReadsBothFilesWithoutAnyLockAndCleansUpOnce)
{
    EXPECT_EQ(steps_of([&] {
                  return add_volatile_based_key(UID.c_str(), "n", KEY.c_str(), nullptr,
                                                handle_.data(), handle_.size());
              }),
              as_built({"read key_contents_pub.xml", "free", "read key_contents_prv.xml", "free",
                        "clean up"}));
}

TEST_F(AddVolatileBasedKey, CleansUpAlsoWhenNoFileCanBeRead)
{
    std::filesystem::remove(PUBLIC_FILE);
    std::filesystem::remove(PRIVATE_FILE);
    EXPECT_EQ(steps_of([&] {
                  return add_volatile_based_key(UID.c_str(), "n", KEY.c_str(), nullptr,
                                                handle_.data(), handle_.size());
              }),
              as_built({"read key_contents_pub.xml", "read key_contents_prv.xml", "clean up"}));
    EXPECT_EQ(handle_.text(), "1");
}

TEST_F(AddVolatileBasedKey, CleansUpWhenTheHandleDoesNotFit)
{
    std::filesystem::remove(PUBLIC_FILE);
    std::filesystem::remove(PRIVATE_FILE);
    EXPECT_EQ(steps_of([&] {
                  return add_volatile_based_key(UID.c_str(), "n", KEY.c_str(), nullptr,
                                                handle_.data(), 1);
              }),
              as_built({"read key_contents_pub.xml", "read key_contents_prv.xml", "clean up"}));
}

TEST_F(AddVolatileBasedKey, TakesNoLock)
{
    const Deadline deadline(60);
    pthread_mutex_lock(&lock);
    EXPECT_EQ(add("n", KEY).result, 0U);
    EXPECT_EQ(add("n", KEY).result, 1U);
    EXPECT_TRUE(lock_is_held());
    pthread_mutex_unlock(&lock);
}

TEST_F(AddVolatileBasedKey, FailsWhenTheHandleDoesNotFit)
{
    for (const size_t size : {0U, 1U}) {
        handle_ = HandleBuffer(size);
        EXPECT_EQ(add("n", KEY), (Outcome{1, HANDLE_DOES_NOT_FIT + NO_HANDLE, NOTHING, NO_PAUSE}))
            << size;
        EXPECT_TRUE(volatile_records().empty()) << size;
    }
}

TEST_F(AddVolatileBasedKey, FailsWithoutAVolatileRoot)
{
    nodes_cannot_be_made = true;
    EXPECT_EQ(add("n", KEY),
              (Outcome{1, "[add_nonvolatile_based_key] error: could retrieve root element\n",
                       NOTHING, NO_PAUSE}));
    EXPECT_TRUE(handle_.untouched());
    EXPECT_EQ(store_events, Events());
}

// ---------------------------------------------------------------------------------------------
// Keys in the files
// ---------------------------------------------------------------------------------------------

namespace {

struct StoreFile {
    const char* name;
    bool is_private;
};

const StoreFile BOTH_FILES[] = {{PRIVATE_FILE, true}, {PUBLIC_FILE, false}};

// A declaration that libxml2 writes otherwise, so that a file that is saved unchanged differs.
const std::string AS_PREPARED = "<?xml version='1.0'?>\n<keys>\n";
const std::string AS_SAVED = "<?xml version=\"1.0\"?>\n<keys>\n";

} // namespace

// Every test of these goes for either file.
class AddNonvolatileBasedKey : public ChangingStore, public testing::WithParamInterface<StoreFile> {
  protected:
    static const char* file_name()
    {
        return GetParam().name;
    }

    static const char* other_file_name()
    {
        return GetParam().is_private ? PUBLIC_FILE : PRIVATE_FILE;
    }

    static uint32_t call(const char* uid, const char* key_name, const char* key,
                         const char* metadata, bool allow_replace)
    {
        return add_nonvolatile_based_key(uid, key_name, key, metadata, GetParam().is_private,
                                         allow_replace);
    }

    static Outcome add(const char* uid, const char* key_name, const char* key,
                       const char* metadata = nullptr)
    {
        return outcome_of([&] { return call(uid, key_name, key, metadata, false); });
    }

    static Outcome add(const char* key_name, const char* metadata = nullptr)
    {
        return add(UID.c_str(), key_name, KEY.c_str(), metadata);
    }

    static Outcome replace(const char* key_name, const char* metadata = nullptr)
    {
        return outcome_of([&] { return call(UID.c_str(), key_name, KEY.c_str(), metadata, true); });
    }

    static void write_records(const std::string& records)
    {
        write_store_file(file_name(), records);
    }

    static Outcome added()
    {
        return {0, "", {file_name()}, FIVE_SECONDS};
    }

    static Outcome replaced()
    {
        return {1, "", {file_name()}, FIVE_SECONDS};
    }

    static Outcome refused(const std::string& printed)
    {
        return {1, printed, NOTHING, NO_PAUSE};
    }
};

INSTANTIATE_TEST_SUITE_P(To, AddNonvolatileBasedKey, testing::ValuesIn(BOTH_FILES),
                         [](const auto& test) {
                             return std::string(test.param.is_private ? "Private" : "Public") +
                                    "File";
                         });

// ---- Arguments ----

TEST_P(AddNonvolatileBasedKey, FailsWithoutAMessageForANullArgument)
{
    EXPECT_EQ(add(nullptr, "n", KEY.c_str()), refused("")) << "uid";
    EXPECT_EQ(add(UID.c_str(), nullptr, KEY.c_str()), refused("")) << "key name";
    EXPECT_EQ(add(UID.c_str(), "n", nullptr), refused("")) << "key";
    EXPECT_EQ(store_events, Events());
}

TEST_P(AddNonvolatileBasedKey, LooksForNullArgumentsBeforeItLooksAtLengths)
{
    EXPECT_EQ(add(nullptr, "n", "short"), refused(""));
    EXPECT_EQ(add("short", "n", nullptr), refused(""));
}

TEST_P(AddNonvolatileBasedKey, RefusesAUidThatIsNot32CharactersLongBeforeItTouchesAFile)
{
    for (const size_t length : {0U, 1U, 31U, 33U, 64U}) {
        EXPECT_EQ(add(std::string(length, 'u').c_str(), "n", KEY.c_str()), refused(WRONG_SIZE))
            << length;
        EXPECT_EQ(store_events, Events()) << length;
    }
}

TEST_P(AddNonvolatileBasedKey, RefusesAKeyThatIsNot64CharactersLongBeforeItTouchesAFile)
{
    for (const size_t length : {0U, 1U, 32U, 63U, 65U, 128U}) {
        EXPECT_EQ(add(UID.c_str(), "n", std::string(length, 'k').c_str()), refused(WRONG_SIZE))
            << length;
        EXPECT_EQ(store_events, Events()) << length;
    }
}

TEST_P(AddNonvolatileBasedKey, RefusesWrongLengthsAlsoWhenItMayReplace)
{
    write_records(record(UID, "n", "1", OLD_KEY));
    EXPECT_EQ(outcome_of([] { return call(UID.c_str(), "n", "short", nullptr, true); }),
              refused(WRONG_SIZE));
}

TEST_P(AddNonvolatileBasedKey, TakesNoLockForArgumentsThatItRefuses)
{
    const Deadline deadline(60);
    pthread_mutex_lock(&lock);
    EXPECT_EQ(add(nullptr, "n", KEY.c_str()).result, 1U);
    EXPECT_EQ(add("short", "n", KEY.c_str()).result, 1U);
    pthread_mutex_unlock(&lock);
}

// ---- New keys ----

TEST_P(AddNonvolatileBasedKey, ReturnsZeroWithoutAMessageAndTouchesItsFileOnly)
{
    EXPECT_EQ(add("n", "m"), added());
}

TEST_P(AddNonvolatileBasedKey, WritesTheChildrenInOrder)
{
    add("n", "some metadata");
    EXPECT_EQ(records_of(file_name()), (std::vector<Children>{{{"uid", UID},
                                                               {"key_name", "n"},
                                                               {"handle", "1"},
                                                               {"key", KEY},
                                                               {"metadata", "some metadata"}}}));
}

TEST_P(AddNonvolatileBasedKey, LeavesNullMetadataOut)
{
    EXPECT_EQ(add("n", nullptr), added());
    EXPECT_EQ(
        records_of(file_name()),
        (std::vector<Children>{{{"uid", UID}, {"key_name", "n"}, {"handle", "1"}, {"key", KEY}}}));
}

TEST_P(AddNonvolatileBasedKey, LeavesEmptyMetadataOut)
{
    EXPECT_EQ(add("n", ""), added());
    EXPECT_EQ(
        records_of(file_name()),
        (std::vector<Children>{{{"uid", UID}, {"key_name", "n"}, {"handle", "1"}, {"key", KEY}}}));
}

TEST_P(AddNonvolatileBasedKey, WritesNothingElse)
{
    write_file(file_name(), AS_PREPARED + record(UID, "old", "1", OLD_KEY) + "</keys>");
    add("n", "m");
    const std::string new_record = record(UID, "n", "2", KEY, "m");
    EXPECT_EQ(read_file(file_name()), AS_SAVED + record(UID, "old", "1", OLD_KEY) +
                                          new_record.substr(0, new_record.size() - 1) +
                                          "</keys>\n");
}

TEST_P(AddNonvolatileBasedKey, AppendsTheRecordBehindTheLastChildOfTheRoot)
{
    write_file(file_name(), "<keys><group>" + record(UID, "old", "1", OLD_KEY) +
                                "</group>text<!-- comment --><?pi data?></keys>");
    add("n");
    const std::string new_record = record(UID, "n", "1", KEY);
    EXPECT_EQ(read_file(file_name()),
              "<?xml version=\"1.0\"?>\n<keys><group>" + record(UID, "old", "1", OLD_KEY) +
                  "</group>text<!-- comment --><?pi data?>" +
                  new_record.substr(0, new_record.size() - 1) + "</keys>\n");
}

TEST_P(AddNonvolatileBasedKey, AddsTheFirstRecordToAnEmptyRoot)
{
    write_file(file_name(), "<anything/>");
    EXPECT_EQ(add("n"), added());
    const std::vector<XmlElement> elements = elements_of(file_name());
    ASSERT_EQ(elements.size(), 6U);
    EXPECT_EQ(elements[0].name, "anything");
    EXPECT_EQ(elements[1].name, "key_content");
    EXPECT_EQ(elements[1].depth, 1);
}

TEST_P(AddNonvolatileBasedKey, TakesTheHandleAfterTheLargestInItsFile)
{
    write_records(record(UID, "a", "41", OLD_KEY) + record(UID, "b", "5", OLD_KEY));
    write_store_file(other_file_name(), record(UID, "c", "7", OLD_KEY));
    add("n");
    EXPECT_EQ(records_of(file_name()).back()[2], (Children::value_type{"handle", "42"}));
}

TEST_P(AddNonvolatileBasedKey, TakesTheHandleAfterTheLargestInTheOtherFile)
{
    write_records(record(UID, "a", "4", OLD_KEY));
    write_store_file(other_file_name(), record(UID, "c", "7", OLD_KEY));
    add("n");
    EXPECT_EQ(records_of(file_name()).back()[2], (Children::value_type{"handle", "8"}));
}

TEST_P(AddNonvolatileBasedKey, TakesTheHandleAfterTheLargestInTheVolatileTree)
{
    write_records(record(UID, "a", "4", OLD_KEY));
    write_store_file(other_file_name(), record(UID, "c", "7", OLD_KEY));
    HandleBuffer handle;
    add_volatile_key("ab", handle.data(), handle.size());
    ASSERT_EQ(handle.text(), "8");
    add("n");
    EXPECT_EQ(records_of(file_name()).back()[2], (Children::value_type{"handle", "9"}));
}

TEST_P(AddNonvolatileBasedKey, TellsKeysApartByUidAndName)
{
    write_records(record(UID, "n", "1", OLD_KEY));
    EXPECT_EQ(add("N"), added());
    EXPECT_EQ(add("n "), added());
    EXPECT_EQ(add(OTHER_UID.c_str(), "n", KEY.c_str()), added());
    EXPECT_EQ(records_of(file_name()).size(), 4U);
}

TEST_P(AddNonvolatileBasedKey, TakesTheEmptyNameForANameLikeAnyOther)
{
    EXPECT_EQ(add("", "m"), added());
    EXPECT_EQ(add("n"), added());
    EXPECT_EQ(add(""), (Outcome{1, already_exists(UID, ""), {file_name()}, FIVE_SECONDS}));
    EXPECT_EQ(replace("", "M"), replaced());
    const std::vector<Children> records = records_of(file_name());
    ASSERT_EQ(records.size(), 2U);
    EXPECT_EQ(records[0][1], (Children::value_type{"key_name", ""}));
    EXPECT_EQ(records[0][4], (Children::value_type{"metadata", "M"}));
}

TEST_P(AddNonvolatileBasedKey, DoesNotCareForAKeyOfTheSameNameInTheOtherFile)
{
    write_store_file(other_file_name(), record(UID, "n", "1", OLD_KEY));
    EXPECT_EQ(add("n"), added());
}

TEST_P(AddNonvolatileBasedKey, DoesNotCareForAVolatileKeyOfTheSameName)
{
    HandleBuffer handle;
    add_volatile_based_key(UID.c_str(), "n", KEY.c_str(), nullptr, handle.data(), handle.size());
    EXPECT_EQ(add("n"), added());
    EXPECT_EQ(volatile_records().size(), 1U);
}

TEST_P(AddNonvolatileBasedKey, DoesNotFindARecordWhoseNameStandsBeforeItsUid)
{
    write_records("<key_content><key_name>n</key_name><uid>" + UID + "</uid></key_content>");
    EXPECT_EQ(add("n"), added());
    EXPECT_EQ(records_of(file_name()).size(), 2U);
}

TEST_P(AddNonvolatileBasedKey, DoesNotHandTheHandleBackButGetKeyHandleDoes)
{
    write_records(record(UID, "a", "8", OLD_KEY));
    add("n", "m");
    char handle[16];
    char metadata[16];
    ASSERT_EQ(get_key_handle(UID.c_str(), "n", metadata, sizeof metadata, handle, sizeof handle),
              0U);
    EXPECT_STREQ(handle, "9");
    EXPECT_STREQ(metadata, "m");
}

TEST_P(AddNonvolatileBasedKey, MakesAKeyThatGetKeyConverts)
{
    add("n");
    uint8_t key[32] = {};
    uint32_t length = sizeof key;
    ASSERT_EQ(get_key(reinterpret_cast<const unsigned char*>(DEVICE_UID), "n", key, &length), 0U);
    EXPECT_EQ(length, 32U);
    EXPECT_EQ(std::count(key, key + 32, 0xaa), 32);
}

TEST_P(AddNonvolatileBasedKey, DoesNotLookAtTheCharactersOfTheKey)
{
    const std::string key(64, 'z');
    EXPECT_EQ(add(UID.c_str(), "n", key.c_str()), added());
    EXPECT_EQ(records_of(file_name()).at(0)[3], (Children::value_type{"key", key}));
}

TEST_P(AddNonvolatileBasedKey, GoesWithoutTheOtherFileWhenItCannotBeRead)
{
    write_records(record(UID, "a", "4", OLD_KEY));
    write_file(other_file_name(), "<keys>");
    EXPECT_EQ(add("n"), added());
    EXPECT_EQ(records_of(file_name()).back()[2], (Children::value_type{"handle", "5"}));
    std::filesystem::remove(other_file_name());
    EXPECT_EQ(add("m"), added());
    EXPECT_FALSE(std::filesystem::exists(other_file_name()));
}

// ---- Duplicates that must not be replaced ----

TEST_P(AddNonvolatileBasedKey, RefusesADuplicateAndRewritesTheFileUnchanged)
{
    const std::string records = record(UID, "a", "1", OLD_KEY) +
                                record(UID, "n", "2", OLD_KEY, "m") +
                                record(OTHER_UID, "n", "3", OLD_KEY);
    write_file(file_name(), AS_PREPARED + records + "</keys>");
    EXPECT_EQ(add("n", "other"),
              (Outcome{1, already_exists(UID, "n"), {file_name()}, FIVE_SECONDS}));
    EXPECT_EQ(read_file(file_name()), AS_SAVED + records + "</keys>\n");
}

TEST_P(AddNonvolatileBasedKey, RefusesADuplicateOfARecordDeepInTheFile)
{
    write_records("<group><group>" + record(UID, "n", "2", OLD_KEY) + "</group></group>");
    EXPECT_EQ(add("n"), (Outcome{1, already_exists(UID, "n"), {file_name()}, FIVE_SECONDS}));
    EXPECT_EQ(records_of(file_name()).size(), 1U);
}

// ---- Replacement ----

TEST_P(AddNonvolatileBasedKey, AddsAKeyThatIsNotThereAlsoWhenItMayReplace)
{
    EXPECT_EQ(replace("n", "m"), added());
    EXPECT_EQ(
        records_of(file_name()),
        (std::vector<Children>{
            {{"uid", UID}, {"key_name", "n"}, {"handle", "1"}, {"key", KEY}, {"metadata", "m"}}}));
}

TEST_P(AddNonvolatileBasedKey, ReturnsOneWithoutAMessageWhenItHasReplaced)
{
    write_records(record(UID, "n", "7", OLD_KEY, "old"));
    EXPECT_EQ(replace("n", "m"), replaced());
}

TEST_P(AddNonvolatileBasedKey, ReplacesKeyAndMetadataAndKeepsTheHandle)
{
    write_records(record(UID, "n", "7", OLD_KEY, "old"));
    replace("n", "new");
    EXPECT_EQ(records_of(file_name()), (std::vector<Children>{{{"uid", UID},
                                                               {"key_name", "n"},
                                                               {"handle", "7"},
                                                               {"key", KEY},
                                                               {"metadata", "new"}}}));
}

TEST_P(AddNonvolatileBasedKey, ReplacesInPlaceAndNothingElse)
{
    const std::string others[] = {record(UID, "a", "1", OLD_KEY, "m"),
                                  record(OTHER_UID, "n", "3", OLD_KEY),
                                  record(UID, "n", "4", OLD_KEY)};
    write_file(file_name(), AS_PREPARED + others[0] + "<group>" +
                                record(UID, "n", "2", OLD_KEY, "old") + "</group>" + others[1] +
                                others[2] + "</keys>");
    EXPECT_EQ(replace("n", "new"), replaced());
    EXPECT_EQ(read_file(file_name()), AS_SAVED + others[0] + "<group>" +
                                          record(UID, "n", "2", KEY, "new") + "</group>" +
                                          others[1] + others[2] + "</keys>\n");
}

TEST_P(AddNonvolatileBasedKey, LeavesTheMetadataAsItIsForNullMetadata)
{
    write_records(record(UID, "n", "7", OLD_KEY, "old"));
    EXPECT_EQ(replace("n", nullptr), replaced());
    EXPECT_EQ(records_of(file_name()), (std::vector<Children>{{{"uid", UID},
                                                               {"key_name", "n"},
                                                               {"handle", "7"},
                                                               {"key", KEY},
                                                               {"metadata", "old"}}}));
}

TEST_P(AddNonvolatileBasedKey, EmptiesTheMetadataForEmptyMetadata)
{
    write_records(record(UID, "n", "7", OLD_KEY, "old"));
    EXPECT_EQ(replace("n", ""), replaced());
    EXPECT_EQ(
        records_of(file_name()),
        (std::vector<Children>{
            {{"uid", UID}, {"key_name", "n"}, {"handle", "7"}, {"key", KEY}, {"metadata", ""}}}));
}

TEST_P(AddNonvolatileBasedKey, ReadsEmptiedMetadataBackAsTheEmptyText)
{
    write_records(record(UID, "n", "7", OLD_KEY, "old"));
    replace("n", "");
    char handle[16];
    char metadata[16] = "untouched";
    ASSERT_EQ(get_key_handle(UID.c_str(), "n", metadata, sizeof metadata, handle, sizeof handle),
              0U);
    EXPECT_STREQ(metadata, "");
    EXPECT_STREQ(handle, "7");
}

TEST_P(AddNonvolatileBasedKey, FillsEmptiedMetadataAgain)
{
    write_records(record(UID, "n", "7", OLD_KEY, "old"));
    replace("n", "");
    replace("n", "");
    EXPECT_EQ(replace("n", "again"), replaced());
    EXPECT_EQ(records_of(file_name()).at(0)[4], (Children::value_type{"metadata", "again"}));
}

TEST_P(AddNonvolatileBasedKey, AppendsMetadataToARecordWithoutIt)
{
    write_records(record(UID, "n", "7", OLD_KEY));
    EXPECT_EQ(replace("n", "m"), replaced());
    EXPECT_EQ(
        records_of(file_name()),
        (std::vector<Children>{
            {{"uid", UID}, {"key_name", "n"}, {"handle", "7"}, {"key", KEY}, {"metadata", "m"}}}));
}

TEST_P(AddNonvolatileBasedKey, AppendsNoEmptyMetadata)
{
    write_records(record(UID, "n", "7", OLD_KEY));
    EXPECT_EQ(replace("n", ""), replaced());
    EXPECT_EQ(replace("n", nullptr), replaced());
    EXPECT_EQ(records_of(file_name()).at(0).size(), 4U);
}

TEST_P(AddNonvolatileBasedKey, AppendsTheKeyToARecordWithoutIt)
{
    write_records("<key_content><uid>" + UID + "</uid><key_name>n</key_name></key_content>");
    EXPECT_EQ(replace("n"), replaced());
    EXPECT_EQ(records_of(file_name()),
              (std::vector<Children>{{{"uid", UID}, {"key_name", "n"}, {"key", KEY}}}));
}

TEST_P(AddNonvolatileBasedKey, AppendsTheKeyBeforeTheMetadata)
{
    write_records("<key_content><uid>" + UID + "</uid><key_name>n</key_name></key_content>");
    EXPECT_EQ(replace("n", "m"), replaced());
    EXPECT_EQ(records_of(file_name()),
              (std::vector<Children>{
                  {{"uid", UID}, {"key_name", "n"}, {"key", KEY}, {"metadata", "m"}}}));
}

TEST_P(AddNonvolatileBasedKey, ReplacesEveryKeyAndEveryMetadataOfTheRecord)
{
    write_records("<key_content><metadata>1</metadata><key>2</key><uid>" + UID +
                  "</uid><key_name>n</key_name><key>3</key><key/><metadata>4</metadata>"
                  "<metadata/></key_content>");
    EXPECT_EQ(replace("n", "m"), replaced());
    EXPECT_EQ(records_of(file_name()), (std::vector<Children>{{{"metadata", "m"},
                                                               {"key", KEY},
                                                               {"uid", UID},
                                                               {"key_name", "n"},
                                                               {"key", KEY},
                                                               {"key", KEY},
                                                               {"metadata", "m"},
                                                               {"metadata", "m"}}}));
}

TEST_P(AddNonvolatileBasedKey, ReplacesAKeyOfAnotherLength)
{
    for (const char* old : {"", "a", "0123456789"}) {
        write_records(record(UID, "n", "7", old));
        EXPECT_EQ(replace("n"), replaced()) << old;
        EXPECT_EQ(records_of(file_name()).at(0)[3], (Children::value_type{"key", KEY})) << old;
    }
}

TEST_P(AddNonvolatileBasedKey, ReplacesAKeyByItself)
{
    write_records(record(UID, "n", "7", KEY, "m"));
    EXPECT_EQ(replace("n", "m"), replaced());
    EXPECT_EQ(records_of(file_name()).at(0)[3], (Children::value_type{"key", KEY}));
}

TEST_P(AddNonvolatileBasedKey, MakesNoHandleForAReplacement)
{
    write_records(record(UID, "n", "7", OLD_KEY));
    EXPECT_EQ(
        steps_of([] { return call(UID.c_str(), "n", KEY.c_str(), nullptr, true); }),
        as_built({std::string("read ") + file_name() + BOTH_LOCKS,
                  std::string("save ") + file_name() + BOTH_LOCKS, "free", "clean up", "sleep"}));
}

// ---- Files that cannot be used ----

TEST_P(AddNonvolatileBasedKey, FailsWhenItsFileCannotBeRead)
{
    const std::string message =
        std::string("[add_nonvolatile_based_key] error: could not parse file ") + file_name() +
        "\n";
    std::filesystem::remove(file_name());
    EXPECT_EQ(add("n"), refused(message)) << "missing";
    for (const char* content : {"", "no XML", "<keys>", "<keys></keyz>", "<?xml version='1.0'?>"}) {
        write_file(file_name(), content);
        EXPECT_EQ(add("n"), refused(message)) << content;
        EXPECT_EQ(replace("n"), refused(message)) << content;
    }
    std::filesystem::remove(file_name());
    std::filesystem::create_directory(file_name());
    EXPECT_EQ(add("n"), refused(message)) << "a directory";
}

TEST_P(AddNonvolatileBasedKey, CreatesNoFile)
{
    std::filesystem::remove(PRIVATE_FILE);
    std::filesystem::remove(PUBLIC_FILE);
    add("n");
    EXPECT_TRUE(std::filesystem::is_empty("."));
}

TEST_P(AddNonvolatileBasedKey, DoesNotCleanUpAfterAFileThatCannotBeRead)
{
    std::filesystem::remove(file_name());
    EXPECT_EQ(steps_of([] { return call(UID.c_str(), "n", KEY.c_str(), nullptr, false); }),
              (Events{std::string("read ") + file_name() + BOTH_LOCKS}));
}

TEST_P(AddNonvolatileBasedKey, KeepsAMalformedFileOffStandardError)
{
    write_file(file_name(), "<keys><key>5ec7e7</keys>");
    EXPECT_EQ(complained_by([] { add("n"); }), "");
}

TEST_P(AddNonvolatileBasedKey, FailsWithoutARootElement)
{
    documents_seem_rootless = true;
    EXPECT_EQ(add("n"), refused(std::string("[add_nonvolatile_based_key] error: could retrieve "
                                            "root element after parsing file ") +
                                file_name() + "\n"));
}

TEST_P(AddNonvolatileBasedKey, FailsButSavesWhenThereIsNoHandle)
{
    write_file(file_name(), AS_PREPARED + "</keys>");
    handles_seem_too_long = true;
    const Outcome outcome = add("n");
    handles_seem_too_long = false;
    EXPECT_EQ(outcome, (Outcome{1, HANDLE_DOES_NOT_FIT + NO_HANDLE, {file_name()}, FIVE_SECONDS}));
    EXPECT_EQ(read_file(file_name()), AS_SAVED + "</keys>\n");
}

TEST_P(AddNonvolatileBasedKey, FailsButSavesWhenTheRootIsItselfARecord)
{
    const std::string root = "<key_content><uid>U</uid><key_name>n</key_name></key_content>";
    write_file(file_name(), root);
    EXPECT_EQ(add("n"), (Outcome{1,
                                 "[add_nonvolatile_based_key] error: could not add a key record\n",
                                 {file_name()},
                                 FIVE_SECONDS}));
    EXPECT_EQ(read_file(file_name()), "<?xml version=\"1.0\"?>\n" + root + "\n");
}

TEST_P(AddNonvolatileBasedKey, ReplacesTheRecordThatIsTheRoot)
{
    write_file(file_name(), "<key_content><uid>" + UID +
                                "</uid><key_name>n</key_name><key>old</key></key_content>");
    EXPECT_EQ(replace("n", "m"), replaced());
    EXPECT_EQ(records_of(file_name()),
              (std::vector<Children>{
                  {{"uid", UID}, {"key_name", "n"}, {"key", KEY}, {"metadata", "m"}}}));
}

TEST_P(AddNonvolatileBasedKey, FailsAndPausesWhenItCannotSave)
{
    write_records(record(UID, "old", "1", OLD_KEY));
    saving_fails = true;
    const Outcome failed = {1,
                            std::string("[add_nonvolatile_based_key] error: could not save file ") +
                                file_name() + "\n",
                            NOTHING, FIVE_SECONDS};
    EXPECT_EQ(add("n"), failed) << "new";
    EXPECT_EQ(replace("old"), failed) << "replaced";
    Outcome refused_and_failed = failed;
    refused_and_failed.printed = already_exists(UID, "old") + failed.printed;
    EXPECT_EQ(add("old"), refused_and_failed) << "duplicate";
}

TEST_P(AddNonvolatileBasedKey, GivesTheLocksBackWhenItCannotSave)
{
    saving_fails = true;
    add("n");
    EXPECT_FALSE(lock_is_held());
    saving_fails = false;
    EXPECT_EQ(add("n"), added());
}

// ---- Locks, parser, pause ----

TEST_P(AddNonvolatileBasedKey, HoldsTheLocksFromTheReadToTheSaveAndThenCleansUpAndPauses)
{
    const std::string file = file_name();
    EXPECT_EQ(steps_of([] { return call(UID.c_str(), "n", KEY.c_str(), nullptr, false); }),
              as_built({"read " + file + BOTH_LOCKS,
                        std::string("read key_contents_pub.xml") + BOTH_LOCKS,
                        std::string("free") + BOTH_LOCKS,
                        std::string("read key_contents_prv.xml") + BOTH_LOCKS,
                        std::string("free") + BOTH_LOCKS, "save " + file + BOTH_LOCKS, "free",
                        "clean up", "sleep"}));
}

TEST_P(AddNonvolatileBasedKey, SavesADuplicateUnderTheLocksAndThenCleansUpAndPauses)
{
    write_records(record(UID, "n", "1", OLD_KEY));
    const std::string file = file_name();
    EXPECT_EQ(steps_of([] { return call(UID.c_str(), "n", KEY.c_str(), nullptr, false); }),
              as_built({"read " + file + BOTH_LOCKS, "save " + file + BOTH_LOCKS, "free",
                        "clean up", "sleep"}));
}

TEST_P(AddNonvolatileBasedKey, GivesTheLocksBackBeforeItReportsAFileThatCannotBeUsed)
{
    const auto add_one = [] {
        return prints_with_locks_held([] { call(UID.c_str(), "n", KEY.c_str(), nullptr, false); });
    };
    documents_seem_rootless = true;
    EXPECT_FALSE(add_one()) << "no root";
    std::filesystem::remove(file_name());
    EXPECT_FALSE(add_one()) << "unreadable";
}

TEST_P(AddNonvolatileBasedKey, GivesTheLocksBackOnEveryFailure)
{
    std::filesystem::remove(file_name());
    add("n");
    EXPECT_FALSE(lock_is_held() || process_lock_is_held()) << "unreadable file";
    write_records(record(UID, "n", "1", OLD_KEY));
    documents_seem_rootless = true;
    add("n");
    EXPECT_FALSE(lock_is_held() || process_lock_is_held()) << "no root";
    documents_seem_rootless = false;
    add("n");
    EXPECT_FALSE(lock_is_held() || process_lock_is_held()) << "duplicate";
    handles_seem_too_long = true;
    add("m");
    handles_seem_too_long = false;
    EXPECT_FALSE(lock_is_held() || process_lock_is_held()) << "no handle";
    const Deadline deadline(60);
    EXPECT_EQ(add("m"), added());
}

// ---------------------------------------------------------------------------------------------
// Keys with a name of their own
// ---------------------------------------------------------------------------------------------

namespace {

struct Shortcut {
    const char* sentence;
    uint32_t (*add)(const char* uid, const char* key_hex, const char* metadata);
    std::string key_name;
};

const Shortcut SHORTCUTS[] = {{"Crk", add_crk, "crk"}, {"Csk", add_csk, "tmp_client_session_key"}};

} // namespace

class AddByShortcut : public ChangingStore, public testing::WithParamInterface<Shortcut> {
  protected:
    static Outcome add(const char* uid, const char* key_hex, const char* metadata)
    {
        return outcome_of([&] { return GetParam().add(uid, key_hex, metadata); });
    }
};

INSTANTIATE_TEST_SUITE_P(Add, AddByShortcut, testing::ValuesIn(SHORTCUTS),
                         [](const auto& test) { return test.param.sentence; });

TEST_P(AddByShortcut, AddsAKeyOfItsNameToThePrivateFile)
{
    EXPECT_EQ(add(UID.c_str(), KEY.c_str(), "m"), (Outcome{0, "", {PRIVATE_FILE}, FIVE_SECONDS}));
    EXPECT_EQ(records_of(PRIVATE_FILE), (std::vector<Children>{{{"uid", UID},
                                                                {"key_name", GetParam().key_name},
                                                                {"handle", "1"},
                                                                {"key", KEY},
                                                                {"metadata", "m"}}}));
}

TEST_P(AddByShortcut, LeavesNullMetadataOut)
{
    EXPECT_EQ(add(UID.c_str(), KEY.c_str(), nullptr),
              (Outcome{0, "", {PRIVATE_FILE}, FIVE_SECONDS}));
    EXPECT_EQ(records_of(PRIVATE_FILE).at(0).size(), 4U);
}

TEST_P(AddByShortcut, FailsWithoutAMessageForANullUid)
{
    EXPECT_EQ(add(nullptr, KEY.c_str(), "m"), (Outcome{1, "", NOTHING, NO_PAUSE}));
    EXPECT_EQ(store_events, Events());
}

TEST_P(AddByShortcut, FailsWithoutAMessageForANullKey)
{
    EXPECT_EQ(add(UID.c_str(), nullptr, "m"), (Outcome{1, "", NOTHING, NO_PAUSE}));
}

TEST_P(AddByShortcut, RefusesWrongLengths)
{
    EXPECT_EQ(add("short", KEY.c_str(), "m"), (Outcome{1, WRONG_SIZE, NOTHING, NO_PAUSE}));
    EXPECT_EQ(add(UID.c_str(), "short", "m"), (Outcome{1, WRONG_SIZE, NOTHING, NO_PAUSE}));
}

TEST_P(AddByShortcut, NeverReplaces)
{
    ASSERT_EQ(add(UID.c_str(), OLD_KEY.c_str(), "m").result, 0U);
    const std::string before = read_file(PRIVATE_FILE);
    EXPECT_EQ(add(UID.c_str(), KEY.c_str(), "other"),
              (Outcome{1, already_exists(UID, GetParam().key_name), {PRIVATE_FILE}, FIVE_SECONDS}));
    EXPECT_EQ(read_file(PRIVATE_FILE), before);
}

TEST_P(AddByShortcut, AddsAKeyForEachUid)
{
    EXPECT_EQ(add(UID.c_str(), KEY.c_str(), nullptr).result, 0U);
    EXPECT_EQ(add(OTHER_UID.c_str(), KEY.c_str(), nullptr).result, 0U);
}

TEST_P(AddByShortcut, DoesNotCareForAKeyOfItsNameInThePublicFile)
{
    write_store_file(PUBLIC_FILE, record(UID, GetParam().key_name, "1", OLD_KEY));
    EXPECT_EQ(add(UID.c_str(), KEY.c_str(), nullptr),
              (Outcome{0, "", {PRIVATE_FILE}, FIVE_SECONDS}));
}

TEST_P(AddByShortcut, FailsWhenThePrivateFileCannotBeRead)
{
    std::filesystem::remove(PRIVATE_FILE);
    EXPECT_EQ(add(UID.c_str(), KEY.c_str(), nullptr),
              (Outcome{1,
                       "[add_nonvolatile_based_key] error: could not parse file "
                       "key_contents_prv.xml\n",
                       NOTHING, NO_PAUSE}));
}

TEST_F(ChangingStore, HoldsCrkAndCskOfTheSameUid)
{
    EXPECT_EQ(add_crk(UID.c_str(), KEY.c_str(), nullptr), 0U);
    EXPECT_EQ(add_csk(UID.c_str(), OTHER_KEY.c_str(), nullptr), 0U);
    EXPECT_EQ(records_of(PRIVATE_FILE),
              (std::vector<Children>{named_record(UID, "crk", "1", KEY),
                                     named_record(UID, "tmp_client_session_key", "2", OTHER_KEY)}));
}
