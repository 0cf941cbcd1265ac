// Routes: records in, messages out; dumped messages in, entries out.
//
// Internal to this area (and its tests). The only thing here that asks the kernel is the DeviceIndex that the
// caller hands in.
#pragma once

#include <functional>
#include <string>
#include <tuple>
#include <vector>

#include "corvosetup/routing.h"
#include "netlink/address.h"
#include "netlink/message.h"

namespace corvo::nl {

// What tells the routes that an edit is about from all others.
struct RouteKey {
    std::uint8_t family = 0;
    bool has_dst = false;
    std::uint32_t table = 0;
    std::uint32_t priority = 0;
    Address dst;  // size and prefix 0: the default destination

    bool complete() const { return has_dst && table != 0 && priority != 0; }
    bool operator==(const RouteKey&) const = default;
    auto order() const { return std::tie(table, priority, dst.prefix, dst.size, dst.bytes); }
};

struct RouteHop {
    Address gateway;  // size 0: none
    std::uint32_t oif = 0;
    std::uint8_t weight = 0;  // as the kernel counts: 0 is one share
    std::uint8_t flags = 0;   // RTNH_F_*
};

struct RouteSpec {
    RouteKey key;
    std::uint32_t lock = 0;
    std::uint32_t mtu = 0;
    std::uint32_t advmss = 0;
    std::vector<RouteHop> hops;
};

// The index of a device, 0 for none.
using DeviceIndex = std::function<unsigned(const char* name)>;

// Reads a record for the operation `op`: 0 or -3007 (an address that is none), -3005 (a device that is none).
// An empty destination is the default one for adding (0) and deleting (1) and no condition for the others.
int read_record(const route_conf& record, unsigned op, const DeviceIndex& index, RouteSpec& spec);
int read_record(const route6_conf& record, unsigned op, const DeviceIndex& index, RouteSpec& spec);

// RTM_NEWROUTE, create only, or RTM_DELROUTE for the route as described: protocol static, unicast.
void build_add_route(MessageWriter& out, const RouteSpec& spec, std::uint16_t more_flags = 0);
void build_delete_route(MessageWriter& out, const RouteSpec& spec, std::uint16_t more_flags = 0);

// RTM_DELROUTE for one route of this key, whatever its type, protocol, scope and next hops. ESRCH is the
// answer when none is left. IPv4 only; routes with a TOS are not met by it.
void build_delete_any(MessageWriter& out, const RouteKey& key, std::uint16_t more_flags = 0);

// The dump of a table, or of all of them when `table` is 0.
void build_dump_routes(MessageWriter& out, int family, std::uint32_t table);

// A route as the kernel has it.
struct RouteEntry {
    RouteKey key;  // has_dst is always set
    std::uint8_t tos = 0;
    std::vector<RouteHop> hops;
};
// False for anything but a route of the tables (a cached one, another message).
bool read_route(const MessageView& message, RouteEntry& entry);

// Whether `entry` is one of the routes that `wanted` means: a table, priority or destination that is not set
// is no condition.
bool matches(const RouteEntry& entry, const RouteKey& wanted);

// One line, with its end of line. `name` gives the text for an interface index.
std::string print_route(const RouteEntry& entry, const std::function<std::string(std::uint32_t)>& name);

// The text of the command that removes the IPv6 routes of a record, or empty when it does not fit.
std::string flush_command(const route6_conf& record);

}  // namespace corvo::nl
