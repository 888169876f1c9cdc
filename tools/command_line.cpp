#include "command_line.h"

#include "key_names.h"

#include <CLI/CLI.hpp>

#include <map>
#include <memory>
#include <stdio.h>

// Declares a command. Its options fill a record that lives as long as the request to run it.
template <class Options>
static CLI::App* add_command(CLI::App* app, Request* request, const char* name,
                             const char* description,
                             std::optional<Failure> (*run)(const Common&, const Options&),
                             std::shared_ptr<Options>* options)
{
    *options = std::make_shared<Options>();
    CLI::App* command = app->add_subcommand(name, description);
    command->fallthrough();
    command->footer("Common options, with every command: --dir, --quiet, --json, --version.\n"
                    "See zentrava-keystore(1).");
    command->callback([request, run, kept = *options]() {
        request->run = [run, kept](const Common& common) {
            return run(common, *kept);
        };
    });
    return command;
}

// For options of which the empty text stands for another choice: a script whose variable is unset is
// not to make it.
static void refuse_empty_text(CLI::Option* option)
{
    option->check([](const std::string& text) { return text.empty() ? "is empty" : ""; });
}

static void add_file_option(CLI::App* command, std::optional<FileKind>* file,
                            const char* description)
{
    static const std::map<std::string, FileKind> KINDS = {{"private", PRIVATE_FILE},
                                                          {"public", PUBLIC_FILE}};
    command
        ->add_option_function<std::string>(
            "--file", [file](const std::string& name) { *file = KINDS.at(name); }, description)
        ->type_name("private|public")
        ->check(CLI::IsMember(KINDS).description(""));
}

static void add_init(CLI::App* app, Request* request)
{
    std::shared_ptr<InitOptions> options;
    CLI::App* command =
        add_command(app, request, "init", "Make both store files, empty", run_init, &options);
    command->parse_complete_callback([request]() { request->makes_directory = true; });
    command->add_flag("--missing", options->only_missing, "Make only the file that is missing");
}

static void add_list(CLI::App* app, Request* request)
{
    std::shared_ptr<ListOptions> options;
    CLI::App* command =
        add_command(app, request, "list", "Show the keys as a table", run_list, &options);
    command->add_option("--uid", options->uid_pattern, "Only of this UID (a pattern with * and ?)")
        ->type_name("PATTERN");
    command->add_option("--name", options->name_pattern, "Only of this key name (likewise)")
        ->type_name("PATTERN");
    add_file_option(command, &options->file, "Only those of this file");
}

// ---- How a command names a key

static void add_uid_and_name(CLI::App* command, std::string* uid, std::string* key_name)
{
    command->add_option("UID", *uid, "The device's UID, 32 characters")->type_name("")->required();
    command->add_option("NAME", *key_name, "The key's name")->type_name("")->required();
}

// By UID and name, or by handle.
static void add_selection(CLI::App* command, Selection* selection)
{
    CLI::Option* uid =
        command->add_option("UID", selection->uid, "The device's UID")->type_name("");
    CLI::Option* name =
        command->add_option("NAME", selection->key_name, "The key's name")->type_name("");
    CLI::Option* handle = command
                              ->add_option("--handle", selection->handle,
                                           "The key's handle, in place of UID and NAME")
                              ->type_name("HANDLE");
    refuse_empty_text(handle);
    add_file_option(command, &selection->file, "Look in this file only");
    command->parse_complete_callback([uid, name, handle]() {
        const size_t names = uid->count() + name->count();
        if (names != (handle->count() == 0 ? 2 : 0)) {
            throw CLI::ValidationError("either UID and NAME or --handle tells which key");
        }
    });
}

static void add_new_name(CLI::App* command, std::string* new_name)
{
    command->add_option("--as", *new_name, "The new name")->type_name("NAME")->required();
}

static void add_slot(CLI::App* command, std::optional<uint32_t>* slot)
{
    command->add_option("--slot", *slot, "KTS slot of ecdsa_prv or ecdh_prv: name_slot_N")
        ->type_name("N");
}

static void add_metadata(CLI::App* command, std::optional<std::string>* metadata)
{
    command->add_option("--metadata", *metadata, "Free text that is kept with the key")
        ->type_name("TEXT");
}

static void add_replace(CLI::App* command, Existing* existing)
{
    command->add_flag_callback(
        "--replace", [existing]() { *existing = REPLACE_EXISTING; },
        "Replace a key of this UID and name; its handle stays");
}

// ---- Commands

static void add_show(CLI::App* app, Request* request)
{
    std::shared_ptr<ShowOptions> options;
    CLI::App* command = add_command(app, request, "show", "Show one key", run_show, &options);
    add_selection(command, &options->selection);
    command->add_flag("--reveal", options->reveal, "Show the key text as well");
}

static void add_add(CLI::App* app, Request* request)
{
    std::shared_ptr<AddOptions> options;
    CLI::App* command = add_command(app, request, "add", "Add a key from a file or standard input",
                                    run_add, &options);
    add_uid_and_name(command, &options->uid, &options->key_name);
    options->key_file = "-";
    command->add_option("--from", options->key_file, "Where the key is (default: standard input)")
        ->type_name("FILE");
    command->add_flag("--raw", options->is_raw, "It is there as bytes, not as hexadecimal text");
    add_slot(command, &options->slot);
    add_file_option(command, &options->file, "Where it goes (default: as the library uses NAME)");
    add_metadata(command, &options->metadata);
    add_replace(command, &options->existing);
}

static void add_verifier(CLI::App* command, GenerateOptions* options)
{
    CLI::Option* uid = command
                           ->add_option("--verifier", options->verifier_uid,
                                        "Also store the public key, X and Y, for this UID")
                           ->type_name("UID");
    options->verifier_name = VERIFICATION_KEY_NAME;
    CLI::Option* name = command
                            ->add_option("--verifier-name", options->verifier_name,
                                         "Under this name (default: ECDSA_DS_PuK)")
                            ->type_name("NAME");
    command->parse_complete_callback([uid, name]() {
        if (name->count() > 0 && uid->count() == 0) {
            throw CLI::RequiresError("--verifier-name", "--verifier");
        }
    });
}

static void add_generate(CLI::App* app, Request* request)
{
    static const std::map<std::string, GeneratedKind> KINDS = {{"hmac", GENERATED_HMAC},
                                                               {"p256", GENERATED_P256}};
    std::shared_ptr<GenerateOptions> options;
    CLI::App* command =
        add_command(app, request, "generate", "Make a random HMAC key or a P-256 key pair",
                    run_generate, &options);
    GenerateOptions* kept = options.get();
    add_uid_and_name(command, &options->uid, &options->key_name);
    command
        ->add_option_function<std::string>(
            "--type", [kept](const std::string& name) { kept->kind = KINDS.at(name); },
            "What to make (default: as the library uses NAME)")
        ->type_name("hmac|p256")
        ->check(CLI::IsMember(KINDS).description(""));
    add_slot(command, &options->slot);
    options->public_key_file = "-";
    command
        ->add_option("--public-key", options->public_key_file,
                     "Public key as PEM (default: standard output)")
        ->type_name("FILE");
    add_verifier(command, kept);
    add_metadata(command, &options->metadata);
    add_replace(command, &options->existing);
}

static void add_copy(CLI::App* app, Request* request)
{
    std::shared_ptr<CopyOptions> options;
    CLI::App* command = add_command(
        app, request, "copy", "Copy a key; the copy has a handle of its own", run_copy, &options);
    add_selection(command, &options->selection);
    add_new_name(command, &options->new_name);
    command->add_option("--to", options->new_uid, "The copy's UID (default: the key's)")
        ->type_name("UID");
    add_metadata(command, &options->metadata);
    add_replace(command, &options->existing);
}

static void add_rename(CLI::App* app, Request* request)
{
    std::shared_ptr<RenameOptions> options;
    CLI::App* command =
        add_command(app, request, "rename", "Give a key another name", run_rename, &options);
    add_selection(command, &options->selection);
    add_new_name(command, &options->new_name);
}

static void add_delete(CLI::App* app, Request* request)
{
    std::shared_ptr<DeleteOptions> options;
    CLI::App* command = add_command(app, request, "delete", "Delete a key", run_delete, &options);
    add_selection(command, &options->selection);
}

static void add_provision(CLI::App* app, Request* request)
{
    static const std::map<std::string, ManifestFormat> FORMATS = {{"csv", CSV_MANIFEST},
                                                                  {"json", JSON_MANIFEST}};
    std::shared_ptr<ProvisionOptions> options;
    CLI::App* command =
        add_command(app, request, "provision", "Add the keys of a manifest, all of them or none",
                    run_provision, &options);
    ProvisionOptions* kept = options.get();
    command->add_option("MANIFEST", options->manifest, "The list of keys, - for standard input")
        ->type_name("")
        ->required();
    command
        ->add_option_function<std::string>(
            "--format", [kept](const std::string& name) { kept->format = FORMATS.at(name); },
            "What the manifest is written in (default: as it looks)")
        ->type_name("csv|json")
        ->check(CLI::IsMember(FORMATS).description(""));
    command->add_flag("--dry-run", options->dry_run, "Check everything, and change nothing");
    add_replace(command, &options->existing);
}

static void add_import(CLI::App* app, Request* request)
{
    std::shared_ptr<ImportOptions> options;
    CLI::App* command =
        add_command(app, request, "import", "Add a P-256 key from a PEM or DER file, as of openssl",
                    run_import, &options);
    add_uid_and_name(command, &options->uid, &options->key_name);
    options->key_file = "-";
    command->add_option("--from", options->key_file, "Where the key is (default: standard input)")
        ->type_name("FILE");
    command
        ->add_option("--passphrase-file", options->passphrase_file,
                     "Its first line opens the key (default: ask)")
        ->type_name("FILE");
    command->add_flag("--public", options->public_only,
                      "Take the public key only, also of a private key's file");
    add_slot(command, &options->slot);
    add_file_option(command, &options->file, "Where it goes (default: as the key is)");
    add_metadata(command, &options->metadata);
    add_replace(command, &options->existing);
}

static void add_export(CLI::App* app, Request* request)
{
    static const std::map<std::string, bool> IS_DER = {{"pem", false}, {"der", true}};
    static const std::map<std::string, bool> IS_SEC1 = {{"pkcs8", false}, {"sec1", true}};
    std::shared_ptr<ExportOptions> options;
    CLI::App* command =
        add_command(app, request, "export",
                    "Write a P-256 key to a PEM or DER file, as for openssl", run_export, &options);
    ExportOptions* kept = options.get();
    add_selection(command, &options->selection);
    options->output = "-";
    command->add_option("--output", options->output, "Where it goes (default: standard output)")
        ->type_name("FILE");
    command
        ->add_option_function<std::string>(
            "--format", [kept](const std::string& name) { kept->is_der = IS_DER.at(name); },
            "How it is written (default: pem)")
        ->type_name("pem|der")
        ->check(CLI::IsMember(IS_DER).description(""));
    command
        ->add_option_function<std::string>(
            "--form", [kept](const std::string& name) { kept->is_sec1 = IS_SEC1.at(name); },
            "The structure of a private key (default: pkcs8)")
        ->type_name("pkcs8|sec1")
        ->check(CLI::IsMember(IS_SEC1).description(""));
    command->add_flag("--public", options->public_only, "Write the public key of a private one");
    command->add_flag("--reveal", options->reveal, "Write a private key to a terminal as well");
}

static void add_check(CLI::App* app, Request* request)
{
    std::shared_ptr<CheckOptions> options;
    CLI::App* command =
        add_command(app, request, "check", "Tell what in the store would surprise the library",
                    run_check, &options);
    command->add_flag("--strict", options->strict, "Take warnings for errors");
}

static void add_backup(CLI::App* app, Request* request)
{
    std::shared_ptr<BackupOptions> options;
    CLI::App* command = add_command(
        app, request, "backup", "Copy both files, with their permissions", run_backup, &options);
    command->add_option("DIRECTORY", options->directory, "Where the copies go; made if need be")
        ->required();
}

static void add_restore(CLI::App* app, Request* request)
{
    std::shared_ptr<RestoreOptions> options;
    CLI::App* command =
        add_command(app, request, "restore", "Bring both files back from an undamaged backup",
                    run_restore, &options);
    command->add_option("DIRECTORY", options->directory, "Where backup put the copies")
        ->type_name("")
        ->required();
}

static void add_common_options(CLI::App* app, Common* common)
{
    CLI::Option* directory = app->add_option("--dir", common->directory,
                                             "The store's directory (default: the current one)")
                                 ->type_name("DIRECTORY");
    refuse_empty_text(directory);
    app->add_flag("--quiet,-q", common->quiet, "Print results only, no messages");
    app->add_flag("--json", common->json, "Print JSON, for programs");
}

// Of the command, as far as one was found.
static Failure usage_error(const CLI::App& app, const std::string& cause)
{
    std::string remedy = "see zentrava-keystore ";
    for (const CLI::App* command : app.get_subcommands()) {
        remedy += command->get_name() + " ";
    }
    return {USAGE, "", 0, cause, remedy + "--help"};
}

std::optional<Failure> parse_command_line(int argc, char** argv, Request* request)
{
    CLI::App app("Provisions, inspects and checks key stores.", "zentrava-keystore");
    app.set_version_flag("--version", "zentrava-keystore " ZENTRAVA_VERSION,
                         "Print the version and exit");
    app.set_help_flag("--help,-h", "Print this help and exit");
    app.require_subcommand(0, 1);
    app.get_formatter()->column_width(26);
    add_common_options(&app, &request->common);
    add_init(&app, request);
    add_list(&app, request);
    add_show(&app, request);
    add_add(&app, request);
    add_generate(&app, request);
    add_provision(&app, request);
    add_copy(&app, request);
    add_rename(&app, request);
    add_delete(&app, request);
    add_import(&app, request);
    add_export(&app, request);
    add_check(&app, request);
    add_backup(&app, request);
    add_restore(&app, request);
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success& asked_for_text) {
        app.exit(asked_for_text);
        return std::nullopt;
    } catch (const CLI::ParseError& error) {
        return usage_error(app, error.what());
    }
    if (!request->run) {
        return usage_error(app, "a command is missing");
    }
    return std::nullopt;
}
