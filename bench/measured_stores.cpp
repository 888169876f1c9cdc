#include "measured_stores.h"

#include "key_driver/zentrava_key_management_utils.h"

#include <libxml/parser.h>
#include <libxml/tree.h>

#include <stdlib.h>
#include <unistd.h>

#include <fstream>

// Takes the place of the C library's: the adders' pauses are no work.
extern "C" unsigned int sleep(unsigned int)
{
    return 0;
}

// ---------------------------------------------------------------------------------------------
// The stores
// ---------------------------------------------------------------------------------------------

std::filesystem::path make_store_directory()
{
    const bool in_memory = access("/dev/shm", W_OK) == 0;
    std::string pattern =
        in_memory ? "/dev/shm/zentrava_bench_XXXXXX" : "/tmp/zentrava_bench_XXXXXX";
    return mkdtemp(pattern.data()) != nullptr ? pattern : "";
}

static void write_store_file(const std::filesystem::path& path, int records, int first_handle)
{
    std::ofstream file(path);
    file << "<?xml version=\"1.0\"?>\n<keys>\n";
    for (int i = 1; i <= records; ++i) {
        file << "<key_content><uid>" << DEVICE_UID << "</uid><key_name>key" << i
             << "</key_name><handle>" << first_handle + i << "</handle><key>" << KEY_TEXT
             << "</key><metadata>made for measuring</metadata></key_content>\n";
    }
    file << "</keys>\n";
}

void enter_store(const std::filesystem::path& directory, int records)
{
    std::filesystem::create_directories(directory);
    std::filesystem::current_path(directory);
    write_store_file(PRIVATE_FILE, records, 0);
    write_store_file(PUBLIC_FILE, records, records);
}

// ---------------------------------------------------------------------------------------------
// Operations
// ---------------------------------------------------------------------------------------------

static bool look_key_up(const char* last_name)
{
    uint8_t key[32];
    uint32_t size = sizeof key;
    return get_key(reinterpret_cast<const unsigned char*>(DEVICE_UID), last_name, key, &size) == 0;
}

static bool look_handle_up(const char* last_name)
{
    char handle[16];
    char metadata[32];
    return get_key_handle(DEVICE_UID, last_name, metadata, sizeof metadata, handle,
                          sizeof handle) == 0;
}

static bool export_key(const char* last_name)
{
    char text[65];
    uint32_t size = sizeof text;
    return export_prv_key_in_clear_as_hex(DEVICE_UID, last_name, text, &size) == 0;
}

static bool replace_key(const char* last_name)
{
    // A replacement reports a failure when it succeeds.
    return add_nonvolatile_based_key(DEVICE_UID, last_name, KEY_TEXT.c_str(), nullptr, true,
                                     true) == 1;
}

// Two operations, so that the store stays as it is.
static bool add_and_delete_key(const char*)
{
    return add_nonvolatile_based_key(DEVICE_UID, "new", KEY_TEXT.c_str(), nullptr, true, false) ==
               0 &&
           delete_key_by_key_type(DEVICE_UID, "new") == 0;
}

static bool copy_and_delete_key(const char* last_name)
{
    return copy_private_key(DEVICE_UID, last_name, "new") == 0 &&
           delete_key_by_key_type(DEVICE_UID, "new") == 0;
}

// ---------------------------------------------------------------------------------------------
// Floors
// ---------------------------------------------------------------------------------------------

static xmlDocPtr read_and_walk(const char* file_name)
{
    xmlDocPtr document = xmlReadFile(file_name, nullptr, 0);
    const xmlNode* volatile last = xmlDocGetRootElement(document)->children;
    while (last->next != nullptr) {
        last = last->next;
    }
    return document;
}

static bool read_file(const char* file_name)
{
    xmlFreeDoc(read_and_walk(file_name));
    return true;
}

static bool save_and_free(xmlDocPtr document)
{
    const bool saved = xmlSaveFile(PRIVATE_FILE, document) > 0;
    xmlFreeDoc(document);
    return saved;
}

static bool read_private_file(const char*)
{
    return read_file(PRIVATE_FILE);
}

static bool read_both_files(const char*)
{
    return read_file(PRIVATE_FILE) && read_file(PUBLIC_FILE);
}

static bool change_private_file(const char*)
{
    return save_and_free(read_and_walk(PRIVATE_FILE));
}

// A new record's handle takes reading both files, while the one to change is there already.
static bool add_to_private_file(const char* last_name)
{
    xmlDocPtr document = read_and_walk(PRIVATE_FILE);
    return read_both_files(last_name) && save_and_free(document);
}

static bool change_private_file_twice(const char* last_name)
{
    return add_to_private_file(last_name) && change_private_file(last_name);
}

const std::vector<MeasuredOperation> MEASURED_OPERATIONS = {
    {"get_key", false, look_key_up, read_private_file},
    {"get_key_handle", false, look_handle_up, read_both_files},
    {"export_key", false, export_key, read_private_file},
    {"replace_key", true, replace_key, change_private_file},
    {"add_and_delete_key", true, add_and_delete_key, change_private_file_twice},
    {"copy_and_delete_key", true, copy_and_delete_key, change_private_file_twice},
};
