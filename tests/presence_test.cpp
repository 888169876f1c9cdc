// Whether the private file holds a key.

#include "key_driver/zentrava_key_management_utils.cpp"

#include "tests/support/changing_store.h"
#include "tests/support/locks_at_print.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

namespace {

const std::string UID = DEVICE_UID;
const std::string OTHER_UID(32, 'f');
const std::string KEY(64, 'a');

const Outcome PRESENT = {1, "", {}, {}};
const Outcome ABSENT = {0, "", {}, {}};

const std::string COULD_NOT_PARSE = "[key_driver._prv_keyfile_contains_key(uid, key)] error: could "
                                    "not parse file key_contents_prv.xml\n";

// The tests of presence, each for a key name that it accepts.
struct PresenceTest {
    const char* function;
    bool (*contains)(const char* uid);
    std::string key_name;
};

const PresenceTest PRESENCE_TESTS[] = {
    {"prv_keyfile_contains_key",
     [](const char* uid) { return _prv_keyfile_contains_key(uid, "n"); }, "n"},
    {"contains_key", [](const char* uid) { return contains_key(uid, "n"); }, "n"},
    {"contains_crk", contains_crk, "crk"},
    {"contains_csk", contains_csk, "tmp_client_session_key"}};

} // namespace

class Presence : public ChangingStore, public testing::WithParamInterface<PresenceTest> {
  protected:
    static Outcome contains(const char* uid = DEVICE_UID)
    {
        return outcome_of([&] { return static_cast<uint32_t>(GetParam().contains(uid)); });
    }

    static std::string record_of_its_name(const std::string& uid = UID)
    {
        return record(uid, GetParam().key_name, "1", KEY);
    }
};

INSTANTIATE_TEST_SUITE_P(By, Presence, testing::ValuesIn(PRESENCE_TESTS),
                         [](const auto& test) { return test.param.function; });

TEST_P(Presence, SeesAKeyOfThePrivateFile)
{
    write_store_file(PRIVATE_FILE, record_of_its_name());
    EXPECT_EQ(contains(), PRESENT);
}

TEST_P(Presence, SeesAKeyThatIsNoDirectChildOfTheRootAndNotTheFirst)
{
    write_store_file(PRIVATE_FILE,
                     record(UID, "other", "2", KEY) + "<a><b>" + record_of_its_name() + "</b></a>");
    EXPECT_EQ(contains(), PRESENT);
}

TEST_P(Presence, SeesARecordWithoutKeyText)
{
    write_store_file(PRIVATE_FILE, "<key_content><uid>" + UID + "</uid><key_name>" +
                                       GetParam().key_name + "</key_name></key_content>");
    EXPECT_EQ(contains(), PRESENT);
}

TEST_P(Presence, DoesNotSeeAKeyOfAnotherUidOrName)
{
    write_store_file(PRIVATE_FILE, record_of_its_name(OTHER_UID) +
                                       record(UID, GetParam().key_name + "2", "2", KEY) +
                                       record(UID, "", "3", KEY));
    EXPECT_EQ(contains(), ABSENT);
}

TEST_P(Presence, DoesNotSeeAKeyOfThePublicFile)
{
    write_store_file(PUBLIC_FILE, record_of_its_name());
    EXPECT_EQ(contains(), ABSENT);
}

TEST_P(Presence, DoesNotSeeAVolatileKey)
{
    char handle[16];
    ASSERT_EQ(add_volatile_based_key(DEVICE_UID, GetParam().key_name.c_str(), KEY.c_str(), nullptr,
                                     handle, sizeof handle),
              0U);
    EXPECT_EQ(contains(), ABSENT);
}

TEST_P(Presence, AcceptsAUidOfAnyLength)
{
    write_store_file(PRIVATE_FILE, record_of_its_name("") + record_of_its_name("U"));
    EXPECT_EQ(contains("U"), PRESENT);
    EXPECT_EQ(contains(""), PRESENT);
    EXPECT_EQ(contains("V"), ABSENT);
}

TEST_P(Presence, DoesNotNeedThePublicFile)
{
    std::filesystem::remove(PUBLIC_FILE);
    write_store_file(PRIVATE_FILE, record_of_its_name());
    EXPECT_EQ(contains(), PRESENT);
}

TEST_P(Presence, IsNotGivenInAFileThatCannotBeRead)
{
    const Outcome unreadable = {0, COULD_NOT_PARSE, {}, {}};
    for (const char* content : {"", "no XML", "<keys>", "<keys></keyz>"}) {
        write_file(PRIVATE_FILE, content);
        EXPECT_EQ(contains(), unreadable) << content;
        EXPECT_FALSE(lock_is_held()) << content;
    }
    std::filesystem::remove(PRIVATE_FILE);
    EXPECT_EQ(contains(), unreadable);
    EXPECT_FALSE(std::filesystem::exists(PRIVATE_FILE));
}

TEST_P(Presence, IsNotGivenWithoutARoot)
{
    write_store_file(PRIVATE_FILE, record_of_its_name());
    documents_seem_rootless = true;
    EXPECT_EQ(contains(), ABSENT);
    EXPECT_FALSE(lock_is_held());
}

TEST_P(Presence, IsLookedForWithTheMutexHeldDuringTheReadOnlyAndWithoutCleaningUp)
{
    write_store_file(PRIVATE_FILE, record_of_its_name());
    contains();
    const Events searched = {"read key_contents_prv.xml, locked", "search", "free"};
    EXPECT_EQ(store_events, searched) << "present";
    contains("V");
    EXPECT_EQ(store_events, searched) << "absent";
    write_file(PRIVATE_FILE, "");
    contains();
    EXPECT_EQ(steps(), Events{"read key_contents_prv.xml, locked"}) << "unreadable";
}

TEST_P(Presence, IsLookedForWithTheMutexGivenBackBeforeAFileIsReported)
{
    write_file(PRIVATE_FILE, "");
    EXPECT_FALSE(prints_with_locks_held([] { GetParam().contains(DEVICE_UID); }));
}

TEST_P(Presence, KeepsAMalformedFileOffStandardError)
{
    write_file(PRIVATE_FILE, "<keys><key>5ec7e7</keys>");
    EXPECT_EQ(complained_by([] { contains(); }), "");
}

// ---- Names ----

using PresenceByName = ChangingStore;

TEST_F(PresenceByName, GoesForTheWholeNameAndForTheEmptyOne)
{
    write_store_file(PRIVATE_FILE, record(UID, "name", "1", KEY));
    for (const char* name : {"nam", "name ", "NAME", ""}) {
        EXPECT_FALSE(contains_key(DEVICE_UID, name)) << name;
        EXPECT_FALSE(_prv_keyfile_contains_key(DEVICE_UID, name)) << name;
    }
    write_store_file(PRIVATE_FILE, record(UID, "", "1", KEY));
    EXPECT_TRUE(contains_key(DEVICE_UID, ""));
    EXPECT_TRUE(_prv_keyfile_contains_key(DEVICE_UID, ""));
}

// ---- Null arguments ----

using PresenceOfNullArguments = ChangingStore;
using PresenceOfNullArgumentsDeathTest = ChangingStore;

static const char* const PRESENCE_ASSERTION =
    ": key_driver/zentrava_key_management_utils\\.cpp:[0-9]+: .*_prv_keyfile_contains_key.*: "
    "Assertion `uid != NULL && key_name != NULL' failed\\.";

TEST_F(PresenceOfNullArgumentsDeathTest, FailsAnAssertionInTheInternalTest)
{
    EXPECT_DEATH(_prv_keyfile_contains_key(nullptr, "n"), PRESENCE_ASSERTION);
    EXPECT_DEATH(_prv_keyfile_contains_key("U", nullptr), PRESENCE_ASSERTION);
}

TEST_F(PresenceOfNullArguments, IsReportedByContainsCrkUnderTheNameOfContainsCsk)
{
    EXPECT_EQ(outcome_of([] { return contains_crk(nullptr); }),
              (Outcome{0, "[key_driver.contains_csk] ERROR input uid is NULL", {}, {}}));
    EXPECT_EQ(store_events, Events());
}

TEST_F(PresenceOfNullArguments, IsReportedByContainsCsk)
{
    EXPECT_EQ(outcome_of([] { return contains_csk(nullptr); }),
              (Outcome{0, "[key_driver.contains_csk] ERROR input uid is NULL", {}, {}}));
    EXPECT_EQ(store_events, Events());
}

TEST_F(PresenceOfNullArguments, IsReportedByContainsKeyUnderTheNameOfContainsCsk)
{
    const Outcome reported = {
        0, "[key_driver.contains_csk] ERROR input uid or keyname is NULL", {}, {}};
    EXPECT_EQ(outcome_of([] { return contains_key(nullptr, "n"); }), reported) << "uid";
    EXPECT_EQ(outcome_of([] { return contains_key("U", nullptr); }), reported) << "key name";
    EXPECT_EQ(outcome_of([] { return contains_key(nullptr, nullptr); }), reported) << "both";
    EXPECT_EQ(store_events, Events());
}
