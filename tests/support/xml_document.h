// Documents that a test holds in memory.
#pragma once

#include <libxml/parser.h>
#include <libxml/tree.h>

#include <memory>
#include <string>

struct FreeDocument {
    void operator()(xmlDoc* document) const
    {
        xmlFreeDoc(document);
    }
};
using Document = std::unique_ptr<xmlDoc, FreeDocument>;

// Parsed as the store parses its files: without any parser option.
inline Document parsed(const std::string& text)
{
    const int size = static_cast<int>(text.size());
    return Document(xmlReadMemory(text.data(), size, "test.xml", nullptr, 0));
}

inline xmlNode* root_of(const Document& document)
{
    return xmlDocGetRootElement(document.get());
}

inline const xmlChar* xml(const char* text)
{
    return reinterpret_cast<const xmlChar*>(text);
}

inline std::string chars(const xmlChar* text)
{
    return text != nullptr ? reinterpret_cast<const char*>(text) : "(null)";
}
