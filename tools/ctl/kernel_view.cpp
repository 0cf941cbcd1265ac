#include "ctl/kernel_view.h"

#include <arpa/inet.h>
#include <corvosetup/link.h>
#include <corvosetup/utils.h>
#include <ifaddrs.h>
#include <net/if.h>

#include <bit>
#include <memory>

namespace corvoctl {

namespace {

template <class Bytes>
int prefix_length(const Bytes* mask, std::size_t size) {
    int length = 0;
    const auto* bytes = reinterpret_cast<const unsigned char*>(mask);
    for (std::size_t i = 0; i < size; ++i) length += std::popcount(bytes[i]);
    return length;
}

std::string address_text(const ifaddrs& entry) {
    char text[INET6_ADDRSTRLEN] = "";
    int length = 0;
    if (entry.ifa_addr->sa_family == AF_INET) {
        inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in*>(entry.ifa_addr)->sin_addr, text,
                  sizeof text);
        if (entry.ifa_netmask != nullptr)
            length = prefix_length(&reinterpret_cast<const sockaddr_in*>(entry.ifa_netmask)->sin_addr, 4);
    } else {
        inet_ntop(AF_INET6, &reinterpret_cast<const sockaddr_in6*>(entry.ifa_addr)->sin6_addr, text,
                  sizeof text);
        if (entry.ifa_netmask != nullptr)
            length = prefix_length(&reinterpret_cast<const sockaddr_in6*>(entry.ifa_netmask)->sin6_addr, 16);
    }
    return std::string(text) + "/" + std::to_string(length);
}

}  // namespace

LinkView view_link(const std::string& name) {
    LinkView link;
    link.name = name;
    link.ifindex = get_ifindex(name.c_str());
    unsigned flags = 0;
    if (link.exists() && get_dev_flags(link.ifindex, &flags) == 0) link.up = (flags & IFF_UP) != 0;
    ifaddrs* head = nullptr;
    if (link.exists() && getifaddrs(&head) == 0) {
        const std::unique_ptr<ifaddrs, void (*)(ifaddrs*)> list(head, freeifaddrs);
        for (const int family : {AF_INET, AF_INET6}) {
            for (const ifaddrs* at = head; at != nullptr; at = at->ifa_next) {
                if (at->ifa_addr == nullptr || at->ifa_addr->sa_family != family || name != at->ifa_name)
                    continue;
                link.addresses.push_back(address_text(*at));
            }
        }
    }
    return link;
}

Json::Value to_json(const LinkView& link) {
    Json::Value out(Json::objectValue);
    out["dev"] = link.name;
    out["exists"] = link.exists();
    out["ifindex"] = link.ifindex;
    out["up"] = link.up;
    out["addresses"] = Json::Value(Json::arrayValue);
    for (const auto& address : link.addresses) out["addresses"].append(address);
    return out;
}

std::string to_line(const LinkView& link) {
    if (!link.exists()) return link.name + ": no such device";
    std::string line = link.name + ": " + (link.up ? "up" : "down");
    if (link.addresses.empty()) line += ", no address";
    for (const auto& address : link.addresses) line += " " + address;
    return line;
}

}  // namespace corvoctl
