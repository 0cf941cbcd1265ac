// corvoctl gateways: the weighted default route.
#include <corvosetup/route.h>
#include <corvosetup/routing.h>

#include "ctl/app.h"

namespace corvoctl {

namespace {

constexpr int kTable = 253;

struct Gateway {
    std::string dev;
    std::string address;
    unsigned long bandwidth = 0;
};

Outcome show() {
    Outcome outcome;
    route_conf all{};
    all.table = kTable;
    outcome.lines = captured_stdout([&] { outcome.code = edit_route(3, &all); });
    outcome.data["table"] = kTable;
    outcome.data["routes"] = Json::Value(Json::arrayValue);
    for (const auto& line : outcome.lines) outcome.data["routes"].append(line);
    if (outcome.ok() && outcome.lines.empty()) outcome.lines.emplace_back("no default route in table 253");
    return outcome;
}

// "dev=address=bandwidth"
bool parse_gateway(const std::string& text, Gateway& out) {
    const auto first = text.find('=');
    const auto second = text.find('=', first == std::string::npos ? first : first + 1);
    if (second == std::string::npos) return false;
    out.dev = text.substr(0, first);
    out.address = text.substr(first + 1, second - first - 1);
    char* end = nullptr;
    out.bandwidth = std::strtoul(text.c_str() + second + 1, &end, 10);
    return !out.dev.empty() && !out.address.empty() && end != text.c_str() + second + 1 && *end == '\0';
}

// The set of gateways lives in a process. This one's starts empty, so the whole set is given at once: adding
// a single gateway would leave a route over that gateway alone.
Outcome set_gateways(const std::vector<std::string>& texts) {
    Outcome outcome;
    std::vector<Gateway> gateways(texts.size());
    for (std::size_t i = 0; i < texts.size(); ++i) {
        if (!parse_gateway(texts[i], gateways[i]))
            throw CLI::ValidationError("gateway", "not DEV=ADDRESS=BANDWIDTH: " + texts[i]);
    }
    for (auto& gateway : gateways) {
        outcome.code = add_default_gateway(gateway.dev, gateway.address, gateway.bandwidth);
        if (outcome.code != 0) return outcome;
    }
    return show();
}

Outcome from_ids(const std::vector<unsigned>& ids) {
    Json::Value list(Json::arrayValue);
    for (const unsigned id : ids) list.append(id);
    Outcome outcome = from_code(setup_def(list));
    return outcome.ok() ? show() : outcome;
}

}  // namespace

void add_gateway_verbs(CLI::App& app, Context& context) {
    auto* family = app.add_subcommand("gateways", "The weighted default route in table 253");
    family->require_subcommand(1);
    context.on(family->add_subcommand("show", "The default routes that the kernel holds"), show);

    auto texts = std::make_shared<std::vector<std::string>>();
    auto* set = family->add_subcommand("set", "Replace the route of metric 100 by these gateways");
    set->add_option("gateway", *texts, "DEV=ADDRESS=BANDWIDTH, one for each WAN link")->required();
    context.on(set, [texts] { return set_gateways(*texts); });

    auto ids = std::make_shared<std::vector<unsigned>>();
    auto* def = family->add_subcommand("def", "Replace the route of metric 99 by the WANs with these ids");
    def->add_option("id", *ids, "WAN ids, as the network information service reports them")->required();
    context.on(def, [ids] { return from_ids(*ids); });

    context.on(family->add_subcommand("flush", "Remove the routes of both metrics"), [] {
        const int first = gws.flush_gws();
        const int second = tmp_gws.flush_gws();
        return from_code(first != 0 ? first : second);
    });
}

}  // namespace corvoctl
