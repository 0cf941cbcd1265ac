// libcorvosetup: private links.
//
// A private link is an ipip tunnel in GUE, as in tun.h, that rides on a private-network port ("swdevP" or
// "ethP") instead of a WAN link. Port P gives the device tunP. Its tables and rules are numbered from the
// device's kernel index I (10000 + I, 15000 + I, 20000 + I), its mark is P, and all private links share the
// default table 30000, in which each link's routes have the link's own priority. Routes towards other domains
// go to table 25000. When a link comes up it installs the routes that the site document implies.
//
// Operational limits: the index of a private link's device and the id of a WAN tunnel number the same tables
// and priorities, and both name their devices "tun" + number; keep ids, ports and indexes apart.
//
// Results and threading as in tun.h.
#pragma once

#include <json/value.h>
#include <string>

#include "corvosetup/export.h"
#include "corvosetup/link.h"

class CORVO_API PrivateLink {  // no vptr; sizeof 152
    char dev[16];              //   0 tunnel device; empty when the port's name has no number
    char local[16];            //  16 outer IPv4 source, text; "0.0.0.0": the port's first address
    char remote[16];           //  32 "0.0.0.0"
    char tun_addr[16];         //  48 the device's address, made from the device id and the port number
    unsigned char ttl;         //  64 0 inherits
    unsigned short fou_sport;  //  66 host order
    unsigned short fou_dport;  //  68
    int ifindex;               //  72 kernel index of dev; 0 until found
    int port;                  //  76
    int device_id;             //  80
    int prio;                  //  84 priority of this link's routes in the shared default table
    std::string slave;         //  88 the port
    std::string group_id;      // 120 links of one group are peers
public:
    // From the link's entry ("ip4_addr", "prio", "private_group_id") in the network information service's
    // list.
    PrivateLink(std::string slave, Json::Value& info);
    std::string get_dev();
    int set_local(std::string& ip);  // -3007, and nothing changed, when `ip` is no address
    int obtain_ifindex();            // looked up until there is a device; 0 while there is none
    // Looks `local` up from the port; "0.0.0.0" and -3005 without the port, or the code of get_ipv4_addr.
    int parse_tun_local_ip();
    int setup_tun_ipv4();  // -3005 without a device, -3007 without a tunnel address
    // Device flags, as TunBase's: -3005 without a device.
    int get_tun_flag(unsigned int& flags);
    int set_tun_flag(unsigned int flags);
    int unset_tun_flag(unsigned int flags);
    int setup_tun_rule();             // four rules; always 0
    int destroy_tun_rule();           // always 0
    int destroy_tun_route(int mask);  // as Tun's; the default type empties the shared table
    // As Tun's, on the shared table 30000: op 2 takes the default routes of all private links.
    int setup_mptcp_default_route(int op);
    // Fills the record that the device is created from, without queues; -3001 for null.
    int dump2struct(ipip_conf* conf);
    int setup_tun_routing(int table_base, std::string& conf);  // as Tun's, with edit_routing()
    // Creates (0) or deletes (1) the link. A port without an address stops either before the device is
    // touched.
    int setup_tun(int op);
    int setup_route(int type_bit, std::string& conf);  // as Tun's

    // Applies a route list and returns how many elements failed. Elements as in tun.h, with "LOCAL_PORT"
    // (list of "PRIVATE" + number), "RTA_GATEWAY" and "WEIGHT" of equal length: an element is for this link
    // when one of its ports is, and that position's gateway (and "DEST", when that is a list too) is used;
    // "WEIGHT" is not. "CROSS_DOMAIN" true sends the route to table 25000 (mptcp routes keep their table).
    // The two numbers may be given in either order.
    int edit_routing(int table_base, int op, Json::Value& list);
    // Installs the routes that "/etc/networkmanagement/site.json" implies: -3016 when it cannot be read,
    // -3001 when a value in it has the wrong type; else 0, whatever routes failed.
    int presetup_tun_routing();
};

// As setup_tun, setup_tun_route and setup_tun_mptcp_default_route (tun.h) for private links; `ifname` is an
// entry's name. Types: "private_s2s", "private_static", "private_mptcp", "private_default".
CORVO_API int setup_private(int op, std::string ifname, std::string& source);
CORVO_API int setup_private_route(std::string& ifname, std::string& type, std::string& conf);
CORVO_API int setup_private_mptcp_default_route(int op, std::string ifname);
