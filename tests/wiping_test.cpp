// Key texts are overwritten in their tree, all of them, and nothing else is.

#include "key_driver/key_record.h"
#include "tests/support/xml_document.h"

#include <gtest/gtest.h>

#include <libxml/parser.h>

#include <string>

namespace {

// What an element holds, wiped texts included: each node's content in brackets.
std::string contents_of(const xmlNode* element)
{
    std::string contents;
    for (const xmlNode* node = element->children; node != nullptr; node = node->next) {
        contents += std::string("[") + (node->content != nullptr ? chars(node->content) : "") + "]";
    }
    return contents;
}

// Those of each element below a record, one after the other.
std::string contents_of_record(const xmlNode* record)
{
    std::string contents;
    for (const xmlNode* child = record->children; child != nullptr; child = child->next) {
        contents += chars(child->name) + contents_of(child) + " ";
    }
    return contents;
}

Document with_record(const std::string& elements)
{
    return parsed("<!DOCTYPE keys [<!ENTITY key 'a declared text'>]><keys><key_content>" +
                  elements + "</key_content></keys>");
}

const xmlNode* record_in(const Document& document)
{
    return root_of(document)->children;
}

TEST(WipeKeyTexts, OverwritesTheTextsOfEveryKeyElementAndNoOther)
{
    const Document document =
        with_record("<uid>some uid</uid><key>0123456789</key><key>abc def<!--left-->"
                    "<![CDATA[<&>]]></key><metadata>some text</metadata>");
    wipe_key_texts(record_in(document));
    EXPECT_EQ(contents_of_record(record_in(document)),
              "uid[some uid] key[] key[][left][] metadata[some text] ");
}

TEST(WipeKeyTexts, LeavesATextThatOtherNodesShare)
{
    const Document document = with_record("<uid>ab</uid><key>ab</key>");
    ASSERT_EQ(record_in(document)->children->children->content,
              record_in(document)->last->children->content);
    wipe_key_texts(record_in(document));
    EXPECT_EQ(contents_of_record(record_in(document)), "uid[ab] key[ab] ");
}

TEST(WipeKeyTexts, LeavesTheDeclarationsOfEntities)
{
    const Document document = with_record("&key;<key>&key;0123456789</key>");
    wipe_key_texts(record_in(document));
    const xmlEntity* entity = xmlGetDocEntity(document.get(), BAD_CAST "key");
    ASSERT_NE(entity, nullptr);
    EXPECT_EQ(chars(entity->content), "a declared text");
    EXPECT_EQ(contents_of(record_in(document)->last).substr(0, 2), "[a"); // the reference shows it
    EXPECT_STREQ(chars(record_in(document)->last->last->content).c_str(), "");
}

TEST(WipeKeyTexts, TakesNoRecordAndNoTextForNothing)
{
    wipe_key_texts(nullptr);
    xmlNodePtr record = xmlNewNode(nullptr, BAD_CAST "key_content");
    wipe_key_texts(record);
    xmlNodePtr key = xmlNewChild(record, nullptr, BAD_CAST "key", nullptr);
    wipe_key_texts(record);
    xmlAddChild(key, xmlNewText(nullptr));
    wipe_key_texts(record);
    EXPECT_EQ(contents_of_record(record), "key[] ");
    xmlFreeNode(record);
}

TEST(WipeKeyTexts, OverwritesInATreeWithoutADocument)
{
    xmlNodePtr record = xmlNewNode(nullptr, BAD_CAST "key_content");
    xmlNewTextChild(record, nullptr, BAD_CAST "key", BAD_CAST "0123456789");
    wipe_key_texts(record);
    EXPECT_EQ(contents_of_record(record), "key[] ");
    xmlFreeNode(record);
}

TEST(WipeAllKeyTexts, FindsRecordsAtAnyDepthAndKeysInRecordsOnly)
{
    const Document document = parsed("<keys><key>not a record's</key><group><key_content><key>"
                                     "0123456789</key></key_content></group><key_content><key>"
                                     "9876543210</key></key_content></keys>");
    wipe_all_key_texts(root_of(document));
    const xmlNode* first = root_of(document)->children;
    EXPECT_EQ(contents_of(first), "[not a record's]");
    EXPECT_EQ(contents_of_record(first->next->children), "key[] ");
    EXPECT_EQ(contents_of_record(first->next->next), "key[] ");
    wipe_all_key_texts(nullptr);
}

} // namespace
