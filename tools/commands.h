// The tool's commands. Each takes what the command line said, and tells how it went.
#ifndef ZENTRAVA_TOOLS_COMMANDS_H
#define ZENTRAVA_TOOLS_COMMANDS_H

#include "failure.h"
#include "store_file.h"

#include <optional>
#include <string>

// What every command understands. The commands work in the store's directory; files that the user
// names are opened from `start_directory`, where the user stands.
struct Common {
    std::string directory;
    bool quiet;
    bool json;
    int start_directory;
};

struct InitOptions {
    bool only_missing;
};
std::optional<Failure> run_init(const Common& common, const InitOptions& options);

struct ListOptions {
    std::string uid_pattern;  // of the shell's kind; empty: all
    std::string name_pattern; // likewise
    std::optional<FileKind> file;
};
std::optional<Failure> run_list(const Common& common, const ListOptions& options);

struct ShowOptions {
    Selection selection;
    bool reveal; // the key text as well
};
std::optional<Failure> run_show(const Common& common, const ShowOptions& options);

struct AddOptions {
    std::string uid;
    std::string key_name;
    std::optional<uint32_t> slot;
    std::optional<FileKind> file;
    std::string key_file; // "-" is standard input
    bool is_raw;          // bytes instead of hexadecimal text
    std::optional<std::string> metadata;
    Existing existing;
};
std::optional<Failure> run_add(const Common& common, const AddOptions& options);

struct CopyOptions {
    Selection selection;
    std::string new_name;
    std::optional<std::string> new_uid;
    std::optional<std::string> metadata;
    Existing existing;
};
std::optional<Failure> run_copy(const Common& common, const CopyOptions& options);

struct RenameOptions {
    Selection selection;
    std::string new_name;
};
std::optional<Failure> run_rename(const Common& common, const RenameOptions& options);

struct DeleteOptions {
    Selection selection;
};
std::optional<Failure> run_delete(const Common& common, const DeleteOptions& options);

enum GeneratedKind { USUAL_FOR_NAME, GENERATED_HMAC, GENERATED_P256 };
struct GenerateOptions {
    std::string uid;
    std::string key_name;
    std::optional<uint32_t> slot;
    GeneratedKind kind;
    std::optional<std::string> metadata;
    Existing existing;
    std::string public_key_file; // "-" is standard output
    std::optional<std::string> verifier_uid;
    std::string verifier_name;
};
std::optional<Failure> run_generate(const Common& common, const GenerateOptions& options);

enum ManifestFormat { MANIFEST_AS_IT_LOOKS, CSV_MANIFEST, JSON_MANIFEST };
struct ProvisionOptions {
    std::string manifest; // "-" is standard input
    ManifestFormat format;
    bool dry_run;
    Existing existing;
};
std::optional<Failure> run_provision(const Common& common, const ProvisionOptions& options);

struct ImportOptions {
    std::string uid;
    std::string key_name;
    std::optional<uint32_t> slot;
    std::optional<FileKind> file;
    std::string key_file; // "-" is standard input
    bool public_only;     // the public key of a private key's file
    std::optional<std::string> passphrase_file;
    std::optional<std::string> metadata;
    Existing existing;
};
std::optional<Failure> run_import(const Common& common, const ImportOptions& options);

struct ExportOptions {
    Selection selection;
    bool is_der;
    bool is_sec1;
    bool public_only;
    bool reveal;        // a private key on a terminal
    std::string output; // "-" is standard output
};
std::optional<Failure> run_export(const Common& common, const ExportOptions& options);

struct CheckOptions {
    bool strict; // warnings count as errors
};
std::optional<Failure> run_check(const Common& common, const CheckOptions& options);
struct BackupOptions {
    std::string directory;
};
std::optional<Failure> run_backup(const Common& common, const BackupOptions& options);

struct RestoreOptions {
    std::string directory;
};
std::optional<Failure> run_restore(const Common& common, const RestoreOptions& options);

#endif
