#include "tests/support/secret_scan.h"

#include "tests/support/remembering_heap.h"

#include <dlfcn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/random.h>

#include <algorithm>
#include <map>
#include <unordered_map>

static const size_t RUN = 8; // bytes of a secret that count as found

// ---------------------------------------------------------------------------------------------
// Secrets
// ---------------------------------------------------------------------------------------------

static uint8_t flipped(unsigned int byte)
{
    return static_cast<uint8_t>(~byte);
}

Secret random_secret(const std::string& name, size_t size)
{
    Secret secret = {name, std::vector<uint8_t>(size)};
    if (getrandom(secret.flipped.data(), size, 0) != static_cast<ssize_t>(size)) {
        abort();
    }
    std::replace(secret.flipped.begin(), secret.flipped.end(), flipped(0), flipped(1));
    return secret;
}

Secret secret_at(const std::string& name, const uint8_t* bytes, size_t size)
{
    Secret secret = {name, {}};
    for (size_t i = 0; i < size; ++i) {
        secret.flipped.push_back(flipped(bytes[i]));
    }
    return secret;
}

void write_secret(const Secret& secret, uint8_t* bytes)
{
    for (const uint8_t byte : secret.flipped) {
        *bytes++ = flipped(byte);
    }
}

static uint8_t digit_of(const Secret& secret, size_t i)
{
    const unsigned int byte = flipped(secret.flipped[i / 2]);
    return static_cast<uint8_t>("0123456789abcdef"[i % 2 == 0 ? byte / 16 : byte % 16]);
}

void write_secret_text(const Secret& secret, char* text)
{
    for (size_t i = 0; i < 2 * secret.flipped.size(); ++i) {
        *text++ = static_cast<char>(digit_of(secret, i));
    }
    *text = '\0';
}

// ---------------------------------------------------------------------------------------------
// Forms of a secret
// ---------------------------------------------------------------------------------------------

// A secret as it may lie in memory, with its bits flipped.
struct Form {
    const Secret* secret;
    const char* name;
    std::vector<uint8_t> flipped;
    size_t shortest; // bytes that have to be found together: digits hold half as much
};

static Form form_of(const Secret& secret, const char* name, uint8_t mask, size_t swap)
{
    Form form = {&secret, name, {}, RUN};
    for (size_t i = 0; i < secret.flipped.size(); ++i) {
        form.flipped.push_back(static_cast<uint8_t>(secret.flipped[i ^ swap] ^ mask));
    }
    return form;
}

static Form text_of(const Secret& secret)
{
    Form form = {&secret, "text", {}, 2 * RUN};
    for (size_t i = 0; i < 2 * secret.flipped.size(); ++i) {
        form.flipped.push_back(flipped(digit_of(secret, i)));
    }
    return form;
}

// The pads are those of HMAC (RFC 2104). A hash's state is kept as words of 32 bits, and is the key
// where the key is a hash. The engine's numbers are 32 bytes with the lowest first.
static std::vector<Form> forms_of(const std::vector<Secret>& secrets)
{
    std::vector<Form> forms;
    for (const Secret& secret : secrets) {
        forms.push_back(form_of(secret, "bytes", 0, 0));
        forms.push_back(text_of(secret));
        if (secret.flipped.size() % 32 == 0) {
            forms.push_back(form_of(secret, "inner pad", 0x36, 0));
            forms.push_back(form_of(secret, "outer pad", 0x5c, 0));
            forms.push_back(form_of(secret, "words of a hash", 0, 3));
            forms.push_back(form_of(secret, "number", 0, 31));
        }
    }
    return forms;
}

static uint64_t word_at(const uint8_t* bytes)
{
    uint64_t word;
    memcpy(&word, bytes, sizeof word);
    return word;
}

// Where a run of 8 bytes stands in a form.
struct Place {
    const Form* form;
    size_t offset;
};
using Runs = std::unordered_map<uint64_t, std::vector<Place>>;

static Runs runs_of(const std::vector<Form>& forms)
{
    Runs runs;
    for (const Form& form : forms) {
        for (size_t offset = 0; offset + RUN <= form.flipped.size(); ++offset) {
            runs[word_at(&form.flipped[offset])].push_back({&form, offset});
        }
    }
    return runs;
}

// Most words are no run; this tells so by one look at two of their bytes.
static std::vector<bool> filter_of(const Runs& runs)
{
    std::vector<bool> filter(65536, false);
    for (const auto& run : runs) {
        filter[run.first & 0xffff] = true;
    }
    return filter;
}

// ---------------------------------------------------------------------------------------------
// Memory
// ---------------------------------------------------------------------------------------------

struct Mapping {
    const uint8_t* begin;
    const uint8_t* end;
    std::string name;
};

static std::vector<Mapping> writable_mappings()
{
    std::vector<Mapping> mappings;
    FILE* maps = fopen("/proc/self/maps", "r");
    char line[512];
    while (maps != nullptr && fgets(line, sizeof line, maps) != nullptr) {
        void* begin = nullptr;
        void* end = nullptr;
        char access[8] = "";
        char path[256] = "";
        if (sscanf(line, "%p-%p %7s %*s %*s %*s %255s", &begin, &end, access, path) >= 3 &&
            access[0] == 'r' && access[1] == 'w' && strcmp(path, "[stack]") != 0) {
            const char* slash = strrchr(path, '/');
            mappings.push_back({static_cast<uint8_t*>(begin), static_cast<uint8_t*>(end),
                                slash != nullptr  ? slash + 1
                                : path[0] != '\0' ? path
                                                  : "no name"});
        }
    }
    if (maps != nullptr) {
        fclose(maps);
    }
    return mappings;
}

// Untouched memory, of which there is much.
static bool is_zero(const uint8_t* page, size_t size)
{
    return page[0] == 0 && memcmp(page, page + 1, size - 1) == 0;
}

// Who asked for a block: the library and, where it has a name, the function.
static std::string owner_of(const HeapBlock* block)
{
    Dl_info info = {};
    if (dladdr(block->caller, &info) == 0) {
        return "somebody";
    }
    const char* slash = strrchr(info.dli_fname, '/');
    const std::string library = slash != nullptr ? slash + 1 : info.dli_fname;
    return library.substr(0, library.find(".so")) + " " +
           (info.dli_sname != nullptr ? info.dli_sname : "internal");
}

// Runs of one form that lie in one block of the heap or in one mapping.
struct Trace {
    const HeapBlock* block;
    const Mapping* mapping;
    const Form* form;
    size_t size;
    const uint8_t* end; // of the last run
};

static void note_run(std::vector<Trace>& traces, const Mapping& mapping, const uint8_t* begin,
                     const uint8_t* end, const Form* form)
{
    const HeapBlock* block = heap_block_at(begin);
    for (auto trace = traces.rbegin(); trace != traces.rend(); ++trace) {
        if (trace->block == block && trace->mapping == &mapping && trace->form == form) {
            trace->size += static_cast<size_t>(end - std::max(begin, trace->end));
            trace->end = end;
            return;
        }
    }
    traces.push_back({block, &mapping, form, static_cast<size_t>(end - begin), end});
}

// Whether the rest of the shortest piece that counts follows a run.
static bool goes_on(const uint8_t* place, const Place& run, const uint8_t* end)
{
    const size_t size = run.form->shortest;
    return run.offset + size <= run.form->flipped.size() &&
           size <= static_cast<size_t>(end - place) &&
           std::equal(place, place + size, &run.form->flipped[run.offset],
                      [](uint8_t a, uint8_t b) { return a == flipped(b); });
}

static void scan(const Mapping& mapping, const Runs& runs, const std::vector<bool>& filter,
                 std::vector<Trace>& traces)
{
    const size_t page_size = 4096;
    for (const uint8_t* page = mapping.begin; page < mapping.end; page += page_size) {
        if (is_zero(page, page_size)) {
            continue;
        }
        const uint8_t* end = std::min(page + page_size, mapping.end - RUN + 1);
        for (const uint8_t* place = page; place < end; ++place) {
            const uint64_t word = ~word_at(place);
            if (!filter[word & 0xffff]) {
                continue;
            }
            const auto found = runs.find(word);
            for (size_t i = 0; found != runs.end() && i < found->second.size(); ++i) {
                const Place& run = found->second[i];
                if (goes_on(place, run, mapping.end)) {
                    note_run(traces, mapping, place, place + run.form->shortest, run.form);
                }
            }
        }
    }
}

std::vector<Finding> find_secrets(const std::vector<Secret>& secrets)
{
    const std::vector<Form> forms = forms_of(secrets);
    const Runs runs = runs_of(forms);
    const std::vector<bool> filter = filter_of(runs);
    const std::vector<Mapping> mappings = writable_mappings();
    std::vector<Trace> traces;
    for (const Mapping& mapping : mappings) {
        scan(mapping, runs, filter, traces);
    }
    std::vector<Finding> findings;
    for (const Trace& trace : traces) {
        findings.push_back({trace.form->secret->name, trace.form->name,
                            trace.block != nullptr ? owner_of(trace.block) : trace.mapping->name,
                            trace.block == nullptr || !trace.block->is_freed, trace.size});
    }
    return findings;
}
