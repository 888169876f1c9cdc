// The rules that are checked are those of the store's search, of its handles and of its key texts
// (key_driver/key_record.h, key_driver/zentrava_key_management_utils.h), and what the key driver
// asks of the keys that it loads (key_names.h).

#include "store_check.h"

#include "key_names.h"
#include "p256_key_file.h"
#include "store_file.h"
#include "user_file.h"

#include "key_driver/key_record.h"
#include "key_driver/key_store_format.h"
#include "key_driver/libxml2_guard.h"

#include <libxml/parser.h>
#include <libxml/xmlerror.h>

#include <ctype.h>
#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <unordered_map>

static const size_t UID_LENGTH = 32; // what the adders take

// The elements of a record that the library knows.
enum ElementKind { UID, KEY_NAME, HANDLE, KEY, METADATA };
static const ElementKind ELEMENT_KINDS[] = {UID, KEY_NAME, HANDLE, KEY, METADATA};
static const xmlChar* const ELEMENT_NAMES[] = {XML_NodeName_UID, XML_NodeName_key_Name,
                                               XML_NodeName_Handle, XML_NodeName_KEY,
                                               XML_NodeName_metadata};

static std::string name_of(ElementKind kind)
{
    return as_chars(ELEMENT_NAMES[kind]);
}

// A record as the library sees it.
struct CheckedRecord {
    FileKind file;
    const xmlNode* node;
    const xmlNode* first[5];       // element of each kind, null when there is none
    size_t count[5];               // of elements of each kind
    const xmlNode* name_in_search; // the key name behind the UID, null when there is none
    const xmlNode* key_element;    // the one whose text is the key, null when there is none
};

// Where a UID with a key name, or a handle, was seen first, by FileKind; line 0 is nowhere.
struct Sightings {
    int line[2];
    bool has_key[2];
};

struct Inspection {
    const char* files[2];
    std::vector<Finding> findings;
    std::unordered_map<std::string, Sightings> keys;
    std::unordered_map<std::string, Sightings> handles;
};

// ---------------------------------------------------------------------------------------------
// Findings
// ---------------------------------------------------------------------------------------------

struct Message {
    Severity severity;
    const char* what;
    std::string cause;
    std::string remedy;
};

static void report_file(Inspection* inspection, FileKind file, int line, const Message& message)
{
    inspection->findings.push_back({message.severity, inspection->files[file], line, "", "", "",
                                    message.what, message.cause, message.remedy});
}

static int line_of(const xmlNode* node)
{
    return static_cast<int>(xmlGetLineNo(node));
}

static std::string text_or_empty(const xmlNode* element)
{
    return element != NULL ? as_chars(text_of(element)) : "";
}

static const xmlNode* name_element_of(const CheckedRecord& record)
{
    return record.name_in_search != NULL ? record.name_in_search : record.first[KEY_NAME];
}

// `node` is what the finding is about: the record or one of its elements.
static void report(Inspection* inspection, const CheckedRecord& record, const xmlNode* node,
                   const Message& message)
{
    inspection->findings.push_back(
        {message.severity, inspection->files[record.file], line_of(node),
         text_or_empty(record.first[UID]), text_or_empty(name_element_of(record)),
         text_or_empty(record.first[HANDLE]), message.what, message.cause, message.remedy});
}

static std::string place(const Inspection& inspection, FileKind file, int line)
{
    return "line " + std::to_string(line) + " of " + inspection.files[file];
}

// ---------------------------------------------------------------------------------------------
// The texts of a record's elements
// ---------------------------------------------------------------------------------------------

static bool holds_text(const xmlNode* node)
{
    return node->type == XML_TEXT_NODE || node->type == XML_CDATA_SECTION_NODE ||
           node->type == XML_ENTITY_REF_NODE;
}

// Whether more text follows the first piece, behind a comment, say.
static bool text_goes_on(const xmlNode* element)
{
    const xmlNode* first = first_child_of(element);
    for (const xmlNode* node = first != NULL ? first->next : NULL; node != NULL;
         node = node->next) {
        if (holds_text(node)) {
            return true;
        }
    }
    return false;
}

static bool has_space_around(const std::string& text)
{
    return !text.empty() && (isspace(static_cast<unsigned char>(text.front())) != 0 ||
                             isspace(static_cast<unsigned char>(text.back())) != 0);
}

static void check_text(Inspection* inspection, const CheckedRecord& record, const xmlNode* element,
                       ElementKind kind)
{
    const Severity severity = kind == METADATA ? WARNING : ERROR;
    const std::string name = "\"" + name_of(kind) + "\"";
    const std::string text = as_chars(text_of(element));
    if (text.empty() && first_child_of(element) != NULL) {
        report(inspection, record, element,
               {severity, "no-text",
                name + " does not begin with text, which counts as the empty text",
                "move its text to the front, or delete the record and add the key anew"});
    } else if (text.empty()) {
        report(inspection, record, element,
               {severity, "no-text", name + " is empty", "fill it in, or delete the record"});
    } else if (text_goes_on(element)) {
        report(inspection, record, element,
               {severity, "interrupted-text",
                name + " has more than one piece of text, of which the first alone is read",
                "take out the comment or section between them"});
    }
    if ((kind == UID || kind == KEY_NAME) && has_space_around(text)) {
        report(inspection, record, element,
               {ERROR, "space-around-text",
                name + " has white space around its text, which is part of it in a search",
                "take the white space out"});
    }
}

static void check_texts(Inspection* inspection, const CheckedRecord& record)
{
    for (const ElementKind kind : ELEMENT_KINDS) {
        const xmlNode* element =
            kind == KEY && record.key_element != NULL ? record.key_element : record.first[kind];
        if (element != NULL) {
            check_text(inspection, record, element, kind);
        }
        if (record.count[kind] > 1) {
            report(inspection, record, record.first[kind],
                   {WARNING, "repeated-element",
                    "the record has more than one \"" + name_of(kind) + "\"",
                    "keep the one that is meant"});
        }
    }
}

// ---------------------------------------------------------------------------------------------
// Whether the search finds a record
// ---------------------------------------------------------------------------------------------

static size_t length_in_characters(const std::string& text)
{
    return static_cast<size_t>(std::count_if(text.begin(), text.end(), [](char byte) {
        return (static_cast<unsigned char>(byte) & 0xC0) != 0x80;
    }));
}

static void check_uid(Inspection* inspection, const CheckedRecord& record)
{
    const std::string uid = text_or_empty(record.first[UID]);
    if (!uid.empty() && uid.size() != UID_LENGTH) {
        report(inspection, record, record.first[UID],
               {WARNING, "uid-length",
                "the UID has " + std::to_string(length_in_characters(uid)) +
                    " characters, and keys can be added to one of 32 only",
                "see whether the UID is complete"});
    }
}

static void check_visibility(Inspection* inspection, const CheckedRecord& record)
{
    if (record.first[UID] == NULL) {
        report(inspection, record, record.node,
               {ERROR, "no-uid", "the record has no \"uid\": it is found by its handle only",
                "put the \"uid\" in, before the \"key_name\""});
        return;
    }
    if (record.first[KEY_NAME] == NULL) {
        report(inspection, record, record.node,
               {ERROR, "no-key-name",
                "the record has no \"key_name\": it is found by its handle only",
                "put the \"key_name\" in, behind the \"uid\""});
    } else if (record.name_in_search == NULL) {
        report(inspection, record, record.first[KEY_NAME],
               {ERROR, "name-before-uid",
                "\"key_name\" stands before \"uid\": the record is found by its handle only",
                "put the \"uid\" before the \"key_name\""});
    }
    check_uid(inspection, record);
}

// Who is found in place of whom depends on what is asked for: the search takes the first record of
// a file; a key comes from the private file if that has one, handle and metadata from the public.
static void check_duplicate_key(Inspection* inspection, const CheckedRecord& record)
{
    if (record.name_in_search == NULL) {
        return;
    }
    const std::string key =
        text_or_empty(record.first[UID]) + '\0' + text_or_empty(record.name_in_search);
    Sightings& seen = inspection->keys[key];
    if (seen.line[record.file] != 0) {
        report(inspection, record, record.node,
               {ERROR, "duplicate-key",
                "the record on " + place(*inspection, record.file, seen.line[record.file]) +
                    " has the same UID and key name and is found in place of this one",
                "delete one of the two, by its handle"});
        return;
    }
    seen.line[record.file] = line_of(record.node);
    seen.has_key[record.file] = !text_or_empty(record.key_element).empty();
    if (record.file == PUBLIC_FILE && seen.line[PRIVATE_FILE] != 0) {
        report(inspection, record, record.node,
               {WARNING, "key-in-both-files",
                "the record on " + place(*inspection, PRIVATE_FILE, seen.line[PRIVATE_FILE]) +
                    " has the same UID and key name: the key is loaded from " +
                    (seen.has_key[PRIVATE_FILE] ? "there" : "here, since there is none there") +
                    ", handle and metadata are taken from here",
                "delete one of the two, by its handle"});
    }
}

// ---------------------------------------------------------------------------------------------
// Handles
// ---------------------------------------------------------------------------------------------

static bool all_digits(const std::string& text)
{
    return !text.empty() && text.find_first_not_of("0123456789") == text.npos;
}

// Whether the handle made after this one would not be a positive number of 32 bits.
static bool is_too_large(const std::string& digits)
{
    return strtoull(digits.c_str(), NULL, 10) >= INT32_MAX; // the largest value if out of range
}

static void check_handle_text(Inspection* inspection, const CheckedRecord& record,
                              const std::string& handle)
{
    const xmlNode* element = record.first[HANDLE];
    const std::string remedy = "delete the record and add the key anew";
    if (handle[0] == '-' && all_digits(handle.substr(1))) {
        report(inspection, record, element,
               {ERROR, "negative-handle",
                "the handle is negative and counts as the largest of all: new ones follow it",
                remedy});
    } else if (!all_digits(handle)) {
        report(inspection, record, element,
               {ERROR, "non-numeric-handle", "the handle is not a decimal number", remedy});
    } else if (is_too_large(handle)) {
        report(inspection, record, element,
               {ERROR, "handle-too-large", "no positive handle follows this one", remedy});
    } else if (handle[0] == '0') {
        report(inspection, record, element,
               {WARNING, "unusual-handle",
                "the handle begins with 0, which the library's own handles never do", remedy});
    }
}

// By its handle, a record of the public file is found before one of the private file.
static void check_duplicate_handle(Inspection* inspection, const CheckedRecord& record,
                                   const std::string& handle)
{
    Sightings& seen = inspection->handles[handle];
    const FileKind other_file = record.file == PRIVATE_FILE ? PUBLIC_FILE : PRIVATE_FILE;
    const FileKind seen_in = seen.line[record.file] != 0 ? record.file : other_file;
    if (seen.line[seen_in] != 0) {
        const bool this_one_is_found = record.file == PUBLIC_FILE && seen_in == PRIVATE_FILE;
        report(inspection, record, record.first[HANDLE],
               {ERROR, "duplicate-handle",
                "the handle is also that of the record on " +
                    place(*inspection, seen_in, seen.line[seen_in]) + ", and " +
                    (this_one_is_found ? "this" : "that") + " one is found by it",
                "delete one of the two by UID and key name, and add it anew"});
    }
    if (seen.line[record.file] == 0) {
        seen.line[record.file] = line_of(record.node);
    }
}

static void check_handle(Inspection* inspection, const CheckedRecord& record)
{
    if (record.first[HANDLE] == NULL) {
        report(inspection, record, record.node,
               {ERROR, "no-handle", "the record has no \"handle\"",
                "delete the record and add the key anew"});
        return;
    }
    const std::string handle = text_or_empty(record.first[HANDLE]);
    if (!handle.empty()) {
        check_handle_text(inspection, record, handle);
        check_duplicate_handle(inspection, record, handle);
    }
}

static void check_order_of_metadata(Inspection* inspection, const CheckedRecord& record)
{
    for (const xmlNode* node = record.first[METADATA]; node != NULL; node = node->next) {
        if (node == record.first[HANDLE]) {
            report(inspection, record, record.first[METADATA],
                   {WARNING, "metadata-before-handle",
                    "\"metadata\" stands before \"handle\": who asks for both gets no handle",
                    "put the \"handle\" before the \"metadata\""});
        }
    }
}

// ---------------------------------------------------------------------------------------------
// Keys
// ---------------------------------------------------------------------------------------------

static const char* const ADD_ANEW = "add the key anew with --replace";

static size_t hexadecimal_length(const char* text)
{
    return strspn(text, "0123456789abcdefABCDEF");
}

static bool is_converted(size_t byte_count)
{
    return byte_count == 32 || byte_count == 64;
}

static void check_private_number(Inspection* inspection, const CheckedRecord& record,
                                 const char* text)
{
    uint8_t number[32];
    bytes_of_hexadecimal(text, number);
    if (!p256_scalar_is_in_range(number)) {
        report(inspection, record, record.key_element,
               {ERROR, "private-key-range", "the private key is not within 1 to n - 1 of P-256",
                "make a new key with generate --replace"});
    }
    explicit_bzero(number, sizeof number);
}

static void check_public_point(Inspection* inspection, const CheckedRecord& record,
                               const char* text)
{
    uint8_t point[64];
    bytes_of_hexadecimal(text, point);
    if (!p256_point_is_on_curve(point, point + 32)) {
        report(inspection, record, record.key_element,
               {ERROR, "public-key-off-curve", "the public key is not a point on the curve P-256",
                "import the public key anew with --replace"});
    }
}

static void check_digits(Inspection* inspection, const CheckedRecord& record, const char* text,
                         bool is_error)
{
    const size_t good = hexadecimal_length(text);
    if (text[good] == '\0') {
        return;
    }
    const bool is_space = isspace(static_cast<unsigned char>(text[good])) != 0;
    report(inspection, record, record.key_element,
           {is_error ? ERROR : WARNING, "not-hexadecimal",
            "character " + std::to_string(good + 1) + " of the key text is " +
                (is_space ? "white space" : "no hexadecimal digit"),
            ADD_ANEW});
}

// A length that the driver refuses, or at which the text is not converted into bytes.
static void check_length(Inspection* inspection, const CheckedRecord& record, size_t text_length,
                         const std::optional<KeyUse>& use)
{
    const size_t byte_count = (text_length + 1) / 2;
    const std::string bytes = std::to_string(byte_count) + (byte_count == 1 ? " byte" : " bytes");
    if (use && byte_count != use->length) {
        report(inspection, record, record.key_element,
               {ERROR, "key-length",
                "the key has " + bytes + ", and the driver takes " + std::to_string(use->length) +
                    " under this name",
                ADD_ANEW});
    } else if (!is_converted(byte_count)) {
        report(inspection, record, record.key_element,
               {WARNING, "unconverted-key",
                "the key has " + bytes +
                    ": at any length but 32 and 64, the characters of its "
                    "text are handed out in place of bytes",
                "see whether the key is complete"});
    } else if (text_length % 2 == 1) {
        report(inspection, record, record.key_element,
               {ERROR, "odd-key-length",
                "the key text has " + std::to_string(text_length) +
                    " digits: the last one counts as the higher half of a byte",
                ADD_ANEW});
    }
}

static void check_key_text(Inspection* inspection, const CheckedRecord& record, const char* text)
{
    const std::optional<KeyUse> use = driver_use_of(text_or_empty(name_element_of(record)));
    const size_t length = strlen(text);
    check_digits(inspection, record, text, use || is_converted((length + 1) / 2));
    check_length(inspection, record, length, use);
    if (!use || length != 2 * use->length || hexadecimal_length(text) != length) {
        return;
    }
    if (use->kind == P256_PRIVATE_KEY) {
        check_private_number(inspection, record, text);
    } else if (use->kind == P256_PUBLIC_KEY) {
        check_public_point(inspection, record, text);
    }
}

static void check_key(Inspection* inspection, const CheckedRecord& record)
{
    if (record.first[KEY] == NULL) {
        report(inspection, record, record.node,
               {ERROR, "no-key", "the record has no \"key\"", ADD_ANEW});
        return;
    }
    const xmlChar* text = record.key_element != NULL ? text_of(record.key_element) : BAD_CAST "";
    if (text[0] != '\0') {
        check_key_text(inspection, record, as_chars(text));
    }
}

// What a name says about the key: a slot that does not exist, a secret in a file for everybody.
static void check_name(Inspection* inspection, const CheckedRecord& record)
{
    const std::string name = text_or_empty(name_element_of(record));
    const std::optional<KeyUse> use = driver_use_of(name);
    const size_t slot = name.find("_slot_");
    if (!use && slot != name.npos && has_kts_slots(name.substr(0, slot))) {
        report(inspection, record, name_element_of(record),
               {WARNING, "slot-name",
                "no KTS slot has this name: slots are written as signed decimals of 32 bits",
                "rename the key; slot 4294967295 is -1"});
    }
    if (use && use->kind != P256_PUBLIC_KEY && record.file == PUBLIC_FILE) {
        report(inspection, record, record.node,
               {WARNING, "secret-in-public-file", "the public file holds a secret key",
                "add the key to the private file, and delete it here"});
    }
}

// ---------------------------------------------------------------------------------------------
// Records and files
// ---------------------------------------------------------------------------------------------

static CheckedRecord look_at(FileKind file, const xmlNode* node)
{
    CheckedRecord record = {};
    record.file = file;
    record.node = node;
    for (const xmlNode* child = node->children; child != NULL; child = child->next) {
        for (const ElementKind kind : ELEMENT_KINDS) {
            if (is_named(child, ELEMENT_NAMES[kind])) {
                record.first[kind] = record.count[kind]++ == 0 ? child : record.first[kind];
                if (kind == KEY_NAME && record.name_in_search == NULL &&
                    record.first[UID] != NULL) {
                    record.name_in_search = child;
                }
                if (kind == KEY && record.key_element == NULL && first_child_of(child) != NULL) {
                    record.key_element = child;
                }
            }
        }
    }
    return record;
}

static void check_place(Inspection* inspection, const CheckedRecord& record, const xmlNode* root)
{
    if (record.node == root) {
        report(inspection, record, record.node,
               {ERROR, "root-is-record", "the file's root is a record: no other can be added",
                "put another element around it"});
    } else if (record.node->parent != root) {
        report(inspection, record, record.node,
               {WARNING, "deep-record",
                "the record is not directly below the root: its handle can be given out again",
                "move the record to directly below the root"});
    }
}

// The search does not look inside a record.
static void check_records_inside(Inspection* inspection, const CheckedRecord& record)
{
    for (const xmlNode* child = record.node->children; child != NULL; child = child->next) {
        if (is_key_record(child)) {
            report(inspection, look_at(record.file, child), child,
                   {ERROR, "record-in-record", "a record inside another one is never found",
                    "move it to directly below the root"});
        }
    }
}

static void check_record(Inspection* inspection, const CheckedRecord& record, const xmlNode* root)
{
    check_place(inspection, record, root);
    if (record.node->children == NULL) {
        report(inspection, record, record.node,
               {ERROR, "empty-record", "the record is empty", "take it out"});
        return;
    }
    check_visibility(inspection, record);
    check_texts(inspection, record);
    check_duplicate_key(inspection, record);
    check_handle(inspection, record);
    check_order_of_metadata(inspection, record);
    check_key(inspection, record);
    check_name(inspection, record);
    check_records_inside(inspection, record);
}

// The records that the search visits, as it visits them.
static void check_records(Inspection* inspection, FileKind file, const xmlNode* first,
                          const xmlNode* root)
{
    for (const xmlNode* node = first; node != NULL; node = node->next) {
        if (is_key_record(node)) {
            check_record(inspection, look_at(file, node), root);
        } else {
            check_records(inspection, file, first_child_of(node), root);
        }
    }
}

static void check_permissions(Inspection* inspection, FileKind file, mode_t mode)
{
    if (file == PRIVATE_FILE && (mode & (S_IRGRP | S_IROTH)) != 0) {
        report_file(inspection, file, 0,
                    {WARNING, "readable-by-others", "others than the owner can read private keys",
                     std::string("chmod 600 ") + inspection->files[file]});
    }
    if ((mode & (S_IWGRP | S_IWOTH)) != 0) {
        report_file(inspection, file, 0,
                    {WARNING, "writable-by-others", "others than the owner can change keys",
                     std::string("chmod go-w ") + inspection->files[file]});
    }
}

// The first error that the parser reports; those behind it are often its consequences.
struct ParserError {
    int domain;
    int code;
    int line;
};

static std::string words_for(int code)
{
    switch (code) {
    case XML_ERR_DOCUMENT_EMPTY:
        return "there is no element in it";
    case XML_ERR_DOCUMENT_END:
        return "something stands behind the root element";
    case XML_ERR_INVALID_CHAR:
    case XML_ERR_INVALID_ENCODING:
        return "a character that XML does not allow, or bytes of another encoding";
    case XML_ERR_UNDECLARED_ENTITY:
        return "an entity that is not declared";
    case XML_ERR_NAME_REQUIRED:
        return "a \"<\" or \"&\" without a name";
    case XML_ERR_TAG_NAME_MISMATCH:
        return "an end tag that closes another element";
    case XML_ERR_TAG_NOT_FINISHED:
        return "the file ends inside an element";
    default:
        return "error " + std::to_string(code) + " of libxml2";
    }
}

// libxml2's own words stay unsaid: they can quote a piece of the file, and so of a key.
static Message message_of(const ParserError& error)
{
    if (error.domain == XML_FROM_IO) {
        return {ERROR, "unreadable-file", "cannot be read", "see to its permissions"};
    }
    if (error.code == XML_ERR_NO_MEMORY) {
        return {ERROR, "unreadable-file", "there is not enough memory for it", "free some memory"};
    }
    return {ERROR, "not-well-formed",
            "is not well-formed, so that the library reads nothing of it: " + words_for(error.code),
            "mend it by hand, or bring a backup back with restore"};
}

// As the store reads it, except that lines are counted beyond 65535. Null, and reported, for a file
// that it would not read.
static xmlDocPtr read_as_store(Inspection* inspection, FileKind file)
{
    ParserError error = {};
    // The second parameter's type differs between libxml2's versions.
    xmlSetStructuredErrorFunc(&error, [](void* context, auto report) {
        ParserError* first = static_cast<ParserError*>(context);
        const bool decides = report->level == XML_ERR_FATAL || report->domain == XML_FROM_IO;
        if ((decides && first->code == 0) || report->code == XML_ERR_NO_MEMORY) {
            *first = {report->domain, report->code, report->line};
        }
    });
    xmlDocPtr document = xmlReadFile(inspection->files[file], NULL, XML_PARSE_BIG_LINES);
    xmlSetStructuredErrorFunc(NULL, [](void*, auto) {});
    if (document != NULL && error.code == XML_ERR_NO_MEMORY) {
        xmlFreeDoc(document);
        document = NULL;
    }
    if (document == NULL) {
        report_file(inspection, file, error.line, message_of(error));
    }
    return document;
}

static void check_content(Inspection* inspection, FileKind file)
{
    libxml2_enter();
    xmlDocPtr document = read_as_store(inspection, file);
    if (document != NULL) {
        const xmlNode* root = xmlDocGetRootElement(document);
        check_records(inspection, file, root, root);
    }
    xmlFreeDoc(document);
    libxml2_leave(true);
}

static void check_file(Inspection* inspection, FileKind file)
{
    const char* name = inspection->files[file];
    struct stat status = {};
    if (stat(name, &status) != 0 && errno == ENOENT) {
        report_file(inspection, file, 0,
                    {ERROR, "missing-file", "is not there: the library never makes it",
                     "make it with init --missing"});
        return;
    }
    if (access(name, R_OK) != 0) {
        report_file(inspection, file, 0,
                    {ERROR, "unreadable-file", std::string("cannot be read: ") + strerror(errno),
                     "see to its permissions"});
        return;
    }
    check_permissions(inspection, file, status.st_mode);
    check_content(inspection, file);
}

std::vector<Finding> check_store(const char* private_file, const char* public_file)
{
    Inspection inspection = {{private_file, public_file}, {}, {}, {}};
    for (FileKind file : FILE_KINDS) {
        const size_t begin = inspection.findings.size();
        check_file(&inspection, file);
        std::stable_sort(inspection.findings.begin() + static_cast<std::ptrdiff_t>(begin),
                         inspection.findings.end(),
                         [](const Finding& a, const Finding& b) { return a.line < b.line; });
    }
    return inspection.findings;
}

bool store_is_damaged(const std::vector<Finding>& findings)
{
    return std::any_of(findings.begin(), findings.end(),
                       [](const Finding& finding) { return finding.severity == ERROR; });
}
