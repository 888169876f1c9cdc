// add: one key, from a file or standard input.

#include "commands.h"
#include "key_change.h"
#include "text_output.h"
#include "user_file.h"

// The library turns the text of a key into bytes if they are 32 or 64, and hands out the characters
// of every other text.
static void note_odd_length(const Common& common, const NewKey& key)
{
    const size_t length = key.key.size() / 2;
    if (!common.quiet && length != 32 && length != 64) {
        report_note("the library hands out a key of " + std::to_string(length) +
                    " bytes as characters of its text, not as bytes");
    }
}

std::optional<Failure> run_add(const Common& common, const AddOptions& options)
{
    NewKey key = {options.file.value_or(usual_file_of(options.key_name)), options.uid, "", "",
                  options.metadata};
    if (std::optional<Failure> failure =
            name_with_slot(options.key_name, options.slot, &key.key_name)) {
        return failure;
    }
    if (std::optional<Failure> failure =
            read_key(common, options.key_file, options.is_raw, &key.key)) {
        return failure;
    }
    if (std::optional<Failure> failure = check_new_key(key)) {
        failure->file = name_in_messages(options.key_file);
        return failure;
    }
    Change change = {};
    std::optional<Failure> failure = with_store(TO_CHANGE, [&](Store* store) {
        return put_and_describe(store, key, options.existing, &change);
    });
    if (!failure) {
        print_change(common, "add", change);
        note_odd_length(common, key);
    }
    return failure;
}
