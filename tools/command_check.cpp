// check: what in the store would surprise the library.

#include "commands.h"
#include "record_output.h"
#include "store_check.h"
#include "text_output.h"

#include <stdio.h>

#include <algorithm>

static const char* name_of(Severity severity)
{
    return severity == ERROR ? "error" : "warning";
}

static size_t count_of(const std::vector<Finding>& findings, Severity severity)
{
    return static_cast<size_t>(
        std::count_if(findings.begin(), findings.end(),
                      [severity](const Finding& finding) { return finding.severity == severity; }));
}

// ---- JSON

static nlohmann::ordered_json json_of(const Finding& finding)
{
    return {{"severity", name_of(finding.severity)},
            {"what", finding.what},
            {"file", finding.file},
            {"line", finding.line},
            {"uid", finding.uid},
            {"key_name", finding.key_name},
            {"handle", finding.handle},
            {"cause", finding.cause},
            {"remedy", finding.remedy}};
}

static void print_as_json(const std::vector<Finding>& findings)
{
    nlohmann::ordered_json list = nlohmann::ordered_json::array();
    for (const Finding& finding : findings) {
        list.push_back(json_of(finding));
    }
    print_json({{"command", "check"},
                {"errors", count_of(findings, ERROR)},
                {"warnings", count_of(findings, WARNING)},
                {"findings", list}});
}

// ---- Text

static void print_indented(const std::string& text)
{
    static const size_t INDENTATION = 4;
    for (const std::string& line : wrapped(text, std::max(output_width(), 2 * INDENTATION) - 4)) {
        printf("    %s\n", line.c_str());
    }
}

static std::string words_for(const Finding& finding)
{
    std::string words = finding.key_name.empty() ? "" : finding.key_name;
    words += finding.uid.empty() ? "" : (words.empty() ? "UID " : " of UID ") + finding.uid;
    if (!finding.handle.empty()) {
        words += (words.empty() ? "handle " : ", handle ") + finding.handle;
    }
    return printable(words);
}

static void print_finding(const Finding& finding)
{
    const std::string line = finding.line > 0 ? ":" + std::to_string(finding.line) : "";
    const std::string severity =
        styled(name_of(finding.severity), finding.severity == ERROR ? ALARM : HEADING, stdout);
    printf("%s%s: %s: %s\n", printable(finding.file).c_str(), line.c_str(), severity.c_str(),
           finding.what.c_str());
    const std::string words = words_for(finding);
    if (!words.empty()) {
        print_indented(words);
    }
    print_indented(printable(finding.cause));
    print_indented("remedy: " + printable(finding.remedy));
}

static std::string counted(size_t count, const std::string& noun)
{
    return std::to_string(count) + " " + noun + (count == 1 ? "" : "s");
}

static void print_as_text(const Common& common, const std::vector<Finding>& findings)
{
    for (const Finding& finding : findings) {
        print_finding(finding);
    }
    if (!common.quiet) {
        printf("check: %s, %s\n", counted(count_of(findings, ERROR), "error").c_str(),
               counted(count_of(findings, WARNING), "warning").c_str());
    }
}

// ---- The command

// The first finding that counts stands for all of them.
static std::optional<Failure> failure_for(const std::vector<Finding>& findings, bool strict)
{
    const auto first =
        std::find_if(findings.begin(), findings.end(), [strict](const Finding& finding) {
            return strict || finding.severity == ERROR;
        });
    if (first == findings.end()) {
        return std::nullopt;
    }
    return Failure{first->what == "unreadable-file" ? INPUT_OUTPUT : STORE_DAMAGED, first->file,
                   first->line, first->cause, first->remedy};
}

std::optional<Failure> run_check(const Common& common, const CheckOptions& options)
{
    const std::vector<Finding> findings =
        check_store(file_name(PRIVATE_FILE), file_name(PUBLIC_FILE));
    if (common.json) {
        print_as_json(findings);
    } else {
        print_as_text(common, findings);
    }
    return failure_for(findings, options.strict);
}
