// A store file of any bytes: every operation that reads gives what a plain reader of the file would,
// and leaves the file alone; a write then leaves a file in which the addressed record, and no other,
// has changed, or is refused and leaves the file as it was.

#include "store_model.h"

// The unit itself, for its file-local functions.
#include "no_pause.h"

#include "key_driver/zentrava_key_management_utils.cpp"

#include <memory>

namespace {

const std::string UID = "0123456789abcdef0123456789abcdef";
const std::string NEW_KEY(64, 'b');
const char* const METADATA[] = {nullptr, "", "note", "<&> \xC3\xA9 \xE2\x82\xAC"};
const uint8_t UNTOUCHED = 0xA5;

// What an operation is called with: texts of a record that is there, or others.
struct Arguments {
    std::string uid;
    std::string name;
    std::string other_name;
    std::string handle;
    const char* metadata;
    uint32_t size; // of a buffer
};

std::string text_or(const Record* record, const char* child, const std::string& otherwise)
{
    const Child* found = record != nullptr ? find_child(*record, child) : nullptr;
    return found != nullptr ? found->text : otherwise;
}

Arguments take_arguments(Input* input, const Store& store)
{
    static const char* const NAMES[] = {"srk", "crk", "tmp_client_session_key", "new"};
    Records records = store.private_file.records;
    records.insert(records.end(), store.public_file.records.begin(),
                   store.public_file.records.end());
    const size_t chosen = take_byte(input);
    const Record* record = chosen < records.size() ? &records[chosen] : nullptr;
    const uint8_t variant = take_byte(input);
    return {variant & 1 ? UID : text_or(record, "uid", UID),
            variant & 2 ? NAMES[variant >> 6] : text_or(record, "key_name", "srk"),
            NAMES[variant >> 6],
            text_or(record, "handle", "1"),
            METADATA[(variant >> 2) % 4],
            take_byte(input)};
}

// ---- Reading

// A buffer of exactly so many bytes, and never null.
std::unique_ptr<uint8_t[]> buffer_of(uint32_t size)
{
    std::unique_ptr<uint8_t[]> buffer(new uint8_t[size]);
    memset(buffer.get(), UNTOUCHED, size);
    return buffer;
}

char* text_in(const std::unique_ptr<uint8_t[]>& buffer)
{
    return reinterpret_cast<char*>(buffer.get());
}

// The buffer with a text in it as the store leaves it: terminated, and zeros behind.
Bytes filled(const std::string& text, uint32_t size)
{
    Bytes bytes(text.begin(), text.end());
    bytes.resize(size, 0);
    return bytes;
}

bool holds(const std::unique_ptr<uint8_t[]>& buffer, const Bytes& expected)
{
    return std::equal(expected.begin(), expected.end(), buffer.get());
}

void check_get_key(const Store& store, const Arguments& a)
{
    const std::optional<std::string> text = model::key_text_in(store, a.uid, a.name);
    const auto buffer = buffer_of(a.size);
    uint32_t size = a.size;
    const uint32_t result = get_key(reinterpret_cast<const unsigned char*>(a.uid.c_str()),
                                    a.name.c_str(), buffer.get(), &size);
    const Bytes key = text ? key_of_text(*text) : Bytes();
    const bool fits = text && key.size() <= a.size;
    demand(result == (fits ? 0U : 1U), "a key is found exactly if it is there and fits");
    demand(size == (text ? key.size() : a.size), "its length is told");
    demand(holds(buffer, fits ? key : Bytes(a.size, UNTOUCHED)),
           "the key's bytes are those stored");
}

void check_hexadecimal(uint32_t (*read)(const char*, const char*, char*, uint32_t*),
                       const StoreFile& file, const Arguments& a)
{
    const std::optional<std::string> text = model::key_text_in(file, a.uid, a.name);
    const bool is_found = text && !a.uid.empty() && text->size() < a.size;
    const auto buffer = buffer_of(a.size);
    uint32_t size = a.size;
    const uint32_t result = read(a.uid.c_str(), a.name.c_str(), text_in(buffer), &size);
    demand(result == (is_found ? 0U : 1U), "a key text is found exactly if it is there and fits");
    demand(size == (is_found ? text->size() : a.size), "its length is told");
    demand(!is_found || *text == text_in(buffer), "the text is handed out as it is stored");
}

// Handle and metadata of a record go into the buffers as far as they fit, until metadata did.
struct Description {
    uint32_t result;
    Bytes handle;
    Bytes metadata;
};

void describe(StoreFile file, const Arguments& a, Description* description)
{
    const Record* record = find_by_name(&file.records, a.uid, a.name);
    if (record == nullptr) {
        return;
    }
    for (const Child& child : record->children) {
        const bool fits = child.text.size() + 1 <= a.size;
        if (child.name == "handle" && fits) {
            description->result = 0;
            description->handle = filled(child.text, a.size);
        } else if (child.name == "metadata" && fits) {
            description->result = 0;
            description->metadata = filled(child.text, a.size);
            return;
        }
    }
}

void check_description(const Store& store, const Arguments& a)
{
    Description expected = {1, Bytes(a.size, UNTOUCHED), Bytes(a.size, UNTOUCHED)};
    describe(store.private_file, a, &expected);
    describe(store.public_file, a, &expected);
    const auto handle = buffer_of(a.size);
    const auto metadata = buffer_of(a.size);
    const uint32_t result = get_key_handle(a.uid.c_str(), a.name.c_str(), text_in(metadata), a.size,
                                           text_in(handle), a.size);
    demand(result == expected.result, "a handle or metadata is found exactly if it is there");
    demand(holds(handle, expected.handle), "the handle is the one stored");
    demand(holds(metadata, expected.metadata), "the metadata is what is stored");
}

bool is_there(StoreFile file, const std::string& uid, const std::string& name)
{
    return find_by_name(&file.records, uid, name) != nullptr;
}

void check_presence(const StoreFile& file, const Arguments& a)
{
    const char* uid = a.uid.c_str();
    demand(contains_key(uid, a.name.c_str()) == is_there(file, a.uid, a.name) &&
               contains_crk(uid) == is_there(file, a.uid, "crk") &&
               contains_csk(uid) == is_there(file, a.uid, "tmp_client_session_key"),
           "presence is that in the private file");
}

void check_new_handle(const Store& store)
{
    char handle[HANDLE_TEXT_SIZE];
    demand(get_new_key_handle(handle, sizeof handle) == 0 && handle == model::next_handle(store),
           "a new handle follows the largest one");
}

void check_reading(const Store& store, const Arguments& a)
{
    check_get_key(store, a);
    check_hexadecimal(export_prv_key_in_clear_as_hex, store.private_file, a);
    check_hexadecimal(read_public_key_as_hex, store.public_file, a);
    check_description(store, a);
    check_presence(store.private_file, a);
    check_new_handle(store);
    demand(content_of(PRIVATE_FILE) == store.private_file.content &&
               content_of(PUBLIC_FILE) == store.public_file.content,
           "reading does not change a file");
}

// ---- Writing

struct Outcome {
    uint32_t result;
    uint32_t expected;
};

Outcome add(Store* expected, const Arguments& a, bool is_private, bool allow_replace)
{
    return {add_nonvolatile_based_key(a.uid.c_str(), a.name.c_str(), NEW_KEY.c_str(), a.metadata,
                                      is_private, allow_replace),
            model::add_nonvolatile_based_key(expected, {a.uid, a.name, NEW_KEY, a.metadata},
                                             is_private, allow_replace)};
}

// Calls an operation, and makes the same change to what is expected.
Outcome write(uint8_t operation, Store* expected, const Arguments& a)
{
    const char* uid = a.uid.c_str();
    switch (operation % 8) {
    case 4:
        return {copy_private_key(uid, a.name.c_str(), a.other_name.c_str()),
                model::copy_private_key(expected, a.uid, a.name, a.other_name)};
    case 5:
        return {set_new_srk_key_data_for_uid(uid, a.handle.c_str()),
                model::set_new_srk_key_data_for_uid(expected, a.uid, a.handle)};
    case 6:
        return {delete_key_by_key_type(uid, a.name.c_str()),
                model::delete_key_by_key_type(expected, a.uid, a.name)};
    case 7:
        // A file that cannot be read would leave the store's mutex locked.
        if (!expected->private_file.is_readable || !expected->public_file.is_readable) {
            return {1, 1};
        }
        return {delete_key_by_handle(a.handle.c_str()),
                model::delete_key_by_handle(expected, a.handle)};
    default:
        return add(expected, a, (operation & 1) != 0, (operation & 2) != 0);
    }
}

void check_file(const StoreFile& after, const StoreFile& expected)
{
    demand(after.is_readable == expected.is_readable, "a file that was written can be read");
    demand(after.records == expected.records, "the addressed record has changed, and no other");
}

void check_writing(const Store& before, uint8_t operation, const Arguments& a)
{
    Store expected = before;
    const Outcome outcome = write(operation, &expected, a);
    const Store after = model::read_store();
    const bool is_untouched = after.private_file.content == before.private_file.content &&
                              after.public_file.content == before.public_file.content;
    const bool may_be_refused = !before.private_file.is_plain || !before.public_file.is_plain;
    if (outcome.result == 1 && is_untouched && may_be_refused) {
        return;
    }
    demand(outcome.result == outcome.expected, "a write succeeds exactly if it can");
    check_file(after.private_file, expected.private_file);
    check_file(after.public_file, expected.public_file);
}

// The volatile tree of one input is not that of the next.
void drop_volatile_tree()
{
    xmlFreeNode(tmpTree_rootNode);
    tmpTree_rootNode = NULL;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const FILE* const messages = freopen("/dev/null", "w", stdout);
    demand(messages != nullptr, "there is a place for messages");

    Input input = {data, size};
    const uint8_t operation = take_byte(&input);
    Input rest = {input.at, std::min<size_t>(input.left, 3)};
    input = {rest.at + rest.left, input.left - rest.left};
    const std::string content = take_text(&input);
    const std::string ordinary = "<keys><key_content><uid>" + UID +
                                 "</uid><key_name>srk</key_name><handle>7</handle><key>" +
                                 std::string(64, 'c') + "</key></key_content></keys>";
    write_store_file(PRIVATE_FILE, operation & 16 ? content : ordinary);
    write_store_file(PUBLIC_FILE, operation & 16 ? ordinary : content);

    const Store store = model::read_store();
    const Arguments arguments = take_arguments(&rest, store);
    check_reading(store, arguments);
    check_writing(store, operation, arguments);
    drop_volatile_tree();
    return 0;
}
