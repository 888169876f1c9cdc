// Handing out key texts: of the private file in clear, and of the public file.

#include "key_driver/zentrava_key_management_utils.cpp"

#include "tests/support/changing_store.h"
#include "tests/support/locks_at_print.h"

#include <gtest/gtest.h>

#include <stdint.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

namespace {

const std::string UID = DEVICE_UID;
const std::string OTHER_UID(32, 'f');
const std::string KEY = "000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f";

struct Exporter {
    const char* function; // as its messages name it
    uint32_t (*read)(const char* uid, const char* key_name, char* hex_key, uint32_t* key_len);
    const char* file_name;
    const char* other_file_name;
};

const Exporter EXPORTERS[] = {
    {"export_prv_key_in_clear_as_hex", export_prv_key_in_clear_as_hex, PRIVATE_FILE, PUBLIC_FILE},
    {"read_public_key_as_hex", read_public_key_as_hex, PUBLIC_FILE, PRIVATE_FILE}};

} // namespace

class ExportKey : public ChangingStore, public testing::WithParamInterface<Exporter> {
  protected:
    Outcome read(const char* uid, const char* key_name, uint32_t capacity = 200)
    {
        buffer_.assign(200, '#');
        key_len_ = capacity;
        return outcome_of(
            [&] { return GetParam().read(uid, key_name, buffer_.data(), &key_len_); });
    }

    Outcome read(const char* key_name)
    {
        return read(DEVICE_UID, key_name);
    }

    static Outcome handed_out()
    {
        return {0, "", {}, {}};
    }

    // With the function's name in front of the text.
    static Outcome failed(const std::string& text)
    {
        return {1, std::string("[") + GetParam().function + "] error: " + text + "\n", {}, {}};
    }

    static Outcome no_key(const std::string& uid, const std::string& key_name)
    {
        return failed("no key with found with  uid=" + uid + "; key name=" + key_name);
    }

    static Outcome no_key_data(const std::string& key_name)
    {
        return failed("Failed to extract key data from key with uid=" + UID +
                      "; key name=" + key_name);
    }

    static void write_records(const std::string& records)
    {
        write_store_file(GetParam().file_name, records);
    }

    // The text in the buffer, given that nothing behind its terminator was written.
    std::string text() const
    {
        const size_t length = buffer_.find('\0');
        return length != std::string::npos &&
                       buffer_.find_first_not_of('#', length + 1) == std::string::npos
                   ? buffer_.substr(0, length)
                   : buffer_;
    }

    bool untouched(uint32_t capacity = 200) const
    {
        return buffer_ == std::string(200, '#') && key_len_ == capacity;
    }

    static std::string read_under_mutex()
    {
        return std::string("read ") + GetParam().file_name + ", locked";
    }

    std::string buffer_;
    uint32_t key_len_ = 0;
};

INSTANTIATE_TEST_SUITE_P(By, ExportKey, testing::ValuesIn(EXPORTERS),
                         [](const auto& test) { return test.param.function; });

// ---- Handing out ----

TEST_P(ExportKey, HandsOutTheTextAndItsLengthAndTouchesNoFile)
{
    write_records(record(UID, "n", "1", KEY, "m"));
    EXPECT_EQ(read("n"), handed_out());
    EXPECT_EQ(text(), KEY);
    EXPECT_EQ(key_len_, 64U);
}

TEST_P(ExportKey, HandsOutTheTextExactlyAsItIsStored)
{
    for (const std::string key :
         {"a", "AbCdEf", "aBcDeF0", " no hexadecimal ", "\xC3\xA9\xF4\x8F\xBF\xBF", "\t\n"}) {
        write_records(record(UID, "n", "1", key));
        EXPECT_EQ(read("n"), handed_out()) << key;
        EXPECT_EQ(text(), key);
        EXPECT_EQ(key_len_, key.size()) << key;
    }
}

TEST_P(ExportKey, HandsOutALongText)
{
    const std::string key(190, 'c');
    write_records(record(UID, "n", "1", key));
    EXPECT_EQ(read("n"), handed_out());
    EXPECT_EQ(text(), key);
}

TEST_P(ExportKey, FindsARecordAtAnyDepthAndTheFirstOfSeveral)
{
    write_records("<a><b>" + record(UID, "n", "1", "first") + "</b></a>" +
                  record(UID, "n", "2", "second"));
    EXPECT_EQ(read("n"), handed_out());
    EXPECT_EQ(text(), "first");
}

TEST_P(ExportKey, HandsOutTheFirstKeyElementThatHasAText)
{
    write_records("<key_content><uid>" + UID + "</uid><key_name>n</key_name><key/><key>ab</key>" +
                  "<key>cd</key></key_content>");
    EXPECT_EQ(read("n"), handed_out());
    EXPECT_EQ(text(), "ab");
}

TEST_P(ExportKey, AcceptsAUidOfAnyLengthAndTheEmptyName)
{
    write_records(record("U", "", "1", KEY));
    EXPECT_EQ(read("U", ""), handed_out());
    EXPECT_EQ(text(), KEY);
}

TEST_P(ExportKey, ReadsItsFileOnly)
{
    write_store_file(GetParam().other_file_name, record(UID, "n", "1", KEY));
    EXPECT_EQ(read("n"), no_key(UID, "n"));
    write_records(record(UID, "n", "1", "its own"));
    std::filesystem::remove(GetParam().other_file_name);
    EXPECT_EQ(read("n"), handed_out());
    EXPECT_EQ(text(), "its own");
}

TEST_P(ExportKey, DoesNotSeeTheVolatileTree)
{
    char handle[16];
    add_volatile_based_key(DEVICE_UID, "n", KEY.c_str(), nullptr, handle, sizeof handle);
    EXPECT_EQ(read("n"), no_key(UID, "n"));
}

// ---- The capacity ----

TEST_P(ExportKey, FailsWhenTheCapacityIsTheLengthOfTheText)
{
    write_records(record(UID, "n", "1", KEY));
    EXPECT_EQ(read(DEVICE_UID, "n", 64),
              failed("output buffer not large enough to hold key! uid=" + UID + "; key name=n"));
    EXPECT_TRUE(untouched(64));
}

TEST_P(ExportKey, SucceedsWhenTheCapacityIsOneMoreThanTheLengthOfTheText)
{
    write_records(record(UID, "n", "1", KEY));
    EXPECT_EQ(read(DEVICE_UID, "n", 65), handed_out());
    EXPECT_EQ(text(), KEY);
    EXPECT_EQ(key_len_, 64U);
}

TEST_P(ExportKey, FailsForEverySmallerCapacity)
{
    write_records(record(UID, "n", "1", KEY));
    for (const uint32_t capacity : {0U, 1U, 32U, 63U}) {
        EXPECT_EQ(read(DEVICE_UID, "n", capacity),
                  failed("output buffer not large enough to hold key! uid=" + UID + "; key name=n"))
            << capacity;
        EXPECT_TRUE(untouched(capacity)) << capacity;
    }
}

// ---- Arguments ----

TEST_P(ExportKey, RefusesANullArgumentBeforeItTouchesTheFile)
{
    write_records(record(UID, "n", "1", KEY));
    const Outcome bad_argument = failed("bad argument!");
    char hex_key[128];
    uint32_t key_len = sizeof hex_key;
    EXPECT_EQ(outcome_of([&] { return GetParam().read(nullptr, "n", hex_key, &key_len); }),
              bad_argument)
        << "uid";
    EXPECT_EQ(outcome_of([&] { return GetParam().read(DEVICE_UID, nullptr, hex_key, &key_len); }),
              bad_argument)
        << "key name";
    EXPECT_EQ(outcome_of([&] { return GetParam().read(DEVICE_UID, "n", nullptr, &key_len); }),
              bad_argument)
        << "buffer";
    EXPECT_EQ(outcome_of([&] { return GetParam().read(DEVICE_UID, "n", hex_key, nullptr); }),
              bad_argument)
        << "length";
    EXPECT_EQ(store_events, Events());
    EXPECT_EQ(key_len, sizeof hex_key);
}

TEST_P(ExportKey, RefusesAnEmptyUidOnceItHasReadTheFile)
{
    write_records(record("", "n", "1", KEY));
    EXPECT_EQ(read("", "n"), failed("length of input parameter uid is not valid"));
    EXPECT_EQ(steps(), (Events{read_under_mutex(), "free"}));
    EXPECT_TRUE(untouched());
}

TEST_P(ExportKey, RefusesAnEmptyUidBeforeItReportsAnUnreadableFile)
{
    write_file(GetParam().file_name, "");
    EXPECT_EQ(read("", "n"), failed("length of input parameter uid is not valid"));
}

// ---- Failures ----

TEST_P(ExportKey, PrintsNullInPlaceOfTheNameOfAFileThatCannotBeRead)
{
    for (const char* content : {"", "no XML", "<keys>", "<keys></keyz>"}) {
        write_file(GetParam().file_name, content);
        EXPECT_EQ(read("n"), failed("could not parse file (null)")) << content;
        EXPECT_TRUE(untouched()) << content;
    }
    std::filesystem::remove(GetParam().file_name);
    EXPECT_EQ(read("n"), failed("could not parse file (null)"));
    EXPECT_FALSE(std::filesystem::exists(GetParam().file_name));
}

TEST_P(ExportKey, PrintsNullInPlaceOfTheNameOfAFileWithoutARoot)
{
    write_records(record(UID, "n", "1", KEY));
    documents_seem_rootless = true;
    EXPECT_EQ(read("n"), failed("could retrieve root element after parsing file (null)"));
    EXPECT_TRUE(untouched());
}

TEST_P(ExportKey, ReportsAKeyThatIsNotThere)
{
    write_records(record(UID, "name", "1", KEY) + record(OTHER_UID, "n", "2", KEY));
    EXPECT_EQ(read("n"), no_key(UID, "n"));
    EXPECT_TRUE(untouched());
    EXPECT_EQ(read("NAME"), no_key(UID, "NAME"));
    EXPECT_EQ(read(""), no_key(UID, ""));
    EXPECT_EQ(read("U", "name"), no_key("U", "name"));
}

TEST_P(ExportKey, ReportsARecordWithoutKeyText)
{
    for (const char* key :
         {"", "<key/>", "<key></key>", "<key/><key></key>", "<key><!-- comment --></key>"}) {
        write_records("<key_content><uid>" + UID + "</uid><key_name>n</key_name>" + key +
                      "</key_content>");
        EXPECT_EQ(read("n"), no_key_data("n")) << key;
        EXPECT_TRUE(untouched()) << key;
    }
}

TEST_P(ExportKey, KeepsAMalformedFileOffStandardError)
{
    write_file(GetParam().file_name, "<keys><key>5ec7e7</keys>");
    EXPECT_EQ(complained_by([this] { read("n"); }), "");
}

// ---- Locks and parser ----

TEST_P(ExportKey, HoldsTheMutexDuringTheReadOnlyAndCleansUpWhenItSucceeds)
{
    write_records(record(UID, "n", "1", KEY));
    read("n");
    EXPECT_EQ(steps(), as_built({read_under_mutex(), "free", "clean up"}));
}

TEST_P(ExportKey, GivesTheMutexBackBeforeItSearches)
{
    write_records(record(UID, "n", "1", KEY));
    read("n");
    EXPECT_EQ(std::count(store_events.begin(), store_events.end(), "search, locked"), 0);
    EXPECT_GT(std::count(store_events.begin(), store_events.end(), "search"), 0);
}

TEST_P(ExportKey, GivesTheMutexBackBeforeItReportsAFailure)
{
    const auto prints_under_mutex = [](const char* uid, uint32_t capacity = 200) {
        char text[200];
        return prints_with_locks_held([&] { GetParam().read(uid, "n", text, &capacity); });
    };
    EXPECT_FALSE(prints_under_mutex("")) << "empty UID";
    EXPECT_FALSE(prints_under_mutex(DEVICE_UID)) << "no such key";
    write_records(record(UID, "n", "1", ""));
    EXPECT_FALSE(prints_under_mutex(DEVICE_UID)) << "no key text";
    write_records(record(UID, "n", "1", KEY));
    EXPECT_FALSE(prints_under_mutex(DEVICE_UID, 64)) << "no room";
    documents_seem_rootless = true;
    EXPECT_FALSE(prints_under_mutex(DEVICE_UID)) << "no root";
    write_file(GetParam().file_name, "");
    EXPECT_FALSE(prints_under_mutex(DEVICE_UID)) << "unreadable";
}

TEST_P(ExportKey, DoesNotCleanUpWhenItFails)
{
    read("n");
    EXPECT_EQ(steps(), (Events{read_under_mutex(), "free"})) << "no such key";
    write_records(record(UID, "n", "1", ""));
    read("n");
    EXPECT_EQ(steps(), (Events{read_under_mutex(), "free"})) << "no key text";
    write_records(record(UID, "n", "1", KEY));
    read(DEVICE_UID, "n", 1);
    EXPECT_EQ(steps(), (Events{read_under_mutex(), "free"})) << "no room";
    write_file(GetParam().file_name, "");
    read("n");
    EXPECT_EQ(steps(), Events{read_under_mutex()}) << "unreadable";
}
