// Key records and their search: what is found, in which order, and what odd documents lead to.

#include "key_driver/zentrava_key_management_utils.cpp"

#include "support/deadline.h"
#include "support/libxml2_memory.h"
#include "support/small_stack.h"
#include "support/store_directory.h"
#include "support/xml_document.h"

#include <gtest/gtest.h>

#include <stdlib.h>
#include <string.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

static xmlNode* by_name(xmlNode* start, const char* uid, const char* key_name)
{
    return find_node_from_input_root(start, xml(uid), nullptr, xml(key_name), nullptr);
}

static xmlNode* by_handle(xmlNode* start, const char* handle)
{
    return find_node_from_input_root(start, nullptr, xml(handle), nullptr, nullptr);
}

// Records carry an attribute "id" that the store knows nothing of, to tell which one was found.
static std::string id_of(xmlNode* node)
{
    if (node == nullptr) {
        return "none";
    }
    xmlChar* id = xmlGetProp(node, xml("id"));
    const std::string text = chars(id);
    xmlFree(id);
    return text;
}

static std::string found_by_name(const std::string& document, const char* uid, const char* key_name)
{
    const Document tree = parsed(document);
    EXPECT_NE(tree, nullptr) << document;
    return id_of(by_name(root_of(tree), uid, key_name));
}

static std::string found_by_handle(const std::string& document, const char* handle)
{
    const Document tree = parsed(document);
    EXPECT_NE(tree, nullptr) << document;
    return id_of(by_handle(root_of(tree), handle));
}

static std::string one(const std::string& children)
{
    return "<keys><key_content id='it'>" + children + "</key_content></keys>";
}

static const char* const ORDINARY = "<uid>U</uid><key_name>n</key_name><handle>7</handle>"
                                    "<key>ab</key>";

// ---- Names ----

TEST(RecordNames, AreThoseOfTheStoreFiles)
{
    EXPECT_EQ(chars(XML_NodeName_Key_Content), "key_content");
    EXPECT_EQ(chars(XML_NodeName_UID), "uid");
    EXPECT_EQ(chars(XML_NodeName_key_Name), "key_name");
    EXPECT_EQ(chars(XML_NodeName_Handle), "handle");
    EXPECT_EQ(chars(XML_NodeName_KEY), "key");
    EXPECT_EQ(chars(XML_NodeName_metadata), "metadata");
}

// ---- The walk ----

TEST(FindNodeFromInputRoot, FindsNothingBelowANullNode)
{
    EXPECT_EQ(by_name(nullptr, "U", "n"), nullptr);
    EXPECT_EQ(by_handle(nullptr, "7"), nullptr);
}

TEST(FindNodeFromInputRoot, FindsNothingInAnEmptyRoot)
{
    EXPECT_EQ(found_by_name("<keys/>", "U", "n"), "none");
    EXPECT_EQ(found_by_handle("<keys/>", "7"), "none");
    EXPECT_EQ(found_by_name("<keys/>", "", ""), "none");
    EXPECT_EQ(found_by_handle("<keys/>", ""), "none");
}

TEST(FindNodeFromInputRoot, ReturnsTheRecordItselfByUidAndName)
{
    const Document tree = parsed(one(ORDINARY));
    EXPECT_EQ(by_name(root_of(tree), "U", "n"), root_of(tree)->children);
}

TEST(FindNodeFromInputRoot, ReturnsTheRecordItselfByHandle)
{
    const Document tree = parsed(one(ORDINARY));
    EXPECT_EQ(by_handle(root_of(tree), "7"), root_of(tree)->children);
}

TEST(FindNodeFromInputRoot, DoesNotCareForTheNameOfTheRoot)
{
    EXPECT_EQ(found_by_name("<x><key_content id='a'><uid>U</uid><key_name>n</key_name>"
                            "</key_content></x>",
                            "U", "n"),
              "a");
}

TEST(FindNodeFromInputRoot, SkipsWhitespaceBetweenElements)
{
    const std::string document =
        "<keys>\n \t<key_content id='it'>\n\n <uid>U</uid>\n "
        "<key_name>n</key_name>\n<handle>7</handle> </key_content>\n</keys>";
    EXPECT_EQ(found_by_name(document, "U", "n"), "it");
    EXPECT_EQ(found_by_handle(document, "7"), "it");
}

TEST(FindNodeFromInputRoot, TestsARootThatIsItselfARecord)
{
    const std::string document =
        "<key_content id='root'>" + std::string(ORDINARY) + "</key_content>";
    EXPECT_EQ(found_by_name(document, "U", "n"), "root");
    EXPECT_EQ(found_by_handle(document, "7"), "root");
}

TEST(FindNodeFromInputRoot, DoesNotDescendIntoARootThatIsItselfARecord)
{
    const std::string document = "<key_content id='root'><key_content id='inner'>" +
                                 std::string(ORDINARY) + "</key_content></key_content>";
    EXPECT_EQ(found_by_name(document, "U", "n"), "none");
    EXPECT_EQ(found_by_handle(document, "7"), "none");
}

TEST(FindNodeFromInputRoot, NeverDescendsIntoARecord)
{
    const std::string document = "<keys><key_content id='outer'><uid>V</uid><group>"
                                 "<key_content id='inner'>" +
                                 std::string(ORDINARY) +
                                 "</key_content></group></key_content></keys>";
    EXPECT_EQ(found_by_name(document, "U", "n"), "none");
    EXPECT_EQ(found_by_handle(document, "7"), "none");
}

TEST(FindNodeFromInputRoot, GoesOnWithTheNextSiblingAfterARecordThatDoesNotMatch)
{
    const std::string document = "<keys><key_content id='a'><uid>V</uid><handle>6</handle>"
                                 "</key_content><key_content id='b'>" +
                                 std::string(ORDINARY) + "</key_content></keys>";
    EXPECT_EQ(found_by_name(document, "U", "n"), "b");
    EXPECT_EQ(found_by_handle(document, "7"), "b");
}

TEST(FindNodeFromInputRoot, DescendsIntoElementsThatAreNoRecords)
{
    const std::string document = "<keys><group><inner><key_content id='deep'>" +
                                 std::string(ORDINARY) + "</key_content></inner></group></keys>";
    EXPECT_EQ(found_by_name(document, "U", "n"), "deep");
    EXPECT_EQ(found_by_handle(document, "7"), "deep");
}

TEST(FindNodeFromInputRoot, GoesOnBehindAnElementInWhichItFoundNothing)
{
    const std::string document =
        "<keys><group><empty/><key_content id='a'><uid>V</uid></key_content>"
        "</group><key_content id='b'>" +
        std::string(ORDINARY) + "</key_content></keys>";
    EXPECT_EQ(found_by_name(document, "U", "n"), "b");
    EXPECT_EQ(found_by_handle(document, "7"), "b");
}

TEST(FindNodeFromInputRoot, ReturnsTheFirstOfTwoRecordsWithTheSameUidAndName)
{
    const std::string document = "<keys><key_content id='first'>" + std::string(ORDINARY) +
                                 "</key_content><key_content id='second'>" + ORDINARY +
                                 "</key_content></keys>";
    EXPECT_EQ(found_by_name(document, "U", "n"), "first");
    EXPECT_EQ(found_by_handle(document, "7"), "first");
}

TEST(FindNodeFromInputRoot, ReturnsTheFirstDepthFirst)
{
    const std::string document = "<keys><group><inner><key_content id='deep'>" +
                                 std::string(ORDINARY) +
                                 "</key_content></inner></group><key_content id='shallow'>" +
                                 ORDINARY + "</key_content></keys>";
    EXPECT_EQ(found_by_name(document, "U", "n"), "deep");
    EXPECT_EQ(found_by_handle(document, "7"), "deep");
}

TEST(FindNodeFromInputRoot, VisitsTheStartNodeAndItsFollowingSiblingsOnly)
{
    const std::string document = "<keys><key_content id='before'>" + std::string(ORDINARY) +
                                 "</key_content><group/><key_content id='after'>" + ORDINARY +
                                 "</key_content></keys>";
    const Document tree = parsed(document);
    xmlNode* group = root_of(tree)->children->next;
    EXPECT_EQ(id_of(by_name(group, "U", "n")), "after");
    EXPECT_EQ(id_of(by_handle(group->next, "7")), "after");
    EXPECT_EQ(by_name(root_of(tree)->children->next->next->next, "U", "n"), nullptr);
}

TEST(FindNodeFromInputRoot, DoesNotClimbOutOfTheNodeItStartsFrom)
{
    const Document tree = parsed("<keys><group><leaf/></group><key_content id='outside'>" +
                                 std::string(ORDINARY) + "</key_content></keys>");
    xmlNode* leaf = root_of(tree)->children->children;
    EXPECT_EQ(by_name(leaf, "U", "n"), nullptr);
    EXPECT_EQ(by_handle(leaf, "7"), nullptr);
}

TEST(FindNodeFromInputRoot, TakesOnlyElementsForRecords)
{
    EXPECT_EQ(
        found_by_name("<keys><?key_content <uid>U</uid>?><!--key_content--></keys>", "U", nullptr),
        "none");
    EXPECT_EQ(found_by_handle("<keys><?key_content 7?></keys>", "7"), "none");
    EXPECT_EQ(found_by_handle("<keys><?key_content?></keys>", ""), "none");
}

TEST(FindNodeFromInputRoot, TakesOnlyElementsCalledKeyContentForRecords)
{
    for (const char* name : {"key_contents", "key_conten", "Key_Content", "KEY_CONTENT", "key"}) {
        const std::string document =
            "<keys><" + std::string(name) + " id='x'>" + ORDINARY + "</" + name + "></keys>";
        EXPECT_EQ(found_by_name(document, "U", "n"), "none") << name;
        EXPECT_EQ(found_by_handle(document, "7"), "none") << name;
    }
}

TEST(FindNodeFromInputRoot, LeavesTheTreeAsItIs)
{
    const Document tree = parsed(one(ORDINARY));
    const auto dump = [&tree] {
        xmlChar* text = nullptr;
        int size = 0;
        xmlDocDumpMemory(tree.get(), &text, &size);
        const std::string copy = chars(text);
        xmlFree(text);
        return copy;
    };
    const std::string before = dump();
    by_name(root_of(tree), "U", "n");
    by_handle(root_of(tree), "7");
    by_name(root_of(tree), "V", "n");
    EXPECT_EQ(dump(), before);
}

// ---- The record test ----

TEST(FindNodeFromInputRoot, NeverMatchesARecordWithoutChildren)
{
    const std::string document = "<keys><key_content id='it'/></keys>";
    EXPECT_EQ(found_by_name(document, "U", "n"), "none");
    EXPECT_EQ(found_by_name(document, "", nullptr), "none");
    EXPECT_EQ(found_by_name(document, "", ""), "none");
    EXPECT_EQ(found_by_handle(document, "7"), "none");
    EXPECT_EQ(found_by_handle(document, ""), "none");
}

TEST(FindNodeFromInputRoot, ComparesTextsExactly)
{
    const std::string document = one("<uid>Uid</uid><key_name>name</key_name><handle>70</handle>");
    ASSERT_EQ(found_by_name(document, "Uid", "name"), "it");
    ASSERT_EQ(found_by_handle(document, "70"), "it");
    for (const char* other : {"", "U", "Ui", "Uidx", "uid", "UID", " Uid", "Uid ", "Uid\n"}) {
        EXPECT_EQ(found_by_name(document, other, "name"), "none") << other;
        EXPECT_EQ(found_by_name(document, other, nullptr), "none") << other;
    }
    for (const char* other : {"", "n", "nam", "names", "Name", "NAME", " name", "name "}) {
        EXPECT_EQ(found_by_name(document, "Uid", other), "none") << other;
    }
    for (const char* other : {"", "7", "700", "0", "070", "+70", " 70", "70 "}) {
        EXPECT_EQ(found_by_handle(document, other), "none") << other;
    }
}

TEST(FindNodeFromInputRoot, ComparesTheWhitespaceOfATextAsWell)
{
    const std::string document = one("<uid> U\n</uid><key_name>\tn</key_name><handle>7 </handle>");
    EXPECT_EQ(found_by_name(document, " U\n", "\tn"), "it");
    EXPECT_EQ(found_by_name(document, "U", "n"), "none");
    EXPECT_EQ(found_by_handle(document, "7 "), "it");
    EXPECT_EQ(found_by_handle(document, "7"), "none");
}

TEST(FindNodeFromInputRoot, ComparesTextsBeyondAscii)
{
    const std::string document = one("<uid>\xC3\xA4</uid><key_name>\xE2\x82\xAC</key_name>");
    EXPECT_EQ(found_by_name(document, "\xC3\xA4", "\xE2\x82\xAC"), "it");
    EXPECT_EQ(found_by_name(document, "a", "\xE2\x82\xAC"), "none");
}

TEST(FindNodeFromInputRoot, ReadsReferencesToCharactersAsText)
{
    const std::string document = one("<uid>A&#66;&amp;C</uid><key_name>&lt;</key_name>");
    EXPECT_EQ(found_by_name(document, "AB&C", "<"), "it");
}

TEST(FindNodeFromInputRoot, ComparesTheNamesOfChildrenExactly)
{
    EXPECT_EQ(found_by_name(one("<UID>U</UID><key_name>n</key_name>"), "U", "n"), "none");
    EXPECT_EQ(found_by_name(one("<uidx>U</uidx><key_name>n</key_name>"), "U", "n"), "none");
    EXPECT_EQ(found_by_name(one("<uid>U</uid><Key_Name>n</Key_Name>"), "U", "n"), "none");
    EXPECT_EQ(found_by_name(one("<uid>U</uid><key>n</key>"), "U", "n"), "none");
    EXPECT_EQ(found_by_handle(one("<Handle>7</Handle>"), "7"), "none");
    EXPECT_EQ(found_by_handle(one("<handles>7</handles>"), "7"), "none");
}

TEST(FindNodeFromInputRoot, LooksAtChildrenOfTheRecordOnly)
{
    EXPECT_EQ(found_by_name(one("<x><uid>U</uid><key_name>n</key_name></x>"), "U", "n"), "none");
    EXPECT_EQ(found_by_handle(one("<x><handle>7</handle></x>"), "7"), "none");
}

TEST(FindNodeFromInputRoot, DoesNotTakeAttributesForChildren)
{
    const std::string document = "<keys><key_content uid='U' key_name='n' handle='7'><x/>"
                                 "</key_content></keys>";
    EXPECT_EQ(found_by_name(document, "U", "n"), "none");
    EXPECT_EQ(found_by_handle(document, "7"), "none");
}

// ---- By handle ----

TEST(FindNodeFromInputRoot, MatchesAnyOfTheHandlesOfARecord)
{
    const std::string document = one("<handle>1</handle><handle/><handle>7</handle>");
    EXPECT_EQ(found_by_handle(document, "1"), "it");
    EXPECT_EQ(found_by_handle(document, "7"), "it");
    EXPECT_EQ(found_by_handle(document, "8"), "none");
}

TEST(FindNodeFromInputRoot, FindsARecordWithoutUidAndNameByHandle)
{
    EXPECT_EQ(found_by_handle(one("<handle>7</handle><key>ab</key>"), "7"), "it");
    EXPECT_EQ(found_by_name(one("<handle>7</handle><key>ab</key>"), "", nullptr), "none");
}

// ---- By UID and name ----

TEST(FindNodeFromInputRoot, NeedsBothUidAndName)
{
    const std::string document = one("<uid>U</uid><key_name>n</key_name>");
    EXPECT_EQ(found_by_name(document, "U", "n"), "it");
    EXPECT_EQ(found_by_name(document, "U", "m"), "none");
    EXPECT_EQ(found_by_name(document, "V", "n"), "none");
    EXPECT_EQ(found_by_name(one("<uid>U</uid>"), "U", "n"), "none");
    EXPECT_EQ(found_by_name(one("<key_name>n</key_name>"), "U", "n"), "none");
}

TEST(FindNodeFromInputRoot, DoesNotSeeANameThatStandsBeforeTheUid)
{
    const std::string document = one("<key_name>n</key_name><uid>U</uid><handle>7</handle>");
    EXPECT_EQ(found_by_name(document, "U", "n"), "none");
    EXPECT_EQ(found_by_handle(document, "7"), "it");
}

TEST(FindNodeFromInputRoot, FindsAUidAloneWithANullNameWhereverTheNameStands)
{
    EXPECT_EQ(found_by_name(one("<key_name>n</key_name><uid>U</uid>"), "U", nullptr), "it");
    EXPECT_EQ(found_by_name(one("<uid>U</uid>"), "U", nullptr), "it");
    EXPECT_EQ(found_by_name(one("<key_name>n</key_name>"), "U", nullptr), "none");
}

TEST(FindNodeFromInputRoot, ReturnsTheFirstRecordOfTheUidWithANullName)
{
    const std::string document =
        "<keys><key_content id='a'><uid>V</uid></key_content><key_content id='b'><uid>U</uid>"
        "<key_name>n</key_name></key_content><key_content id='c'><uid>U</uid></key_content></keys>";
    EXPECT_EQ(found_by_name(document, "U", nullptr), "b");
}

TEST(FindNodeFromInputRoot, AcceptsOtherChildrenBetweenUidAndName)
{
    const std::string document =
        one("<handle>7</handle><uid>U</uid>text<key>ab</key><!--c--><key_name>n</key_name>");
    EXPECT_EQ(found_by_name(document, "U", "n"), "it");
}

TEST(FindNodeFromInputRoot, TakesTheFirstUidWithTheTextAskedFor)
{
    const std::string document = one("<uid>V</uid><key_name>v</key_name><uid>U</uid>"
                                     "<key_name>n</key_name><uid>U</uid><key_name>m</key_name>");
    EXPECT_EQ(found_by_name(document, "V", "v"), "it");
    EXPECT_EQ(found_by_name(document, "V", "n"), "it");
    EXPECT_EQ(found_by_name(document, "U", "n"), "it");
    EXPECT_EQ(found_by_name(document, "U", "m"), "it");
    EXPECT_EQ(found_by_name(document, "U", "v"), "none");
}

TEST(FindNodeFromInputRoot, TakesAnyLaterNameOfTheRecord)
{
    const std::string document =
        one("<uid>U</uid><key_name>a</key_name><key_name/><key_name>b</key_name>");
    EXPECT_EQ(found_by_name(document, "U", "a"), "it");
    EXPECT_EQ(found_by_name(document, "U", "b"), "it");
    EXPECT_EQ(found_by_name(document, "U", "c"), "none");
}

TEST(FindNodeFromInputRoot, GoesOnWithTheNextRecordWhenOnlyTheUidMatched)
{
    const std::string document =
        "<keys><key_content id='a'><uid>U</uid><key_name>m</key_name></key_content>"
        "<key_content id='b'><uid>U</uid><key_name>n</key_name></key_content></keys>";
    EXPECT_EQ(found_by_name(document, "U", "n"), "b");
}

// ---- Children that hold no text ----

// What may stand first in a child of a record without being its text.
struct NoText {
    const char* what;
    const char* content;
};

static const char* const DECLARATIONS = "<!DOCTYPE keys [<!ENTITY e 'U'><!ENTITY f '7'>]>";

class ChildWithoutText : public testing::TestWithParam<NoText> {
  protected:
    std::string document_ =
        DECLARATIONS + one("<uid>" + content() + "</uid><key_name>" + content() +
                           "</key_name><handle>" + content() + "</handle>");

  private:
    static std::string content()
    {
        return GetParam().content;
    }
};

TEST_P(ChildWithoutText, MatchesNothingThatIsAskedFor)
{
    for (const char* asked : {"U", "7", "x", "e", "f", "comment", "text", "(null)"}) {
        EXPECT_EQ(found_by_name(document_, asked, nullptr), "none") << asked;
        EXPECT_EQ(found_by_name(document_, asked, asked), "none") << asked;
        EXPECT_EQ(found_by_name(document_, "", asked), "none") << asked;
        EXPECT_EQ(found_by_handle(document_, asked), "none") << asked;
    }
}

TEST_P(ChildWithoutText, HoldsTheEmptyText)
{
    EXPECT_EQ(found_by_name(document_, "", ""), "it");
    EXPECT_EQ(found_by_name(document_, "", nullptr), "it");
    EXPECT_EQ(found_by_handle(document_, ""), "it");
}

INSTANTIATE_TEST_SUITE_P(
    FindNodeFromInputRoot, ChildWithoutText,
    testing::Values(NoText{"Nothing", ""}, NoText{"Comment", "<!--U-->"},
                    NoText{"CommentBeforeText", "<!--7-->U"}, NoText{"EmptyComment", "<!---->U"},
                    NoText{"EntityReference", "&e;"}, NoText{"EntityReferenceBeforeText", "&f;U"},
                    NoText{"ProcessingInstruction", "<?x U?>"},
                    NoText{"ProcessingInstructionBeforeText", "<?U 7?>7"},
                    NoText{"Element", "<x>U</x>"}, NoText{"EmptyElementBeforeText", "<x/>7"},
                    NoText{"ElementOfItsOwnName", "<uid>U</uid>"}),
    [](const auto& row) { return std::string(row.param.what); });

// As libxml2 can leave one that it found no memory for.
TEST(FindNodeFromInputRoot, TakesATextNodeWithoutContentForTheEmptyText)
{
    const Document tree = parsed(one("<uid>U</uid><key_name>n</key_name>"));
    xmlNode* text = root_of(tree)->children->children->children;
    ASSERT_EQ(id_of(by_name(root_of(tree), "U", "n")), "it");
    xmlChar* content = text->content;
    text->content = nullptr;
    EXPECT_EQ(id_of(by_name(root_of(tree), "U", "n")), "none");
    EXPECT_EQ(id_of(by_name(root_of(tree), "", "n")), "it");
    text->content = content;
}

TEST(FindNodeFromInputRoot, TakesTheFirstPieceOfAnInterruptedText)
{
    const std::string document =
        DECLARATIONS + one("<uid>U<!--c-->V</uid><key_name>n&e;m</key_name>"
                           "<handle>7<x/>8</handle>");
    EXPECT_EQ(found_by_name(document, "U", "n"), "it");
    EXPECT_EQ(found_by_name(document, "UV", "n"), "none");
    EXPECT_EQ(found_by_name(document, "U", "nUm"), "none");
    EXPECT_EQ(found_by_handle(document, "7"), "it");
    EXPECT_EQ(found_by_handle(document, "78"), "none");
}

TEST(FindNodeFromInputRoot, TakesACharacterDataSectionForText)
{
    const std::string document = one("<uid><![CDATA[U]]></uid><key_name><![CDATA[<n>]]></key_name>"
                                     "<handle><![CDATA[7]]></handle>");
    EXPECT_EQ(found_by_name(document, "U", "<n>"), "it");
    EXPECT_EQ(found_by_handle(document, "7"), "it");
    EXPECT_EQ(found_by_name(document, "", nullptr), "none");
}

TEST(FindNodeFromInputRoot, TakesAnEmptyCharacterDataSectionForTheEmptyText)
{
    const std::string document = one("<uid><![CDATA[]]></uid><handle><![CDATA[]]></handle>");
    EXPECT_EQ(found_by_name(document, "U", nullptr), "none");
    EXPECT_EQ(found_by_name(document, "", nullptr), "it");
    EXPECT_EQ(found_by_handle(document, ""), "it");
}

TEST(FindNodeFromInputRoot, SkipsChildrenThatAreNoElements)
{
    const std::string document =
        DECLARATIONS + one("text<!--uid--><?x U?>&e;<![CDATA[uid]]><uid>U</uid>&f;<!--n-->tail"
                           "<?key_name n?><key_name>n</key_name><![CDATA[7]]><handle>7</handle>");
    EXPECT_EQ(found_by_name(document, "U", "n"), "it");
    EXPECT_EQ(found_by_handle(document, "7"), "it");
}

TEST(FindNodeFromInputRoot, FindsNothingInARecordOfChildrenThatAreNoElements)
{
    const std::string document = DECLARATIONS + one("U<!--U--><?x U?>&e;<![CDATA[U]]>");
    for (const char* asked : {"U", "7", ""}) {
        EXPECT_EQ(found_by_name(document, asked, nullptr), "none") << asked;
        EXPECT_EQ(found_by_handle(document, asked), "none") << asked;
    }
}

// The name decides, not the type of the node; but only an element can hold a text.
TEST(FindNodeFromInputRoot, TakesAProcessingInstructionNamedLikeAChildForOneWithoutText)
{
    const std::string document = one("<?uid U?><?key_name n?><?handle 7?>");
    EXPECT_EQ(found_by_name(document, "U", nullptr), "none");
    EXPECT_EQ(found_by_name(document, "", "n"), "none");
    EXPECT_EQ(found_by_handle(document, "7"), "none");
    EXPECT_EQ(found_by_name(document, "", nullptr), "it");
    EXPECT_EQ(found_by_name(document, "", ""), "it");
    EXPECT_EQ(found_by_handle(document, ""), "it");
}

TEST(FindNodeFromInputRoot, TakesAnEntityReferenceNamedLikeAChildForOneWithoutText)
{
    const std::string document =
        "<!DOCTYPE keys [<!ENTITY uid 'U'><!ENTITY key_name 'n'><!ENTITY handle '7'>]>" +
        one("&uid;&key_name;&handle;");
    EXPECT_EQ(found_by_name(document, "U", nullptr), "none");
    EXPECT_EQ(found_by_handle(document, "7"), "none");
    EXPECT_EQ(found_by_name(document, "", ""), "it");
    EXPECT_EQ(found_by_handle(document, ""), "it");
}

// ---- Entity references ----

static std::string declared(const std::string& declarations, const std::string& content)
{
    return "<!DOCTYPE keys [" + declarations + "]><keys>" + content + "</keys>";
}

static const char* const ENTITY_RECORD = "<key_content id='e'><uid>U</uid><key_name>n</key_name>"
                                         "<handle>7</handle><key>ab</key></key_content>";

static const char* const BEHIND = "<key_content id='behind'><uid>B</uid><key_name>n</key_name>"
                                  "<handle>9</handle><key>ab</key></key_content>";

TEST(FindNodeFromInputRoot, DoesNotLookBehindEntityReferences)
{
    const std::string document =
        declared("<!ENTITY a \"" + std::string(ENTITY_RECORD) + "\">", "&a;" + std::string(BEHIND));
    EXPECT_EQ(found_by_name(document, "U", "n"), "none");
    EXPECT_EQ(found_by_handle(document, "7"), "none");
}

TEST(FindNodeFromInputRoot, GoesOnAfterAnEntityReferenceThatHoldsRecords)
{
    const std::string document =
        declared("<!ENTITY a \"" + std::string(ENTITY_RECORD) + "\">", "&a;" + std::string(BEHIND));
    EXPECT_EQ(found_by_name(document, "B", "n"), "behind");
    EXPECT_EQ(found_by_handle(document, "9"), "behind");
}

TEST(FindNodeFromInputRoot, ComesToAnEndWhenADeclarationRefersToTheOneBeforeIt)
{
    const Deadline deadline(60);
    const std::string document =
        declared("<!ENTITY b '<x/>'><!ENTITY a '&b;<x/>'>", "&a;&b;&a;" + std::string(BEHIND));
    EXPECT_EQ(found_by_name(document, "U", "n"), "none");
    EXPECT_EQ(found_by_name(document, "B", "n"), "behind");
    EXPECT_EQ(found_by_handle(document, "9"), "behind");
}

TEST(FindNodeFromInputRoot, SurvivesReferencesToExternalAndUndeclaredEntities)
{
    const std::string document =
        "<!DOCTYPE keys SYSTEM 'none.dtd' [<!ENTITY out SYSTEM 'none.xml'>]><keys>&out;&unknown;"
        "<key_content id='it'>&out;<uid>&unknown;</uid><uid>U</uid><handle>&out;</handle>"
        "</key_content></keys>";
    testing::internal::CaptureStderr();
    EXPECT_EQ(found_by_name(document, "U", nullptr), "it");
    EXPECT_EQ(found_by_handle(document, "7"), "none");
    testing::internal::GetCapturedStderr(); // the parser warns here; nothing is silenced in this
                                            // test
}

// ---- Depth and breadth ----

TEST(FindNodeFromInputRoot, FindsARecordAtTheGreatestDepthThatTheParserAccepts)
{
    std::string opening;
    std::string closing;
    for (int i = 0; i < 250; ++i) {
        opening += "<d>";
        closing += "</d>";
    }
    const std::string document =
        opening + "<key_content id='deep'>" + ORDINARY + "</key_content>" + closing;
    on_a_small_stack([&document] {
        EXPECT_EQ(found_by_name(document, "U", "n"), "deep");
        EXPECT_EQ(found_by_handle(document, "7"), "deep");
        EXPECT_EQ(found_by_name(document, "U", "m"), "none");
    });
}

TEST(FindNodeFromInputRoot, SpendsNoStackOnTheNumberOfRecords)
{
    std::string records;
    for (int i = 0; i < 100000; ++i) {
        const std::string number = std::to_string(i);
        records += record("V", "n", number, "ab");
    }
    const Document tree =
        parsed("<keys>" + records + "<key_content id='last'>" + ORDINARY + "</key_content></keys>");
    ASSERT_NE(tree, nullptr);
    on_a_small_stack([&tree] {
        EXPECT_EQ(id_of(by_name(root_of(tree), "U", "n")), "last");
        EXPECT_EQ(by_name(root_of(tree), "W", "n"), nullptr);
        EXPECT_NE(by_handle(root_of(tree), "99999"), nullptr);
        EXPECT_EQ(by_handle(root_of(tree), "100000"), nullptr);
    });
}

TEST(FindNodeFromInputRoot, SpendsNoStackOnTheNumberOfOtherSiblings)
{
    std::string others;
    for (int i = 0; i < 100000; ++i) {
        others += "<x/><!--c-->t";
    }
    const Document tree =
        parsed("<keys>" + others + "<key_content id='last'>" + ORDINARY + "</key_content></keys>");
    ASSERT_NE(tree, nullptr);
    on_a_small_stack([&tree] { EXPECT_EQ(id_of(by_name(root_of(tree), "U", "n")), "last"); });
}

TEST(FindNodeFromInputRoot, SpendsNoStackOnTheNumberOfChildrenOfARecord)
{
    std::string children;
    for (int i = 0; i < 100000; ++i) {
        children += "<handle>" + std::to_string(i) + "</handle>";
    }
    const Document tree = parsed(one(children + ORDINARY));
    ASSERT_NE(tree, nullptr);
    on_a_small_stack([&tree] {
        EXPECT_EQ(id_of(by_name(root_of(tree), "U", "n")), "it");
        EXPECT_EQ(id_of(by_handle(root_of(tree), "99999")), "it");
        EXPECT_NE(getRawKeyFromNode(root_of(tree)->children), nullptr);
    });
}

// ---- The key text of a record ----

static std::string raw_key_of(const std::string& children)
{
    const Document tree = parsed(DECLARATIONS + one(children));
    EXPECT_NE(tree, nullptr) << children;
    return chars(getRawKeyFromNode(root_of(tree)->children));
}

TEST(GetRawKeyFromNode, ReturnsTheTextOfTheKey)
{
    EXPECT_EQ(raw_key_of(ORDINARY), "ab");
    EXPECT_EQ(raw_key_of("<key>Any text, \xC3\xA4.</key>"), "Any text, \xC3\xA4.");
}

TEST(GetRawKeyFromNode, PointsIntoTheTree)
{
    const Document tree = parsed(one("<key>ab</key>"));
    EXPECT_EQ(getRawKeyFromNode(root_of(tree)->children),
              root_of(tree)->children->children->children->content);
}

TEST(GetRawKeyFromNode, ReturnsTheFirstOfSeveralKeys)
{
    EXPECT_EQ(raw_key_of("<key>ab</key><key>cd</key>"), "ab");
}

TEST(GetRawKeyFromNode, PassesOverKeysWithoutAChild)
{
    EXPECT_EQ(raw_key_of("<key/><key></key><key>cd</key>"), "cd");
}

TEST(GetRawKeyFromNode, PassesOverAProcessingInstructionNamedKey)
{
    EXPECT_EQ(raw_key_of("<?key ab?><key>cd</key>"), "cd");
    EXPECT_EQ(raw_key_of("<?key ab?>"), "(null)");
}

TEST(GetRawKeyFromNode, ReturnsNullWithoutAKeyThatHasAChild)
{
    EXPECT_EQ(raw_key_of(""), "(null)");
    EXPECT_EQ(raw_key_of("text<!--key-->"), "(null)");
    EXPECT_EQ(raw_key_of("<uid>U</uid><key_name>n</key_name>"), "(null)");
    EXPECT_EQ(raw_key_of("<key/>"), "(null)");
    EXPECT_EQ(raw_key_of("<Key>ab</Key><keys>ab</keys>"), "(null)");
    EXPECT_EQ(raw_key_of("<x><key>ab</key></x>"), "(null)");
}

// Such a key has a child, so it is the one that counts; but it has no text.
TEST(GetRawKeyFromNode, FindsTheEmptyTextWhereTheKeysFirstChildIsNoText)
{
    for (const char* content : {"<!--ab-->", "<!--ab-->cd", "&e;", "&e;ab", "<?x ab?>", "<x>ab</x>",
                                "<x/>ab", "<![CDATA[]]>"}) {
        EXPECT_EQ(raw_key_of("<key>" + std::string(content) + "</key><key>ef</key>"), "")
            << content;
    }
}

TEST(GetRawKeyFromNode, TakesACharacterDataSectionForText)
{
    EXPECT_EQ(raw_key_of("<key><![CDATA[ab]]></key>"), "ab");
}

TEST(GetRawKeyFromNode, TakesTheFirstPieceOfAnInterruptedText)
{
    EXPECT_EQ(raw_key_of("<key>ab<!--c-->cd</key>"), "ab");
    EXPECT_EQ(raw_key_of("<key>ab&e;cd</key>"), "ab");
}

// ---- The volatile root ----

class VolatileRoot : public testing::Test {
  protected:
    void TearDown() override
    {
        xmlFreeNode(tmpTree_rootNode);
        tmpTree_rootNode = nullptr;
    }
};

TEST_F(VolatileRoot, DoesNotExistAtFirst)
{
    EXPECT_EQ(tmpTree_rootNode, nullptr);
}

TEST_F(VolatileRoot, IsMadeOnFirstUse)
{
    xmlNode* root = getTmpTreeRootNode();
    ASSERT_NE(root, nullptr);
    EXPECT_EQ(tmpTree_rootNode, root);
}

TEST_F(VolatileRoot, IsAnEmptyElementOfNoDocument)
{
    const xmlNode* root = getTmpTreeRootNode();
    ASSERT_NE(root, nullptr);
    EXPECT_EQ(root->type, XML_ELEMENT_NODE);
    EXPECT_EQ(chars(root->name), "tmp_tree_root");
    EXPECT_EQ(root->doc, nullptr);
    EXPECT_EQ(root->ns, nullptr);
    EXPECT_EQ(root->parent, nullptr);
    EXPECT_EQ(root->children, nullptr);
    EXPECT_EQ(root->next, nullptr);
}

TEST_F(VolatileRoot, IsTheSameEverAfter)
{
    xmlNode* root = getTmpTreeRootNode();
    ASSERT_NE(root, nullptr);
    EXPECT_EQ(getTmpTreeRootNode(), root);
    xmlNode* child = xmlNewChild(root, nullptr, xml("key_content"), nullptr);
    EXPECT_EQ(getTmpTreeRootNode(), root);
    EXPECT_EQ(root->children, child);
}

// Allocations wait until every thread has come, and then long enough for each to look for the root.
TEST_F(VolatileRoot, IsOneForThreadsThatNeedItAtTheSameTime)
{
    constexpr size_t THREADS = 4;
    static std::atomic<size_t> threads_that_came(0);
    const xmlMallocFunc slow_malloc = [](size_t size) {
        while (threads_that_came < THREADS) {
            std::this_thread::yield();
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        return malloc(size);
    };
    ASSERT_EQ(xmlMemSetup(free, slow_malloc, realloc, strdup), 0);

    xmlNode* roots[THREADS] = {};
    std::vector<std::thread> threads;
    for (xmlNode*& root : roots) {
        threads.emplace_back([&root] {
            ++threads_that_came;
            root = getTmpTreeRootNode();
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    leave_libxml2_memory_alone();
    for (const xmlNode* root : roots) {
        EXPECT_EQ(root, tmpTree_rootNode);
    }
}

TEST_F(VolatileRoot, IsSearchedLikeAFile)
{
    xmlNode* root = getTmpTreeRootNode();
    ASSERT_NE(root, nullptr);
    EXPECT_EQ(by_handle(root, "7"), nullptr);
    xmlNode* child = xmlNewChild(root, nullptr, xml("key_content"), nullptr);
    xmlNewChild(child, nullptr, xml("handle"), xml("7"));
    xmlNewChild(child, nullptr, xml("key"), xml("ab"));
    EXPECT_EQ(by_handle(root, "7"), child);
    EXPECT_EQ(chars(getRawKeyFromNode(child)), "ab");
}

TEST_F(VolatileRoot, IsNullWhenThereIsNoMemoryAndMadeOnceThereIs)
{
    count_libxml2_memory();
    libxml2_memory.refuse = 1;
    libxml2_memory.refuse_rest = true;
    EXPECT_EQ(getTmpTreeRootNode(), nullptr);
    EXPECT_EQ(tmpTree_rootNode, nullptr);
    leave_libxml2_memory_alone();
    EXPECT_NE(getTmpTreeRootNode(), nullptr);
}
