// libcorvosetup: IPv4 overlay tunnels, their routes and rules.
//
// Every WAN link carries one ipip tunnel in GUE (UDP port 5555) with an open remote end. Tunnel id N owns the
// device tunN, four tables and five rules:
//
//   type       bit  table        found by                                        rule priority
//   "s2s"       1   10000 + N    mark N (low four bits)                          10000 + N
//   "static"    2   15000 + N    mark N, when s2s has no route                   10000 + N
//   "mptcp"     4   20000 + N    source address; bound to tunN                   20000 + N (two rules)
//   "default"   8   30000 + N    everything                                      30000 + N
//
// Only the low four bits of a mark select: ids 16 apart share their traffic, and an id that is a multiple of
// 16 takes unmarked traffic too. Keep ids in 1..15.
//
// Route documents (JSON, read through the configuration service or from the file) hold a "del" and an "add"
// list. An element: "SITE" (decimal text; the metric; 0 skips the element), "DEST" (IPv4 address, optional
// "/length", reduced to its network; "default"; empty skips), "RTA_GATEWAY" (list of addresses) and, from two
// gateways on, "WEIGHT" (as many decimal texts). "del" removes every route of that table, metric and
// destination and its failures do not count; "add" replaces. A bad element is logged and stops nothing. It
// counts as failed, except that a destination that cannot be reduced to its network ("0.0.0.0/0" included)
// and weights that are not as many as the gateways only skip it.
//
// Results: 0, a negative code of the library, or a negative libnl code. No function throws. Threading: free
// functions may be called from any thread, but two calls that change the same tunnel at once leave the kernel
// with a mixture of both.
#pragma once

#include <json/value.h>
#include <string>

#include "corvosetup/export.h"
#include "corvosetup/link.h"
#include "corvosetup/tun_base.h"

class CORVO_API Tun : public TunBase {  // sizeof 120
    unsigned short fou_sport;           // 112 host order
    unsigned short fou_dport;           // 114
public:
    Tun(std::string slave, Json::Value& info, unsigned int queue);
    int setup_tun(int op) override;
    int setup_tun_rule() override;
    int destroy_tun_rule() override;
    int setup_mptcp_default_rule(int op) override;

    // Gives the device its address: -3005 without a device, -3007 when `local` is no address.
    int setup_tun_ipv4();
    // Fills the record that the device is created from; -3001 for null.
    int dump2struct(ipip_conf* conf);
    // Flushes the tables whose type bit is in `mask` (-1: all). Always 0.
    int destroy_tun_route(int mask);
    // Flushes the default table when `op` is 2, does nothing for 0, 1, 3 and 4; -3004 for any other, -3001
    // when the flush failed.
    int setup_mptcp_default_route(int op);
    // Applies the document `conf` to the table of base `table_base`: -3004 unknown base, -3016 no document,
    // -3011 when an element of "add" failed.
    int setup_tun_routing(int table_base, std::string& conf);
    // The same by type bit; 0 for a tunnel without device or address, -3003 for an empty `conf`.
    int setup_route(int type_bit, std::string& conf);
};

// Creates (op 0) or deletes (op 1) the tunnels of the WAN links listed for the document path `source`.
// `ifname`: "" or "all", or a WAN interface or the interface that one rides on. -3004 for another op, the
// service's code when there is no list; else 0, whatever the tunnels did: that is in the log.
CORVO_API int setup_tun(int op, std::string ifname, std::string& source, unsigned int queue);

// Applies the document `conf` to the tables of type `type`. For all links the result is that of the last one
// processed; an unknown name is logged and gives 0.
CORVO_API int setup_tun_route(std::string& ifname, std::string& type, std::string& conf);

// The member functions of the same names for the selected links. For an unknown name they run on a tunnel
// with id 0 and no device, so that flushing (op 2) empties table 30000.
CORVO_API int setup_tun_mptcp_default_rule(int op, std::string ifname);
CORVO_API int setup_tun_mptcp_default_route(int op, std::string ifname);
