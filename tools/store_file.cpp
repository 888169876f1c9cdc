#include "store_file.h"

#include "key_names.h"
#include "p256_key_file.h"
#include "user_file.h"

#include "key_driver/durable_save.h"
#include "key_driver/key_record.h"
#include "key_driver/key_store_format.h"
#include "key_driver/libxml2_guard.h"
#include "key_driver/store_lock.h"
#include "key_driver/xml_text.h"

#include <libxml/parser.h>
#include <libxml/xmlerror.h>

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <string.h>
#include <unistd.h>

const char* kind_name(FileKind kind)
{
    return kind == PRIVATE_FILE ? "private" : "public";
}

const char* file_name(FileKind kind)
{
    return PRIVATE_THEN_PUBLIC[kind];
}

// ---------------------------------------------------------------------------------------------
// Reading
// ---------------------------------------------------------------------------------------------

static Failure cannot_read(const std::string& name)
{
    return {INPUT_OUTPUT, name, 0, std::string("cannot be read: ") + strerror(errno),
            "see to its permissions"};
}

bool read_descriptor(int fd, std::string* content)
{
    static const size_t PIECE = 1 << 16;
    for (;;) {
        const size_t done = content->size();
        content->resize(done + PIECE);
        const ssize_t count = read(fd, &(*content)[done], PIECE);
        content->resize(done + static_cast<size_t>(count > 0 ? count : 0));
        if (count == 0) {
            return true;
        }
        if (count < 0 && errno != EINTR) {
            return false;
        }
    }
}

bool write_descriptor(int fd, const std::string& content)
{
    for (size_t done = 0; done < content.size();) {
        const ssize_t count = write(fd, content.data() + done, content.size() - done);
        if (count > 0) {
            done += static_cast<size_t>(count);
        } else if (errno != EINTR) {
            return false;
        }
    }
    return fsync(fd) == 0;
}

// libxml2's own words stay unsaid: they can quote a piece of the file, and so of a key.
std::optional<Failure> read_document(const std::string& name, const std::string& content,
                                     xmlDocPtr* document)
{
    if (content.size() > INT_MAX) {
        return Failure{REFUSED, name, 0, "is too large to be read", "split the store"};
    }
    xmlResetLastError();
    *document =
        xmlReadMemory(content.data(), static_cast<int>(content.size()), name.c_str(), NULL, 0);
    if (libxml2_ran_out_of_memory()) {
        xmlFreeDoc(*document);
        *document = NULL;
        return Failure{FAILED, name, 0, "there is not enough memory for it", "free some memory"};
    }
    if (*document == NULL) {
        const auto* error = xmlGetLastError();
        return Failure{STORE_DAMAGED, name, error != NULL ? error->line : 0, "is not well-formed",
                       "mend it by hand, or bring a backup back with restore"};
    }
    return std::nullopt;
}

static std::optional<Failure> read_file(FileKind kind, StoreFile* file)
{
    const char* name = file_name(kind);
    const int fd = open(name, O_RDONLY | O_CLOEXEC);
    if (fd < 0 && errno == ENOENT) {
        return std::nullopt;
    }
    if (fd < 0) {
        return cannot_read(name);
    }
    file->is_present = true;
    const bool was_read = read_descriptor(fd, &file->content);
    const int error = errno;
    close(fd);
    errno = error;
    return was_read ? read_document(name, file->content, &file->document) : cannot_read(name);
}

static std::optional<Failure> read_store(Store* store)
{
    for (FileKind kind : FILE_KINDS) {
        StoreFile& file = store->files[kind];
        if (std::optional<Failure> failure = read_file(kind, &file)) {
            return failure;
        }
        if (file.is_present) {
            store->largest_handle = larger_handle(
                store->largest_handle, largest_handle_below(xmlDocGetRootElement(file.document)));
        }
    }
    if (!store->files[PRIVATE_FILE].is_present && !store->files[PUBLIC_FILE].is_present) {
        return Failure{INPUT_OUTPUT, file_name(PRIVATE_FILE), 0, "there is no key store here",
                       "make one with init, or name its directory with --dir"};
    }
    return std::nullopt;
}

// ---------------------------------------------------------------------------------------------
// Saving
// ---------------------------------------------------------------------------------------------

static Failure cannot_save(const std::string& name)
{
    return {INPUT_OUTPUT, name, 0, "could not be saved, and nothing was changed",
            "see to its permissions and to the space on the disk"};
}

// Brings back what was in a file.
static bool undo_save(FileKind kind, const StoreFile& file)
{
    xmlDocPtr before = NULL;
    const bool undone = !read_document(file_name(kind), file.content, &before) &&
                        durable_save(file_name(kind), before);
    xmlFreeDoc(before);
    return undone;
}

static std::optional<Failure> save_store(const Store& store)
{
    const StoreFile& private_file = store.files[PRIVATE_FILE];
    const StoreFile& public_file = store.files[PUBLIC_FILE];
    if (private_file.is_changed && !durable_save(file_name(PRIVATE_FILE), private_file.document)) {
        return cannot_save(file_name(PRIVATE_FILE));
    }
    if (!public_file.is_changed || durable_save(file_name(PUBLIC_FILE), public_file.document)) {
        return std::nullopt;
    }
    if (private_file.is_changed && !undo_save(PRIVATE_FILE, private_file)) {
        return Failure{INPUT_OUTPUT, file_name(PUBLIC_FILE), 0,
                       "could not be saved, and the change of the private file could not be undone",
                       "see to the disk, then delete what the private file has too much"};
    }
    return cannot_save(file_name(PUBLIC_FILE));
}

static std::optional<Failure> work_on(Store* store, Access access,
                                      const std::function<std::optional<Failure>(Store*)>& work)
{
    if (std::optional<Failure> failure = read_store(store)) {
        return failure;
    }
    if (std::optional<Failure> failure = work(store)) {
        return failure;
    }
    return access == TO_CHANGE ? save_store(*store) : std::nullopt;
}

std::optional<Failure> with_store(Access access,
                                  const std::function<std::optional<Failure>(Store*)>& work)
{
    Store store = {};
    if (access == TO_CHANGE) {
        store_lock_take();
    }
    libxml2_enter();
    std::optional<Failure> failure = work_on(&store, access, work);
    for (const StoreFile& file : store.files) {
        xmlFreeDoc(file.document);
    }
    libxml2_leave(true);
    if (access == TO_CHANGE) {
        store_lock_give_back();
    }
    return failure;
}

// ---------------------------------------------------------------------------------------------
// Records
// ---------------------------------------------------------------------------------------------

static const xmlNode* sibling_named(const xmlNode* node, const xmlChar* name)
{
    while (node != NULL && !is_named(node, name)) {
        node = node->next;
    }
    return node;
}

static const char* text_or_empty(const xmlNode* element)
{
    return element != NULL ? as_chars(text_of(element)) : "";
}

static const char* text_in(const xmlNode* record, const xmlChar* name)
{
    return text_or_empty(sibling_named(record->children, name));
}

// The key is the first "key" element's that holds anything.
static const char* key_text_in(const xmlNode* record)
{
    const xmlNode* element = sibling_named(record->children, XML_NodeName_KEY);
    while (element != NULL && first_child_of(element) == NULL) {
        element = sibling_named(element->next, XML_NodeName_KEY);
    }
    return text_or_empty(element);
}

static Record record_at(FileKind file, xmlNodePtr node)
{
    return {file,
            node,
            static_cast<int>(xmlGetLineNo(node)),
            text_in(node, XML_NodeName_UID),
            text_in(node, XML_NodeName_key_Name),
            text_in(node, XML_NodeName_Handle),
            key_text_in(node),
            text_in(node, XML_NodeName_metadata)};
}

size_t key_length_of(const Record& record)
{
    return (strlen(record.key) + 1) / 2;
}

// At any depth, but not inside another record.
static void visit_records(xmlNodePtr first, const std::function<void(xmlNodePtr)>& visit)
{
    for (xmlNodePtr node = first; node != NULL; node = node->next) {
        if (is_key_record(node)) {
            visit(node);
        } else {
            visit_records(first_child_of(node), visit);
        }
    }
}

static void visit_file(const Store& store, FileKind kind,
                       const std::function<void(xmlNodePtr)>& visit)
{
    const StoreFile& file = store.files[kind];
    if (file.is_present) {
        visit_records(xmlDocGetRootElement(file.document), visit);
    }
}

std::vector<Record> records_of(const Store& store)
{
    std::vector<Record> records;
    for (FileKind kind : FILE_KINDS) {
        visit_file(store, kind, [&](xmlNodePtr node) { records.push_back(record_at(kind, node)); });
    }
    return records;
}

// ---------------------------------------------------------------------------------------------
// Search
// ---------------------------------------------------------------------------------------------

// Calls for each pair of UID and key name by which the library finds a record: each key name that
// stands behind a UID.
static void visit_names(const xmlNode* record,
                        const std::function<void(const char* uid, const char* key_name)>& visit)
{
    for (const xmlNode* uid = sibling_named(record->children, XML_NodeName_UID); uid != NULL;
         uid = sibling_named(uid->next, XML_NodeName_UID)) {
        for (const xmlNode* name = sibling_named(uid->next, XML_NodeName_key_Name); name != NULL;
             name = sibling_named(name->next, XML_NodeName_key_Name)) {
            visit(text_or_empty(uid), text_or_empty(name));
        }
    }
}

static bool has_handle(const xmlNode* record, const std::string& handle)
{
    const xmlNode* element = sibling_named(record->children, XML_NodeName_Handle);
    while (element != NULL && handle != text_or_empty(element)) {
        element = sibling_named(element->next, XML_NodeName_Handle);
    }
    return element != NULL;
}

static bool is_selected(const xmlNode* record, const Selection& selection)
{
    if (!selection.handle.empty()) {
        return has_handle(record, selection.handle);
    }
    bool found = false;
    visit_names(record, [&](const char* uid, const char* key_name) {
        found = found || (selection.uid == uid && selection.key_name == key_name);
    });
    return found;
}

static std::string words_for(const Selection& selection)
{
    return selection.handle.empty() ? "key " + selection.key_name + " of UID " + selection.uid
                                    : "key with handle " + selection.handle;
}

std::optional<Failure> select_record(const Store& store, const Selection& selection, Record* record)
{
    xmlNodePtr found[2] = {};
    for (FileKind kind : FILE_KINDS) {
        visit_file(store, kind, [&](xmlNodePtr node) {
            if (found[kind] == NULL && selection.file.value_or(kind) == kind &&
                is_selected(node, selection)) {
                found[kind] = node;
            }
        });
    }
    if (found[PRIVATE_FILE] != NULL && found[PUBLIC_FILE] != NULL) {
        return Failure{REFUSED, "", 0, "both files have a " + words_for(selection),
                       "say which with --file private or --file public"};
    }
    for (FileKind kind : FILE_KINDS) {
        if (found[kind] != NULL) {
            *record = record_at(kind, found[kind]);
            return std::nullopt;
        }
    }
    return Failure{REFUSED, selection.file ? file_name(*selection.file) : "", 0,
                   "there is no " + words_for(selection), "see what there is with list"};
}

static std::string index_name(const std::string& uid, const std::string& key_name)
{
    return uid + '\0' + key_name; // no stored text has a NUL
}

static xmlNodePtr find_in_index(Store* store, FileKind kind, const std::string& uid,
                                const std::string& key_name)
{
    if (!store->is_indexed) {
        for (FileKind each : FILE_KINDS) {
            visit_file(*store, each, [&](xmlNodePtr node) {
                visit_names(node, [&](const char* its_uid, const char* its_name) {
                    store->files[each].index.emplace(index_name(its_uid, its_name), node);
                });
            });
        }
        store->is_indexed = true;
    }
    const auto& index = store->files[kind].index;
    const auto place = index.find(index_name(uid, key_name));
    return place != index.end() ? place->second : NULL;
}

// ---------------------------------------------------------------------------------------------
// Changes
// ---------------------------------------------------------------------------------------------

static Failure no_memory()
{
    return {FAILED, "", 0, "there is not enough memory; nothing was changed", "free some memory"};
}

static const size_t UID_LENGTH = 32; // the library's adders take no other

static Failure refused(const std::string& cause, const std::string& remedy)
{
    return {REFUSED, "", 0, cause, remedy};
}

static std::optional<Failure> check_texts(const NewKey& key)
{
    if (key.uid.size() != UID_LENGTH) {
        return refused("UID " + key.uid + " has " + std::to_string(key.uid.size()) +
                           " characters instead of 32",
                       "give the whole UID");
    }
    if (key.key_name.empty()) {
        return refused("the key name is empty", "give the key a name");
    }
    if (!xml_text_can_be_stored(key.uid.c_str()) || !xml_text_can_be_stored(key.key_name.c_str()) ||
        !xml_text_can_be_stored(key.key.c_str()) ||
        !xml_text_can_be_stored(key.metadata.value_or("").c_str())) {
        return refused("a text cannot be stored in XML",
                       "leave out control characters and what is not UTF-8, and keep below "
                       "10,000,000 bytes");
    }
    return std::nullopt;
}

// Whether a key of the right length is one of P-256, where the driver takes it for one.
static std::optional<Failure> check_p256_key(const NewKey& key, KeyKind kind)
{
    uint8_t bytes[64] = {};
    bytes_of_hexadecimal(key.key, bytes);
    std::optional<Failure> failure;
    if (kind == P256_PRIVATE_KEY && !p256_scalar_is_in_range(bytes)) {
        failure = refused("the key is no private key of P-256: it is 0, or not below the order",
                          "give another key");
    } else if (kind == P256_PUBLIC_KEY && !p256_point_is_on_curve(bytes, bytes + 32)) {
        failure = refused("the key is no public key of P-256: the point is not on the curve",
                          "give X and Y, 32 bytes each, big-endian");
    }
    explicit_bzero(bytes, sizeof bytes);
    return failure;
}

std::optional<Failure> check_new_key(const NewKey& key)
{
    if (std::optional<Failure> failure = check_texts(key)) {
        return failure;
    }
    if (key.key.empty()) {
        return refused("the key is empty", "give a key of at least one byte");
    }
    if (!is_hexadecimal(key.key) || key.key.size() % 2 != 0) {
        return refused("the key is not two hexadecimal digits for each byte", "give another key");
    }
    const std::optional<KeyUse> use = driver_use_of(key.key_name);
    const size_t length = key.key.size() / 2;
    if (use && length != use->length) {
        return refused("a key named " + key.key_name + " has " + std::to_string(use->length) +
                           " bytes, this one has " + std::to_string(length),
                       "give a key of that length, or another name");
    }
    return use ? check_p256_key(key, use->kind) : std::nullopt;
}

static bool replace_key(xmlNodePtr record, const NewKey& key)
{
    bool has_key = false;
    bool has_metadata = false;
    const char* metadata = key.metadata ? key.metadata->c_str() : NULL;
    return replace_texts(record, XML_NodeName_KEY, key.key.c_str(), &has_key) &&
           (metadata == NULL ||
            replace_texts(record, XML_NodeName_metadata, metadata, &has_metadata)) &&
           (has_key || append_child(record, XML_NodeName_KEY, key.key.c_str())) &&
           (has_metadata || metadata == NULL || metadata[0] == '\0' ||
            append_child(record, XML_NodeName_metadata, metadata));
}

// Each record ends a line, so that a line number tells something.
static void end_line(xmlNodePtr root)
{
    xmlNodePtr line_end = xmlNewDocText(root->doc, as_xml("\n"));
    if (line_end != NULL) {
        xmlAddChild(root, line_end);
    }
}

static std::optional<Failure> append_key(Store* store, const NewKey& key, xmlNodePtr* node)
{
    if (store->largest_handle == UINT32_MAX) {
        return refused("there is no handle behind the largest one, which is negative",
                       "give the records that check names handles from 1 on");
    }
    char handle[HANDLE_TEXT_SIZE] = {};
    format_handle_after(store->largest_handle, handle);
    const RecordTexts texts = {key.uid.c_str(), key.key_name.c_str(), handle, key.key.c_str(),
                               key.metadata ? key.metadata->c_str() : NULL};
    xmlNodePtr root = xmlDocGetRootElement(store->files[key.file].document);
    if (is_key_record(root)) {
        return Failure{STORE_DAMAGED, file_name(key.file), 0,
                       "has a record for its root, and the library looks for no others in it",
                       "put an element around the record"};
    }
    if (!append_record(root, texts)) {
        return no_memory();
    }
    *node = root->last;
    end_line(root);
    ++store->largest_handle;
    return std::nullopt;
}

static FileKind other_file(FileKind kind)
{
    return kind == PRIVATE_FILE ? PUBLIC_FILE : PRIVATE_FILE;
}

// A name that is in both files is found in the private one by some of the library's functions, and
// in the public one by others.
static std::optional<Failure> check_place(Store* store, const NewKey& key, Existing existing,
                                          xmlNodePtr present)
{
    const std::string words = "a key " + key.key_name + " of UID " + key.uid;
    if (!store->files[key.file].is_present) {
        return Failure{INPUT_OUTPUT, file_name(key.file), 0, "is missing",
                       "make it with init --missing"};
    }
    if (present != NULL && existing == KEEP_EXISTING) {
        return Failure{REFUSED, file_name(key.file), static_cast<int>(xmlGetLineNo(present)),
                       "has " + words + " already", "take another name, or say --replace"};
    }
    const FileKind other = other_file(key.file);
    if (find_in_index(store, other, key.uid, key.key_name) != NULL) {
        return Failure{REFUSED, file_name(other), 0, "has " + words + " already",
                       "delete that one first"};
    }
    return std::nullopt;
}

std::optional<Failure> put_key(Store* store, const NewKey& key, Existing existing, bool* replaced,
                               Record* record)
{
    xmlNodePtr node = find_in_index(store, key.file, key.uid, key.key_name);
    if (std::optional<Failure> failure = check_place(store, key, existing, node)) {
        return failure;
    }
    StoreFile& file = store->files[key.file];
    *replaced = node != NULL;
    if (*replaced && !replace_key(node, key)) {
        return no_memory();
    }
    if (!*replaced) {
        if (std::optional<Failure> failure = append_key(store, key, &node)) {
            return failure;
        }
        file.index.emplace(index_name(key.uid, key.key_name), node);
    }
    file.is_changed = true;
    *record = record_at(key.file, node);
    return std::nullopt;
}

std::optional<Failure> rename_record(Store* store, const std::string& name, Record* record)
{
    for (FileKind kind : FILE_KINDS) {
        if (find_in_index(store, kind, record->uid, name) != NULL) {
            return Failure{REFUSED, file_name(kind), 0,
                           "has a key " + name + " of UID " + record->uid + " already",
                           "take another name, or delete that one first"};
        }
    }
    bool had_name = false;
    if (!replace_texts(record->node, XML_NodeName_key_Name, name.c_str(), &had_name)) {
        return no_memory();
    }
    if (!had_name) {
        return Failure{REFUSED, file_name(record->file), record->line, "the record has no key name",
                       "delete it, and add the key anew"};
    }
    store->files[record->file].is_changed = true;
    *record = record_at(record->file, record->node);
    return std::nullopt;
}

void delete_record(Store* store, const Record& record)
{
    xmlNodePtr next = record.node->next;
    if (next != NULL && next->type == XML_TEXT_NODE &&
        xmlStrcmp(next->content, as_xml("\n")) == 0) {
        xmlUnlinkNode(next);
        xmlFreeNode(next);
    }
    remove_record(record.node);
    store->files[record.file].is_changed = true;
}
