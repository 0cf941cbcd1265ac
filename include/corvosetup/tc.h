// libcorvosetup: queueing disciplines, classes, classifiers and queue status.
//
// One call is one operation with a netlink socket of its own (close-on-exec, answers waited for at most 5 s);
// nothing is kept between calls, and calls from different threads are independent. Nothing is logged here.
//
// Texts. `parent`, `handle` and `classid` are in the usual notation, all numbers hexadecimal: "root", "none",
// "ingress", "1:", "1:10", ":3c0"; a name of libnl's class id file will do too. A colon-free name that is not
// in that file gets an id under the parent and is entered; the file is /etc/libnl/classid.
//
// Results. 0, or:
//   -3002  no device in clean_qdisc (it would be every device's), no record in setup_u32_filter
//   -3004  the parent is zero ("none"), the class kind is not known, the handle or class id of a filter is
//          unusable
//   -3005  the device has no index
//   -3008  no memory for the socket      -3009  no socket      -3010  no memory for anything else
//   -3011  no such device, unusable parent, or the kernel refused: the object exists already, its kind is not
//          in the kernel, a class has no rate or another major number than its parent
// A handle or class id that cannot be read ends setup_qdisc and setup_class with 0 and nothing sent; callers
// rely on it.
//
// Units and layout: linux/pkt_sched.h, linux/pkt_cls.h.
#pragma once

#include <cstdint>

#include "corvosetup/export.h"

extern "C" {

// Options of an HTB qdisc or class. Rates reach 34.3 Gbit/s; the kernel gets them as they stand, with bursts
// of one packet of the device's MTU.
struct tc_options {   // sizeof 16
    uint32_t defcls;  // minor of the class for unclassified packets, 0: they are not shaped; setup_qdisc only
    uint32_t rate;    // guaranteed, bytes/s
    uint32_t ceil;    // with what may be borrowed, bytes/s
    uint32_t prio;    // who borrows first: the lower
};

// What a u32 classifier compares. A field of zeros is not compared, so a record with a protocol alone matches
// every packet of it.
struct U32QoSObj {          // sizeof 44
    uint32_t prio;          //  0 filter priority, the low 16 bits; 0: the kernel chooses
    unsigned char smac[6];  //  4
    unsigned char dmac[6];  // 10
    uint16_t protocol;      // 16 ethertype, host order (0x800, 0x8100)
    uint32_t saddr;         // 20 network order
    uint32_t smask;         // 24 network order
    uint32_t sport;         // 28 host order; ports are looked for behind an IPv4 header of 20 bytes
    uint32_t daddr;         // 32 network order
    uint32_t dmask;         // 36 network order
    uint32_t dport;         // 40 host order
};

struct tqs_link {           // circular list link; an empty head points at itself (link-to-link pointers)
    struct tqs_link* next;  // head: first
    struct tqs_link* prev;  // head: last
};
// One qdisc or class. Products in bits per second are formed in 32 bits: they wrap from 536870912 bytes/s on,
// which is what the fleet's collectors expect.
struct tqs_entry {          // sizeof 88
    char handle[32];        //  0 "1:", "1:10", "none" for a device's default qdisc
    uint64_t ceil;          // 32 HTB class: ceiling, bits/s
    uint64_t qlen;          // 40 packets waiting
    uint64_t rate;          // 48 class: estimated rate, bits/s (0 while the kernel estimates none)
    uint64_t htb_rate;      // 56 HTB class: guaranteed rate, bits/s
    double utilisation;     // 64 HTB class: estimated rate in percent of the ceiling
    struct tqs_link links;  // 72
};

// Adds a qdisc of `kind` ("htb", "fq", ...); exclusively, so -3011 when one is there. `opts` may be null.
CORVO_API int setup_qdisc(const char* dev, const char* parent, const char* handle, const char* kind,
                          struct tc_options* opts);
// Deletes what hangs at `parent` ("root", "ingress"); with a null parent all that the device has. 0 once
// device and parent are valid, whether or not there was anything.
CORVO_API int clean_qdisc(const char* dev, const char* parent);
// Adds the ingress qdisc; the last two arguments are not looked at.
CORVO_API int setup_qdisc_ingress(const char* dev, const char* redirect, unsigned short protocol);
// Sends what arrives with `protocol` to the output of the device `redirect`, IPsec ESP excepted. Only the
// redirect's result is returned. Calling it again adds another redirect.
CORVO_API int setup_qdisc_ingress_filter(const char* dev, const char* redirect, unsigned short protocol);
// Adds a class, exclusively. Kind "htb" takes rate, ceiling and priority from `opts`; "nsshtb" takes none.
CORVO_API int setup_class(const char* dev, const char* parent, const char* classid, const char* kind,
                          struct tc_options* opts);
// Packets whose mark under 0x3c0 is `handle` (":40") go to `classid`; priority 100, exclusively.
CORVO_API int setup_fw_filter(const char* dev, const char* parent, const char* handle, const char* classid);
// Packets that `match` describes go to `classid` (null: to none); the same rule may be there twice.
CORVO_API int setup_u32_filter(const char* dev, const char* parent, const char* classid,
                               struct U32QoSObj* match);
// The device's root qdisc, then its HTB classes, in the kernel's order. The caller owns the list. Null for a
// null or empty name (or without memory); an empty list, or a shorter one, when something fails.
CORVO_API struct tqs_link* get_tx_queue_status(const char* dev);
// Frees a list and its head; null is ignored.
CORVO_API void free_tqs_head(struct tqs_link* head);

}  // extern "C"
