// corvoctl presetup: kernel modules, sysctls, CPU masks.
#include <corvosetup/presetup.h>

#include <array>

#include "ctl/app.h"

namespace corvoctl {

namespace {

struct Step {
    const char* name;
    const char* help;
    int (*run)();
};

int run_modules() {
    module_probing();
    return 0;
}

// In the order in which a daemon runs them at start-up.
constexpr std::array<Step, 5> kSteps{{
    {"modules", "Load the ifb module and bring its devices up", run_modules},
    {"ipv4", "IPv4 sysctls and neighbour table limits", presetup_ipv4},
    {"ipv6", "IPv6 sysctls", presetup_ipv6},
    {"mptcp", "MPTCP, TCP and connection tracking settings", presetup_mptcp},
    {"rps", "Receive and transmit CPU masks of the ports", presetup_rps_xps},
}};

void run_step(const Step& step, Outcome& outcome) {
    const int code = step.run();
    outcome.data["steps"][step.name] = code;
    outcome.lines.push_back(std::string(step.name) + ": " +
                            (code == 0 ? "ok" : "failed, " + std::to_string(code)));
    if (code != 0 && outcome.code == 0) outcome.code = code;
}

}  // namespace

void add_presetup_verbs(CLI::App& app, Context& context) {
    auto* family = app.add_subcommand("presetup", "Put the kernel into the state that the data plane needs");
    family->require_subcommand(1);
    context.on(family->add_subcommand("all", "Every step below, in this order"), [] {
        Outcome outcome;
        for (const auto& step : kSteps) run_step(step, outcome);
        return outcome;
    });
    for (const auto& step : kSteps) {
        context.on(family->add_subcommand(step.name, step.help), [&step] {
            Outcome outcome;
            run_step(step, outcome);
            return outcome;
        });
    }
}

}  // namespace corvoctl
