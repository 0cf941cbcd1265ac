// corvoctl qos, lan-qos: traffic shaping.
#include <corvosetup/lan_qos.h>
#include <corvosetup/qos.h>

#include "ctl/app.h"

namespace corvoctl {

namespace {

constexpr const char* kOperations[] = {"start", "stop", "restart"};
constexpr const char* kHelp[] = {"Build the trees", "Remove the trees", "Remove and build again"};

struct ShapingOptions {
    std::string dev = "all";
    std::string conf;
    std::string device_info;
    bool tunnels = false;
};

}  // namespace

void add_shaping_verbs(CLI::App& app, Context& context) {
    auto* qos = app.add_subcommand("qos", "Shaping of WAN interfaces, both directions");
    auto* lan = app.add_subcommand("lan-qos", "Shaping of LAN ports per host group");
    qos->require_subcommand(1);
    lan->require_subcommand(1);
    for (int op = 0; op < 3; ++op) {
        auto wan_options = std::make_shared<ShapingOptions>();
        auto* command = qos->add_subcommand(kOperations[op], kHelp[op]);
        command->add_option("dev", wan_options->dev, "Interface, or all")->capture_default_str();
        command->add_option("--device-info", wan_options->device_info,
                            "Device document (default: the device's own)");
        command->add_flag("--tun", wan_options->tunnels, "Shape the tunnel devices instead");
        context.on(command, [op, wan_options] {
            return from_code(setup_qos(op, wan_options->dev, wan_options->device_info, wan_options->tunnels));
        });

        auto lan_options = std::make_shared<ShapingOptions>();
        command = lan->add_subcommand(kOperations[op], kHelp[op]);
        command->add_option("dev", lan_options->dev, "LAN interface, or all")->capture_default_str();
        command->add_option("--conf", lan_options->conf, "LAN QoS document (default: the device's own)");
        command->add_option("--device-info", lan_options->device_info,
                            "Device document (default: the device's own)");
        context.on(command, [op, lan_options] {
            return from_code(
                setup_lan_qos(op, lan_options->dev, lan_options->conf, lan_options->device_info));
        });
    }
}

}  // namespace corvoctl
