// import and export: P-256 keys in files as of the openssl command.

#include "commands.h"
#include "key_change.h"
#include "key_names.h"
#include "p256_key_file.h"
#include "passphrase.h"
#include "record_output.h"
#include "user_file.h"

#include <stdio.h>
#include <string.h>
#include <unistd.h>

// ---------------------------------------------------------------------------------------------
// Import
// ---------------------------------------------------------------------------------------------

static const uint8_t* bytes_of(const std::string& text)
{
    return reinterpret_cast<const uint8_t*>(text.data());
}

static std::optional<Failure> get_passphrase(const Common& common, const ImportOptions& options,
                                             std::string* passphrase)
{
    if (!options.passphrase_file) {
        return ask_for_passphrase(name_in_messages(options.key_file), passphrase);
    }
    return read_passphrase(common, *options.passphrase_file, passphrase);
}

// The passphrase is asked for if there is need of one.
static std::optional<Failure> read_key_pair(const Common& common, const ImportOptions& options,
                                            P256Key* pair)
{
    std::string content;
    if (std::optional<Failure> failure = read_user_file(common, options.key_file, &content)) {
        return failure;
    }
    std::string passphrase;
    const bool is_encrypted = p256_key_file_is_encrypted(bytes_of(content), content.size());
    if (is_encrypted) {
        if (std::optional<Failure> failure = get_passphrase(common, options, &passphrase)) {
            return failure;
        }
    }
    return read_p256_key(name_in_messages(options.key_file), bytes_of(content), content.size(),
                         is_encrypted ? passphrase.c_str() : nullptr, pair);
}

// Which half of a pair is stored: the one that the library uses under the name, or all there is.
static std::optional<Failure> choose_half(const ImportOptions& options, const std::string& key_name,
                                          const P256Key& pair, bool* is_public)
{
    const std::optional<KeyUse> use = driver_use_of(key_name);
    *is_public = options.public_only || !pair.has_private || (use && use->kind == P256_PUBLIC_KEY);
    if (use && use->kind == HMAC_KEY) {
        return Failure{REFUSED, "", 0, key_name + " is the name of an HMAC key, not of P-256",
                       "take another name, such as ecdsa_prv, ecdh_prv or ECDSA_DS_PuK"};
    }
    if (use && use->kind == P256_PRIVATE_KEY && *is_public) {
        return Failure{REFUSED, name_in_messages(options.key_file), 0,
                       key_name + " is the name of a private key, and this is a public one",
                       options.public_only ? "leave out --public"
                                           : "import the private key's file"};
    }
    return std::nullopt;
}

static std::string text_of_half(const P256Key& pair, bool is_public)
{
    return is_public ? hexadecimal(pair.x, sizeof pair.x) + hexadecimal(pair.y, sizeof pair.y)
                     : hexadecimal(pair.scalar, sizeof pair.scalar);
}

static std::optional<Failure> make_new_key(const Common& common, const ImportOptions& options,
                                           NewKey* key)
{
    P256Key pair = {};
    bool is_public = false;
    std::optional<Failure> failure = read_key_pair(common, options, &pair);
    if (!failure) {
        failure = choose_half(options, key->key_name, pair, &is_public);
    }
    if (!failure) {
        key->file = options.file.value_or(is_public ? PUBLIC_FILE : PRIVATE_FILE);
        key->key = text_of_half(pair, is_public);
    }
    wipe_key(&pair);
    return failure ? failure : check_new_key(*key);
}

std::optional<Failure> run_import(const Common& common, const ImportOptions& options)
{
    if (options.key_file == "-" && options.passphrase_file == "-") {
        return Failure{USAGE, "", 0, "key and passphrase cannot both come from standard input",
                       "name a file with --from"};
    }
    NewKey key = {PRIVATE_FILE, options.uid, "", "", options.metadata};
    if (std::optional<Failure> failure =
            name_with_slot(options.key_name, options.slot, &key.key_name)) {
        return failure;
    }
    if (std::optional<Failure> failure = make_new_key(common, options, &key)) {
        return failure;
    }
    Change change = {};
    std::optional<Failure> failure = with_store(TO_CHANGE, [&](Store* store) {
        return put_and_describe(store, key, options.existing, &change);
    });
    if (!failure) {
        print_change(common, "import", change);
    }
    return failure;
}

// ---------------------------------------------------------------------------------------------
// Export
// ---------------------------------------------------------------------------------------------

static const size_t SCALAR_SIZE = 32;
static const size_t POINT_SIZE = 64;

static Failure not_p256(const Record& record, const std::string& cause)
{
    return {REFUSED, file_name(record.file), record.line, cause,
            "see with check what is wrong, and with list what there is"};
}

// The key of a record that holds a private key of 32 bytes or a public one of 64.
static std::optional<Failure> read_record(const Record& record, P256Key* pair)
{
    const std::string text = record.key;
    const std::optional<KeyUse> use = driver_use_of(record.key_name);
    const size_t size = text.size() / 2;
    if ((use && use->kind == HMAC_KEY) || !is_hexadecimal(text) || text.size() % 2 != 0 ||
        (size != SCALAR_SIZE && size != POINT_SIZE)) {
        return not_p256(record, "the key is none of P-256");
    }
    uint8_t bytes[POINT_SIZE] = {};
    bytes_of_hexadecimal(text, bytes);
    const std::optional<Failure> failure = size == SCALAR_SIZE
                                               ? p256_key_of_scalar(bytes, pair)
                                               : p256_key_of_point(bytes, bytes + 32, pair);
    explicit_bzero(bytes, sizeof bytes);
    return failure && failure->code == REFUSED ? not_p256(record, failure->cause) : failure;
}

static KeyFileFormat format_of(const ExportOptions& options)
{
    if (options.is_der) {
        return options.is_sec1 ? DER_SEC1 : DER_PKCS8;
    }
    return options.is_sec1 ? PEM_SEC1 : PEM_PKCS8;
}

// What is written, and about which record.
struct Exported {
    bool is_private;
    std::vector<uint8_t> file;
    std::string words;
    nlohmann::ordered_json record;
};

static std::optional<Failure> make_exported(const ExportOptions& options, const Record& record,
                                            Exported* exported)
{
    P256Key pair = {};
    std::optional<Failure> failure = read_record(record, &pair);
    exported->is_private = pair.has_private && !options.public_only;
    if (!failure) {
        failure = exported->is_private
                      ? write_p256_private_key(pair, format_of(options), &exported->file)
                      : write_p256_public_key(pair, !options.is_der, &exported->file);
    }
    wipe_key(&pair);
    exported->words = words_for(record);
    exported->record = json_of(record);
    return failure;
}

static std::optional<Failure> check_output(const Common& common, const ExportOptions& options,
                                           const Exported& exported)
{
    if (options.output != "-") {
        return std::nullopt;
    }
    if (common.json && options.is_der) {
        return Failure{USAGE, "", 0, "JSON has no place for the bytes of DER",
                       "name a file with --output, or say --format pem"};
    }
    if (exported.is_private && !options.reveal && isatty(STDOUT_FILENO) == 1) {
        return Failure{REFUSED, "standard output", 0, "is a terminal, and the key is private",
                       "name a file with --output, or say --reveal"};
    }
    return std::nullopt;
}

static void print_exported(const Common& common, const ExportOptions& options,
                           const Exported& exported, const std::string& content)
{
    const bool to_file = options.output != "-";
    const char* kind = exported.is_private ? "private" : "public";
    if (common.json) {
        nlohmann::ordered_json value = {
            {"command", "export"}, {"exported", kind}, {"key", exported.record}};
        value[to_file ? "output" : "pem"] = to_file ? options.output : content;
        print_json(value);
    } else if (!to_file) {
        fwrite(content.data(), 1, content.size(), stdout);
    } else if (!common.quiet) {
        printf("export: the %s key of %s\n", kind, exported.words.c_str());
    }
}

std::optional<Failure> run_export(const Common& common, const ExportOptions& options)
{
    Exported exported = {};
    std::optional<Failure> failure =
        with_store(TO_READ, [&](Store* store) -> std::optional<Failure> {
            Record record = {};
            if (auto not_found = select_record(*store, options.selection, &record)) {
                return not_found;
            }
            return make_exported(options, record, &exported);
        });
    if (!failure) {
        failure = check_output(common, options, exported);
    }
    const std::string content(exported.file.begin(), exported.file.end());
    if (!failure && options.output != "-") {
        failure =
            write_user_file(common, options.output, content, exported.is_private ? 0600 : 0666);
    }
    if (!failure) {
        print_exported(common, options, exported, content);
    }
    return failure;
}
