// Looking up a key by UID and name: which file wins, what is written, printed, locked and released.

#include "key_driver/zentrava_key_management_utils.cpp"

#include "support/deadline.h"
#include "support/libxml2_memory.h"
#include "support/locks_at_print.h"
#include "support/printed.h"
#include "support/small_stack.h"
#include "support/store_directory.h"
#include "support/store_watch.h"
#include "support/xml_document.h"

#include <gtest/gtest.h>
#include <libxml/xmlerror.h>
#include <openssl/crypto.h>

#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <future>
#include <string>
#include <vector>

using Bytes = std::vector<uint8_t>;

static const char* const NOT_FOUND = "[get_key] error: can't find key\n";
static const char* const PRIVATE_UNREADABLE =
    "[get_key] error: could not parse file key_contents_prv.xml\n";
static const char* const PUBLIC_UNREADABLE =
    "[get_key] error: could not parse file key_contents_pub.xml\n";
static const char* const NO_KEY_TEXT = "[get_key] Failed to extract raw key for uid/key-name U/n\n";

static const char* const KEY_64 =
    "00112233445566778899aabbccddeeffFFEEDDCCBBAA998877665544332211a5";
static const char* const OTHER_KEY_64 =
    "8f1e2d3c4b5a69788796a5b4c3d2e1f00f1e2d3c4b5a69788796a5b4c3d2e1f1";

// What OpenSSL makes of an even number of hexadecimal digits.
static Bytes openssl_bytes(const std::string& text)
{
    Bytes bytes(text.size() / 2);
    size_t written = 0;
    EXPECT_EQ(OPENSSL_hexstr2buf_ex(bytes.data(), bytes.size(), &written, text.c_str(), '\0'), 1);
    return bytes;
}

// What a look-up gave. `key` is everything in the buffer, which is larger than what was offered.
struct Answer {
    uint32_t result;
    uint32_t key_len;
    Bytes key;
    std::string printed;

    Bytes beginning(size_t length) const
    {
        return Bytes(key.begin(), key.begin() + static_cast<std::ptrdiff_t>(length));
    }

    bool untouched_from(size_t offset) const
    {
        return std::all_of(key.begin() + static_cast<std::ptrdiff_t>(offset), key.end(),
                           [](uint8_t byte) { return byte == 0xA5; });
    }
};

static Answer look_up(uint32_t capacity = 100, const char* uid = "U", const char* key_name = "n")
{
    Answer answer = {2, capacity, Bytes(capacity + 40, 0xA5), ""};
    answer.printed = printed_by([&] {
        answer.result = get_key(reinterpret_cast<const unsigned char*>(uid), key_name,
                                answer.key.data(), &answer.key_len);
    });
    return answer;
}

class GetKey : public StoreDirectory {
  protected:
    void TearDown() override
    {
        EXPECT_FALSE(lock_is_held());
        xmlFreeNode(tmpTree_rootNode);
        tmpTree_rootNode = nullptr;
        StoreDirectory::TearDown();
    }

    static void expect_key(const Answer& answer, const std::string& key_text)
    {
        const Bytes expected = openssl_bytes(key_text);
        EXPECT_EQ(answer.result, 0U);
        EXPECT_EQ(answer.key_len, expected.size());
        EXPECT_EQ(answer.beginning(expected.size()), expected);
        EXPECT_TRUE(answer.untouched_from(expected.size()));
    }

    static void expect_nothing(const Answer& answer, uint32_t capacity = 100)
    {
        EXPECT_EQ(answer.result, 1U);
        EXPECT_EQ(answer.key_len, capacity);
        EXPECT_TRUE(answer.untouched_from(0));
    }
};

// ---- Arguments ----

TEST_F(GetKey, FailsWithoutAMessageForANullUid)
{
    write_store_file(PRIVATE_FILE, record("U", "n", "1", KEY_64));
    const Events events = events_of([] {
        const Answer answer = look_up(100, nullptr);
        expect_nothing(answer);
        EXPECT_EQ(answer.printed, "");
    });
    EXPECT_EQ(events, Events());
}

TEST_F(GetKey, FailsWithoutAMessageForANullKeyBuffer)
{
    write_store_file(PRIVATE_FILE, record("U", "n", "1", KEY_64));
    const Events events = events_of([] {
        uint32_t key_len = 100;
        const auto* uid = reinterpret_cast<const unsigned char*>("U");
        EXPECT_EQ(printed_by([&] { EXPECT_EQ(get_key(uid, "n", nullptr, &key_len), 1U); }), "");
        EXPECT_EQ(key_len, 100U);
        EXPECT_EQ(get_key(nullptr, nullptr, nullptr, nullptr), 1U);
    });
    EXPECT_EQ(events, Events());
}

TEST_F(GetKey, TakesTheFirstRecordOfTheUidForANullName)
{
    write_store_file(PRIVATE_FILE, record("V", "n", "1", OTHER_KEY_64) +
                                       record("U", "any", "2", KEY_64) +
                                       record("U", "n", "3", OTHER_KEY_64));
    expect_key(look_up(100, "U", nullptr), KEY_64);
}

// ---- Which record ----

TEST_F(GetKey, FindsAKeyInThePrivateFile)
{
    write_store_file(PRIVATE_FILE, record("U", "n", "1", KEY_64));
    const Answer answer = look_up();
    expect_key(answer, KEY_64);
    EXPECT_EQ(answer.printed, "");
}

TEST_F(GetKey, FindsAKeyInThePublicFile)
{
    write_store_file(PUBLIC_FILE, record("U", "n", "1", KEY_64));
    const Answer answer = look_up();
    expect_key(answer, KEY_64);
    EXPECT_EQ(answer.printed, "");
}

TEST_F(GetKey, PrefersThePrivateFileWhenBothHoldTheName)
{
    write_store_file(PRIVATE_FILE, record("U", "n", "1", KEY_64));
    write_store_file(PUBLIC_FILE, record("U", "n", "2", OTHER_KEY_64));
    expect_key(look_up(), KEY_64);
}

TEST_F(GetKey, TellsRecordsApartByUidAndName)
{
    write_store_file(PRIVATE_FILE,
                     record("V", "n", "1", OTHER_KEY_64) + record("U", "m", "2", OTHER_KEY_64) +
                         record("u", "n", "3", OTHER_KEY_64) + record("U", "n", "4", KEY_64) +
                         record("U", "n", "5", OTHER_KEY_64));
    expect_key(look_up(), KEY_64);
}

TEST_F(GetKey, FindsARecordThatIsNoDirectChildOfTheRoot)
{
    write_store_file(PRIVATE_FILE, "<group>" + record("U", "n", "1", KEY_64) + "</group>");
    expect_key(look_up(), KEY_64);
}

TEST_F(GetKey, FindsARootThatIsItselfARecord)
{
    write_file(PRIVATE_FILE, record("U", "n", "1", KEY_64));
    expect_key(look_up(), KEY_64);
}

TEST_F(GetKey, ReadsTheFilesOfTheCurrentWorkingDirectory)
{
    write_store_file(PRIVATE_FILE, record("U", "n", "1", OTHER_KEY_64));
    std::filesystem::create_directory("elsewhere");
    ASSERT_EQ(chdir("elsewhere"), 0);
    write_store_file(PRIVATE_FILE, record("U", "n", "1", KEY_64));
    write_store_file(PUBLIC_FILE, "");
    expect_key(look_up(), KEY_64);
    ASSERT_EQ(chdir(".."), 0);
    expect_key(look_up(), OTHER_KEY_64);
}

TEST_F(GetKey, SeesTheFilesAsTheyAreAtEachCall)
{
    write_store_file(PRIVATE_FILE, record("U", "n", "1", KEY_64));
    expect_key(look_up(), KEY_64);
    write_store_file(PRIVATE_FILE, record("U", "n", "1", OTHER_KEY_64));
    expect_key(look_up(), OTHER_KEY_64);
}

TEST_F(GetKey, DoesNotSeeTheVolatileTree)
{
    xmlNode* node = xmlNewChild(getTmpTreeRootNode(), nullptr, xml("key_content"), nullptr);
    xmlNewChild(node, nullptr, xml("uid"), xml("U"));
    xmlNewChild(node, nullptr, xml("key_name"), xml("n"));
    xmlNewChild(node, nullptr, xml("key"), xml(KEY_64));
    const Answer answer = look_up();
    expect_nothing(answer);
    EXPECT_EQ(answer.printed, NOT_FOUND);
}

TEST_F(GetKey, DoesNotMakeTheVolatileRoot)
{
    look_up();
    EXPECT_EQ(tmpTree_rootNode, nullptr);
}

// ---- Not found ----

TEST_F(GetKey, FailsWhenNeitherFileHoldsTheKey)
{
    write_store_file(PRIVATE_FILE, record("U", "m", "1", KEY_64));
    write_store_file(PUBLIC_FILE, record("V", "n", "2", KEY_64));
    const Answer answer = look_up();
    expect_nothing(answer);
    EXPECT_EQ(answer.printed, NOT_FOUND);
}

TEST_F(GetKey, FailsInAnEmptyRoot)
{
    write_file(PRIVATE_FILE, "<keys/>");
    write_file(PUBLIC_FILE, "<key_content/>");
    const Answer answer = look_up();
    expect_nothing(answer);
    EXPECT_EQ(answer.printed, NOT_FOUND);
}

TEST_F(GetKey, DoesNotFindARecordWhoseNameStandsBeforeItsUid)
{
    write_store_file(PRIVATE_FILE, "<key_content><key_name>n</key_name><uid>U</uid><key>" +
                                       std::string(KEY_64) + "</key></key_content>");
    const Answer answer = look_up();
    expect_nothing(answer);
    EXPECT_EQ(answer.printed, NOT_FOUND);
}

// ---- Records without key text ----

// What may stand in a record in the place of its key, without being a key text.
struct NoKey {
    const char* what;
    const char* children;
};

class RecordWithoutKeyText : public GetKey, public testing::WithParamInterface<NoKey> {
  protected:
    static void write_it_to(const char* file)
    {
        write_file(file, "<!DOCTYPE keys [<!ENTITY e 'ab'><!ENTITY key 'ab'>]><keys><key_content>"
                         "<uid>U</uid><key_name>n</key_name>" +
                             std::string(GetParam().children) + "</key_content></keys>");
    }
};

TEST_P(RecordWithoutKeyText, IsReportedAndThePublicFileSearched)
{
    write_it_to(PRIVATE_FILE);
    write_store_file(PUBLIC_FILE, record("U", "n", "1", KEY_64));
    const Answer answer = look_up();
    expect_key(answer, KEY_64);
    EXPECT_EQ(answer.printed, NO_KEY_TEXT);
}

TEST_P(RecordWithoutKeyText, IsReportedOfThePublicFileAsWell)
{
    write_it_to(PRIVATE_FILE);
    write_it_to(PUBLIC_FILE);
    const Answer answer = look_up();
    expect_nothing(answer);
    EXPECT_EQ(answer.printed, std::string(NO_KEY_TEXT) + NO_KEY_TEXT + NOT_FOUND);
}

INSTANTIATE_TEST_SUITE_P(
    GetKey, RecordWithoutKeyText,
    testing::Values(
        NoKey{"NoKey", ""}, NoKey{"EmptyKey", "<key/>"}, NoKey{"EmptyKeys", "<key></key><key/>"},
        NoKey{"Comment", "<key><!--ab--></key>"},
        NoKey{"CommentBeforeText", "<key><!--c-->ab</key>"},
        NoKey{"EntityReference", "<key>&e;</key>"},
        NoKey{"EntityReferenceBeforeText", "<key>&e;ab</key>"},
        NoKey{"Element", "<key><x>ab</x></key>"}, NoKey{"ElementBeforeText", "<key><x/>ab</key>"},
        NoKey{"ProcessingInstruction", "<key><?x ab?></key>"},
        NoKey{"EmptyCharacterDataSection", "<key><![CDATA[]]></key>"},
        NoKey{"CommentBeforeAnotherKey", "<key><!--c--></key><key>ab</key>"},
        NoKey{"ProcessingInstructionNamedKey", "<?key ab?>"},
        NoKey{"EntityReferenceNamedKey", "&key;"}, NoKey{"OtherSpelling", "<Key>ab</Key>"},
        NoKey{"KeyFurtherDown", "<x><key>ab</key></x>"}, NoKey{"TextAlone", "key<!--key-->"}),
    [](const auto& row) { return std::string(row.param.what); });

TEST_F(GetKey, DoesNotTryALaterRecordOfTheSameFile)
{
    write_store_file(PRIVATE_FILE, record("U", "n", "1", "") + record("U", "n", "2", KEY_64));
    const Answer answer = look_up();
    expect_nothing(answer);
    EXPECT_EQ(answer.printed, std::string(NO_KEY_TEXT) + NOT_FOUND);
}

TEST_F(GetKey, NamesUidAndNameAsTheyWereAskedFor)
{
    write_store_file(PUBLIC_FILE, record("%s%n 100%", "%d &amp; \xC3\xA4", "1", ""));
    const Answer answer = look_up(100, "%s%n 100%", "%d & \xC3\xA4");
    expect_nothing(answer);
    EXPECT_EQ(answer.printed, "[get_key] Failed to extract raw key for uid/key-name "
                              "%s%n 100%/%d & \xC3\xA4\n"
                              "[get_key] error: can't find key\n");
}

TEST_F(GetKey, NamesANullNameAsTheCLibraryPrintsIt)
{
    write_store_file(PRIVATE_FILE, record("U", "n", "1", ""));
    const Answer answer = look_up(100, "U", nullptr);
    expect_nothing(answer);
    EXPECT_EQ(answer.printed, "[get_key] Failed to extract raw key for uid/key-name U/(null)\n"
                              "[get_key] error: can't find key\n");
}

// ---- Odd records ----

TEST_F(GetKey, PassesOverEmptyKeysBeforeTheKey)
{
    write_store_file(PRIVATE_FILE, "<key_content><uid>U</uid><key_name>n</key_name><key/><?key ab?>"
                                   "<key>" +
                                       std::string(KEY_64) + "</key></key_content>");
    expect_key(look_up(), KEY_64);
}

TEST_F(GetKey, TakesAKeyThatStandsBeforeTheUid)
{
    write_store_file(PRIVATE_FILE, "<key_content><key>" + std::string(KEY_64) +
                                       "</key><uid>U</uid><key_name>n</key_name></key_content>");
    expect_key(look_up(), KEY_64);
}

TEST_F(GetKey, TakesACharacterDataSectionForText)
{
    write_store_file(PRIVATE_FILE, record("<![CDATA[U]]>", "<![CDATA[n]]>", "1",
                                          "<![CDATA[" + std::string(KEY_64) + "]]>"));
    expect_key(look_up(), KEY_64);
}

TEST_F(GetKey, TakesTheFirstPieceOfAnInterruptedText)
{
    write_store_file(PRIVATE_FILE, record("U", "n", "1", KEY_64 + std::string("<!--c-->ff")));
    expect_key(look_up(), KEY_64);
}

TEST_F(GetKey, PassesOverChildrenThatAreNoElements)
{
    write_store_file(PRIVATE_FILE, "text<!--c--><?x y?><key_content>key<!--key--><uid>U</uid>"
                                   "<![CDATA[key]]><key_name>n</key_name><?x key?><key>" +
                                       std::string(KEY_64) + "</key></key_content>");
    expect_key(look_up(), KEY_64);
}

TEST_F(GetKey, FindsARecordAtTheGreatestDepthThatTheParserAccepts)
{
    std::string deep = record("U", "n", "1", KEY_64);
    for (int i = 0; i < 250; ++i) {
        deep = "<d>" + deep + "</d>";
    }
    write_file(PRIVATE_FILE, deep);
    on_a_small_stack([] { expect_key(look_up(), KEY_64); });
}

TEST_F(GetKey, SpendsNoStackOnTheNumberOfRecords)
{
    std::string records;
    for (int i = 0; i < 100000; ++i) {
        records += record("U", "other", "1", "ab");
    }
    write_store_file(PRIVATE_FILE, records);
    write_store_file(PUBLIC_FILE, records + record("U", "n", "2", KEY_64));
    on_a_small_stack([] { expect_key(look_up(), KEY_64); });
}

TEST_F(GetKey, NeitherFollowsNorLoopsThroughEntityReferences)
{
    const Deadline deadline(60);
    const std::string in_entity = record("U", "n", "1", OTHER_KEY_64);
    write_file(PRIVATE_FILE, "<!DOCTYPE keys [<!ENTITY b \"" + in_entity +
                                 "\"><!ENTITY a \"&b;<x/>\">]><keys>&a;&b;&a;" +
                                 record("U", "m", "1", KEY_64) + "</keys>");
    expect_key(look_up(100, "U", "m"), KEY_64);
    const Answer answer = look_up();
    expect_nothing(answer);
    EXPECT_EQ(answer.printed, NOT_FOUND);
}

TEST_F(GetKey, ReadsNoOtherFileThatAnEntityNames)
{
    write_file("other.xml", record("U", "n", "1", KEY_64));
    write_file("other.txt", KEY_64);
    write_file(PRIVATE_FILE, "<!DOCTYPE keys [<!ENTITY x SYSTEM 'other.xml'><!ENTITY t SYSTEM "
                             "'other.txt'>]><keys>&x;" +
                                 record("U", "m", "1", "&t;") + "</keys>");
    EXPECT_EQ(look_up().printed, NOT_FOUND);
    EXPECT_EQ(look_up(100, "U", "m").printed,
              "[get_key] Failed to extract raw key for uid/key-name U/m\n" +
                  std::string(NOT_FOUND));
}

// ---- Lengths ----

TEST_F(GetKey, ReportsTheSizeForABufferThatIsTooSmallAndSucceedsWithIt)
{
    write_store_file(PRIVATE_FILE, record("U", "n", "1", KEY_64));
    const Answer small = look_up(31);
    EXPECT_EQ(small.result, 1U);
    EXPECT_EQ(small.key_len, 32U);
    EXPECT_TRUE(small.untouched_from(0));
    EXPECT_EQ(small.printed, NOT_FOUND);

    const Answer exact = look_up(small.key_len);
    expect_key(exact, KEY_64);
    EXPECT_EQ(exact.printed, "");
}

TEST_F(GetKey, DoesNotTryThePublicFileForABufferThatIsTooSmall)
{
    write_store_file(PRIVATE_FILE, record("U", "n", "1", KEY_64));
    write_store_file(PUBLIC_FILE, record("U", "n", "1", "abcd"));
    const Answer answer = look_up(31);
    EXPECT_EQ(answer.result, 1U);
    EXPECT_EQ(answer.key_len, 32U);
    EXPECT_TRUE(answer.untouched_from(0));
}

TEST_F(GetKey, ReportsTheSizeForABufferOfNoBytes)
{
    for (size_t length = 1; length <= 140; ++length) {
        write_store_file(PRIVATE_FILE, record("U", "n", "1", std::string(length, 'a')));
        const Answer answer = look_up(0);
        EXPECT_EQ(answer.result, 1U) << length << " characters";
        EXPECT_EQ(answer.key_len, (length + 1) / 2) << length << " characters";
        EXPECT_TRUE(answer.untouched_from(0)) << length << " characters";
        EXPECT_EQ(answer.printed, NOT_FOUND) << length << " characters";
    }
}

TEST_F(GetKey, Converts128CharactersTo64Bytes)
{
    const std::string key = std::string(KEY_64) + OTHER_KEY_64;
    write_store_file(PUBLIC_FILE, record("U", "n", "1", key));
    expect_key(look_up(64), key);
}

TEST_F(GetKey, Converts63CharactersTo32Bytes)
{
    const std::string key = std::string(KEY_64).substr(0, 63);
    write_store_file(PUBLIC_FILE, record("U", "n", "1", key));
    expect_key(look_up(32), key + '0');
}

TEST_F(GetKey, Converts127CharactersTo64Bytes)
{
    const std::string key = std::string(KEY_64) + std::string(OTHER_KEY_64).substr(0, 63);
    write_store_file(PUBLIC_FILE, record("U", "n", "1", key));
    expect_key(look_up(64), key + '0');
}

TEST_F(GetKey, HandsOutOtherLengthsUnconverted)
{
    const std::string digits = std::string(KEY_64) + OTHER_KEY_64 + KEY_64;
    for (const size_t length : {1U, 2U, 6U, 61U, 62U, 65U, 66U, 125U, 126U, 129U, 192U}) {
        const size_t n = (length + 1) / 2;
        write_store_file(PRIVATE_FILE, record("U", "n", "1", digits.substr(0, length)));
        const Answer answer = look_up(static_cast<uint32_t>(n));
        EXPECT_EQ(answer.result, 0U) << length << " characters";
        EXPECT_EQ(answer.key_len, n) << length << " characters";
        EXPECT_EQ(answer.beginning(n),
                  Bytes(digits.begin(), digits.begin() + static_cast<long>(n)));
        EXPECT_TRUE(answer.untouched_from(n)) << length << " characters";
        EXPECT_EQ(answer.printed, "") << length << " characters";
    }
}

TEST_F(GetKey, CountsWhitespaceInTheKeyText)
{
    write_store_file(PRIVATE_FILE, record("U", "n", "1", "\n" + std::string(KEY_64) + "\n"));
    const Answer answer = look_up();
    EXPECT_EQ(answer.result, 0U);
    EXPECT_EQ(answer.key_len, 33U);
    EXPECT_EQ(answer.beginning(2), (Bytes{'\n', '0'}));
}

TEST_F(GetKey, TakesCharactersThatAreNoDigitsForZero)
{
    write_store_file(PRIVATE_FILE, record("U", "n", "1", std::string(64, 'x')));
    expect_key(look_up(), std::string(64, '0'));
}

TEST_F(GetKey, HandsOutAKeyTextOfNineMegabytes)
{
    const std::string key(9000000, 'f');
    write_store_file(PRIVATE_FILE, record("U", "n", "1", key));
    on_a_small_stack([] {
        const Answer small = look_up(64);
        EXPECT_EQ(small.result, 1U);
        EXPECT_EQ(small.key_len, 4500000U);
        EXPECT_TRUE(small.untouched_from(0));

        const Answer answer = look_up(small.key_len);
        EXPECT_EQ(answer.result, 0U);
        EXPECT_EQ(answer.key_len, 4500000U);
        EXPECT_TRUE(answer.beginning(4500000) == Bytes(4500000, 'f'));
        EXPECT_TRUE(answer.untouched_from(4500000));
    });
}

// ---- Files that cannot be read ----

TEST_F(GetKey, NamesAMissingPrivateFileAndGoesOn)
{
    std::filesystem::remove(PRIVATE_FILE);
    write_store_file(PUBLIC_FILE, record("U", "n", "1", KEY_64));
    const Answer answer = look_up();
    expect_key(answer, KEY_64);
    EXPECT_EQ(answer.printed, PRIVATE_UNREADABLE);
}

TEST_F(GetKey, NamesAMissingPublicFile)
{
    std::filesystem::remove(PUBLIC_FILE);
    const Answer answer = look_up();
    expect_nothing(answer);
    EXPECT_EQ(answer.printed, std::string(PUBLIC_UNREADABLE) + NOT_FOUND);
}

TEST_F(GetKey, DoesNotReadThePublicFileWhenThePrivateOneHoldsTheKey)
{
    write_store_file(PRIVATE_FILE, record("U", "n", "1", KEY_64));
    std::filesystem::remove(PUBLIC_FILE);
    const Answer answer = look_up();
    expect_key(answer, KEY_64);
    EXPECT_EQ(answer.printed, "");
}

TEST_F(GetKey, NamesBothFilesWhenNeitherCanBeRead)
{
    std::filesystem::remove(PRIVATE_FILE);
    std::filesystem::remove(PUBLIC_FILE);
    const Answer answer = look_up();
    expect_nothing(answer);
    EXPECT_EQ(answer.printed, std::string(PRIVATE_UNREADABLE) + PUBLIC_UNREADABLE + NOT_FOUND);
}

TEST_F(GetKey, CreatesNoFile)
{
    std::filesystem::remove(PRIVATE_FILE);
    std::filesystem::remove(PUBLIC_FILE);
    look_up();
    EXPECT_TRUE(std::filesystem::is_empty("."));
}

TEST_F(GetKey, LeavesTheFilesAsTheyAre)
{
    write_store_file(PRIVATE_FILE, record("U", "n", "1", ""));
    write_store_file(PUBLIC_FILE, record("U", "n", "1", KEY_64));
    const std::string before = read_file(PRIVATE_FILE) + read_file(PUBLIC_FILE);
    look_up();
    EXPECT_EQ(read_file(PRIVATE_FILE) + read_file(PUBLIC_FILE), before);
}

// A file that does not parse, with a key on the offending line.
struct Malformed {
    const char* what;
    std::string (*content)();
};

static std::string with_key(const std::string& before, const std::string& after)
{
    return before + record("U", "n", "1", KEY_64) + after;
}

static std::string nested(int levels)
{
    std::string content = record("U", "n", "1", KEY_64);
    for (int i = 0; i < levels; ++i) {
        content = "<d>" + content + "</d>";
    }
    return content;
}

// Each entity holds the one before it ten times.
static std::string entities_that_multiply()
{
    std::string declarations = "<!ENTITY e0 'ha'>";
    for (int i = 1; i <= 9; ++i) {
        std::string value;
        for (int j = 0; j < 10; ++j) {
            value += "&e" + std::to_string(i - 1) + ";";
        }
        declarations += "<!ENTITY e" + std::to_string(i) + " '" + value + "'>";
    }
    return "<!DOCTYPE keys [" + declarations + "]>" + with_key("<keys>&e9;", "</keys>");
}

class MalformedFile : public GetKey, public testing::WithParamInterface<Malformed> {};

TEST_P(MalformedFile, IsNamedAndNothingOfItShown)
{
    const Deadline deadline(120);
    write_file(PRIVATE_FILE, GetParam().content());
    const std::string complaints = complained_by([] {
        const Answer answer = look_up();
        expect_nothing(answer);
        EXPECT_EQ(answer.printed, std::string(PRIVATE_UNREADABLE) + NOT_FOUND);
    });
    EXPECT_EQ(complaints, "");
}

TEST_P(MalformedFile, DoesNotKeepThePublicFileFromBeingSearched)
{
    const Deadline deadline(120);
    write_file(PRIVATE_FILE, GetParam().content());
    write_store_file(PUBLIC_FILE, record("U", "n", "1", OTHER_KEY_64));
    const Answer answer = look_up();
    expect_key(answer, OTHER_KEY_64);
    EXPECT_EQ(answer.printed, PRIVATE_UNREADABLE);
}

INSTANTIATE_TEST_SUITE_P(
    GetKey, MalformedFile,
    testing::Values(Malformed{"Empty",
                              [] {
                                  return std::string();
                              }},
                    Malformed{"NoXml",
                              [] {
                                  return std::string(KEY_64);
                              }},
                    Malformed{"NoRoot",
                              [] {
                                  return std::string("<?xml version=\"1.0\"?><!-- nothing -->");
                              }},
                    Malformed{"CutShort",
                              [] {
                                  return with_key("<keys>", "");
                              }},
                    Malformed{"EndTagOfAnotherName",
                              [] {
                                  return with_key("<keys>", "</keyz>");
                              }},
                    Malformed{"TwoRoots",
                              [] {
                                  return with_key("<keys>", "</keys><more/>");
                              }},
                    Malformed{"TextBehindTheRoot",
                              [] {
                                  return with_key("<keys>", "</keys>") + KEY_64;
                              }},
                    Malformed{"UndeclaredEntity",
                              [] {
                                  return with_key("<keys>&nothing;", "</keys>");
                              }},
                    Malformed{"BareAmpersand",
                              [] {
                                  return with_key("<keys>&", "</keys>");
                              }},
                    Malformed{"RepeatedAttribute",
                              [] {
                                  return with_key("<keys a='1' a='2'>", "</keys>");
                              }},
                    Malformed{"ControlCharacter",
                              [] {
                                  return with_key("<keys>\x01", "</keys>");
                              }},
                    Malformed{"WrongEncoding",
                              [] {
                                  return with_key("<keys>\xFF\xFE\xC3", "</keys>");
                              }},
                    Malformed{"UnknownEncoding",
                              [] {
                                  return with_key(
                                      "<?xml version=\"1.0\" encoding=\"none-such\"?><keys>",
                                      "</keys>");
                              }},
                    Malformed{"ZeroByte",
                              [] {
                                  return with_key("<keys>" + std::string(1, '\0'), "</keys>");
                              }},
                    Malformed{"UndeclaredPrefixAndCutShort",
                              [] {
                                  return with_key("<keys p:a='1'>", "");
                              }},
                    Malformed{"EntitiesThatReferToEachOther",
                              [] {
                                  return "<!DOCTYPE keys [<!ENTITY a '&b;'><!ENTITY b '&a;'>]>" +
                                         with_key("<keys>&a;", "</keys>");
                              }},
                    Malformed{"EntitiesThatMultiply", entities_that_multiply},
                    Malformed{"NestedTooDeep",
                              [] {
                                  return nested(300);
                              }},
                    Malformed{"KeyTextBeyondTheParsersLimit",
                              [] {
                                  return "<keys>" +
                                         record("U", "n", "1", std::string(10000001, 'f')) +
                                         "</keys>";
                              }},
                    Malformed{"OtherTextBeyondTheParsersLimitBehindTheKey",
                              [] {
                                  return with_key("<keys>", std::string(10000001, 'x') + "</keys>");
                              }},
                    Malformed{"CommentBeyondTheParsersLimit",
                              [] {
                                  return with_key("<keys><!--" + std::string(10000001, 'c') + "-->",
                                                  "</keys>");
                              }}),
    [](const auto& row) { return std::string(row.param.what); });

TEST_F(GetKey, TreatsADirectoryAsAFileThatCannotBeRead)
{
    std::filesystem::remove(PRIVATE_FILE);
    std::filesystem::create_directory(PRIVATE_FILE);
    std::filesystem::remove(PUBLIC_FILE);
    EXPECT_EQ(complained_by([] {
                  EXPECT_EQ(look_up().printed,
                            std::string(PRIVATE_UNREADABLE) + PUBLIC_UNREADABLE + NOT_FOUND);
              }),
              "");
}

TEST_F(GetKey, KeepsWarningsAboutAReadableFileOffStandardError)
{
    const std::string readable[] = {
        with_key("<?xml version=\"1.9\"?><keys>", "</keys>"),
        with_key("<p:keys>", "</p:keys>"),
        with_key("<keys xmlns='a b'>", "</keys>"),
        with_key("<keys p:a='1'>", "</keys>"),
    };
    for (const std::string& content : readable) {
        write_file(PRIVATE_FILE, content);
        EXPECT_NE(complained_by([&] { EXPECT_NE(parsed(content), nullptr); }), "") << content;
        EXPECT_EQ(complained_by([] {
                      const Answer answer = look_up();
                      expect_key(answer, KEY_64);
                      EXPECT_EQ(answer.printed, "");
                  }),
                  "")
            << content;
    }
}

// ---- Reading, releasing, cleaning up, and the mutex meanwhile ----

static Events look_up_events(uint32_t capacity = 100)
{
    return events_of([capacity] { look_up(capacity); });
}

TEST_F(GetKey, HoldsTheMutexDuringTheReadOnlyAndDoesNotCleanUpAfterAFind)
{
    write_store_file(PRIVATE_FILE, record("U", "n", "1", KEY_64));
    EXPECT_EQ(look_up_events(), (Events{"read key_contents_prv.xml, locked", "search", "free"}));
}

TEST_F(GetKey, CleansUpAfterThePrivateFileBeforeItFindsTheKeyInThePublicOne)
{
    write_store_file(PUBLIC_FILE, record("U", "n", "1", KEY_64));
    EXPECT_EQ(look_up_events(),
              as_built({"read key_contents_prv.xml, locked", "search", "free", "clean up",
                        "read key_contents_pub.xml, locked", "search", "free"}));
}

TEST_F(GetKey, CleansUpAfterEachFileThatLacksTheKey)
{
    EXPECT_EQ(look_up_events(),
              as_built({"read key_contents_prv.xml, locked", "search", "free", "clean up",
                        "read key_contents_pub.xml, locked", "search", "free", "clean up"}));
}

TEST_F(GetKey, CleansUpAfterEachRecordWithoutKeyText)
{
    write_store_file(PRIVATE_FILE, record("U", "n", "1", ""));
    write_store_file(PUBLIC_FILE, record("U", "n", "1", ""));
    EXPECT_EQ(look_up_events(),
              as_built({"read key_contents_prv.xml, locked", "search", "free", "clean up",
                        "read key_contents_pub.xml, locked", "search", "free", "clean up"}));
}

TEST_F(GetKey, CleansUpAfterEachFileThatCannotBeRead)
{
    write_file(PRIVATE_FILE, "<keys>");
    std::filesystem::remove(PUBLIC_FILE);
    EXPECT_EQ(look_up_events(), as_built({"read key_contents_prv.xml, locked", "clean up",
                                          "read key_contents_pub.xml, locked", "clean up"}));
}

TEST_F(GetKey, DoesNotCleanUpWhenTheKeyDoesNotFit)
{
    write_store_file(PRIVATE_FILE, record("U", "n", "1", KEY_64));
    EXPECT_EQ(look_up_events(31), (Events{"read key_contents_prv.xml, locked", "search", "free"}));
}

TEST_F(GetKey, ReleasesTheMutexOnEveryPath)
{
    const auto expect_released_after = [](const char* path) {
        look_up();
        EXPECT_FALSE(lock_is_held()) << path;
    };
    expect_released_after("found nowhere");
    write_store_file(PUBLIC_FILE, record("U", "n", "1", KEY_64));
    expect_released_after("found in the public file");
    write_store_file(PRIVATE_FILE, record("U", "n", "1", ""));
    expect_released_after("without key text in the private file");
    write_file(PRIVATE_FILE, "<keys>");
    expect_released_after("private file malformed");
    std::filesystem::remove(PUBLIC_FILE);
    expect_released_after("no file can be read");
    write_store_file(PRIVATE_FILE, record("U", "n", "1", KEY_64));
    expect_released_after("found in the private file");
    look_up(31);
    EXPECT_FALSE(lock_is_held()) << "too small";
    look_up(100, nullptr);
    EXPECT_FALSE(lock_is_held()) << "null UID";
}

TEST_F(GetKey, ReleasesTheMutexBeforeItReportsAFailure)
{
    const auto prints_under_mutex = [](uint32_t capacity = 100) {
        uint8_t key[100];
        return prints_with_locks_held(
            [&] { get_key(reinterpret_cast<const unsigned char*>("U"), "n", key, &capacity); });
    };
    EXPECT_FALSE(prints_under_mutex()) << "found nowhere";
    write_store_file(PRIVATE_FILE, record("U", "n", "1", ""));
    EXPECT_FALSE(prints_under_mutex()) << "no key text";
    write_file(PRIVATE_FILE, "<keys>");
    EXPECT_FALSE(prints_under_mutex()) << "unreadable";
    // Comes last, for it does not clean up: behind a clean-up, the thread of the next test would be
    // libxml2's first, and this thread's error handler would not outlive the clean-ups to come.
    write_store_file(PRIVATE_FILE, record("U", "n", "1", KEY_64));
    EXPECT_FALSE(prints_under_mutex(31)) << "no room";
}

TEST_F(GetKey, WaitsForTheMutex)
{
    const Deadline deadline(60);
    write_store_file(PRIVATE_FILE, record("U", "n", "1", KEY_64));
    uint8_t key[32] = {};
    uint32_t key_len = sizeof key;
    pthread_mutex_lock(&lock);
    std::future<uint32_t> result = std::async(std::launch::async, [&] {
        return get_key(reinterpret_cast<const unsigned char*>("U"), "n", key, &key_len);
    });
    EXPECT_EQ(result.wait_for(std::chrono::milliseconds(200)), std::future_status::timeout);
    pthread_mutex_unlock(&lock);
    EXPECT_EQ(result.get(), 0U);
    EXPECT_EQ(Bytes(key, key + 32), openssl_bytes(KEY_64));
}

TEST_F(GetKey, DoesNotTakeTheMutexForArgumentsThatItRefuses)
{
    const Deadline deadline(60);
    pthread_mutex_lock(&lock);
    EXPECT_EQ(look_up(100, nullptr).result, 1U);
    EXPECT_TRUE(lock_is_held());
    pthread_mutex_unlock(&lock);
}

// ---- The application's error handler ----

static int errors_seen_by_the_application = 0;

template <typename Call> static void with_an_error_handler_of_the_application(Call call)
{
    int context = 0;
    // The second parameter's type differs between libxml2's versions.
    const xmlStructuredErrorFunc handler = [](void*, auto) {
        ++errors_seen_by_the_application;
    };
    errors_seen_by_the_application = 0;
    xmlSetStructuredErrorFunc(&context, handler);
    call();
    EXPECT_EQ(xmlStructuredError, handler);
    EXPECT_EQ(xmlStructuredErrorContext, &context);
    EXPECT_EQ(errors_seen_by_the_application, 0);
    EXPECT_EQ(parsed("<broken>"), nullptr);
    EXPECT_GT(errors_seen_by_the_application, 0);
    xmlSetStructuredErrorFunc(nullptr, nullptr);
}

TEST_F(GetKey, PutsTheErrorHandlerBackAfterAFind)
{
    write_store_file(PRIVATE_FILE, record("U", "n", "1", KEY_64));
    with_an_error_handler_of_the_application([] { expect_key(look_up(), KEY_64); });
}

TEST_F(GetKey, PutsTheErrorHandlerBackWhenNothingIsFound)
{
    with_an_error_handler_of_the_application([] { expect_nothing(look_up()); });
}

TEST_F(GetKey, PutsTheErrorHandlerBackAfterMalformedFilesAndDoesNotCallIt)
{
    write_file(PRIVATE_FILE, with_key("<keys>", "</keyz>"));
    std::filesystem::remove(PUBLIC_FILE);
    with_an_error_handler_of_the_application([] { expect_nothing(look_up()); });
}

// Volatile keys come and go inside libxml2 as well.
TEST_F(GetKey, PutsTheErrorHandlerBackAndDoesNotCallItAfterAVolatileKeyCameAndWent)
{
    write_file(PRIVATE_FILE, with_key("<keys>", "</keyz>"));
    std::filesystem::remove(PUBLIC_FILE);
    with_an_error_handler_of_the_application([] {
        char handle[16];
        EXPECT_EQ(add_volatile_key("ab", handle, sizeof handle), 0U);
        EXPECT_EQ(delete_key_by_handle(handle), 0U);
        expect_nothing(look_up());
    });
}

TEST_F(GetKey, LeavesNoErrorHandlerWhereThereWasNone)
{
    write_file(PRIVATE_FILE, with_key("<keys>", "</keyz>"));
    look_up();
    EXPECT_EQ(xmlStructuredError, nullptr);
    EXPECT_EQ(xmlStructuredErrorContext, nullptr);
}

TEST_F(GetKey, LeavesTheGenericErrorHandlerAlone)
{
    const xmlGenericErrorFunc before = xmlGenericError;
    void* const context = xmlGenericErrorContext;
    write_file(PRIVATE_FILE, with_key("<keys>", "</keyz>"));
    look_up();
    EXPECT_EQ(xmlGenericError, before);
    EXPECT_EQ(xmlGenericErrorContext, context);
}

// libxml2 keeps the handler for each thread. A find does not clean up, so that the handler of a
// thread which is not libxml2's first one outlives it as well.
TEST_F(GetKey, PutsTheErrorHandlerBackInAnyThread)
{
    write_store_file(PRIVATE_FILE, record("U", "n", "1", KEY_64));
    xmlInitParser();
    std::async(std::launch::async, [] {
        with_an_error_handler_of_the_application([] { expect_key(look_up(), KEY_64); });
    }).get();
    EXPECT_EQ(xmlStructuredError, nullptr);
}

// ---- Memory ----

TEST_F(GetKey, ReleasesEveryDocument)
{
    write_store_file(PRIVATE_FILE, record("U", "private", "1", KEY_64));
    write_store_file(PUBLIC_FILE,
                     record("U", "public", "2", KEY_64) + record("U", "none", "3", ""));
    const auto live_after = [](int calls) {
        count_libxml2_memory();
        for (int i = 0; i < calls; ++i) {
            look_up(100, "U", "private");
            look_up(31, "U", "private");
            look_up(100, "U", "public");
            look_up(100, "U", "none");
            look_up(100, "V", "none");
        }
        leave_libxml2_memory_alone();
        return libxml2_memory.live;
    };
    live_after(1);
    EXPECT_EQ(live_after(20), live_after(1));
}

TEST_F(GetKey, HoldsNoMemoryBetweenFinds)
{
    write_store_file(PRIVATE_FILE, record("U", "n", "1", KEY_64));
    count_libxml2_memory();
    look_up();
    const long live = libxml2_memory.live;
    for (int i = 0; i < 20; ++i) {
        expect_key(look_up(), KEY_64);
    }
    EXPECT_EQ(libxml2_memory.live, live);
    leave_libxml2_memory_alone();
}

// The k-th allocation fails, alone or with all that follow, for every k that the look-up reaches.
template <typename Check> static void with_each_allocation_refused(Check check)
{
    for (const bool rest : {false, true}) {
        bool refused = true;
        for (unsigned long k = 1; refused; ++k) {
            SCOPED_TRACE(std::string(rest ? "from allocation " : "allocation ") +
                         std::to_string(k));
            count_libxml2_memory();
            libxml2_memory.refuse = k;
            libxml2_memory.refuse_rest = rest;
            std::string complaints;
            Answer answer;
            complaints = complained_by([&] { answer = look_up(); });
            refused = libxml2_memory.asked >= k;
            leave_libxml2_memory_alone();
            EXPECT_FALSE(lock_is_held());
            check(answer);
            if (!refused) {
                EXPECT_EQ(answer.result, 0U);
            }
        }
    }
}

static void expect_key_or_a_message(const Answer& answer, const std::string& key_text)
{
    const Bytes expected = openssl_bytes(key_text);
    if (answer.result == 0) {
        EXPECT_EQ(answer.key_len, expected.size());
        EXPECT_EQ(answer.beginning(expected.size()), expected);
        EXPECT_TRUE(answer.untouched_from(expected.size()));
    } else {
        EXPECT_EQ(answer.result, 1U);
        EXPECT_TRUE(answer.untouched_from(0));
        const std::string last = NOT_FOUND;
        ASSERT_GE(answer.printed.size(), last.size());
        EXPECT_EQ(answer.printed.substr(answer.printed.size() - last.size()), last);
    }
}

TEST_F(GetKey, FindsTheKeyOrFailsWhenAnAllocationIsRefused)
{
    write_store_file(PRIVATE_FILE, record("V", "n", "1", OTHER_KEY_64) +
                                       record("U", "n", "2", KEY_64, "metadata"));
    with_each_allocation_refused(
        [](const Answer& answer) { expect_key_or_a_message(answer, KEY_64); });
}

TEST_F(GetKey, FindsTheKeyOfThePublicFileOrFailsWhenAnAllocationIsRefused)
{
    write_store_file(PRIVATE_FILE, record("V", "n", "1", OTHER_KEY_64));
    write_store_file(PUBLIC_FILE, record("U", "n", "2", KEY_64));
    with_each_allocation_refused(
        [](const Answer& answer) { expect_key_or_a_message(answer, KEY_64); });
}

// The parser hands such a text over in pieces, each of which makes the node grow.
TEST_F(GetKey, NeverHandsOutAPieceOfAKeyWhenAnAllocationIsRefused)
{
    std::string in_pieces;
    const std::string key = std::string(KEY_64) + OTHER_KEY_64;
    for (size_t i = 0; i < key.size(); i += 4) {
        in_pieces += "&#" + std::to_string(static_cast<int>(key[i])) + ";" + key.substr(i + 1, 3);
    }
    write_store_file(PRIVATE_FILE, record("U", "n", "2", in_pieces));
    expect_key(look_up(), key);
    with_each_allocation_refused(
        [&key](const Answer& answer) { expect_key_or_a_message(answer, key); });
}
