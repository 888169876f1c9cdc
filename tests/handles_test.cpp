// Handles: making a new one, and looking one up with its metadata.

#include "key_driver/zentrava_key_management_utils.cpp"

#include "support/deadline.h"
#include "support/libxml2_memory.h"
#include "support/printed.h"
#include "support/small_stack.h"
#include "support/store_directory.h"
#include "support/store_watch.h"
#include "support/xml_document.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

static const char* const MALFORMED = "<?xml version=\"1.0\"?>\n<keys><key_content><uid>U</uid>"
                                     "<key>5ec7e7</key></key_content></keyz>\n";

static const char* const HANDLE_DOES_NOT_FIT =
    "[get_key_handle] error: Handle output buffer size is not large enough to hold the handle "
    "string\n";
static const char* const METADATA_DOES_NOT_FIT =
    "[get_key_handle] error: Metadata output buffer size is not large enough to hold the metadata "
    "string\n";
static const char* const NOT_FOUND = "error: can't find key\n";

class HandleTest : public StoreDirectory {
  protected:
    void TearDown() override
    {
        EXPECT_FALSE(lock_is_held());
        xmlFreeNode(tmpTree_rootNode);
        tmpTree_rootNode = nullptr;
        StoreDirectory::TearDown();
    }
};

// A buffer whose every byte is known before and after.
struct OutBuffer {
    std::vector<char> bytes;

    explicit OutBuffer(size_t size) : bytes(size, '#')
    {
    }

    char* data()
    {
        return bytes.data();
    }

    unsigned int size() const
    {
        return static_cast<unsigned int>(bytes.size());
    }

    bool untouched() const
    {
        return std::all_of(bytes.begin(), bytes.end(), [](char byte) { return byte == '#'; });
    }

    // The text, given that the whole rest of the buffer is zero; otherwise all its bytes.
    std::string text() const
    {
        const auto end = std::find(bytes.begin(), bytes.end(), '\0');
        const bool zeroed = end != bytes.end() &&
                            std::all_of(end, bytes.end(), [](char byte) { return byte == 0; });
        return zeroed ? std::string(bytes.begin(), end) : std::string(bytes.begin(), bytes.end());
    }
};

// ---------------------------------------------------------------------------------------------
// New handles
// ---------------------------------------------------------------------------------------------

class NewKeyHandle : public HandleTest {
  protected:
    static std::string new_handle()
    {
        OutBuffer handle(32);
        EXPECT_EQ(get_new_key_handle(handle.data(), handle.size()), 0U);
        return handle.text();
    }

    static std::string new_handle_after(const std::string& handle)
    {
        write_store_file(PUBLIC_FILE, record("U", "n", handle, "ab"));
        return new_handle();
    }

    static xmlNode* add_volatile_record(const char* handle)
    {
        xmlNode* node = xmlNewChild(getTmpTreeRootNode(), nullptr, xml("key_content"), nullptr);
        xmlNewChild(node, nullptr, xml("handle"), xml(handle));
        xmlNewChild(node, nullptr, xml("key"), xml("ab"));
        return node;
    }
};

using NewKeyHandleDeathTest = NewKeyHandle;

TEST_F(NewKeyHandleDeathTest, AssertsThatThereIsABuffer)
{
    EXPECT_DEATH(get_new_key_handle(nullptr, 16),
                 ": key_driver/zentrava_key_management_utils\\.cpp:[0-9]+: .*get_new_key_handle.*: "
                 "Assertion `handle_out_buff != NULL' failed\\.");
}

TEST_F(NewKeyHandle, StartsAt1InAnEmptyStore)
{
    EXPECT_EQ(new_handle(), "1");
}

TEST_F(NewKeyHandle, StartsAt1WithoutAnyFile)
{
    std::filesystem::remove(PUBLIC_FILE);
    std::filesystem::remove(PRIVATE_FILE);
    EXPECT_EQ(new_handle(), "1");
}

TEST_F(NewKeyHandle, IsOneMoreThanTheLargestOfAllThreePlaces)
{
    write_store_file(PUBLIC_FILE, record("U", "a", "3", "ab"));
    write_store_file(PRIVATE_FILE, record("U", "b", "7", "ab"));
    add_volatile_record("5");
    EXPECT_EQ(new_handle(), "8");
}

TEST_F(NewKeyHandle, FollowsTheLargestInThePublicFile)
{
    write_store_file(PUBLIC_FILE, record("U", "a", "12", "ab"));
    write_store_file(PRIVATE_FILE, record("U", "b", "7", "ab"));
    add_volatile_record("5");
    EXPECT_EQ(new_handle(), "13");
}

TEST_F(NewKeyHandle, FollowsTheLargestInThePrivateFile)
{
    write_store_file(PUBLIC_FILE, record("U", "a", "3", "ab"));
    write_store_file(PRIVATE_FILE, record("U", "b", "40", "ab"));
    EXPECT_EQ(new_handle(), "41");
}

TEST_F(NewKeyHandle, FollowsTheLargestInTheVolatileTree)
{
    write_store_file(PUBLIC_FILE, record("U", "a", "3", "ab"));
    write_store_file(PRIVATE_FILE, record("U", "b", "7", "ab"));
    add_volatile_record("8");
    add_volatile_record("99");
    add_volatile_record("10");
    EXPECT_EQ(new_handle(), "100");
}

TEST_F(NewKeyHandle, FollowsTheLargestWhereverItStandsInAFile)
{
    for (const char* largest_at : {"9 1 2", "1 9 2", "1 2 9"}) {
        const std::string order = largest_at;
        write_store_file(PRIVATE_FILE, record("U", "a", order.substr(0, 1), "ab") +
                                           record("U", "b", order.substr(2, 1), "ab") +
                                           record("U", "c", order.substr(4, 1), "ab"));
        EXPECT_EQ(new_handle(), "10") << order;
    }
}

TEST_F(NewKeyHandle, IsAvailableAgainOnceItsRecordIsGone)
{
    write_store_file(PUBLIC_FILE, record("U", "a", "4", "ab") + record("U", "b", "5", "ab"));
    ASSERT_EQ(new_handle(), "6");
    write_store_file(PUBLIC_FILE, record("U", "a", "4", "ab"));
    EXPECT_EQ(new_handle(), "5");
}

TEST_F(NewKeyHandle, NeverFillsAGap)
{
    write_store_file(PUBLIC_FILE, record("U", "a", "1", "ab") + record("U", "b", "5", "ab"));
    EXPECT_EQ(new_handle(), "6");
}

TEST_F(NewKeyHandle, IsTheSameUntilARecordTakesIt)
{
    EXPECT_EQ(new_handle(), "1");
    EXPECT_EQ(new_handle(), "1");
}

TEST_F(NewKeyHandle, GrowsByDigits)
{
    EXPECT_EQ(new_handle_after("9"), "10");
    EXPECT_EQ(new_handle_after("99"), "100");
    EXPECT_EQ(new_handle_after("999999999"), "1000000000");
}

// ---- What counts as a handle ----

TEST_F(NewKeyHandle, CountsDirectChildrenOfTheRootOnly)
{
    write_store_file(PUBLIC_FILE, "<group>" + record("U", "a", "50", "ab") + "</group>" +
                                      record("U", "b", "3", "ab"));
    EXPECT_EQ(new_handle(), "4");
}

TEST_F(NewKeyHandle, DoesNotCountARootThatIsItselfARecord)
{
    write_file(PUBLIC_FILE, record("U", "a", "50", "ab"));
    EXPECT_EQ(new_handle(), "1");
}

TEST_F(NewKeyHandle, CountsRecordsBelowARootThatIsItselfARecord)
{
    write_file(PUBLIC_FILE, "<key_content><handle>90</handle>" + record("U", "a", "50", "ab") +
                                "</key_content>");
    EXPECT_EQ(new_handle(), "51");
}

TEST_F(NewKeyHandle, CountsElementsCalledKeyContentOnly)
{
    write_store_file(PUBLIC_FILE, "<key_contents><handle>50</handle></key_contents>"
                                  "<?key_content <handle>60</handle>?><handle>70</handle>"
                                  "<Key_Content><handle>80</handle></Key_Content>" +
                                      record("U", "a", "3", "ab"));
    EXPECT_EQ(new_handle(), "4");
}

TEST_F(NewKeyHandle, CountsChildrenOfARecordOnly)
{
    write_store_file(PUBLIC_FILE, "<key_content handle='60'><x><handle>50</handle></x>"
                                  "<handle>3</handle></key_content>");
    EXPECT_EQ(new_handle(), "4");
}

TEST_F(NewKeyHandle, CountsChildrenCalledHandleOnly)
{
    write_store_file(PUBLIC_FILE, "<key_content><Handle>50</Handle><handles>60</handles>"
                                  "<key>70</key><handle>3</handle></key_content>");
    EXPECT_EQ(new_handle(), "4");
}

TEST_F(NewKeyHandle, CountsEveryHandleOfARecord)
{
    for (const char* handles :
         {"<handle>9</handle><handle>2</handle>", "<handle>2</handle><handle>9</handle>"}) {
        write_store_file(PUBLIC_FILE, "<key_content>" + std::string(handles) + "</key_content>");
        EXPECT_EQ(new_handle(), "10") << handles;
    }
}

TEST_F(NewKeyHandle, CountsRecordsWithoutUidAndName)
{
    write_store_file(PUBLIC_FILE, "<key_content><handle>9</handle><key>ab</key></key_content>");
    EXPECT_EQ(new_handle(), "10");
}

TEST_F(NewKeyHandle, CountsAHandleWithoutTextAsZero)
{
    for (const char* handle :
         {"<handle/>", "<handle></handle>", "<handle><!--9--></handle>",
          "<handle><x>9</x></handle>", "<handle><?x 9?></handle>", "<handle><x/>9</handle>",
          "<?handle 9?>", "<!--handle-->", "<handle><![CDATA[]]></handle>", "handle", ""}) {
        write_store_file(PUBLIC_FILE, "<key_content>" + std::string(handle) + "</key_content>");
        EXPECT_EQ(new_handle(), "1") << handle;
        write_store_file(PUBLIC_FILE, "<key_content>" + std::string(handle) + "</key_content>" +
                                          record("U", "n", "4", "ab"));
        EXPECT_EQ(new_handle(), "5") << handle;
    }
}

TEST_F(NewKeyHandle, CountsAnEntityReferenceAsZero)
{
    write_file(PUBLIC_FILE,
               "<!DOCTYPE keys [<!ENTITY e '9'><!ENTITY handle '9'>"
               "<!ENTITY r '<key_content><handle>9</handle></key_content>'>]>"
               "<keys>&r;<key_content><handle>&e;</handle>&handle;</key_content></keys>");
    EXPECT_EQ(new_handle(), "1");
}

TEST_F(NewKeyHandle, CountsACharacterDataSection)
{
    write_store_file(PUBLIC_FILE, "<key_content><handle><![CDATA[9]]></handle></key_content>");
    EXPECT_EQ(new_handle(), "10");
}

// ---- Numbers ----

TEST_F(NewKeyHandle, CountsATextThatIsNoNumberAsZero)
{
    for (const char* text : {"abc", "x7", "-", "+", "--5", ".5", "\xC3\xA4", "#7"}) {
        EXPECT_EQ(new_handle_after(text), "1") << text;
    }
}

TEST_F(NewKeyHandle, CountsTheDecimalNumberThatATextBeginsWith)
{
    EXPECT_EQ(new_handle_after(" \n\t7"), "8");
    EXPECT_EQ(new_handle_after("7 "), "8");
    EXPECT_EQ(new_handle_after("7x"), "8");
    EXPECT_EQ(new_handle_after("7.9"), "8");
    EXPECT_EQ(new_handle_after("7 9"), "8");
    EXPECT_EQ(new_handle_after("+7"), "8");
    EXPECT_EQ(new_handle_after("0007"), "8");
    EXPECT_EQ(new_handle_after("010"), "11");
    EXPECT_EQ(new_handle_after("0x10"), "1");
    EXPECT_EQ(new_handle_after("7<!--c-->9"), "8");
}

TEST_F(NewKeyHandle, FollowsMinusFiveWithMinusFour)
{
    EXPECT_EQ(new_handle_after("-5"), "-4");
}

TEST_F(NewKeyHandle, FollowsMinusOneWithZero)
{
    EXPECT_EQ(new_handle_after("-1"), "0");
}

TEST_F(NewKeyHandle, FollowsTheLargestSignedNumberWithTheSmallest)
{
    EXPECT_EQ(new_handle_after("2147483647"), "-2147483648");
}

TEST_F(NewKeyHandle, FollowsTheSmallestSignedNumberWithTheNext)
{
    EXPECT_EQ(new_handle_after("-2147483648"), "-2147483647");
}

TEST_F(NewKeyHandle, TakesANegativeHandleForLargerThanEveryPositiveOne)
{
    write_store_file(PUBLIC_FILE, record("U", "a", "2147483647", "ab"));
    write_store_file(PRIVATE_FILE, record("U", "b", "-5", "ab") + record("U", "c", "7", "ab"));
    add_volatile_record("12");
    EXPECT_EQ(new_handle(), "-4");
}

TEST_F(NewKeyHandle, TakesTheNegativeHandleNearerToZeroForTheLarger)
{
    write_store_file(PUBLIC_FILE, record("U", "a", "-9", "ab") + record("U", "b", "-2", "ab"));
    write_store_file(PRIVATE_FILE, record("U", "c", "-5", "ab"));
    EXPECT_EQ(new_handle(), "-1");
}

TEST_F(NewKeyHandle, TakesANegativeHandleInTheVolatileTreeForTheLargest)
{
    write_store_file(PUBLIC_FILE, record("U", "a", "3", "ab"));
    add_volatile_record("-5");
    EXPECT_EQ(new_handle(), "-4");
}

// A long of 64 bits holds these numbers and then loses the upper half; one of 32 bits stops at its
// limits.
TEST_F(NewKeyHandle, ReadsLargeNumbersAsTheMachinesLongDoes)
{
    struct Row {
        const char* handle;
        const char* with_64_bits;
        const char* with_32_bits;
    };
    const Row rows[] = {
        {"2147483648", "-2147483647", "-2147483648"},
        {"4294967294", "-1", "-2147483648"},
        {"4294967295", "0", "-2147483648"},
        {"4294967296", "1", "-2147483648"},
        {"4294967301", "6", "-2147483648"},
        {"9223372036854775807", "0", "-2147483648"},
        {"99999999999999999999", "0", "-2147483648"},
        {"-2147483649", "-2147483648", "-2147483647"},
        {"-4294967291", "6", "-2147483647"},
        {"-4294967296", "1", "-2147483647"},
        {"-99999999999999999999", "1", "-2147483647"},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(new_handle_after(row.handle),
                  sizeof(long) == 8 ? row.with_64_bits : row.with_32_bits)
            << row.handle;
    }
}

// ---- The output buffer ----

TEST_F(NewKeyHandle, ZerosTheWholeBuffer)
{
    for (const size_t size : {size_t{2}, size_t{3}, size_t{16}, size_t{17}, size_t{4000}}) {
        OutBuffer handle(size);
        EXPECT_EQ(get_new_key_handle(handle.data(), handle.size()), 0U) << size;
        EXPECT_EQ(handle.text(), "1") << size;
    }
}

TEST_F(NewKeyHandle, NeedsRoomForTheTerminatorAndNoMore)
{
    for (const char* last : {"0", "8", "9", "12344", "-6", "2147483647"}) {
        const std::string expected = new_handle_after(last);
        OutBuffer exact(expected.size() + 1);
        EXPECT_EQ(get_new_key_handle(exact.data(), exact.size()), 0U) << expected;
        EXPECT_EQ(exact.text(), expected);

        OutBuffer small(expected.size());
        testing::internal::CaptureStdout();
        EXPECT_EQ(get_new_key_handle(small.data(), small.size()), 1U) << expected;
        EXPECT_EQ(testing::internal::GetCapturedStdout(),
                  "error: size of output buffer for handle is not large enough\n");
        EXPECT_TRUE(small.untouched()) << expected;
    }
}

TEST_F(NewKeyHandle, NeverFitsABufferOfOneByteOrNone)
{
    for (const unsigned int size : {1U, 0U}) {
        for (const char* last : {"0", "-1", "9"}) {
            write_store_file(PUBLIC_FILE, record("U", "n", last, "ab"));
            char handle = '#';
            testing::internal::CaptureStdout();
            EXPECT_EQ(get_new_key_handle(&handle, size), 1U) << last;
            EXPECT_EQ(testing::internal::GetCapturedStdout(),
                      "error: size of output buffer for handle is not large enough\n");
            EXPECT_EQ(handle, '#');
        }
    }
}

// ---- Files, parser, mutex, volatile root ----

TEST_F(NewKeyHandle, ReadsThePublicFileThenThePrivateOne)
{
    EXPECT_EQ(events_of(new_handle),
              as_built({"read key_contents_pub.xml", "search", "free", "clean up",
                        "read key_contents_prv.xml", "search", "free", "clean up"}));
}

TEST_F(NewKeyHandle, SkipsFilesThatAreMissingWithoutAMessage)
{
    std::filesystem::remove(PUBLIC_FILE);
    write_store_file(PRIVATE_FILE, record("U", "n", "7", "ab"));
    EXPECT_EQ(
        complained_by([] { EXPECT_EQ(printed_by([] { EXPECT_EQ(new_handle(), "8"); }), ""); }), "");
    std::filesystem::remove(PRIVATE_FILE);
    write_store_file(PUBLIC_FILE, record("U", "n", "5", "ab"));
    EXPECT_EQ(
        complained_by([] { EXPECT_EQ(printed_by([] { EXPECT_EQ(new_handle(), "6"); }), ""); }), "");
}

TEST_F(NewKeyHandle, SkipsFilesThatAreMalformedWithoutAMessage)
{
    write_file(PUBLIC_FILE, MALFORMED);
    write_store_file(PRIVATE_FILE, record("U", "n", "7", "ab"));
    EXPECT_EQ(
        complained_by([] { EXPECT_EQ(printed_by([] { EXPECT_EQ(new_handle(), "8"); }), ""); }), "");
    write_file(PRIVATE_FILE, MALFORMED);
    EXPECT_EQ(
        complained_by([] { EXPECT_EQ(printed_by([] { EXPECT_EQ(new_handle(), "1"); }), ""); }), "");
}

TEST_F(NewKeyHandle, DoesNotCleanUpAfterAFileThatCannotBeRead)
{
    std::filesystem::remove(PUBLIC_FILE);
    EXPECT_EQ(events_of(new_handle),
              as_built({"read key_contents_pub.xml", "read key_contents_prv.xml", "search", "free",
                        "clean up"}));
    write_file(PRIVATE_FILE, MALFORMED);
    EXPECT_EQ(events_of(new_handle),
              (Events{"read key_contents_pub.xml", "read key_contents_prv.xml"}));
}

TEST_F(NewKeyHandle, LeavesTheFilesAsTheyAre)
{
    write_store_file(PUBLIC_FILE, record("U", "a", "3", "ab"));
    const std::string before = read_file(PUBLIC_FILE) + read_file(PRIVATE_FILE);
    new_handle();
    EXPECT_EQ(read_file(PUBLIC_FILE) + read_file(PRIVATE_FILE), before);
}

TEST_F(NewKeyHandle, PrintsNothingWhenItSucceeds)
{
    EXPECT_EQ(printed_by([] { new_handle(); }), "");
}

TEST_F(NewKeyHandle, MakesTheVolatileRoot)
{
    ASSERT_EQ(tmpTree_rootNode, nullptr);
    new_handle();
    ASSERT_NE(tmpTree_rootNode, nullptr);
    EXPECT_EQ(chars(tmpTree_rootNode->name), "tmp_tree_root");
}

TEST_F(NewKeyHandle, KeepsTheVolatileTree)
{
    xmlNode* added = add_volatile_record("5");
    xmlNode* root = tmpTree_rootNode;
    EXPECT_EQ(new_handle(), "6");
    EXPECT_EQ(tmpTree_rootNode, root);
    EXPECT_EQ(root->children, added);
    EXPECT_EQ(added->next, nullptr);
}

TEST_F(NewKeyHandle, TakesNoLock)
{
    const Deadline deadline(60);
    write_store_file(PRIVATE_FILE, record("U", "n", "7", "ab"));
    pthread_mutex_lock(&lock);
    EXPECT_EQ(new_handle(), "8");
    EXPECT_TRUE(lock_is_held());
    pthread_mutex_unlock(&lock);
}

TEST_F(NewKeyHandle, SpendsNoStackOnTheNumberOfRecords)
{
    std::string records;
    for (int i = 1; i <= 100000; ++i) {
        records += "<key_content><handle>" + std::to_string(i) + "</handle></key_content>";
    }
    write_store_file(PRIVATE_FILE, records);
    on_a_small_stack([] { EXPECT_EQ(new_handle(), "100001"); });
}

TEST_F(NewKeyHandle, CountsFromTheFilesWhenThereIsNoMemoryForTheVolatileRoot)
{
    write_store_file(PUBLIC_FILE, record("U", "n", "3", "ab"));
    count_libxml2_memory();
    new_handle();
    ASSERT_EQ(libxml2_memory.refuse, 0U);
    const unsigned long asked = libxml2_memory.asked;
    leave_libxml2_memory_alone();
    xmlFreeNode(tmpTree_rootNode);
    tmpTree_rootNode = nullptr;

    // The root's node and its name are the last two things that memory is asked for.
    count_libxml2_memory();
    libxml2_memory.refuse = asked - 1;
    libxml2_memory.refuse_rest = true;
    EXPECT_EQ(new_handle(), "4");
    EXPECT_EQ(tmpTree_rootNode, nullptr);
    leave_libxml2_memory_alone();
}

// ---------------------------------------------------------------------------------------------
// Looking up handle and metadata
// ---------------------------------------------------------------------------------------------

class KeyHandle : public HandleTest {
  protected:
    uint32_t look_up(const char* uid = "U", const char* key_name = "n")
    {
        return get_key_handle(uid, key_name, metadata_.data(), metadata_.size(), handle_.data(),
                              handle_.size());
    }

    uint32_t look_up_without_metadata()
    {
        return get_key_handle("U", "n", nullptr, 0, handle_.data(), handle_.size());
    }

    OutBuffer handle_ = OutBuffer(16);
    OutBuffer metadata_ = OutBuffer(32);
};

// ---- Arguments ----

TEST_F(KeyHandle, FailsWithoutAMessageForANullUid)
{
    write_store_file(PRIVATE_FILE, record("U", "n", "7", "ab", "meta"));
    const Events events = events_of(
        [this] { EXPECT_EQ(printed_by([this] { EXPECT_EQ(look_up(nullptr), 1U); }), ""); });
    EXPECT_EQ(events, Events());
    EXPECT_TRUE(handle_.untouched());
    EXPECT_TRUE(metadata_.untouched());
}

TEST_F(KeyHandle, FailsWithoutAMessageForANullHandleBuffer)
{
    write_store_file(PRIVATE_FILE, record("U", "n", "7", "ab", "meta"));
    const Events events = events_of([this] {
        EXPECT_EQ(printed_by([this] {
                      EXPECT_EQ(
                          get_key_handle("U", "n", metadata_.data(), metadata_.size(), nullptr, 16),
                          1U);
                  }),
                  "");
    });
    EXPECT_EQ(events, Events());
    EXPECT_TRUE(metadata_.untouched());
}

TEST_F(KeyHandle, TakesTheFirstRecordOfTheUidForANullName)
{
    write_store_file(PRIVATE_FILE, record("V", "n", "1", "ab") +
                                       record("U", "a", "2", "ab", "first") +
                                       record("U", "b", "3", "ab", "second"));
    EXPECT_EQ(look_up("U", nullptr), 0U);
    EXPECT_EQ(handle_.text(), "2");
    EXPECT_EQ(metadata_.text(), "first");
}

// ---- What is returned ----

TEST_F(KeyHandle, ReturnsHandleAndMetadata)
{
    write_store_file(PRIVATE_FILE, record("U", "n", "7", "ab", "some metadata"));
    EXPECT_EQ(printed_by([this] { EXPECT_EQ(look_up(), 0U); }), "");
    EXPECT_EQ(handle_.text(), "7");
    EXPECT_EQ(metadata_.text(), "some metadata");
}

TEST_F(KeyHandle, FindsARecordOfThePublicFile)
{
    write_store_file(PUBLIC_FILE, record("U", "n", "7", "ab", "meta"));
    EXPECT_EQ(printed_by([this] { EXPECT_EQ(look_up(), 0U); }), "");
    EXPECT_EQ(handle_.text(), "7");
    EXPECT_EQ(metadata_.text(), "meta");
}

TEST_F(KeyHandle, TellsRecordsApartByUidAndName)
{
    write_store_file(PRIVATE_FILE, record("U", "m", "1", "ab") + record("V", "n", "2", "ab") +
                                       record("U", "n", "3", "ab") + record("U", "n", "4", "ab"));
    EXPECT_EQ(look_up(), 0U);
    EXPECT_EQ(handle_.text(), "3");
}

TEST_F(KeyHandle, FindsARecordThatIsNoDirectChildOfTheRoot)
{
    write_store_file(PRIVATE_FILE, "<group>" + record("U", "n", "7", "ab") + "</group>");
    EXPECT_EQ(look_up(), 0U);
    EXPECT_EQ(handle_.text(), "7");
}

TEST_F(KeyHandle, ReturnsTheHandleWithoutAMetadataBuffer)
{
    write_store_file(PRIVATE_FILE, record("U", "n", "7", "ab", "meta"));
    EXPECT_EQ(printed_by([this] { EXPECT_EQ(look_up_without_metadata(), 0U); }), "");
    EXPECT_EQ(handle_.text(), "7");
}

TEST_F(KeyHandle, IgnoresTheMetadataSizeWithoutAMetadataBuffer)
{
    write_store_file(PRIVATE_FILE, record("U", "n", "7", "ab", "meta"));
    EXPECT_EQ(printed_by([this] {
                  EXPECT_EQ(get_key_handle("U", "n", nullptr, 100, handle_.data(), handle_.size()),
                            0U);
              }),
              "");
    EXPECT_EQ(handle_.text(), "7");
}

TEST_F(KeyHandle, LeavesTheMetadataBufferAsItIsWithoutMetadataInTheRecord)
{
    write_store_file(PRIVATE_FILE, record("U", "n", "7", "ab"));
    EXPECT_EQ(look_up(), 0U);
    EXPECT_EQ(handle_.text(), "7");
    EXPECT_TRUE(metadata_.untouched());
}

TEST_F(KeyHandle, ReturnsTheHandleTextAsItIs)
{
    for (const char* text : {" 7", "007", "-5", "abc", "7 8"}) {
        write_store_file(PRIVATE_FILE, record("U", "n", text, "ab"));
        EXPECT_EQ(look_up(), 0U) << text;
        EXPECT_EQ(handle_.text(), text);
    }
}

TEST_F(KeyHandle, ZerosBothBuffersWhole)
{
    handle_ = OutBuffer(5000);
    metadata_ = OutBuffer(5000);
    write_store_file(PRIVATE_FILE, record("U", "n", "7", "ab", "meta"));
    EXPECT_EQ(look_up(), 0U);
    EXPECT_EQ(handle_.text(), "7");
    EXPECT_EQ(metadata_.text(), "meta");
}

// ---- Both files ----

TEST_F(KeyHandle, LeavesThePublicFilesValuesInTheBuffers)
{
    write_store_file(PRIVATE_FILE, record("U", "n", "1234567", "ab", "of the private file"));
    write_store_file(PUBLIC_FILE, record("U", "n", "8", "ab", "public"));
    EXPECT_EQ(printed_by([this] { EXPECT_EQ(look_up(), 0U); }), "");
    EXPECT_EQ(handle_.text(), "8");
    EXPECT_EQ(metadata_.text(), "public");
}

TEST_F(KeyHandle, LeavesThePublicFilesHandleInTheBufferAlsoWhenMetadataIsNotWanted)
{
    write_store_file(PRIVATE_FILE, record("U", "n", "1234567", "ab", "of the private file"));
    write_store_file(PUBLIC_FILE, record("U", "n", "8", "ab", "public"));
    EXPECT_EQ(printed_by([this] { EXPECT_EQ(look_up_without_metadata(), 0U); }), "");
    EXPECT_EQ(handle_.text(), "8");
}

TEST_F(KeyHandle, KeepsWhatThePublicFileDoesNotReplace)
{
    write_store_file(PRIVATE_FILE, record("U", "n", "7", "ab", "private"));
    write_store_file(PUBLIC_FILE, record("U", "n", "8", "ab"));
    EXPECT_EQ(look_up(), 0U);
    EXPECT_EQ(handle_.text(), "8");
    EXPECT_EQ(metadata_.text(), "private");
}

TEST_F(KeyHandle, SucceedsWhenOnlyThePrivateFilesValuesFit)
{
    handle_ = OutBuffer(2);
    write_store_file(PRIVATE_FILE, record("U", "n", "7", "ab"));
    write_store_file(PUBLIC_FILE, record("U", "n", "88", "ab"));
    EXPECT_EQ(printed_by([this] { EXPECT_EQ(look_up(), 0U); }), HANDLE_DOES_NOT_FIT);
    EXPECT_EQ(handle_.text(), "7");
}

TEST_F(KeyHandle, ReadsThePrivateFileThenThePublicOneAlways)
{
    const Events both = as_built({"read key_contents_prv.xml", "search", "free", "clean up",
                                  "read key_contents_pub.xml", "search", "free", "clean up"});
    const auto call = [this] {
        look_up();
    };
    EXPECT_EQ(events_of(call), both) << "found nowhere";
    write_store_file(PRIVATE_FILE, record("U", "n", "7", "ab", "meta"));
    EXPECT_EQ(events_of(call), both) << "found in the private file";
    write_store_file(PUBLIC_FILE, record("U", "n", "7", "ab", "meta"));
    EXPECT_EQ(events_of(call), both) << "found in both files";
    write_store_file(PRIVATE_FILE, "");
    EXPECT_EQ(events_of(call), both) << "found in the public file";
}

// ---- Buffers that are too small ----

TEST_F(KeyHandle, AcceptsBuffersOfExactlyTheSizeNeeded)
{
    handle_ = OutBuffer(4);
    metadata_ = OutBuffer(5);
    write_store_file(PRIVATE_FILE, record("U", "n", "123", "ab", "meta"));
    EXPECT_EQ(printed_by([this] { EXPECT_EQ(look_up(), 0U); }), "");
    EXPECT_EQ(handle_.text(), "123");
    EXPECT_EQ(metadata_.text(), "meta");
}

TEST_F(KeyHandle, FailsWhenTheHandleDoesNotFitAndThereIsNoMetadata)
{
    handle_ = OutBuffer(3);
    write_store_file(PRIVATE_FILE, record("U", "n", "123", "ab"));
    EXPECT_EQ(printed_by([this] { EXPECT_EQ(look_up(), 1U); }),
              std::string(HANDLE_DOES_NOT_FIT) + NOT_FOUND);
    EXPECT_TRUE(handle_.untouched());
    EXPECT_TRUE(metadata_.untouched());
}

TEST_F(KeyHandle, FailsWhenTheHandleDoesNotFitAndMetadataIsNotWanted)
{
    handle_ = OutBuffer(3);
    write_store_file(PRIVATE_FILE, record("U", "n", "123", "ab", "meta"));
    EXPECT_EQ(printed_by([this] { EXPECT_EQ(look_up_without_metadata(), 1U); }),
              std::string(HANDLE_DOES_NOT_FIT) + NOT_FOUND);
    EXPECT_TRUE(handle_.untouched());
}

TEST_F(KeyHandle, SucceedsWhenTheMetadataFitsThoughTheHandleDoesNot)
{
    handle_ = OutBuffer(3);
    write_store_file(PRIVATE_FILE, record("U", "n", "123", "ab", "meta"));
    EXPECT_EQ(printed_by([this] { EXPECT_EQ(look_up(), 0U); }), HANDLE_DOES_NOT_FIT);
    EXPECT_TRUE(handle_.untouched());
    EXPECT_EQ(metadata_.text(), "meta");
}

TEST_F(KeyHandle, SucceedsWhenTheHandleFitsThoughTheMetadataDoesNot)
{
    metadata_ = OutBuffer(4);
    write_store_file(PRIVATE_FILE, record("U", "n", "123", "ab", "meta"));
    EXPECT_EQ(printed_by([this] { EXPECT_EQ(look_up(), 0U); }), METADATA_DOES_NOT_FIT);
    EXPECT_EQ(handle_.text(), "123");
    EXPECT_TRUE(metadata_.untouched());
}

TEST_F(KeyHandle, FailsWhenNeitherFits)
{
    handle_ = OutBuffer(3);
    metadata_ = OutBuffer(4);
    write_store_file(PRIVATE_FILE, record("U", "n", "123", "ab", "meta"));
    EXPECT_EQ(printed_by([this] { EXPECT_EQ(look_up(), 1U); }),
              std::string(HANDLE_DOES_NOT_FIT) + METADATA_DOES_NOT_FIT + NOT_FOUND);
    EXPECT_TRUE(handle_.untouched());
    EXPECT_TRUE(metadata_.untouched());
}

TEST_F(KeyHandle, ReportsEachFileWhoseHandleDoesNotFit)
{
    handle_ = OutBuffer(1);
    write_store_file(PRIVATE_FILE, record("U", "n", "7", "ab"));
    write_store_file(PUBLIC_FILE, record("U", "n", "8", "ab"));
    EXPECT_EQ(printed_by([this] { EXPECT_EQ(look_up(), 1U); }),
              std::string(HANDLE_DOES_NOT_FIT) + HANDLE_DOES_NOT_FIT + NOT_FOUND);
}

TEST_F(KeyHandle, WritesNothingIntoBuffersOfSizeZero)
{
    write_store_file(PRIVATE_FILE, record("U", "n", "7", "ab", "meta"));
    char handle = '#';
    char metadata = '#';
    EXPECT_EQ(
        printed_by([&] { EXPECT_EQ(get_key_handle("U", "n", &metadata, 0, &handle, 0), 1U); }),
        std::string(HANDLE_DOES_NOT_FIT) + METADATA_DOES_NOT_FIT + NOT_FOUND);
    EXPECT_EQ(handle, '#');
    EXPECT_EQ(metadata, '#');
}

// ---- The walk through the record ----

TEST_F(KeyHandle, StopsAtTheFirstMetadataThatFits)
{
    write_store_file(PRIVATE_FILE, "<key_content><uid>U</uid><key_name>n</key_name>"
                                   "<metadata>first</metadata><metadata>second</metadata>"
                                   "</key_content>");
    EXPECT_EQ(look_up(), 0U);
    EXPECT_EQ(metadata_.text(), "first");
}

TEST_F(KeyHandle, DoesNotSeeAHandleBehindMetadataThatFits)
{
    write_store_file(PRIVATE_FILE, "<key_content><uid>U</uid><key_name>n</key_name>"
                                   "<metadata>meta</metadata><handle>7</handle></key_content>");
    EXPECT_EQ(printed_by([this] { EXPECT_EQ(look_up(), 0U); }), "");
    EXPECT_EQ(metadata_.text(), "meta");
    EXPECT_TRUE(handle_.untouched());
}

TEST_F(KeyHandle, SeesAHandleBehindMetadataThatDoesNotFit)
{
    metadata_ = OutBuffer(4);
    write_store_file(PRIVATE_FILE, "<key_content><uid>U</uid><key_name>n</key_name>"
                                   "<metadata>meta</metadata><handle>7</handle></key_content>");
    EXPECT_EQ(printed_by([this] { EXPECT_EQ(look_up(), 0U); }), METADATA_DOES_NOT_FIT);
    EXPECT_EQ(handle_.text(), "7");
}

TEST_F(KeyHandle, SeesAHandleBehindMetadataThatIsNotWanted)
{
    write_store_file(PRIVATE_FILE, "<key_content><uid>U</uid><key_name>n</key_name>"
                                   "<metadata>meta</metadata><handle>7</handle></key_content>");
    EXPECT_EQ(look_up_without_metadata(), 0U);
    EXPECT_EQ(handle_.text(), "7");
}

TEST_F(KeyHandle, TakesALaterMetadataThatFits)
{
    metadata_ = OutBuffer(4);
    write_store_file(PRIVATE_FILE,
                     "<key_content><uid>U</uid><key_name>n</key_name>"
                     "<metadata>long</metadata><metadata>fit</metadata></key_content>");
    EXPECT_EQ(printed_by([this] { EXPECT_EQ(look_up(), 0U); }), METADATA_DOES_NOT_FIT);
    EXPECT_EQ(metadata_.text(), "fit");
}

TEST_F(KeyHandle, TakesTheLastHandleThatFits)
{
    handle_ = OutBuffer(3);
    write_store_file(PRIVATE_FILE, "<key_content><uid>U</uid><key_name>n</key_name>"
                                   "<handle>12</handle><handle>3</handle><handle>456</handle>"
                                   "</key_content>");
    EXPECT_EQ(printed_by([this] { EXPECT_EQ(look_up(), 0U); }), HANDLE_DOES_NOT_FIT);
    EXPECT_EQ(handle_.text(), "3");
}

TEST_F(KeyHandle, SeesAHandleBeforeTheUid)
{
    write_store_file(PRIVATE_FILE, "<key_content><handle>7</handle><uid>U</uid>"
                                   "<key_name>n</key_name></key_content>");
    EXPECT_EQ(look_up(), 0U);
    EXPECT_EQ(handle_.text(), "7");
}

TEST_F(KeyHandle, FailsForARecordWithNeitherHandleNorMetadata)
{
    write_store_file(PRIVATE_FILE, "<key_content><uid>U</uid><key_name>n</key_name></key_content>");
    EXPECT_EQ(printed_by([this] { EXPECT_EQ(look_up(), 1U); }), NOT_FOUND);
    EXPECT_TRUE(handle_.untouched());
    EXPECT_TRUE(metadata_.untouched());
}

TEST_F(KeyHandle, ReturnsTheEmptyTextOfChildrenWithoutText)
{
    for (const char* content :
         {"", "<!--7-->", "<!--c-->7", "<x>7</x>", "<?x 7?>", "<![CDATA[]]>"}) {
        handle_ = OutBuffer(16);
        metadata_ = OutBuffer(16);
        write_store_file(PRIVATE_FILE, "<key_content><uid>U</uid><key_name>n</key_name><handle>" +
                                           std::string(content) + "</handle><metadata>" + content +
                                           "</metadata></key_content>");
        EXPECT_EQ(look_up(), 0U) << content;
        EXPECT_EQ(handle_.text(), "") << content;
        EXPECT_EQ(metadata_.text(), "") << content;
    }
}

TEST_F(KeyHandle, ReturnsTheEmptyTextOfAnEntityReference)
{
    write_file(PRIVATE_FILE, "<!DOCTYPE keys [<!ENTITY e '7'>]><keys><key_content><uid>U</uid>"
                             "<key_name>n</key_name><handle>&e;</handle><metadata>&e;7</metadata>"
                             "</key_content></keys>");
    EXPECT_EQ(look_up(), 0U);
    EXPECT_EQ(handle_.text(), "");
    EXPECT_EQ(metadata_.text(), "");
}

TEST_F(KeyHandle, TakesAProcessingInstructionNamedLikeAChildForOneWithoutText)
{
    write_store_file(PRIVATE_FILE, "<key_content><uid>U</uid><key_name>n</key_name><?handle 7?>"
                                   "<?metadata meta?></key_content>");
    EXPECT_EQ(look_up(), 0U);
    EXPECT_EQ(handle_.text(), "");
    EXPECT_EQ(metadata_.text(), "");
}

TEST_F(KeyHandle, PassesOverChildrenThatAreNoElements)
{
    write_store_file(PRIVATE_FILE, "<key_content>text<!--handle--><uid>U</uid><![CDATA[handle]]>"
                                   "<key_name>n</key_name><?x handle?><handle>7</handle>metadata"
                                   "<metadata>meta</metadata></key_content>");
    EXPECT_EQ(look_up(), 0U);
    EXPECT_EQ(handle_.text(), "7");
    EXPECT_EQ(metadata_.text(), "meta");
}

// ---- Not found ----

TEST_F(KeyHandle, FailsWhenNoFileHoldsTheKey)
{
    write_store_file(PRIVATE_FILE, record("U", "m", "1", "ab", "meta"));
    write_store_file(PUBLIC_FILE, record("V", "n", "2", "ab", "meta"));
    EXPECT_EQ(printed_by([this] { EXPECT_EQ(look_up(), 1U); }), NOT_FOUND);
    EXPECT_TRUE(handle_.untouched());
    EXPECT_TRUE(metadata_.untouched());
}

TEST_F(KeyHandle, FailsInAnEmptyRoot)
{
    write_file(PRIVATE_FILE, "<keys/>");
    write_file(PUBLIC_FILE, "<key_content/>");
    EXPECT_EQ(printed_by([this] { EXPECT_EQ(look_up(), 1U); }), NOT_FOUND);
}

TEST_F(KeyHandle, DoesNotSeeTheVolatileTree)
{
    xmlNode* node = xmlNewChild(getTmpTreeRootNode(), nullptr, xml("key_content"), nullptr);
    xmlNewChild(node, nullptr, xml("uid"), xml("U"));
    xmlNewChild(node, nullptr, xml("key_name"), xml("n"));
    xmlNewChild(node, nullptr, xml("handle"), xml("7"));
    EXPECT_EQ(printed_by([this] { EXPECT_EQ(look_up(), 1U); }), NOT_FOUND);
    EXPECT_TRUE(handle_.untouched());
}

TEST_F(KeyHandle, DoesNotMakeTheVolatileRoot)
{
    look_up();
    EXPECT_EQ(tmpTree_rootNode, nullptr);
}

// ---- Files that cannot be read ----

TEST_F(KeyHandle, NamesAMissingPrivateFileAndGoesOn)
{
    std::filesystem::remove(PRIVATE_FILE);
    write_store_file(PUBLIC_FILE, record("U", "n", "7", "ab", "meta"));
    EXPECT_EQ(printed_by([this] { EXPECT_EQ(look_up(), 0U); }),
              "[get_key_handle] error: could not parse file key_contents_prv.xml\n");
    EXPECT_EQ(handle_.text(), "7");
    EXPECT_EQ(metadata_.text(), "meta");
}

TEST_F(KeyHandle, NamesAMissingPublicFileAndStillSucceeds)
{
    std::filesystem::remove(PUBLIC_FILE);
    write_store_file(PRIVATE_FILE, record("U", "n", "7", "ab", "meta"));
    EXPECT_EQ(printed_by([this] { EXPECT_EQ(look_up(), 0U); }),
              "[get_key_handle] error: could not parse file key_contents_pub.xml\n");
    EXPECT_EQ(handle_.text(), "7");
    EXPECT_EQ(metadata_.text(), "meta");
}

TEST_F(KeyHandle, NamesBothFilesWhenNeitherCanBeRead)
{
    write_file(PRIVATE_FILE, MALFORMED);
    write_file(PUBLIC_FILE, MALFORMED);
    EXPECT_EQ(printed_by([this] { EXPECT_EQ(look_up(), 1U); }),
              "[get_key_handle] error: could not parse file key_contents_prv.xml\n"
              "[get_key_handle] error: could not parse file key_contents_pub.xml\n"
              "error: can't find key\n");
    EXPECT_TRUE(handle_.untouched());
    EXPECT_TRUE(metadata_.untouched());
}

TEST_F(KeyHandle, KeepsAMalformedFileOffStandardError)
{
    write_file(PRIVATE_FILE, MALFORMED);
    std::filesystem::remove(PUBLIC_FILE);
    EXPECT_EQ(complained_by([this] { printed_by([this] { look_up(); }); }), "");
}

TEST_F(KeyHandle, DoesNotCleanUpAfterAFileThatCannotBeRead)
{
    const auto call = [this] {
        printed_by([this] { look_up(); });
    };
    write_file(PRIVATE_FILE, MALFORMED);
    EXPECT_EQ(events_of(call), as_built({"read key_contents_prv.xml", "read key_contents_pub.xml",
                                         "search", "free", "clean up"}));
    std::filesystem::remove(PUBLIC_FILE);
    EXPECT_EQ(events_of(call), (Events{"read key_contents_prv.xml", "read key_contents_pub.xml"}));
}

// ---- Files, mutex, stack ----

TEST_F(KeyHandle, LeavesTheFilesAsTheyAre)
{
    write_store_file(PRIVATE_FILE, record("U", "n", "7", "ab", "meta"));
    const std::string before = read_file(PUBLIC_FILE) + read_file(PRIVATE_FILE);
    look_up();
    EXPECT_EQ(read_file(PUBLIC_FILE) + read_file(PRIVATE_FILE), before);
}

TEST_F(KeyHandle, CreatesNoFile)
{
    std::filesystem::remove(PRIVATE_FILE);
    std::filesystem::remove(PUBLIC_FILE);
    look_up();
    EXPECT_TRUE(std::filesystem::is_empty("."));
}

TEST_F(KeyHandle, TakesNoLock)
{
    const Deadline deadline(60);
    write_store_file(PRIVATE_FILE, record("U", "n", "7", "ab", "meta"));
    pthread_mutex_lock(&lock);
    EXPECT_EQ(look_up(), 0U);
    EXPECT_EQ(look_up("V"), 1U);
    EXPECT_TRUE(lock_is_held());
    pthread_mutex_unlock(&lock);
    EXPECT_EQ(handle_.text(), "7");
}

TEST_F(KeyHandle, SpendsNoStackOnTheNumberOfRecordsOrTheLengthOfATextOrTheDepth)
{
    std::string records;
    for (int i = 1; i <= 100000; ++i) {
        records += record("V", "n", std::to_string(i), "ab");
    }
    std::string deep = record("U", "n", "7", "ab", std::string(1000000, 'm'));
    for (int i = 0; i < 240; ++i) {
        deep = "<d>" + deep + "</d>";
    }
    write_store_file(PRIVATE_FILE, records + deep);
    metadata_ = OutBuffer(1000001);
    on_a_small_stack([this] { EXPECT_EQ(look_up(), 0U); });
    EXPECT_EQ(handle_.text(), "7");
    EXPECT_TRUE(metadata_.text() == std::string(1000000, 'm'));
}

// ---- Memory ----

TEST_F(KeyHandle, ReleasesEverythingThatItAllocates)
{
    write_store_file(PRIVATE_FILE, record("U", "n", "7", "ab", "meta"));
    const auto live_after = [this](int calls) {
        count_libxml2_memory();
        for (int i = 0; i < calls; ++i) {
            look_up();
            OutBuffer handle(16);
            get_new_key_handle(handle.data(), handle.size());
        }
        leave_libxml2_memory_alone();
        return libxml2_memory.live;
    };
    getTmpTreeRootNode();
    EXPECT_EQ(live_after(10), live_after(1));
}

TEST_F(KeyHandle, SurvivesARefusedAllocation)
{
    write_store_file(PRIVATE_FILE, record("U", "n", "7", "ab", "meta"));
    for (const bool rest : {false, true}) {
        bool refused = true;
        for (unsigned long k = 1; refused; ++k) {
            handle_ = OutBuffer(16);
            metadata_ = OutBuffer(32);
            count_libxml2_memory();
            libxml2_memory.refuse = k;
            libxml2_memory.refuse_rest = rest;
            uint32_t result = 2;
            const std::string printed = printed_by([&] { result = look_up(); });
            refused = libxml2_memory.asked >= k;
            leave_libxml2_memory_alone();
            if (result == 0) {
                EXPECT_EQ(handle_.text(), "7") << "allocation " << k;
                EXPECT_EQ(metadata_.text(), "meta") << "allocation " << k;
            } else {
                EXPECT_EQ(result, 1U) << "allocation " << k;
                EXPECT_NE(printed.find(NOT_FOUND), std::string::npos) << "allocation " << k;
                EXPECT_TRUE(handle_.untouched()) << "allocation " << k;
            }
        }
    }
}
