// The keys of a u32 classifier.
//
// Who may include this: the netlink area and its tests. A key compares the 32 bits at an offset from the
// network header, which is a multiple of 4 and may be negative (the link-layer header stands before it).
#pragma once

#include <arpa/inet.h>
#include <linux/pkt_cls.h>

#include <array>
#include <cstddef>
#include <cstdint>

#include "corvosetup/tc.h"

namespace corvo::tc {

class U32Keys {
public:
    static constexpr std::size_t kMost = 8;  // two MAC addresses of two keys, two addresses, two ports

    // Value and mask in host order.
    void add_32(std::uint32_t value, std::uint32_t mask, int offset) {
        add_wire_32(htonl(value), htonl(mask), offset);
    }
    // Value and mask as they stand in the packet.
    void add_wire_32(std::uint32_t value, std::uint32_t mask, int offset) {
        tc_u32_key& key = keys_[size_++];
        key.mask = mask;
        key.val = value & mask;
        key.off = offset;
    }
    // The 16 bits at an even offset: the upper or the lower half of the word that holds them.
    void add_16(std::uint16_t value, std::uint16_t mask, int offset) {
        const unsigned shift = (offset & 3) ? 0 : 16;
        add_32(static_cast<std::uint32_t>(value) << shift, static_cast<std::uint32_t>(mask) << shift,
               offset & ~3);
    }

    std::size_t size() const { return size_; }
    const tc_u32_key* data() const { return keys_.data(); }

private:
    std::array<tc_u32_key, kMost> keys_{};
    std::size_t size_ = 0;
};

// The keys of a match record, in the order the kernel is to compare them: source MAC, destination MAC, source
// and destination address, source and destination port; a field that is zero adds none. Ports are looked for
// behind an IPv4 header of 20 bytes.
U32Keys keys_of(const U32QoSObj& match);

}  // namespace corvo::tc
