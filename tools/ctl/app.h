// corvoctl: the frame that every verb stands in.
//
// A verb family registers its subcommands on the CLI11 application and leaves an action in the context;
// main() runs the action, prints what came of it and turns it into the exit status. Families do not print on
// their own; only the live view does.
#pragma once

#include <json/value.h>

#include <CLI/CLI.hpp>
#include <functional>
#include <string>
#include <vector>

namespace corvoctl {

inline constexpr int kSchemaVersion = 1;
inline constexpr int kExitOk = 0;
inline constexpr int kExitFailed = 1;
inline constexpr int kExitUsage = 2;

// What a verb found out.
struct Outcome {
    int code = 0;                         // the library's result code; 0 is success
    std::string failure;                  // a failure that has no code of the library's; empty: none
    Json::Value data{Json::objectValue};  // for -j, and the facts behind `lines`
    std::vector<std::string> lines;       // for people
    bool reported = false;                // it has printed its own JSON reports

    bool ok() const { return code == 0 && failure.empty(); }
};

struct Context {
    bool json = false;
    bool show_log = false;
    std::string log_file;
    std::string verb;  // the words of the command, for the JSON report
    std::function<Outcome()> action;

    // Registers `run` as what `command` does. `run` is called after parsing, so it may read option variables.
    void on(CLI::App* command, std::function<Outcome()> run);
};

// Runs the context's action, prints the report and returns the exit status.
int report(Context& context);

// Prints the JSON report of a command that was not understood.
void report_usage(const std::string& why);

// The JSON report of an outcome, and of nothing that was logged.
Json::Value to_json(const Outcome& outcome, const std::string& verb);

// The code of an operation on a device, with what the kernel then holds of it.
Outcome link_outcome(const std::string& dev, int code);

// Refuses what cannot be the name of a device.
CLI::Validator device_name();

// An outcome that is just a result code.
Outcome from_code(int code);

// Runs `call` and returns what it wrote to standard output, line by line: some library functions print.
std::vector<std::string> captured_stdout(const std::function<void()>& call);

// The families.
void add_presetup_verbs(CLI::App& app, Context& context);
void add_tunnel_verbs(CLI::App& app, Context& context);
void add_route_verbs(CLI::App& app, Context& context);
void add_gateway_verbs(CLI::App& app, Context& context);
void add_shaping_verbs(CLI::App& app, Context& context);
void add_hub_verbs(CLI::App& app, Context& context);
void add_service_verbs(CLI::App& app, Context& context);
void add_netlink_verbs(CLI::App& app, Context& context);
void add_netlink_device_verbs(CLI::App& family, Context& context);  // below "netlink"
void add_util_verbs(CLI::App& app, Context& context);
void add_check_verb(CLI::App& app, Context& context);
void add_daemon_verbs(CLI::App& app, Context& context);
void add_explain_verb(CLI::App& app, Context& context);

}  // namespace corvoctl
