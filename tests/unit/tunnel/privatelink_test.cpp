// Private links: construction, devices, rules, routes.
#include "corvosetup/privatelink.h"

#include "fake_device.h"
#include "tunnel/site_routes.h"

using corvo::test::FakeDevice;
using corvo::test::json;
using corvo::tunnel::site_routes;
using corvo::tunnel::SiteRoutes;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

namespace {

class PrivateLinkTest : public FakeDevice {
protected:
    PrivateLinkTest() {
        entry("lan1", R"({"slave": "swdev1", "ip4_addr": "10.9.0.1", "prio": 50, "private_group_id": "g1"})");
    }
    PrivateLink link() { return PrivateLink(entries["lan1"]["slave"].asString(), entries["lan1"]); }
    PrivateLink existing() {
        devices["tun1"] = 12;
        return link();
    }
    int setup(int op, const std::string& ifname = "all") {
        std::string source = "/etc/x.json";
        return setup_private(op, ifname, source);
    }
    // Applies a list to the existing link and returns its failures.
    int apply(int base, int op, const std::string& elements) {
        PrivateLink target = existing();
        Json::Value list = json("[" + elements + "]");
        clear();
        return target.edit_routing(base, op, list);
    }
    ipip_conf record(PrivateLink target) {
        ipip_conf conf{};
        target.dump2struct(&conf);
        return conf;
    }
};

constexpr const char* kGood =
    R"({"SITE": "9", "DEST": "10.7.0.9/16", "RTA_GATEWAY": ["10.9.0.2"], "WEIGHT": ["1"], "LOCAL_PORT": ["PRIVATE1"]})";

TEST_F(PrivateLinkTest, PortNumberAndDeviceComeFromTheSlavesName) {
    static_assert(sizeof(PrivateLink) == 152);
    const struct {
        const char* slave;
        const char* dev;
    } cases[] = {{"swdev2", "tun2"}, {"eth1", "tun1"}, {"swdev12", "tun12"}, {"eth0", ""},
                 {"wan1", ""},       {"swdev", ""},    {"eth", ""},          {"eth1.100", "tun1.100"},
                 {"xeth1", ""},      {"myswdev2", ""}, {"swdeveth3", ""}};
    for (const auto& [slave, dev] : cases) {
        entries["lan1"]["slave"] = slave;
        EXPECT_EQ(link().get_dev(), dev) << slave;
    }
}

TEST_F(PrivateLinkTest, FixedCutPositionsDoNotFollowTheWord) {
    // The word stands one further right, the cut does not: "h2" is no number.
    entries["lan1"]["slave"] = "aeth2";
    EXPECT_EQ(link().get_dev(), "");
    entries["lan1"]["slave"] = "1eth2";  // but "h2" of "1eth2" is what is read
    EXPECT_EQ(link().get_dev(), "");
}

TEST_F(PrivateLinkTest, RecordCarriesNoQueuesAndNoFourthAddress) {
    PrivateLink target = link();
    clear();
    ipip_conf conf{};
    conf.queues = 9;
    EXPECT_EQ(target.dump2struct(&conf), 0);
    EXPECT_STREQ(conf.name, "tun1");
    EXPECT_STREQ(conf.local, "10.9.0.1");
    EXPECT_STREQ(conf.remote, "0.0.0.0");
    EXPECT_STREQ(conf.addr, "");
    EXPECT_EQ(conf.queues, 0);
    EXPECT_EQ(conf.sport, 5555);
    EXPECT_EQ(conf.dport, 5555);
    EXPECT_THAT(log(),
                ElementsAre("[DEBUG] [tun1] local: 10.9.0.1, remote: 0.0.0.0, ip: 10.9.0.1, ttl: 0, sport: "
                            "5555, dport: 5555, queue: 0"));
    EXPECT_EQ(target.dump2struct(nullptr), -3001);
}

TEST_F(PrivateLinkTest, InvalidPortAddressLeavesLocalEmpty) {
    for (const char* text : {"\"10.9.0.256\"", "\"10.9.0.1/24\"", "[]", "null"}) {
        entries["lan1"]["ip4_addr"] = json(text);
        EXPECT_STREQ(record(link()).local, "") << text;
    }
}

TEST_F(PrivateLinkTest, WithoutASlaveOrADeviceIdTheObjectStaysEmpty) {
    device_id = 0;
    EXPECT_EQ(link().get_dev(), "");
    device_id = 7;
    EXPECT_EQ(PrivateLink("", entries["lan1"]).get_dev(), "");
}

TEST_F(PrivateLinkTest, LocalIpIsThePortsAddressWithoutItsLength) {
    PrivateLink target = link();
    EXPECT_EQ(target.parse_tun_local_ip(), -3005);
    EXPECT_STREQ(record(target).local, "0.0.0.0");
    devices["swdev1"] = 5;
    port_address = "192.168.100.100/24";
    EXPECT_EQ(target.parse_tun_local_ip(), 0);
    EXPECT_STREQ(record(target).local, "192.168.100.100");
    fail("get_ipv4_addr", -3011);
    EXPECT_EQ(target.parse_tun_local_ip(), -3011);
    EXPECT_STREQ(record(target).local, "0.0.0.0");
}

TEST_F(PrivateLinkTest, SetLocalAndFlags) {
    PrivateLink target = link();
    std::string bad = "x", good = "10.9.0.7";
    unsigned flags = 0;
    EXPECT_EQ(target.set_local(bad), -3007);
    EXPECT_EQ(target.set_local(good), 0);
    EXPECT_STREQ(record(target).local, "10.9.0.7");
    EXPECT_EQ(target.get_tun_flag(flags), -3005);
    EXPECT_EQ(target.set_tun_flag(1), -3005);
    EXPECT_EQ(target.unset_tun_flag(1), -3005);
    EXPECT_EQ(target.setup_tun_ipv4(), -3005);
    devices["tun1"] = 12;
    EXPECT_EQ(target.get_tun_flag(flags), 0);
    EXPECT_EQ(target.set_tun_flag(1), 0);
    EXPECT_EQ(target.unset_tun_flag(1), 0);
    EXPECT_EQ(target.obtain_ifindex(), 12);
}

TEST_F(PrivateLinkTest, CreationPinsNoQueuesAndInstallsTheSitesRoutes) {
    EXPECT_EQ(link().setup_tun(0), 0);
    // Device 7, port 1: 8 * 7 + 1 - 9 = 48. Rules by the device's index, marked with the port number.
    EXPECT_THAT(
        calls,
        ElementsAre("edit_ipip_tunnel 0 tun1 local=10.9.0.1 remote=0.0.0.0 addr= queues=0 ttl=0 sport=5555 "
                    "dport=5555",
                    "write_value /proc/sys/net/ipv4/neigh/tun1/mcast_solicit 0",
                    "set_ipv4_addr 40 198.19.0.48", "set_dev_flags 40 1",
                    "edit_rule 0 prio=10040 table=10040 mark=1/15",
                    "edit_rule 0 prio=10040 table=15040 mark=1/15",
                    "edit_rule 0 prio=20040 table=20040 from=198.19.0.48",
                    "edit_rule 0 prio=20040 table=20040 oif=tun1"));
    // There is no site document here: said, but not a failure of the link.
    EXPECT_THAT(errors(), Contains("[ERROR] Fail to open SITE_CONF."));
    EXPECT_EQ(errors().back(), "[ERROR] presetup_tun_routing(): tun1 failed.");
}

struct FailingStep {
    const char* step;
    const char* message;
};
class PrivateCreationStops : public PrivateLinkTest, public testing::WithParamInterface<FailingStep> {};

TEST_P(PrivateCreationStops, AtTheFirstFailingStep) {
    fail(GetParam().step, -3011);
    EXPECT_EQ(link().setup_tun(0), -3011);
    EXPECT_THAT(calls.back(), StartsWith(GetParam().step));
    EXPECT_THAT(errors(), ElementsAre(GetParam().message));
}

INSTANTIATE_TEST_SUITE_P(
    Steps, PrivateCreationStops,
    testing::Values(FailingStep{"edit_ipip_tunnel", "[ERROR] edit_ipip_tunnel(): tun1 failed."},
                    FailingStep{"write_value", "[ERROR] tun1Write mcast_solicit to 0 failed, Ret: -3011"},
                    FailingStep{"set_ipv4_addr", "[ERROR] setup_tun_ipv4(): tun1 failed, Ret: -3011"},
                    FailingStep{"set_dev_flags", "[ERROR] set_tun_flag() IFF_UP: tun1 failed."}));

TEST_F(PrivateLinkTest, PortWithoutAnAddressStopsBeforeTheDeviceIsCreated) {
    entries["lan1"]["ip4_addr"] = "0.0.0.0";
    EXPECT_EQ(link().setup_tun(0), -3005);
    EXPECT_THAT(calls, IsEmpty());
    EXPECT_THAT(errors(), ElementsAre("[ERROR] Parse local ip failed, Ret: -3005"));
    devices["swdev1"] = 5;
    EXPECT_EQ(link().setup_tun(0), 0);
    EXPECT_THAT(only("edit_ipip"), ElementsAre(HasSubstr("local=10.9.0.1 ")));
}

TEST_F(PrivateLinkTest, DeletionTakesRulesAndRoutesAwayAndTheSharedDefaultTableAsAWhole) {
    EXPECT_EQ(existing().setup_tun(1), 0);
    EXPECT_THAT(calls,
                ElementsAre("edit_rule 1 prio=10012", "edit_rule 1 prio=10012", "edit_rule 1 prio=20012",
                            "edit_rule 1 prio=20012", "edit_route 2 /0 table=10012 metric=0",
                            "edit_route 2 /0 table=15012 metric=0", "edit_route 2 /0 table=20012 metric=0",
                            "edit_route 2 /0 table=30000 metric=0", StartsWith("edit_ipip_tunnel 1 tun1 ")));
    EXPECT_THAT(log(), Contains("[DEBUG] Del tun: tun1 done"));
}

TEST_F(PrivateLinkTest, DeletionWithoutAPortAddressEndsAfterRulesAndRoutes) {
    entries["lan1"]["ip4_addr"] = "0.0.0.0";
    EXPECT_EQ(existing().setup_tun(1), -3005);
    EXPECT_EQ(only("edit_r").size(), 8u);
    EXPECT_THAT(only("edit_ipip"), IsEmpty());
    EXPECT_EQ(devices.count("tun1"), 1u);
}

TEST_F(PrivateLinkTest, DeletionOfAnAbsentDeviceIsASuccessWithAWarning) {
    EXPECT_EQ(link().setup_tun(1), 0);
    EXPECT_THAT(calls, IsEmpty());
    EXPECT_THAT(errors(), ElementsAre("[WARNING] Tunnel tun1 does not exist."));
}

TEST_F(PrivateLinkTest, DeletionGoesOnWithoutMemoryForItsRoutesAndRules) {
    PrivateLink target = existing();
    run_out_of_memory("edit_r");
    EXPECT_EQ(target.setup_tun(1), 0);
    EXPECT_THAT(errors(), ElementsAre("[ERROR] destroy_tun_rule(): tun1 failed.",
                                      "[ERROR] destroy_tun_route(): tun1 failed."));
    EXPECT_EQ(devices.count("tun1"), 0u);
}

TEST_F(PrivateLinkTest, FailingRulesUseTheIpv4FamilysWords) {
    PrivateLink target = existing();
    clear();
    fail("edit_rule", -3011);
    EXPECT_EQ(target.setup_tun_rule(), 0);
    EXPECT_EQ(target.destroy_tun_rule(), 0);
    EXPECT_THAT(log(), ElementsAre("[ERROR] setup site-to-site fwmark rule failed.",
                                   "[ERROR] setup static route fwmark rule failed.",
                                   "[ERROR] setup mptcp source first rule failed.",
                                   "[ERROR] setup mptcp second rule failed.",
                                   "[ERROR] delete site-to-site fwmark rule failed.",
                                   "[ERROR] delete static route fwmark rule failed.",
                                   "[ERROR] delete mptcp first rule failed.",
                                   "[ERROR] delete mptcp second rule failed."));
}

TEST_F(PrivateLinkTest, RulesAndTablesNeedADevice) {
    PrivateLink target = link();
    EXPECT_EQ(target.setup_tun_rule(), 0);
    EXPECT_EQ(target.destroy_tun_rule(), 0);
    EXPECT_EQ(target.destroy_tun_route(-1), 0);
    EXPECT_THAT(calls, IsEmpty());
}

TEST_F(PrivateLinkTest, RoutesHaveTheirOwnPathMetricsAndNoWeight) {
    EXPECT_EQ(
        apply(10000, 0, R"({"SITE": "9", "DEST": "10.7.0.9/16", "RTA_GATEWAY": ["10.9.0.2"], "WEIGHT": ["7"],
                                  "LOCAL_PORT": ["PRIVATE1"]})"),
        0);
    EXPECT_THAT(calls, ElementsAre("edit_route 0 10.7.0.0/16 table=10012 metric=9 lock=260 mtu=1460 mss=1380 "
                                   "via=10.9.0.2,tun1,0,onlink"));
}

TEST_F(PrivateLinkTest, NumbersOfEditRoutingMayComeInEitherOrder) {
    EXPECT_EQ(apply(0, 15000, kGood), 0);
    EXPECT_THAT(calls, ElementsAre(HasSubstr("edit_route 0 10.7.0.0/16 table=15012 ")));
    EXPECT_EQ(apply(2, 20000, kGood), 0);
    EXPECT_THAT(calls, ElementsAre("edit_route 2 10.7.0.0/16 table=20012 metric=9"));
}

TEST_F(PrivateLinkTest, DefaultRoutesShareOneTableAndDifferByTheLinksPriority) {
    EXPECT_EQ(apply(30000, 0, kGood), 0);
    EXPECT_THAT(calls, ElementsAre(HasSubstr(" table=30000 metric=50 ")));
    entries["lan1"]["prio"] = 60;
    EXPECT_EQ(apply(30000, 2, kGood), 0);
    EXPECT_THAT(calls, ElementsAre("edit_route 2 10.7.0.0/16 table=30000 metric=60"));
}

TEST_F(PrivateLinkTest, CrossDomainRoutesGoToTheSharedTableExceptForMptcp) {
    const std::string cross =
        R"({"SITE": "9", "DEST": "10.7.0.9/16", "RTA_GATEWAY": ["10.9.0.2"], "WEIGHT": ["1"],
            "LOCAL_PORT": ["PRIVATE1"], "CROSS_DOMAIN": true})";
    for (const auto& [base, table] : {std::pair{10000, 25000}, std::pair{15000, 25000},
                                      std::pair{20000, 20012}, std::pair{30000, 25000}}) {
        EXPECT_EQ(apply(base, 0, cross), 0);
        EXPECT_THAT(calls, ElementsAre(HasSubstr(" table=" + std::to_string(table) + " metric=9 ")));
    }
}

TEST_F(PrivateLinkTest, CountsMustBeEqualThoughWeightsAreNotUsed) {
    EXPECT_EQ(apply(10000, 0,
                    std::string(R"(
        {"SITE": "9", "DEST": "10.7.0.0/16", "RTA_GATEWAY": ["10.9.0.2"], "LOCAL_PORT": ["PRIVATE1"]},
        {"SITE": "9", "DEST": "10.7.0.0/16", "RTA_GATEWAY": ["10.9.0.2"], "WEIGHT": ["1"],
         "LOCAL_PORT": ["PRIVATE1", "PRIVATE2"]},
        {"SITE": "9", "DEST": "10.7.0.0/16", "WEIGHT": ["1"], "LOCAL_PORT": ["PRIVATE1"]},)") +
                        kGood),
              0);
    EXPECT_EQ(calls.size(), 1u);
    EXPECT_THAT(log(), ElementsAre("[ERROR] Gateway, Weight and Local Port are not equal.",
                                   "[ERROR] Gateway, Weight and Local Port are not equal.",
                                   "[ERROR] Gateway, Weight and Local Port are not equal."));
}

TEST_F(PrivateLinkTest, FirstOfTheOwnPortsDecides) {
    EXPECT_EQ(apply(10000, 0, R"({"SITE": "9", "DEST": ["10.1.0.0/16", "10.2.0.0/16", "10.3.0.0/16"],
                                  "RTA_GATEWAY": ["1.1.1.1", "2.2.2.2", "3.3.3.3"], "WEIGHT": ["1", "1", "1"],
                                  "LOCAL_PORT": ["PRIVATE2", "PRIVATE1", "PRIVATE1"]})"),
              0);
    EXPECT_THAT(calls,
                ElementsAre(AllOf(HasSubstr("edit_route 0 10.2.0.0/16 "), HasSubstr(" via=2.2.2.2,tun1,0"))));
}

TEST_F(PrivateLinkTest, ElementsOfOtherPortsInstallNothing) {
    for (const char* port : {"PRIVATE2", "PRIVATE0", "PRIVATE", "", "PRIVATE12"}) {
        EXPECT_EQ(apply(10000, 0,
                        std::string(R"({"SITE": "9", "DEST": "10.1.0.0/16", "RTA_GATEWAY": ["1.1.1.1"],
                                                  "WEIGHT": ["1"], "LOCAL_PORT": [")") +
                            port + "\"]}"),
                  0);
        EXPECT_THAT(calls, IsEmpty()) << port;
        EXPECT_THAT(log(), IsEmpty()) << port;
    }
}

TEST_F(PrivateLinkTest, ElementsWithoutSiteOrDestinationAreSkipped) {
    EXPECT_EQ(apply(10000, 0, R"(
        {"SITE": "0", "DEST": "10.1.0.0/16", "RTA_GATEWAY": ["1.1.1.1"], "WEIGHT": ["1"], "LOCAL_PORT": ["PRIVATE1"]},
        {"SITE": "1", "DEST": "", "RTA_GATEWAY": ["1.1.1.1"], "WEIGHT": ["1"], "LOCAL_PORT": ["PRIVATE1"]},
        {"SITE": "1", "DEST": [], "RTA_GATEWAY": ["1.1.1.1"], "WEIGHT": ["1"], "LOCAL_PORT": ["PRIVATE1"]},
        {"SITE": "1", "DEST": [""], "RTA_GATEWAY": ["1.1.1.1"], "WEIGHT": ["1"], "LOCAL_PORT": ["PRIVATE1"]})"),
              0);
    EXPECT_THAT(calls, IsEmpty());
    EXPECT_THAT(log(), IsEmpty());
}

TEST_F(PrivateLinkTest, WronglyTypedElementsFailAloneAndSaySo) {
    const char* const bad[] = {
        "5",
        "null",
        R"({"SITE": "1", "DEST": "10.1.0.0/16", "RTA_GATEWAY": "1.1.1.1", "WEIGHT": ["1"], "LOCAL_PORT": ["PRIVATE1"]})",
        R"({"SITE": "1", "DEST": "10.1.0.0/16", "RTA_GATEWAY": ["1.1.1.1"], "WEIGHT": {}, "LOCAL_PORT": ["PRIVATE1"]})",
        R"({"SITE": "1", "DEST": "10.1.0.0/16", "RTA_GATEWAY": ["1.1.1.1"], "WEIGHT": ["1"], "LOCAL_PORT": [{}]})",
        R"({"SITE": [], "DEST": "10.1.0.0/16", "RTA_GATEWAY": ["1.1.1.1"], "WEIGHT": ["1"], "LOCAL_PORT": ["PRIVATE1"]})",
        R"({"SITE": "1", "DEST": {}, "RTA_GATEWAY": ["1.1.1.1"], "WEIGHT": ["1"], "LOCAL_PORT": ["PRIVATE1"]})",
        R"({"SITE": "1", "DEST": [[]], "RTA_GATEWAY": ["1.1.1.1"], "WEIGHT": ["1"], "LOCAL_PORT": ["PRIVATE1"]})",
        R"({"SITE": "1", "DEST": "10.1.0.0/16", "RTA_GATEWAY": ["1.1.1.1"], "WEIGHT": ["1"], "LOCAL_PORT": ["PRIVATE1"],
            "CROSS_DOMAIN": "x"})",
        R"({"SITE": "1", "DEST": "192.168.100.1000", "RTA_GATEWAY": ["1.1.1.1"], "WEIGHT": ["1"],
            "LOCAL_PORT": ["PRIVATE1"]})",
    };
    for (const char* element : bad) {
        EXPECT_EQ(apply(10000, 0, std::string(element) + "," + kGood), 1) << element;
        EXPECT_THAT(calls, ElementsAre(HasSubstr("edit_route 0 10.7.0.0/16 "))) << element;
        EXPECT_THAT(log(), ElementsAre(HasSubstr("[ERROR] edit route failed. op: 0, count: 1DST [")))
            << element;
    }
}

TEST_F(PrivateLinkTest, OtherOperationsGoToTheKernelLayerAsTheyAre) {
    EXPECT_EQ(apply(10000, 1, kGood), 0);
    EXPECT_THAT(calls, ElementsAre(HasSubstr("edit_route 1 10.7.0.0/16 table=10012 metric=9 lock=260 ")));
}

TEST_F(PrivateLinkTest, DocumentsAreAppliedDelFirst) {
    const std::string del =
        R"({"SITE": "8", "DEST": "10.8.0.0/16", "RTA_GATEWAY": ["1.1.1.1"], "WEIGHT": ["1"], "LOCAL_PORT": ["PRIVATE1"]})";
    std::string conf = document(std::string(R"({"add": [)") + kGood + R"(], "del": [)" + del + "]}");
    PrivateLink target = existing();
    clear();
    EXPECT_EQ(target.setup_tun_routing(15000, conf), 0);
    EXPECT_THAT(calls, ElementsAre("edit_route 2 10.8.0.0/16 table=15012 metric=8",
                                   HasSubstr("edit_route 0 10.7.0.0/16 table=15012 metric=9")));
    fail("edit_route 2", -3010);
    EXPECT_EQ(target.setup_tun_routing(15000, conf), 0);
    fail("edit_route 0", -12);
    EXPECT_EQ(target.setup_tun_routing(15000, conf), -3011);
    EXPECT_EQ(target.setup_tun_routing(7, conf), -3004);
    std::string nowhere = "/nowhere", none;
    EXPECT_EQ(target.setup_tun_routing(15000, nowhere), -3016);
    EXPECT_EQ(target.setup_route(1, none), -3003);
    EXPECT_EQ(target.setup_route(5, conf), -3004);
}

TEST_F(PrivateLinkTest, MptcpDefaultRouteFlushesTheSharedTable) {
    PrivateLink target = existing();
    clear();
    for (const int op : {0, 1, 3, 4}) EXPECT_EQ(target.setup_mptcp_default_route(op), 0);
    EXPECT_THAT(calls, IsEmpty());
    EXPECT_EQ(target.setup_mptcp_default_route(2), 0);
    EXPECT_THAT(calls, ElementsAre(HasSubstr("edit_route 2 /0 table=30000 metric=0")));
    EXPECT_EQ(target.setup_mptcp_default_route(5), -3004);
    fail("edit_route", -3010);
    EXPECT_EQ(target.setup_mptcp_default_route(2), -3001);
    EXPECT_EQ(errors().back(), "[ERROR] flush route 30000 failed, dev: tun1");
}

TEST_F(PrivateLinkTest, SetupPrivateAsksWithTheOperationAndMatchesTheNameOnly) {
    EXPECT_EQ(setup(0), 0);
    EXPECT_EQ(asked, "private /etc/x.json 0");
    EXPECT_EQ(setup(1, "lan1"), 0);
    EXPECT_EQ(asked, "private /etc/x.json 1");
    clear();
    EXPECT_EQ(setup(0, "swdev1"), 0);
    EXPECT_THAT(errors(), ElementsAre("[ERROR] Could not find [swdev1] in private_info map!"));
    EXPECT_THAT(calls, IsEmpty());
    fail("edit_ipip", -3011);
    EXPECT_EQ(setup(0), 0);
    EXPECT_EQ(setup(2), -3004);
    EXPECT_EQ(setup(-1), -3004);
    service_result = -3023;
    clear();
    EXPECT_EQ(setup(0), -3023);
    EXPECT_THAT(errors(), ElementsAre("[ERROR] get_available_private_info failed! ret: -3023"));
}

TEST_F(PrivateLinkTest, SetupPrivateRouteKnowsItsFourTypes) {
    devices["tun1"] = 12;
    std::string conf = document(std::string(R"({"add": [)") + kGood + "]}"), all = "all", one = "lan1";
    for (auto [type, table] : {std::pair{"private_s2s", "10012"}, std::pair{"private_static", "15012"},
                               std::pair{"private_mptcp", "20012"}, std::pair{"private_default", "30000"}}) {
        std::string name = type;
        clear();
        EXPECT_EQ(setup_private_route(all, name, conf), 0);
        EXPECT_EQ(asked, "private /etc/networkmanagement/device_info.json 1");
        EXPECT_THAT(calls, ElementsAre(HasSubstr(std::string(" table=") + table)));
    }
    for (const char* type : {"", "s2s", "private_", "private_s2s6", "regional"}) {
        std::string name = type;
        clear();
        EXPECT_EQ(setup_private_route(all, name, conf), -3004) << type;
        EXPECT_THAT(log(), ElementsAre("[ERROR] Wrong route type."));
    }
    std::string s2s = "private_s2s", nobody = "lan7";
    clear();
    EXPECT_EQ(setup_private_route(nobody, s2s, conf), 0);
    EXPECT_THAT(errors(), ElementsAre("[ERROR] Could not find [lan7] in available_private_info map!"));
    fail("edit_route", -12);
    EXPECT_EQ(setup_private_route(one, s2s, conf), -3011);
    EXPECT_EQ(setup_private_route(all, s2s, conf), -3011);
    EXPECT_EQ(errors().back(), "[ERROR] Iface: lan1 setup_private_route: private_s2s failed. ret=-3011");
    service_result = -3024;
    EXPECT_EQ(setup_private_route(all, s2s, conf), -3024);
}

TEST_F(PrivateLinkTest, SetupPrivateMptcpDefaultRoute) {
    EXPECT_EQ(setup_private_mptcp_default_route(2, "lan1"), 0);
    EXPECT_EQ(asked, "private /etc/networkmanagement/device_info.json 1");
    EXPECT_EQ(setup_private_mptcp_default_route(7, "all"), -3004);
    EXPECT_EQ(errors().back(), "[ERROR] Iface: lan1 setup_private_mptcp_default_route failed. ret=-3004");
    clear();
    EXPECT_EQ(setup_private_mptcp_default_route(2, "lan7"), 0);
    EXPECT_THAT(calls, ElementsAre("edit_route 2 /0 table=30000 metric=0 via=,,0"));
    EXPECT_THAT(errors(), ElementsAre("[ERROR] Could not find [lan7] in available_private_info map!"));
    service_result = -3024;
    EXPECT_EQ(setup_private_mptcp_default_route(2, "lan1"), -3024);
}

// ---- the site document

constexpr const char* kSites = R"({"SITE_INFO": {
    "7": {"DOMAIN": "east", "PRIVATE1": {"PRIVATE_GROUP_ID": "g1", "PRIVATE_ADDR4": "10.9.0.1"}, "LAN": ["10.70.0.0/16"]},
    "8": {"DOMAIN": "east", "LAN": ["10.80.0.0/16", "10.81.0.0/16"], "STATIC_ROUTE": ["172.16.0.0/16"],
          "PRIVATE1": {"PRIVATE_GROUP_ID": "other", "PRIVATE_ADDR4": "10.9.9.9"},
          "PRIVATE2": {"PRIVATE_GROUP_ID": "g1", "PRIVATE_ADDR4": ""},
          "PRIVATE3": {"PRIVATE_GROUP_ID": "g1", "PRIVATE_ADDR4": "10.9.0.8", "PRIVATE_TUN_ADDR4": "198.19.0.56"},
          "PRIVATE4": {"PRIVATE_GROUP_ID": "g1", "PRIVATE_ADDR4": "10.9.0.88"},
          "PORT1": {"TUN_ADDR4": "198.19.0.55"}},
    "9": {"LAN": ["10.90.0.0/16"], "MY_PRIVATE": {"PRIVATE_GROUP_ID": "g1", "PRIVATE_ADDR4": "10.9.0.9"}},
    "10": {"LAN": ["10.100.0.0/16"], "PRIVATE1": {"PRIVATE_ADDR4": "10.9.0.10"}}}})";

std::string compact(const Json::Value& value) {
    std::string text = value.toStyledString();
    std::erase_if(text, [](char c) { return c == ' ' || c == '\n' || c == '\t'; });
    return text;
}

TEST(SiteRoutes, FirstPeerOfTheGroupWithAnAddressDecides) {
    const SiteRoutes routes = site_routes(json(kSites), {7, 1, "g1"});
    ASSERT_EQ(routes.site_to_site.size(), 3u);
    EXPECT_EQ(
        compact(routes.site_to_site[0]),
        R"({"CROSS_DOMAIN":false,"DEST":"10.80.0.0/16","LOCAL_PORT":["PRIVATE1"],"RTA_GATEWAY":["10.9.0.8"],)"
        R"("SITE":"8","WEIGHT":["1"]})");
    EXPECT_EQ(routes.site_to_site[1]["DEST"], "10.81.0.0/16");
    EXPECT_EQ(routes.site_to_site[2]["DEST"], "10.90.0.0/16");
    ASSERT_EQ(routes.fixed.size(), 1u);
    EXPECT_EQ(routes.fixed[0]["DEST"], "172.16.0.0/16");
}

TEST(SiteRoutes, OtherDomainsAreIncludedAndMarked) {
    const SiteRoutes routes = site_routes(json(kSites), {7, 1, "g1"});
    EXPECT_FALSE(routes.site_to_site[0]["CROSS_DOMAIN"].asBool());
    EXPECT_TRUE(routes.site_to_site[2]["CROSS_DOMAIN"].asBool());  // "global" is not "east"
    // A device that the document does not know is in the domain "global".
    EXPECT_TRUE(site_routes(json(kSites), {77, 1, "g1"}).site_to_site[0]["CROSS_DOMAIN"].asBool());
}

TEST(SiteRoutes, TunnelAddressesGoToTheMptcpAndTheDefaultListAsOneEntryLists) {
    const SiteRoutes routes = site_routes(json(kSites), {7, 1, "g1"});
    EXPECT_EQ(routes.mptcp, routes.defaults);
    ASSERT_EQ(routes.mptcp.size(), 4u);
    EXPECT_EQ(compact(routes.mptcp[0]["DEST"]), R"(["198.19.0.56"])");
    EXPECT_EQ(compact(routes.mptcp[1]["DEST"]), R"(["198.19.0.55"])");
    EXPECT_EQ(compact(routes.mptcp[2]["DEST"]), R"([""])");
    EXPECT_EQ(compact(routes.mptcp[3]["DEST"]), R"([""])");
    EXPECT_EQ(routes.mptcp[2]["SITE"], "9");
}

TEST(SiteRoutes, MissingGroupIsTheEmptyGroup) {
    const SiteRoutes routes = site_routes(json(kSites), {7, 2, ""});
    ASSERT_EQ(routes.site_to_site.size(), 1u);
    EXPECT_EQ(routes.site_to_site[0]["SITE"], "10");
    EXPECT_EQ(routes.site_to_site[0]["LOCAL_PORT"][0], "PRIVATE2");
}

TEST(SiteRoutes, DocumentsWithoutSitesGiveNoRoutes) {
    for (const char* text : {"null", "{}", R"({"SITE_INFO": null})", R"({"SITE_INFO": {}})",
                             R"({"SITE_INFO": {"7": {}, "8": {}}})"}) {
        EXPECT_TRUE(site_routes(json(text), {7, 1, "g1"}).site_to_site.empty()) << text;
    }
}

TEST(SiteRoutes, ValuesOfTheWrongTypeThrow) {
    for (
        const char* text :
        {"[]", "5", "\"x\"", R"({"SITE_INFO": 5})", R"({"SITE_INFO": {"8": 5}})",
         R"({"SITE_INFO": {"8": {"DOMAIN": []}}})", R"({"SITE_INFO": {"8": {"PRIVATE1": "x"}}})",
         R"({"SITE_INFO": {"8": {"PRIVATE1": {"PRIVATE_GROUP_ID": {}}}}})",
         R"({"SITE_INFO": {"8": {"PRIVATE1": {"PRIVATE_GROUP_ID": "g1", "PRIVATE_ADDR4": []}}}})",
         R"({"SITE_INFO": {"8": {"PRIVATE1": {"PRIVATE_GROUP_ID": "g1", "PRIVATE_ADDR4": "1.1.1.1"}, "PORT1": 3}}})"}) {
        EXPECT_THROW(site_routes(json(text), {7, 1, "g1"}), std::exception) << text;
    }
}

}  // namespace
