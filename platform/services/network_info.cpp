#include "network_info.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <netinet/in.h>

#include <bit>
#include <memory>

#include "foundation/json.h"

namespace standin {

namespace {

using corvo::j_has;
using corvo::j_member;
using corvo::j_obj;
using corvo::j_str;

const char* section_of(LinkKind kind) {
    switch (kind) {
        case LinkKind::kWan:
            return "WAN_IFACE_INFO";
        case LinkKind::kPrivate:
            return "PRIVATE_IFACE_INFO";
        case LinkKind::kRegional:
            break;
    }
    return "RGLINK_IFACE_INFO";
}

// A point-to-point device rides on the port that its name ends with.
std::string without_prefix(const std::string& name) {
    for (const char* prefix : {"ppp-", "ds-", "me-"}) {
        if (name.starts_with(prefix)) return name.substr(std::string(prefix).size());
    }
    return name;
}

// Documents write flags as booleans, numbers or quoted numbers.
bool flag(const Json::Value& object, const char* key, bool fallback) {
    const std::string text = j_str(object, key);
    if (text.empty()) return fallback;
    return text == "true" || corvo::text_to_int(text) != 0;
}

struct Address {
    std::string text;
    int prefix = 0;
};

Address split_prefix(const std::string& text) {
    const auto slash = text.find('/');
    if (slash == std::string::npos) return {text, 0};
    return {text.substr(0, slash), corvo::text_to_int(text.substr(slash + 1))};
}

Json::Value element(const std::string& name, const Json::Value& link, LinkKind kind, const LiveLookup& live) {
    Json::Value out(Json::objectValue);
    const std::string slave = j_str(link, "SLAVE", without_prefix(name));
    const int id = corvo::text_to_int(j_str(link, "ID", "0"));
    out["ifname"] = name;
    out["slave"] = slave;
    out["id"] = id;
    out["port"] = "PORT" + std::to_string(id);
    out["prio"] = corvo::text_to_int(j_str(link, "PRIO", "0"));
    out["rx_rate"] = Json::UInt64(corvo::text_to_ulong(j_str(link, "RX_RATE", "0")));
    out["tx_rate"] = Json::UInt64(corvo::text_to_ulong(j_str(link, "TX_RATE", "0")));
    out["enabled"] = flag(link, "ENABLED", true);

    LiveAddresses now;
    if (live && (!j_has(link, "IP4_ADDR") || !j_has(link, "IP6_ADDR"))) now = live(name);
    const Address ip4 =
        j_has(link, "IP4_ADDR") ? split_prefix(j_str(link, "IP4_ADDR")) : Address{now.ip4, now.ip4_prefix};
    out["ip4_addr"] = ip4.text;
    out["ip4_prefix"] = ip4.prefix;
    out["ip4_gw"] = j_str(link, "IP4_GW");
    out["ip6_addr"] = j_has(link, "IP6_ADDR") ? split_prefix(j_str(link, "IP6_ADDR")).text : now.ip6;
    out["tun_addr"] = j_str(link, "TUN_ADDR4");
    if (kind == LinkKind::kPrivate) out["private_group_id"] = j_str(link, "PRIVATE_GROUP_ID");
    return out;
}

bool usable(const Json::Value& link, LinkKind kind) {
    return link["enabled"].asBool() && !link["ip4_addr"].asString().empty() &&
           (kind != LinkKind::kWan || !link["ip4_gw"].asString().empty());
}

}  // namespace

LiveAddresses kernel_addresses(const std::string& ifname) {
    LiveAddresses out;
    ifaddrs* list = nullptr;
    if (::getifaddrs(&list) != 0) return out;
    const std::unique_ptr<ifaddrs, decltype(&::freeifaddrs)> owner(list, ::freeifaddrs);
    for (const ifaddrs* at = list; at != nullptr; at = at->ifa_next) {
        if (at->ifa_addr == nullptr || ifname != at->ifa_name) continue;
        char text[INET6_ADDRSTRLEN] = {};
        if (at->ifa_addr->sa_family == AF_INET && out.ip4.empty()) {
            const auto* address = reinterpret_cast<const sockaddr_in*>(at->ifa_addr);
            const auto* mask = reinterpret_cast<const sockaddr_in*>(at->ifa_netmask);
            ::inet_ntop(AF_INET, &address->sin_addr, text, sizeof text);
            out.ip4 = text;
            if (mask != nullptr) out.ip4_prefix = std::popcount(mask->sin_addr.s_addr);
        } else if (at->ifa_addr->sa_family == AF_INET6 && out.ip6.empty()) {
            const auto& address = reinterpret_cast<const sockaddr_in6*>(at->ifa_addr)->sin6_addr;
            if (IN6_IS_ADDR_LINKLOCAL(&address)) continue;
            ::inet_ntop(AF_INET6, &address, text, sizeof text);
            out.ip6 = text;
        }
    }
    return out;
}

Json::Value link_elements(const Json::Value& device_info, LinkKind kind, bool comprehensive,
                          const LiveLookup& live) {
    Json::Value out(Json::arrayValue);
    const Json::Value& section = j_obj(device_info, section_of(kind));
    for (const std::string& name : section.getMemberNames()) {
        const Json::Value& link = j_member(section, name);
        // A link without a number is a port that nobody has put to use.
        if (!link.isObject() || corvo::text_to_int(j_str(link, "ID", "0")) == 0) continue;
        Json::Value made = element(name, link, kind, live);
        if (comprehensive || usable(made, kind)) out.append(std::move(made));
    }
    return out;
}

int device_id(const Json::Value& device_info) {
    return corvo::text_to_int(j_str(device_info, "DEVICE_ID", "0"));
}

bool local_management(const Json::Value& device_info) {
    return flag(device_info, "LOCAL_MGMT", false);
}

}  // namespace standin
