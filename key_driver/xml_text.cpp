#include "xml_text.h"

#include <libxml/chvalid.h>
#include <libxml/xmlstring.h>

#include <string.h>

// libxml2 refuses a longer text, unless told to read without its limits.
static const size_t LONGEST_TEXT = 10000000;

// The smallest code point that takes this many bytes; fewer bytes are to be used for less (RFC
// 3629).
static const int SMALLEST_OF_LENGTH[] = {0, 0, 0x80, 0x800, 0x10000};

// A byte that no character begins with; xmlGetUTF8Char takes it for the first of two.
static bool is_continuation(xmlChar byte)
{
    return (byte & 0xC0) == 0x80;
}

static bool is_xml_character(int code_point)
{
    return xmlIsCharQ(code_point);
}

bool xml_text_can_be_stored(const char* text)
{
    if (text == NULL) {
        return true;
    }
    size_t left = strnlen(text, LONGEST_TEXT + 1);
    if (left > LONGEST_TEXT) {
        return false;
    }
    const xmlChar* position = reinterpret_cast<const xmlChar*>(text);
    while (left > 0) {
        // In: how many bytes may be read. Out: how many the character takes.
        int length = left < 4 ? static_cast<int>(left) : 4;
        const int code_point = xmlGetUTF8Char(position, &length);
        if (is_continuation(*position) ||
            code_point < SMALLEST_OF_LENGTH[length > 0 ? length : 0] ||
            !is_xml_character(code_point)) {
            return false;
        }
        position += length;
        left -= static_cast<size_t>(length);
    }
    return true;
}
