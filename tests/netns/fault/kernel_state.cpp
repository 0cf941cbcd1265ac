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
#include <stdexcept>

#include "foundation/fd.h"
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

std::string device_name(unsigned index) {
    char name[IF_NAMESIZE] = "";
    return index != 0 && ::if_indextoname(index, name) != nullptr ? name : std::to_string(index);
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

class Dumper {
public:
    Dumper() : fd_(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE)) {
        if (!fd_) throw std::runtime_error("no netlink socket for the kernel's state");
    }

    // Asks for everything of `type`; `header` begins with the family (and, for traffic control, the device).
    template <class Header>
    void dump(int type, const Header& header, const std::function<void(const nlmsghdr*)>& visit) {
        struct {
            nlmsghdr head;
            Header body;
        } request{};
        request.head = {NLMSG_LENGTH(sizeof header), static_cast<std::uint16_t>(type),
                        NLM_F_REQUEST | NLM_F_DUMP, ++sequence_, 0};
        request.body = header;
        if (::send(fd_.get(), &request, request.head.nlmsg_len, 0) < 0)
            throw std::runtime_error("dump: send");
        alignas(nlmsghdr) static char buffer[1 << 17];
        for (;;) {
            auto got = static_cast<int>(::recv(fd_.get(), buffer, sizeof buffer, 0));
            if (got < 0) throw std::runtime_error("dump: receive");
            for (auto* message = reinterpret_cast<const nlmsghdr*>(buffer);
                 NLMSG_OK(message, static_cast<unsigned>(got)); message = NLMSG_NEXT(message, got)) {
                if (message->nlmsg_type == NLMSG_DONE || message->nlmsg_type == NLMSG_ERROR) return;
                visit(message);
            }
        }
    }

private:
    UniqueFd fd_;
    std::uint32_t sequence_ = 0;
};

template <class T>
const T& body(const nlmsghdr* message) {
    return *static_cast<const T*>(NLMSG_DATA(message));
}

std::string link_line(const nlmsghdr* message, std::vector<unsigned>& indexes) {
    const auto& link = body<ifinfomsg>(message);
    indexes.push_back(static_cast<unsigned>(link.ifi_index));
    // What the administrator sets, not what the carrier does (IFF_RUNNING, IFF_LOWER_UP, IFF_DORMANT).
    const unsigned flags = link.ifi_flags & ~(unsigned{IFF_RUNNING} | 0x10000U | 0x20000U);
    return device_name(static_cast<unsigned>(link.ifi_index)) + " flags " + std::to_string(flags) +
           attributes(message, sizeof link, [](const rtattr& attribute) {
               switch (attribute.rta_type) {
                   case IFLA_MTU:
                   case IFLA_NUM_TX_QUEUES:
                   case IFLA_NUM_RX_QUEUES:
                       return value_of(attribute);
                   default:
                       return std::string();
               }
           });
}

std::string address_line(const nlmsghdr* message) {
    const auto& address = body<ifaddrmsg>(message);
    return device_name(address.ifa_index) + "/" + std::to_string(address.ifa_prefixlen) +
           attributes(message, sizeof address, [](const rtattr& attribute) {
               return attribute.rta_type == IFA_CACHEINFO || attribute.rta_type == IFA_FLAGS
                          ? std::string()
                          : value_of(attribute);
           });
}

std::string route_line(const nlmsghdr* message) {
    const auto& route = body<rtmsg>(message);
    // Those of the local table follow the addresses, some time later.
    if ((route.rtm_flags & RTM_F_CLONED) != 0 || route.rtm_table == RT_TABLE_LOCAL) return {};
    const unsigned flags = route.rtm_flags & RTNH_F_ONLINK;
    return std::to_string(route.rtm_dst_len) + " type " + std::to_string(route.rtm_type) + " proto " +
           std::to_string(route.rtm_protocol) + " flags " + std::to_string(flags) +
           attributes(message, sizeof route, [](const rtattr& attribute) {
               if (attribute.rta_type == RTA_CACHEINFO) return std::string();
               if (attribute.rta_type == RTA_OIF) return device_name(number_of(attribute));
               if (attribute.rta_type != RTA_MULTIPATH) return value_of(attribute);
               std::string hops;
               auto left = static_cast<int>(RTA_PAYLOAD(&attribute));
               for (auto* hop = static_cast<const rtnexthop*>(RTA_DATA(&attribute)); RTNH_OK(hop, left);
                    left -= static_cast<int>(NLMSG_ALIGN(hop->rtnh_len)), hop = RTNH_NEXT(hop))
                   hops += "[" + device_name(static_cast<unsigned>(hop->rtnh_ifindex)) + " " +
                           std::to_string(hop->rtnh_hops) + " " +
                           hex(RTNH_DATA(hop), hop->rtnh_len - sizeof *hop) + "]";
               return hops;
           });
}

std::string rule_line(const nlmsghdr* message) {
    const auto& rule = body<fib_rule_hdr>(message);
    return hex(&rule, sizeof rule) + attributes(message, sizeof rule, value_of);
}

std::string tc_line(const nlmsghdr* message) {
    const auto& object = body<tcmsg>(message);
    char place[80];
    std::snprintf(place, sizeof place, " parent %x handle %x info %x", object.tcm_parent, object.tcm_handle,
                  object.tcm_info);
    return device_name(static_cast<unsigned>(object.tcm_ifindex)) + place +
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
    Dumper dumper;
    const auto section = [&](const std::string& name) {
        return [&lines = state.sections[name]](std::string line) {
            if (!line.empty()) lines.push_back(std::move(line));
        };
    };
    std::vector<unsigned> indexes;
    const auto link = section("link");
    dumper.dump(RTM_GETLINK, ifinfomsg{},
                [&](const nlmsghdr* message) { link(link_line(message, indexes)); });
    const auto addr = section("addr");
    dumper.dump(RTM_GETADDR, ifaddrmsg{}, [&](const nlmsghdr* message) { addr(address_line(message)); });
    for (const unsigned char family : {AF_INET, AF_INET6}) {
        const std::string suffix = family == AF_INET6 ? "6" : "";
        rtmsg routes{};
        routes.rtm_family = family;
        const auto route = section("route" + suffix);
        dumper.dump(RTM_GETROUTE, routes, [&](const nlmsghdr* message) { route(route_line(message)); });
        fib_rule_hdr rules{};
        rules.family = family;
        const auto rule = section("rule" + suffix);
        dumper.dump(RTM_GETRULE, rules, [&](const nlmsghdr* message) { rule(rule_line(message)); });
    }
    const auto qdisc = section("qdisc");
    std::set<std::pair<int, unsigned>> shaped;
    dumper.dump(RTM_GETQDISC, tcmsg{}, [&](const nlmsghdr* message) {
        const auto& object = body<tcmsg>(message);
        if (object.tcm_handle != 0) shaped.insert({object.tcm_ifindex, object.tcm_handle});
        qdisc(object.tcm_handle != 0 ? tc_line(message) : std::string());
    });
    const auto classes = section("class");
    const auto filter = section("filter");
    for (const auto& [index, handle] : shaped) {
        tcmsg of{};
        of.tcm_ifindex = index;
        dumper.dump(RTM_GETTCLASS, of, [&](const nlmsghdr* message) { classes(tc_line(message)); });
        of.tcm_parent = handle;
        dumper.dump(RTM_GETTFILTER, of, [&](const nlmsghdr* message) { filter(tc_line(message)); });
    }
    const auto conditions = section("condition");
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(kConditionDir, error)) {
        const std::string name = entry.path().filename();
        conditions(name + " " + condition(name).value_or(""));
    }
    for (auto& [name, lines] : state.sections) {
        std::sort(lines.begin(), lines.end());
        lines.erase(std::unique(lines.begin(), lines.end()), lines.end());
    }
    return state;
}

std::string KernelState::difference(const KernelState& later) const {
    std::string text;
    for (const auto& [name, lines] : sections) {
        const auto& others = later.sections.at(name);
        std::vector<std::string> gone;
        std::vector<std::string> added;
        std::set_difference(lines.begin(), lines.end(), others.begin(), others.end(),
                            std::back_inserter(gone));
        std::set_difference(others.begin(), others.end(), lines.begin(), lines.end(),
                            std::back_inserter(added));
        for (const auto& line : gone) text += "  - " + name + " " + line.substr(0, 200) + "\n";
        for (const auto& line : added) text += "  + " + name + " " + line.substr(0, 200) + "\n";
    }
    return text;
}

}  // namespace corvo::test
