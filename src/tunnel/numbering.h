// The numbers of overlay routing: route types, their bits, and the tables and priorities counted from them.
//
// Who may include this: this area. A link owns one table (and one rule priority) per route type: the type's
// base plus the link's number, which is the tunnel id of a WAN tunnel and the device index of a private link.
#pragma once

#include <climits>
#include <cstdint>
#include <span>
#include <string_view>

namespace corvo::tunnel {

enum Op : int { kCreate = 0, kDelete = 1 };             // of devices and rules
enum RouteOp : int { kRouteAdd = 0, kRouteFlush = 2 };  // of routes; "del" lists flush what matches
enum RouteBit : int { kS2s = 1, kStatic = 2, kMptcp = 4, kDefault = 8 };
enum TableBase : int { kS2sBase = 10000, kStaticBase = 15000, kMptcpBase = 20000, kDefaultBase = 30000 };

constexpr int kAllTypes = -1;          // a mask with every type's bit
constexpr int kSharedTable = 25000;    // regional links, and private links across domains
constexpr int kOwnedFrom = 256;        // below it are the kernel's own tables (local, main, default)
constexpr int kNoMultipath = 0x80000;  // IFF_NOMULTIPATH of the device's kernel; mainline ignores the bit

struct RouteType {
    RouteBit bit;
    TableBase base;
    std::string_view name;
};

// In ascending bit order, which is the order tables are flushed in.
inline constexpr RouteType kRouteTypes[] = {
    {kS2s, kS2sBase, "s2s"},
    {kStatic, kStaticBase, "static"},
    {kMptcp, kMptcpBase, "mptcp"},
    {kDefault, kDefaultBase, "default"},
};

inline const RouteType* type_of_bit(int bit) {
    for (const RouteType& type : kRouteTypes) {
        if (type.bit == bit) return &type;
    }
    return nullptr;
}
inline const RouteType* type_of_base(int base) {
    for (const RouteType& type : kRouteTypes) {
        if (type.base == base) return &type;
    }
    return nullptr;
}
// `prefix` is what the kind's entry point puts before the names ("private_").
inline const RouteType* type_of_name(std::string_view name, std::string_view prefix = {}) {
    if (!name.starts_with(prefix)) return nullptr;
    for (const RouteType& type : kRouteTypes) {
        if (type.name == name.substr(prefix.size())) return &type;
    }
    return nullptr;
}

// The table (or priority) `number` of `base`; 0, which every user refuses, when it is none of ours. An id
// from a document can be anything, and a negative one could otherwise reach the main table.
constexpr int number_of(int base, int number) {
    const std::int64_t sum = std::int64_t{base} + number;
    return sum >= kOwnedFrom && sum <= INT_MAX ? static_cast<int>(sum) : 0;
}

}  // namespace corvo::tunnel
