// The messages of links, addresses and the FOU port: records in, bytes out.
//
// Internal to this area (and its tests). Nothing here touches the kernel.
#pragma once

#include <string_view>

#include "corvosetup/link.h"
#include "netlink/address.h"
#include "netlink/message.h"

namespace corvo::nl {

// The MTU every tunnel device gets. The peers in the field are set up for it: it is no choice of the record.
inline constexpr std::uint32_t kTunnelMtu = 1300;

// The FOU receive port of every device.
inline constexpr std::uint16_t kFouPort = 5555;

// RTM_NEWLINK for an ipip device with GUE encapsulation. The local and remote texts that are no IPv4
// addresses become 255.255.255.255: the device is then created and stays down, and it cannot collide with the
// driver's own fallback device, whose addresses are both 0.
void build_new_ipip(MessageWriter& out, const ipip_conf& conf);
// The same for sit, without encapsulation.
void build_new_sit(MessageWriter& out, const sit_conf& conf);
// RTM_NEWLINK for a dummy device; an existing one of that name and kind is left as it is.
void build_new_dummy(MessageWriter& out, std::string_view name, int queues);
// RTM_DELLINK by name.
void build_delete_link(MessageWriter& out, std::string_view name);

void build_get_link(MessageWriter& out, int ifindex);
// Sets the flags of `mask` to those of `flags`, and no others.
void build_change_flags(MessageWriter& out, int ifindex, unsigned flags, unsigned mask);

// RTM_NEWADDR that replaces an address already there.
void build_set_address(MessageWriter& out, int ifindex, const Address& address);
// The dump of one device's addresses.
void build_dump_addresses(MessageWriter& out, int ifindex, int family);

// What a dump of IPv4 addresses said about one of them.
struct InterfaceAddress {
    int ifindex = 0;
    std::uint8_t scope = 0;
    Address local;
    Address peer;  // the local address again when there is no peer
};
bool read_interface_address(const MessageView& message, InterfaceAddress& out);
void build_delete_address(MessageWriter& out, const InterfaceAddress& address);

// Generic netlink: the id of the family `name`, and what edit_fou(op) sends to the family `id`.
void build_get_family(MessageWriter& out, std::string_view name);
std::uint16_t read_family_id(const MessageView& message);
// `with_protocol` false leaves the IP protocol out, which is 0 for GUE in any case.
void build_fou(MessageWriter& out, std::uint16_t family_id, unsigned op, bool with_protocol = true);

}  // namespace corvo::nl
