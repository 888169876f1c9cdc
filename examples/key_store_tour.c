/*
 * Looking after a key store: add a key, copy it, look it up, export it, delete it.
 *
 *     key_store_tour [directory]
 *
 * Works on the key store of the directory, or makes an empty one. Adding a key to a file takes five seconds.
 */
#include "example_support.h"

#include <key_driver/zentrava_key_management_utils.h>

#include <stdio.h>

static const char device_uid[] = "0123456789abcdef0123456789abcdef";

/* Key store operations return 0 for success. */
static bool store_step(const char* function, uint32_t result, const char* what, const char* value)
{
    return plain_step(function, result == 0, what, value);
}

static bool add_key(void)
{
    uint8_t key[32];
    char key_text[65] = "";
    if (!fill_random(key, sizeof key)) {
        return false;
    }
    to_hex(key_text, key, sizeof key);
    return store_step("add_crk", add_crk(device_uid, key_text, "valve 7 & pump \"A\""), "name",
                      "crk");
}

static bool look_up(const char* key_name)
{
    char handle[16] = "";
    char metadata[64] = "";
    char key_text[129] = "";
    uint32_t key_len = sizeof key_text;
    if (!store_step(
            "get_key_handle",
            get_key_handle(device_uid, key_name, metadata, sizeof metadata, handle, sizeof handle),
            "name", key_name)) {
        return false;
    }
    note("handle", handle);
    note("metadata", metadata[0] != '\0' ? metadata : "(none)");
    return store_step("export_prv_key_in_clear_as_hex",
                      export_prv_key_in_clear_as_hex(device_uid, key_name, key_text, &key_len),
                      "key", key_text);
}

static bool tour(void)
{
    printf("A key and its copy\n");
    return add_key() && look_up("crk") &&
           store_step("copy_private_key", copy_private_key(device_uid, "crk", "crk_backup"), "name",
                      "crk_backup") &&
           look_up("crk_backup") &&
           store_step("delete_crk", delete_crk(device_uid), "name", "crk") &&
           plain_step("contains_crk", !contains_crk(device_uid), "crk", "is gone") &&
           plain_step("contains_key", contains_key(device_uid, "crk_backup"), "crk_backup",
                      "is still there");
}

int main(int argc, char** argv)
{
    const struct stored_key no_keys[] = {{NULL, NULL}};
    return end_example(begin_example(argc, argv, device_uid, no_keys, no_keys) && tour());
}
