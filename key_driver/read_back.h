// Whether a document survives being written (internal to the library and its tools).
#ifndef ZENTRAVA_KEY_DRIVER_READ_BACK_H
#define ZENTRAVA_KEY_DRIVER_READ_BACK_H

#include <libxml/tree.h>

#pragma GCC visibility push(hidden)

// Whether the document, once written, can be read again, with the texts that it has. Most can. But
// libxml2 writes attributes' default values and the names of namespaces without escaping them, and
// leaves most encodings to the C library, where some lose characters, or even those that the markup
// is made of. So documents with declarations of this kind or in such an encoding are written and
// read on trial, in memory; without memory the answer is no. The caller is inside libxml2
// (libxml2_guard.h).
bool can_be_read_back(xmlDocPtr document);

#pragma GCC visibility pop

#endif
