// libcorvosetup: regional links.
//
// A regional link is a tunnel device as in privatelink.h towards devices of the same region. It has no rules
// of its own; its traffic is routed through table 25000, which all regional links share and which "regional"
// route documents fill. Elements are those of tun.h with "DEVICE", the tunnel device of the element's next
// hops; the routes have no path metrics.
//
// Results and threading as in tun.h.
#pragma once

#include <json/value.h>
#include <string>

#include "corvosetup/export.h"
#include "corvosetup/link.h"

class CORVO_API RgLink {  // no vptr; sizeof 120; fields as in PrivateLink
    char dev[16];
    char local[16];
    char remote[16];
    char tun_addr[16];
    unsigned char ttl;         // 64
    unsigned short fou_sport;  // 66
    unsigned short fou_dport;  // 68
    int ifindex;               // 72
    int port;                  // 76
    int device_id;             // 80
    std::string slave;         // 88
public:
    // From the link's entry ("ip4_addr") in the network information service's list. The members up to
    // dump2struct are as PrivateLink's.
    RgLink(std::string slave, Json::Value& info);
    int set_local(std::string& ip);
    int obtain_ifindex();
    int parse_tun_local_ip();
    int setup_tun_ipv4();
    int get_tun_flag(unsigned int& flags);
    int set_tun_flag(unsigned int flags);
    int unset_tun_flag(unsigned int flags);
    int dump2struct(ipip_conf* conf);
    // Creates (0) the device with address, IFF_UP and IFF_NOMULTIPATH, or deletes (1) nothing but the device.
    int setup_tun(int op);
};

// As setup_private (privatelink.h) for regional links.
CORVO_API int setup_rglink(int op, std::string ifname, std::string& source);

// Applies the document `conf`; `type` must be "regional" (-3004). -3016 when the document cannot be read,
// -3011 when an element of "add" failed.
CORVO_API int setup_regional_route(std::string& type, std::string& conf);
