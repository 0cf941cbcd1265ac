#include "netlink/route_message.h"

#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstdio>

#include "foundation/result.h"
#include "foundation/text.h"

namespace corvo::nl {

namespace {

// Adding and deleting: an empty destination is the default one.
constexpr unsigned kDefaultDestinationOps = 1;
constexpr unsigned kFlush = 2;

std::uint8_t weight_of(const nexthop& hop) {
    return hop.weight == 0 ? 0 : static_cast<std::uint8_t>(hop.weight - 1);
}
std::uint8_t flags_of(const nexthop& hop) {
    return hop.onlink != 0 ? RTNH_F_ONLINK : 0;
}
// The IPv6 record carries a weight for its caller; it stays there.
std::uint8_t weight_of(const nexthop6&) {
    return 0;
}
std::uint8_t flags_of(const nexthop6&) {
    return 0;
}

int read_destination(std::string_view text, int prefixlen, unsigned op, RouteKey& key) {
    key.dst = {};
    key.dst.family = key.family;
    key.has_dst = !text.empty() || op <= kDefaultDestinationOps;
    if (text.empty()) return kOk;
    const std::optional<Address> address = parse_address(text, key.family);
    if (!address) return kBadAddress;
    if (address->size == 0) return kOk;  // "default" and its like
    Address dst = *address;
    // No prefix of any family is that long: the kernel refuses it, as it does every length it does not know.
    constexpr int kNoPrefix = 255;
    if (prefixlen != 0) {
        dst.prefix =
            static_cast<std::uint8_t>(prefixlen < 0 || prefixlen > kNoPrefix ? kNoPrefix : prefixlen);
    }
    if (dst.prefix != 0) key.dst = dst;  // length 0 is the default destination, however it was written
    return kOk;
}

template <class Hop>
int read_hop(const Hop& from, int family, const DeviceIndex& index, RouteHop& to) {
    to.gateway = {};
    to.oif = 0;
    to.weight = weight_of(from);
    to.flags = flags_of(from);
    if (const std::string_view text = array_text(from.gw); !text.empty()) {
        const std::optional<Address> gateway = parse_address(text, family);
        if (!gateway || gateway->size == 0) return kBadAddress;
        to.gateway = *gateway;
    }
    if (const std::string_view text = array_text(from.dev); !text.empty()) {
        char name[sizeof from.dev + 1];
        copy_text(name, text);
        to.oif = index(name);
        if (to.oif == 0) return kNoInterface;  // without it the kernel would choose a device of its own
    }
    return kOk;
}

template <class Record>
int read_any(const Record& record, int family, unsigned op, const DeviceIndex& index, RouteSpec& spec) {
    spec.key.family = static_cast<std::uint8_t>(family);
    spec.key.table = static_cast<std::uint32_t>(record.table);
    spec.key.priority = static_cast<std::uint32_t>(record.priority);
    spec.lock = static_cast<std::uint32_t>(record.lock);
    spec.mtu = static_cast<std::uint32_t>(record.mtu);
    spec.advmss = static_cast<std::uint32_t>(record.advmss);
    spec.hops.clear();
    const int destination = read_destination(array_text(record.dst), record.prefixlen, op, spec.key);
    if (destination < 0 || op == kFlush) return destination;
    for (const auto* hop = record.nexthops; hop; hop = hop->next) {
        spec.hops.emplace_back();
        if (const int result = read_hop(*hop, family, index, spec.hops.back()); result < 0) return result;
    }
    return kOk;
}

void put_key(MessageWriter& out, rtmsg head, const RouteKey& key) {
    const std::uint32_t table = key.table != 0 ? key.table : RT_TABLE_MAIN;
    head.rtm_family = key.family;
    head.rtm_dst_len = key.dst.prefix;
    head.rtm_table = static_cast<std::uint8_t>(table < 256 ? table : 0);
    out.header(head);
    out.attr_u32(RTA_TABLE, table);
    if (key.dst.size != 0) out.attr(RTA_DST, key.dst.data());
    if (key.priority != 0) out.attr_u32(RTA_PRIORITY, key.priority);
}

void put_metrics(MessageWriter& out, const RouteSpec& spec) {
    if (spec.lock == 0 && spec.mtu == 0 && spec.advmss == 0) return;
    const std::size_t nest = out.begin_nest(RTA_METRICS);
    if (spec.lock != 0) out.attr_u32(RTAX_LOCK, spec.lock);
    if (spec.mtu != 0) out.attr_u32(RTAX_MTU, spec.mtu);
    if (spec.advmss != 0) out.attr_u32(RTAX_ADVMSS, spec.advmss);
    out.end_nest(nest);
}

void put_multipath(MessageWriter& out, const std::vector<RouteHop>& hops) {
    const std::size_t nest = out.begin_nest(RTA_MULTIPATH);
    for (const RouteHop& hop : hops) {
        rtnexthop head{};
        head.rtnh_flags = hop.flags;
        head.rtnh_hops = hop.weight;
        head.rtnh_ifindex = static_cast<int>(hop.oif);
        const std::size_t at = out.append(&head, sizeof head);
        if (hop.gateway.size != 0) out.attr(RTA_GATEWAY, hop.gateway.data());
        out.patch_u16(at, static_cast<std::uint16_t>(out.size() - at));
    }
    out.end_nest(nest);
}

void build_route(MessageWriter& out, std::uint16_t type, std::uint16_t flags, const RouteSpec& spec) {
    bool gateway = false;
    for (const RouteHop& hop : spec.hops) gateway = gateway || hop.gateway.size != 0;
    rtmsg head{};
    head.rtm_protocol = RTPROT_STATIC;
    head.rtm_scope = gateway ? RT_SCOPE_UNIVERSE : RT_SCOPE_LINK;
    head.rtm_type = RTN_UNICAST;
    if (spec.hops.size() == 1) head.rtm_flags = spec.hops.front().flags;

    out.begin(type, flags);
    put_key(out, head, spec.key);
    put_metrics(out, spec);
    if (spec.hops.size() == 1) {
        const RouteHop& hop = spec.hops.front();
        if (hop.gateway.size != 0) out.attr(RTA_GATEWAY, hop.gateway.data());
        if (hop.oif != 0) out.attr_u32(RTA_OIF, hop.oif);
    } else if (spec.hops.size() > 1) {
        put_multipath(out, spec.hops);
    }
    out.end();
}

void read_multipath(Bytes data, int family, std::vector<RouteHop>& hops) {
    rtnexthop head{};
    while (data.size() >= sizeof head) {
        std::memcpy(&head, data.data(), sizeof head);
        if (head.rtnh_len < sizeof head || head.rtnh_len > data.size()) return;
        RouteHop hop;
        hop.oif = static_cast<std::uint32_t>(head.rtnh_ifindex);
        hop.weight = head.rtnh_hops;
        hop.flags = head.rtnh_flags;
        for (const Attr& attr : Attrs(data.subspan(sizeof head, head.rtnh_len - sizeof head))) {
            if (attr.type != RTA_GATEWAY) continue;
            if (const auto gateway = read_address(attr.data, family, 0)) hop.gateway = *gateway;
        }
        hops.push_back(hop);
        data = data.subspan(std::min<std::size_t>(RTNH_ALIGN(head.rtnh_len), data.size()));
    }
}

}  // namespace

int read_record(const route_conf& record, unsigned op, const DeviceIndex& index, RouteSpec& spec) {
    return read_any(record, AF_INET, op, index, spec);
}
int read_record(const route6_conf& record, unsigned op, const DeviceIndex& index, RouteSpec& spec) {
    return read_any(record, AF_INET6, op, index, spec);
}

void build_add_route(MessageWriter& out, const RouteSpec& spec, std::uint16_t more_flags) {
    build_route(out, RTM_NEWROUTE, NLM_F_REQUEST | NLM_F_CREATE | NLM_F_EXCL | more_flags, spec);
}

void build_delete_route(MessageWriter& out, const RouteSpec& spec, std::uint16_t more_flags) {
    build_route(out, RTM_DELROUTE, NLM_F_REQUEST | more_flags, spec);
}

void build_delete_any(MessageWriter& out, const RouteKey& key, std::uint16_t more_flags) {
    rtmsg head{};
    head.rtm_scope = RT_SCOPE_NOWHERE;
    out.begin(RTM_DELROUTE, NLM_F_REQUEST | more_flags);
    put_key(out, head, key);
    out.end();
}

void build_dump_routes(MessageWriter& out, int family, std::uint32_t table) {
    out.begin(RTM_GETROUTE, NLM_F_REQUEST | NLM_F_DUMP);
    out.header(rtmsg{}).rtm_family = static_cast<std::uint8_t>(family);
    if (table != 0) out.attr_u32(RTA_TABLE, table);
    out.end();
}

bool read_route(const MessageView& message, RouteEntry& entry) {
    rtmsg head{};
    if (message.head.nlmsg_type != RTM_NEWROUTE || !message.read_header(head)) return false;
    if ((head.rtm_flags & RTM_F_CLONED) != 0) return false;
    entry = {};
    entry.key.family = head.rtm_family;
    entry.key.has_dst = true;
    entry.key.table = head.rtm_table;
    entry.key.dst.family = head.rtm_family;
    entry.tos = head.rtm_tos;
    RouteHop single;
    bool has_single = false;
    for (const Attr& attr : message.attrs(sizeof head)) {
        switch (attr.type) {
            case RTA_TABLE:
                entry.key.table = attr.u32();
                break;
            case RTA_PRIORITY:
                entry.key.priority = attr.u32();
                break;
            case RTA_DST:
                if (const auto dst = read_address(attr.data, head.rtm_family, head.rtm_dst_len)) {
                    if (dst->prefix != 0) entry.key.dst = *dst;
                }
                break;
            case RTA_GATEWAY:
                if (const auto gateway = read_address(attr.data, head.rtm_family, 0)) {
                    single.gateway = *gateway;
                    has_single = true;
                }
                break;
            case RTA_OIF:
                single.oif = attr.u32();
                has_single = true;
                break;
            case RTA_MULTIPATH:
                read_multipath(attr.data, head.rtm_family, entry.hops);
                break;
            default:
                break;
        }
    }
    if (entry.hops.empty() && has_single) entry.hops.push_back(single);
    return true;
}

bool matches(const RouteEntry& entry, const RouteKey& wanted) {
    return entry.key.family == wanted.family && (wanted.table == 0 || entry.key.table == wanted.table) &&
           (wanted.priority == 0 || entry.key.priority == wanted.priority) &&
           (!wanted.has_dst || entry.key.dst == wanted.dst);
}

std::string print_route(const RouteEntry& entry, const std::function<std::string(std::uint32_t)>& name) {
    std::string line;
    if (entry.key.table != 0) line += "table " + std::to_string(static_cast<int>(entry.key.table)) + " ";
    if (entry.key.priority != 0)
        line += "metric " + std::to_string(static_cast<int>(entry.key.priority)) + " ";
    line += entry.key.dst.size == 0 ? "default " : entry.key.dst.text() + " ";
    const bool several = entry.hops.size() > 1;
    for (const RouteHop& hop : entry.hops) {
        if (several) line += "nexthop ";
        if (hop.gateway.size != 0) line += "via " + hop.gateway.host_text() + " ";
        if (hop.oif != 0) line += "dev " + name(hop.oif) + " ";
        if (several) line += "weight " + std::to_string(hop.weight + 1) + " ";
    }
    return line + "\n";
}

std::string flush_command(const route6_conf& record) {
    // An empty destination would leave "/0", which is no prefix.
    const std::string dst(record.dst[0] == '\0' ? std::string_view("::") : array_text(record.dst));
    char text[128];
    const int length =
        std::snprintf(text, sizeof text, "/usr/sbin/ip -6 route flush table %d %s/%d metric %d", record.table,
                      dst.c_str(), record.prefixlen, record.priority);
    return length < 0 || static_cast<std::size_t>(length) >= sizeof text ? std::string() : text;
}

}  // namespace corvo::nl
