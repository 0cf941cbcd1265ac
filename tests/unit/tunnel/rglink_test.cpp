// Regional links: devices and the shared table.
#include "corvosetup/rglink.h"

#include "fake_device.h"

using corvo::test::FailingStep;
using corvo::test::FakeDevice;
using corvo::test::json;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

namespace {

class RgLinkTest : public FakeDevice {
protected:
    RgLinkTest() { entry("rg1", R"({"slave": "eth2", "ip4_addr": "10.9.0.1"})"); }
    RgLink link() { return RgLink("eth2", entries["rg1"]); }
    int setup(int op, const std::string& ifname = "all") {
        std::string source = "/etc/x.json";
        return setup_rglink(op, ifname, source);
    }
    int route(const std::string& text) {
        std::string conf = document(text), type = "regional";
        clear();
        return setup_regional_route(type, conf);
    }
};

constexpr const char* kGoodRegional =
    R"({"SITE": "9", "DEST": "10.7.0.9/16", "RTA_GATEWAY": ["10.9.0.2"], "DEVICE": "tun2"})";

TEST_F(RgLinkTest, CreationSetsNoMultipathAndNoRulesOrRoutes) {
    static_assert(sizeof(RgLink) == 120);
    EXPECT_EQ(link().setup_tun(0), 0);
    // Device 7, port 2: 8 * 7 + 2 - 9 = 49.
    EXPECT_THAT(calls,
                ElementsAre("edit_ipip_tunnel 0 tun2 local=10.9.0.1 remote=0.0.0.0 addr= queues=0 ttl=0 "
                            "sport=5555 dport=5555",
                            "write_value /proc/sys/net/ipv4/neigh/tun2/mcast_solicit 0",
                            "set_ipv4_addr 40 198.19.0.49", "set_dev_flags 40 1", "set_dev_flags 40 524288"));
    EXPECT_THAT(errors(), IsEmpty());
}

class RgCreationStops : public RgLinkTest, public testing::WithParamInterface<FailingStep> {};

TEST_P(RgCreationStops, AtTheFirstFailingStep) {
    fail(GetParam().step, -3011);
    EXPECT_EQ(link().setup_tun(0), -3011);
    EXPECT_THAT(calls.back(), StartsWith(GetParam().step));
    EXPECT_THAT(errors(), ElementsAre(GetParam().message));
}

INSTANTIATE_TEST_SUITE_P(
    Steps, RgCreationStops,
    testing::Values(FailingStep{"edit_ipip_tunnel", "[ERROR] edit_ipip_tunnel(): tun2 failed."},
                    FailingStep{"write_value", "[ERROR] tun2Write mcast_solicit to 0 failed, Ret: -3011"},
                    FailingStep{"set_ipv4_addr", "[ERROR] setup_tun_ipv4(): tun2 failed, Ret: -3011"},
                    FailingStep{"set_dev_flags 40 1", "[ERROR] set_tun_flag() IFF_UP: tun2 failed."},
                    FailingStep{"set_dev_flags 40 524288",
                                "[ERROR] set_tun_flag() IFF_NOMULTIPATH: tun2 failed."}));

TEST_F(RgLinkTest, DeletionRemovesNothingButTheDevice) {
    devices["tun2"] = 12;
    EXPECT_EQ(link().setup_tun(1), 0);
    EXPECT_THAT(calls, ElementsAre(StartsWith("edit_ipip_tunnel 1 tun2 ")));
    clear();
    EXPECT_EQ(link().setup_tun(1), 0);
    EXPECT_THAT(errors(), ElementsAre("[WARNING] Tunnel tun2 does not exist."));
}

TEST_F(RgLinkTest, LocalIsLookedUpFromThePort) {
    entries["rg1"]["ip4_addr"] = "0.0.0.0";
    EXPECT_EQ(link().setup_tun(0), -3005);
    EXPECT_THAT(errors(), ElementsAre("[ERROR] Parse local ip failed, Ret: -3005"));
    devices["eth2"] = 5;
    EXPECT_EQ(link().setup_tun(0), 0);
    EXPECT_THAT(only("edit_ipip"), ElementsAre(HasSubstr("local=10.9.0.1 ")));
    devices["tun2"] = 12;
    devices.erase("eth2");
    clear();
    EXPECT_EQ(link().setup_tun(1), -3005);
    EXPECT_THAT(only("edit_ipip"), IsEmpty());
}

TEST_F(RgLinkTest, MembersWorkAsThoseOfPrivateLinks) {
    RgLink target = link();
    std::string bad = "x", good = "10.9.0.7";
    unsigned flags = 0;
    ipip_conf conf{};
    EXPECT_EQ(target.set_local(bad), -3007);
    EXPECT_EQ(target.set_local(good), 0);
    EXPECT_EQ(target.dump2struct(&conf), 0);
    EXPECT_STREQ(conf.local, "10.9.0.7");
    EXPECT_EQ(target.dump2struct(nullptr), -3001);
    EXPECT_EQ(target.get_tun_flag(flags), -3005);
    EXPECT_EQ(target.set_tun_flag(1), -3005);
    EXPECT_EQ(target.unset_tun_flag(1), -3005);
    EXPECT_EQ(target.setup_tun_ipv4(), -3005);
    EXPECT_EQ(target.parse_tun_local_ip(), -3005);
    devices["tun2"] = 12;
    EXPECT_EQ(target.obtain_ifindex(), 12);
    device_id = 0;
    EXPECT_EQ(link().obtain_ifindex(), 0);
}

TEST_F(RgLinkTest, SetupRglinkSelectsAndReturns) {
    EXPECT_EQ(setup(0), 0);
    EXPECT_EQ(asked, "rglink /etc/x.json 0");
    EXPECT_EQ(setup(1, "rg1"), 0);
    EXPECT_EQ(asked, "rglink /etc/x.json 1");
    clear();
    EXPECT_EQ(setup(0, "eth2"), 0);
    EXPECT_THAT(errors(), ElementsAre("[ERROR] Could not find [eth2] in rglink_info map!"));
    fail("edit_ipip", -3011);
    EXPECT_EQ(setup(0), 0);
    EXPECT_EQ(setup(2), -3004);
    EXPECT_EQ(setup(-1), -3004);
    service_result = -3023;
    clear();
    EXPECT_EQ(setup(0), -3023);
    EXPECT_THAT(errors(), ElementsAre("[ERROR] get_available_rglink_info failed! ret: -3023"));
}

TEST_F(RgLinkTest, RoutesGoToTheSharedTableWithoutPathMetrics) {
    EXPECT_EQ(route(std::string(R"({"del": [{"SITE": "8", "DEST": "10.8.0.1/16"}], "add": [)") +
                    kGoodRegional + R"(,
        {"SITE": "9", "DEST": "10.6.0.0/16", "RTA_GATEWAY": ["1.1.1.1", "2.2.2.2"], "WEIGHT": ["3", "4"],
         "DEVICE": "tun3"}]})"),
              0);
    EXPECT_THAT(calls, ElementsAre("edit_route 2 10.8.0.0/16 table=25000 metric=8",
                                   "edit_route 0 10.7.0.0/16 table=25000 metric=9 via=10.9.0.2,tun2,0,onlink",
                                   "edit_route 0 10.6.0.0/16 table=25000 metric=9 via=1.1.1.1,tun3,3,onlink "
                                   "via=2.2.2.2,tun3,4,onlink"));
}

TEST_F(RgLinkTest, OneDestinationMayGoOverSeveralDevices) {
    EXPECT_EQ(
        route(R"({"add": [{"SITE": "1", "DEST": "10.6.0.0/16", "RTA_GATEWAY": ["1.1.1.1"], "DEVICE": "tun2"},
                                {"SITE": "2", "DEST": "10.6.0.0/16", "RTA_GATEWAY": ["1.1.1.1"], "DEVICE": "tun3"}]})"),
        0);
    EXPECT_THAT(calls,
                ElementsAre(HasSubstr("metric=1 via=1.1.1.1,tun2"), HasSubstr("metric=2 via=1.1.1.1,tun3")));
}

TEST_F(RgLinkTest, FailuresAreReportedAsForTunnels) {
    fail("edit_route 2", -3010);
    EXPECT_EQ(route(std::string(R"({"del": [{"SITE": "8", "DEST": "10.8.0.1/16"}], "add": [)") +
                    kGoodRegional + "]}"),
              0);
    EXPECT_THAT(errors(),
                ElementsAre("[ERROR] Edit Route failed, ret: -3010, result: Unspecific failureop: 2 dst: "
                            "10.8.0.0/16, table: 25000, prio: 8",
                            "[ERROR] edit route failed. op: 2, count: 1DST [10.8.0.0/16], table: 25000, "
                            "metric: 8"));
    fail("edit_route 0", -6);
    EXPECT_EQ(route(std::string(R"({"add": [)") + kGoodRegional + "]}"), 0);
    EXPECT_THAT(errors(), ElementsAre("[WARNING] Route Exist. dst: 10.7.0.0/16, table: 25000, prio: 9"));
    fail("edit_route 0", -12);
    EXPECT_EQ(route(std::string(R"({"add": [)") + kGoodRegional + "]}"), -3011);
}

TEST_F(RgLinkTest, ElementWithoutADestinationIsPassedOver) {
    EXPECT_EQ(route(R"({"add": [{"SITE": "9", "DEST": "", "RTA_GATEWAY": ["1.1.1.1"], "DEVICE": "tun2"}]})"),
              0);
    EXPECT_THAT(only("edit_route"), IsEmpty());
    EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(RgLinkTest, BadElementsFailAloneAndSaySo) {
    const char* const bad[] = {
        "5", R"({"SITE": "9", "DEST": "10.6.0.0/16", "RTA_GATEWAY": ["1.1.1.1"], "DEVICE": []})",
        R"({"SITE": "9", "DEST": "10.6.0.0/16", "RTA_GATEWAY": ["1.1.1.1"], "DEVICE": "a-name-longer-than-15"})",
        R"({"SITE": "9", "DEST": "10.6.0.0/16", "RTA_GATEWAY": 1, "DEVICE": "tun2"})"};
    for (const char* element : bad) {
        EXPECT_EQ(route(std::string(R"({"add": [)") + element + "," + kGoodRegional + "]}"), -3011)
            << element;
        EXPECT_THAT(calls, ElementsAre(HasSubstr("edit_route 0 10.7.0.0/16 "))) << element;
        EXPECT_THAT(errors(), ElementsAre(HasSubstr("[ERROR] edit route failed. op: 0, count: 1DST [")))
            << element;
    }
    EXPECT_EQ(route(R"({"add": [{"SITE": "9", "DEST": "10.6.0.0/16", "RTA_GATEWAY": ["1.1.1.1", "2.2.2.2"],
                                 "WEIGHT": ["1"], "DEVICE": "tun2"}]})"),
              0);
    EXPECT_THAT(errors(), ElementsAre("[ERROR] Gateway number does not equal to Weight number."));
}

TEST_F(RgLinkTest, OnlyTheTypeRegionalIsKnownAndTheDocumentIsNotOpenedForOthers) {
    for (const char* name : {"", "s2s", "Regional", "private_s2s"}) {
        std::string type = name, conf = "/nowhere";
        clear();
        EXPECT_EQ(setup_regional_route(type, conf), -3004) << name;
        EXPECT_THAT(corvo::test::log_texts(log_file()), testing::Not(Contains(HasSubstr("/nowhere"))));
        EXPECT_THAT(log(), ElementsAre("[ERROR] Wrong route type."));
    }
    std::string type = "regional", conf = "/nowhere";
    EXPECT_EQ(setup_regional_route(type, conf), -3016);
}

}  // namespace
