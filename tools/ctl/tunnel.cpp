// corvoctl tun, tun6, private, rglink: create and delete the overlay devices.
#include <corvosetup/ping_test.h>
#include <corvosetup/privatelink.h>
#include <corvosetup/rglink.h>
#include <corvosetup/service.h>
#include <corvosetup/tun.h>
#include <corvosetup/tun6.h>

#include <cctype>

#include "ctl/app.h"
#include "ctl/kernel_view.h"

namespace corvoctl {

namespace {

using Elements = std::unordered_map<std::string, Json::Value>;

constexpr const char* kDeviceInfo = "/etc/networkmanagement/device_info.json";

struct TunnelOptions {
    std::string ifname = "all";
    std::string source = kDeviceInfo;
    unsigned queues = 0;
};

// One kind of overlay device: how it is set up, where its elements come from, what its devices are called.
struct Kind {
    const char* verb;
    const char* help;
    int (*setup)(int op, TunnelOptions& options);
    int (*elements)(Elements& out, std::string path, int comprehensive);
    std::string (*device)(const std::string& name, const Json::Value& element);
    bool has_queues;
};

std::string text_of(const Json::Value& element, const char* key) {
    const Json::Value value = element.isObject() ? element.get(key, "") : Json::Value("");
    return value.isConvertibleTo(Json::stringValue) ? value.asString() : "";
}

std::string wan_device(const char* prefix, const Json::Value& element) {
    return prefix + text_of(element, "id");
}

// A link on a port carries the port's number: swdev2 and eth2 both give tun2.
std::string port_device(const Json::Value& element) {
    const std::string slave = text_of(element, "slave");
    const bool swdev = slave.find("swdev") != std::string::npos;
    const std::size_t cut = swdev ? 5 : 3;
    return slave.size() > cut ? "tun" + slave.substr(cut) : std::string();
}

constexpr Kind kKinds[] = {
    {"tun", "IPv4 overlay tunnels of the WAN links",
     [](int op, TunnelOptions& o) { return setup_tun(op, o.ifname, o.source, o.queues); },
     get_available_wan_info, [](const std::string&, const Json::Value& e) { return wan_device("tun", e); },
     true},
    {"tun6", "IPv6 overlay tunnels of the WAN links",
     [](int op, TunnelOptions& o) { return setup_tun6(op, o.ifname, o.source, o.queues); },
     get_available_wan_info,
     [](const std::string&, const Json::Value& e) {
         return text_of(e, "ip6_addr").empty() ? std::string() : wan_device("ip6tun", e);
     },
     true},
    {"private", "Private links",
     [](int op, TunnelOptions& o) { return setup_private(op, o.ifname, o.source); },
     get_available_private_info, [](const std::string&, const Json::Value& e) { return port_device(e); },
     false},
    {"rglink", "Regional links",
     [](int op, TunnelOptions& o) { return setup_rglink(op, o.ifname, o.source); }, get_available_rglink_info,
     [](const std::string&, const Json::Value& e) { return port_device(e); }, false},
};

bool selected(const TunnelOptions& options, const std::string& name, const Json::Value& element) {
    return options.ifname.empty() || options.ifname == "all" || options.ifname == name ||
           options.ifname == text_of(element, "slave");
}

// The setup functions return 0 whatever became of a single link, so the verdict is taken from the kernel.
Outcome set_up(const Kind& kind, int op, TunnelOptions& options) {
    Outcome outcome = from_code(kind.setup(op, options));
    if (!outcome.ok()) return outcome;
    Elements elements;
    outcome.code = kind.elements(elements, options.source, 1);
    if (!outcome.ok()) return outcome;

    outcome.data["links"] = Json::Value(Json::arrayValue);
    std::size_t count = 0;
    std::string wrong;
    for (const auto& [name, element] : elements) {
        const std::string device = kind.device(name, element);
        if (device.empty() || !selected(options, name, element)) continue;
        ++count;
        const LinkView link = view_link(device);
        Json::Value entry = to_json(link);
        entry["ifname"] = name;
        outcome.data["links"].append(entry);
        outcome.lines.push_back(name + " -> " + to_line(link));
        const bool as_asked = op == 0 ? link.up && !link.addresses.empty() : !link.exists();
        if (!as_asked) wrong += (wrong.empty() ? "" : ", ") + device;
    }
    if (count == 0) {
        outcome.failure = "the network information service reports no such link: " + options.ifname;
    } else if (!wrong.empty()) {
        outcome.failure = std::string("not ") + (op == 0 ? "up with an address" : "removed") + ": " + wrong;
    }
    return outcome;
}

void add_kind(CLI::App& app, Context& context, const Kind& kind) {
    auto* family = app.add_subcommand(kind.verb, kind.help);
    family->require_subcommand(1);
    auto options = std::make_shared<TunnelOptions>();
    for (const int op : {0, 1}) {
        auto* command = family->add_subcommand(op == 0 ? "up" : "down", op == 0 ? "Create" : "Delete");
        command->add_option("ifname", options->ifname, "Interface of the link, or all")
            ->capture_default_str();
        command->add_option("--source", options->source, "Document that the interface lists come from")
            ->capture_default_str();
        if (kind.has_queues)
            command->add_option("--queues", options->queues, "Transmit queues; 0: one per online processor")
                ->capture_default_str();
        context.on(command, [&kind, op, options] { return set_up(kind, op, *options); });
    }
    if (std::string(kind.verb) != "rglink") return;
    auto number = std::make_shared<int>(0);
    auto* ping = family->add_subcommand("ping", "One echo over regional link N to its far end");
    ping->add_option("n", *number, "Number of the link: 2 is RGLINK2 on swdev2")->required();
    context.on(ping, [number] {
        Outcome outcome = from_code(Start_rglink_ping_test(*number));
        if (outcome.ok()) outcome.lines.push_back("RGLINK" + std::to_string(*number) + ": answered");
        return outcome;
    });
}

}  // namespace

void add_tunnel_verbs(CLI::App& app, Context& context) {
    for (const auto& kind : kKinds) add_kind(app, context, kind);
}

}  // namespace corvoctl
