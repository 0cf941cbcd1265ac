// Rules and routes of IPv4 tunnels in the kernel.
#include "corvosetup/tun.h"

#include "link_fixture.h"
#include "support/sanitized.h"

using namespace corvo::test;
using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

namespace {

class TunInKernel : public LinkTest {
protected:
    TunInKernel() {
        add_veth("tun5", "peer5", {.address = "198.19.0.50/32"});
        add_veth("tun6", "peer6", {.address = "198.19.0.51/32"});
        wans(R"({"ifname": "wan0", "slave": "eth0", "id": 5, "tun_addr": "198.19.0.50"},
                {"ifname": "wan1", "slave": "eth1", "id": 6, "tun_addr": "198.19.0.51"})");
        info["id"] = 5;
        info["tun_addr"] = "198.19.0.50";
    }
    Tun tun() { return Tun("eth0", info, 1); }
    int route(const std::string& text, std::string type = "s2s", std::string ifname = "wan0") {
        std::string conf = write_document("routes.json", text);
        return setup_tun_route(ifname, type, conf);
    }
    Json::Value info;
};

TEST_F(TunInKernel, TunnelFiveHasItsFiveRules) {
    LeakCheck leaks;
    EXPECT_EQ(tun().setup_tun_rule(), 0);
    EXPECT_THAT(rules(), ElementsAre("10005 from all fwmark 0x5/0xf lookup 10005",
                                     "10005 from all fwmark 0x5/0xf lookup 15005",
                                     "20005 from 198.19.0.50 lookup 20005",
                                     "20005 from all oif tun5 lookup 20005", "30005 from all lookup 30005"));
    EXPECT_EQ(tun().setup_tun_rule(), 0);  // they exist: no failure, no copies
    EXPECT_EQ(rules().size(), 5u);
    EXPECT_THAT(errors(), IsEmpty());
    EXPECT_EQ(tun().destroy_tun_rule(), 0);
    EXPECT_THAT(rules(), IsEmpty());
    EXPECT_THAT(errors(), IsEmpty());
    EXPECT_EQ(tun().destroy_tun_rule(), 0);
    EXPECT_EQ(errors().size(), 5u);
}

TEST_F(TunInKernel, DeletionByPriorityTakesWhateverRuleIsThere) {
    ip_batch(
        {"rule add prio 10005 from 10.0.0.0/8 table 77", "rule add prio 10005 from 11.0.0.0/8 table 78"});
    EXPECT_EQ(tun().destroy_tun_rule(), 0);
    EXPECT_THAT(rules(), IsEmpty());
}

TEST_F(TunInKernel, MarkSelectsByItsLowFourBitsAndFallsThroughToTheStaticTable) {
    tun().setup_tun_rule();
    ip_batch({"route add 10.1.0.0/16 via 198.19.0.9 dev tun5 onlink table 10005",
              "route add 10.2.0.0/16 via 198.19.0.9 dev tun5 onlink table 15005"});
    const auto leaves_by = [](const std::string& words) {
        const ToolResult found = run_line("ip -j route get " + words);
        return found.ok() ? found.out : "unreachable";
    };
    EXPECT_THAT(leaves_by("10.1.0.1 mark 5"), HasSubstr("tun5"));
    EXPECT_THAT(leaves_by("10.2.0.1 mark 5"), HasSubstr("tun5"));
    EXPECT_THAT(leaves_by("10.1.0.1 mark 0x15"), HasSubstr("tun5"));  // 0x15 & 0xf is 5
    EXPECT_THAT(leaves_by("10.1.0.1 mark 6"), Not(HasSubstr("tun5")));
    EXPECT_THAT(leaves_by("10.1.0.1"), Not(HasSubstr("tun5")));
}

TEST_F(TunInKernel, IdSixteenTakesUnmarkedTrafficToo) {
    add_veth("tun16", "peer16");
    info["id"] = 16;
    tun().setup_tun_rule();
    ip_batch({"route add 10.1.0.0/16 via 198.19.0.9 dev tun16 onlink table 10016"});
    EXPECT_THAT(run_line("ip -j route get 10.1.0.1").out, HasSubstr("tun16"));
}

TEST_F(TunInKernel, SourceAddressChoosesTheMptcpTable) {
    Json::Value other;
    other["id"] = 6;
    other["tun_addr"] = "198.19.0.51";
    tun().setup_tun_rule();
    Tun("eth1", other, 1).setup_tun_rule();
    EXPECT_EQ(route(R"({"add": [{"SITE": "1", "DEST": "10.1.0.0/16", "RTA_GATEWAY": ["198.19.0.9"]}]})",
                    "mptcp", "all"),
              0);
    EXPECT_THAT(run_line("ip -j route get 10.1.0.1 from 198.19.0.50").out, HasSubstr("\"tun5\""));
    EXPECT_THAT(run_line("ip -j route get 10.1.0.1 from 198.19.0.51").out, HasSubstr("\"tun6\""));
    EXPECT_THAT(run_line("ip -j route get 10.1.0.1 oif tun6").out, HasSubstr("\"tun6\""));
}

TEST_F(TunInKernel, MptcpDefaultRuleComesAndGoesAlone) {
    EXPECT_EQ(setup_tun_mptcp_default_rule(0, "all"), 0);
    EXPECT_THAT(rules(), ElementsAre("30005 from all lookup 30005", "30006 from all lookup 30006"));
    EXPECT_EQ(setup_tun_mptcp_default_rule(1, "wan0"), 0);
    EXPECT_THAT(rules(), ElementsAre("30006 from all lookup 30006"));
    EXPECT_EQ(setup_tun_mptcp_default_rule(1, "wan0"), -3011);
}

TEST_F(TunInKernel, RoutesCarryWeightsAndPathMetrics) {
    LeakCheck leaks;
    EXPECT_EQ(route(R"({"add": [
        {"SITE": "9", "DEST": "192.168.1.77/24", "RTA_GATEWAY": ["198.19.0.9"]},
        {"SITE": "8", "DEST": "10.8.0.0/16", "RTA_GATEWAY": ["198.19.0.9", "198.19.0.10"], "WEIGHT": ["7", "3"]},
        {"SITE": "7", "DEST": "10.7.7.7", "RTA_GATEWAY": ["198.19.0.9"]},
        {"SITE": "6", "DEST": "default", "RTA_GATEWAY": ["198.19.0.9"]}]})",
                    "default"),
              0);
    EXPECT_THAT(routes(30005),
                testing::UnorderedElementsAre(
                    "192.168.1.0/24 via 198.19.0.9 dev tun5 metric 9 onlink mtu lock 1374 advmss lock 1302",
                    AllOf(StartsWith("10.8.0.0/16 metric 8 mtu lock 1374 advmss lock 1302"),
                          HasSubstr("nexthop via 198.19.0.9 dev tun5 weight 7 onlink"),
                          HasSubstr("nexthop via 198.19.0.10 dev tun5 weight 3 onlink")),
                    "10.7.7.7 via 198.19.0.9 dev tun5 metric 7 onlink mtu lock 1374 advmss lock 1302",
                    "default via 198.19.0.9 dev tun5 metric 6 onlink mtu lock 1374 advmss lock 1302"));
    EXPECT_EQ(
        route(R"({"add": [{"SITE": "9", "DEST": "10.0.0.0/8", "RTA_GATEWAY": ["198.19.0.9"]}]})", "static"),
        0);
    EXPECT_THAT(
        routes(15005),
        ElementsAre("10.0.0.0/8 via 198.19.0.9 dev tun5 metric 9 onlink mtu lock 1342 advmss lock 1290"));
}

TEST_F(TunInKernel, AdditionReplacesAndDeletionRemovesWhatMatches) {
    ip_batch({"route add 10.1.0.0/16 dev tun6 table 10005 metric 3",
              "route append 10.1.0.0/16 dev peer6 table 10005 metric 3 proto static",
              "route add blackhole 10.2.0.0/16 table 10005 metric 3",
              "route add 10.1.0.0/16 dev tun6 table 10005 metric 4"});
    EXPECT_EQ(route(R"({"del": [{"SITE": "3", "DEST": "10.2.9.9/16"}],
                        "add": [{"SITE": "3", "DEST": "10.1.0.0/16", "RTA_GATEWAY": ["198.19.0.9"]}]})"),
              0);
    EXPECT_THAT(routes(10005),
                testing::UnorderedElementsAre(
                    "10.1.0.0/16 via 198.19.0.9 dev tun5 metric 3 onlink mtu lock 1342 advmss lock 1290",
                    "10.1.0.0/16 dev tun6 scope link metric 4"));
}

// Plain replies are read without jsoncpp's tree of them, all others with it.
TEST_F(TunInKernel, DocumentOfTheServiceGoesBeforeTheFileHoweverItIsWritten) {
    services.clear_faults("vesta.read_json");
    const std::string data = R"({"del": [], "add": [{"SITE": "2", "DEST": "10.2.0.0/16",
        "RTA_GATEWAY": ["198.19.0.2"]}, {"SITE": "2", "DEST": 5}, {"SITE": "0"}]})";
    const char* const file = R"({"add": [{"SITE": "3", "DEST": "10.3.0.0/16", "RTA_GATEWAY": ["1.1.1.1"]}]})";
    const auto outcome = [&](const std::string& reply) {
        services.answer_text("vesta.read_json", reply);
        run_line("ip route flush table 10005");
        const int result = route(file);
        std::string text = std::to_string(result);
        for (const std::string& line : routes(10005)) text += " " + line.substr(0, line.find(" via"));
        return text;
    };
    for (const char* reply : {R"({"error": 0, "data": DATA})", R"({"data": DATA, "error": 0})",
                              R"({"error": 0, "more": [1.5], "data": DATA})",
                              R"({"error": 1, "error": 0, "data": {"add": []}, "data": DATA})",
                              R"({"error": "0", "data": DATA})", R"(/* c */ {"error": 0, "data": DATA})"}) {
        std::string text = reply;
        text.replace(text.find("DATA"), 4, data);
        EXPECT_EQ(outcome(text), std::string(reply).find("\"0\"") == std::string::npos ? "-3011 10.2.0.0/16"
                                                                                       : "0 10.3.0.0/16")
            << reply;
    }
    for (const char* reply :
         {R"({"error": 0})", R"({"error": 0, "data": null})", R"({"error": 0, "data": 5})",
          R"({"error": 0, "data": {"add": {"SITE": "2"}}})"}) {
        EXPECT_EQ(outcome(reply), "0") << reply;
    }
    for (std::string reply : {R"({"error": 1, "data": DATA})", R"({"data": DATA})", R"([DATA])",
                              R"({"error": 0, "data": DATA)"}) {
        EXPECT_EQ(outcome(reply.replace(reply.find("DATA"), 4, data)), "0 10.3.0.0/16") << reply;
    }
}

TEST_F(TunInKernel, LaterElementOfTheSameRouteWins) {
    EXPECT_EQ(route(R"({"add": [{"SITE": "3", "DEST": "10.1.0.0/16", "RTA_GATEWAY": ["198.19.0.1"]},
                                {"SITE": "3", "DEST": "10.1.0.9/16", "RTA_GATEWAY": ["198.19.0.2"]}]})"),
              0);
    EXPECT_THAT(routes(10005), ElementsAre(StartsWith("10.1.0.0/16 via 198.19.0.2 dev tun5 metric 3")));
}

TEST_F(TunInKernel, DestroyingRoutesEmptiesTheOwnTablesOnly) {
    for (const int base : {10000, 15000, 20000, 30000}) {
        for (const int id : {5, 6}) {
            const std::string table = std::to_string(base + id);
            ip_batch({"route add 10.1.0.0/16 dev tun5 table " + table,
                      "route add default dev tun5 table " + table});
        }
    }
    EXPECT_EQ(tun().destroy_tun_route(1 | 4), 0);
    EXPECT_THAT(routes(10005), IsEmpty());
    EXPECT_EQ(routes(15005).size(), 2u);
    EXPECT_THAT(routes(20005), IsEmpty());
    EXPECT_EQ(tun().destroy_tun_route(-1), 0);
    EXPECT_THAT(routes(15005), IsEmpty());
    EXPECT_THAT(routes(30005), IsEmpty());
    for (const int base : {10000, 15000, 20000, 30000}) EXPECT_EQ(routes(base + 6).size(), 2u);
}

TEST_F(TunInKernel, MptcpDefaultRouteFlushesEveryTunnelsTableAndForAnUnknownNameTheSharedOne) {
    ip_batch({"route add default dev tun5 table 30005", "route add default dev tun6 table 30006",
              "route add default dev tun5 table 30000"});
    EXPECT_EQ(setup_tun_mptcp_default_route(0, "all"), 0);
    EXPECT_EQ(routes(30005).size(), 1u);
    EXPECT_EQ(setup_tun_mptcp_default_route(2, "all"), 0);
    EXPECT_THAT(routes(30005), IsEmpty());
    EXPECT_THAT(routes(30006), IsEmpty());
    EXPECT_EQ(routes(30000).size(), 1u);
    EXPECT_EQ(setup_tun_mptcp_default_route(2, "nobody"), 0);
    EXPECT_THAT(routes(30000), IsEmpty());
}

TEST_F(TunInKernel, RefusedRoutesAreReportedWithTheKernelLayersWords) {
    must_run("ip link set tun5 down");
    EXPECT_EQ(route(R"({"add": [{"SITE": "3", "DEST": "10.1.0.0/16", "RTA_GATEWAY": ["198.19.0.1"]}]})"),
              -3011);
    const auto lines = errors();
    ASSERT_GE(lines.size(), 2u);
    EXPECT_THAT(lines[lines.size() - 2],
                testing::ContainsRegex("Edit Route failed, ret: -[0-9]+, result: .+op: 0 dst: "
                                       "10.1.0.0/16, table: 10005, prio: 3$"));
    EXPECT_EQ(lines.back(),
              "[ERROR] edit route failed. op: 0, count: 1DST [10.1.0.0/16], table: 10005, metric: 3");
}

struct BadElement {
    const char* kind;
    const char* element;
    int result;
    const char* said;
};

// One bad element in the middle of 10,000: the others are installed, and the log says which one is not.
TEST_F(TunInKernel, OneBadElementAmongTenThousandStopsNothing) {
    const BadElement cases[] = {
        {"no object", "17", -3011, "edit route failed. op: 0, count: 1DST [/0], table: 10005, metric: 0"},
        {"type", R"({"SITE": "1", "DEST": ["10.0.0.1"], "RTA_GATEWAY": ["198.19.0.9"]})", -3011,
         "edit route failed. op: 0, count: 1DST [/0], table: 10005, metric: 1"},
        {"overlong", R"({"SITE": "1", "DEST": "192.168.100.1000", "RTA_GATEWAY": ["198.19.0.9"]})", -3011,
         "edit route failed. op: 0, count: 1DST [192.168.100.1000/0], table: 10005, metric: 1"},
        {"overlong gateway", R"({"SITE": "1", "DEST": "11.0.0.1", "RTA_GATEWAY": ["192.168.100.1000"]})",
         -3011, "edit route failed. op: 0, count: 1DST [11.0.0.1/0], table: 10005, metric: 1"},
        {"address", R"({"SITE": "1", "DEST": "11.0.0.999", "RTA_GATEWAY": ["198.19.0.9"]})", -3011,
         "edit route failed. op: 0, count: 1DST [11.0.0.999/0], table: 10005, metric: 1"},
        {"network", R"({"SITE": "1", "DEST": "11.0.0.999/24", "RTA_GATEWAY": ["198.19.0.9"]})", 0,
         "DST netaddr transform failed, IP: 11.0.0.999prefix: 24"},
        {"gateway", R"({"SITE": "1", "DEST": "11.0.0.1", "RTA_GATEWAY": ["198.19.0"]})", -3011,
         "edit route failed. op: 0, count: 1DST [11.0.0.1/0], table: 10005, metric: 1"},
        {"missing gateways", R"({"SITE": "1", "DEST": "11.0.0.1"})", -3011,
         "edit route failed. op: 0, count: 1DST [11.0.0.1/0], table: 10005, metric: 1"},
        {"missing site", R"({"DEST": "11.0.0.1", "RTA_GATEWAY": ["198.19.0.9"]})", 0, nullptr},
        {"missing destination", R"({"SITE": "1", "RTA_GATEWAY": ["198.19.0.9"]})", 0, nullptr},
        {"counts",
         R"({"SITE": "1", "DEST": "11.0.0.1", "RTA_GATEWAY": ["198.19.0.9", "198.19.0.8"], "WEIGHT": ["1"]})",
         0, "Gateway number does not equal to Weight number."},
    };
    const int count = kSanitized ? 1000 : 10000;  // a sanitizer takes most of a minute for the latter
    for (const BadElement& bad : cases) {
        SCOPED_TRACE(bad.kind);
        std::string document = R"({"add": [)";
        for (int i = 0; i < count; ++i) {
            if (i > 0) document += ",";
            if (i == count / 2) {
                document += bad.element;
                continue;
            }
            document += R"({"SITE": "2", "DEST": "10.)" + std::to_string(i / 250) + "." +
                        std::to_string(i % 250) + R"(.0/24", "RTA_GATEWAY": ["198.19.0.9"]})";
        }
        clear_log();
        EXPECT_EQ(route(document + "]}"), bad.result);
        EXPECT_EQ(routes(10005).size(), count - 1u);
        if (bad.said != nullptr) {
            EXPECT_THAT(log_texts(), Contains("[ERROR] " + std::string(bad.said)));
        }
        EXPECT_EQ(tun().destroy_tun_route(1), 0);
        EXPECT_THAT(routes(10005), IsEmpty());
    }
}

}  // namespace
