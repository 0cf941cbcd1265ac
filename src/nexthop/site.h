// The site document as the hub tests read it, and the order in which they try the hubs.
//
// Who may include this: nexthop.
//
// The two hub tests read the same document and differ in what counts as a port, which ports may be tried and
// which hubs are candidates; those differences are the parameters here. All but load_site() are pure
// functions of the document, and none throws for a document of another shape: what is missing or of another
// type reads as empty. Members are visited in byte-wise order of their names. Threading: none of these keeps
// state.
#pragma once

#include <json/value.h>

#include <cstdint>
#include <string>
#include <vector>

namespace corvo {

// Which members of a site are its WAN ports.
enum class PortNames {
    kContaining,  // "PORT" anywhere in the name
    kBeginning,   // the name begins with "PORT"
};

// Which of its ports may be tried, and where.
enum class PortAddress {
    kRealOrWan,  // every port, at REAL_WAN_ADDR4 or, when that is empty, WAN_ADDR4 (which may be empty too)
    kUntranslated,  // only ports whose two addresses are equal and not empty: not behind address translation
};

struct SitePort {
    std::string name;
    std::string address;
};

// The device's own entry.
struct EdgeSite {
    std::string id;
    std::string hub;  // the current one
    std::string group;
    std::string domain;
    std::vector<std::string> hubs;  // the configured ones, in order of preference
    bool is_edge = false;
};

// "SITE_INFO" of the site document, from the configuration service or the file. 0; -3016 with ERROR
// "Fail to open SITE_CONF." when neither has it.
int load_site(Json::Value& sites);

// A member of an object by its whole name (which may hold a NUL), or a null value.
const Json::Value& site_member(const Json::Value& parent, const std::string& name);

// Reads the entry of `id`. 0; -3001 with one ERROR line:
//   "Device: <id> is not 'EDGE.'"
//   "Characteristic is not sufficent, hub: <hub>, group: <group>, domain: <domain>"; `out` is filled then
int read_edge_site(const Json::Value& sites, const std::string& id, EdgeSite& out);

// The ports of `hub` that may be tried. A hub that the document does not know has none.
std::vector<SitePort> hub_ports(const Json::Value& sites, const std::string& hub, PortNames names,
                                PortAddress address);

// The sum of RX_RATE and TX_RATE over the ports of one site's entry, modulo 2^64.
std::uint64_t hub_capacity(const Json::Value& site, PortNames names);

// The hubs to try after the current one, each once, the current one never:
//   the configured ones, in their order, whatever their capacity;
//   the hubs of the edge's group, largest capacity first, equal ones by name in ascending byte order;
//   with `domain_hubs` the hubs of its domain in other groups, in the same order.
std::vector<std::string> rank_hubs(const Json::Value& sites, const EdgeSite& edge, PortNames names,
                                   bool domain_hubs);

}  // namespace corvo
