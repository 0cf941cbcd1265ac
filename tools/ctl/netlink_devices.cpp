// corvoctl netlink ipip, sit, qdisc, class, filter: tunnel devices and traffic-control objects, one each.
#include <arpa/inet.h>
#include <corvosetup/link.h>
#include <corvosetup/tc.h>
#include <corvosetup/utils.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "ctl/app.h"
#include "ctl/kernel_view.h"

namespace corvoctl {

namespace {

struct Tunnel {
    std::string dev;
    std::string local;
    std::string remote = "0.0.0.0";
    int queues = 0;
    int ttl = 0;
    int port = 5555;
};

template <std::size_t N>
void copy(char (&field)[N], const std::string& text) {
    std::memcpy(field, text.c_str(), std::min(text.size() + 1, N - 1));
}

Outcome run_ipip(int op, const Tunnel& wanted) {
    ipip_conf record{};
    copy(record.name, wanted.dev);
    copy(record.local, wanted.local);
    copy(record.remote, wanted.remote);
    record.queues = wanted.queues;
    record.ttl = static_cast<unsigned char>(wanted.ttl);
    record.sport = static_cast<unsigned short>(wanted.port);
    record.dport = wanted.port;
    return link_outcome(wanted.dev, edit_ipip_tunnel(op, &record));
}

Outcome run_sit(int op, const Tunnel& wanted) {
    sit_conf record{};
    copy(record.name, wanted.dev);
    copy(record.local, wanted.local);
    copy(record.remote, wanted.remote);
    record.queues = wanted.queues;
    record.ttl = static_cast<unsigned char>(wanted.ttl);
    return link_outcome(wanted.dev, edit_sit_tunnel(op, &record));
}

void add_tunnel(CLI::App& family, Context& context, const char* kind, const char* help,
                Outcome (*run)(int op, const Tunnel& wanted)) {
    auto* group = family.add_subcommand(kind, help);
    group->require_subcommand(1);
    for (const int op : {0, 1}) {
        auto wanted = std::make_shared<Tunnel>();
        auto* command = group->add_subcommand(op == 0 ? "add" : "del", op == 0 ? "Create" : "Delete");
        command->add_option("dev", wanted->dev, "Name of the device")->required()->check(device_name());
        context.on(command, [op, run, wanted] { return run(op, *wanted); });
        if (op == 1) continue;
        command->add_option("--local", wanted->local, "Outer source address")
            ->required()
            ->check(CLI::ValidIPV4);
        command->add_option("--remote", wanted->remote, "Outer destination address; 0.0.0.0: any peer")
            ->check(CLI::ValidIPV4)
            ->capture_default_str();
        command->add_option("--queues", wanted->queues, "Transmit and receive queues");
        command->add_option("--ttl", wanted->ttl, "Outer TTL; 0: that of the packet inside")
            ->check(CLI::Range(0, 255));
        if (std::string(kind) == "ipip")
            command->add_option("--port", wanted->port, "UDP port of the encapsulation")
                ->check(CLI::Range(1, 65535))
                ->capture_default_str();
    }
}

// The library takes a handle that it cannot read for a reason to do nothing and to report success.
CLI::Validator handle(bool words) {
    return CLI::Validator(
        [words](std::string& text) -> std::string {
            if (words && (text == "root" || text == "ingress")) return {};
            const auto colon = text.find(':');
            const bool good = text.size() > 1 && colon != std::string::npos && colon <= 4 &&
                              text.size() - colon <= 5 &&
                              text.find_first_not_of("0123456789abcdef:") == std::string::npos &&
                              text.find(':', colon + 1) == std::string::npos;
            return good ? std::string() : "not of the form MAJOR:MINOR in hexadecimal: " + text;
        },
        "HANDLE");
}

struct Object {
    std::string dev;
    std::string parent;
    std::string id;
    std::string kind = "htb";
    std::string target;
    tc_options options{};
};

CLI::App* object_command(CLI::App& group, const char* name, const char* help, Object& object) {
    auto* command = group.add_subcommand(name, help);
    command->add_option("dev", object.dev, "Name of the device")->required()->check(device_name());
    return command;
}

void add_qdisc(CLI::App& family, Context& context) {
    auto* group = family.add_subcommand("qdisc", "Queueing disciplines");
    group->require_subcommand(1);
    auto added = std::make_shared<Object>();
    auto* add = object_command(*group, "add", "Add one; refused when one is there", *added);
    add->add_option("parent", added->parent, "root, or the class above")->required()->check(handle(true));
    add->add_option("handle", added->id, "Its handle, such as 1:")->required()->check(handle(false));
    add->add_option("--kind", added->kind, "Kind of qdisc")->capture_default_str();
    add->add_option("--default", added->options.defcls,
                    "htb: minor of the class for unmarked traffic (0x.. or decimal)");
    context.on(add, [added] {
        tc_options* options = added->kind == "htb" ? &added->options : nullptr;
        return from_code(setup_qdisc(added->dev.c_str(), added->parent.c_str(), added->id.c_str(),
                                     added->kind.c_str(), options));
    });
    auto gone = std::make_shared<Object>();
    auto* del = object_command(*group, "del", "Delete what hangs there", *gone);
    del->add_option("parent", gone->parent, "root, ingress, or a class")->required()->check(handle(true));
    context.on(del, [gone] { return from_code(clean_qdisc(gone->dev.c_str(), gone->parent.c_str())); });
    auto limited = std::make_shared<Object>();
    auto* ingress =
        object_command(*group, "ingress", "Add the ingress qdisc, and send IPv4 to another device", *limited);
    ingress->add_option("redirect", limited->target, "That device")->required()->check(device_name());
    context.on(ingress, [limited] {
        const int code = setup_qdisc_ingress(limited->dev.c_str(), limited->target.c_str(), 0x800);
        return from_code(
            code != 0 ? code
                      : setup_qdisc_ingress_filter(limited->dev.c_str(), limited->target.c_str(), 0x800));
    });
}

void add_class(CLI::App& family, Context& context) {
    auto* group = family.add_subcommand("class", "HTB classes");
    group->require_subcommand(1);
    auto object = std::make_shared<Object>();
    auto* add = object_command(*group, "add", "Add one; refused when it is there", *object);
    add->add_option("parent", object->parent, "The qdisc or class above")->required()->check(handle(false));
    add->add_option("classid", object->id, "Its id, such as 1:10")->required()->check(handle(false));
    add->add_option("--rate", object->options.rate, "Guaranteed, bytes/s")
        ->required()
        ->check(CLI::PositiveNumber);
    add->add_option("--ceil", object->options.ceil, "With what may be borrowed, bytes/s")
        ->required()
        ->check(CLI::PositiveNumber);
    add->add_option("--prio", object->options.prio, "Who borrows first: the lower");
    context.on(add, [object] {
        return from_code(setup_class(object->dev.c_str(), object->parent.c_str(), object->id.c_str(), "htb",
                                     &object->options));
    });
}

struct Match {
    Object object;
    std::string saddr;
    std::string daddr;
    std::string smac;
    std::string dmac;
    U32QoSObj record{};
};

// "ADDRESS" or "ADDRESS/LENGTH", in network order.
void fill_network(const std::string& text, uint32_t& address, uint32_t& mask) {
    if (text.empty()) return;
    const auto slash = text.find('/');
    address = ::inet_addr(text.substr(0, slash).c_str());
    mask = prefix_to_network(
        slash == std::string::npos ? 32 : static_cast<unsigned>(std::atoi(text.c_str() + slash + 1)));
}

Outcome run_u32(Match match) {
    fill_network(match.saddr, match.record.saddr, match.record.smask);
    fill_network(match.daddr, match.record.daddr, match.record.dmask);
    for (auto& [text, bytes] :
         {std::pair{match.smac, match.record.smac}, std::pair{match.dmac, match.record.dmac}})
        if (!text.empty() && str2mac(text, reinterpret_cast<char*>(bytes)) != 0)
            throw CLI::ValidationError("MAC address", "not six octets in hexadecimal: " + text);
    return from_code(setup_u32_filter(match.object.dev.c_str(), match.object.parent.c_str(),
                                      match.object.id.c_str(), &match.record));
}

void add_filter(CLI::App& family, Context& context) {
    auto* group = family.add_subcommand("filter", "Classifiers of an HTB tree");
    group->require_subcommand(1);
    auto object = std::make_shared<Object>();
    auto* fw = object_command(*group, "fw", "By packet mark under 0x3c0", *object);
    fw->add_option("parent", object->parent, "The qdisc, such as 1:")->required()->check(handle(false));
    fw->add_option("mark", object->target, "The mark, such as :40")->required()->check(handle(false));
    fw->add_option("classid", object->id, "Where to")->required()->check(handle(false));
    context.on(fw, [object] {
        return from_code(setup_fw_filter(object->dev.c_str(), object->parent.c_str(), object->target.c_str(),
                                         object->id.c_str()));
    });
    auto match = std::make_shared<Match>();
    match->record.protocol = 0x800;
    auto* u32 = object_command(*group, "u32", "By addresses and ports", match->object);
    u32->add_option("parent", match->object.parent, "The qdisc, such as 1:")
        ->required()
        ->check(handle(false));
    u32->add_option("classid", match->object.id, "Where to")->required()->check(handle(false));
    u32->add_option("--prio", match->record.prio, "Priority; 0: the kernel chooses");
    u32->add_option("--from", match->saddr, "Source ADDRESS[/LENGTH]");
    u32->add_option("--to", match->daddr, "Destination ADDRESS[/LENGTH]");
    u32->add_option("--smac", match->smac, "Source MAC address");
    u32->add_option("--dmac", match->dmac, "Destination MAC address");
    u32->add_option("--sport", match->record.sport, "Source port")->check(CLI::Range(0, 65535));
    u32->add_option("--dport", match->record.dport, "Destination port")->check(CLI::Range(0, 65535));
    u32->add_option("--protocol", match->record.protocol, "Ethertype")->capture_default_str();
    context.on(u32, [match] { return run_u32(*match); });
}

}  // namespace

CLI::Validator device_name() {
    return CLI::Validator(
        [](std::string& text) -> std::string {
            const bool good = !text.empty() && text.size() < 16 && text.find('/') == std::string::npos;
            return good ? std::string() : "no name of a device (1 to 15 characters): " + text;
        },
        "DEV");
}

Outcome link_outcome(const std::string& dev, int code) {
    Outcome outcome = from_code(code);
    const LinkView link = view_link(dev);
    outcome.data["link"] = to_json(link);
    outcome.lines.push_back(to_line(link));
    return outcome;
}

void add_netlink_device_verbs(CLI::App& family, Context& context) {
    add_tunnel(family, context, "ipip", "IPv4 tunnel devices in UDP (GUE)", run_ipip);
    add_tunnel(family, context, "sit", "IPv6-in-IPv4 tunnel devices", run_sit);
    add_qdisc(family, context);
    add_class(family, context);
    add_filter(family, context);
}

}  // namespace corvoctl
