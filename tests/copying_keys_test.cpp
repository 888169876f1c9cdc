// Copying keys within the private file: under another name, and over the text of an "srk".

#include "tests/support/handle_failure.h"

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
const std::string OLD_KEY(64, '0');

const std::string BOTH_LOCKS = ", locked, locked between processes";

const FileNames NOTHING = {};
const Pauses NO_PAUSE = {};

// A declaration that libxml2 writes otherwise, so that a file that is saved unchanged differs.
const std::string AS_PREPARED = "<?xml version='1.0'?>\n<keys>\n";
const std::string AS_SAVED = "<?xml version=\"1.0\"?>\n<keys>\n";

// Nothing but the private file is ever saved, and there is no pause.
const Outcome SAVED = {0, "", {PRIVATE_FILE}, NO_PAUSE};

Outcome refused_but_saved(const std::string& printed)
{
    return {1, printed, {PRIVATE_FILE}, NO_PAUSE};
}

Outcome refused(const std::string& printed)
{
    return {1, printed, NOTHING, NO_PAUSE};
}

void write_private(const std::string& records)
{
    write_store_file(PRIVATE_FILE, records);
}

const char* const UNREADABLE[] = {"", "no XML", "<keys>", "<keys></keyz>"};

} // namespace

// ---------------------------------------------------------------------------------------------
// Under another name
// ---------------------------------------------------------------------------------------------

class CopyPrivateKey : public ChangingStore {
  protected:
    static Outcome copy(const std::string& uid, const std::string& key_name,
                        const std::string& copy_name)
    {
        return outcome_of(
            [&] { return copy_private_key(uid.c_str(), key_name.c_str(), copy_name.c_str()); });
    }

    static Outcome copy(const std::string& key_name, const std::string& copy_name)
    {
        return copy(UID, key_name, copy_name);
    }

    static std::string already_exists(const std::string& uid, const std::string& copy_name)
    {
        return "[copy_prv_key] error: Cannot add key for uid 0x" + uid + " and key name " +
               copy_name + "! Key with same uid and key_name already exists\n";
    }

    static std::string no_key(const std::string& uid, const std::string& key_name)
    {
        return "[copy_prv_key] error: no key with found with  uid=" + uid +
               "; key name=" + key_name + "\n";
    }

    static std::string no_key_data(const std::string& uid, const std::string& key_name)
    {
        return "[copy_prv_key] error: Failed to extract key data from key with uid=" + uid +
               "; key name=" + key_name + "\n";
    }
};

// ---- Arguments ----

TEST_F(CopyPrivateKey, FailsWithoutAMessageForANullArgument)
{
    write_private(record(UID, "n", "1", KEY));
    EXPECT_EQ(outcome_of([] { return copy_private_key(nullptr, "n", "c"); }), refused("")) << "uid";
    EXPECT_EQ(outcome_of([] { return copy_private_key(DEVICE_UID, nullptr, "c"); }), refused(""))
        << "key name";
    EXPECT_EQ(outcome_of([] { return copy_private_key(DEVICE_UID, "n", nullptr); }), refused(""))
        << "copy name";
    EXPECT_EQ(outcome_of([] { return copy_private_key("", nullptr, "c"); }), refused(""))
        << "before the uid's length";
    EXPECT_EQ(store_events, Events());
}

TEST_F(CopyPrivateKey, RefusesAnEmptyUidBeforeItTouchesTheFile)
{
    write_private(record("", "n", "1", KEY));
    EXPECT_EQ(copy("", "n", "c"),
              refused("[copy_prv_key] error: length of input parameter uid is not valid\n"));
    EXPECT_EQ(store_events, Events());
}

TEST_F(CopyPrivateKey, LooksAtTheLengthOfTheUidBeforeItLooksAtTheTexts)
{
    EXPECT_EQ(copy("", "n", "\xFF"),
              refused("[copy_prv_key] error: length of input parameter uid is not valid\n"));
}

TEST_F(CopyPrivateKey, TakesNoLockForArgumentsThatItRefuses)
{
    const Deadline deadline(60);
    pthread_mutex_lock(&lock);
    EXPECT_EQ(copy_private_key(nullptr, "n", "c"), 1U);
    EXPECT_EQ(copy("", "n", "c").result, 1U);
    pthread_mutex_unlock(&lock);
}

TEST_F(CopyPrivateKey, AcceptsAUidOfAnyLength)
{
    write_private(record("U", "n", "1", KEY));
    EXPECT_EQ(copy("U", "n", "c"), SAVED);
}

// ---- Copying ----

TEST_F(CopyPrivateKey, ReturnsZeroWithoutAMessageAndTouchesThePrivateFileOnly)
{
    write_private(record(UID, "n", "1", KEY));
    EXPECT_EQ(copy("n", "c"), SAVED);
}

TEST_F(CopyPrivateKey, WritesTheChildrenInOrderWithANewHandleAndWithoutMetadata)
{
    write_private(record(UID, "n", "5", KEY, "some metadata"));
    copy("n", "c");
    const std::vector<Children> records = records_of(PRIVATE_FILE);
    ASSERT_EQ(records.size(), 2U);
    EXPECT_EQ(records[1],
              (Children{{"uid", UID}, {"key_name", "c"}, {"handle", "6"}, {"key", KEY}}));
}

TEST_F(CopyPrivateKey, AppendsTheCopyAndChangesNothingElse)
{
    const std::string records = "<!-- comment --><group>" + record(UID, "n", "5", KEY, "m") +
                                "</group>" + record(OTHER_UID, "c", "3", OLD_KEY) + "<?pi data?>";
    write_file(PRIVATE_FILE, AS_PREPARED + records + "</keys>");
    EXPECT_EQ(copy("n", "c"), SAVED);
    const std::string expected = record(UID, "c", "4", KEY);
    EXPECT_EQ(read_file(PRIVATE_FILE),
              AS_SAVED + records + expected.substr(0, expected.size() - 1) + "</keys>\n");
}

TEST_F(CopyPrivateKey, CopiesAKeyTextOfAnyLengthExactly)
{
    for (const std::string key : {"a", "AbC", "no hexadecimal", " 00 ", "&amp;&#13;"}) {
        write_private(record(UID, "n", "5", key));
        EXPECT_EQ(copy("n", "c"), SAVED) << key;
        const std::vector<Children> records = records_of(PRIVATE_FILE);
        ASSERT_EQ(records.size(), 2U);
        EXPECT_EQ(records[1][3].second, records[0][3].second) << key;
    }
}

TEST_F(CopyPrivateKey, CopiesTheFirstOfTwoRecordsOfTheSameName)
{
    write_private(record(UID, "n", "1", KEY) + record(UID, "n", "2", OLD_KEY));
    EXPECT_EQ(copy("n", "c"), SAVED);
    EXPECT_EQ(records_of(PRIVATE_FILE).at(2)[3].second, KEY);
}

TEST_F(CopyPrivateKey, TakesTheHandleAfterTheLargestOfAllThreePlaces)
{
    write_private(record(UID, "n", "1", KEY));
    write_store_file(PUBLIC_FILE, record(UID, "n", "7", OLD_KEY));
    EXPECT_EQ(copy("n", "c"), SAVED);
    EXPECT_EQ(records_of(PRIVATE_FILE).at(1)[2].second, "8");
    char handle[16];
    ASSERT_EQ(add_volatile_key("ab", handle, sizeof handle), 0U);
    EXPECT_EQ(copy("n", "d"), SAVED);
    EXPECT_EQ(records_of(PRIVATE_FILE).at(2)[2].second, "10");
}

TEST_F(CopyPrivateKey, MakesAKeyOfItsOwn)
{
    write_private(record(UID, "n", "1", KEY));
    copy("n", "c");
    EXPECT_EQ(delete_key_by_key_type(DEVICE_UID, "n"), 0U);
    EXPECT_FALSE(contains_key(DEVICE_UID, "n"));
    EXPECT_TRUE(contains_key(DEVICE_UID, "c"));
    EXPECT_EQ(copy("c", "n"), SAVED);
}

TEST_F(CopyPrivateKey, CopiesFromAndToTheEmptyName)
{
    write_private(record(UID, "n", "1", KEY));
    EXPECT_EQ(copy("n", ""), SAVED);
    EXPECT_EQ(copy("", "c"), SAVED);
    EXPECT_EQ(copy("n", ""), refused(already_exists(UID, "")));
}

TEST_F(CopyPrivateKey, DoesNotCareForThePublicFileNorTheVolatileTree)
{
    write_private(record(UID, "n", "1", KEY));
    write_store_file(PUBLIC_FILE, record(UID, "c", "2", OLD_KEY));
    char handle[16];
    add_volatile_based_key(DEVICE_UID, "c", OLD_KEY.c_str(), nullptr, handle, sizeof handle);
    EXPECT_EQ(copy("n", "c"), SAVED);
    EXPECT_EQ(volatile_records().size(), 1U);
}

TEST_F(CopyPrivateKey, GoesWithoutThePublicFileWhenItCannotBeRead)
{
    write_private(record(UID, "n", "1", KEY));
    std::filesystem::remove(PUBLIC_FILE);
    EXPECT_EQ(copy("n", "c"), SAVED);
    EXPECT_EQ(records_of(PRIVATE_FILE).at(1)[2].second, "2");
}

// ---- Failures ----

TEST_F(CopyPrivateKey, RefusesANameThatExistsAndTouchesNothing)
{
    write_file(PRIVATE_FILE, AS_PREPARED + record(UID, "n", "1", KEY) +
                                 record(UID, "c", "2", OLD_KEY) + "</keys>");
    EXPECT_EQ(copy("n", "c"), refused(already_exists(UID, "c")));
    EXPECT_EQ(copy("n", "n"), refused(already_exists(UID, "n"))) << "onto itself";
    EXPECT_FALSE(lock_is_held() || process_lock_is_held());
}

TEST_F(CopyPrivateKey, LooksForTheNameOfTheCopyBeforeItLooksForTheKey)
{
    write_private(record(UID, "c", "2", OLD_KEY));
    EXPECT_EQ(copy("missing", "c"), refused(already_exists(UID, "c")));
}

TEST_F(CopyPrivateKey, ReportsAKeyThatIsNotThereAndRewritesTheFileUnchanged)
{
    const std::string records =
        record(UID, "n", "1", KEY, "m") + record(OTHER_UID, "missing", "2", OLD_KEY);
    write_file(PRIVATE_FILE, AS_PREPARED + records + "</keys>");
    EXPECT_EQ(copy("missing", "c"), refused_but_saved(no_key(UID, "missing")));
    EXPECT_EQ(read_file(PRIVATE_FILE), AS_SAVED + records + "</keys>\n");
}

TEST_F(CopyPrivateKey, FindsNoKeyOfThePublicFile)
{
    write_store_file(PUBLIC_FILE, record(UID, "n", "1", KEY));
    EXPECT_EQ(copy("n", "c"), refused_but_saved(no_key(UID, "n")));
}

TEST_F(CopyPrivateKey, FindsNoVolatileKey)
{
    char handle[16];
    add_volatile_based_key(DEVICE_UID, "n", KEY.c_str(), nullptr, handle, sizeof handle);
    EXPECT_EQ(copy("n", "c"), refused_but_saved(no_key(UID, "n")));
}

TEST_F(CopyPrivateKey, FailsWithoutKeyTextAndTouchesNothing)
{
    const std::string uid_and_name = "<uid>" + UID + "</uid><key_name>n</key_name>";
    for (const char* key : {"", "<key/>", "<key></key>", "<key/><key></key>"}) {
        write_file(PRIVATE_FILE,
                   AS_PREPARED + "<key_content>" + uid_and_name + key + "</key_content></keys>");
        EXPECT_EQ(copy("n", "c"), refused(no_key_data(UID, "n"))) << key;
        EXPECT_FALSE(lock_is_held() || process_lock_is_held()) << key;
    }
}

TEST_F(CopyPrivateKey, CopiesTheFirstKeyElementThatHasAText)
{
    write_private("<key_content><uid>" + UID + "</uid><key_name>n</key_name><key/><key>ab</key>" +
                  "<key>cd</key></key_content>");
    EXPECT_EQ(copy("n", "c"), SAVED);
    EXPECT_EQ(records_of(PRIVATE_FILE).at(1)[3].second, "ab");
}

TEST_F(CopyPrivateKey, FailsWhenThePrivateFileCannotBeRead)
{
    const std::string message = "[copy_prv_key] error: could not parse file key_contents_prv.xml\n";
    for (const char* content : UNREADABLE) {
        write_file(PRIVATE_FILE, content);
        EXPECT_EQ(copy("n", "c"), refused(message)) << content;
        EXPECT_FALSE(lock_is_held() || process_lock_is_held()) << content;
    }
    std::filesystem::remove(PRIVATE_FILE);
    EXPECT_EQ(copy("n", "c"), refused(message));
    EXPECT_FALSE(std::filesystem::exists(PRIVATE_FILE));
}

TEST_F(CopyPrivateKey, FailsWithoutARootElement)
{
    documents_seem_rootless = true;
    EXPECT_EQ(copy("n", "c"),
              refused("[copy_prv_key] error: could retrieve root element after parsing file "
                      "key_contents_prv.xml\n"));
    EXPECT_FALSE(lock_is_held() || process_lock_is_held());
}

TEST_F(CopyPrivateKey, FailsButSavesWhenThereIsNoHandle)
{
    write_file(PRIVATE_FILE, AS_PREPARED + record(UID, "n", "1", KEY) + "</keys>");
    handles_seem_too_long = true;
    const Outcome outcome = copy("n", "c");
    handles_seem_too_long = false;
    EXPECT_EQ(outcome,
              refused_but_saved("error: size of output buffer for handle is not large enough\n"
                                "[copy_prv_key] error: could not get new key handle\n"));
    EXPECT_EQ(read_file(PRIVATE_FILE), AS_SAVED + record(UID, "n", "1", KEY) + "</keys>\n");
    EXPECT_FALSE(lock_is_held() || process_lock_is_held());
}

TEST_F(CopyPrivateKey, FailsWhenTheRootIsItselfTheRecord)
{
    std::string root = record(UID, "n", "1", KEY);
    write_file(PRIVATE_FILE, root);
    EXPECT_EQ(copy("n", "c"), refused("[copy_prv_key] error: could not add a key record\n"));
    EXPECT_EQ(records_of(PRIVATE_FILE).size(), 1U);
}

TEST_F(CopyPrivateKey, FailsWhenItCannotSave)
{
    const std::string message = "[copy_prv_key] error: could not save file key_contents_prv.xml\n";
    write_private(record(UID, "n", "1", KEY));
    saving_fails = true;
    EXPECT_EQ(copy("n", "c"), refused(message));
    EXPECT_FALSE(lock_is_held() || process_lock_is_held());
    EXPECT_EQ(copy("missing", "c"), refused(no_key(UID, "missing") + message));
    EXPECT_FALSE(lock_is_held() || process_lock_is_held());
}

// ---- Locks and parser ----

TEST_F(CopyPrivateKey, HoldsTheLocksFromTheReadToTheSaveAndThenCleansUp)
{
    write_private(record(UID, "n", "1", KEY));
    EXPECT_EQ(steps_of([] { return copy_private_key(DEVICE_UID, "n", "c"); }),
              as_built({"read key_contents_prv.xml" + BOTH_LOCKS,
                        "read key_contents_pub.xml" + BOTH_LOCKS, "free" + BOTH_LOCKS,
                        "read key_contents_prv.xml" + BOTH_LOCKS, "free" + BOTH_LOCKS,
                        "save key_contents_prv.xml" + BOTH_LOCKS, "free", "clean up"}));
}

TEST_F(CopyPrivateKey, GivesTheLocksBackBeforeItReportsAFailureThatSavesNothing)
{
    const auto copy_over = [] {
        return prints_with_locks_held([] { copy_private_key(DEVICE_UID, "n", "c"); });
    };
    EXPECT_TRUE(copy_over()) << "no such key: the file is saved";
    write_private(record(UID, "c", "1", KEY));
    EXPECT_FALSE(copy_over()) << "the name exists";
    write_private(record(UID, "n", "1", ""));
    EXPECT_FALSE(copy_over()) << "no key text";
    saving_fails = true;
    write_private(record(UID, "n", "1", KEY));
    EXPECT_FALSE(copy_over()) << "cannot save";
    documents_seem_rootless = true;
    EXPECT_FALSE(copy_over()) << "no root";
    write_file(PRIVATE_FILE, "");
    EXPECT_FALSE(copy_over()) << "unreadable";
}

TEST_F(CopyPrivateKey, CleansUpWhenTheNameExists)
{
    write_private(record(UID, "c", "1", KEY));
    EXPECT_EQ(steps_of([] { return copy_private_key(DEVICE_UID, "n", "c"); }),
              as_built({"read key_contents_prv.xml" + BOTH_LOCKS, "free", "clean up"}));
}

TEST_F(CopyPrivateKey, CleansUpWhenTheKeyIsNotThere)
{
    EXPECT_EQ(steps_of([] { return copy_private_key(DEVICE_UID, "n", "c"); }),
              as_built({"read key_contents_prv.xml" + BOTH_LOCKS,
                        "save key_contents_prv.xml" + BOTH_LOCKS, "free", "clean up"}));
}

TEST_F(CopyPrivateKey, CleansUpWhenThereIsNoKeyText)
{
    write_private(record(UID, "n", "1", ""));
    EXPECT_EQ(steps_of([] { return copy_private_key(DEVICE_UID, "n", "c"); }),
              as_built({"read key_contents_prv.xml" + BOTH_LOCKS, "free", "clean up"}));
}

TEST_F(CopyPrivateKey, CleansUpWithoutARoot)
{
    documents_seem_rootless = true;
    EXPECT_EQ(steps_of([] { return copy_private_key(DEVICE_UID, "n", "c"); }),
              as_built({"read key_contents_prv.xml" + BOTH_LOCKS, "free", "clean up"}));
}

TEST_F(CopyPrivateKey, DoesNotCleanUpAfterAFileThatCannotBeRead)
{
    write_file(PRIVATE_FILE, "");
    EXPECT_EQ(steps_of([] { return copy_private_key(DEVICE_UID, "n", "c"); }),
              Events{"read key_contents_prv.xml" + BOTH_LOCKS});
}

// ---------------------------------------------------------------------------------------------
// Over the text of an "srk"
// ---------------------------------------------------------------------------------------------

class SetNewSrkKeyData : public ChangingStore {
  protected:
    static Outcome overwrite(const char* uid, const char* handle)
    {
        return outcome_of([&] { return set_new_srk_key_data_for_uid(uid, handle); });
    }

    static Outcome overwrite(const char* handle)
    {
        return overwrite(DEVICE_UID, handle);
    }

    static std::string tagged(const std::string& text)
    {
        return "[key_driver.set_new_srk_key_data_for_uid] error: " + text + "\n";
    }
};

TEST_F(SetNewSrkKeyData, OverwritesTheKeyTextAndTouchesThePrivateFileOnly)
{
    write_private(record(UID, "srk", "1", OLD_KEY) + record(UID, "n", "2", KEY));
    EXPECT_EQ(overwrite("2"), SAVED);
    EXPECT_EQ(records_of(PRIVATE_FILE).at(0)[3].second, KEY);
}

TEST_F(SetNewSrkKeyData, KeepsHandleAndMetadataAndChangesNothingElse)
{
    const std::string before = "<!-- comment -->" + record(OTHER_UID, "srk", "1", OLD_KEY);
    const std::string after =
        record(UID, "n", "3", KEY, "other") + record(UID, "srk", "4", OLD_KEY);
    write_file(PRIVATE_FILE,
               AS_PREPARED + before + record(UID, "srk", "2", OLD_KEY, "m") + after + "</keys>");
    EXPECT_EQ(overwrite("3"), SAVED);
    EXPECT_EQ(read_file(PRIVATE_FILE),
              AS_SAVED + before + record(UID, "srk", "2", KEY, "m") + after + "</keys>\n");
}

TEST_F(SetNewSrkKeyData, TakesTheTextOfARecordOfAnyUidAndName)
{
    write_private(record(UID, "srk", "1", OLD_KEY) + record("V", "", "2", "short") +
                  "<key_content><handle>3</handle><key>bare</key></key_content>");
    EXPECT_EQ(overwrite("2"), SAVED);
    EXPECT_EQ(records_of(PRIVATE_FILE).at(0)[3].second, "short");
    EXPECT_EQ(overwrite("3"), SAVED);
    EXPECT_EQ(records_of(PRIVATE_FILE).at(0)[3].second, "bare");
}

TEST_F(SetNewSrkKeyData, TakesTheTextExactly)
{
    write_private(record(UID, "srk", "1", OLD_KEY) +
                  record(UID, "n", "2", " &lt;&amp;&#13;&#10;\xC3\xA9 "));
    EXPECT_EQ(overwrite("2"), SAVED);
    EXPECT_EQ(records_of(PRIVATE_FILE).at(0)[3].second, " <&\r\n\xC3\xA9 ");
}

TEST_F(SetNewSrkKeyData, OverwritesTheSrkByItself)
{
    write_private(record(UID, "srk", "1", KEY));
    EXPECT_EQ(overwrite("1"), SAVED);
    EXPECT_EQ(records_of(PRIVATE_FILE).at(0)[3].second, KEY);
}

TEST_F(SetNewSrkKeyData, AcceptsAnEmptyText)
{
    for (const char* empty : {"<![CDATA[]]>", "<!-- comment -->"}) {
        write_private(record(UID, "srk", "1", OLD_KEY) + record(UID, "n", "2", empty));
        EXPECT_EQ(overwrite("2"), SAVED) << empty;
        EXPECT_EQ(records_of(PRIVATE_FILE).at(0)[3].second, "") << empty;
    }
}

TEST_F(SetNewSrkKeyData, FillsAnEmptiedKeyAgain)
{
    write_private(record(UID, "srk", "1", OLD_KEY) + record(UID, "n", "2", "<!-- comment -->") +
                  record(UID, "m", "3", KEY));
    ASSERT_EQ(overwrite("2"), SAVED);
    char text[128];
    uint32_t length = sizeof text;
    printed_by(
        [&] { EXPECT_EQ(export_prv_key_in_clear_as_hex(DEVICE_UID, "srk", text, &length), 1U); });
    EXPECT_EQ(overwrite("3"), SAVED);
    ASSERT_EQ(export_prv_key_in_clear_as_hex(DEVICE_UID, "srk", text, &length), 0U);
    EXPECT_EQ(text, KEY);
}

TEST_F(SetNewSrkKeyData, OverwritesTheFirstKeyElementOfTheSrkOnly)
{
    write_private("<key_content><key/><uid>" + UID +
                  "</uid><key_name>srk</key_name><key>second</key></key_content>" +
                  record(UID, "n", "2", KEY));
    EXPECT_EQ(overwrite("2"), SAVED);
    EXPECT_EQ(records_of(PRIVATE_FILE).at(0),
              (Children{{"key", KEY}, {"uid", UID}, {"key_name", "srk"}, {"key", "second"}}));
}

TEST_F(SetNewSrkKeyData, FindsTheHandleAtAnyDepth)
{
    write_private("<a>" + record(UID, "srk", "1", OLD_KEY) + "</a><b><c>" +
                  record(UID, "n", "2", KEY) + "</c></b>");
    EXPECT_EQ(overwrite("2"), SAVED);
    EXPECT_EQ(records_of(PRIVATE_FILE).at(0)[3].second, KEY);
}

TEST_F(SetNewSrkKeyData, FailsWhenThePrivateFileCannotBeRead)
{
    const std::string message = tagged("could not parse file key_contents_prv.xml");
    for (const char* content : UNREADABLE) {
        write_file(PRIVATE_FILE, content);
        EXPECT_EQ(overwrite("2"), refused(message)) << content;
        EXPECT_FALSE(lock_is_held() || process_lock_is_held()) << content;
    }
    std::filesystem::remove(PRIVATE_FILE);
    EXPECT_EQ(overwrite("2"), refused(message));
    EXPECT_FALSE(std::filesystem::exists(PRIVATE_FILE));
}

TEST_F(SetNewSrkKeyData, FailsWithoutARootElement)
{
    write_private(record(UID, "srk", "1", OLD_KEY));
    documents_seem_rootless = true;
    EXPECT_EQ(overwrite("1"), refused(tagged("Failed to find key type 'srk' for UID " + UID)));
    EXPECT_FALSE(lock_is_held() || process_lock_is_held());
}

TEST_F(SetNewSrkKeyData, FailsWithoutAnSrk)
{
    write_private(record(UID, "n", "2", KEY) + record(OTHER_UID, "srk", "3", KEY));
    write_store_file(PUBLIC_FILE, record(UID, "srk", "1", OLD_KEY));
    EXPECT_EQ(overwrite("2"), refused(tagged("Failed to find key type 'srk' for UID " + UID)));
    EXPECT_FALSE(lock_is_held() || process_lock_is_held());
}

TEST_F(SetNewSrkKeyData, FailsForAHandleThatIsNotThere)
{
    write_private(record(UID, "srk", "1", OLD_KEY));
    EXPECT_EQ(overwrite("2"), refused(tagged("Failed to find key with handle 2")));
    EXPECT_FALSE(lock_is_held() || process_lock_is_held());
}

TEST_F(SetNewSrkKeyData, FailsForAHandleOfThePublicFile)
{
    write_private(record(UID, "srk", "1", OLD_KEY));
    write_store_file(PUBLIC_FILE, record(UID, "n", "2", KEY));
    EXPECT_EQ(overwrite("2"), refused(tagged("Failed to find key with handle 2")));
}

TEST_F(SetNewSrkKeyData, FailsForAVolatileHandle)
{
    write_private(record(UID, "srk", "1", OLD_KEY));
    char handle[16];
    ASSERT_EQ(add_volatile_key(KEY.c_str(), handle, sizeof handle), 0U);
    EXPECT_EQ(overwrite(handle),
              refused(tagged(std::string("Failed to find key with handle ") + handle)));
}

TEST_F(SetNewSrkKeyData, NamesTheHandleWhenTheSrkHasNoKeyElement)
{
    for (const char* srk : {"", "<handle>1</handle>", "<keys>ab</keys>", "<?key ab?>"}) {
        write_private("<key_content><uid>" + UID + "</uid><key_name>srk</key_name>" + srk +
                      "</key_content>" + record(UID, "n", "2", KEY));
        EXPECT_EQ(overwrite("2"), refused(tagged("Missing key data for handle 2"))) << srk;
        EXPECT_FALSE(lock_is_held() || process_lock_is_held()) << srk;
    }
}

TEST_F(SetNewSrkKeyData, NamesTheUidWhenTheOtherRecordHasNoKeyText)
{
    for (const char* key : {"", "<key/>", "<key></key>"}) {
        write_private(record(UID, "srk", "1", OLD_KEY) + "<key_content><handle>2</handle>" + key +
                      "</key_content>");
        EXPECT_EQ(overwrite("2"), refused(tagged("Missing key data field for srk with UID " + UID)))
            << key;
        EXPECT_FALSE(lock_is_held() || process_lock_is_held()) << key;
    }
}

TEST_F(SetNewSrkKeyData, LooksForTheSrkThenTheHandleThenTheElement)
{
    EXPECT_EQ(overwrite("2"), refused(tagged("Failed to find key type 'srk' for UID " + UID)));
    write_private("<key_content><uid>" + UID + "</uid><key_name>srk</key_name></key_content>");
    EXPECT_EQ(overwrite("2"), refused(tagged("Failed to find key with handle 2")));
    write_private("<key_content><uid>" + UID +
                  "</uid><key_name>srk</key_name></key_content>"
                  "<key_content><handle>2</handle></key_content>");
    EXPECT_EQ(overwrite("2"), refused(tagged("Missing key data for handle 2")));
}

TEST_F(SetNewSrkKeyData, FindsNothingForNullArguments)
{
    write_private(record(UID, "srk", "1", OLD_KEY));
    EXPECT_EQ(overwrite(nullptr, "1"),
              refused(tagged("Failed to find key type 'srk' for UID (null)")));
    EXPECT_EQ(overwrite(DEVICE_UID, nullptr),
              refused(tagged("Failed to find key with handle (null)")));
}

TEST_F(SetNewSrkKeyData, FailsWhenItCannotSave)
{
    write_private(record(UID, "srk", "1", OLD_KEY) + record(UID, "n", "2", KEY));
    saving_fails = true;
    EXPECT_EQ(overwrite("2"), refused(tagged("could not save file key_contents_prv.xml")));
    EXPECT_FALSE(lock_is_held() || process_lock_is_held());
}

// ---- Locks and parser ----

TEST_F(SetNewSrkKeyData, HoldsTheLocksFromTheReadToTheSaveAndThenCleansUp)
{
    write_private(record(UID, "srk", "1", OLD_KEY) + record(UID, "n", "2", KEY));
    EXPECT_EQ(steps_of([] { return set_new_srk_key_data_for_uid(DEVICE_UID, "2"); }),
              as_built({"read key_contents_prv.xml" + BOTH_LOCKS,
                        "save key_contents_prv.xml" + BOTH_LOCKS, "free", "clean up"}));
}

TEST_F(SetNewSrkKeyData, GivesTheLocksBackBeforeItReportsAFailure)
{
    const auto overwrite_by = [](const std::string& records) {
        write_private(records);
        return prints_with_locks_held([] { set_new_srk_key_data_for_uid(DEVICE_UID, "2"); });
    };
    const std::string srk = record(UID, "srk", "1", OLD_KEY);
    EXPECT_FALSE(overwrite_by("")) << "no srk";
    EXPECT_FALSE(overwrite_by(srk)) << "no such handle";
    EXPECT_FALSE(overwrite_by("<key_content><uid>" + UID +
                              "</uid><key_name>srk</key_name></key_content>" +
                              record(UID, "n", "2", KEY)))
        << "no key element";
    EXPECT_FALSE(overwrite_by(srk + record(UID, "n", "2", ""))) << "no key text";
    EXPECT_FALSE(overwrite_by("<")) << "unreadable";
    saving_fails = true;
    EXPECT_FALSE(overwrite_by(srk + record(UID, "n", "2", KEY))) << "cannot save";
}

TEST_F(SetNewSrkKeyData, DoesNotCleanUpWhenItFails)
{
    const auto steps = [] {
        return steps_of([] { return set_new_srk_key_data_for_uid(DEVICE_UID, "2"); });
    };
    const Events read_only = {"read key_contents_prv.xml" + BOTH_LOCKS, "free"};
    EXPECT_EQ(steps(), read_only) << "no srk";
    write_private(record(UID, "srk", "1", OLD_KEY));
    EXPECT_EQ(steps(), read_only) << "no such handle";
    write_private(record(UID, "srk", "1", OLD_KEY) + record(UID, "n", "2", ""));
    EXPECT_EQ(steps(), read_only) << "no key text";
    write_file(PRIVATE_FILE, "");
    EXPECT_EQ(steps(), Events{"read key_contents_prv.xml" + BOTH_LOCKS}) << "unreadable";
}
