#define _POSIX_C_SOURCE 200809L

#include "example_support.h"

#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

static char temporary_directory[256] = "";

/* ---- The key store --------------------------------------------------------------------------- */

/* A new file; with mode 0600, only its owner may read it. */
static bool write_store_file(const char* file_name, mode_t mode, const char* uid,
                             const struct stored_key* keys, int first_handle)
{
    const int fd = open(file_name, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
    FILE* file = fd >= 0 ? fdopen(fd, "w") : NULL;
    if (file == NULL) {
        return false;
    }
    fprintf(file, "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<keys>\n");
    for (int i = 0; keys[i].name != NULL; ++i) {
        fprintf(file,
                "<key_content><uid>%s</uid><key_name>%s</key_name><handle>%d</handle>"
                "<key>%s</key></key_content>\n",
                uid, keys[i].name, first_handle + i, keys[i].text);
    }
    fprintf(file, "</keys>\n");
    const bool written = ferror(file) == 0;
    return fclose(file) == 0 && written;
}

/* The name is kept only when we are there: what is removed in the end is removed from there. */
static bool go_to_temporary_directory(void)
{
    const char* parent = getenv("TMPDIR");
    char name[sizeof temporary_directory];
    const int len = snprintf(name, sizeof name, "%s/zentrava_example_XXXXXX",
                             parent != NULL && parent[0] == '/' ? parent : "/tmp");
    if (len >= (int)sizeof name || mkdtemp(name) == NULL || chdir(name) != 0) {
        return false;
    }
    memcpy(temporary_directory, name, sizeof name);
    return true;
}

static bool has_store(void)
{
    return access("key_contents_prv.xml", F_OK) == 0 && access("key_contents_pub.xml", F_OK) == 0;
}

bool begin_example(int argc, char** argv, const char* uid, const struct stored_key* private_keys,
                   const struct stored_key* public_keys)
{
    if (argc > 1 ? chdir(argv[1]) != 0 : !go_to_temporary_directory()) {
        perror(argc > 1 ? argv[1] : "cannot make a directory for the key store");
        return false;
    }
    if (!has_store() && (!write_store_file("key_contents_prv.xml", 0600, uid, private_keys, 1) ||
                         !write_store_file("key_contents_pub.xml", 0644, uid, public_keys, 101))) {
        perror("cannot make a key store");
        return false;
    }
    return true;
}

int end_example(bool succeeded)
{
    if (temporary_directory[0] != '\0') {
        unlink("key_contents_prv.xml");
        unlink("key_contents_pub.xml");
        if (rmdir(temporary_directory) != 0) { /* also when something is left in it */
            perror("cannot remove the temporary key store");
            succeeded = false;
        }
    }
    return succeeded ? EXIT_SUCCESS : EXIT_FAILURE;
}

/* ---- Printing -------------------------------------------------------------------------------- */

static const char* name_of(KeyLibraryErrorCode code)
{
    switch (code) {
    case KeyLibrary_OK:
        return "KeyLibrary_OK";
    case KeyLibrary_ERROR:
        return "KeyLibrary_ERROR";
    case KeyLibrary_BAD_PARAMETER:
        return "KeyLibrary_BAD_PARAMETER";
    case KeyLibrary_MEMORY:
        return "KeyLibrary_MEMORY";
    case KeyLibrary_KEY_NOT_FOUND:
        return "KeyLibrary_KEY_NOT_FOUND";
    case KeyLibrary_INVALID_KEY:
        return "KeyLibrary_INVALID_KEY";
    case KeyLibrary_CRYPTO:
        return "KeyLibrary_CRYPTO";
    }
    return "unknown";
}

static void print_step(const char* function, const char* result, const char* what,
                       const char* value)
{
    printf("  %-33s %-14s %s %s\n", function, result, what, value);
}

bool step(const char* function, KeyLibraryErrorCode code, const char* what, const char* value)
{
    print_step(function, name_of(code), what, value);
    return code == KeyLibrary_OK;
}

bool plain_step(const char* function, bool succeeded, const char* what, const char* value)
{
    print_step(function, succeeded ? "success" : "failure", what, value);
    return succeeded;
}

void note(const char* what, const char* value)
{
    print_step("", "", what, value);
}

/* ---- Bytes ----------------------------------------------------------------------------------- */

void to_hex(char* text, const uint8_t* bytes, size_t len)
{
    for (size_t i = 0; i < len; ++i) {
        snprintf(text + 2 * i, 3, "%02x", bytes[i]);
    }
}

void from_hex(uint8_t* bytes, const char* text, size_t len)
{
    for (size_t i = 0; i < len; ++i) {
        const char digits[3] = {text[2 * i], text[2 * i + 1], '\0'};
        bytes[i] = (uint8_t)strtoul(digits, NULL, 16);
    }
}

bool fill_random(uint8_t* bytes, size_t len)
{
    FILE* source = fopen("/dev/urandom", "rb");
    const bool filled = source != NULL && fread(bytes, 1, len, source) == len;
    if (source != NULL) {
        fclose(source);
    }
    return filled;
}

void wipe(void* key, size_t len)
{
    volatile uint8_t* bytes = key;
    for (size_t i = 0; i < len; ++i) {
        bytes[i] = 0;
    }
}
