/* A C program that uses the library: the tag of a message under the root key. It puts the key store
 * into the directory that it runs in. */
#include <key_driver/zentrava_key_driver.h>

#include <stdio.h>
#include <string.h>

static const char UID[] = "0123456789abcdef0123456789abcdef";
static const char SRK_TEXT[] = "a0a1a2a3a4a5a6a7a8a9aaabacadaeafb0b1b2b3b4b5b6b7b8b9babbbcbdbebf";
static const char MESSAGE[] = "sent by a C program";

/* printf 'sent by a C program' | openssl dgst -sha256 -mac hmac -macopt hexkey:<SRK_TEXT> */
static const char TAG_TEXT[] = "214d5052c73c0f27dbbb5b283e06bda13b58884ee98a58634a02d8b82aed136b";

static void write_store_files(void)
{
    FILE* file = fopen("key_contents_prv.xml", "w");
    fprintf(file,
            "<keys><key_content><uid>%s</uid><key_name>srk</key_name><handle>1</handle>"
            "<key>%s</key></key_content></keys>\n",
            UID, SRK_TEXT);
    fclose(file);
    file = fopen("key_contents_pub.xml", "w");
    fputs("<keys/>\n", file);
    fclose(file);
}

static int is_ok(const char* step, KeyLibraryErrorCode result)
{
    if (result != KeyLibrary_OK) {
        printf("%s: result %d\n", step, (int)result);
    }
    return result == KeyLibrary_OK;
}

static int tag_is_right(const uint8_t* tag)
{
    char text[65] = "";
    for (int i = 0; i < 32; ++i) {
        sprintf(text + 2 * i, "%02x", tag[i]);
    }
    if (strcmp(text, TAG_TEXT) != 0) {
        printf("tag:  %s\nnot:  %s\n", text, TAG_TEXT);
    }
    return strcmp(text, TAG_TEXT) == 0;
}

int main(void)
{
    KeyLibraryContext context;
    uint8_t* context_buf = (uint8_t*)&context;
    uint8_t tag[32];

    write_store_files();
    return is_ok("key_lib_open", key_lib_open(UID, NULL, NULL, context_buf)) &&
                   is_ok("set_srk", set_srk_as_hmac_root_signing_key(context_buf, false)) &&
                   is_ok("gen_root", gen_root_sha256_hmac(context_buf, (const uint8_t*)MESSAGE,
                                                          sizeof MESSAGE - 1, tag)) &&
                   tag_is_right(tag) && is_ok("key_lib_close", key_lib_close(context_buf))
               ? 0
               : 1;
}
