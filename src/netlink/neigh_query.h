// The neighbour entry of one (interface, address), asked from the kernel directly.
//
// Who may include this: the areas above netlink. One request and one answer whatever the number of neighbours
// (about 11 us; a cache of 3,000 entries takes 3 ms). Threading: any thread, every call has its own socket.
#pragma once

#include <netinet/in.h>

#include <string>

#include "netlink/message.h"

namespace corvo {

struct Neighbour {
    int state = 0;       // NUD_* bit of <linux/neighbour.h>
    std::string dst;     // dotted address
    std::string lladdr;  // hex bytes joined by colons; "none" when the entry has none
};

// 1: found, and `out` holds it. 0: the kernel has no such entry (or no such interface). -3008, -3009: no
// socket. -3011, -3012, -3013: the exchange failed.
int find_neighbour(int ifindex, in_addr address, Neighbour& out);

// The request for one entry and the one for all IPv4 entries of an interface (for kernels before 5.0, which
// only dump), and the reading of an entry: false when the message is no IPv4 neighbour of `ifindex`.
void build_neighbour_query(nl::MessageWriter& request, int ifindex, in_addr address);
void build_neighbour_dump(nl::MessageWriter& request, int ifindex);
bool read_neighbour(const nl::MessageView& message, int ifindex, Neighbour& out);

}  // namespace corvo
