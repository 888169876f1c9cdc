#include "read_back.h"

#include "key_record.h"

#include <libxml/encoding.h>
#include <libxml/parser.h>

#include <string.h>

// The characters below an element, one after the other, whatever nodes they are spread over: a text
// that was cut in pieces is read as one.
struct Characters {
    const xmlNode* root;
    const xmlNode* node;
    const xmlChar* position; // in the node's text
};

static Characters characters_below(xmlDocPtr document)
{
    const xmlNode* root = xmlDocGetRootElement(document);
    return {root, root, as_xml("")};
}

// The next node in the order of the document, below the root; null behind the last.
static const xmlNode* node_after(const xmlNode* node, const xmlNode* root)
{
    const xmlNode* next = first_child_of(node);
    while (next == NULL && node != root) {
        next = node->next;
        node = node->parent;
    }
    return next;
}

// The terminator at the end, and from then on.
static xmlChar next_character(Characters* characters)
{
    while (characters->node != NULL && *characters->position == '\0') {
        characters->node = node_after(characters->node, characters->root);
        const xmlNode* node = characters->node;
        const bool has_text = node != NULL && is_text(node) && node->content != NULL;
        characters->position = has_text ? node->content : as_xml("");
    }
    return characters->node != NULL ? *characters->position++ : '\0';
}

static bool have_the_same_texts(xmlDocPtr a, xmlDocPtr b)
{
    Characters of_a = characters_below(a);
    Characters of_b = characters_below(b);
    xmlChar character = '\0';
    do {
        character = next_character(&of_a);
        if (character != next_character(&of_b)) {
            return false;
        }
    } while (character != '\0');
    return true;
}

static bool comes_back(xmlDocPtr document)
{
    xmlChar* text = NULL;
    int size = 0;
    xmlDocDumpMemory(document, &text, &size);
    if (text == NULL) {
        return false;
    }
    xmlDocPtr copy = xmlReadMemory(as_chars(text), size, NULL, NULL, 0);
    explicit_bzero(text, static_cast<size_t>(size));
    xmlFree(text);
    const bool same = copy != NULL && have_the_same_texts(document, copy);
    wipe_all_key_texts(xmlDocGetRootElement(copy));
    xmlFreeDoc(copy);
    return same;
}

static bool declares_namespaces(xmlDocPtr document)
{
    const xmlNode* root = xmlDocGetRootElement(document);
    const xmlNode* node = root;
    while (node != NULL && (node->type != XML_ELEMENT_NODE || node->nsDef == NULL)) {
        node = node_after(node, root);
    }
    return node != NULL;
}

static bool is_in_utf8(const xmlDoc* document)
{
    return document->encoding == NULL ||
           xmlParseCharEncoding(as_chars(document->encoding)) == XML_CHAR_ENCODING_UTF8;
}

bool can_be_read_back(xmlDocPtr document)
{
    const bool is_beyond_doubt =
        document->intSubset == NULL && is_in_utf8(document) && !declares_namespaces(document);
    return is_beyond_doubt || comes_back(document);
}
