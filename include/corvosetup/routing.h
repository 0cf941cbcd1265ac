// libcorvosetup: routes and policy rules.
//
// Every function opens a netlink socket of its own, does one operation and closes it: calls from several
// threads are independent. Nothing is logged here. Texts in records may fill their field without a
// terminator; an empty text and a number 0 mean "not set". Operation codes are compared as unsigned numbers.
//
// Common codes: -3002 null record, -3004 operation above 3, -3007 an address that is none (nothing is sent),
// -3008 no memory for the socket, -3009 no descriptor for it, -3010 no memory or the kernel's list cannot be
// read. Sources: rtnetlink(7), <linux/rtnetlink.h>, <linux/fib_rules.h>, libnl's <netlink/errno.h>.
#pragma once

#include <cstdint>

#include "corvosetup/export.h"

extern "C" {

struct nexthop {           // sizeof 48 (LP64)
    unsigned char onlink;  //  0 the gateway is on the link whatever the addresses say
    int weight;            //  4 1-based; 0 = unset
    char gw[16];           //  8 IPv4 text
    char dev[16];          // 24 output device
    struct nexthop* next;  // 40
};
struct nexthop6 {           // sizeof 80
    int weight;             //  0 carried for the caller, never sent
    char gw[46];            //  4
    char dev[16];           // 50
    struct nexthop6* next;  // 72
};
struct route_conf {            // sizeof 48
    int prefixlen;             //  0 of dst; 0: the length in dst, or that of a host
    int table;                 //  4 unset: main for the route that is added
    int priority;              //  8 the metric that ip route shows
    int lock;                  // 12 RTAX_LOCK
    int mtu;                   // 16 RTAX_MTU
    int advmss;                // 20 RTAX_ADVMSS
    char dst[16];              // 24 address, with or without "/length", or "default"
    struct nexthop* nexthops;  // 40
};
struct route6_conf {  // sizeof 80
    int prefixlen;
    int table;
    int priority;
    int lock;
    int mtu;
    int advmss;
    char dst[46];               // 24
    struct nexthop6* nexthops;  // 72
};
struct rule_conf {   // sizeof 48
    uint32_t prio;   //  0
    uint32_t table;  //  4
    uint32_t mark;   //  8
    uint32_t mask;   // 12
    char src[16];    // 16 address, with or without "/length": what does not fit is no address
    char oif[16];    // 32 output device; need not exist
};
struct rule6_conf {  // sizeof 80
    uint32_t prio;
    uint32_t table;
    uint32_t mark;
    uint32_t mask;
    char src[46];  // 16
    char oif[16];  // 62
};

// Routes. Operations:
//   0  add, after deleting every route of the same table, priority and destination: for IPv4 of any type,
//      protocol and next hops but without a TOS, for IPv6 by the command
//      "/usr/sbin/ip -6 route flush table T DST/LEN metric M", whose status is not looked at
//      (DST and LEN as the record has them, "::" for an empty dst: without a length the command means the
//      default route, and a dst that brings its own length or is a word removes nothing)
//   1  delete the route described
//   2  delete every route that matches table, priority and destination where they are set; a record that sets
//      nothing empties every table. IPv6: the command only
//   3  print every such route to standard output
// An empty dst is the default route for 0 and 1. Added routes are unicast, of protocol static. IPv6 next hops
// send neither weight nor onlink. 0 and 1 answer with libnl's own negative code when the kernel refuses (-6
// exists, -12 not found, -7 invalid, ...), -3005 for a device that is none (nothing is sent), -3012 not sent,
// -3013 no answer.
CORVO_API int edit_route(int op, struct route_conf* rec);
CORVO_API int edit_route6(int op, struct route6_conf* rec);

// Rules "look up a table". Operations: 0 add (one that exists already is success), 1 delete the first that
// matches, 2 delete every rule that matches what is set, 3 print them. -3011: the kernel refused 0 or 1.
CORVO_API int edit_rule(int op, struct rule_conf* rec);
CORVO_API int edit_rule6(int op, struct rule6_conf* rec);

// Appends a zeroed next hop to the list that starts at *head and returns it; null without memory. The caller
// fills it and releases the whole list with free_nexthop(*head); null is an empty list.
CORVO_API struct nexthop* add_nexthop(struct nexthop** head);
CORVO_API struct nexthop6* add_nexthop6(struct nexthop6** head);
CORVO_API void free_nexthop(struct nexthop* first);
CORVO_API void free_nexthop6(struct nexthop6* first);

}  // extern "C"
