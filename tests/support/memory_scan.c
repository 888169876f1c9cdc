/*
 * Loaded into a program before everything else (LD_PRELOAD), this looks for a secret in the
 * program's memory when it ends, and writes to the file MEMORY_SCAN_REPORT how often it was found.
 *
 * The secret comes in MEMORY_SCAN_SECRET as hexadecimal digits of its bytes with all bits flipped,
 * so that the environment does not hold it itself.
 */
#define _GNU_SOURCE
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static unsigned char flipped[256];
static size_t size;

static void read_secret(const char* text)
{
    for (size = 0; text[2 * size] != '\0' && size < sizeof flipped; ++size) {
        const char digits[3] = {text[2 * size], text[2 * size + 1], '\0'};
        flipped[size] = (unsigned char)strtoul(digits, NULL, 16);
    }
}

/* Compares without ever holding the secret itself. */
static int is_at(const unsigned char* place)
{
    for (size_t i = 0; i < size; ++i) {
        if ((unsigned char)~place[i] != flipped[i]) {
            return 0;
        }
    }
    return 1;
}

static unsigned long count_between(const unsigned char* begin, const unsigned char* end)
{
    unsigned long count = 0;
    for (const unsigned char* place = begin; place + size <= end; ++place) {
        count += (unsigned long)is_at(place);
    }
    return count;
}

static unsigned long count_in_memory(void)
{
    unsigned long count = 0;
    char line[512];
    FILE* maps = fopen("/proc/self/maps", "r");
    while (maps != NULL && fgets(line, sizeof line, maps) != NULL) {
        unsigned char* begin = NULL;
        unsigned char* end = NULL;
        char access[8];
        if (sscanf(line, "%p-%p %7s", (void**)&begin, (void**)&end, access) == 3 &&
            access[0] == 'r' && access[1] == 'w') {
            count += count_between(begin, end);
        }
    }
    if (maps != NULL) {
        fclose(maps);
    }
    return count;
}

__attribute__((destructor)) static void scan(void)
{
    const char* secret = getenv("MEMORY_SCAN_SECRET");
    const char* report_name = getenv("MEMORY_SCAN_REPORT");
    if (secret == NULL || report_name == NULL) {
        return;
    }
    read_secret(secret);
    const unsigned long count = count_in_memory();
    FILE* report = fopen(report_name, "w");
    if (report != NULL) {
        fprintf(report, "%lu\n", count);
        fclose(report);
    }
}
