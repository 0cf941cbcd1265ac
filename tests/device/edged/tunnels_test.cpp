// A whole edge from its documents on a kernel that has all of it: tunnels, private link, routes, shaping.
#include <signal.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <regex>

#include "foundation/json.h"
#include "netns/edged/edge.h"
#include "support/kernel_feature.h"

using namespace corvo::test;
using namespace std::chrono_literals;
using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

namespace {

class EdgedTunnels : public EdgeTest {
protected:
    void SetUp() override {
        for (const char* feature : {"ipip-gue", "sit", "fou", "fq", "fw", "ifb"})
            REQUIRE_KERNEL_FEATURE(feature);
        add_veth("swdev3", gw1, "mpls", {.address = "10.200.0.11/24", .peer_address = "10.200.0.21/24"});
        ip_batch(
            {"link add ifb0 type ifb", "link set ifb0 up", "link add ifb1 type ifb", "link set ifb1 up"});
        wan("eth1")["RX_RATE"] = "100000000";
        corvo::parse_json(R"({"swdev3": {"ID": "3", "RX_RATE": "0", "TX_RATE": "100000000",
            "IP4_ADDR": "10.200.0.11/24", "PRIO": "3", "PRIVATE_GROUP_ID": "mpls-a"}})",
                          device_info["PRIVATE_IFACE_INFO"]);
        publish();
        services->document("qos.json", R"({"QOS": {"RATE": [40, 30, 20], "DEFAULT_CLASS": 3}})");
        services->document("site.json", read_file(EXAMPLE_DOCUMENTS "/site.json"));
        write_document("routes/s2s.json", R"({"del": [], "add": [{"SITE": "21", "DEST": "192.168.21.0/24",
            "RTA_GATEWAY": ["198.19.0.160"], "WEIGHT": ["1"]}]})");
        write_document("routes/default.json", R"({"del": [], "add": [{"SITE": "21", "DEST": "198.19.0.160/32",
            "RTA_GATEWAY": ["198.19.0.160"], "WEIGHT": ["1"]}]})");
        know_gateways();
    }

    static Json::Value link(const std::string& name) { return ip_json("link show dev " + name, "-d")[0]; }
    static int index(const std::string& name) { return index_of(name); }
    static std::string routes(int table) {
        return run_line("ip route show table " + std::to_string(table)).out;
    }
    // But for the preparation of the kernel, of which a namespace does not have all values.
    static std::string failed() {
        Json::Value steps = daemon_state()["failed_steps"];
        for (const char* part : {"ipv4", "mptcp"}) steps.removeMember(std::string("presetup:") + part);
        return corvo::compact_json(steps);
    }
    // Without the numbers that the kernel gives to filters' actions and tables: what was taken down gives its
    // own back only a moment later.
    static std::vector<std::string> numbered_alike(std::vector<std::string> lines) {
        static const std::regex kIndex("\tindex [0-9]+ ");
        static const std::regex kTable("\\b(fh|ht) 8[0-9a-f]{2}:?");
        for (auto& line : lines) {
            if (!line.starts_with("tc filter")) continue;
            line = std::regex_replace(line, kIndex, "\tindex N ");
            line = std::regex_replace(line, kTable, "$1 N");
        }
        return lines;
    }
    static bool up() { return wait_for_links("up", "up", 60s); }
    static bool reload() { return corvoctl({"reload"}).status == 0; }
};

TEST_F(EdgedTunnels, BringsUpTunnelsRoutesRulesAndShaping) {
    Daemon daemon;
    ASSERT_TRUE(up()) << corvo::compact_json(daemon_state());
    EXPECT_EQ(failed(), "{}");
    const Json::Value tun1 = link("tun1");
    EXPECT_EQ(tun1["linkinfo"]["info_kind"], "ipip");
    EXPECT_EQ(tun1["linkinfo"]["info_data"]["local"], "198.19.0.80");
    EXPECT_EQ(tun1["linkinfo"]["info_data"]["encap"]["dport"], 5555) << corvo::compact_json(tun1);
    EXPECT_EQ(link("tun3")["linkinfo"]["info_data"]["local"], "10.200.0.11");
    const std::string rules = run_line("ip rule show").out;
    EXPECT_THAT(rules,
                AllOf(HasSubstr("10001:\tfrom all fwmark 0x1/0xf lookup 10001"),
                      HasSubstr("20002:\tfrom 198.19.0.81 lookup 20002"), HasSubstr("oif tun2 lookup 20002"),
                      HasSubstr("30001:\tfrom all lookup 30001"), HasSubstr("fwmark 0x3/0xf")));
    EXPECT_THAT(routes(10001), HasSubstr("192.168.21.0/24 via 198.19.0.160 dev tun1"));
    EXPECT_THAT(routes(10002), HasSubstr("192.168.21.0/24 via 198.19.0.160 dev tun2"));
    // What the private link takes from the site document.
    EXPECT_THAT(routes(10000 + index("tun3")), HasSubstr("192.168.21.0/24 via 10.200.0.21 dev tun3"));
    EXPECT_THAT(routes(30000), HasSubstr("198.19.0.162 via 10.200.0.21 dev tun3"));
    EXPECT_THAT(run_line("tc class show dev eth1").out,
                HasSubstr("class htb 1:1 root rate 50Mbit ceil 50Mbit"));
    EXPECT_THAT(run_line("tc class show dev ifb0").out, HasSubstr("rate 100Mbit"));
    EXPECT_THAT(run_line("ip fou show").out, HasSubstr("port 5555 gue"));
}

TEST_F(EdgedTunnels, LeavesThemAndAdoptsThemUntouched) {
    std::vector<std::string> before;
    std::vector<int> indices;
    const std::vector<std::string> devices{"tun1", "tun2", "tun3"};
    {
        Daemon daemon;
        ASSERT_TRUE(up());
        before = kernel_state();
        for (const auto& dev : devices) indices.push_back(index(dev));
        EXPECT_EQ(daemon.terminate(), 0);
    }
    // Ending empties default tables in the library; they are filled again.
    EXPECT_THAT(routes(30001), HasSubstr("198.19.0.160"));
    EXPECT_THAT(routes(30000), HasSubstr("198.19.0.162"));
    Daemon daemon;
    ASSERT_TRUE(up());
    EXPECT_THAT(kernel_state(), ElementsAreArray(before));
    for (std::size_t i = 0; i < devices.size(); ++i) EXPECT_EQ(index(devices[i]), indices[i]) << devices[i];
    EXPECT_EQ(failed(), "{}");
}

TEST_F(EdgedTunnels, ReplacesOnlyWhatChanged) {
    Daemon daemon;
    ASSERT_TRUE(up());
    const int tun1 = index("tun1");
    const int tun2 = index("tun2");
    const int tun3 = index("tun3");
    // A handle of our own shows whether the tree of eth1 was built again.
    must_run("tc class add dev eth1 parent 1:1 classid 1:999 htb rate 1kbit");
    wan("eth2")["TUN_ADDR4"] = "198.19.0.89";
    wan("eth2")["TX_RATE"] = "30000000";
    publish();
    ASSERT_TRUE(reload());
    EXPECT_EQ(index("tun1"), tun1);
    EXPECT_EQ(index("tun3"), tun3);
    EXPECT_NE(index("tun2"), tun2);
    EXPECT_EQ(link("tun2")["linkinfo"]["info_data"]["local"], "198.19.0.89");
    EXPECT_THAT(routes(10002), HasSubstr("192.168.21.0/24"));
    EXPECT_THAT(run_line("tc class show dev eth1").out, HasSubstr("1:999"));
    EXPECT_THAT(run_line("tc class show dev eth2").out, HasSubstr("ceil 30Mbit"));

    // What a route document does not have any more goes, what is new comes.
    write_document("routes/s2s.json", R"({"del": [], "add": [{"SITE": "22", "DEST": "192.168.22.0/24",
        "RTA_GATEWAY": ["198.19.0.168"], "WEIGHT": ["1"]}]})");
    ASSERT_TRUE(reload());
    EXPECT_THAT(routes(10001), AllOf(HasSubstr("192.168.22.0/24"), Not(HasSubstr("192.168.21.0/24"))));

    // The private link goes, the WAN tunnels stay; then two links exchange their numbers.
    device_info.removeMember("PRIVATE_IFACE_INFO");
    publish();
    ASSERT_TRUE(reload());
    EXPECT_EQ(index("tun3"), 0);
    EXPECT_EQ(index("tun1"), tun1);
    EXPECT_THAT(run_line("ip rule show").out, Not(HasSubstr("fwmark 0x3/0xf")));
    EXPECT_THAT(run_line("tc qdisc show dev swdev3").out, Not(HasSubstr("htb")));
    wan("eth1")["ID"] = "2";
    wan("eth2")["ID"] = "1";
    publish();
    ASSERT_TRUE(reload());
    EXPECT_EQ(link("tun2")["linkinfo"]["info_data"]["local"], "198.19.0.80");
    EXPECT_EQ(link("tun1")["linkinfo"]["info_data"]["local"], "198.19.0.89");
    EXPECT_THAT(routes(10001), HasSubstr("192.168.22.0/24"));
    EXPECT_EQ(failed(), "{}");
}

TEST_F(EdgedTunnels, FillsDefaultTablesThatAReplacedMonitorEmptied) {
    gw2.ip({"addr add 198.51.100.2/24 dev gw"});
    Daemon daemon;
    ASSERT_TRUE(up());
    wan("eth2")["IP4_GW"] = "198.51.100.2";
    publish();
    ASSERT_TRUE(reload());
    ASSERT_TRUE(up());
    EXPECT_THAT(routes(30002), HasSubstr("198.19.0.160"));
    EXPECT_THAT(routes(30000), HasSubstr("198.19.0.162"));
}

TEST_F(EdgedTunnels, FollowsTheSitesThatPrivateLinksReach) {
    Daemon daemon;
    ASSERT_TRUE(up());
    const int private_table = 10000 + index("tun3");
    // Site 22 is of another domain.
    ASSERT_THAT(routes(25000), HasSubstr("192.168.22.0/24"));
    ASSERT_THAT(routes(private_table), HasSubstr("192.168.12.0/24"));
    Json::Value site;
    ASSERT_TRUE(corvo::parse_json(read_file(EXAMPLE_DOCUMENTS "/site.json"), site));
    // Another hub is no reason to touch a route.
    must_run("ip route add 192.0.2.77/32 dev tun3 table " + std::to_string(private_table));
    site["SITE_INFO"]["11"]["HUB"] = "22";
    services->document("site.json", site);
    ASSERT_TRUE(reload());
    EXPECT_THAT(routes(private_table), HasSubstr("192.0.2.77"));
    EXPECT_TRUE(wait_until([] { return daemon_state()["hub"] == "22"; }, 20s));

    for (const char* gone : {"12", "22"}) site["SITE_INFO"].removeMember(gone);
    site["SITE_INFO"]["11"]["HUB"] = "21";
    site["SITE_INFO"]["11"]["HUBS"] = Json::Value(Json::arrayValue);
    services->document("site.json", site);
    ASSERT_TRUE(reload());
    EXPECT_THAT(routes(25000), Not(HasSubstr("192.168.22.0/24")));
    EXPECT_THAT(routes(private_table),
                AllOf(HasSubstr("192.168.21.0/24"), Not(HasSubstr("192.168.12.0/24"))));
    EXPECT_THAT(routes(30000), AllOf(HasSubstr("198.19.0.162"), Not(HasSubstr("198.19.0.90"))));
}

TEST_F(EdgedTunnels, RemovesThemWhenToldTo) {
    const auto clean = kernel_state();
    Daemon daemon({.arguments = {"--clear-on-exit"}});
    ASSERT_TRUE(up());
    EXPECT_EQ(daemon.terminate(), 0);
    EXPECT_THAT(kernel_state(), ElementsAreArray(clean));
    EXPECT_EQ(run_line("ip fou show").out, "");
}

TEST_F(EdgedTunnels, KilledAtAnyMomentOfTheBringUpAndStartedAgainEndsTheSame) {
    std::vector<std::string> wanted;
    {
        Daemon daemon;
        ASSERT_TRUE(up());
        wanted = numbered_alike(kernel_state());
    }
    const char* kills = ::getenv("CORVO_KILLS");
    std::mt19937 random{std::random_device()()};
    for (int i = 0; i < (kills != nullptr ? std::atoi(kills) : 2); ++i) {
        {
            Daemon daemon({.arguments = {"--clear-on-exit"}});
            ASSERT_TRUE(up());
            ASSERT_EQ(daemon.terminate(), 0);
        }
        const std::chrono::milliseconds when(std::uniform_int_distribution<int>(100, 6000)(random));
        SCOPED_TRACE("killed after " + std::to_string(when.count()) + " ms");
        std::printf("killed after %ld ms\n", static_cast<long>(when.count()));
        {
            Daemon daemon;
            wait_until([] { return false; }, when);
        }
        Daemon daemon;
        ASSERT_TRUE(up()) << corvo::compact_json(daemon_state());
        EXPECT_THAT(numbered_alike(kernel_state()), ElementsAreArray(wanted));
    }
}

}  // namespace
