/* Removing, copying and overwriting keys in the store. */
#include "example_store.h"

#include <key_driver/zentrava_key_management_utils.h>

#include <string.h>

/* [by handle] */
static bool by_handle(void)
{
    char handle[16];

    return get_key_handle(DEVICE_UID, "ecdh_prv", NULL, 0, handle, sizeof handle) == 0 &&
           delete_key_by_handle(handle) == 0 && !contains_key(DEVICE_UID, "ecdh_prv");
}
/* [by handle] */

/* [by UID and name] */
static bool by_uid_and_name(void)
{
    return delete_key_by_key_type(DEVICE_UID, "ecdh_prv") == 0 &&
           delete_key_by_key_type(DEVICE_UID, "ecdh_prv") == 1; /* it is gone already */
}
/* [by UID and name] */

/* [crk] */
static bool crk(void)
{
    return delete_crk(DEVICE_UID) == 0 && !contains_crk(DEVICE_UID);
}
/* [crk] */

/* [a copy] */
static bool a_copy(void)
{
    char handle[16] = "";
    char metadata[64] = "";

    return copy_private_key(DEVICE_UID, "srk", "srk_before") == 0 &&
           get_key_handle(DEVICE_UID, "srk_before", metadata, sizeof metadata, handle,
                          sizeof handle) == 0 &&
           strcmp(handle, "9") == 0 && metadata[0] == '\0'; /* a handle of its own, no metadata */
}
/* [a copy] */

/* [new srk] */
static bool new_srk(void)
{
    char handle[16];
    char text[65];
    uint32_t text_len = sizeof text;

    return get_key_handle(DEVICE_UID, "crk", NULL, 0, handle, sizeof handle) == 0 &&
           set_new_srk_key_data_for_uid(DEVICE_UID, handle) == 0 &&
           export_prv_key_in_clear_as_hex(DEVICE_UID, "srk", text, &text_len) == 0 &&
           strcmp(text, CRK_TEXT) == 0;
}
/* [new srk] */

int main(void)
{
    return run("by handle", by_handle) && run("by UID and name", by_uid_and_name) &&
                   run("crk", crk) && run("a copy", a_copy) && run("new srk", new_srk)
               ? 0
               : 1;
}
