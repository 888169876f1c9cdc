// Nothing here uses libxml2's convenience functions: they take an '&' in a text for the beginning
// of an entity, or lose the text silently when memory runs out.

#include "key_record.h"

#include <stdio.h>
#include <stdlib.h>

// ---- Handles

uint32_t larger_handle(uint32_t a, uint32_t b)
{
    return a > b ? a : b;
}

static uint32_t largest_handle_of(const xmlNode* record)
{
    uint32_t largest = 0;
    for (const xmlNode* child = record->children; child != NULL; child = child->next) {
        if (is_named(child, XML_NodeName_Handle)) {
            const long handle = strtol(as_chars(text_of(child)), NULL, 10);
            largest = larger_handle(largest, static_cast<uint32_t>(handle));
        }
    }
    return largest;
}

// Unlike the search for a record, the scan does not descend into elements that are no records.
uint32_t largest_handle_below(const xmlNode* root)
{
    uint32_t largest = 0;
    const xmlNode* first = root != NULL ? root->children : NULL;
    for (const xmlNode* record = first; record != NULL; record = record->next) {
        if (is_key_record(record)) {
            largest = larger_handle(largest, largest_handle_of(record));
        }
    }
    return largest;
}

void format_handle_after(uint32_t largest, char (&text)[HANDLE_TEXT_SIZE])
{
    snprintf(text, sizeof text, "%i", static_cast<int>(largest + 1));
}

// ---- Making and changing records

// A new node, or null when it or its part (an element's name, a text's content) found no memory.
static xmlNodePtr node_with(const xmlChar* part, xmlNodePtr node)
{
    if (part == NULL) {
        xmlFreeNode(node);
        return NULL;
    }
    return node;
}

static xmlNodePtr new_element(xmlDocPtr document, const xmlChar* name)
{
    xmlNodePtr element = xmlNewDocNode(document, NULL, name, NULL);
    return node_with(element != NULL ? element->name : NULL, element);
}

static xmlNodePtr new_text(xmlDocPtr document, const char* text)
{
    xmlNodePtr node = xmlNewDocText(document, as_xml(text));
    return node_with(node != NULL ? node->content : NULL, node);
}

static void wipe_text(const xmlNode* text)
{
    const bool is_shared = text->doc != NULL && xmlDictOwns(text->doc->dict, text->content) == 1;
    if (text->content != NULL && !is_shared) {
        explicit_bzero(text->content, strlen(as_chars(text->content)));
    }
}

bool set_text(xmlNodePtr element, const char* text)
{
    xmlNodePtr node = NULL;
    if (text[0] != '\0') {
        node = new_text(element->doc, text);
        if (node == NULL) {
            return false;
        }
    }
    for (xmlNodePtr child = element->children; child != NULL;) {
        xmlNodePtr next = child->next;
        if (is_text(child)) {
            wipe_text(child);
            xmlUnlinkNode(child);
            xmlFreeNode(child);
        }
        child = next;
    }
    if (node != NULL && element->children != NULL) {
        xmlAddPrevSibling(element->children, node);
    } else if (node != NULL) {
        xmlAddChild(element, node);
    }
    return true;
}

bool append_child(xmlNodePtr record, const xmlChar* name, const char* text)
{
    xmlNodePtr child = new_element(record->doc, name);
    if (child == NULL) {
        return false;
    }
    if (!set_text(child, text)) {
        xmlFreeNode(child);
        return false;
    }
    xmlAddChild(record, child);
    return true;
}

static bool append_texts(xmlNodePtr record, const RecordTexts& texts)
{
    return (texts.uid == NULL || append_child(record, XML_NodeName_UID, texts.uid)) &&
           (texts.key_name == NULL ||
            append_child(record, XML_NodeName_key_Name, texts.key_name)) &&
           append_child(record, XML_NodeName_Handle, texts.handle) &&
           append_child(record, XML_NodeName_KEY, texts.key) &&
           (texts.metadata == NULL || texts.metadata[0] == '\0' ||
            append_child(record, XML_NodeName_metadata, texts.metadata));
}

bool append_record(xmlNodePtr root, const RecordTexts& texts)
{
    if (is_key_record(root)) {
        return false;
    }
    xmlNodePtr record = new_element(root->doc, XML_NodeName_Key_Content);
    if (record == NULL) {
        return false;
    }
    if (!append_texts(record, texts)) {
        wipe_key_texts(record);
        xmlFreeNode(record);
        return false;
    }
    xmlAddChild(root, record);
    return true;
}

bool replace_texts(xmlNodePtr record, const xmlChar* name, const char* text, bool* seen)
{
    *seen = false;
    for (xmlNodePtr child = record->children; child != NULL; child = child->next) {
        if (child->type == XML_ELEMENT_NODE && is_named(child, name)) {
            *seen = true;
            if (!set_text(child, text)) {
                return false;
            }
        }
    }
    return true;
}

void remove_record(xmlNodePtr record)
{
    wipe_key_texts(record);
    if (record->parent->type != XML_ELEMENT_NODE) {
        xmlFreeNodeList(record->children);
        record->children = NULL;
        record->last = NULL;
        return;
    }
    xmlUnlinkNode(record);
    xmlFreeNode(record);
}

// ---- Wiping

void wipe_key_texts(const xmlNode* record)
{
    const xmlNode* first = record != NULL ? record->children : NULL;
    for (const xmlNode* child = first; child != NULL; child = child->next) {
        if (!is_named(child, XML_NodeName_KEY)) {
            continue;
        }
        for (const xmlNode* node = first_child_of(child); node != NULL; node = node->next) {
            if (is_text(node)) {
                wipe_text(node);
            }
        }
    }
}

void wipe_all_key_texts(const xmlNode* node)
{
    for (; node != NULL; node = node->next) {
        if (is_key_record(node)) {
            wipe_key_texts(node);
        } else {
            wipe_all_key_texts(first_child_of(node));
        }
    }
}
