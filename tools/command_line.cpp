#include "command_line.h"

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
        add_command(app, request, "init",
                    "Make both store files, empty (private 0600, public 0644)", run_init, &options);
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

static void add_common_options(CLI::App* app, Common* common)
{
    app->add_option("--dir", common->directory, "The store's directory (default: the current one)")
        ->type_name("DIRECTORY");
    app->add_flag("--quiet,-q", common->quiet, "Print results only, no messages");
    app->add_flag("--json", common->json, "Print JSON, for programs");
}

std::optional<Failure> parse_command_line(int argc, char** argv, Request* request)
{
    CLI::App app("Provisions, inspects and checks key stores.", "zentrava-keystore");
    app.set_version_flag("--version", "zentrava-keystore " ZENTRAVA_VERSION,
                         "Print the version and exit");
    app.set_help_flag("--help,-h", "Print this help and exit");
    app.require_subcommand(1);
    app.get_formatter()->column_width(32);
    add_common_options(&app, &request->common);
    add_init(&app, request);
    add_list(&app, request);
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success& asked_for_text) {
        app.exit(asked_for_text);
    } catch (const CLI::ParseError& error) {
        return Failure{USAGE, "", 0, error.what(), "see zentrava-keystore --help"};
    }
    return std::nullopt;
}
