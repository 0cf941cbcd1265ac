// The site document: reading it, ranking its hubs and listing their ports.

#include <cstdint>
#include <cstdlib>
#include <set>
#include <string>
#include <string_view>

#include "corvosetup/log.h"
#include "foundation/json.h"
#include "nexthop/site.h"

namespace {

void require(bool condition) {
    if (!condition) std::abort();
}

void rank(const Json::Value& sites, const corvo::EdgeSite& edge, corvo::PortNames names, bool domain_hubs) {
    const auto order = corvo::rank_hubs(sites, edge, names, domain_hubs);
    std::set<std::string> seen;
    for (const auto& name : order) {
        require(name != edge.hub);
        require(seen.insert(name).second);
        for (const auto& port : corvo::hub_ports(sites, name, names, corvo::PortAddress::kUntranslated))
            require(!port.address.empty());
        corvo::hub_ports(sites, name, names, corvo::PortAddress::kRealOrWan);
    }
    // After the configured ones, each list is in falling order of capacity.
    std::set<std::string> configured(edge.hubs.begin(), edge.hubs.end());
    std::uint64_t last = ~std::uint64_t{0};
    bool in_domain_part = false;
    for (const auto& name : order) {
        if (configured.contains(name)) continue;
        const Json::Value& site = corvo::site_member(sites, name);
        const bool of_group = corvo::j_str(site, "GROUP_ID") == edge.group;
        require(of_group ? !in_domain_part : domain_hubs);
        if (!of_group && !in_domain_part) {
            in_domain_part = true;
            last = ~std::uint64_t{0};
        }
        const auto capacity = corvo::hub_capacity(site, names);
        require(capacity <= last);
        last = capacity;
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    reopen_setup_logger("/dev/null");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Json::Value document;
    if (!corvo::parse_json({reinterpret_cast<const char*>(data), size}, document)) return 0;
    const Json::Value& sites = corvo::j_obj(document, "SITE_INFO");
    const Json::Value before = sites;
    corvo::EdgeSite edge;
    if (corvo::read_edge_site(sites, "10", edge) == 0) {
        for (const auto names : {corvo::PortNames::kContaining, corvo::PortNames::kBeginning})
            for (const bool domain_hubs : {false, true}) rank(sites, edge, names, domain_hubs);
    }
    require(sites == before);
    return 0;
}
