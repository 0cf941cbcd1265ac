// corvoctl explain: the error catalogue.
#include "ctl/app.h"
#include "foundation/result.h"

namespace corvoctl {

namespace {

void add_entry(Outcome& outcome, const corvo::ResultInfo& info) {
    Json::Value entry(Json::objectValue);
    entry["code"] = info.code;
    entry["name"] = info.name;
    entry["meaning"] = info.meaning;
    entry["cause"] = info.cause;
    entry["remedy"] = info.remedy;
    outcome.data["results"].append(entry);
    outcome.lines.push_back(std::to_string(info.code) + " " + info.name);
    outcome.lines.push_back(std::string("  meaning:      ") + info.meaning);
    outcome.lines.push_back(std::string("  likely cause: ") + info.cause);
    outcome.lines.push_back(std::string("  what to do:   ") + info.remedy);
}

Outcome explain(const std::string& which) {
    Outcome outcome;
    if (which == "all") {
        for (const auto& info : corvo::result_catalogue()) add_entry(outcome, info);
        return outcome;
    }
    char* end = nullptr;
    const long code = std::strtol(which.c_str(), &end, 10);
    const corvo::ResultInfo* info = nullptr;
    if (end != which.c_str() && *end == '\0') {
        info = corvo::find_result(static_cast<int>(code));
        if (info == nullptr && code > 0) info = corvo::find_result(static_cast<int>(-code));
    }
    if (info == nullptr) {
        outcome.failure = "no result code \"" + which + "\"; \"corvoctl explain all\" lists them";
        return outcome;
    }
    add_entry(outcome, *info);
    return outcome;
}

}  // namespace

void add_explain_verb(CLI::App& app, Context& context) {
    auto* command = app.add_subcommand("explain", "What a result code means, its likely cause, what to do");
    auto code = std::make_shared<std::string>();
    command->add_option("code", *code, "A result code such as -3011 (the sign may be left out), or all")
        ->required();
    context.on(command, [code] { return explain(*code); });
}

}  // namespace corvoctl
