/*
 * Provisioning a device's root key, and rotating it: the new key is added beside the old one, the
 * old one is kept under another name, and the new one takes its place.
 *
 *     provision_and_rotate [directory]
 *
 * Works on the key store of the directory, or makes an empty one; provisions "srk" where there is
 * none. Adding a key to a file takes five seconds.
 */
#include "example_support.h"

#include <key_driver/zentrava_key_management_utils.h>

#include <array>
#include <cstdio>

static const char DEVICE_UID[] = "0123456789abcdef0123456789abcdef";
static const char MESSAGE[] = "Set valve 7 to 40 percent";

// Key store operations return 0 for success.
static bool store_step(const char* function, uint32_t result, const char* key_name)
{
    return plain_step(function, result == 0, "key", key_name);
}

static bool add_random_key(const char* key_name, const char* metadata)
{
    std::array<uint8_t, 32> key = {};
    std::array<char, 65> text = {};
    if (!fill_random(key.data(), key.size())) {
        return false;
    }
    to_hex(text.data(), key.data(), key.size());
    const uint32_t result =
        add_nonvolatile_based_key(DEVICE_UID, key_name, text.data(), metadata, true, false);
    wipe(key.data(), key.size());
    wipe(text.data(), text.size());
    return store_step("add_nonvolatile_based_key", result, key_name);
}

static bool show(const char* key_name)
{
    std::array<char, 16> handle = {};
    std::array<char, 64> metadata = {};
    const uint32_t result = get_key_handle(DEVICE_UID, key_name, metadata.data(), metadata.size(),
                                           handle.data(), handle.size());
    const bool found = store_step("get_key_handle", result, key_name);
    note("handle", handle.data());
    note("metadata", metadata.data());
    return found;
}

// By name and not by handle: delete_key_by_handle does not come back from a file that it cannot read.
static bool remove_if_present(const char* key_name)
{
    return !contains_key(DEVICE_UID, key_name) ||
           store_step("delete_key_by_key_type", delete_key_by_key_type(DEVICE_UID, key_name),
                      key_name);
}

// "srk" keeps its handle and its metadata; what changes is the key.
static bool rotate_root_key()
{
    std::array<char, 16> handle = {};
    return remove_if_present("srk_next") && // of a rotation that was interrupted
           add_random_key("srk_next", "") && remove_if_present("srk_previous") &&
           store_step("copy_private_key", copy_private_key(DEVICE_UID, "srk", "srk_previous"),
                      "srk_previous") &&
           store_step(
               "get_key_handle",
               get_key_handle(DEVICE_UID, "srk_next", nullptr, 0, handle.data(), handle.size()),
               "srk_next") &&
           store_step("set_new_srk_key_data_for_uid",
                      set_new_srk_key_data_for_uid(DEVICE_UID, handle.data()), "srk") &&
           remove_if_present("srk_next");
}

static bool tag_message(const uint8_t* context_buf, bool force, const char* what)
{
    std::array<uint8_t, 32> tag = {};
    std::array<char, 65> text = {};
    if (!step("set_srk_as_hmac_root_signing_key",
              set_srk_as_hmac_root_signing_key(context_buf, force), "force",
              force ? "true" : "false")) {
        return false;
    }
    const KeyLibraryErrorCode code = gen_root_sha256_hmac(
        context_buf, reinterpret_cast<const uint8_t*>(MESSAGE), sizeof MESSAGE - 1, tag.data());
    to_hex(text.data(), tag.data(), tag.size());
    return step("gen_root_sha256_hmac", code, what, text.data());
}

// A context keeps the key that it has loaded; `force` fetches the new one.
static bool rotate_under_an_open_context()
{
    KeyLibraryContext context = nullptr;
    auto* context_buf = reinterpret_cast<uint8_t*>(&context);
    if (!step("key_lib_open", key_lib_open(DEVICE_UID, nullptr, nullptr, context_buf), "UID",
              DEVICE_UID)) {
        return false;
    }
    const bool ok = tag_message(context_buf, false, "old tag") && rotate_root_key() &&
                    tag_message(context_buf, false, "kept tag") &&
                    tag_message(context_buf, true, "new tag");
    return step("key_lib_close", key_lib_close(context_buf), "keys", "wiped") && ok;
}

int main(int argc, char** argv)
{
    const stored_key no_keys[] = {{nullptr, nullptr}};
    if (!begin_example(argc, argv, DEVICE_UID, no_keys, no_keys)) {
        return end_example(false);
    }
    std::printf("A root key, rotated: %s\n", MESSAGE);
    return end_example(
        (contains_key(DEVICE_UID, "srk") || add_random_key("srk", "made on the bench")) &&
        show("srk") && rotate_under_an_open_context());
}
