// Routes of IPv4 tunnels: documents, lists, tables.
#include "corvosetup/tun.h"
#include "fake_device.h"
#include "tunnel/numbering.h"

using corvo::test::FakeDevice;
using corvo::test::json;
using testing::AnyOf;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

class TunRoutes : public FakeDevice {
protected:
    TunRoutes() {
        entry("wan0", R"({"slave": "eth0", "id": 5, "tun_addr": "198.19.0.50"})");
        devices["tun5"] = 12;
    }
    Tun tun() { return Tun("eth0", entries["wan0"], 1); }
    int route(const std::string& text, int base = 10000) {
        std::string conf = document(text);
        Tun link = tun();
        clear();
        return link.setup_tun_routing(base, conf);
    }
    int add(const std::string& elements, int base = 10000) {
        return route(R"({"add": [)" + elements + "]}", base);
    }
    int setup(std::string type, std::string conf, std::string ifname = "all") {
        return setup_tun_route(ifname, type, conf);
    }
};

constexpr const char* kTunElement = R"({"SITE": "9", "DEST": "10.9.0.0/16", "RTA_GATEWAY": ["198.19.0.9"]})";

TEST_F(TunRoutes, NumberingGivesEveryTypeItsBitAndBase) {
    using namespace corvo::tunnel;
    EXPECT_EQ(type_of_name("s2s")->bit, 1);
    EXPECT_EQ(type_of_name("static")->bit, 2);
    EXPECT_EQ(type_of_name("mptcp")->bit, 4);
    EXPECT_EQ(type_of_name("default")->bit, 8);
    EXPECT_EQ(type_of_bit(1)->base, 10000);
    EXPECT_EQ(type_of_bit(2)->base, 15000);
    EXPECT_EQ(type_of_bit(4)->base, 20000);
    EXPECT_EQ(type_of_bit(8)->base, 30000);
    for (const int bit : {0, 3, 5, 16, -1}) EXPECT_EQ(type_of_bit(bit), nullptr);
    for (const char* name : {"", "S2S", "s2s6", "private_s2s"}) EXPECT_EQ(type_of_name(name), nullptr);
    EXPECT_EQ(type_of_name("private_mptcp", "private_")->bit, 4);
    EXPECT_EQ(type_of_name("mptcp", "private_"), nullptr);
    EXPECT_EQ(number_of(10000, 5), 10005);
    EXPECT_EQ(number_of(30000, 2147483647), 0);
    EXPECT_EQ(number_of(10000, -9745), 0);
    EXPECT_EQ(number_of(10000, -9744), 256);
}

TEST_F(TunRoutes, OneGatewayGetsNoWeightAndTheNetworkIsMasked) {
    EXPECT_EQ(
        add(R"({"SITE": "9", "DEST": "192.168.1.77/24", "RTA_GATEWAY": ["198.19.0.9"], "WEIGHT": ["7"]})"),
        0);
    EXPECT_THAT(calls,
                ElementsAre("edit_route 0 192.168.1.0/24 table=10005 metric=9 lock=260 mtu=1342 mss=1290 "
                            "via=198.19.0.9,tun5,0,onlink"));
}

TEST_F(TunRoutes, WeightsAreReadFromTwoGatewaysOn) {
    EXPECT_EQ(add(R"({"SITE": "9", "DEST": "10.0.0.0/8", "RTA_GATEWAY": ["1.1.1.1", "1.1.1.2"],
                      "WEIGHT": ["7", "3"]})"),
              0);
    EXPECT_THAT(calls, ElementsAre("edit_route 0 10.0.0.0/8 table=10005 metric=9 lock=260 mtu=1342 mss=1290 "
                                   "via=1.1.1.1,tun5,7,onlink via=1.1.1.2,tun5,3,onlink"));
}

TEST_F(TunRoutes, WeightIsNotReadWithASingleGateway) {
    for (const char* weight : {"[]", "[\"1\", \"2\"]", "{}", "5", "[[]]"}) {
        EXPECT_EQ(
            add(std::string(R"({"SITE": "9", "DEST": "10.0.0.0/8", "RTA_GATEWAY": ["1.1.1.1"], "WEIGHT": )") +
                weight + "}"),
            0)
            << weight;
        EXPECT_EQ(calls.size(), 1u) << weight;
    }
}

TEST_F(TunRoutes, PathMetricsDependOnTheTable) {
    for (const int base : {10000, 15000}) {
        add(kTunElement, base);
        EXPECT_THAT(calls, ElementsAre(HasSubstr("table=" + std::to_string(base + 5) +
                                                 " metric=9 lock=260 mtu=1342 mss=1290")));
    }
    for (const int base : {20000, 30000}) {
        add(kTunElement, base);
        EXPECT_THAT(calls, ElementsAre(HasSubstr("table=" + std::to_string(base + 5) +
                                                 " metric=9 lock=260 mtu=1374 mss=1302")));
    }
}

TEST_F(TunRoutes, DeletionFlushesWhatMatchesAndReadsNoGateways) {
    EXPECT_EQ(route(R"({"del": [{"SITE": "9", "DEST": "10.9.0.1/16", "RTA_GATEWAY": 5, "WEIGHT": {}}]})"), 0);
    EXPECT_THAT(calls, ElementsAre("edit_route 2 10.9.0.0/16 table=10005 metric=9"));
}

TEST_F(TunRoutes, DeletionsComeBeforeAdditions) {
    EXPECT_EQ(route(std::string(R"({"add": [)") + kTunElement +
                    R"(], "del": [{"SITE": "8", "DEST": "10.8.0.0/16"}]})"),
              0);
    EXPECT_THAT(calls,
                ElementsAre(HasSubstr("edit_route 2 10.8.0.0/16"), HasSubstr("edit_route 0 10.9.0.0/16")));
}

TEST_F(TunRoutes, FailedDeletionsAreLoggedAndIgnored) {
    fail("edit_route 2", -3010);
    EXPECT_EQ(route(std::string(R"({"del": [{"SITE": "8", "DEST": "10.8.0.0/16"}], "add": [)") + kTunElement +
                    "]}"),
              0);
    EXPECT_THAT(errors(),
                ElementsAre("[ERROR] Edit Route failed, ret: -3010, result: Unspecific failureop: 2 dst: "
                            "10.8.0.0/16, table: 10005, prio: 8",
                            "[ERROR] edit route failed. op: 2, count: 1DST [10.8.0.0/16], table: 10005, "
                            "metric: 8"));
}

TEST_F(TunRoutes, FailedAdditionsAreCountedAndTheRestGoesOn) {
    fail("1.0.0.0/8", -12);
    fail("3.0.0.0/8", -28);
    EXPECT_EQ(add(R"({"SITE": "1", "DEST": "1.0.0.0/8", "RTA_GATEWAY": ["9.9.9.9"]},
                     {"SITE": "2", "DEST": "2.0.0.0/8", "RTA_GATEWAY": ["9.9.9.9"]},
                     {"SITE": "3", "DEST": "3.0.0.0/8", "RTA_GATEWAY": ["9.9.9.9"]})"),
              -3011);
    EXPECT_EQ(calls.size(), 3u);
    EXPECT_THAT(
        errors(),
        ElementsAre("[ERROR] Edit Route failed, ret: -12, result: Object not foundop: 0 dst: 1.0.0.0/8, "
                    "table: 10005, prio: 1",
                    "[ERROR] edit route failed. op: 0, count: 1DST [1.0.0.0/8], table: 10005, metric: 1",
                    "[ERROR] Edit Route failed, ret: -28, result: Operation not permittedop: 0 dst: "
                    "3.0.0.0/8, table: 10005, prio: 3",
                    "[ERROR] edit route failed. op: 0, count: 2DST [3.0.0.0/8], table: 10005, metric: 3"));
}

TEST_F(TunRoutes, ExistingRouteOnAdditionIsASuccessWithAWarning) {
    fail("edit_route", -6);
    EXPECT_EQ(add(kTunElement), 0);
    EXPECT_THAT(errors(), ElementsAre("[WARNING] Route Exist. dst: 10.9.0.0/16, table: 10005, prio: 9"));
}

TEST_F(TunRoutes, ExistingRouteOnDeletionIsAFailure) {
    fail("edit_route", -6);
    EXPECT_EQ(route(R"({"del": [{"SITE": "8", "DEST": "10.8.0.0/16"}]})"), 0);
    EXPECT_THAT(errors(), Contains(HasSubstr("Edit Route failed, ret: -6, result: Object existsop: 2")));
}

TEST_F(TunRoutes, ElementsWithoutSiteOrDestinationAreSkipped) {
    EXPECT_EQ(add(R"({"DEST": "10.0.0.0/8", "RTA_GATEWAY": ["1.1.1.1"]},
                     {"SITE": "0", "DEST": "10.0.0.0/8", "RTA_GATEWAY": ["1.1.1.1"]},
                     {"SITE": "x", "DEST": "10.0.0.0/8", "RTA_GATEWAY": ["1.1.1.1"]},
                     {"SITE": null, "DEST": "10.0.0.0/8", "RTA_GATEWAY": ["1.1.1.1"]},
                     {"SITE": "1", "RTA_GATEWAY": ["1.1.1.1"]},
                     {"SITE": "1", "DEST": "", "RTA_GATEWAY": ["1.1.1.1"]})"),
              0);
    EXPECT_THAT(calls, IsEmpty());
    EXPECT_THAT(log(), IsEmpty());
}

TEST_F(TunRoutes, CountMismatchSkipsWithoutCounting) {
    EXPECT_EQ(add(std::string(R"({"SITE": "1", "DEST": "1.0.0.0/8", "RTA_GATEWAY": ["1.1.1.1", "1.1.1.2"],
                                  "WEIGHT": ["1"]},
                                 {"SITE": "1", "DEST": "1.0.0.0/8", "RTA_GATEWAY": ["1.1.1.1", "1.1.1.2"]},)") +
                  kTunElement),
              0);
    EXPECT_EQ(calls.size(), 1u);
    EXPECT_THAT(log(), ElementsAre("[ERROR] Gateway number does not equal to Weight number.",
                                   "[ERROR] Gateway number does not equal to Weight number."));
}

TEST_F(TunRoutes, DestinationThatIsNoNetworkSkipsWithoutCounting) {
    EXPECT_EQ(add(std::string(R"({"SITE": "1", "DEST": "0.0.0.0/0", "RTA_GATEWAY": ["1.1.1.1"]},
                                 {"SITE": "1", "DEST": "10.0.0.1/33", "RTA_GATEWAY": ["1.1.1.1"]},
                                 {"SITE": "1", "DEST": "10.0.0.1/", "RTA_GATEWAY": ["1.1.1.1"]},
                                 {"SITE": "1", "DEST": "10.0.0.1/-8", "RTA_GATEWAY": ["1.1.1.1"]},
                                 {"SITE": "1", "DEST": "10.0.0.999/24", "RTA_GATEWAY": ["1.1.1.1"]},
                                 {"SITE": "1", "DEST": "/24", "RTA_GATEWAY": ["1.1.1.1"]},)") +
                  kTunElement),
              0);
    EXPECT_EQ(calls.size(), 1u);
    EXPECT_THAT(log(), ElementsAre("[ERROR] DST netaddr transform failed, IP: 0.0.0.0prefix: 0",
                                   "[ERROR] DST netaddr transform failed, IP: 10.0.0.1prefix: 33",
                                   "[ERROR] DST netaddr transform failed, IP: 10.0.0.1prefix: 0",
                                   "[ERROR] DST netaddr transform failed, IP: 10.0.0.1prefix: -8",
                                   "[ERROR] DST netaddr transform failed, IP: 10.0.0.999prefix: 24",
                                   "[ERROR] DST netaddr transform failed, IP: prefix: 24"));
}

TEST_F(TunRoutes, DefaultAndHostDestinationsHaveNoLength) {
    EXPECT_EQ(add(R"({"SITE": "1", "DEST": "default", "RTA_GATEWAY": ["1.1.1.1"]},
                     {"SITE": "1", "DEST": "10.0.0.1", "RTA_GATEWAY": ["1.1.1.1"]})"),
              0);
    EXPECT_THAT(calls,
                ElementsAre(HasSubstr("edit_route 0 default/0 "), HasSubstr("edit_route 0 10.0.0.1/0 ")));
}

TEST_F(TunRoutes, TextsThatDoNotFitFailTheElementAndAreNeverCut) {
    EXPECT_EQ(add(std::string(R"({"SITE": "1", "DEST": "192.168.100.1000", "RTA_GATEWAY": ["1.1.1.1"]},
                                 {"SITE": "2", "DEST": "10.0.0.0/8", "RTA_GATEWAY": ["192.168.100.1000"]},)") +
                  kTunElement),
              -3011);
    EXPECT_EQ(calls.size(), 1u);
    EXPECT_THAT(log(),
                ElementsAre("[ERROR] edit route failed. op: 0, count: 1DST [192.168.100.1000/0], table: "
                            "10005, metric: 1",
                            "[ERROR] edit route failed. op: 0, count: 2DST [10.0.0.0/8], table: 10005, "
                            "metric: 2"));
}

TEST_F(TunRoutes, WronglyTypedElementsFailAloneAndSaySo) {
    const char* const bad[] = {
        "5",
        "\"x\"",
        "[]",
        "null",
        "true",
        R"({"SITE": {}, "DEST": "10.0.0.0/8", "RTA_GATEWAY": ["1.1.1.1"]})",
        R"({"SITE": [1], "DEST": "10.0.0.0/8", "RTA_GATEWAY": ["1.1.1.1"]})",
        R"({"SITE": "1", "DEST": {}, "RTA_GATEWAY": ["1.1.1.1"]})",
        R"({"SITE": "1", "DEST": ["10.0.0.0/8"], "RTA_GATEWAY": ["1.1.1.1"]})",
        R"({"SITE": "1", "DEST": "10.0.0.0/8", "RTA_GATEWAY": "1.1.1.1"})",
        R"({"SITE": "1", "DEST": "10.0.0.0/8", "RTA_GATEWAY": {"a": "1.1.1.1"}})",
        R"({"SITE": "1", "DEST": "10.0.0.0/8", "RTA_GATEWAY": [["1.1.1.1"]]})",
        R"({"SITE": "1", "DEST": "10.0.0.0/8", "RTA_GATEWAY": ["1.1.1.1", "1.1.1.2"], "WEIGHT": "12"})",
        R"({"SITE": "1", "DEST": "10.0.0.0/8", "RTA_GATEWAY": ["1.1.1.1", "1.1.1.2"], "WEIGHT": ["1", {}]})",
        "{\"SITE\": \"1\", \"DEST\": \"10.0.0.1\\u0000x\", \"RTA_GATEWAY\": [\"1.1.1.1\"]}",
    };
    for (const char* element : bad) {
        EXPECT_EQ(add(std::string(element) + "," + kTunElement), -3011) << element;
        EXPECT_THAT(calls, ElementsAre(HasSubstr("edit_route 0 10.9.0.0/16 "))) << element;
        EXPECT_THAT(log(), ElementsAre(HasSubstr("[ERROR] edit route failed. op: 0, count: 1DST [")))
            << element;
        EXPECT_THAT(log()[0], HasSubstr("table: 10005")) << element;
    }
}

TEST_F(TunRoutes, NumbersAreReadAsTheirTexts) {
    EXPECT_EQ(
        add(R"({"SITE": 9, "DEST": "10.0.0.0/8", "RTA_GATEWAY": ["1.1.1.1", "1.1.1.2"], "WEIGHT": [2, "3"]})"),
        0);
    EXPECT_THAT(calls, ElementsAre(HasSubstr("metric=9 lock=260 mtu=1342 mss=1290 via=1.1.1.1,tun5,2,onlink "
                                             "via=1.1.1.2,tun5,3,onlink")));
}

TEST_F(TunRoutes, NoMemoryForANextHopFailsTheElement) {
    hops_left = 1;
    EXPECT_EQ(add(std::string(kTunElement) + "," + kTunElement), -3011);
    EXPECT_EQ(calls.size(), 1u);
    EXPECT_THAT(log(),
                ElementsAre("[ERROR] edit route failed. op: 0, count: 1DST [10.9.0.0/16], table: 10005, "
                            "metric: 9"));
}

TEST_F(TunRoutes, SessionThatDoesNotOpenFailsEveryElement) {
    open_result = -3009;
    EXPECT_EQ(add(kTunElement), -3011);
    EXPECT_THAT(log(),
                ElementsAre("[ERROR] Edit Route failed, ret: -3009, result: Unspecific failureop: 0 dst: "
                            "10.9.0.0/16, table: 10005, prio: 9",
                            "[ERROR] edit route failed. op: 0, count: 1DST [10.9.0.0/16], table: 10005, "
                            "metric: 9"));
}

// Elements are sent many at a time; what is said about them still comes in their order.
TEST_F(TunRoutes, LogLinesOfALongListComeInTheOrderOfItsElements) {
    std::string elements;
    std::vector<std::string> expected;
    int count = 0;
    for (int i = 1; i <= 1000; ++i) {
        const std::string site = std::to_string(i);
        if (i > 1) elements += ",";
        if (i % 7 == 0) {
            elements += R"({"SITE": ")" + site + R"(", "DEST": "0.0.0.0/0"})";
            expected.push_back("[ERROR] DST netaddr transform failed, IP: 0.0.0.0prefix: 0");
        } else if (i % 7 == 3) {
            elements += R"({"SITE": ")" + site + R"(", "DEST": []})";
            expected.push_back("[ERROR] edit route failed. op: 0, count: " + std::to_string(++count) +
                               "DST [/0], table: 10005, metric: " + site);
        } else if (i % 7 == 5) {
            elements += R"({"SITE": ")" + site + R"(", "DEST": "10.6.6.6", "RTA_GATEWAY": ["1.1.1.1"]})";
            expected.push_back(
                "[ERROR] Edit Route failed, ret: -7, result: Invalid input data or parameterop: 0 "
                "dst: 10.6.6.6/0, table: 10005, prio: " +
                site);
            expected.push_back("[ERROR] edit route failed. op: 0, count: " + std::to_string(++count) +
                               "DST [10.6.6.6/0], table: 10005, metric: " + site);
        } else {
            elements += R"({"SITE": ")" + site + R"(", "DEST": "10.7.7.7", "RTA_GATEWAY": ["1.1.1.1"]})";
        }
    }
    fail("10.6.6.6", -7);
    EXPECT_EQ(add(elements), -3011);
    EXPECT_EQ(log(), expected);
}

TEST_F(TunRoutes, UnknownTableBaseIsRefused) {
    EXPECT_EQ(add(kTunElement, 12345), -3004);
    EXPECT_THAT(errors(), ElementsAre("[ERROR] Unkown route table id."));
    EXPECT_THAT(calls, IsEmpty());
}

TEST_F(TunRoutes, MissingDocumentIsReported) {
    std::string conf = "/nowhere/routes.json";
    EXPECT_EQ(tun().setup_tun_routing(10000, conf), -3016);
    EXPECT_THAT(errors(), Contains("[ERROR] Config file: [/nowhere/routes.json] does not exist."));
}

TEST_F(TunRoutes, DocumentsOfAnyShapeAreReadAsEmpty) {
    for (const char* text :
         {"null", "[]", "{}", R"({"add": {}, "del": 5})", R"({"add": "x"})", R"({"add": []})"}) {
        EXPECT_EQ(route(text), 0) << text;
        EXPECT_THAT(calls, IsEmpty()) << text;
    }
}

TEST_F(TunRoutes, SetupRouteChecksItsArgumentsInOrder) {
    Tun link = tun();
    clear();
    std::string none, conf = document("{}");
    EXPECT_EQ(link.setup_route(99, none), -3003);
    EXPECT_EQ(link.setup_route(3, conf), -3004);
    EXPECT_EQ(link.setup_route(1, conf), 0);
    EXPECT_THAT(errors(), ElementsAre("[ERROR] tun5's route configuration isn't assigned.",
                                      "[ERROR] tun5 has unknown route type."));
}

TEST_F(TunRoutes, TunnelWithoutADeviceOrAnAddressIsPassedOver) {
    std::string conf = document(std::string(R"({"add": [)") + kTunElement + "]}");
    devices.clear();
    Tun absent = tun();
    clear();
    EXPECT_EQ(absent.setup_route(1, conf), 0);
    EXPECT_THAT(log(), ElementsAre("[TRACE] tun5 get ifindex failed."));
    devices["tun5"] = 12;
    entries["wan0"].removeMember("tun_addr");
    Tun bare = tun();
    clear();
    EXPECT_EQ(bare.setup_route(1, conf), 0);
    EXPECT_THAT(log(), ElementsAre("[TRACE] Slave: eth0 has no ip."));
    EXPECT_THAT(calls, IsEmpty());
}

TEST_F(TunRoutes, MaskSelectsTheTablesToFlushInAscendingOrder) {
    Tun link = tun();
    EXPECT_EQ(link.destroy_tun_route(8 | 1), 0);
    EXPECT_THAT(calls,
                ElementsAre("edit_route 2 /0 table=10005 metric=0", "edit_route 2 /0 table=30005 metric=0"));
    clear();
    EXPECT_EQ(link.destroy_tun_route(0), 0);
    EXPECT_THAT(calls, IsEmpty());
}

TEST_F(TunRoutes, MptcpDefaultRouteOnlyFlushes) {
    Tun link = tun();
    clear();
    for (const int op : {0, 1, 3, 4}) EXPECT_EQ(link.setup_mptcp_default_route(op), 0) << op;
    EXPECT_THAT(calls, IsEmpty());
    EXPECT_EQ(link.setup_mptcp_default_route(2), 0);
    EXPECT_THAT(calls, ElementsAre("edit_route 2 /0 table=30005 metric=0 via=,tun5,0"));
    for (const int op : {5, 7, -1}) EXPECT_EQ(link.setup_mptcp_default_route(op), -3004) << op;
    EXPECT_THAT(log(), ElementsAre("[ERROR] Bad route operation.", "[ERROR] Bad route operation.",
                                   "[ERROR] Bad route operation."));
}

TEST_F(TunRoutes, MptcpDefaultRouteReportsItsFailures) {
    Tun link = tun();
    clear();
    fail("edit_route", -3010);
    EXPECT_EQ(link.setup_mptcp_default_route(2), -3001);
    EXPECT_THAT(errors(), Contains("[ERROR] flush route 30000 failed, dev: tun5"));
    clear();
    hops_left = 0;
    EXPECT_EQ(link.setup_mptcp_default_route(0), -3010);
    EXPECT_THAT(log(), ElementsAre("[ERROR] Allocate nexthop failed."));
}

TEST_F(TunRoutes, SetupTunRouteRefusesUnknownTypesFirst) {
    for (const char* type : {"", "s2s6", "private_s2s", "regional", "S2S"}) {
        clear();
        EXPECT_EQ(setup(type, "/nowhere"), -3004) << type;
        EXPECT_THAT(log(), ElementsAre("[ERROR] Wrong route type."));
    }
    EXPECT_EQ(asked, "");
}

TEST_F(TunRoutes, SetupTunRouteInstallsForTheWantedType) {
    const std::string conf = document(std::string(R"({"add": [)") + kTunElement + "]}");
    EXPECT_EQ(setup("mptcp", conf, "wan0"), 0);
    EXPECT_EQ(asked, "wan /etc/networkmanagement/device_info.json 1");
    EXPECT_THAT(log(), Contains("[DEBUG] Route type: 4"));
    EXPECT_THAT(calls, ElementsAre(HasSubstr("edit_route 0 10.9.0.0/16 table=20005 ")));
    service_result = -3024;
    EXPECT_EQ(setup("mptcp", conf, "wan0"), -3024);
    EXPECT_THAT(errors(), ElementsAre("[ERROR] get_available_wan_info failed! ret: -3024"));
}

TEST_F(TunRoutes, SetupTunRouteMatchesTheNameOnly) {
    const std::string conf = document(std::string(R"({"add": [)") + kTunElement + "]}");
    EXPECT_EQ(setup("s2s", conf, "eth0"), 0);
    EXPECT_THAT(calls, IsEmpty());
    EXPECT_THAT(errors(), ElementsAre("[ERROR] Could not find [eth0] in available_wan_info map!"));
}

TEST_F(TunRoutes, ResultForAllLinksIsThatOfTheLastOne) {
    entry("wan1", R"({"slave": "eth1", "id": 6, "tun_addr": "198.19.0.51"})");
    devices["tun6"] = 13;
    const std::string conf = document(std::string(R"({"add": [)") + kTunElement + "]}");
    // The order of the map decides which is the last.
    const std::string last = std::next(entries.begin())->first == "wan0" ? "10005" : "10006";
    const std::string first = last == "10005" ? "10006" : "10005";
    const std::string first_name = entries.begin()->first;
    fail("table=" + first, -12);
    EXPECT_EQ(setup("s2s", conf), 0);
    EXPECT_THAT(errors(),
                Contains("[ERROR] Iface: " + first_name + " setup_tun_route: s2s failed. ret=-3011"));
    succeed_again();
    fail("table=" + last, -12);
    EXPECT_EQ(setup("s2s", conf), -3011);
}

TEST_F(TunRoutes, SingleLinkReturnsItsOwnCode) {
    EXPECT_EQ(setup("s2s", "", "wan0"), -3003);
    EXPECT_EQ(setup("s2s", "/nowhere", "wan0"), -3016);
}

TEST_F(TunRoutes, MptcpEntriesReportEachFailure) {
    fail("edit_rule", -3011);
    EXPECT_EQ(setup_tun_mptcp_default_rule(0, "wan0"), -3011);
    EXPECT_THAT(errors(), ElementsAre("[ERROR]  op: 0 mptcp default rule failed.",
                                      "[ERROR] Iface: wan0 setup_mptcp_default_rule failed. ret=-3011"));
    EXPECT_EQ(asked, "wan /etc/networkmanagement/device_info.json 1");
    clear();
    EXPECT_EQ(setup_tun_mptcp_default_route(7, "all"), -3004);
    EXPECT_THAT(errors(), ElementsAre("[ERROR] Bad route operation.",
                                      "[ERROR] Iface: wan0 setup_tun_mptcp_default_route failed. ret=-3004"));
    service_result = -3019;
    EXPECT_EQ(setup_tun_mptcp_default_rule(0, "wan0"), -3019);
    EXPECT_EQ(setup_tun_mptcp_default_route(2, "wan0"), -3019);
}

TEST_F(TunRoutes, MptcpDefaultRouteOfAllFlushesEveryTunnelsTable) {
    EXPECT_EQ(setup_tun_mptcp_default_route(0, "all"), 0);
    EXPECT_THAT(calls, IsEmpty());
    EXPECT_EQ(setup_tun_mptcp_default_route(2, ""), 0);
    EXPECT_THAT(calls, ElementsAre(HasSubstr("edit_route 2 /0 table=30005 metric=0")));
}

TEST_F(TunRoutes, UnknownNameStillRunsTheMptcpOperationsOnAnEmptyEntry) {
    EXPECT_EQ(setup_tun_mptcp_default_rule(0, "wan7"), 0);
    EXPECT_THAT(calls, IsEmpty());
    EXPECT_THAT(errors(), ElementsAre("[ERROR] Could not find [wan7] in available_wan_info map!"));
    EXPECT_EQ(setup_tun_mptcp_default_route(2, "wan7"), 0);
    EXPECT_THAT(calls, ElementsAre("edit_route 2 /0 table=30000 metric=0 via=,,0"));
    EXPECT_EQ(setup_tun_mptcp_default_route(9, "wan7"), -3004);
}

}  // namespace
