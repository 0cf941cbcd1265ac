// The messages of traffic control as bytes: queueing disciplines, classes, classifiers, and reading them
// back.
//
// Who may include this: the netlink area and its tests. Nothing here touches the kernel. Attribute layout and
// units: linux/pkt_sched.h, linux/pkt_cls.h. Rates are bytes per second, addresses in network order.
#pragma once

#include <cstdint>
#include <string>

#include "corvosetup/tc.h"
#include "netlink/message.h"

namespace corvo::tc {

// The device an object belongs to, as far as its messages need it.
struct Device {
    int index = 0;
    std::uint32_t mtu = 1500;  // largest packet that the rate tables and bursts must take
    // How often the kernel's packet timer can fire: every nanosecond, or every jiffy without high resolution.
    std::uint32_t timer_hz = 1'000'000'000;
};

// Where an object hangs and what it is called.
struct Place {
    Device device;
    std::uint32_t parent = 0;
    std::uint32_t handle = 0;  // handle of a qdisc or filter, id of a class
};

// A qdisc, created exclusively. For kind "htb" unclassified packets go to the class with minor
// `default_class` (0: they are not shaped).
void add_qdisc_message(nl::MessageWriter& out, const Place& place, const char* kind,
                       std::uint32_t default_class);

// Whatever qdisc hangs at the place's parent.
void delete_qdisc_message(nl::MessageWriter& out, const Place& place);

// An HTB class, created exclusively. Guaranteed rate, ceiling and priority are those of `options`; burst and
// ceiling burst are one packet of the device's MTU and what the rate sends between two ticks of the timer,
// the quantum is left to the kernel.
void add_htb_class_message(nl::MessageWriter& out, const Place& place, const tc_options& options);

// A class of a kind that takes no parameters, created exclusively.
void add_plain_class_message(nl::MessageWriter& out, const Place& place, const char* kind);

// A classifier on the firewall mark: packets whose mark under `mask` is the place's handle go to `class_id`.
void add_fw_message(nl::MessageWriter& out, const Place& place, std::uint32_t class_id, std::uint32_t mask,
                    std::uint16_t priority);

// A u32 classifier with the keys of `match`, terminal, in the kernel's default hash table; not exclusive. A
// null class id sets none.
void add_u32_message(nl::MessageWriter& out, const Place& place, const std::uint32_t* class_id,
                     const U32QoSObj& match);

// The two classifiers of an ingress qdisc: ESP stays, everything else goes to the output of `redirect_index`.
void add_bypass_message(nl::MessageWriter& out, const Device& device, std::uint16_t protocol);
void add_redirect_message(nl::MessageWriter& out, const Device& device, std::uint16_t protocol,
                          int redirect_index);

// Dumps: all qdiscs of the namespace (the kernel does not filter them), the classes of one device.
void dump_qdiscs_message(nl::MessageWriter& out);
void dump_classes_message(nl::MessageWriter& out, int device_index);

// One qdisc or class as the kernel reports it.
struct Report {
    int device_index = 0;
    std::uint32_t handle = 0;
    std::uint32_t parent = 0;
    std::string kind;
    std::uint64_t queue_length = 0;
    std::uint32_t rate_estimate = 0;     // bytes/s, at most 2^32 - 1
    std::uint64_t rate_estimate_64 = 0;  // the same without the limit
    // HTB classes only.
    std::uint32_t htb_rate = 0;
    std::uint32_t htb_ceil = 0;
    std::uint64_t htb_ceil_64 = 0;
};

// False: not an object of traffic control.
bool read_report(const nl::MessageView& message, Report& report);

// Bytes of one burst as the kernel's clock ticks at `rate`; at least 1, and at most what the field holds.
std::uint32_t burst_ticks(std::uint64_t bytes, std::uint64_t rate);

}  // namespace corvo::tc
