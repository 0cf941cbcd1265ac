// Rules and routes of IPv6 tunnels, private and regional links in the kernel.
#include "corvosetup/privatelink.h"
#include "corvosetup/rglink.h"
#include "corvosetup/tun6.h"
#include "link_fixture.h"

using namespace corvo::test;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;
using testing::UnorderedElementsAre;

namespace {

class Tun6InKernel : public LinkTest {
protected:
    Tun6InKernel() {
        add_veth("ip6tun4", "peer4", {.address = "::198.19.0.50/96"});
        wans(
            R"({"ifname": "wan0", "slave": "eth0", "id": 4, "tun_addr": "198.19.0.50", "ip6_addr": "2001:db8::1"})");
        info["id"] = 4;
        info["tun_addr"] = "198.19.0.50";
    }
    Tun6 tun() { return Tun6("eth0", info, 1); }
    int route(const std::string& text, std::string type = "s2s6") {
        std::string conf = write_document("routes6.json", text);
        return setup_tun_route6(type, conf);
    }
    Json::Value info;
};

TEST_F(Tun6InKernel, TunnelFourHasItsFourRules) {
    EXPECT_EQ(tun().setup_tun_rule(), 0);
    EXPECT_THAT(
        rules("-6 "),
        ElementsAre("10004 from all fwmark 0x4/0xf lookup 10004", "20004 from ::198.19.0.50 lookup 20004",
                    "20004 from all oif ip6tun4 lookup 20004", "30004 from all lookup 30004"));
    EXPECT_THAT(rules(), IsEmpty());
    EXPECT_THAT(errors(), IsEmpty());
    EXPECT_EQ(tun().destroy_tun_rule(), 0);
    EXPECT_THAT(rules("-6 "), IsEmpty());
    EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(Tun6InKernel, MptcpDefaultRuleComesAndGoesAlone) {
    EXPECT_EQ(setup_tuni6_mptcp_default_rule(0, "wan0"), 0);
    EXPECT_THAT(rules("-6 "), ElementsAre("30004 from all lookup 30004"));
    EXPECT_EQ(setup_tuni6_mptcp_default_rule(1, "wan0"), 0);
    EXPECT_THAT(rules("-6 "), IsEmpty());
}

TEST_F(Tun6InKernel, RoutesAreAddedReplacedAndDeleted) {
    LeakCheck leaks;
    const std::string add = R"({"add": [{"SITE": "9", "DEST": "fd00:9::/32", "RTA_GATEWAY": ["::198.19.0.9"]},
                                        {"SITE": "8", "DEST": "fd00:8::/32",
                                         "RTA_GATEWAY": ["::198.19.0.9", "::198.19.0.10"], "WEIGHT": ["3", "1"]}]})";
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(route(add), 0);
        const auto found = routes(10004, "-6 ");
        EXPECT_THAT(
            found,
            Contains("fd00:9::/32 via ::198.19.0.9 dev ip6tun4 metric 9 mtu lock 1360 advmss lock 1260 "
                     "pref medium"));
        EXPECT_THAT(found, Contains(StartsWith("fd00:8::/32 metric 8 mtu lock 1360 advmss lock 1260")));
    }
    EXPECT_EQ(
        route(R"({"del": [{"SITE": "9", "DEST": "fd00:9::/32"}, {"SITE": "8", "DEST": "fd00:8::/32"}]})"), 0);
    EXPECT_THAT(routes(10004, "-6 "), IsEmpty());
    EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(Tun6InKernel, BadElementsStopNothing) {
    EXPECT_EQ(route(R"({"add": [{"SITE": "9", "DEST": "fd00:9::/32;reboot", "RTA_GATEWAY": ["::198.19.0.9"]},
                                {"SITE": "9", "DEST": "nonsense", "RTA_GATEWAY": ["::198.19.0.9"]},
                                {"SITE": "9", "DEST": "fd00:7::/32", "RTA_GATEWAY": ["nonsense"]},
                                {"SITE": "9", "DEST": "fd00:8::/32", "RTA_GATEWAY": ["::198.19.0.9"]}]})"),
              -3011);
    EXPECT_THAT(routes(10004, "-6 "), Contains(StartsWith("fd00:8::/32 ")));
    EXPECT_THAT(errors(),
                Contains(testing::ContainsRegex("Edit Route6 failed, ret: -3007, result: .*op: 0 dst: "
                                                "nonsense/0, table: 10004, prio: 9$")));
    EXPECT_THAT(errors(),
                Contains("[ERROR] edit route6 failed. op: 0, count: 2DST [fd00:7::/32], table: 10004, "
                         "metric: 9"));
}

class PrivateInKernel : public LinkTest {
protected:
    PrivateInKernel() {
        add_veth("tun1", "peer1", {.address = "198.19.0.48/32"});
        add_veth("tun2", "peer2", {.address = "198.19.0.49/32"});
        add_veth("swdev1", "port1", {.address = "192.168.100.100/24"});
        info1["ip4_addr"] = info2["ip4_addr"] = "10.9.0.1";
        info1["prio"] = 50;
        info2["prio"] = 60;
        info1["private_group_id"] = info2["private_group_id"] = "g1";
        privates(R"({"ifname": "lan1", "slave": "swdev1", "ip4_addr": "10.9.0.1", "prio": 50},
                    {"ifname": "lan2", "slave": "eth2", "ip4_addr": "10.9.0.1", "prio": 60})");
    }
    PrivateLink link1() { return PrivateLink("swdev1", info1); }
    PrivateLink link2() { return PrivateLink("eth2", info2); }
    std::string table1(int base) { return std::to_string(base + index_of("tun1")); }
    Json::Value info1, info2;
};

constexpr const char* kElement =
    R"({"SITE": "9", "DEST": "10.7.0.9/16", "RTA_GATEWAY": ["10.9.0.2"], "WEIGHT": ["1"], "LOCAL_PORT": ["PRIVATE%"]})";

std::string element(int port) {
    std::string text = kElement;
    return text.replace(text.find('%'), 1, std::to_string(port));
}

TEST_F(PrivateInKernel, RulesAreNumberedByTheIndexAndMarkedWithThePort) {
    EXPECT_EQ(link1().setup_tun_rule(), 0);
    EXPECT_THAT(rules(), ElementsAre(table1(10000) + " from all fwmark 0x1/0xf lookup " + table1(10000),
                                     table1(10000) + " from all fwmark 0x1/0xf lookup " + table1(15000),
                                     table1(20000) + " from 198.19.0.48 lookup " + table1(20000),
                                     table1(20000) + " from all oif tun1 lookup " + table1(20000)));
    EXPECT_EQ(link1().destroy_tun_rule(), 0);
    EXPECT_THAT(rules(), IsEmpty());
    EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(PrivateInKernel, DefaultRoutesShareATableAndAreFlushedAsAWhole) {
    std::string type = "private_default", all = "all";
    std::string conf = write_document("routes.json", R"({"add": [)" + element(1) + "," + element(2) + "]}");
    EXPECT_EQ(setup_private_route(all, type, conf), 0);
    EXPECT_THAT(routes(30000),
                UnorderedElementsAre(
                    "10.7.0.0/16 via 10.9.0.2 dev tun1 metric 50 onlink mtu lock 1460 advmss lock 1380",
                    "10.7.0.0/16 via 10.9.0.2 dev tun2 metric 60 onlink mtu lock 1460 advmss lock 1380"));
    EXPECT_EQ(link1().destroy_tun_route(8), 0);
    EXPECT_THAT(routes(30000), IsEmpty());
    EXPECT_EQ(setup_private_route(all, type, conf), 0);
    EXPECT_EQ(setup_private_mptcp_default_route(2, "lan2"), 0);
    EXPECT_THAT(routes(30000), IsEmpty());
}

TEST_F(PrivateInKernel, LocalIpIsTheFirstAddressOfThePort) {
    PrivateLink link = link1();
    EXPECT_EQ(link.parse_tun_local_ip(), 0);
    ipip_conf conf{};
    link.dump2struct(&conf);
    EXPECT_STREQ(conf.local, "192.168.100.100");
    must_run("ip addr flush dev swdev1");
    EXPECT_LT(link.parse_tun_local_ip(), 0);
    link.dump2struct(&conf);
    EXPECT_STREQ(conf.local, "0.0.0.0");
}

TEST_F(PrivateInKernel, SiteDocumentsRoutesAreInstalled) {
    write_document("site.json", R"({"SITE_INFO": {
        "7": {"DOMAIN": "east"},
        "8": {"DOMAIN": "east", "LAN": ["10.80.0.0/16"], "STATIC_ROUTE": ["172.16.0.0/16"],
              "PRIVATE1": {"PRIVATE_GROUP_ID": "g1", "PRIVATE_ADDR4": "10.9.0.8", "PRIVATE_TUN_ADDR4": "198.19.0.56"},
              "PORT1": {"TUN_ADDR4": "198.19.0.55"}},
        "9": {"DOMAIN": "west", "LAN": ["10.90.0.0/16"],
              "PRIVATE1": {"PRIVATE_GROUP_ID": "g1", "PRIVATE_ADDR4": "10.9.0.9", "PRIVATE_TUN_ADDR4": "198.19.0.64"}}}})");
    EXPECT_EQ(link1().presetup_tun_routing(), 0);
    const std::string tail = " onlink mtu lock 1460 advmss lock 1380";
    EXPECT_THAT(routes(std::stoi(table1(10000))),
                ElementsAre("10.80.0.0/16 via 10.9.0.8 dev tun1 metric 8" + tail));
    EXPECT_THAT(routes(std::stoi(table1(15000))),
                ElementsAre("172.16.0.0/16 via 10.9.0.8 dev tun1 metric 8" + tail));
    EXPECT_THAT(routes(std::stoi(table1(20000))),
                UnorderedElementsAre("198.19.0.56 via 10.9.0.8 dev tun1 metric 8" + tail,
                                     "198.19.0.55 via 10.9.0.8 dev tun1 metric 8" + tail,
                                     "198.19.0.64 via 10.9.0.9 dev tun1 metric 9" + tail));
    EXPECT_THAT(routes(30000), UnorderedElementsAre("198.19.0.56 via 10.9.0.8 dev tun1 metric 50" + tail,
                                                    "198.19.0.55 via 10.9.0.8 dev tun1 metric 50" + tail));
    EXPECT_THAT(routes(25000), UnorderedElementsAre("10.90.0.0/16 via 10.9.0.9 dev tun1 metric 9" + tail,
                                                    "198.19.0.64 via 10.9.0.9 dev tun1 metric 9" + tail));
    EXPECT_THAT(errors(), Contains(StartsWith("[ERROR] ")).Times(0));
}

TEST_F(PrivateInKernel, SiteDocumentThatIsMissingOrWronglyTypedIsReported) {
    EXPECT_EQ(link1().presetup_tun_routing(), -3016);
    EXPECT_THAT(errors(), Contains("[ERROR] Fail to open SITE_CONF."));
    for (const char* text : {R"({"SITE_INFO": {"8": 5}})", "[]"}) {
        write_document("site.json", text);
        clear_log();
        EXPECT_EQ(link1().presetup_tun_routing(), -3001) << text;
        EXPECT_THAT(errors(),
                    Contains(testing::ContainsRegex("^\\[ERROR\\] presetup_tun_routing failed: .+")))
            << text;
    }
}

class RegionalInKernel : public LinkTest {};

TEST_F(RegionalInKernel, RoutesOfAllDevicesShareTable25000) {
    add_veth("tun1", "peer1");
    add_veth("tun2", "peer2");
    std::string type = "regional";
    std::string conf = write_document("routes.json", R"({"add": [
        {"SITE": "9", "DEST": "10.7.0.9/16", "RTA_GATEWAY": ["10.9.0.2"], "DEVICE": "tun1"},
        {"SITE": "10", "DEST": "10.7.0.9/16", "RTA_GATEWAY": ["10.9.0.2"], "DEVICE": "tun2"},
        {"SITE": "8", "DEST": "10.8.0.0/16", "RTA_GATEWAY": ["10.9.0.2", "10.9.0.3"], "WEIGHT": ["2", "5"],
         "DEVICE": "tun2"}]})");
    EXPECT_EQ(setup_regional_route(type, conf), 0);
    EXPECT_THAT(
        routes(25000),
        UnorderedElementsAre("10.7.0.0/16 via 10.9.0.2 dev tun1 metric 9 onlink",
                             "10.7.0.0/16 via 10.9.0.2 dev tun2 metric 10 onlink",
                             "10.8.0.0/16 metric 8 nexthop via 10.9.0.2 dev tun2 weight 2 onlink nexthop via "
                             "10.9.0.3 dev tun2 weight 5 onlink"));
    conf = write_document("routes.json", R"({"del": [{"SITE": "9", "DEST": "10.7.0.0/16"}],
        "add": [{"SITE": "1", "DEST": "10.6.0.0/16", "RTA_GATEWAY": ["10.9.0.2"], "DEVICE": "nowhere"},
                {"SITE": "1", "DEST": "10.5.0.0/16", "RTA_GATEWAY": ["10.9.0.2"], "DEVICE": "tun1"}]})");
    EXPECT_EQ(setup_regional_route(type, conf), -3011);
    EXPECT_THAT(routes(25000), Contains(HasSubstr("metric 9 ")).Times(0));
    EXPECT_THAT(routes(25000), Contains("10.5.0.0/16 via 10.9.0.2 dev tun1 metric 1 onlink"));
}

}  // namespace
