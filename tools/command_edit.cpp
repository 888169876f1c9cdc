// copy, rename, delete: changes of records that are there.

#include "commands.h"
#include "key_change.h"

std::optional<Failure> run_copy(const Common& common, const CopyOptions& options)
{
    Change change = {};
    std::optional<Failure> failure =
        with_store(TO_CHANGE, [&](Store* store) -> std::optional<Failure> {
            Record source = {};
            if (std::optional<Failure> refusal =
                    select_record(*store, options.selection, &source)) {
                return refusal;
            }
            const NewKey copy = {source.file, options.new_uid.value_or(source.uid),
                                 options.new_name, source.key, options.metadata};
            if (std::optional<Failure> refusal = check_new_key(copy)) {
                return refusal;
            }
            return put_and_describe(store, copy, options.existing, &change);
        });
    if (!failure) {
        print_change(common, "copy", change);
    }
    return failure;
}

// The name is new, and the rest of the record stays as it is.
static std::optional<Failure> check_new_name(const Record& record, const std::string& name)
{
    return check_new_key({record.file, record.uid, name, record.key, record.metadata});
}

std::optional<Failure> run_rename(const Common& common, const RenameOptions& options)
{
    Change change = {};
    std::optional<Failure> failure =
        with_store(TO_CHANGE, [&](Store* store) -> std::optional<Failure> {
            Record record = {};
            if (std::optional<Failure> refusal =
                    select_record(*store, options.selection, &record)) {
                return refusal;
            }
            if (std::optional<Failure> refusal = check_new_name(record, options.new_name)) {
                return refusal;
            }
            if (std::optional<Failure> refusal = rename_record(store, options.new_name, &record)) {
                return refusal;
            }
            change = describe(record, false);
            return std::nullopt;
        });
    if (!failure) {
        print_change(common, "rename", change);
    }
    return failure;
}

std::optional<Failure> run_delete(const Common& common, const DeleteOptions& options)
{
    Change change = {};
    std::optional<Failure> failure =
        with_store(TO_CHANGE, [&](Store* store) -> std::optional<Failure> {
            Record record = {};
            if (std::optional<Failure> refusal =
                    select_record(*store, options.selection, &record)) {
                return refusal;
            }
            change = describe(record, false);
            delete_record(store, record);
            return std::nullopt;
        });
    if (!failure) {
        print_change(common, "delete", change);
    }
    return failure;
}
