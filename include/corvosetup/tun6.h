// libcorvosetup: IPv6 overlay tunnels, their routes and rules.
//
// A WAN link with IPv6 gets a sit tunnel beside its IPv4 one. Tunnel id N owns the device ip6tunN with the
// address "::" + the IPv4 tunnel address + "/96", and in the IPv6 tables of the same numbers as in tun.h:
// "s2s6" (bit 1, table 10000 + N), "mptcp6" (bit 2, 20000 + N), "default6" (bit 4, 30000 + N), with four
// rules (there is no static table). The devices carry IFF_NOMULTIPATH (0x80000), which only the device's own
// kernel knows.
//
// Results and threading as in tun.h.
#pragma once

#include <json/value.h>
#include <string>
#include <unordered_map>

#include "corvosetup/export.h"
#include "corvosetup/link.h"
#include "corvosetup/tun_base.h"

class CORVO_API Tun6 : public TunBase {  // sizeof 112, no own fields
public:
    Tun6(std::string slave, Json::Value& info, unsigned int queue);
    // Deleting removes the rules and the device; the tunnel's routes go with the device.
    int setup_tun(int op) override;
    int setup_tun_rule() override;
    int destroy_tun_rule() override;
    int setup_mptcp_default_rule(int op) override;

    // Gives the device its address; the codes of set_ipv6_addr.
    int setup_tun_ipv6();
    // Fills the record that the device is created from; -3001 for null.
    int dump2struct(sit_conf* conf);
};

// A route document with the WAN links that it goes to: every element is applied once per link.
class CORVO_API V6TunRo {
    Json::Value root;  // the document
    std::unordered_map<std::string, Json::Value> wans;

public:
    V6TunRo(Json::Value& root, std::unordered_map<std::string, Json::Value>& wans);
    // Applies "del", then "add", for the type: -3004 unknown bit, -3011 when a route of "add" failed.
    int setup_route6(int type_bit);
    // Apply one list with operation 0 (add) or 2 (flush) and return how many routes failed. Links without an
    // "ip6_addr" get no routes added.
    int setup_ipv6_s2s_route(Json::Value& list, int op);
    int setup_ipv6_mptcp_route(Json::Value& list, int op);
    int setup_ipv6_mptcp_default(Json::Value& list, int op);
};

// As setup_tun (tun.h); links without an "ip6_addr" are left alone with a warning.
CORVO_API int setup_tun6(int op, std::string ifname, std::string& source, unsigned int queue);

// Applies the document `conf` to the tunnels of all WAN links: -3004 for an unknown type, -3016 when the
// document cannot be read, the service's code when there is no list of links, -3011 when a route failed.
CORVO_API int setup_tun_route6(std::string& type, std::string& conf);

// Adds (0) or deletes (any other op) the rule of the default table for the selected links.
CORVO_API int setup_tuni6_mptcp_default_rule(int op, std::string ifname);
