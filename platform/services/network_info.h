// The network information service: the lists of links, derived from the device-information document.
#pragma once

#include <json/value.h>

#include <functional>
#include <string>

namespace standin {

enum class LinkKind { kWan, kPrivate, kRegional };

// The addresses that an interface has now; empty texts where it has none.
struct LiveAddresses {
    std::string ip4;
    int ip4_prefix = 0;
    std::string ip6;  // global scope
};
using LiveLookup = std::function<LiveAddresses(const std::string& ifname)>;

// From the kernel (getifaddrs).
LiveAddresses kernel_addresses(const std::string& ifname);

// The array that the service answers with, in key order of the document's section: one element per link.
// `comprehensive` false lists the links that can carry traffic now (enabled, with an address and, for a WAN,
// a gateway); true lists every link that is configured. `live` fills in what the document leaves out; it may
// be empty. docs/device_info.md has the fields.
Json::Value link_elements(const Json::Value& device_info, LinkKind kind, bool comprehensive,
                          const LiveLookup& live);

// The device's own number and its local-management flag.
int device_id(const Json::Value& device_info);
bool local_management(const Json::Value& device_info);

}  // namespace standin
