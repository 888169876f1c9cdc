#include "key_change.h"

#include "key_names.h"
#include "record_output.h"

FileKind usual_file_of(const std::string& key_name)
{
    const std::optional<KeyUse> use = driver_use_of(key_name);
    return use && use->kind == P256_PUBLIC_KEY ? PUBLIC_FILE : PRIVATE_FILE;
}

std::optional<Failure> name_with_slot(const std::string& key_name,
                                      const std::optional<uint32_t>& slot, std::string* name)
{
    if (slot && !has_kts_slots(key_name)) {
        return Failure{USAGE, "", 0, "there are no KTS slots of the key " + key_name,
                       "say --slot with ecdsa_prv or ecdh_prv only"};
    }
    *name = slot ? name_in_kts_slot(key_name, *slot) : key_name;
    return std::nullopt;
}

Change describe(const Record& record, bool replaced)
{
    return {replaced, words_for(record), json_of(record)};
}

std::optional<Failure> put_and_describe(Store* store, const NewKey& key, Existing existing,
                                        Change* change)
{
    bool replaced = false;
    Record record = {};
    if (std::optional<Failure> failure = put_key(store, key, existing, &replaced, &record)) {
        return failure;
    }
    *change = describe(record, replaced);
    return std::nullopt;
}

void print_change(const Common& common, const char* command, const Change& change, FILE* stream,
                  const nlohmann::ordered_json& more)
{
    if (common.json) {
        nlohmann::ordered_json value = {
            {"command", command}, {"replaced", change.replaced}, {"key", change.record}};
        value.update(more);
        print_json(value);
    } else if (!common.quiet) {
        fprintf(stream, "%s%s: %s\n", command, change.replaced ? " (replaced)" : "",
                change.words.c_str());
    }
}
