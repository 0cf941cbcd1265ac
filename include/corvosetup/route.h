// libcorvosetup: weighted default gateways.
//
// The device spreads its default traffic over all usable WAN links with one multipath default route whose
// next hop weights follow the links' bandwidths. A DefaultGws is the set of gateways that such a route is
// built from; every change of a set rebuilds its route. There are two sets, both in routing table 253: `gws`,
// which the link monitors drive through add_default_gateway and del_default_gateway (metric 100), and
// `tmp_gws`, rebuilt from configuration by setup_def (metric 99). The kernel prefers the lower metric while
// both exist.
//
// Results: 0, a negative code of the library, or the negative libnl code of a refused route. No function here
// throws. Threading: every function may be called from any thread unless its comment says otherwise; the
// mutators of one set take turns, the kernel requests included.
#pragma once

#include <json/value.h>
#include <mutex>
#include <string>
#include <vector>

#include "corvosetup/export.h"

struct DefaultGw {            // sizeof 80
    std::string dev;          // WAN interface, the key of the set
    std::string gw;           // IPv4 gateway address, text
    unsigned long bandwidth;  // as configured; any unit, only the ratios matter
    unsigned long weight;     // bandwidth over the set's greatest common divisor; 1 until the first rebuild
};
class CORVO_API DefaultGws {          // sizeof 72
    std::mutex lock;                  // guards the gateways, and the route that mirrors them
    std::vector<DefaultGw> gateways;  // in order of addition
    unsigned int table;
    unsigned int metric;  // route priority, as "ip route" shows it

public:
    // An empty set; nothing is sent.
    DefaultGws(unsigned int table, unsigned int metric);

    // Appends a gateway and rebuilds the route. -3006 when `dev` is in the set already (nothing changes). The
    // gateway stays in the set when the rebuild fails, and is part of the next one.
    int add_gw(std::string dev, std::string gw, unsigned long bandwidth);

    // Removes the gateway of `dev` and rebuilds the route; 0 when there is none. Unless `force`, the last
    // gateway is kept (0, a warning in the log), so that a device whose only link flaps keeps its default
    // route. Forced removal of the last one empties the table and gives -3003.
    int del_gw(std::string dev, bool force);

    // Removes all gateways and the route.
    int flush_gws();

    // The rebuild and its steps. They take no lock: only for callers that hold the set's.

    // Flushes the set's default route, reduces the weights and installs the route again. -3003 for an empty
    // set, -3004 when all bandwidths are 0; in both cases no route is left.
    int setup_default_gateways();
    // Greatest common divisor of all bandwidths; 1 for an empty set, 0 when all are 0.
    unsigned long find_gcd();
    // Sets each weight to bandwidth / gcd; -3004 for gcd 0.
    int weight_reduction(unsigned long gcd);
    // Adds the default route with one next hop per gateway. The low 8 bits of a weight are sent, which is all
    // that a next hop holds: 300 becomes 44, and 256 is sent without a weight. A gateway text above 15
    // characters gives -3007, such a device name -3005.
    int set_default_gateways();
    // Deletes the default routes of the set's table and metric, whoever made them.
    int flush_default_route_table();
};

// The set of the link monitors.
extern CORVO_API DefaultGws gws;
// The set of setup_def.
extern CORVO_API DefaultGws tmp_gws;

// gws.add_gw and gws.del_gw.
CORVO_API int add_default_gateway(std::string dev, std::string gw, unsigned long bandwidth);
CORVO_API int del_default_gateway(std::string dev, bool force);

// Makes the WANs with the ids of the array `ids` (numbers, or their decimal texts) the gateways of tmp_gws:
// "ifname", "ip4_gw" and "tx_rate" of each as the network information service reports it. -3004, with tmp_gws
// left alone, when `ids` is no array or when the WANs found are not as many as the ids; the code of the
// service call when that fails. 0 otherwise, even when a gateway could not be installed.
CORVO_API int setup_def(Json::Value ids);
