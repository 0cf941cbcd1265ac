// IP addresses and prefixes as netlink carries them.
//
// Who may include this: areas that speak netlink. Text is read as libnl's nl_addr_parse reads it, since the
// documents on the devices were written for it: an optional "/length" (decimal, octal or hexadecimal), and
// the words "default", "any", "all" and "none" for the destination of length 0.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "netlink/message.h"

namespace corvo::nl {

struct Address {
    std::uint8_t family = 0;
    std::uint8_t size = 0;  // in bytes: 4, 16, or 0 for the words
    std::uint8_t prefix = 0;
    std::array<std::uint8_t, 16> bytes{};  // network order

    Bytes data() const { return {bytes.data(), size}; }
    std::uint8_t full_prefix() const { return static_cast<std::uint8_t>(size * 8); }

    // "10.1.0.0/16"; without the length when it is that of a host.
    std::string text() const;
    // Without any length.
    std::string host_text() const;

    bool operator==(const Address&) const = default;
};

// The address of `family` that `text` says, or none. A length that no prefix of the family can have is kept
// (up to 255): the kernel refuses it.
std::optional<Address> parse_address(std::string_view text, int family);

// The address in an attribute; none when it is not as long as the family's addresses.
std::optional<Address> read_address(Bytes data, int family, std::uint8_t prefix);

}  // namespace corvo::nl
