#include "netlink/tc_u32_keys.h"

#include <algorithm>

namespace corvo::tc {
namespace {

// Offsets from the network header. The Ethernet header is the 14 bytes before it.
constexpr int kDestinationMac = -14;
constexpr int kSourceMac = -8;
constexpr int kSourceAddress = 12;
constexpr int kDestinationAddress = 16;
constexpr int kPorts = 20;

constexpr std::uint16_t kAll16 = 0xffff;
constexpr std::uint32_t kAll32 = 0xffffffff;

bool is_set(const unsigned char (&mac)[6]) {
    return std::any_of(std::begin(mac), std::end(mac), [](unsigned char byte) { return byte != 0; });
}

std::uint16_t word_16(const unsigned char* bytes) {
    return static_cast<std::uint16_t>((bytes[0] << 8) | bytes[1]);
}

std::uint32_t word_32(const unsigned char* bytes) {
    return (static_cast<std::uint32_t>(word_16(bytes)) << 16) | word_16(bytes + 2);
}

}  // namespace

U32Keys keys_of(const U32QoSObj& match) {
    U32Keys keys;
    if (is_set(match.smac)) {
        keys.add_16(word_16(match.smac + 4), kAll16, kSourceMac + 4);
        keys.add_32(word_32(match.smac), kAll32, kSourceMac);
    }
    if (is_set(match.dmac)) {
        keys.add_16(word_16(match.dmac), kAll16, kDestinationMac);
        keys.add_32(word_32(match.dmac + 2), kAll32, kDestinationMac + 2);
    }
    if (match.saddr) keys.add_wire_32(match.saddr, match.smask, kSourceAddress);
    if (match.daddr) keys.add_wire_32(match.daddr, match.dmask, kDestinationAddress);
    if (match.sport) keys.add_32(match.sport << 16, 0xffff0000, kPorts);
    if (match.dport) keys.add_32(match.dport, 0x0000ffff, kPorts);
    return keys;
}

}  // namespace corvo::tc
