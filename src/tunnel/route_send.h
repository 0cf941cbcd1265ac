// Sending route records of links to the kernel, and the messages about their results.
//
// Who may include this: this area. All routes of all kinds go through here.
#pragma once

#include <span>
#include <vector>

#include "corvosetup/routing.h"
#include "netlink/route_session.h"

namespace corvo::tunnel {

// What differs between the address families.
struct Ipv4Routes {
    using Record = route_conf;
    using Hop = nexthop;
    static Hop* add_hop(Hop** head) { return add_nexthop(head); }
    static void free_hops(Hop* head) { free_nexthop(head); }
    static constexpr const char* kNoun = "Route";
    static constexpr const char* kVerb = "edit route";
};
struct Ipv6Routes {
    using Record = route6_conf;
    using Hop = nexthop6;
    static Hop* add_hop(Hop** head) { return add_nexthop6(head); }
    static void free_hops(Hop* head) { free_nexthop6(head); }
    static constexpr const char* kNoun = "Route6";
    static constexpr const char* kVerb = "edit route6";
};

// Sends records; the results are exactly what edit_route(op, record) gives when each is sent alone, in order.
// A record whose table is none of ours is answered -3004 and not sent.
template <class Routes>
class RouteSender;

// Many to a datagram, over one socket that is opened for the first record and kept.
template <>
class RouteSender<Ipv4Routes> {
public:
    std::vector<int> send(int op, std::span<route_conf* const> records);

private:
    nl::RouteSession session_;
    bool open_ = false;
};

// One by one: every IPv6 edit runs the flush command first, so there is nothing to gain.
template <>
class RouteSender<Ipv6Routes> {
public:
    std::vector<int> send(int op, std::span<route6_conf* const> records);
};

// Logs what is to be said about the result of one record: an existing route on an add is a warning and a
// success. Returns the code that counts.
template <class Routes>
int report_route(int op, const typename Routes::Record& record, int result);

// Sends one record and reports it.
int send_route(int op, route_conf& record);

}  // namespace corvo::tunnel
