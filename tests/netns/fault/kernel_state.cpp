#include "kernel_state.h"

#include <arpa/inet.h>
#include <linux/fib_rules.h>
#include <linux/if_addr.h>
#include <linux/if_link.h>
#include <linux/netlink.h>
#include <linux/pkt_cls.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <functional>
#include <iterator>
#include <set>
#include <utility>

#include "rtnetlink.h"
#include "support/sandbox.h"

namespace corvo::test {

namespace {

std::string hex(const void* data, std::size_t size) {
    static const char* const kDigits = "0123456789abcdef";
    std::string text;
    for (std::size_t i = 0; i < size; ++i) {
        const unsigned char byte = static_cast<const unsigned char*>(data)[i];
        text += kDigits[byte >> 4];
        text += kDigits[byte & 15];
    }
    return text;
}

using Names = std::map<unsigned, std::string>;
std::string name_in(const Names& names, unsigned index) {
    const auto found = names.find(index);
    return found != names.end() ? found->second : std::to_string(index);
}

// The attributes behind the header of `header` bytes, by `text`, which gives nothing for what is left out.
using AttributeText = std::function<std::string(const rtattr&)>;
std::string attributes(const nlmsghdr* message, std::size_t header, const AttributeText& text) {
    std::string all;
    auto left = static_cast<int>(message->nlmsg_len - NLMSG_LENGTH(header));
    auto* attribute =
        reinterpret_cast<const rtattr*>(static_cast<const char*>(NLMSG_DATA(message)) + NLMSG_ALIGN(header));
    for (; RTA_OK(attribute, left); attribute = RTA_NEXT(attribute, left)) {
        const std::string one = text(*attribute);
        if (!one.empty()) all += " " + std::to_string(attribute->rta_type & NLA_TYPE_MASK) + "=" + one;
    }
    return all;
}

std::string value_of(const rtattr& attribute) {
    return hex(RTA_DATA(&attribute), RTA_PAYLOAD(&attribute));
}
unsigned number_of(const rtattr& attribute) {
    unsigned value = 0;
    std::memcpy(&value, RTA_DATA(&attribute), std::min(sizeof value, RTA_PAYLOAD(&attribute)));
    return value;
}

template <class T>
const T& body(const nlmsghdr* message) {
    return *static_cast<const T*>(NLMSG_DATA(message));
}

// Tables and priorities of links that have no number of their own are counted by the index of the device,
// which is another one each time that it is made.
std::string table_of(const rtattr& attribute, const Names& names) {
    const unsigned number = number_of(attribute);
    for (const unsigned base : {10000U, 15000U, 20000U, 30000U})
        if (number > base && names.count(number - base) != 0)
            return std::to_string(base) + "+" + names.at(number - base);
    return value_of(attribute);
}

// All links, without their counters, which are most of the message.
struct LinkRequest {
    ifinfomsg link;
    rtattr mask;
    std::uint32_t left_out;
};
const LinkRequest kLinks{{}, {RTA_LENGTH(sizeof(std::uint32_t)), IFLA_EXT_MASK}, RTEXT_FILTER_SKIP_STATS};

std::string link_line(const nlmsghdr* message, Names& names) {
    const auto& link = body<ifinfomsg>(message);
    std::string& name = names[static_cast<unsigned>(link.ifi_index)];
    const std::string values = attributes(message, sizeof link, [&](const rtattr& attribute) {
        switch (attribute.rta_type) {
            case IFLA_IFNAME:
                name = static_cast<const char*>(RTA_DATA(&attribute));
                return std::string();
            case IFLA_MTU:
            case IFLA_NUM_TX_QUEUES:
            case IFLA_NUM_RX_QUEUES:
                return value_of(attribute);
            default:
                return std::string();
        }
    });
    // What the administrator sets, not what the carrier does (IFF_RUNNING, IFF_LOWER_UP, IFF_DORMANT).
    const unsigned flags = link.ifi_flags & ~(unsigned{IFF_RUNNING} | 0x10000U | 0x20000U);
    return name + " flags " + std::to_string(flags) + values;
}

std::string address_line(const nlmsghdr* message, const Names& names) {
    const auto& address = body<ifaddrmsg>(message);
    return name_in(names, address.ifa_index) + "/" + std::to_string(address.ifa_prefixlen) +
           attributes(message, sizeof address, [](const rtattr& attribute) {
               return attribute.rta_type == IFA_CACHEINFO || attribute.rta_type == IFA_FLAGS
                          ? std::string()
                          : value_of(attribute);
           });
}

std::string route_line(const nlmsghdr* message, const Names& names) {
    const auto& route = body<rtmsg>(message);
    // Those of the local table follow the addresses, some time later.
    if ((route.rtm_flags & RTM_F_CLONED) != 0 || route.rtm_table == RT_TABLE_LOCAL) return {};
    const unsigned flags = route.rtm_flags & RTNH_F_ONLINK;
    return std::to_string(route.rtm_dst_len) + " type " + std::to_string(route.rtm_type) + " proto " +
           std::to_string(route.rtm_protocol) + " flags " + std::to_string(flags) +
           attributes(message, sizeof route, [&](const rtattr& attribute) {
               if (attribute.rta_type == RTA_CACHEINFO) return std::string();
               if (attribute.rta_type == RTA_TABLE) return table_of(attribute, names);
               if (attribute.rta_type == RTA_OIF) return name_in(names, number_of(attribute));
               if (attribute.rta_type != RTA_MULTIPATH) return value_of(attribute);
               std::string hops;
               auto left = static_cast<int>(RTA_PAYLOAD(&attribute));
               for (auto* hop = static_cast<const rtnexthop*>(RTA_DATA(&attribute)); RTNH_OK(hop, left);
                    left -= static_cast<int>(NLMSG_ALIGN(hop->rtnh_len)), hop = RTNH_NEXT(hop))
                   hops += "[" + name_in(names, static_cast<unsigned>(hop->rtnh_ifindex)) + " " +
                           std::to_string(hop->rtnh_hops) + " " +
                           hex(RTNH_DATA(hop), hop->rtnh_len - sizeof *hop) + "]";
               return hops;
           });
}

std::string rule_line(const nlmsghdr* message, const Names& names) {
    const auto& rule = body<fib_rule_hdr>(message);
    return hex(&rule, sizeof rule) + attributes(message, sizeof rule, [&](const rtattr& attribute) {
               const int type = attribute.rta_type;
               return type == FRA_TABLE || type == FRA_PRIORITY ? table_of(attribute, names)
                                                                : value_of(attribute);
           });
}

std::string tc_line(const nlmsghdr* message, const Names& names) {
    const auto& object = body<tcmsg>(message);
    char place[80];
    std::snprintf(place, sizeof place, " parent %x handle %x info %x", object.tcm_parent, object.tcm_handle,
                  object.tcm_info);
    return name_in(names, static_cast<unsigned>(object.tcm_ifindex)) + place +
           attributes(message, sizeof object, [&](const rtattr& attribute) {
               if (attribute.rta_type == TCA_KIND)
                   return std::string(static_cast<const char*>(RTA_DATA(&attribute)));
               if (attribute.rta_type != TCA_OPTIONS) return std::string();
               // Filters' options hold counters and times; what they compare and where they lead does not.
               if (message->nlmsg_type != RTM_NEWTFILTER) return value_of(attribute);
               std::string options;
               auto left = static_cast<int>(RTA_PAYLOAD(&attribute));
               for (auto* inner = static_cast<const rtattr*>(RTA_DATA(&attribute)); RTA_OK(inner, left);
                    inner = RTA_NEXT(inner, left))
                   if (inner->rta_type == TCA_U32_SEL || inner->rta_type == TCA_U32_CLASSID)
                       options += "(" + value_of(*inner) + ")";
               return options + " ";
           });
}

}  // namespace

KernelState KernelState::now() {
    KernelState state;
    Rtnetlink kernel;
    Names names;
    const auto section = [&](const std::string& name) {
        return [&lines = state.sections[name], &messages = state.messages[name]](const nlmsghdr* message,
                                                                                 const std::string& line) {
            if (line.empty()) return;
            lines.push_back(line);
            messages.emplace(line, body_of(message));
        };
    };
    const auto link = section("link");
    kernel.dump(RTM_GETLINK, kLinks,
                [&](const nlmsghdr* message) { link(message, link_line(message, names)); });
    const auto addr = section("addr");
    kernel.dump(RTM_GETADDR, ifaddrmsg{},
                [&](const nlmsghdr* message) { addr(message, address_line(message, names)); });
    for (const unsigned char family : {AF_INET, AF_INET6}) {
        const std::string suffix = family == AF_INET6 ? "6" : "";
        rtmsg routes{};
        routes.rtm_family = family;
        const auto route = section("route" + suffix);
        kernel.dump(RTM_GETROUTE, routes,
                    [&](const nlmsghdr* message) { route(message, route_line(message, names)); });
        fib_rule_hdr rules{};
        rules.family = family;
        const auto rule = section("rule" + suffix);
        kernel.dump(RTM_GETRULE, rules,
                    [&](const nlmsghdr* message) { rule(message, rule_line(message, names)); });
    }
    const auto qdisc = section("qdisc");
    std::set<std::pair<int, unsigned>> shaped;
    kernel.dump(RTM_GETQDISC, tcmsg{}, [&](const nlmsghdr* message) {
        const auto& object = body<tcmsg>(message);
        if (object.tcm_handle != 0) shaped.insert({object.tcm_ifindex, object.tcm_handle});
        qdisc(message, object.tcm_handle != 0 ? tc_line(message, names) : std::string());
    });
    const auto classes = section("class");
    const auto filter = section("filter");
    int with_classes = 0;
    for (const auto& [index, handle] : shaped) {
        tcmsg of{};
        of.tcm_ifindex = index;
        if (std::exchange(with_classes, index) != index)
            kernel.dump(RTM_GETTCLASS, of,
                        [&](const nlmsghdr* message) { classes(message, tc_line(message, names)); });
        of.tcm_parent = handle;
        kernel.dump(RTM_GETTFILTER, of,
                    [&](const nlmsghdr* message) { filter(message, tc_line(message, names)); });
    }
    auto& conditions = state.sections["condition"];
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(kConditionDir, error)) {
        const std::string name = entry.path().filename();
        conditions.push_back(name + " " + condition(name).value_or(""));
    }
    for (auto& [name, lines] : state.sections) {
        std::sort(lines.begin(), lines.end());
        lines.erase(std::unique(lines.begin(), lines.end()), lines.end());
    }
    return state;
}

std::vector<std::string> KernelState::beyond(const KernelState& other, const std::string& section) const {
    const auto& mine = sections.at(section);
    const auto& others = other.sections.at(section);
    std::vector<std::string> more;
    std::set_difference(mine.begin(), mine.end(), others.begin(), others.end(), std::back_inserter(more));
    return more;
}

std::string KernelState::difference(const KernelState& later) const {
    std::string text;
    for (const auto& [name, lines] : sections) {
        for (const auto& line : beyond(later, name)) text += "  - " + name + " " + line.substr(0, 200) + "\n";
        for (const auto& line : later.beyond(*this, name))
            text += "  + " + name + " " + line.substr(0, 200) + "\n";
    }
    return text;
}

}  // namespace corvo::test
