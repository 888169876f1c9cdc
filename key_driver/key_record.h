// Key records as elements of an XML tree: their texts, handles, making and changing (internal to
// the library and its tools).
//
// A record is a "key_content" element. Each of its children holds a text in its first child.
// Callers are inside libxml2 (libxml2_guard.h) where a function makes, changes or frees nodes.
#ifndef ZENTRAVA_KEY_DRIVER_KEY_RECORD_H
#define ZENTRAVA_KEY_DRIVER_KEY_RECORD_H

#include "key_store_format.h"

#include <libxml/tree.h>

#include <stddef.h>
#include <stdint.h>
#include <string.h>

#pragma GCC visibility push(hidden)

inline const xmlChar* as_xml(const char* text)
{
    return reinterpret_cast<const xmlChar*>(text);
}

inline const char* as_chars(const xmlChar* text)
{
    return reinterpret_cast<const char*>(text);
}

// ---- Looking at nodes (inline: a search looks at every node of a file)

// Null, the name of some kinds of node, is the same as null alone. Compares as xmlStrcmp does, but by
// the C library's function, which looks at whole words.
inline bool is_same_text(const xmlChar* a, const xmlChar* b)
{
    if (a == NULL || b == NULL) {
        return a == b;
    }
    return a[0] == b[0] && strcmp(as_chars(a), as_chars(b)) == 0;
}

// Names are compared whatever the type of the node; a text or comment node is never called "uid".
inline bool is_named(const xmlNode* node, const xmlChar* name)
{
    return is_same_text(node->name, name);
}

inline bool is_key_record(const xmlNode* node)
{
    return node->type == XML_ELEMENT_NODE && is_named(node, XML_NodeName_Key_Content);
}

// Whether a node is text, or a section of character data.
inline bool is_text(const xmlNode* node)
{
    return node->type == XML_TEXT_NODE || node->type == XML_CDATA_SECTION_NODE;
}

// Null for a node without children, and for an entity reference: below that hangs the entity's
// declaration, which is no part of the content and whose siblings can lead back to the reference.
inline xmlNode* first_child_of(const xmlNode* node)
{
    return node->type != XML_ENTITY_REF_NODE ? node->children : NULL;
}

// The text that a record's child holds: its first child's, if that is text. Everything else (no
// child at all, a comment, an element, an entity reference first) counts as the empty text. Never
// null; points into the tree.
inline const xmlChar* text_of(const xmlNode* element)
{
    const xmlNode* first = first_child_of(element);
    return first != NULL && is_text(first) && first->content != NULL ? first->content : as_xml("");
}

// ---- Handles

// The largest handle among the records directly below `root`, 0 when there is none or no root.
// Handles are compared as unsigned numbers, so a negative text is larger than every positive one; a
// text that is no number counts as 0.
uint32_t largest_handle_below(const xmlNode* root);

uint32_t larger_handle(uint32_t a, uint32_t b);

// The handle that follows the largest one, as a signed decimal: "-5" is followed by "-4".
static const size_t HANDLE_TEXT_SIZE = 16;
void format_handle_after(uint32_t largest, char (&text)[HANDLE_TEXT_SIZE]);

// ---- Making and changing records

// Makes `text` the text of an element, and the only one: what else it holds, such as comments,
// stays behind the text. The empty text is no node at all. False, with nothing changed, without
// memory.
bool set_text(xmlNodePtr element, const char* text);

// Appends an element with this name and text to a record; false, with nothing changed, without
// memory.
bool append_child(xmlNodePtr record, const xmlChar* name, const char* text);

// What a new record holds, in the order of its elements. A null text leaves its element out, and so
// does empty metadata.
struct RecordTexts {
    const char* uid;
    const char* key_name;
    const char* handle;
    const char* key;
    const char* metadata;
};

// Appends a record as the last child of a root; false, with nothing changed, without memory. It is
// refused where it could not be found again: the search does not look inside a record, so a root
// that is a record itself takes no others.
bool append_record(xmlNodePtr root, const RecordTexts& texts);

// Sets the text of each of a record's elements of this name. `seen` tells whether there was one.
// False without memory, with some of them changed.
bool replace_texts(xmlNodePtr record, const xmlChar* name, const char* text, bool* seen);

// Unlinks, wipes and frees a record. A document cannot be without a root element, so one that is
// itself the record stays and is emptied.
void remove_record(xmlNodePtr record);

// ---- Wiping

// Overwrites the key texts of a record, which stays in its tree; null has none. A text in the
// document's dictionary (libxml2 puts some of three characters and less there) is shared, and stays.
void wipe_key_texts(const xmlNode* record);

// Those of each record at or below `node` or its later siblings; null has none.
void wipe_all_key_texts(const xmlNode* node);

#pragma GCC visibility pop

#endif
