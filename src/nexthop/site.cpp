#include "nexthop/site.h"

#include <algorithm>
#include <string_view>
#include <unordered_set>
#include <utility>

#include "corvosetup/cfg_file.h"
#include "foundation/json.h"
#include "foundation/log_line.h"
#include "foundation/result.h"

namespace corvo {

namespace {

constexpr const char* kSiteDocument = "/etc/networkmanagement/site.json";
constexpr std::string_view kPort = "PORT";

struct Candidate {
    std::string name;
    std::uint64_t capacity;
};

bool larger_first(const Candidate& a, const Candidate& b) {
    if (a.capacity != b.capacity) return a.capacity > b.capacity;
    return a.name < b.name;
}

bool is_port(std::string_view name, PortNames names) {
    return names == PortNames::kBeginning ? name.starts_with(kPort)
                                          : name.find(kPort) != std::string_view::npos;
}

// Calls `visit(name, member)` for every port member of a site's entry.
template <class Visit>
void for_each_port(const Json::Value& site, PortNames names, Visit&& visit) {
    if (!site.isObject()) return;
    for (auto member = site.begin(); member != site.end(); ++member) {
        const std::string name = member.name();
        if (is_port(name, names)) visit(name, *member);
    }
}

bool has_text(const Json::Value& site, const char* key, std::string_view text) {
    const char* begin = nullptr;
    const char* end = nullptr;
    const Json::Value& value = j_member(site, key);
    if (value.isString() && value.getString(&begin, &end))
        return std::string_view(begin, static_cast<std::size_t>(end - begin)) == text;
    return as_str(value) == text;
}

// A list of names without repetitions.
class NameList {
public:
    void append(const std::string& name) {
        if (seen_.insert(name).second) names_.push_back(name);
    }
    void append_sorted(std::vector<Candidate>& candidates) {
        std::sort(candidates.begin(), candidates.end(), larger_first);
        for (const auto& candidate : candidates) append(candidate.name);
    }
    std::vector<std::string> take() { return std::move(names_); }

private:
    std::unordered_set<std::string> seen_;
    std::vector<std::string> names_;
};

}  // namespace

int load_site(Json::Value& sites) {
    CfgFile file(kSiteDocument);
    if (!file.good()) {
        log::error("Fail to open SITE_CONF.");
        return kNotOpened;
    }
    Json::Value document;
    file >> document;
    sites = j_obj(document, "SITE_INFO");
    return kOk;
}

const Json::Value& site_member(const Json::Value& parent, const std::string& name) {
    static const Json::Value none;
    if (!parent.isObject()) return none;
    const Json::Value* found = parent.find(name.data(), name.data() + name.size());
    return found != nullptr ? *found : none;
}

int read_edge_site(const Json::Value& sites, const std::string& id, EdgeSite& out) {
    const Json::Value& own = site_member(sites, id);
    out = EdgeSite{};
    out.id = id;
    if (!has_text(own, "ROLE", "EDGE")) {
        log::error("Device: ", id, " is not 'EDGE.'");
        return kFailed;
    }
    out.is_edge = true;
    out.hub = j_str(own, "HUB");
    out.group = j_str(own, "GROUP_ID");
    out.domain = j_str(own, "DOMAIN");
    for (const auto& name : j_arr(own, "HUBS")) out.hubs.push_back(as_str(name));
    if (out.hub.empty() || out.group.empty() || out.domain.empty()) {
        log::error("Characteristic is not sufficent, hub: ", out.hub, ", group: ", out.group,
                   ", domain: ", out.domain);
        return kFailed;
    }
    return kOk;
}

std::vector<SitePort> hub_ports(const Json::Value& sites, const std::string& hub, PortNames names,
                                PortAddress address) {
    std::vector<SitePort> ports;
    for_each_port(site_member(sites, hub), names, [&](const std::string& name, const Json::Value& port) {
        std::string real = j_str(port, "REAL_WAN_ADDR4");
        std::string wan = j_str(port, "WAN_ADDR4");
        if (address == PortAddress::kUntranslated && (real.empty() || real != wan)) return;
        ports.push_back({name, real.empty() ? std::move(wan) : std::move(real)});
    });
    return ports;
}

std::uint64_t hub_capacity(const Json::Value& site, PortNames names) {
    std::uint64_t sum = 0;
    for_each_port(site, names, [&](const std::string&, const Json::Value& port) {
        sum += text_to_ulong(j_str(port, "RX_RATE", "0"));
        sum += text_to_ulong(j_str(port, "TX_RATE", "0"));
    });
    return sum;
}

std::vector<std::string> rank_hubs(const Json::Value& sites, const EdgeSite& edge, PortNames names,
                                   bool domain_hubs) {
    NameList list;
    for (const auto& name : edge.hubs) {
        if (name != edge.hub) list.append(name);
    }
    if (!sites.isObject()) return list.take();
    std::vector<Candidate> of_group;
    std::vector<Candidate> of_domain;
    for (auto site = sites.begin(); site != sites.end(); ++site) {
        if (!has_text(*site, "ROLE", "HUB")) continue;
        std::string name = site.name();
        if (name == edge.id || name == edge.hub) continue;
        if (has_text(*site, "GROUP_ID", edge.group)) {
            of_group.push_back({std::move(name), hub_capacity(*site, names)});
        } else if (domain_hubs && has_text(*site, "DOMAIN", edge.domain)) {
            of_domain.push_back({std::move(name), hub_capacity(*site, names)});
        }
    }
    list.append_sorted(of_group);
    list.append_sorted(of_domain);
    return list.take();
}

}  // namespace corvo
