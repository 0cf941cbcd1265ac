// corvoctl util: the helpers of the library that an operator has a use for.
#include <corvosetup/utils.h>

#include <memory>

#include "ctl/app.h"

namespace corvoctl {

namespace {

struct UtilArguments {
    std::string text;
    int first = 0;
    int second = 0;
};

Outcome load() {
    Outcome outcome;
    outcome.data["cpu"] = get_cpu_usage();
    outcome.data["memory"] = get_mem_usage();
    outcome.data["wan_ports"] = get_wan_port_num();
    outcome.data["ipsec_tunnels"] = get_ipsec_intalled_num();
    for (const auto& name : outcome.data.getMemberNames())
        outcome.lines.push_back(name + ": " + outcome.data[name].asString());
    return outcome;
}

}  // namespace

void add_util_verbs(CLI::App& app, Context& context) {
    auto* family = app.add_subcommand("util", "Figures and small helpers");
    family->require_subcommand(1);
    context.on(
        family->add_subcommand("load", "What this device tells in UDP answers: load, WANs, IPsec tunnels"),
        load);

    auto tunnel = std::make_shared<UtilArguments>();
    auto* address = family->add_subcommand("tun-addr", "The tunnel address of a device's port");
    address->add_option("device", tunnel->first, "Device id")->required()->check(CLI::PositiveNumber);
    address->add_option("port", tunnel->second, "Number of the port")
        ->required()
        ->check(CLI::NonNegativeNumber);
    context.on(address, [tunnel] {
        Outcome outcome;
        std::string text;
        gen_tun_addr4(tunnel->first, tunnel->second, text);
        outcome.data["address"] = text;
        outcome.lines.push_back(text);
        return outcome;
    });

    auto network = std::make_shared<UtilArguments>();
    auto* net = family->add_subcommand("network", "The network of an address");
    net->add_option("address", network->text, "IPv4 address")->required()->check(CLI::ValidIPV4);
    net->add_option("length", network->first, "Prefix length")->required()->check(CLI::Range(1, 32));
    context.on(net, [network] {
        std::string text = network->text;
        Outcome outcome = from_code(network_addr(text, static_cast<unsigned>(network->first)));
        outcome.data["network"] = text;
        if (outcome.ok()) outcome.lines.push_back(text);
        return outcome;
    });

    auto cpus = std::make_shared<UtilArguments>();
    auto* spread = family->add_subcommand("cpus", "Spread the queues of an interface over the processors");
    spread->add_option("dev", cpus->text, "The interface")->required();
    context.on(spread, [cpus] { return from_code(setup_cpus(cpus->text)); });

    auto nat = std::make_shared<UtilArguments>();
    auto* flush = family->add_subcommand("flush-nat", "Forget the translated connections of a WAN address");
    flush->add_option("address", nat->text, "The WAN's IPv4 address")->required()->check(CLI::ValidIPV4);
    context.on(flush, [nat] {
        conntrack_flush_wan_nat(nat->text);
        return Outcome{};
    });
}

}  // namespace corvoctl
