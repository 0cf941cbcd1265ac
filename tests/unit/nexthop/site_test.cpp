// The site document: the device's own entry, the hubs' ports and capacities.
#include "nexthop/site.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <utility>

#include "site_documents.h"

namespace {

using corvo::EdgeSite;
using corvo::PortAddress;
using corvo::PortNames;
using corvo::test::parsed;
using corvo::test::ranked;
using corvo::test::sites_of_edge;
using testing::ElementsAre;
using testing::IsEmpty;

using Ports = std::vector<std::pair<std::string, std::string>>;

Ports ports_of(const Json::Value& site, PortNames names, PortAddress address) {
    Json::Value sites;
    sites["20"] = site;
    Ports ports;
    for (const auto& port : corvo::hub_ports(sites, "20", names, address))
        ports.emplace_back(port.name, port.address);
    return ports;
}

TEST(EdgeEntry, IsRead) {
    EdgeSite edge;
    ASSERT_EQ(corvo::read_edge_site(sites_of_edge({"30", "40"}), "10", edge), 0);
    EXPECT_EQ(edge.id, "10");
    EXPECT_EQ(edge.hub, "20");
    EXPECT_EQ(edge.group, "g");
    EXPECT_EQ(edge.domain, "d");
    EXPECT_THAT(edge.hubs, ElementsAre("30", "40"));
}

TEST(EdgeEntry, OfAnotherRoleOrMissingIsRefused) {
    EdgeSite edge;
    EXPECT_EQ(corvo::read_edge_site(sites_of_edge(), "20", edge), -3001);
    EXPECT_FALSE(edge.is_edge);
    EXPECT_EQ(corvo::read_edge_site(sites_of_edge(), "11", edge), -3001);
    EXPECT_EQ(corvo::read_edge_site(parsed("[]"), "10", edge), -3001);
    EXPECT_EQ(corvo::read_edge_site(parsed("{\"10\": \"EDGE\"}"), "10", edge), -3001);
}

TEST(EdgeEntry, LackingHubGroupOrDomainIsRefused) {
    for (const char* key : {"HUB", "GROUP_ID", "DOMAIN"}) {
        Json::Value sites = sites_of_edge();
        sites["10"].removeMember(key);
        EdgeSite edge;
        EXPECT_EQ(corvo::read_edge_site(sites, "10", edge), -3001) << key;
        EXPECT_TRUE(edge.is_edge);
        sites["10"][key] = "";
        EXPECT_EQ(corvo::read_edge_site(sites, "10", edge), -3001) << key;
    }
}

TEST(EdgeEntry, HubsThatAreNoListAreNone) {
    for (const char* hubs : {"\"30\"", "{\"30\": 1}", "5", "null"}) {
        Json::Value sites = sites_of_edge();
        sites["10"]["HUBS"] = parsed(hubs);
        EXPECT_THAT(ranked(sites), IsEmpty()) << hubs;
    }
}

TEST(EdgeEntry, NumbersReadAsTheirText) {
    Json::Value sites = sites_of_edge();
    sites["10"]["HUB"] = 20;
    sites["10"]["HUBS"].append(30);
    sites["10"]["HUBS"].append(Json::Value(Json::objectValue));
    EdgeSite edge;
    ASSERT_EQ(corvo::read_edge_site(sites, "10", edge), 0);
    EXPECT_EQ(edge.hub, "20");
    EXPECT_THAT(edge.hubs, ElementsAre("30", ""));
}

TEST(HubPorts, UdpTakesNamesContainingPort) {
    const auto site = parsed(
        "{\"XPORT1\": {\"WAN_ADDR4\": \"1.1.1.1\"}, \"PORT1\": {\"WAN_ADDR4\": \"2.2.2.2\"}, \"port1\": {}}");
    EXPECT_EQ(ports_of(site, PortNames::kContaining, PortAddress::kRealOrWan),
              (Ports{{"PORT1", "2.2.2.2"}, {"XPORT1", "1.1.1.1"}}));
}

TEST(HubPorts, PingTakesNamesBeginningWithPort) {
    const auto site = parsed(
        "{\"XPORT1\": {\"REAL_WAN_ADDR4\": \"1.1.1.1\", \"WAN_ADDR4\": \"1.1.1.1\"},"
        " \"PORT\": {\"REAL_WAN_ADDR4\": \"2.2.2.2\", \"WAN_ADDR4\": \"2.2.2.2\"}}");
    EXPECT_EQ(ports_of(site, PortNames::kBeginning, PortAddress::kUntranslated),
              (Ports{{"PORT", "2.2.2.2"}}));
}

TEST(HubPorts, AreVisitedInByteOrderOfTheirNames) {
    const auto site = parsed("{\"PORT2\": {}, \"PORT10\": {}, \"PORT1\": {}}");
    EXPECT_EQ(ports_of(site, PortNames::kContaining, PortAddress::kRealOrWan),
              (Ports{{"PORT1", ""}, {"PORT10", ""}, {"PORT2", ""}}));
}

TEST(HubPorts, UdpPrefersTheRealAddress) {
    const auto site = parsed(
        "{\"PORT1\": {\"REAL_WAN_ADDR4\": \"1.1.1.1\", \"WAN_ADDR4\": \"10.0.0.1\"},"
        " \"PORT2\": {\"REAL_WAN_ADDR4\": \"\", \"WAN_ADDR4\": \"10.0.0.2\"}, \"PORT3\": \"no object\"}");
    EXPECT_EQ(ports_of(site, PortNames::kContaining, PortAddress::kRealOrWan),
              (Ports{{"PORT1", "1.1.1.1"}, {"PORT2", "10.0.0.2"}, {"PORT3", ""}}));
}

TEST(HubPorts, PingPassesOverPortsBehindTranslation) {
    const auto site = parsed(
        "{\"PORT1\": {\"REAL_WAN_ADDR4\": \"1.1.1.1\", \"WAN_ADDR4\": \"10.0.0.1\"},"
        " \"PORT2\": {\"REAL_WAN_ADDR4\": \"\", \"WAN_ADDR4\": \"\"}, \"PORT3\": {\"WAN_ADDR4\": "
        "\"3.3.3.3\"},"
        " \"PORT4\": {\"REAL_WAN_ADDR4\": \"4.4.4.4\"}, \"PORT5\": [],"
        " \"PORT6\": {\"REAL_WAN_ADDR4\": \"6.6.6.6\", \"WAN_ADDR4\": \"6.6.6.6\"}}");
    EXPECT_EQ(ports_of(site, PortNames::kBeginning, PortAddress::kUntranslated),
              (Ports{{"PORT6", "6.6.6.6"}}));
}

TEST(HubPorts, UnknownHubHasNone) {
    EXPECT_TRUE(
        corvo::hub_ports(sites_of_edge(), "99", PortNames::kContaining, PortAddress::kRealOrWan).empty());
    EXPECT_TRUE(
        corvo::hub_ports(parsed("[1]"), "99", PortNames::kContaining, PortAddress::kRealOrWan).empty());
    EXPECT_TRUE(corvo::hub_ports(parsed("{\"99\": 5}"), "99", PortNames::kContaining, PortAddress::kRealOrWan)
                    .empty());
}

TEST(HubPorts, NamesWithANulAreNamesOfTheirOwn) {
    const auto sites = parsed("{\"1\": {}, \"1\\u0000\": {\"PORT1\": {\"WAN_ADDR4\": \"1.1.1.1\"}}}");
    EXPECT_EQ(corvo::hub_ports(sites, "1", PortNames::kContaining, PortAddress::kRealOrWan).size(), 0U);
    EXPECT_EQ(corvo::hub_ports(sites, std::string("1\0", 2), PortNames::kContaining, PortAddress::kRealOrWan)
                  .size(),
              1U);
}

TEST(HubCapacity, IsTheSumOfAllRatesOfItsPorts) {
    const auto site = parsed(
        "{\"PORT1\": {\"RX_RATE\": \"100\", \"TX_RATE\": \"20\"}, \"PORT2\": {\"RX_RATE\": \"3\"},"
        " \"XPORT\": {\"TX_RATE\": \"1000\"}, \"RX_RATE\": \"50000\"}");
    EXPECT_EQ(corvo::hub_capacity(site, PortNames::kBeginning), 123U);
    EXPECT_EQ(corvo::hub_capacity(site, PortNames::kContaining), 1123U);
}

TEST(HubCapacity, RatesAreReadLikeStrtoul) {
    const auto site = parsed(
        "{\"PORT1\": {\"RX_RATE\": \" 7x\", \"TX_RATE\": \"x\"}, \"PORT2\": {\"RX_RATE\": 5, \"TX_RATE\": "
        "[]},"
        " \"PORT3\": 5, \"PORT4\": {\"RX_RATE\": \"0x10\", \"TX_RATE\": \"010\"}}");
    EXPECT_EQ(corvo::hub_capacity(site, PortNames::kBeginning), 7U + 5U + 0U + 10U);
}

TEST(HubCapacity, IsSummedIn64Bits) {
    const auto site = parsed(
        "{\"PORT1\": {\"RX_RATE\": \"8000000000\", \"TX_RATE\": \"8000000000\"},"
        " \"PORT2\": {\"RX_RATE\": \"99999999999999999999999\"}}");
    EXPECT_EQ(corvo::hub_capacity(site, PortNames::kBeginning), 16'000'000'000U + ~0ULL);
}

}  // namespace
