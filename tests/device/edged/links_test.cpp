// The kinds of links and shaping that tunnels_test.cpp leaves out: IPv6 tunnels, regional links, the LAN.
#include <unistd.h>

#include "foundation/json.h"
#include "netns/edged/edge.h"
#include "support/kernel_feature.h"

using namespace corvo::test;
using namespace std::chrono_literals;
using testing::AllOf;
using testing::Contains;
using testing::ElementsAreArray;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

namespace {

class EdgedLinks : public EdgeTest {
protected:
    void SetUp() override {
        for (const char* feature : {"ipip-gue", "sit", "fou", "fq", "fw", "ifb"})
            REQUIRE_KERNEL_FEATURE(feature);
        add_veth("swdev4", gw1, "region", {.address = "10.210.0.11/24", .peer_address = "10.210.0.12/24"});
        add_veth("eth5", gw2, "host", {.address = "192.168.11.1/24", .peer_address = "192.168.11.10/24"});
        ip_batch({"link add ifb0 type ifb", "link set ifb0 up", "addr add 2001:db8:1::11/64 dev eth1 nodad"});
        wan("eth1")["IP6_ADDR"] = "2001:db8:1::11/64";
        device_info["LAN_PORT"]["LAN1"]["INTERFACE"] = "eth5";
        corvo::parse_json(R"({"swdev4": {"ID": "4", "RX_RATE": "0", "TX_RATE": "100000000",
            "IP4_ADDR": "10.210.0.11/24"}})",
                          device_info["RGLINK_IFACE_INFO"]);
        publish();
        services->document("qos.json", R"({"QOS": {"RATE": [40, 30, 20], "DEFAULT_CLASS": 3}})");
        shape_lan("5000000");
        write_document("routes/s2s6.json", R"({"del": [], "add": [{"SITE": "21", "DEST": "2001:db8:21::/48",
            "RTA_GATEWAY": ["::198.19.0.160"], "WEIGHT": ["1"]}]})");
        write_document("routes/regional.json",
                       R"({"del": [], "add": [{"SITE": "12", "DEST": "192.168.12.0/24",
            "RTA_GATEWAY": ["198.19.0.91"], "WEIGHT": ["1"], "DEVICE": "tun4"}]})");
        know_gateways();
    }

    void shape_lan(const std::string& downlink) {
        Json::Value document;
        corvo::parse_json(R"({"GROUPS": [{"PRIO": "1", "UPLINK_RATE": "2500000"}],
            "UPLINK": [{"PRIO": "1", "SIP": "192.168.11.0", "SMASK": "25"}],
            "DOWNLINK": [{"PRIO": "1", "DIP": "192.168.11.0", "DMASK": "25"}]})",
                          document);
        document["GROUPS"][0]["DOWNLINK_RATE"] = downlink;
        services->document("lan_qos.json", document);
    }
    static std::string routes6() { return run_line("ip -6 route show table 10001").out; }
    static std::string regional_routes() { return run_line("ip route show table 25000").out; }
    static std::string classes(const std::string& dev) { return run_line("tc class show dev " + dev).out; }
    static bool up() { return wait_for_links("up", "up", 60s); }
    static bool reload() { return corvoctl({"reload"}).status == 0; }
    // What a step that is done again would take away.
    static void mark() {
        must_run("tc class add dev eth5 parent 1: classid 1:998 htb rate 1kbit");
        must_run("tc class add dev swdev4 parent 1:1 classid 1:999 htb rate 1kbit");
    }
    static std::string failed() {
        Json::Value steps = daemon_state()["failed_steps"];
        for (const char* part : {"ipv4", "mptcp"}) steps.removeMember(std::string("presetup:") + part);
        return corvo::compact_json(steps);
    }
    // What the daemon says it did to this kind of thing.
    static std::vector<std::string> done_to(const std::string& kind) {
        std::vector<std::string> out;
        const Json::Value state = daemon_state();
        for (const auto& event : state["events"])
            if (event["text"].asString().starts_with(kind)) out.push_back(event["text"].asString());
        return out;
    }
};

TEST_F(EdgedLinks, BringsThemUpIsStartedAgainWithoutTouchingThemAndRemovesThemWhenToldTo) {
    const auto clean = kernel_state();
    std::vector<std::string> before;
    int tunnel6 = 0;
    int regional = 0;
    {
        Daemon daemon;
        ASSERT_TRUE(up()) << corvo::compact_json(daemon_state());
        EXPECT_EQ(failed(), "{}");
        EXPECT_EQ(ip_json("link show dev ip6tun1", "-d")[0]["linkinfo"]["info_kind"], "sit");
        EXPECT_THAT(run_line("ip -6 addr show dev ip6tun1").out, HasSubstr("::198.19.0.80/96"));
        EXPECT_THAT(run_line("ip -6 rule show").out, HasSubstr("lookup 10001"));
        EXPECT_THAT(routes6(), HasSubstr("2001:db8:21::/48 via ::198.19.0.160 dev ip6tun1"));
        EXPECT_EQ(index_of("ip6tun2"), 0);  // eth2 has no IPv6 address
        EXPECT_EQ(ip_json("link show dev tun4", "-d")[0]["linkinfo"]["info_data"]["local"], "10.210.0.11");
        EXPECT_THAT(run_line("ip addr show dev tun4").out, HasSubstr("198.19.0.83"));
        EXPECT_THAT(regional_routes(), HasSubstr("192.168.12.0/24 via 198.19.0.91 dev tun4"));
        EXPECT_THAT(classes("swdev4"), HasSubstr("ceil 100Mbit"));
        EXPECT_THAT(classes("eth5"), HasSubstr("40Mbit"));
        EXPECT_THAT(classes("ifb0"), HasSubstr("20Mbit"));
        EXPECT_THAT(run_line("tc filter show dev eth5 parent ffff:").out, HasSubstr("ifb0"));
        mark();
        before = kernel_state();
        tunnel6 = index_of("ip6tun1");
        regional = index_of("tun4");
        EXPECT_EQ(daemon.terminate(), 0);
    }
    Daemon daemon({.arguments = {"--clear-on-exit"}});
    ASSERT_TRUE(up());
    EXPECT_THAT(kernel_state(), ElementsAreArray(before));
    EXPECT_EQ(index_of("ip6tun1"), tunnel6);
    EXPECT_EQ(index_of("tun4"), regional);
    for (const char* kind : {"tun6:", "rglink:", "lan_qos", "qos:", "route:regional", "route:s2s6"})
        EXPECT_THAT(done_to(kind), IsEmpty());
    EXPECT_EQ(daemon.terminate(), 0);
    EXPECT_THAT(kernel_state(), ElementsAreArray(clean));
}

TEST_F(EdgedLinks, ChangesOnlyWhatNewDocumentsChange) {
    Daemon daemon;
    ASSERT_TRUE(up()) << corvo::compact_json(daemon_state());
    mark();
    const int tunnel = index_of("tun1");
    const int tunnel6 = index_of("ip6tun1");
    const int regional = index_of("tun4");

    shape_lan("10000000");
    ASSERT_TRUE(reload());
    EXPECT_THAT(classes("eth5"), AllOf(HasSubstr("80Mbit"), Not(HasSubstr("1:998"))));
    EXPECT_THAT(classes("swdev4"), HasSubstr("1:999"));

    // Another own address: the IPv6 tunnel is another one, and its routes are there again.
    must_run("ip addr add 2001:db8:1::12/64 dev eth1 nodad");
    wan("eth1")["IP6_ADDR"] = "2001:db8:1::12/64";
    publish();
    ASSERT_TRUE(reload());
    EXPECT_NE(index_of("ip6tun1"), tunnel6);
    EXPECT_EQ(index_of("tun1"), tunnel);
    EXPECT_EQ(index_of("tun4"), regional);
    EXPECT_THAT(routes6(), HasSubstr("2001:db8:21::/48 via ::198.19.0.160 dev ip6tun1"));
    EXPECT_THAT(classes("swdev4"), HasSubstr("1:999"));

    // The regional link, the LAN's shaping and the IPv6 tunnel go; the rest stays.
    device_info.removeMember("RGLINK_IFACE_INFO");
    wan("eth1")["IP6_ADDR"] = "";
    publish();
    for (const char* gone : {"lan_qos.json", "routes/regional.json", "routes/s2s6.json"})
        ASSERT_EQ(::unlink((std::string(kDocumentDir) + gone).c_str()), 0);
    ASSERT_TRUE(reload());
    EXPECT_EQ(index_of("tun4"), 0);
    EXPECT_EQ(index_of("ip6tun1"), 0);
    EXPECT_EQ(index_of("tun1"), tunnel);
    EXPECT_EQ(regional_routes(), "");
    EXPECT_THAT(run_line("ip -6 rule show").out, Not(HasSubstr("lookup 10001")));
    EXPECT_THAT(run_line("tc qdisc show").out,
                AllOf(Not(HasSubstr("htb 1: dev eth5")), Not(HasSubstr("htb 1: dev ifb0")),
                      Not(HasSubstr("ingress ffff: dev eth5")), HasSubstr("htb 1: dev eth1")));
    EXPECT_EQ(classes("swdev4"), "");
    EXPECT_EQ(failed(), "{}");
}

TEST_F(EdgedLinks, TellsOfALanPortThatIsMissingAndShapesADeviceThatCameBackAsAnother) {
    device_info["LAN_PORT"]["LAN2"]["INTERFACE"] = "eth6";
    publish();
    Daemon daemon;
    ASSERT_TRUE(up());
    EXPECT_EQ(failed(), R"({"lan_qos":-3005})");
    EXPECT_THAT(classes("eth5"), HasSubstr("40Mbit"));
    add_veth("eth6", gw2, "host6");
    ASSERT_TRUE(reload());
    EXPECT_EQ(failed(), "{}");
    EXPECT_THAT(classes("eth6"), HasSubstr("40Mbit"));

    // Without being told.
    for (const char* dev : {"swdev4", "eth6"}) must_run(std::string("ip link del ") + dev);
    add_veth("swdev4", gw1, "region2", {.address = "10.210.0.11/24"});
    add_veth("eth6", gw2, "host62");
    EXPECT_TRUE(wait_until([] { return classes("swdev4").find("ceil 100Mbit") != std::string::npos; }, 60s));
    EXPECT_TRUE(wait_until([] { return classes("eth6").find("40Mbit") != std::string::npos; }, 60s));
}

}  // namespace
