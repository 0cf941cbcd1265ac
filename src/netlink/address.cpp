#include "netlink/address.h"

#include <arpa/inet.h>

#include <strings.h>
#include <algorithm>
#include <cstdlib>

namespace corvo::nl {

namespace {

constexpr long kMaxPrefix = 255;

bool is_word(const char* text) {
    for (const char* word : {"default", "any", "all", "none"}) {
        if (::strcasecmp(text, word) == 0) return true;
    }
    return false;
}

std::uint8_t size_of_family(int family) {
    return family == AF_INET6 ? 16 : 4;
}

}  // namespace

std::string Address::host_text() const {
    char buffer[INET6_ADDRSTRLEN] = "";
    if (size == 0 || !::inet_ntop(family, bytes.data(), buffer, sizeof buffer)) return "none";
    return buffer;
}

std::string Address::text() const {
    std::string out = host_text();
    if (prefix != full_prefix()) out += "/" + std::to_string(prefix);
    return out;
}

std::optional<Address> parse_address(std::string_view text, int family) {
    char buffer[64];
    if (text.size() >= sizeof buffer) return std::nullopt;
    std::copy(text.begin(), text.end(), buffer);
    buffer[text.size()] = '\0';

    char* length = std::strchr(buffer, '/');
    if (length) *length++ = '\0';

    Address out;
    out.family = static_cast<std::uint8_t>(family);
    if (!is_word(buffer)) {
        if (::inet_pton(family, buffer, out.bytes.data()) != 1) return std::nullopt;
        out.size = size_of_family(family);
    }
    out.prefix = out.full_prefix();
    if (length) {
        char* end = nullptr;
        const long value = std::strtol(length, &end, 0);
        if (end == length || *end != '\0' || value < 0 || value > kMaxPrefix) return std::nullopt;
        out.prefix = static_cast<std::uint8_t>(value);
    }
    return out;
}

std::optional<Address> read_address(Bytes data, int family, std::uint8_t prefix) {
    Address out;
    if (data.size() != size_of_family(family)) return std::nullopt;
    out.family = static_cast<std::uint8_t>(family);
    out.size = static_cast<std::uint8_t>(data.size());
    out.prefix = prefix;
    std::copy(data.begin(), data.end(), out.bytes.begin());
    return out;
}

}  // namespace corvo::nl
