#include "example_store.h"

#include <key_driver/zentrava_key_management_utils.h>

#include <stdio.h>
#include <string.h>

const uint8_t message[] = "Set valve 7 to 40 percent";
const uint32_t message_len = sizeof message - 1;
const uint8_t amtc0[4] = {0x20, 0x26, 0x11, 0x21};

struct stored_key {
    const char* name;
    const char* text;
    const char* metadata;
};

static const struct stored_key private_keys[] = {
    {"srk", SRK_TEXT, "<metadata>bench 3</metadata>"},
    {"crk", CRK_TEXT, ""},
    {"tmp_client_session_key", CSK_TEXT, ""},
    {"ecdsa_prv", ECDSA_PRIVATE_TEXT, ""},
    {"ecdh_prv", ECDH_PRIVATE_TEXT, ""},
    {"ecdsa_prv_slot_3", ECDSA_PRIVATE_TEXT, ""},
    {"ecdh_prv_slot_3", ECDH_PRIVATE_TEXT, ""},
};
static const struct stored_key public_keys[] = {{"ECDSA_DS_PuK", ECDSA_PUBLIC_TEXT, ""}};

static bool write_file(const char* name, const struct stored_key* keys, int count, int handle)
{
    FILE* file = fopen(name, "w");
    if (file == NULL) {
        perror(name);
        return false;
    }
    fputs("<keys>\n", file);
    for (int i = 0; i < count; ++i) {
        fprintf(file,
                "<key_content><uid>" DEVICE_UID "</uid><key_name>%s</key_name><handle>%d</handle>"
                "<key>%s</key>%s</key_content>\n",
                keys[i].name, handle + i, keys[i].text, keys[i].metadata);
    }
    fputs("</keys>\n", file);
    return fclose(file) == 0;
}

bool make_store(void)
{
    return write_file("key_contents_prv.xml", private_keys, 7, 1) &&
           write_file("key_contents_pub.xml", public_keys, 1, 8);
}

bool is_equal(const uint8_t* bytes, const char* text)
{
    char hexadecimal[65] = "";
    for (int i = 0; i < 32; ++i) {
        snprintf(hexadecimal + 2 * i, 3, "%02x", bytes[i]);
    }
    return strcmp(hexadecimal, text) == 0;
}

bool run(const char* example, bool (*function)(void))
{
    const bool succeeded = make_store() && function();
    if (!succeeded) {
        printf("\"%s\" did not come out as it should\n", example);
    }
    return succeeded;
}
