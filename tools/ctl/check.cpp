// corvoctl check: documents, before anything touches the kernel.
#include "check/check.h"

#include "ctl/app.h"

namespace corvoctl {

namespace {

const char* word(check::Severity severity) {
    return severity == check::Severity::kError ? "error" : "warning";
}

Outcome run_check(const std::vector<std::string>& paths, const check::Options& options) {
    Outcome outcome;
    check::Checker checker(options);
    for (const auto& path : paths) {
        if (checker.add(path)) continue;
        outcome.failure = "there is no file or directory " + path;
        return outcome;
    }
    const auto findings = checker.run();
    outcome.data["documents"] = Json::UInt64(checker.documents());
    outcome.data["findings"] = Json::Value(Json::arrayValue);
    for (const auto& finding : findings) {
        Json::Value entry(Json::objectValue);
        entry["severity"] = word(finding.severity);
        entry["file"] = finding.file;
        entry["pointer"] = finding.pointer;
        entry["text"] = finding.text;
        entry["advice"] = finding.advice;
        outcome.data["findings"].append(entry);
        outcome.lines.push_back(finding.file + (finding.pointer.empty() ? "" : "#" + finding.pointer) + ": " +
                                word(finding.severity) + ": " + finding.text);
        outcome.lines.push_back("    " + finding.advice);
    }
    outcome.lines.push_back(std::to_string(checker.documents()) + " documents checked, " +
                            std::to_string(findings.size()) + " findings");
    if (check::has_errors(findings)) outcome.failure = "these documents cannot be right";
    return outcome;
}

}  // namespace

void add_check_verb(CLI::App& app, Context& context) {
    auto paths = std::make_shared<std::vector<std::string>>();
    auto options = std::make_shared<check::Options>();
    auto no_interfaces = std::make_shared<bool>(false);
    auto* command = app.add_subcommand("check", "Check documents: their form, and what no schema can say");
    command->add_option("path", *paths, "Documents, or directories of them (default /etc/networkmanagement)");
    command->add_option("--schemas", options->schema_directory, "Directory of the JSON Schemas");
    command->add_flag("--no-interfaces", *no_interfaces, "Do not look for the interfaces on this machine");
    context.on(command, [paths, options, no_interfaces] {
        if (paths->empty()) paths->emplace_back("/etc/networkmanagement");
        if (*no_interfaces) options->kernel_interfaces.clear();
        return run_check(*paths, *options);
    });
}

}  // namespace corvoctl
