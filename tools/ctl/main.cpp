#include <corvosetup/log.h>

#include <cstdlib>
#include <iostream>
#include <string>

#include "ctl/app.h"

namespace {

// Wrong usage, on standard error; with -j also as a report. What was parsed cannot be trusted to know of -j.
int refuse(const CLI::App& app, const CLI::ParseError& error, int argc, char** argv) {
    bool json = false;
    for (int i = 1; i < argc; ++i) {
        const std::string word = argv[i];
        json = json || word == "-j" || word == "--json" || word == "-jl" || word == "-lj";
    }
    app.exit(error);
    if (json) corvoctl::report_usage(error.what());
    return corvoctl::kExitUsage;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{
        "Calls the functions of libcorvosetup by hand, and talks to corvo-edged.\n"
        "Exit status: 0 done, 1 an operation failed (why is on standard error), 2 wrong usage."};
    app.name("corvoctl");
    app.set_version_flag("--version", "corvoctl " CORVO_VERSION, "Print the version and end");
    app.require_subcommand(1);
    app.fallthrough();

    corvoctl::Context context;
    app.add_flag("-j,--json", context.json,
                 "Print one JSON object (its \"schema\" says the version of its form)");
    app.add_flag("-l,--show-log", context.show_log, "Print the lines that the library logged meanwhile");
    app.add_option("--log-file", context.log_file, "Let the library log to this file")->type_name("FILE");
    std::string runtime_dir;
    app.add_option("--runtime-dir", runtime_dir, "Where the services' sockets are (default /run/vx)")
        ->type_name("DIR");

    corvoctl::add_presetup_verbs(app, context);
    corvoctl::add_tunnel_verbs(app, context);
    corvoctl::add_route_verbs(app, context);
    corvoctl::add_gateway_verbs(app, context);
    corvoctl::add_shaping_verbs(app, context);
    corvoctl::add_hub_verbs(app, context);
    corvoctl::add_service_verbs(app, context);
    corvoctl::add_netlink_verbs(app, context);
    corvoctl::add_util_verbs(app, context);
    corvoctl::add_check_verb(app, context);
    corvoctl::add_daemon_verbs(app, context);
    corvoctl::add_explain_verb(app, context);

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() != 0) return refuse(app, error, argc, argv);
        app.exit(error);  // help, version
        return corvoctl::kExitOk;
    }
    try {
        if (!runtime_dir.empty()) ::setenv("VX_RUNTIME_DIR", runtime_dir.c_str(), 1);
        if (!context.log_file.empty()) reopen_setup_logger(context.log_file);
        return corvoctl::report(context);
    } catch (const CLI::ParseError& error) {  // an argument that only its verb could judge
        return refuse(app, error, argc, argv);
    }
}
