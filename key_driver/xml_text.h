// Which texts a store can hold (internal to the library and its tools).
#ifndef ZENTRAVA_KEY_DRIVER_XML_TEXT_H
#define ZENTRAVA_KEY_DRIVER_XML_TEXT_H

#pragma GCC visibility push(hidden)

// Whether a text, once stored, can be read back as it is: well-formed UTF-8 (RFC 3629) of
// characters that XML 1.0 allows, and no longer than libxml2 reads. `text` is NUL-terminated; null
// counts as nothing to store, which is fine.
bool xml_text_can_be_stored(const char* text);

#pragma GCC visibility pop

#endif
