// Site documents of the tests of the site reader and of the ranking.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "foundation/json.h"
#include "nexthop/site.h"

namespace corvo::test {

inline Json::Value parsed(const std::string& text) {
    Json::Value value;
    EXPECT_TRUE(parse_json(text, value)) << text;
    return value;
}

inline Json::Value hub_site(const std::string& group, const std::string& domain, int rate = 0) {
    Json::Value site;
    site["ROLE"] = "HUB";
    site["GROUP_ID"] = group;
    site["DOMAIN"] = domain;
    site["PORT1"]["RX_RATE"] = std::to_string(rate);
    return site;
}

// Edge 10 of group g and domain d, whose hub is 20.
inline Json::Value sites_of_edge(const std::vector<std::string>& hubs = {}) {
    Json::Value sites;
    Json::Value& own = sites["10"];
    own["ROLE"] = "EDGE";
    own["HUB"] = "20";
    own["GROUP_ID"] = "g";
    own["DOMAIN"] = "d";
    for (const auto& name : hubs) own["HUBS"].append(name);
    sites["20"] = hub_site("g", "d", 1000);
    return sites;
}

inline std::vector<std::string> ranked(const Json::Value& sites, PortNames names = PortNames::kBeginning,
                                       bool domain_hubs = true) {
    EdgeSite edge;
    EXPECT_EQ(read_edge_site(sites, "10", edge), 0);
    return rank_hubs(sites, edge, names, domain_hubs);
}

}  // namespace corvo::test
