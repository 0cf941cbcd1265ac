// What private and regional links share: both ride on a private-network port and take their numbers from it.
//
// Who may include this: this area.
#pragma once

#include <string>

#include "corvosetup/link.h"

namespace corvo::tunnel {

// The number that a port's name carries, and the device of the link that rides on it.
struct PortName {
    int port = 0;     // 0: the name carries none
    std::string dev;  // "tun" and the number as it is written
};

// Ports are named "swdev" or "eth" and their number; the cut is at the end of the word counted from the start
// of the name.
PortName read_port_name(const std::string& slave);

// The first IPv4 address of the port `slave`, without its prefix length, into `local`; "0.0.0.0" and a
// negative code when there is none.
int local_of_port(const std::string& slave, char (&local)[16]);

// Whether the link's outer address is still to be looked up.
bool is_any_address(const char* local);

// The device record, which carries no tunnel address and no queue count for these links.
void fill_port_link(ipip_conf& conf, const char* dev, const char* local, const char* remote,
                    unsigned char ttl, unsigned short sport, unsigned short dport);

}  // namespace corvo::tunnel
