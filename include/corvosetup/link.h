// libcorvosetup: links, addresses and tunnel devices.
//
// Every function opens a netlink socket of its own, does one operation and closes it: calls from several
// threads are independent. All answer 0 or a negative result code and log nothing. Common codes: -3008 no
// memory for the socket, -3009 no descriptor for it, -3010 no memory for the request or the kernel's list
// cannot be read. An answer that does not come within 5 seconds counts as a refusal. Texts in records may
// fill their field without a terminator. Operation codes are compared as unsigned numbers. Sources:
// rtnetlink(7), <linux/if_link.h>, <linux/if_tunnel.h>, <linux/fou.h>.
#pragma once

#include "corvosetup/export.h"

extern "C" {

// An IPv4-in-IPv4 tunnel with GUE encapsulation.
struct ipip_conf {         // sizeof 76
    char name[16];         //  0 IFLA_IFNAME
    char local[16];        // 16 IPv4 text
    char remote[16];       // 32 IPv4 text
    char addr[16];         // 48 tunnel address text, not read by this layer
    int queues;            // 64 transmit and receive queues; 0: the kernel's default
    unsigned char ttl;     // 68 0: inherited, and path MTU discovery off
    unsigned short sport;  // 70 fou source port, host order; never sent
    int dport;             // 72 GUE destination UDP port, host order
};

// An IPv6-in-IPv4 tunnel.
struct sit_conf {       // sizeof 104
    char name[16];      //   0
    char local[16];     //  16
    char remote[16];    //  32
    char addr6[46];     //  48 "the IPv6 address field (46 characters)"
    int queues;         //  96 as in ipip_conf
    unsigned char ttl;  // 100 as in ipip_conf
};

// Creates (op 0, with `queues` transmit and receive queues unless 0) or deletes (op 1) a dummy device.
// Creating one that is there changes nothing. -3002 null name, -3004 other op or empty name, -3011 refused.
CORVO_API int edit_dummy(int op, const char* name, int queues);

// Creates (op 0) or deletes (op 1) the device `conf->name`. Creation is exclusive: a name that exists is
// refused. The MTU is 1300 whatever the record says. An address text that is none becomes 255.255.255.255:
// the device is created and cannot be used. -3002 null record, -3004 other op or empty name, -3011 refused,
// -3012 not sent, -3013 no answer; -3008 also when there is no descriptor.
CORVO_API int edit_ipip_tunnel(int op, struct ipip_conf* conf);
CORVO_API int edit_sit_tunnel(int op, struct sit_conf* conf);

// Opens (op 0), closes (op 1) or lists and discards (op 2) UDP port 5555 as GUE receive port. Always 0:
// errors are not reported, and other operations do nothing.
CORVO_API int edit_fou(int op);

// IFF_* flags. Reading: -3004 index below 1, -3002 null pointer or unknown link. Setting and clearing touch
// no other flag: -3004 index below 1, -3003 no flags, -3011 refused or unknown link; flags that the kernel
// does not know are taken and ignored by it.
CORVO_API int get_dev_flags(int ifindex, unsigned int* flags);
CORVO_API int set_dev_flags(int ifindex, unsigned int flags);
CORVO_API int unset_dev_flags(int ifindex, unsigned int flags);

// Deletes every IPv4 address of the link. -3005 index below 1, -3011 refused.
CORVO_API int flush_ipv4_addr(int ifindex);

// The link's first IPv4 address with its prefix length ("192.0.2.1/24"; a /32 is bare). `addr` needs 19 bytes
// and is left alone on failure. -3005 index below 1, -3002 null pointer, -3011 no address.
CORVO_API int get_ipv4_addr(int ifindex, char* addr);

// Adds an address ("192.0.2.1/24"; bare: a host); one that is there already is success. -3005 index below 1,
// -3002 null text, -3007 no address of the family, -3011 refused.
CORVO_API int set_ipv4_addr(int ifindex, const char* addr);
CORVO_API int set_ipv6_addr(int ifindex, const char* addr);

}  // extern "C"
