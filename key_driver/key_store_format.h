// The names that make up a key store: files and elements (internal to the library).
#ifndef ZENTRAVA_KEY_DRIVER_KEY_STORE_FORMAT_H
#define ZENTRAVA_KEY_DRIVER_KEY_STORE_FORMAT_H

#include <libxml/xmlstring.h>

// The two store files, found by these bare names in the current working directory.
static const char* const PUBLIC_KEY_FILE = "key_contents_pub.xml";
static const char* const PRIVATE_KEY_FILE = "key_contents_prv.xml";
static const char* const PRIVATE_THEN_PUBLIC[] = {PRIVATE_KEY_FILE, PUBLIC_KEY_FILE};
static const char* const PUBLIC_THEN_PRIVATE[] = {PUBLIC_KEY_FILE, PRIVATE_KEY_FILE};

// One key record and its children, in the order in which the store writes them. The search by UID
// and name relies on "uid" standing before "key_name".
static const xmlChar* const XML_NodeName_Key_Content = BAD_CAST "key_content";
static const xmlChar* const XML_NodeName_UID = BAD_CAST "uid";
static const xmlChar* const XML_NodeName_key_Name = BAD_CAST "key_name";
static const xmlChar* const XML_NodeName_Handle = BAD_CAST "handle";
static const xmlChar* const XML_NodeName_KEY = BAD_CAST "key";
static const xmlChar* const XML_NodeName_metadata = BAD_CAST "metadata";

// Names reserved for records that hold key material in parts; nothing reads or writes them.
static const xmlChar* const XML_NodeName_key_Type = BAD_CAST "key_type";
static const xmlChar* const XML_NodeName_key_Pub_X = BAD_CAST "key_pub_x";
static const xmlChar* const XML_NodeName_key_Pub_Y = BAD_CAST "key_pub_y";
static const xmlChar* const XML_NodeName_key_Prv = BAD_CAST "key_prv";

#endif
