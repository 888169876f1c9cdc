// Records that the library does not write but a file may hold, through every operation: what comes
// of it, and that the rest of the file stays whole.

#include "key_driver/zentrava_key_management_utils.cpp"

#include "tests/support/changing_store.h"
#include "tests/support/xml_reader.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

namespace {

const std::string KEY(64, 'a');
const std::string NEW_KEY(64, 'b');
const std::string SRK(64, 'c');

const std::string UID = "<uid>" + std::string(DEVICE_UID) + "</uid>";
const std::string NAME = "<key_name>odd</key_name>";
const std::string HANDLE = "<handle>77</handle>";
const std::string KEY_TEXT = "<key>" + KEY + "</key>";

const std::string DECLARATIONS =
    "<!DOCTYPE keys [<!ENTITY e 'x'><!ENTITY uid 'x'><!ENTITY key_name 'x'><!ENTITY handle 'x'>"
    "<!ENTITY key 'x'><!ENTITY metadata 'x'>]>";
const std::string INSTRUCTIONS =
    "<?uid " + std::string(DEVICE_UID) + "?><?key_name odd?><?handle 77?><?key aa?><?metadata m?>";
const std::string REFERENCES = "&uid;&key_name;&handle;&key;&metadata;";

struct OddRecord {
    const char* what;
    std::string children;
    bool has_name;   // is found by UID and name
    bool has_handle; // is found by handle
    const char* key; // the text; null without any "key" element that holds something
    bool has_key_element;
};

std::string with_key(const std::string& content)
{
    return UID + NAME + HANDLE + "<key>" + content + "</key>";
}

const OddRecord RECORDS[] = {
    {"Ordinary", UID + NAME + HANDLE + KEY_TEXT, true, true, KEY.c_str(), true},
    {"NoChildren", "", false, false, nullptr, false},
    {"TextOnly", "text", false, false, nullptr, false},
    {"CommentOnly", "<!-- comment -->", false, false, nullptr, false},
    {"NoUid", NAME + HANDLE + KEY_TEXT, false, true, KEY.c_str(), true},
    {"NoName", UID + HANDLE + KEY_TEXT, false, true, KEY.c_str(), true},
    {"NoHandle", UID + NAME + KEY_TEXT, true, false, KEY.c_str(), true},
    {"NoKey", UID + NAME + HANDLE, true, true, nullptr, false},
    {"EmptyUid", "<uid/>" + NAME + HANDLE + KEY_TEXT, false, true, KEY.c_str(), true},
    {"EmptyName", UID + "<key_name></key_name>" + HANDLE + KEY_TEXT, false, true, KEY.c_str(),
     true},
    {"EmptyHandle", UID + NAME + "<handle/>" + KEY_TEXT, true, false, KEY.c_str(), true},
    {"EmptyKey", UID + NAME + HANDLE + "<key/>", true, true, nullptr, true},
    {"EmptyMetadata", UID + NAME + HANDLE + KEY_TEXT + "<metadata/>", true, true, KEY.c_str(),
     true},
    {"CommentFirstInUid",
     "<uid><!--c-->" + std::string(DEVICE_UID) + "</uid>" + NAME + HANDLE + KEY_TEXT, false, true,
     KEY.c_str(), true},
    {"CommentFirstInName", UID + "<key_name><!--c-->odd</key_name>" + HANDLE + KEY_TEXT, false,
     true, KEY.c_str(), true},
    {"CommentFirstInHandle", UID + NAME + "<handle><!--c-->77</handle>" + KEY_TEXT, true, false,
     KEY.c_str(), true},
    {"CommentFirstInKey", with_key("<!--c-->" + KEY), true, true, "", true},
    {"CommentFirstInMetadata", UID + NAME + HANDLE + KEY_TEXT + "<metadata><!--c-->m</metadata>",
     true, true, KEY.c_str(), true},
    {"CommentInTheMiddleOfTheKey", with_key(KEY + "<!--c-->" + KEY), true, true, KEY.c_str(), true},
    {"CommentsBetweenTheChildren",
     "<!--c-->" + UID + "<!--c-->" + NAME + "<!--c-->" + HANDLE + "<!--c-->" + KEY_TEXT +
         "<!--c-->",
     true, true, KEY.c_str(), true},
    {"Sections",
     "<uid><![CDATA[" + std::string(DEVICE_UID) +
         "]]></uid><key_name><![CDATA[odd]]></key_name><handle><![CDATA[77]]></handle>"
         "<key><![CDATA[" +
         KEY + "]]></key><metadata><![CDATA[m]]></metadata>",
     true, true, KEY.c_str(), true},
    {"EmptySectionInKey", with_key("<![CDATA[]]>"), true, true, "", true},
    {"TextBehindSection", with_key("<![CDATA[" + KEY + "]]>x"), true, true, KEY.c_str(), true},
    {"ElementInKey", with_key("<b>x</b>"), true, true, "", true},
    {"KeyInKey", with_key(KEY_TEXT), true, true, "", true},
    {"RecordInKey", with_key("<key_content>" + UID + "<key_name>inner</key_name></key_content>"),
     true, true, "", true},
    {"ElementBehindText", with_key(KEY + "<b>x</b>x"), true, true, KEY.c_str(), true},
    {"InstructionFirstInKey", with_key("<?pi data?>" + KEY), true, true, "", true},
    {"ReferenceFirstInKey", with_key("&e;" + KEY), true, true, "", true},
    {"ReferenceBehindText", with_key(KEY + "&e;"), true, true, KEY.c_str(), true},
    {"TwoUids", "<uid>other</uid>" + UID + NAME + HANDLE + KEY_TEXT, true, true, KEY.c_str(), true},
    {"TwoNames", UID + "<key_name>other</key_name>" + NAME + HANDLE + KEY_TEXT, true, true,
     KEY.c_str(), true},
    {"TwoHandles", UID + NAME + "<handle>9</handle>" + HANDLE + KEY_TEXT, true, true, KEY.c_str(),
     true},
    {"ThreeKeys", UID + NAME + HANDLE + "<key/>" + KEY_TEXT + "<key>x</key>", true, true,
     KEY.c_str(), true},
    {"TwoMetadata", "<metadata/>" + UID + NAME + HANDLE + KEY_TEXT + "<metadata>m</metadata>", true,
     true, KEY.c_str(), true},
    {"NameBeforeUid", NAME + UID + HANDLE + KEY_TEXT, false, true, KEY.c_str(), true},
    {"UidAndNameLast", "<metadata>m</metadata>" + KEY_TEXT + HANDLE + UID + NAME, true, true,
     KEY.c_str(), true},
    {"InstructionsNamedLikeChildren", INSTRUCTIONS, false, false, nullptr, false},
    {"InstructionsBeforeChildren", INSTRUCTIONS + UID + NAME + HANDLE + KEY_TEXT, true, true,
     KEY.c_str(), true},
    {"ReferencesNamedLikeChildren", REFERENCES, false, false, nullptr, false},
    {"ReferencesBeforeChildren", REFERENCES + UID + NAME + HANDLE + KEY_TEXT, true, true,
     KEY.c_str(), true},
    {"ReferenceNamedKeyOnly", UID + NAME + HANDLE + "&key;", true, true, nullptr, false},
    {"ReferencesBehindChildren", UID + NAME + HANDLE + KEY_TEXT + REFERENCES, true, true,
     KEY.c_str(), true},
    {"Attributes",
     "<uid a='1'>" + std::string(DEVICE_UID) +
         "</uid><key_name a='1'>odd</key_name><handle a='1'>77</handle><key a='1'>" + KEY +
         "</key>",
     true, true, KEY.c_str(), true},
    {"Blanks", "\n  " + UID + "\n  " + NAME + "\n  " + HANDLE + "\n  <key> x </key>\n ", true, true,
     " x ", true},
    {"RecordInRecord",
     UID + NAME + HANDLE + KEY_TEXT + "<key_content>" + UID +
         "<key_name>inner</key_name><handle>78</handle></key_content>",
     true, true, KEY.c_str(), true},
};

const std::string FIRST = record(DEVICE_UID, "first", "5", std::string(64, '5'), "m");
const std::string LAST = record("V", "last", "6", std::string(64, '6'));

Children first_record()
{
    return {{"uid", DEVICE_UID},
            {"key_name", "first"},
            {"handle", "5"},
            {"key", std::string(64, '5')},
            {"metadata", "m"}};
}

Children last_record()
{
    return {{"uid", "V"}, {"key_name", "last"}, {"handle", "6"}, {"key", std::string(64, '6')}};
}

std::string exported(const char* key_name)
{
    char text[1024];
    uint32_t length = sizeof text;
    const bool is_there =
        export_prv_key_in_clear_as_hex(DEVICE_UID, key_name, text, &length) == STORE_OK;
    return is_there ? std::string(text, length) : "none";
}

} // namespace

class OddRecordTest : public ChangingStore, public testing::WithParamInterface<OddRecord> {
  protected:
    void SetUp() override
    {
        ChangingStore::SetUp();
        write_private(odd_record());
    }

    void TearDown() override
    {
        expect_others_whole();
        ChangingStore::TearDown();
    }

    static std::string odd_record()
    {
        return "<key_content>" + GetParam().children + "</key_content>";
    }

    static void write_private(const std::string& records)
    {
        write_file(PRIVATE_FILE, DECLARATIONS + "<keys>" + FIRST + records + LAST + "</keys>");
    }

    // To another reader as well as to the library.
    static void expect_others_whole()
    {
        const std::vector<Children> records = records_of(PRIVATE_FILE);
        EXPECT_EQ(std::count(records.begin(), records.end(), first_record()), 1);
        EXPECT_EQ(std::count(records.begin(), records.end(), last_record()), 1);
        EXPECT_EQ(exported("first"), std::string(64, '5'));
        EXPECT_TRUE(contains_key("V", "last"));
    }

    static size_t count_of_records()
    {
        return records_of(PRIVATE_FILE).size();
    }

    // The texts of the record's elements of this name, as the other reader sees them.
    static std::vector<std::string> texts_of(const Children& record, const std::string& name)
    {
        std::vector<std::string> texts;
        for (const auto& [child, text] : record) {
            if (child == name) {
                texts.push_back(text);
            }
        }
        return texts;
    }

    static uint32_t add(bool allow_replace)
    {
        return add_nonvolatile_based_key(DEVICE_UID, "odd", NEW_KEY.c_str(), "new", true,
                                         allow_replace);
    }

    // The result of a call whose messages are not looked at.
    template <typename Call> static uint32_t result_of(Call call)
    {
        return outcome_of(call).result;
    }

    const OddRecord odd_ = GetParam();
};

INSTANTIATE_TEST_SUITE_P(Of, OddRecordTest, testing::ValuesIn(RECORDS),
                         [](const auto& test) { return test.param.what; });

TEST_P(OddRecordTest, IsPresentWhenItHasAName)
{
    EXPECT_EQ(contains_key(DEVICE_UID, "odd"), odd_.has_name);
}

TEST_P(OddRecordTest, IsExportedWhenItHasANameAndAKeyText)
{
    const bool has_text = odd_.has_name && odd_.key != nullptr && odd_.key[0] != '\0';
    std::string text;
    printed_by([&] { text = exported("odd"); });
    EXPECT_EQ(text, has_text ? odd_.key : "none");
}

TEST_P(OddRecordTest, IsADuplicateWhenItHasAName)
{
    const size_t before = count_of_records();
    EXPECT_EQ(result_of([] { return add(false); }), odd_.has_name ? 1U : 0U);
    EXPECT_EQ(count_of_records(), before + (odd_.has_name ? 0 : 1));
}

TEST_P(OddRecordTest, TakesANewKeyWhenItHasAName)
{
    const size_t before = count_of_records();
    const Outcome outcome = outcome_of([] { return add(true); });
    EXPECT_EQ(outcome, (Outcome{odd_.has_name ? 1U : 0U, "", {PRIVATE_FILE}, {5}}));
    EXPECT_EQ(count_of_records(), before + (odd_.has_name ? 0 : 1));
    EXPECT_EQ(exported("odd"), NEW_KEY);
    if (odd_.has_name) {
        for (const std::string& text : texts_of(records_of(PRIVATE_FILE).at(1), "key")) {
            EXPECT_EQ(text.substr(0, 64), NEW_KEY);
        }
        for (const std::string& text : texts_of(records_of(PRIVATE_FILE).at(1), "metadata")) {
            EXPECT_EQ(text, "new");
        }
    }
}

TEST_P(OddRecordTest, TakesAnotherKeyAfterTheFirst)
{
    printed_by([] { add(true); });
    const std::string another(64, 'd');
    EXPECT_EQ(add_nonvolatile_based_key(DEVICE_UID, "odd", another.c_str(), "", true, true), 1U);
    EXPECT_EQ(exported("odd"), another);
}

TEST_P(OddRecordTest, IsDeletedByNameWhenItHasOne)
{
    const size_t before = count_of_records();
    EXPECT_EQ(result_of([] { return delete_key_by_key_type(DEVICE_UID, "odd"); }),
              odd_.has_name ? 0U : 1U);
    EXPECT_EQ(count_of_records() < before, odd_.has_name);
    EXPECT_FALSE(contains_key(DEVICE_UID, "odd"));
}

TEST_P(OddRecordTest, IsDeletedByHandleWhenItHasOne)
{
    const size_t before = count_of_records();
    EXPECT_EQ(result_of([] { return delete_key_by_handle("77"); }), odd_.has_handle ? 0U : 1U);
    EXPECT_EQ(count_of_records() < before, odd_.has_handle);
    EXPECT_EQ(result_of([] { return delete_key_by_handle("77"); }), 1U);
}

TEST_P(OddRecordTest, IsCopiedWhenItHasANameAndAKeyText)
{
    const bool has_text = odd_.has_name && odd_.key != nullptr && odd_.key[0] != '\0';
    EXPECT_EQ(result_of([] { return copy_private_key(DEVICE_UID, "odd", "copy"); }),
              has_text ? 0U : 1U);
    EXPECT_EQ(contains_key(DEVICE_UID, "copy"), has_text);
    if (has_text) {
        const Children copy = records_of(PRIVATE_FILE).back();
        EXPECT_EQ(copy.at(1).second, "copy");
        EXPECT_EQ(copy.at(3).second, odd_.key);
        EXPECT_EQ(copy.size(), 4U);
    }
}

TEST_P(OddRecordTest, StandsInTheWayOfACopyWhenItHasAName)
{
    EXPECT_EQ(result_of([] { return copy_private_key(DEVICE_UID, "first", "odd"); }),
              odd_.has_name ? 1U : 0U);
}

TEST_P(OddRecordTest, GivesItsKeyToTheSrkWhenItHasAHandleAndAKey)
{
    write_private(odd_record() + record(DEVICE_UID, "srk", "7", SRK));
    const bool gives = odd_.has_handle && odd_.key != nullptr;
    EXPECT_EQ(result_of([] { return set_new_srk_key_data_for_uid(DEVICE_UID, "77"); }),
              gives ? 0U : 1U);
    const std::vector<Children> records = records_of(PRIVATE_FILE);
    EXPECT_EQ(records.at(records.size() - 2)[3].second, gives ? odd_.key : SRK);
}

TEST_P(OddRecordTest, TakesAKeyAsTheSrkWhenItHasAKeyElement)
{
    std::string srk = odd_record();
    const size_t name = srk.rfind("odd");
    if (odd_.has_name) {
        srk.replace(name, 3, "srk");
    }
    write_private(srk);
    const bool takes = odd_.has_name && odd_.has_key_element;
    EXPECT_EQ(result_of([] { return set_new_srk_key_data_for_uid(DEVICE_UID, "5"); }),
              takes ? 0U : 1U);
    if (takes) {
        EXPECT_EQ(exported("srk"), std::string(64, '5'));
        EXPECT_EQ(texts_of(records_of(PRIVATE_FILE).at(1), "key").at(0).substr(0, 64),
                  std::string(64, '5'));
    }
}

TEST_P(OddRecordTest, DoesNotHinderOperationsOnOthers)
{
    EXPECT_EQ(add_crk(DEVICE_UID, NEW_KEY.c_str(), nullptr), 0U);
    EXPECT_EQ(copy_private_key(DEVICE_UID, "crk", "copy"), 0U);
    EXPECT_EQ(exported("copy"), NEW_KEY);
    EXPECT_EQ(delete_key_by_key_type(DEVICE_UID, "copy"), 0U);
    EXPECT_EQ(delete_crk(DEVICE_UID), 0U);
    EXPECT_EQ(copy_private_key(DEVICE_UID, "first", "srk"), 0U);
    EXPECT_EQ(set_new_srk_key_data_for_uid(DEVICE_UID, "5"), 0U);
}

// ---------------------------------------------------------------------------------------------
// The same as the root of the file
// ---------------------------------------------------------------------------------------------

class OddRoot : public ChangingStore, public testing::WithParamInterface<OddRecord> {
  protected:
    void SetUp() override
    {
        ChangingStore::SetUp();
        std::string declarations = DECLARATIONS;
        write_file(PRIVATE_FILE, declarations.replace(10, 4, "key_content") + "<key_content>" +
                                     GetParam().children + "</key_content>");
    }

    void TearDown() override
    {
        EXPECT_TRUE(is_well_formed(PRIVATE_FILE));
        ChangingStore::TearDown();
    }

    static void expect_an_empty_root()
    {
        const std::vector<XmlElement> elements = elements_of(PRIVATE_FILE);
        ASSERT_EQ(elements.size(), 1U);
        EXPECT_EQ(elements[0].name, "key_content");
        EXPECT_EQ(elements[0].text, "");
    }

    const OddRecord odd_ = GetParam();
};

INSTANTIATE_TEST_SUITE_P(Of, OddRoot, testing::ValuesIn(RECORDS),
                         [](const auto& test) { return test.param.what; });

TEST_P(OddRoot, IsEmptiedWhenItIsDeletedByName)
{
    EXPECT_EQ(delete_key_by_key_type(DEVICE_UID, "odd"), odd_.has_name ? 0U : 1U);
    if (odd_.has_name) {
        expect_an_empty_root();
        EXPECT_EQ(delete_key_by_key_type(DEVICE_UID, "odd"), 1U);
    }
}

TEST_P(OddRoot, IsEmptiedWhenItIsDeletedByHandle)
{
    const auto remove = [] {
        return delete_key_by_handle("77");
    };
    EXPECT_EQ(outcome_of(remove).result, odd_.has_handle ? 0U : 1U);
    if (odd_.has_handle) {
        expect_an_empty_root();
        EXPECT_EQ(outcome_of(remove).result, 1U);
    }
}

TEST_P(OddRoot, TakesNoRecord)
{
    const size_t before = records_of(PRIVATE_FILE).size();
    EXPECT_EQ(outcome_of([] { return add_crk(DEVICE_UID, NEW_KEY.c_str(), nullptr); }),
              (Outcome{1,
                       "[add_nonvolatile_based_key] error: could not add a key record\n",
                       {PRIVATE_FILE},
                       {5}}));
    EXPECT_EQ(outcome_of([] { return copy_private_key(DEVICE_UID, "odd", "copy"); }).result, 1U);
    EXPECT_EQ(records_of(PRIVATE_FILE).size(), before);
}

TEST_P(OddRoot, TakesANewKeyWhenItHasAName)
{
    const auto replace = [] {
        return add_nonvolatile_based_key(DEVICE_UID, "odd", NEW_KEY.c_str(), "new", true, true);
    };
    EXPECT_EQ(outcome_of(replace).result, 1U);
    if (odd_.has_name) {
        EXPECT_EQ(exported("odd"), NEW_KEY);
    }
}
