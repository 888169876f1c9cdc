// The key store: key records in two XML files and in an in-memory volatile tree.

#include "zentrava_key_management_utils.h"

#include "durable_save.h"
#include "key_record.h"
#include "key_store_format.h"
#include "libxml2_guard.h"
#include "store_lock.h"
#include "xml_text.h"

#include <libxml/parser.h>
#include <libxml/tree.h>

#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#undef NDEBUG // preconditions are checked in every build type, Release included
#include <assert.h>

// Results of the store's operations, with the values of KeyLibrary_OK and KeyLibrary_ERROR.
static const uint32_t STORE_OK = 0;
static const uint32_t STORE_ERROR = 1;

// The key names that the store itself knows.
static const char* const CRK_NAME = "crk";
static const char* const CSK_NAME = "tmp_client_session_key";
static const char* const SRK_NAME = "srk";

// Serialises reading and rewriting the store files. The volatile tree is not covered by it.
static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;

// The volatile tree: made by the first operation that needs it, never saved, never freed.
static xmlNodePtr tmpTree_rootNode = NULL;

// ---------------------------------------------------------------------------------------------
// Documents
// ---------------------------------------------------------------------------------------------

// Reads a store file; null when it is missing, does not parse or finds no memory. The thread is
// inside libxml2 from here on, so each call is followed by exactly one close, whether the read
// succeeded or not. The options stay 0: recovering would accept broken files, and lifting the
// parser's limits would let in the files that those limits are there to stop.
static xmlDocPtr open_document(const char* file_name)
{
    libxml2_enter();
    xmlDocPtr document = xmlReadFile(file_name, NULL, 0);
    if (libxml2_ran_out_of_memory()) {
        xmlFreeDoc(document);
        return NULL;
    }
    return document;
}

// As open_document, with the mutex held during the read and no longer.
static xmlDocPtr open_document_under_lock(const char* file_name)
{
    pthread_mutex_lock(&lock);
    xmlDocPtr document = open_document(file_name);
    pthread_mutex_unlock(&lock);
    return document;
}

static void close_document(xmlDocPtr document)
{
    xmlFreeDoc(document);
    libxml2_leave(false);
}

static void close_document_and_clean_up(xmlDocPtr document)
{
    xmlFreeDoc(document);
    libxml2_leave(true);
}

// Reads a store file in order to change it: from here to end_change no other thread, and no other
// process that uses this library, changes a store file.
static xmlDocPtr open_document_for_change(const char* file_name)
{
    pthread_mutex_lock(&lock);
    store_lock_take();
    return open_document(file_name);
}

// The records that a change takes up: found, changed or new; null where there are less than two.
// Whoever takes up a record, to change it or to look at it, wipes its key text before the document
// is closed: libxml2 frees its memory as it is. The records that a search only passes over are not
// wiped, which would make every operation 1 % dearer.
struct TakenUp {
    const xmlNode* records[2];
};

static void wipe_taken_up(const TakenUp& taken_up)
{
    wipe_key_texts(taken_up.records[0]);
    wipe_key_texts(taken_up.records[1]);
}

static void end_change()
{
    store_lock_give_back();
    pthread_mutex_unlock(&lock);
}

// What becomes of a document that an operation has worked on.
struct Change {
    bool save;
    uint32_t result; // of the operation, if the document need not be saved or could be
};
static const Change CHANGED = {true, STORE_OK};
static const Change REFUSED_BUT_SAVED = {true, STORE_ERROR}; // rewritten all the same

// Ends a change without a save; the file stays untouched. Called before the reason is printed, so
// that nobody waits for standard output.
static Change abandon_change()
{
    end_change();
    return {false, STORE_ERROR};
}

// Saves the document and ends the change, unless it was abandoned; the operation's result.
static uint32_t finish_change(Change change, xmlDocPtr document, const char* file_name,
                              const char* operation)
{
    if (!change.save) {
        return change.result;
    }
    const bool saved = durable_save(file_name, document);
    end_change();
    if (!saved) {
        printf("[%s] error: could not save file %s\n", operation, file_name);
        return STORE_ERROR;
    }
    return change.result;
}

// The root of the volatile tree, made on first use; null when there is no memory for it.
static xmlNodePtr getTmpTreeRootNode()
{
    static pthread_mutex_t making = PTHREAD_MUTEX_INITIALIZER;
    pthread_mutex_lock(&making);
    if (tmpTree_rootNode == NULL) {
        libxml2_enter();
        tmpTree_rootNode = xmlNewNode(NULL, as_xml("tmp_tree_root"));
        libxml2_leave(false);
    }
    xmlNodePtr root = tmpTree_rootNode;
    pthread_mutex_unlock(&making);
    return root;
}

// ---------------------------------------------------------------------------------------------
// Records and their search
// ---------------------------------------------------------------------------------------------

// The first node at or after `node` among its siblings that has this name and holds this text.
static inline const xmlNode* find_sibling(const xmlNode* node, const xmlChar* name,
                                          const xmlChar* text)
{
    while (node != NULL && (!is_named(node, name) || !is_same_text(text_of(node), text))) {
        node = node->next;
    }
    return node;
}

static bool record_has_handle(const xmlNode* record, const xmlChar* handle)
{
    return find_sibling(record->children, XML_NodeName_Handle, handle) != NULL;
}

// A key name that stands before the UID is not seen. Without a key name the UID decides alone.
static bool record_has_uid_and_name(const xmlNode* record, const xmlChar* uid,
                                    const xmlChar* key_name)
{
    const xmlNode* uid_node = find_sibling(record->children, XML_NodeName_UID, uid);
    if (uid_node == NULL) {
        return false;
    }
    return key_name == NULL ||
           find_sibling(uid_node->next, XML_NodeName_key_Name, key_name) != NULL;
}

// Has the processor fetch the records after the next one. libxml2 lays a document out in memory in
// the order of its text; a search touches a little of everything, and in a file of many records it
// would spend its time waiting for memory. Only a hint: what lies there need not be a record.
static void fetch_ahead(const xmlNode* record)
{
    const uintptr_t begin = reinterpret_cast<uintptr_t>(record) + 3072;
#pragma GCC unroll 24
    for (uintptr_t line = begin; line < begin + 1536; line += 64) {
        // A pointer made of a number, for it need not point into any object.
        __builtin_prefetch(
            reinterpret_cast<const void*>(line)); // NOLINT(performance-no-int-to-ptr)
    }
}

// The first record in document order, at or below `rootNode` or its later siblings, that has the
// handle or, with a null handle, the UID and key name. `key` takes no part and is always null.
// Loops over siblings and recurses downwards only; the parser bounds a file's depth to 256.
static xmlNode* find_node_from_input_root(xmlNode* rootNode, const xmlChar* uid,
                                          const xmlChar* handle, const xmlChar* key_name,
                                          const xmlChar* key)
{
    for (xmlNode* node = rootNode; node != NULL; node = node->next) {
        if (is_key_record(node)) {
            fetch_ahead(node);
            const bool matches = handle != NULL ? record_has_handle(node, handle)
                                                : record_has_uid_and_name(node, uid, key_name);
            if (matches) {
                return node;
            }
        } else if (xmlNode* below = first_child_of(node); below != NULL) {
            xmlNode* found = find_node_from_input_root(below, uid, handle, key_name, key);
            if (found != NULL) {
                return found;
            }
        }
    }
    return NULL;
}

static xmlNode* find_record(xmlDocPtr document, const char* uid, const char* key_name)
{
    return find_node_from_input_root(xmlDocGetRootElement(document), as_xml(uid), NULL,
                                     as_xml(key_name), NULL);
}

// The key text of a record: that of its first "key" child that has a child of its own; null when
// there is none. Points into the tree.
static const xmlChar* getRawKeyFromNode(const xmlNode* rootNode)
{
    for (const xmlNode* child = rootNode->children; child != NULL; child = child->next) {
        if (is_named(child, XML_NodeName_KEY) && first_child_of(child) != NULL) {
            return text_of(child);
        }
    }
    return NULL;
}

// ---------------------------------------------------------------------------------------------
// Hexadecimal key text
// ---------------------------------------------------------------------------------------------

// A character that is no hexadecimal digit counts as 0, without an error.
static uint8_t nibble_of(char character)
{
    if (character >= '0' && character <= '9') {
        return static_cast<uint8_t>(character - '0');
    }
    if (character >= 'A' && character <= 'F') {
        return static_cast<uint8_t>(character - 'A' + 10);
    }
    if (character >= 'a' && character <= 'f') {
        return static_cast<uint8_t>(character - 'a' + 10);
    }
    return 0;
}

static uint8_t CharsToNumber(char ch1, char ch2)
{
    return static_cast<uint8_t>(nibble_of(ch1) * 16 + nibble_of(ch2));
}

// The character at `*position`, which then moves on; at the terminator it stays for good.
static char take_character(const char** position)
{
    const char character = **position;
    if (character != '\0') {
        ++*position;
    }
    return character;
}

// Fills exactly `key_len` bytes: a shorter text is padded with zeros, a longer one is cut.
static void fill_from_key_text(uint8_t* key, size_t key_len, const char* text)
{
    for (size_t i = 0; i < key_len; ++i) {
        const char high = take_character(&text);
        const char low = take_character(&text);
        key[i] = CharsToNumber(high, low);
    }
}

// Bytes that a key text stands for; an odd last character counts as one.
static size_t byte_count_of(const char* key_text)
{
    return (strlen(key_text) + 1) / 2;
}

uint32_t GetPublicKeyFromString(uint8_t* key, const char* string)
{
    fill_from_key_text(key, 64, string);
    return STORE_OK;
}

uint32_t GetPrivateKeyFromString(uint8_t* key, const char* string)
{
    fill_from_key_text(key, 32, string);
    return STORE_OK;
}

uint32_t _convert_hex_char_key_to_bytes(const char* keyContent, uint8_t* raw_key,
                                        uint32_t raw_key_buf_len)
{
    const size_t byte_count = byte_count_of(keyContent);
    if (byte_count > raw_key_buf_len) {
        return STORE_ERROR;
    }
    if (byte_count == 32) {
        return GetPrivateKeyFromString(raw_key, keyContent);
    }
    if (byte_count == 64) {
        return GetPublicKeyFromString(raw_key, keyContent);
    }
    // Other lengths are handed out unconverted, as the characters themselves: callers rely on it.
    memcpy(raw_key, keyContent, byte_count);
    return STORE_OK;
}

// ---------------------------------------------------------------------------------------------
// Handles
// ---------------------------------------------------------------------------------------------

// Copies a text with its terminator into a buffer of `size` bytes and zeros the rest; false, with
// nothing written, when it does not fit.
static bool copy_text(const char* text, char* buffer, size_t size)
{
    const size_t text_size = strlen(text) + 1;
    if (text_size > size) {
        return false;
    }
    memset(buffer, 0, size);
    memcpy(buffer, text, text_size);
    return true;
}

// The larger one of `*largest` and the handles in a file; a file that is missing or does not parse
// adds none. False without memory: what could not be read for want of it may hold a larger handle.
static bool add_handles_in_file(const char* file_name, uint32_t* largest)
{
    xmlDocPtr document = open_document(file_name);
    if (document == NULL) {
        close_document(document);
        return !libxml2_ran_out_of_memory();
    }
    *largest = larger_handle(*largest, largest_handle_below(xmlDocGetRootElement(document)));
    close_document_and_clean_up(document);
    return true;
}

// Makes the handle that follows the largest one in both files and the volatile tree.
static uint32_t get_new_key_handle(char* handle_out_buff, const uint32_t handle_out_buff_size)
{
    assert(handle_out_buff != NULL);

    uint32_t largest = 0;
    if (!add_handles_in_file(PUBLIC_KEY_FILE, &largest) ||
        !add_handles_in_file(PRIVATE_KEY_FILE, &largest)) {
        return STORE_ERROR;
    }
    largest = larger_handle(largest, largest_handle_below(getTmpTreeRootNode()));

    char handle[HANDLE_TEXT_SIZE] = {};
    format_handle_after(largest, handle);
    if (!copy_text(handle, handle_out_buff, handle_out_buff_size)) {
        puts("error: size of output buffer for handle is not large enough");
        return STORE_ERROR;
    }
    return STORE_OK;
}

// ---------------------------------------------------------------------------------------------
// Lookup by UID and key name
// ---------------------------------------------------------------------------------------------

// Copies a record's handle and, with a metadata buffer, its metadata; true when at least one of
// them was copied. The first metadata that fits ends the walk, so a handle behind it is not seen.
static bool copy_handle_and_metadata(const xmlNode* record, char* metadata, size_t metadata_size,
                                     char* handle, size_t handle_size)
{
    bool copied = false;
    for (const xmlNode* child = record->children; child != NULL; child = child->next) {
        if (is_named(child, XML_NodeName_Handle)) {
            if (copy_text(as_chars(text_of(child)), handle, handle_size)) {
                copied = true;
            } else {
                puts("[get_key_handle] error: Handle output buffer size is not large enough to "
                     "hold the handle string");
            }
        } else if (metadata != NULL && is_named(child, XML_NodeName_metadata)) {
            if (copy_text(as_chars(text_of(child)), metadata, metadata_size)) {
                return true;
            }
            puts("[get_key_handle] error: Metadata output buffer size is not large enough to "
                 "hold the metadata string");
        }
    }
    return copied;
}

uint32_t get_key_handle(const char* uid, const char* key_name, char* metadata_out_buff,
                        unsigned int metadata_out_buff_size, char* handle_out_buff,
                        unsigned int handle_out_buff_size)
{
    if (uid == NULL || handle_out_buff == NULL) {
        return STORE_ERROR;
    }

    // A find in the private file does not end the loop: the public file's values are the last word.
    uint32_t result = STORE_ERROR;
    for (const char* file_name : PRIVATE_THEN_PUBLIC) {
        xmlDocPtr document = open_document(file_name);
        if (document == NULL) {
            printf("[get_key_handle] error: could not parse file %s\n", file_name);
            close_document(document);
            continue;
        }
        const xmlNode* record = find_record(document, uid, key_name);
        if (record != NULL &&
            copy_handle_and_metadata(record, metadata_out_buff, metadata_out_buff_size,
                                     handle_out_buff, handle_out_buff_size)) {
            result = STORE_OK;
        }
        wipe_key_texts(record);
        close_document_and_clean_up(document);
    }

    if (result != STORE_OK) {
        puts("error: can't find key");
    }
    return result;
}

// Whether a record has a key text that is not empty.
static bool has_key_text(const xmlNode* record)
{
    const xmlChar* key_text = getRawKeyFromNode(record);
    return key_text != NULL && key_text[0] != '\0';
}

// The record with this UID and key name that has a key text; null when there is none.
static const xmlNode* find_record_with_key(xmlDocPtr document, const char* uid,
                                           const char* key_name)
{
    const xmlNode* record = find_record(document, uid, key_name);
    if (record != NULL && !has_key_text(record)) {
        printf("[get_key] Failed to extract raw key for uid/key-name %s/%s\n", uid, key_name);
        return NULL;
    }
    return record;
}

// Converts a key text that was found. A buffer that is too small is reported in the words of a key
// that was not found, and the caller learns the size to come back with.
static uint32_t hand_out_key(const char* key_text, uint8_t* key, uint32_t* key_buf_len_p)
{
    const uint32_t result = _convert_hex_char_key_to_bytes(key_text, key, *key_buf_len_p);
    *key_buf_len_p = static_cast<uint32_t>(byte_count_of(key_text));
    if (result != STORE_OK) {
        puts("[get_key] error: can't find key");
    }
    return result;
}

uint32_t get_key(const unsigned char* uid, const char* key_name, uint8_t* key,
                 uint32_t* key_buf_len_p)
{
    if (uid == NULL || key == NULL) {
        return STORE_ERROR;
    }

    const char* uid_text = reinterpret_cast<const char*>(uid);
    for (const char* file_name : PRIVATE_THEN_PUBLIC) {
        xmlDocPtr document = open_document_under_lock(file_name);
        if (document == NULL) {
            printf("[get_key] error: could not parse file %s\n", file_name);
        } else if (const xmlNode* record = find_record_with_key(document, uid_text, key_name)) {
            const char* key_text = as_chars(getRawKeyFromNode(record));
            const uint32_t result = hand_out_key(key_text, key, key_buf_len_p);
            wipe_key_texts(record);
            // A key that was found ends the operation without the parser's clean-up.
            close_document(document);
            return result;
        }
        close_document_and_clean_up(document);
    }

    puts("[get_key] error: can't find key");
    return STORE_ERROR;
}

// ---------------------------------------------------------------------------------------------
// Adding keys
// ---------------------------------------------------------------------------------------------

static const size_t HANDLE_SIZE = 128; // of the local buffers that take a new handle

// Appends a record to a root, reported under the operation's name if that fails.
static bool add_record(xmlNodePtr root, const RecordTexts& texts, const char* operation)
{
    const bool appended = append_record(root, texts);
    if (!appended) {
        printf("[%s] error: could not add a key record\n", operation);
    }
    return appended;
}

// Whether every text can be stored as it is; reported under the operation's name if not.
static bool can_be_stored(const RecordTexts& texts, const char* operation)
{
    const bool storable =
        xml_text_can_be_stored(texts.uid) && xml_text_can_be_stored(texts.key_name) &&
        xml_text_can_be_stored(texts.key) && xml_text_can_be_stored(texts.metadata);
    if (!storable) {
        printf("[%s] error: input parameter cannot be stored as XML text\n", operation);
    }
    return storable;
}

// What the adders of keys with UID and name require of their arguments. The messages carry the file
// writer's name in the volatile writer too.
static bool arguments_are_valid(const RecordTexts& texts)
{
    if (strlen(texts.uid) != 32 || strlen(texts.key) != 64) {
        puts("[add_nonvolatile_based_key] error: size of input parameter (e.g., uid or key) is not "
             "valid");
        return false;
    }
    return can_be_stored(texts, "add_nonvolatile_based_key");
}

static void report_existing_key(const char* uid, const char* key_name)
{
    printf("error: Cannot add key for uid 0x%s and key name %s! Key with same uid and key_name "
           "already exists\n",
           uid, key_name);
}

// Appends a record with a new handle, which is left in the caller's buffer.
static bool append_key(xmlNodePtr root, RecordTexts texts, char* handle, uint32_t handle_size)
{
    if (get_new_key_handle(handle, handle_size) != STORE_OK) {
        puts("[add_nonvolatile_based_key] error: could not get new key handle");
        return false;
    }
    texts.handle = handle;
    return add_record(root, texts, "add_nonvolatile_based_key");
}

// Replaces the key text and, if given, the metadata; the handle stays. Elements that are missing
// are appended. False without memory, with the record half changed.
static bool replace_key(xmlNodePtr record, const RecordTexts& texts)
{
    const bool metadata_is_given = texts.metadata != NULL && texts.metadata[0] != '\0';
    bool has_key = false;
    bool has_metadata = false;
    return replace_texts(record, XML_NodeName_KEY, texts.key, &has_key) &&
           (texts.metadata == NULL ||
            replace_texts(record, XML_NodeName_metadata, texts.metadata, &has_metadata)) &&
           (has_key || append_child(record, XML_NodeName_KEY, texts.key)) &&
           (has_metadata || !metadata_is_given ||
            append_child(record, XML_NodeName_metadata, texts.metadata));
}

static Change add_or_replace_key(xmlNodePtr root, const RecordTexts& texts, bool allow_replace,
                                 TakenUp* taken_up)
{
    xmlNodePtr record =
        find_node_from_input_root(root, as_xml(texts.uid), NULL, as_xml(texts.key_name), NULL);
    if (record == NULL) {
        char handle[HANDLE_SIZE];
        if (!append_key(root, texts, handle, sizeof handle)) {
            return REFUSED_BUT_SAVED;
        }
        taken_up->records[0] = root->last;
        return CHANGED;
    }
    taken_up->records[0] = record;
    if (!allow_replace) {
        report_existing_key(texts.uid, texts.key_name);
        return REFUSED_BUT_SAVED;
    }
    if (!replace_key(record, texts)) {
        const Change abandoned = abandon_change();
        puts("[add_nonvolatile_based_key] error: could not replace key");
        return abandoned;
    }
    // A replacement is saved and yet reported as a failure: callers rely on it.
    return REFUSED_BUT_SAVED;
}

uint32_t add_nonvolatile_based_key(const char* uid, const char* key_name, const char* key,
                                   const char* metadata, const bool is_private_key,
                                   const bool allow_replace)
{
    if (uid == NULL || key_name == NULL || key == NULL) {
        return STORE_ERROR;
    }
    const RecordTexts texts = {uid, key_name, NULL, key, metadata};
    if (!arguments_are_valid(texts)) {
        return STORE_ERROR;
    }

    const char* file_name = is_private_key ? PRIVATE_KEY_FILE : PUBLIC_KEY_FILE;
    xmlDocPtr document = open_document_for_change(file_name);
    xmlNodePtr root = xmlDocGetRootElement(document);
    if (root == NULL) {
        end_change();
        printf(document == NULL
                   ? "[add_nonvolatile_based_key] error: could not parse file %s\n"
                   : "[add_nonvolatile_based_key] error: could retrieve root element after parsing "
                     "file %s\n",
               file_name);
        close_document(document);
        return STORE_ERROR;
    }
    TakenUp taken_up = {};
    const Change change = add_or_replace_key(root, texts, allow_replace, &taken_up);
    const uint32_t result = finish_change(change, document, file_name, "add_nonvolatile_based_key");
    wipe_taken_up(taken_up);
    close_document_and_clean_up(document);
    sleep(5); // part of the required timing
    return result;
}

uint32_t add_crk(const char* uid, const char* key_hex, const char* metadata)
{
    if (uid == NULL) {
        return STORE_ERROR;
    }
    return add_nonvolatile_based_key(uid, CRK_NAME, key_hex, metadata, true, false);
}

uint32_t add_csk(const char* uid, const char* key_hex, const char* metadata)
{
    if (uid == NULL) {
        return STORE_ERROR;
    }
    return add_nonvolatile_based_key(uid, CSK_NAME, key_hex, metadata, true, false);
}

// The steps of add_volatile_key inside libxml2.
static uint32_t add_anonymous_key(const char* key_hex, char* handle, uint32_t handle_size)
{
    xmlNodePtr root = getTmpTreeRootNode();
    if (root == NULL) {
        puts("[add_volatile_key] Failed to retrieve Temporary Key Tree root node!");
        return STORE_ERROR;
    }
    if (get_new_key_handle(handle, handle_size) != STORE_OK) {
        puts("[add_volatile_key] error: could not get new key handle");
        return STORE_ERROR;
    }
    const RecordTexts texts = {NULL, NULL, handle, key_hex, NULL};
    return add_record(root, texts, "add_volatile_key") ? STORE_OK : STORE_ERROR;
}

uint32_t add_volatile_key(const char* key_hex, char* handle_out_buff,
                          unsigned int handle_out_buff_size)
{
    assert(key_hex != NULL && handle_out_buff != NULL);

    if (!can_be_stored({NULL, NULL, NULL, key_hex, NULL}, "add_volatile_key")) {
        return STORE_ERROR;
    }
    libxml2_enter();
    const uint32_t result = add_anonymous_key(key_hex, handle_out_buff, handle_out_buff_size);
    libxml2_leave(false);
    return result;
}

static bool volatile_tree_holds(const char* uid, const char* key_name)
{
    return find_node_from_input_root(getTmpTreeRootNode(), as_xml(uid), NULL, as_xml(key_name),
                                     NULL) != NULL;
}

// The steps of add_volatile_based_key inside libxml2.
static uint32_t add_named_volatile_key(const RecordTexts& texts, char* handle, uint32_t handle_size)
{
    if (volatile_tree_holds(texts.uid, texts.key_name)) {
        // The deletion refuses volatile keys, so a key in place is never replaced.
        delete_key_by_key_type(texts.uid, texts.key_name);
        if (volatile_tree_holds(texts.uid, texts.key_name)) {
            report_existing_key(texts.uid, texts.key_name);
            return STORE_ERROR;
        }
    }
    return append_key(getTmpTreeRootNode(), texts, handle, handle_size) ? STORE_OK : STORE_ERROR;
}

uint32_t add_volatile_based_key(const char* uid, const char* key_name, const char* key,
                                const char* metadata, char* handle_out_buff,
                                unsigned int handle_out_buff_size)
{
    if (uid == NULL || key_name == NULL || key == NULL || handle_out_buff == NULL) {
        return STORE_ERROR;
    }
    const RecordTexts texts = {uid, key_name, NULL, key, metadata};
    if (!arguments_are_valid(texts)) {
        return STORE_ERROR;
    }
    if (getTmpTreeRootNode() == NULL) {
        puts("[add_nonvolatile_based_key] error: could retrieve root element");
        return STORE_ERROR;
    }
    libxml2_enter();
    const uint32_t result = add_named_volatile_key(texts, handle_out_buff, handle_out_buff_size);
    libxml2_leave(true);
    return result;
}

// ---------------------------------------------------------------------------------------------
// Removing keys
// ---------------------------------------------------------------------------------------------

static bool delete_volatile_record(const char* handle)
{
    xmlNodePtr record =
        find_node_from_input_root(getTmpTreeRootNode(), NULL, as_xml(handle), NULL, NULL);
    if (record == NULL) {
        return false;
    }
    libxml2_enter();
    remove_record(record);
    libxml2_leave(false);
    return true;
}

uint32_t delete_key_by_handle(const char* handle)
{
    assert(handle != NULL);

    if (delete_volatile_record(handle)) {
        return STORE_OK;
    }
    for (const char* file_name : PUBLIC_THEN_PRIVATE) {
        xmlDocPtr document = open_document_for_change(file_name);
        if (document == NULL) {
            printf("error: could not parse file %s\n", file_name);
            // The mutex stays locked, unlike in delete_key_by_key_type: whoever takes it next in
            // this process blocks, this loop's second file included. Known, and to stay so.
            store_lock_give_back();
            close_document(document);
            continue;
        }
        xmlNodePtr root = xmlDocGetRootElement(document);
        if (root == NULL) {
            printf("warn: missing data in key file %s\n", file_name);
        }
        xmlNodePtr record = find_node_from_input_root(root, NULL, as_xml(handle), NULL, NULL);
        if (record != NULL) {
            remove_record(record);
            const uint32_t result =
                finish_change(CHANGED, document, file_name, "delete_key_by_handle");
            close_document(document); // without the parser's clean-up, on this path
            return result;
        }
        end_change();
        close_document_and_clean_up(document);
    }
    printf("error: can't find key with handle %s\n", handle);
    return STORE_ERROR;
}

uint32_t delete_key_by_key_type(const char* uid, const char* key_name)
{
    assert(uid != NULL && key_name != NULL);

    // A volatile key is not deleted by UID and name, and its presence protects the files' keys of
    // the same name: add_volatile_based_key relies on the refusal.
    if (volatile_tree_holds(uid, key_name)) {
        return STORE_ERROR;
    }
    for (const char* file_name : PRIVATE_THEN_PUBLIC) {
        xmlDocPtr document = open_document_for_change(file_name);
        if (document == NULL) {
            printf("[delete_key_by_key_type] error: could not parse file %s\n", file_name);
            end_change();
            close_document(document);
            continue;
        }
        if (xmlDocGetRootElement(document) == NULL) {
            printf("[delete_key_by_key_type] warn: missing data in key file %s\n", file_name);
        }
        xmlNodePtr record = find_record(document, uid, key_name);
        if (record != NULL) {
            remove_record(record);
            const uint32_t result =
                finish_change(CHANGED, document, file_name, "delete_key_by_key_type");
            close_document_and_clean_up(document);
            return result;
        }
        end_change();
        close_document_and_clean_up(document);
    }
    return STORE_ERROR;
}

uint32_t delete_crk(const char* uid)
{
    if (uid == NULL) {
        return STORE_ERROR;
    }
    return delete_key_by_key_type(uid, CRK_NAME);
}

// ---------------------------------------------------------------------------------------------
// Copying keys
// ---------------------------------------------------------------------------------------------

static Change copy_record(xmlDocPtr document, const char* uid, const char* key_name,
                          const char* copy_name, TakenUp* taken_up)
{
    if (xmlDocGetRootElement(document) == NULL) {
        const Change abandoned = abandon_change();
        printf("[copy_prv_key] error: could retrieve root element after parsing file %s\n",
               PRIVATE_KEY_FILE);
        return abandoned;
    }
    if (const xmlNode* existing = find_record(document, uid, copy_name)) {
        taken_up->records[0] = existing;
        const Change abandoned = abandon_change();
        printf("[copy_prv_key] error: Cannot add key for uid 0x%s and key name %s! Key with same "
               "uid and key_name already exists\n",
               uid, copy_name);
        return abandoned;
    }
    xmlNodePtr source = find_record(document, uid, key_name);
    if (source == NULL) {
        printf("[copy_prv_key] error: no key with found with  uid=%s; key name=%s\n", uid,
               key_name);
        return REFUSED_BUT_SAVED;
    }
    taken_up->records[0] = source;
    if (!has_key_text(source)) {
        const Change abandoned = abandon_change();
        printf("[copy_prv_key] error: Failed to extract key data from key with uid=%s; key "
               "name=%s\n",
               uid, key_name);
        return abandoned;
    }
    char handle[HANDLE_SIZE];
    if (get_new_key_handle(handle, sizeof handle) != STORE_OK) {
        puts("[copy_prv_key] error: could not get new key handle");
        return REFUSED_BUT_SAVED;
    }
    const char* key = as_chars(getRawKeyFromNode(source));
    const RecordTexts copy = {uid, copy_name, handle, key, NULL};
    xmlNodePtr root = xmlDocGetRootElement(document);
    if (!add_record(root, copy, "copy_prv_key")) {
        return abandon_change();
    }
    taken_up->records[1] = root->last;
    return CHANGED;
}

uint32_t copy_private_key(const char* uid, const char* key_name, const char* copy_name)
{
    if (uid == NULL || key_name == NULL || copy_name == NULL) {
        return STORE_ERROR;
    }
    if (uid[0] == '\0') {
        puts("[copy_prv_key] error: length of input parameter uid is not valid");
        return STORE_ERROR;
    }
    if (!can_be_stored({uid, copy_name, NULL, NULL, NULL}, "copy_prv_key")) {
        return STORE_ERROR;
    }

    xmlDocPtr document = open_document_for_change(PRIVATE_KEY_FILE);
    if (document == NULL) {
        end_change();
        printf("[copy_prv_key] error: could not parse file %s\n", PRIVATE_KEY_FILE);
        close_document(document);
        return STORE_ERROR;
    }
    TakenUp taken_up = {};
    const Change change = copy_record(document, uid, key_name, copy_name, &taken_up);
    const uint32_t result = finish_change(change, document, PRIVATE_KEY_FILE, "copy_prv_key");
    wipe_taken_up(taken_up);
    close_document_and_clean_up(document);
    return result;
}

// The first element of this name among a record's children.
static xmlNodePtr find_element(xmlNodePtr record, const xmlChar* name)
{
    xmlNodePtr child = record->children;
    while (child != NULL && (child->type != XML_ELEMENT_NODE || !is_named(child, name))) {
        child = child->next;
    }
    return child;
}

// Overwrites the key text of the UID's "srk" by that of the record with the handle, which must be
// in the same document.
static Change overwrite_srk(xmlDocPtr document, const char* uid, const char* handle,
                            TakenUp* taken_up)
{
    xmlNodePtr srk = find_record(document, uid, SRK_NAME);
    if (srk == NULL) {
        const Change abandoned = abandon_change();
        printf("[key_driver.set_new_srk_key_data_for_uid] error: Failed to find key type 'srk' for "
               "UID %s\n",
               uid);
        return abandoned;
    }
    taken_up->records[0] = srk;
    xmlNodePtr source =
        find_node_from_input_root(xmlDocGetRootElement(document), NULL, as_xml(handle), NULL, NULL);
    if (source == NULL) {
        const Change abandoned = abandon_change();
        printf("[key_driver.set_new_srk_key_data_for_uid] error: Failed to find key with handle "
               "%s\n",
               handle);
        return abandoned;
    }
    taken_up->records[1] = source;
    xmlNodePtr srk_key = find_element(srk, XML_NodeName_KEY);
    if (srk_key == NULL) {
        const Change abandoned = abandon_change();
        printf("[key_driver.set_new_srk_key_data_for_uid] error: Missing key data for handle %s\n",
               handle); // the field is missing in the "srk" record; the text is what it is
        return abandoned;
    }
    const xmlChar* key = getRawKeyFromNode(source);
    if (key == NULL) {
        const Change abandoned = abandon_change();
        printf("[key_driver.set_new_srk_key_data_for_uid] error: Missing key data field for srk "
               "with UID %s\n",
               uid);
        return abandoned;
    }
    if (!set_text(srk_key, as_chars(key))) {
        const Change abandoned = abandon_change();
        puts("[key_driver.set_new_srk_key_data_for_uid] error: could not replace key");
        return abandoned;
    }
    return CHANGED;
}

uint32_t set_new_srk_key_data_for_uid(const char* uid, const char* handle)
{
    xmlDocPtr document = open_document_for_change(PRIVATE_KEY_FILE);
    if (document == NULL) {
        end_change();
        printf("[key_driver.set_new_srk_key_data_for_uid] error: could not parse file %s\n",
               PRIVATE_KEY_FILE);
        close_document(document);
        return STORE_ERROR;
    }
    TakenUp taken_up = {};
    const Change change = overwrite_srk(document, uid, handle, &taken_up);
    const uint32_t result = finish_change(change, document, PRIVATE_KEY_FILE,
                                          "key_driver.set_new_srk_key_data_for_uid");
    wipe_taken_up(taken_up);
    if (change.save) {
        close_document_and_clean_up(document);
    } else {
        close_document(document);
    }
    return result;
}

// ---------------------------------------------------------------------------------------------
// Exporting keys
// ---------------------------------------------------------------------------------------------

// The record whose key text is to be handed out; reported under the public function's name if there
// is none.
static const xmlNode* find_record_to_export(xmlDocPtr document, const char* calling_function,
                                            const char* uid, const char* key_name)
{
    // Two messages print the null result of the step that failed, as the C library prints a null
    // string, and not the name of the file.
    static const char* const NULL_RESULT = "(null)";
    if (uid[0] == '\0') {
        printf("[%s] error: length of input parameter uid is not valid\n", calling_function);
        return NULL;
    }
    if (document == NULL) {
        printf("[%s] error: could not parse file %s\n", calling_function, NULL_RESULT);
        return NULL;
    }
    if (xmlDocGetRootElement(document) == NULL) {
        printf("[%s] error: could retrieve root element after parsing file %s\n", calling_function,
               NULL_RESULT);
        return NULL;
    }
    const xmlNode* record = find_record(document, uid, key_name);
    if (record == NULL) {
        printf("[%s] error: no key with found with  uid=%s; key name=%s\n", calling_function, uid,
               key_name);
        return NULL;
    }
    if (!has_key_text(record)) {
        printf("[%s] error: Failed to extract key data from key with uid=%s; key name=%s\n",
               calling_function, uid, key_name);
        return NULL;
    }
    return record;
}

static bool copy_key_text(const char* key, char* hex_key, uint32_t* key_len)
{
    const size_t length = strlen(key);
    if (length >= *key_len) {
        return false;
    }
    memcpy(hex_key, key, length + 1);
    *key_len = static_cast<uint32_t>(length);
    return true;
}

static uint32_t _get_key_as_hex(const char* calling_function, const char* key_store_filename,
                                const char* uid, const char* key_name, char* hex_key,
                                uint32_t* key_len)
{
    if (key_name == NULL || uid == NULL || hex_key == NULL || key_len == NULL) {
        printf("[%s] error: bad argument!\n", calling_function);
        return STORE_ERROR;
    }

    xmlDocPtr document = open_document_under_lock(key_store_filename);
    const xmlNode* record = find_record_to_export(document, calling_function, uid, key_name);
    if (record == NULL) {
        close_document(document);
        return STORE_ERROR;
    }
    const bool copied = copy_key_text(as_chars(getRawKeyFromNode(record)), hex_key, key_len);
    wipe_key_texts(record);
    if (!copied) {
        printf("[%s] error: output buffer not large enough to hold key! uid=%s; key name=%s\n",
               calling_function, uid, key_name);
        close_document(document);
        return STORE_ERROR;
    }
    close_document_and_clean_up(document);
    return STORE_OK;
}

uint32_t export_prv_key_in_clear_as_hex(const char* uid, const char* key_name, char* hex_key,
                                        uint32_t* key_len)
{
    return _get_key_as_hex("export_prv_key_in_clear_as_hex", PRIVATE_KEY_FILE, uid, key_name,
                           hex_key, key_len);
}

uint32_t read_public_key_as_hex(const char* uid, const char* key_name, char* hex_key,
                                uint32_t* key_len)
{
    return _get_key_as_hex("read_public_key_as_hex", PUBLIC_KEY_FILE, uid, key_name, hex_key,
                           key_len);
}

// ---------------------------------------------------------------------------------------------
// Presence in the private file
// ---------------------------------------------------------------------------------------------

bool _prv_keyfile_contains_key(const char* uid, const char* key_name)
{
    assert(uid != NULL && key_name != NULL);

    xmlDocPtr document = open_document_under_lock(PRIVATE_KEY_FILE);
    if (document == NULL) {
        printf("[key_driver._prv_keyfile_contains_key(uid, key)] error: could not parse file %s\n",
               PRIVATE_KEY_FILE);
    }
    const xmlNode* record = find_record(document, uid, key_name);
    wipe_key_texts(record);
    close_document(document);
    return record != NULL;
}

// The three tests below share the tag "contains_csk" in their messages, which end without a line
// end.

bool contains_crk(const char* uid)
{
    if (uid == NULL) {
        fputs("[key_driver.contains_csk] ERROR input uid is NULL", stdout);
        return false;
    }
    return _prv_keyfile_contains_key(uid, CRK_NAME);
}

bool contains_csk(const char* uid)
{
    if (uid == NULL) {
        fputs("[key_driver.contains_csk] ERROR input uid is NULL", stdout);
        return false;
    }
    return _prv_keyfile_contains_key(uid, CSK_NAME);
}

bool contains_key(const char* uid, const char* keyname)
{
    if (uid == NULL || keyname == NULL) {
        fputs("[key_driver.contains_csk] ERROR input uid or keyname is NULL", stdout);
        return false;
    }
    return _prv_keyfile_contains_key(uid, keyname);
}
