/* Adding keys to the store. */
#include "example_store.h"

#include <key_driver/zentrava_key_management_utils.h>

#include <string.h>

#define NEW_UID "fedcba9876543210fedcba9876543210"

/* [key in a file] */
static bool key_in_a_file(void)
{
    char handle[16] = "";
    char text[65];
    uint32_t text_len = sizeof text;

    /* true: into the private file; false: a key of this name that is there is not replaced. */
    if (add_nonvolatile_based_key(NEW_UID, "srk", SRK_TEXT, "bench 4", true, false) != 0) {
        return false;
    }
    if (get_key_handle(NEW_UID, "srk", NULL, 0, handle, sizeof handle) != 0 ||
        strcmp(handle, "9") != 0) {
        return false;
    }

    /* A replacement is saved, and yet reported by 1: what is stored now tells that it was done. */
    return add_nonvolatile_based_key(NEW_UID, "srk", CRK_TEXT, NULL, true, true) == 1 &&
           export_prv_key_in_clear_as_hex(NEW_UID, "srk", text, &text_len) == 0 &&
           strcmp(text, CRK_TEXT) == 0;
}
/* [key in a file] */

/* [keys of fixed names] */
static bool keys_of_fixed_names(void)
{
    return add_crk(NEW_UID, CRK_TEXT, "bench 4") == 0 && contains_crk(NEW_UID) &&
           add_csk(NEW_UID, CSK_TEXT, NULL) == 0 && contains_csk(NEW_UID) &&
           add_csk(NEW_UID, CSK_TEXT, NULL) == 1; /* it is there already */
}
/* [keys of fixed names] */

/* [volatile key] */
static bool volatile_key(void)
{
    char handle[16];

    /* No name and no UID: the handle is all there is to find the key by. */
    return add_volatile_key("a0a1a2a3", handle, sizeof handle) == 0 &&
           delete_key_by_handle(handle) == 0;
}
/* [volatile key] */

/* [volatile key with a name] */
static bool volatile_key_with_a_name(void)
{
    char handle[16];
    char other[16];

    return add_volatile_based_key(NEW_UID, "scratch", SRK_TEXT, NULL, handle, sizeof handle) == 0 &&
           /* Never replaced; deleted by its handle alone. */
           add_volatile_based_key(NEW_UID, "scratch", CRK_TEXT, NULL, other, sizeof other) == 1 &&
           delete_key_by_key_type(NEW_UID, "scratch") == 1 && delete_key_by_handle(handle) == 0;
}
/* [volatile key with a name] */

int main(void)
{
    return run("key in a file", key_in_a_file) && run("keys of fixed names", keys_of_fixed_names) &&
                   run("volatile key", volatile_key) &&
                   run("volatile key with a name", volatile_key_with_a_name)
               ? 0
               : 1;
}
