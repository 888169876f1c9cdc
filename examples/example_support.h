/*
 * What the examples share, and what is not about the library: a key store to work on, and the
 * printing of steps.
 */
#ifndef EXAMPLE_SUPPORT_H
#define EXAMPLE_SUPPORT_H

#include <key_driver/zentrava_key_driver.h>

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* A key to put into a store file, as hexadecimal text. */
struct stored_key {
    const char* name;
    const char* text;
};

/*
 * Goes to the directory given on the command line, or to a temporary one (in $TMPDIR, or /tmp), and
 * makes the two key store files there, unless there are some: the library finds them, by their bare names, in the
 * current working directory. The lists of keys end with a null name. False, after a message, when
 * that fails.
 */
bool begin_example(int argc, char** argv, const char* uid, const struct stored_key* private_keys,
                   const struct stored_key* public_keys);

/* Removes the temporary directory, if there is one; main's result, a failure if that fails. */
int end_example(bool succeeded);

/* Prints one step, its result code and what came of it; whether it succeeded. */
bool step(const char* function, KeyLibraryErrorCode code, const char* what, const char* value);

/* The same for the functions that return 1 or 0: `succeeded` says which it was. */
bool plain_step(const char* function, bool succeeded, const char* what, const char* value);

/* Prints a value that belongs to the step above. */
void note(const char* what, const char* value);

/* Bytes as hexadecimal text, 2 * len characters and a terminator, and back. */
void to_hex(char* text, const uint8_t* bytes, size_t len);
void from_hex(uint8_t* bytes, const char* text, size_t len);

/* True when all bytes could be drawn from the system's random source. */
bool fill_random(uint8_t* bytes, size_t len);

/* Overwrites a key that is no longer needed. A compiler drops memset where nothing reads on. */
void wipe(void* key, size_t len);

#ifdef __cplusplus
}
#endif

#endif
