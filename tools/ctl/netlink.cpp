// corvoctl netlink: the plain functions of the netlink layer, one operation each.
#include <corvosetup/link.h>
#include <corvosetup/routing.h>
#include <corvosetup/tc.h>
#include <corvosetup/utils.h>

#include <cstring>
#include <memory>

#include "ctl/app.h"
#include "ctl/kernel_view.h"

namespace corvoctl {

namespace {

// A text that does not fit its record field is refused here: cut, it could become another valid address.
template <std::size_t N>
void fill(char (&field)[N], const std::string& text, const char* what) {
    if (text.size() >= N)
        throw CLI::ValidationError(what, "longer than " + std::to_string(N - 1) + " characters");
    std::memcpy(field, text.c_str(), text.size() + 1);
}

struct Names {
    std::string dev;
    std::string address;
    int queues = 0;
};

CLI::App* group(CLI::App& parent, const char* name, const char* help) {
    auto* command = parent.add_subcommand(name, help);
    command->require_subcommand(1);
    return command;
}

void add_links(CLI::App& family, Context& context) {
    auto* dummy = group(family, "dummy", "Dummy devices");
    for (const int op : {0, 1}) {
        auto names = std::make_shared<Names>();
        auto* command = dummy->add_subcommand(op == 0 ? "add" : "del", op == 0 ? "Create" : "Delete");
        command->add_option("dev", names->dev, "Name of the device")->required();
        if (op == 0) command->add_option("--queues", names->queues, "Transmit and receive queues");
        context.on(command, [op, names] {
            return link_outcome(names->dev, edit_dummy(op, names->dev.c_str(), names->queues));
        });
    }
    auto* fou = group(family, "fou", "The UDP port on which encapsulated packets arrive (5555)");
    const char* const words[] = {"add", "del"};
    for (const int op : {0, 1}) {
        context.on(fou->add_subcommand(words[op], op == 0 ? "Open the port" : "Close the port"),
                   [op] { return from_code(edit_fou(op)); });
    }
    auto* link = group(family, "link", "Flags of a device");
    for (const bool up : {true, false}) {
        auto names = std::make_shared<Names>();
        auto* command = link->add_subcommand(up ? "up" : "down", up ? "Set IFF_UP" : "Clear IFF_UP");
        command->add_option("dev", names->dev, "Name of the device")->required();
        context.on(command, [up, names] {
            const int index = get_ifindex(names->dev.c_str());
            return link_outcome(names->dev, up ? set_dev_flags(index, 1) : unset_dev_flags(index, 1));
        });
    }
    auto names = std::make_shared<Names>();
    auto* show = link->add_subcommand("show", "What the kernel holds");
    show->add_option("dev", names->dev, "Name of the device")->required();
    context.on(show,
               [names] { return link_outcome(names->dev, view_link(names->dev).exists() ? 0 : -3005); });
}

void add_addresses(CLI::App& family, Context& context) {
    auto* addr = group(family, "addr", "Addresses of a device");
    auto names = std::make_shared<Names>();
    auto* add = addr->add_subcommand("add", "Add or replace an address");
    add->add_option("dev", names->dev, "Name of the device")->required();
    add->add_option("address", names->address, "IPv4 or IPv6 address, with an optional prefix length")
        ->required();
    context.on(add, [names] {
        const int index = get_ifindex(names->dev.c_str());
        const bool v6 = names->address.find(':') != std::string::npos;
        return link_outcome(names->dev, v6 ? set_ipv6_addr(index, names->address.c_str())
                                           : set_ipv4_addr(index, names->address.c_str()));
    });
    auto flushed = std::make_shared<Names>();
    auto* flush = addr->add_subcommand("flush", "Delete every IPv4 address");
    flush->add_option("dev", flushed->dev, "Name of the device")->required();
    context.on(flush, [flushed] {
        return link_outcome(flushed->dev, flush_ipv4_addr(get_ifindex(flushed->dev.c_str())));
    });
}

struct RouteOptions {
    std::string dst;
    int table = 0;
    int metric = 0;
    int mtu = 0;
    int advmss = 0;
    int lock = 0;
    std::vector<std::string> hops;  // address@dev or address@dev@weight
    bool onlink = false;
};

std::vector<std::string> split(const std::string& text, char at) {
    std::vector<std::string> parts(1);
    for (const char c : text) {
        if (c == at)
            parts.emplace_back();
        else
            parts.back().push_back(c);
    }
    return parts;
}

template <class Record>
void fill_record(const RouteOptions& options, Record& record) {
    const auto parts = split(options.dst, '/');
    fill(record.dst, parts[0] == "default" ? "" : parts[0], "destination");
    record.prefixlen = parts.size() > 1 ? std::atoi(parts[1].c_str()) : 0;
    record.table = options.table;
    record.priority = options.metric;
    record.mtu = options.mtu;
    record.advmss = options.advmss;
    record.lock = options.lock;
}

template <class Hop>
void fill_hop(Hop& hop, const std::string& text, const RouteOptions& options) {
    const auto parts = split(text, '@');
    fill(hop.gw, parts[0], "next hop");
    if (parts.size() > 1) fill(hop.dev, parts[1], "device");
    if (parts.size() > 2) hop.weight = std::atoi(parts[2].c_str());
    if constexpr (requires { hop.onlink; }) hop.onlink = options.onlink;
}

Outcome run_route(int op, const RouteOptions& options, bool ipv6) {
    Outcome outcome;
    const auto run = [&](auto& record, auto add_hop, auto free_hops, auto edit) {
        fill_record(options, record);
        for (const auto& text : options.hops) fill_hop(*add_hop(&record.nexthops), text, options);
        outcome.lines = captured_stdout([&] { outcome.code = edit(op, &record); });
        free_hops(record.nexthops);
    };
    if (ipv6) {
        route6_conf record{};
        run(record, add_nexthop6, free_nexthop6, edit_route6);
    } else {
        route_conf record{};
        run(record, add_nexthop, free_nexthop, edit_route);
    }
    for (const auto& line : outcome.lines) outcome.data["objects"].append(line);
    return outcome;
}

constexpr const char* kOps[] = {"add", "del", "flush", "show"};

void add_routes(CLI::App& family, Context& context) {
    auto* route = group(family, "route", "Routes");
    for (int op = 0; op < 4; ++op) {
        auto options = std::make_shared<RouteOptions>();
        auto ipv6 = std::make_shared<bool>(false);
        auto* command = route->add_subcommand(kOps[op], "");
        command->add_option("dst", options->dst, "Destination with prefix length, or default");
        // Without a table a flush would reach the kernel's own local table.
        command->add_option("--table", options->table, "Routing table")->required();
        command->add_option("--metric", options->metric, "Priority");
        command->add_flag("-6,--ipv6", *ipv6, "IPv6");
        if (op < 2) {
            command->add_option("--via", options->hops,
                                "Next hop: ADDRESS@DEV or ADDRESS@DEV@WEIGHT, repeatable");
            command->add_option("--mtu", options->mtu, "MTU");
            command->add_option("--advmss", options->advmss, "Advertised MSS");
            command->add_option("--lock", options->lock, "Mask of locked metrics");
            command->add_flag("--onlink", options->onlink, "Next hops are on the link");
        }
        context.on(command, [op, options, ipv6] { return run_route(op, *options, *ipv6); });
    }
}

struct RuleOptions {
    uint32_t prio = 0;
    uint32_t table = 0;
    uint32_t mark = 0;
    uint32_t mask = 0;
    std::string src;
    std::string oif;
    bool ipv6 = false;
};

template <class Record>
Outcome run_rule(int op, const RuleOptions& options, int (*edit)(int, Record*)) {
    Record record{};
    record.prio = options.prio;
    record.table = options.table;
    record.mark = options.mark;
    record.mask = options.mask;
    fill(record.src, options.src, "source");
    fill(record.oif, options.oif, "interface");
    Outcome outcome;
    outcome.lines = captured_stdout([&] { outcome.code = edit(op, &record); });
    for (const auto& line : outcome.lines) outcome.data["objects"].append(line);
    return outcome;
}

void add_rules(CLI::App& family, Context& context) {
    auto* rule = group(family, "rule", "Policy rules");
    for (int op = 0; op < 4; ++op) {
        auto options = std::make_shared<RuleOptions>();
        auto* command = rule->add_subcommand(kOps[op], "");
        auto* prio = command->add_option("--prio", options->prio, "Priority");
        // Nothing set matches every rule, the kernel's own included.
        if (op != 3) prio->required()->check(CLI::PositiveNumber);
        command->add_option("--table", options->table, "Table to look up");
        command->add_option("--mark", options->mark, "Packet mark");
        command->add_option("--mask", options->mask, "Mask of the mark");
        command->add_option("--from", options->src, "Source address");
        command->add_option("--oif", options->oif, "Outgoing interface");
        command->add_flag("-6,--ipv6", options->ipv6, "IPv6");
        context.on(command, [op, options] {
            return options->ipv6 ? run_rule<rule6_conf>(op, *options, edit_rule6)
                                 : run_rule<rule_conf>(op, *options, edit_rule);
        });
    }
}

void add_queue_status(CLI::App& family, Context& context) {
    auto names = std::make_shared<Names>();
    auto* command =
        family.add_subcommand("queues", "Queue lengths, rates and ceilings of a device's HTB tree");
    command->add_option("dev", names->dev, "Name of the device")->required();
    context.on(command, [names] {
        Outcome outcome;
        outcome.data["queues"] = Json::Value(Json::arrayValue);
        const std::unique_ptr<tqs_link, void (*)(tqs_link*)> head(get_tx_queue_status(names->dev.c_str()),
                                                                  free_tqs_head);
        if (!head) {
            outcome.code = -3005;
            return outcome;
        }
        for (const tqs_link* at = head->next; at != head.get(); at = at->next) {
            const auto* entry = reinterpret_cast<const tqs_entry*>(reinterpret_cast<const char*>(at) -
                                                                   offsetof(tqs_entry, links));
            Json::Value item(Json::objectValue);
            item["handle"] = entry->handle;
            item["qlen"] = Json::UInt64(entry->qlen);
            item["rate"] = Json::UInt64(entry->rate);
            item["htb_rate"] = Json::UInt64(entry->htb_rate);
            item["ceil"] = Json::UInt64(entry->ceil);
            item["utilisation"] = entry->utilisation;
            outcome.data["queues"].append(item);
            outcome.lines.push_back(std::string(entry->handle) + " qlen " + std::to_string(entry->qlen) +
                                    " rate " + std::to_string(entry->rate) + " of " +
                                    std::to_string(entry->htb_rate) + ", ceil " +
                                    std::to_string(entry->ceil) + " bit/s");
        }
        return outcome;
    });
}

}  // namespace

void add_netlink_verbs(CLI::App& app, Context& context) {
    auto* family = group(app, "netlink", "One operation of the netlink layer");
    add_links(*family, context);
    add_addresses(*family, context);
    add_routes(*family, context);
    add_rules(*family, context);
    add_queue_status(*family, context);
    add_netlink_device_verbs(*family, context);
}

}  // namespace corvoctl
