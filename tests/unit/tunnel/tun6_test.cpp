// IPv6 tunnels: devices, rules, routes.
#include "corvosetup/tun6.h"

#include <net/if.h>

#include "fake_device.h"

using corvo::test::FailingStep;
using corvo::test::FakeDevice;
using corvo::test::json;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;
using testing::UnorderedElementsAre;

namespace {

class Tun6Test : public FakeDevice {
protected:
    Tun6Test() {
        entry("wan0", R"({"slave": "eth0", "id": 4, "tun_addr": "198.19.0.50", "ip6_addr": "2001:db8::1"})");
    }
    Tun6 tun() { return Tun6("eth0", entries["wan0"], 2); }
    int setup(int op, const std::string& ifname = "all") {
        std::string source = "/etc/x.json";
        return setup_tun6(op, ifname, source, 2);
    }
    int route(std::string type, const std::string& text) {
        std::string conf = document(text);
        clear();
        return setup_tun_route6(type, conf);
    }
};

constexpr const char* kGood6 = R"({"SITE": "9", "DEST": "fd00:9::/32", "RTA_GATEWAY": ["fd00::9"]})";

TEST_F(Tun6Test, DeviceIsNamedIp6tunAndTheId) {
    EXPECT_EQ(tun().get_dev(), "ip6tun4");
    static_assert(sizeof(Tun6) == 112);
}

TEST_F(Tun6Test, Dump2structFillsTheCompatibleAddress) {
    Tun6 link = tun();
    clear();
    sit_conf conf{};
    EXPECT_EQ(link.dump2struct(&conf), 0);
    EXPECT_STREQ(conf.name, "ip6tun4");
    EXPECT_STREQ(conf.local, "198.19.0.50");
    EXPECT_STREQ(conf.remote, "0.0.0.0");
    EXPECT_STREQ(conf.addr6, "::198.19.0.50");
    EXPECT_EQ(conf.queues, 2);
    EXPECT_EQ(conf.ttl, 0);
    EXPECT_THAT(log(),
                ElementsAre("[DEBUG] [ip6tun4] local: 198.19.0.50, remote: 0.0.0.0, ip: 198.19.0.50, ttl: "
                            "0, queue: 2"));
    EXPECT_EQ(link.dump2struct(nullptr), -3001);
}

TEST_F(Tun6Test, CreationSetsNoMultipathAfterUpAndAddsFourRules) {
    EXPECT_EQ(tun().setup_tun(0), 0);
    EXPECT_THAT(
        calls, ElementsAre(
                   "edit_sit_tunnel 0 ip6tun4 local=198.19.0.50 remote=0.0.0.0 addr6=::198.19.0.50 queues=2 "
                   "ttl=0",
                   "setup_cpus ip6tun4", "write_value /proc/sys/net/ipv4/neigh/ip6tun4/mcast_solicit 0",
                   "set_ipv6_addr 40 ::198.19.0.50/96", "set_dev_flags 40 1", "set_dev_flags 40 524288",
                   "edit_rule6 0 prio=10004 table=10004 mark=4/15",
                   "edit_rule6 0 prio=20004 table=20004 from=::198.19.0.50",
                   "edit_rule6 0 prio=20004 table=20004 oif=ip6tun4", "edit_rule6 0 prio=30004 table=30004"));
}

class Tun6CreationStops : public Tun6Test, public testing::WithParamInterface<FailingStep> {};

TEST_P(Tun6CreationStops, AtTheFirstFailingStep) {
    fail(GetParam().step, -3011);
    EXPECT_EQ(tun().setup_tun(0), -3011);
    EXPECT_THAT(calls.back(), StartsWith(GetParam().step));
    EXPECT_THAT(errors(), ElementsAre(GetParam().message));
}

INSTANTIATE_TEST_SUITE_P(
    Steps, Tun6CreationStops,
    testing::Values(FailingStep{"edit_sit_tunnel", "[ERROR] edit_sit_tunnel(): ip6tun4 failed."},
                    FailingStep{"setup_cpus", "[ERROR] ip6tun4setup rps/xps failed, Ret: -3011"},
                    FailingStep{"write_value", "[ERROR] ip6tun4Write mcast_solicit to 0 failed, Ret: -3011"},
                    FailingStep{"set_ipv6_addr", "[ERROR] setup_tun_ipv6(): ip6tun4 failed, Ret: -3011"},
                    FailingStep{"set_dev_flags 40 1", "[ERROR] set_tun_flag() IFF_UP: ip6tun4 failed."},
                    FailingStep{"set_dev_flags 40 524288",
                                "[ERROR] set_tun_flag() IFF_NOMULTIPATH: ip6tun4 failed."}));

TEST_F(Tun6Test, DeletionRemovesRulesButFlushesNoRoutes) {
    devices["ip6tun4"] = 12;
    EXPECT_EQ(tun().setup_tun(1), 0);
    EXPECT_THAT(calls,
                ElementsAre("edit_rule6 1 prio=10004", "edit_rule6 1 prio=20004", "edit_rule6 1 prio=20004",
                            "edit_rule6 1 prio=30004", StartsWith("edit_sit_tunnel 1 ip6tun4 ")));
    EXPECT_THAT(log(), Contains("[DEBUG] Del tun: ip6tun4 done"));
    clear();
    EXPECT_EQ(tun().setup_tun(1), 0);
    EXPECT_THAT(errors(), ElementsAre("[WARNING] Tunnel ip6tun4 does not exist."));
}

TEST_F(Tun6Test, FailingRulesAreLoggedAndTheResultIsSuccess) {
    devices["ip6tun4"] = 12;
    Tun6 link = tun();
    clear();
    fail("edit_rule6", -3011);
    EXPECT_EQ(link.setup_tun_rule(), 0);
    EXPECT_EQ(link.destroy_tun_rule(), 0);
    EXPECT_THAT(log(), ElementsAre("[ERROR] setup ipv6 site-to-site fwmark rule failed.",
                                   "[ERROR] setup ipv6 mptcp source first rule failed.",
                                   "[ERROR] setup ipv6 mptcp second rule failed.",
                                   "[ERROR] setup ipv6 mptcp default rule failed.",
                                   "[ERROR] delete ipv6 site-to-site fwmark rule failed.",
                                   "[ERROR] delete ipv6 mptcp first rule failed.",
                                   "[ERROR] delete ipv6 mptcp second rule failed.",
                                   "[ERROR] delete ipv6 mptcp defult rule failed."));
}

TEST_F(Tun6Test, DeletionGoesOnWithoutMemoryForItsRules) {
    devices["ip6tun4"] = 12;
    Tun6 link = tun();
    run_out_of_memory("edit_rule6");
    EXPECT_EQ(link.setup_tun(1), 0);
    EXPECT_THAT(errors(), ElementsAre("[ERROR] destroy_tun_rule(): ip6tun4 failed."));
    EXPECT_EQ(devices.count("ip6tun4"), 0u);
}

TEST_F(Tun6Test, MptcpDefaultRule) {
    EXPECT_EQ(setup_tuni6_mptcp_default_rule(0, "wan0"), 0);
    EXPECT_THAT(calls, IsEmpty());
    devices["ip6tun4"] = 12;
    EXPECT_EQ(setup_tuni6_mptcp_default_rule(0, "wan0"), 0);
    EXPECT_EQ(setup_tuni6_mptcp_default_rule(3, "all"), 0);
    EXPECT_THAT(calls,
                ElementsAre("edit_rule6 0 prio=30004 table=30004", "edit_rule6 1 prio=30004 table=30004"));
    EXPECT_EQ(asked, "wan /etc/networkmanagement/device_info.json 1");
    clear();
    EXPECT_EQ(setup_tuni6_mptcp_default_rule(0, "eth0"), 0);
    EXPECT_THAT(errors(), ElementsAre("[ERROR] Could not find [eth0] in available_wan_info map!"));
    clear();
    fail("edit_rule6", -3011);
    EXPECT_EQ(setup_tuni6_mptcp_default_rule(0, "wan0"), -3011);
    EXPECT_THAT(errors(), ElementsAre("[ERROR]  op: 0 mptcp default rule failed.",
                                      "[ERROR] Iface: wan0 setup_mptcp_default_rule failed. ret=-3011"));
    service_result = -3023;
    EXPECT_EQ(setup_tuni6_mptcp_default_rule(0, "wan0"), -3023);
}

TEST_F(Tun6Test, EntriesWithoutAnIpv6AddressAreLeftAlone) {
    entry("wan1", R"({"slave": "eth1", "id": 5, "tun_addr": "198.19.0.51"})");
    entry("wan2", R"({"slave": "eth2", "id": 6, "tun_addr": "198.19.0.52", "ip6_addr": ""})");
    EXPECT_EQ(setup(0), 0);
    EXPECT_THAT(only("edit_sit"), ElementsAre(StartsWith("edit_sit_tunnel 0 ip6tun4 ")));
    EXPECT_THAT(errors(), UnorderedElementsAre("[WARNING] Dev [wan1]'s ipv6 is not ready...",
                                               "[WARNING] Dev [wan2]'s ipv6 is not ready..."));
    clear();
    EXPECT_EQ(setup(1, "eth1"), 0);  // found by its slave
    EXPECT_THAT(calls, IsEmpty());
    EXPECT_THAT(errors(), ElementsAre("[WARNING] Dev [wan1]'s ipv6 is not ready..."));
}

TEST_F(Tun6Test, SetupTun6SelectsAndReturnsAsItsIpv4Sibling) {
    EXPECT_EQ(setup(2), -3004);
    EXPECT_EQ(setup(-1), -3004);
    EXPECT_EQ(asked, "");
    EXPECT_EQ(setup(0, "wan7"), 0);
    EXPECT_THAT(errors(), ElementsAre("[ERROR] Could not find [wan7] in available_wan_info map!"));
    EXPECT_EQ(asked, "wan /etc/x.json 1");
    fail("edit_sit", -3011);
    EXPECT_EQ(setup(0), 0);
    service_result = -3024;
    clear();
    EXPECT_EQ(setup(0), -3024);
    EXPECT_THAT(errors(), ElementsAre("[ERROR] get_available_wan_info failed! ret: -3024"));
}

TEST_F(Tun6Test, RoutesGoToTheTableOfTheirType) {
    const std::string add = std::string(R"({"add": [)") + kGood6 + "]}";
    for (const auto& [type, bit, table] :
         {std::tuple{"s2s6", 1, 10004}, std::tuple{"mptcp6", 2, 20004}, std::tuple{"default6", 4, 30004}}) {
        EXPECT_EQ(route(type, add), 0);
        EXPECT_THAT(calls, ElementsAre("edit_route6 0 fd00:9::/32 table=" + std::to_string(table) +
                                       " metric=9 lock=260 mtu=1360 mss=1260 via=fd00::9,ip6tun4,0"));
        EXPECT_THAT(log(), Contains(StartsWith("[DEBUG] Route6 type: " + std::to_string(bit) + ", conf: /")));
    }
}

TEST_F(Tun6Test, WeightsAreCarriedInTheRecord) {
    EXPECT_EQ(
        route("s2s6", R"({"add": [{"SITE": "9", "DEST": "fd00:9::/32", "RTA_GATEWAY": ["fd00::9", "fd00::a"],
                                         "WEIGHT": ["3", "4"]}]})"),
        0);
    EXPECT_THAT(calls, ElementsAre(HasSubstr("via=fd00::9,ip6tun4,3 via=fd00::a,ip6tun4,4")));
}

TEST_F(Tun6Test, EveryElementGoesToEveryWanAndDeletionsToThoseWithoutAddressToo) {
    entry("wan1", R"({"slave": "eth1", "id": 5, "tun_addr": "198.19.0.51"})");
    EXPECT_EQ(route("s2s6", std::string(R"({"del": [{"SITE": "8", "DEST": "fd00:8::/32"}], "add": [)") +
                                kGood6 + "]}"),
              0);
    EXPECT_THAT(calls, UnorderedElementsAre("edit_route6 2 fd00:8::/32 table=10004 metric=8",
                                            "edit_route6 2 fd00:8::/32 table=10005 metric=8",
                                            StartsWith("edit_route6 0 fd00:9::/32 table=10004 metric=9 ")));
    EXPECT_THAT(calls.back(), StartsWith("edit_route6 0"));
}

// A link that is passed over has no route that could fail.
TEST_F(Tun6Test, BadElementFailsOnceAndNotForLinksWithoutAnAddress) {
    entry("wan1", R"({"slave": "eth1", "id": 5, "tun_addr": "198.19.0.51"})");
    EXPECT_EQ(route("s2s6", R"({"add": [5]})"), -3011);
    EXPECT_THAT(errors(),
                ElementsAre("[ERROR] edit route6 failed. op: 0, count: 1DST [/0], table: 10004, metric: 0"));
    entries.erase("wan0");
    EXPECT_EQ(route("s2s6", R"({"add": [5, {"SITE": "1", "DEST": []}]})"), 0);
    EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(Tun6Test, DestinationIsSplitButNotNormalised) {
    EXPECT_EQ(route("s2s6", R"({"add": [{"SITE": "9", "DEST": "fd00::77/64", "RTA_GATEWAY": ["fd00::9"]},
                                        {"SITE": "9", "DEST": "default", "RTA_GATEWAY": ["fd00::9"]}]})"),
              0);
    EXPECT_THAT(calls,
                ElementsAre(HasSubstr("edit_route6 0 fd00::77/64 "), HasSubstr("edit_route6 0 default/0 ")));
}

TEST_F(Tun6Test, RouteMessagesHaveTheirOwnWords) {
    fail("fd00:1::", -6);
    fail("fd00:2::", -12);
    EXPECT_EQ(route("s2s6", R"({"add": [{"SITE": "1", "DEST": "fd00:1::/32", "RTA_GATEWAY": ["fd00::9"]},
                                        {"SITE": "2", "DEST": "fd00:2::/32", "RTA_GATEWAY": ["fd00::9"]}]})"),
              -3011);
    EXPECT_THAT(errors(),
                ElementsAre("[WARNING] Route6 Exist. dst: fd00:1::/32, table: 10004, prio: 1",
                            "[ERROR] Edit Route6 failed, ret: -12, result: Object not foundop: 0 dst: "
                            "fd00:2::/32, table: 10004, prio: 2",
                            "[ERROR] edit route6 failed. op: 0, count: 1DST [fd00:2::/32], table: 10004, "
                            "metric: 2"));
}

TEST_F(Tun6Test, BadElementsFailAloneAndSaySo) {
    const char* const failing[] = {
        "5",
        R"({"SITE": "1", "DEST": "fd00:0000:0000:0000:0000:0000:0000:0000:0000:00001/64", "RTA_GATEWAY": ["fd00::9"]})",
        R"({"SITE": "1", "DEST": "fd00::/64", "RTA_GATEWAY": ["fd00:0000:0000:0000:0000:0000:0000:0000:0000:00001"]})",
        R"({"SITE": "1", "DEST": "fd00::/64", "RTA_GATEWAY": "fd00::9"})",
    };
    for (const char* element : failing) {
        EXPECT_EQ(route("s2s6", std::string(R"({"add": [)") + element + "," + kGood6 + "]}"), -3011)
            << element;
        EXPECT_THAT(calls, ElementsAre(HasSubstr("edit_route6 0 fd00:9::/32 "))) << element;
        EXPECT_THAT(errors(), ElementsAre(HasSubstr("[ERROR] edit route6 failed. op: 0, count: 1DST [")))
            << element;
    }
    EXPECT_EQ(
        route("s2s6", R"({"add": [{"SITE": "1", "DEST": "fd00::/64", "RTA_GATEWAY": ["fd00::9", "fd00::a"],
                                         "WEIGHT": ["1"]}, {"SITE": "0", "DEST": "fd00::/64"}, {"SITE": "1"}]})"),
        0);
    EXPECT_THAT(calls, IsEmpty());
    EXPECT_THAT(errors(), ElementsAre("[ERROR] Gateway number does not equal to Weight number."));
}

TEST_F(Tun6Test, NoMemoryForANextHopFailsTheElement) {
    hops_left = 0;
    EXPECT_EQ(route("s2s6", std::string(R"({"add": [)") + kGood6 + "]}"), -3011);
    EXPECT_THAT(errors(),
                ElementsAre("[ERROR] edit route6 failed. op: 0, count: 1DST [fd00:9::/32], table: 10004, "
                            "metric: 9"));
}

TEST_F(Tun6Test, SetupTunRoute6RefusesInOrder) {
    for (const char* type : {"", "s2s", "static6", "S2S6"}) {
        EXPECT_EQ(route(type, "{}"), -3004) << type;
        EXPECT_THAT(log(), ElementsAre("[ERROR] Wrong route type."));
    }
    std::string type = "s2s6", conf = "/nowhere/r.json";
    clear();
    EXPECT_EQ(setup_tun_route6(type, conf), -3016);
    EXPECT_THAT(errors(), Contains("[ERROR] Can't open conf: /nowhere/r.json"));
    EXPECT_EQ(asked, "");
    service_result = -3023;
    EXPECT_EQ(route("s2s6", "{}"), -3023);
    EXPECT_THAT(errors(), Contains("[ERROR] get_available_wan_info failed! ret: -3023"));
}

TEST_F(Tun6Test, UnknownTypeBitIsRefused) {
    Json::Value root = json("{}");
    V6TunRo routes(root, entries);
    EXPECT_EQ(routes.setup_route6(1), 0);
    for (const int bit : {0, 3, 8, -1}) EXPECT_EQ(routes.setup_route6(bit), -3004) << bit;
}

TEST_F(Tun6Test, HandlersReturnTheNumberOfFailures) {
    Json::Value root;
    Json::Value list = json(std::string("[") + kGood6 + ",5," + kGood6 + "]");
    V6TunRo routes(root, entries);
    EXPECT_EQ(routes.setup_ipv6_s2s_route(list, 0), 1);
    EXPECT_EQ(routes.setup_ipv6_mptcp_route(list, 0), 1);
    fail("table=30004", -12);
    EXPECT_EQ(routes.setup_ipv6_mptcp_default(list, 2), 3);
}

}  // namespace
