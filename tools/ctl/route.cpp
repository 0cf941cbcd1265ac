// corvoctl route, rule: route documents, default tables and the rules that lead to them.
#include <corvosetup/privatelink.h>
#include <corvosetup/rglink.h>
#include <corvosetup/tun.h>
#include <corvosetup/tun6.h>

#include "ctl/app.h"

namespace corvoctl {

namespace {

struct DocumentOptions {
    std::string ifname = "all";
    std::string file;
};

// A route type, and the function that applies a document of it.
struct RouteType {
    const char* name;
    const char* help;
    bool per_link;
    int (*apply)(std::string& ifname, std::string& type, std::string& file);
};

int apply6(std::string&, std::string& type, std::string& file) {
    return setup_tun_route6(type, file);
}
int apply_regional(std::string&, std::string& type, std::string& file) {
    return setup_regional_route(type, file);
}

constexpr RouteType kTypes[] = {
    {"s2s", "Site-to-site routes of the WAN tunnels", true, setup_tun_route},
    {"static", "Static routes of the WAN tunnels", true, setup_tun_route},
    {"mptcp", "MPTCP routes of the WAN tunnels", true, setup_tun_route},
    {"default", "Default-table routes of the WAN tunnels", true, setup_tun_route},
    {"s2s6", "Site-to-site routes of the IPv6 tunnels", false, apply6},
    {"mptcp6", "MPTCP routes of the IPv6 tunnels", false, apply6},
    {"default6", "Default-table routes of the IPv6 tunnels", false, apply6},
    {"private_s2s", "Site-to-site routes of the private links", true, setup_private_route},
    {"private_static", "Static routes of the private links", true, setup_private_route},
    {"private_mptcp", "MPTCP routes of the private links", true, setup_private_route},
    {"private_default", "Default-table routes of the private links", true, setup_private_route},
    {"regional", "Routes of the regional links", false, apply_regional},
};

void add_type(CLI::App& family, Context& context, const RouteType& type) {
    auto options = std::make_shared<DocumentOptions>();
    auto* command = family.add_subcommand(type.name, type.help);
    if (type.per_link)
        command->add_option("ifname", options->ifname, "Interface of the link, or all")->required();
    command->add_option("file", options->file, "Route document with \"del\" and \"add\" lists")->required();
    context.on(command, [&type, options] {
        std::string name = type.name;
        return from_code(type.apply(options->ifname, name, options->file));
    });
}

void add_flush(CLI::App& family, Context& context, const char* name, const char* help,
               int (*flush)(int, std::string)) {
    auto options = std::make_shared<DocumentOptions>();
    auto* command = family.add_subcommand(name, help);
    command->add_option("ifname", options->ifname, "Interface of the link, or all")->required();
    context.on(command, [flush, options] { return from_code(flush(2, options->ifname)); });
}

}  // namespace

void add_route_verbs(CLI::App& app, Context& context) {
    auto* route = app.add_subcommand("route", "Apply a route document, or flush a default table");
    route->require_subcommand(1);
    for (const auto& type : kTypes) add_type(*route, context, type);
    add_flush(*route, context, "flush-default", "Flush the default table of WAN tunnels",
              setup_tun_mptcp_default_route);
    add_flush(*route, context, "flush-private-default",
              "Flush the default table that all private links share", setup_private_mptcp_default_route);

    auto* rule =
        app.add_subcommand("rule", "The rule that sends a tunnel's remaining traffic to its default table");
    rule->require_subcommand(1);
    for (const int op : {0, 1}) {
        auto options = std::make_shared<DocumentOptions>();
        auto ipv6 = std::make_shared<bool>(false);
        auto* command =
            rule->add_subcommand(op == 0 ? "add" : "del", op == 0 ? "Add the rule" : "Delete the rule");
        command->add_option("ifname", options->ifname, "Interface of the link, or all")->required();
        command->add_flag("-6,--ipv6", *ipv6, "Of the IPv6 tunnel");
        context.on(command, [op, options, ipv6] {
            return from_code(*ipv6 ? setup_tuni6_mptcp_default_rule(op, options->ifname)
                                   : setup_tun_mptcp_default_rule(op, options->ifname));
        });
    }
}

}  // namespace corvoctl
