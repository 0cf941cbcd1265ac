// Tunnel devices of every kind on a kernel that has them, with traffic between two sites.
//
// The test's namespace is site A, "siteb" is site B; wan0 and wan1 join them. The tunnel addresses of B are
// reached over the WANs by host routes.
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include "corvosetup/link.h"
#include "corvosetup/privatelink.h"
#include "corvosetup/rglink.h"
#include "corvosetup/tun.h"
#include "corvosetup/tun6.h"
#include "foundation/json.h"
#include "support/kernel_feature.h"
#include "support/sandbox.h"
#include "support/services.h"

using namespace corvo::test;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

struct Endpoint {
    sockaddr_storage address{};
    socklen_t length = 0;
};

Endpoint endpoint(const std::string& ip, int port) {
    Endpoint end;
    if (ip.find(':') != std::string::npos) {
        auto& in6 = reinterpret_cast<sockaddr_in6&>(end.address);
        in6.sin6_family = AF_INET6;
        in6.sin6_port = htons(static_cast<std::uint16_t>(port));
        inet_pton(AF_INET6, ip.c_str(), &in6.sin6_addr);
        end.length = sizeof in6;
    } else {
        auto& in = reinterpret_cast<sockaddr_in&>(end.address);
        in.sin_family = AF_INET;
        in.sin_port = htons(static_cast<std::uint16_t>(port));
        inet_pton(AF_INET, ip.c_str(), &in.sin_addr);
        end.length = sizeof in;
    }
    return end;
}

// A socket at `ip`:`port` in the namespace of the calling thread, whose packets carry `mark`.
corvo::UniqueFd udp_socket(const std::string& ip, int port, int mark = 0) {
    const Endpoint end = endpoint(ip, port);
    corvo::UniqueFd fd(::socket(end.address.ss_family, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const timeval limit{3, 0};
    ::setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    if (mark != 0) ::setsockopt(fd.get(), SOL_SOCKET, SO_MARK, &mark, sizeof mark);
    EXPECT_EQ(::bind(fd.get(), reinterpret_cast<const sockaddr*>(&end.address), end.length), 0) << ip;
    return fd;
}

bool send_to(const corvo::UniqueFd& from, const std::string& ip, int port) {
    const Endpoint end = endpoint(ip, port);
    return ::sendto(from.get(), "x", 1, 0, reinterpret_cast<const sockaddr*>(&end.address), end.length) == 1;
}

bool arrives(const corvo::UniqueFd& at) {
    char byte = 0;
    return ::recv(at.get(), &byte, 1, 0) == 1;
}

unsigned long sent_by(const std::string& dev) {
    return std::stoul(read_file("/sys/class/net/" + dev + "/statistics/tx_packets"));
}

// All that a link could leave behind: devices, addresses, rules and routes, in both families.
std::string kernel_state() {
    std::string text;
    for (const char* line : {"ip -o link show", "ip -o addr show", "ip rule show", "ip -6 rule show",
                             "ip route show table all", "ip -6 route show table all"}) {
        text += run_line(line).out;
    }
    return text;
}

class Sites : public testing::Test {
protected:
    void SetUp() override {
        for (const char* feature : {"ipip-gue", "sit", "fou", "veth"}) REQUIRE_KERNEL_FEATURE(feature);
        services_ = std::make_unique<Services>();
        services_->fault("vesta.read_json", R"({"kind": "error", "value": -1})");
        siteb_ = std::make_unique<Netns>("siteb");
        quiet();
        siteb_->run([] { quiet(); });
        add_veth("wan0", *siteb_, "wan0", {.address = "192.0.2.1/24", .peer_address = "192.0.2.2/24"});
        add_veth("wan1", *siteb_, "wan1", {.address = "198.51.100.1/24", .peer_address = "198.51.100.2/24"});
        must_run("ip addr add 10.1.0.1/32 dev lo");
        must_run("ip -6 addr add fd00:1::1/128 dev lo");
        siteb_->ip({"addr add 10.2.0.1/32 dev lo", "addr add fd00:2::1/128 dev lo"});
        ip_batch({"route add 198.19.0.2/32 via 192.0.2.2 dev wan0 src 192.0.2.1",
                  "route add 198.19.0.10/32 via 198.51.100.2 dev wan1 src 198.51.100.1"});
        siteb_->ip({"route add 198.19.0.1/32 via 192.0.2.1 dev wan0",
                    "route add 198.19.0.9/32 via 198.51.100.1 dev wan1"});
        as_a();
    }

    // Nothing in these namespaces speaks by itself, and answers may come another way.
    static void quiet() {
        for (const char* group : {"all", "default"}) {
            write_file(std::string("/proc/sys/net/ipv4/conf/") + group + "/rp_filter", "0");
            write_file(std::string("/proc/sys/net/ipv6/conf/") + group + "/accept_dad", "0");
        }
    }

    void device_id(int id) {
        Json::Value reply;
        reply["error"] = 0;
        reply["data"] = id;
        services_->answer("vesta.get_devid", reply);
    }
    void list(const std::string& method, const std::string& elements) {
        Json::Value reply;
        corvo::parse_json(R"({"error": 0, "data": [)" + elements + "]}", reply);
        services_->answer("TarnService." + method, reply);
    }
    void wans(const std::string& elements) { list("Get_available_wan_info", elements); }

    // Whose device the services speak for.
    void as_a() {
        device_id(7);
        wans(R"({"ifname": "w0", "slave": "wan0", "id": 1, "tun_addr": "198.19.0.1", "ip6_addr": "x"},
                {"ifname": "w1", "slave": "wan1", "id": 2, "tun_addr": "198.19.0.9", "ip6_addr": "x"})");
    }
    void as_b() {
        device_id(8);
        wans(R"({"ifname": "w0", "slave": "wan0", "id": 1, "tun_addr": "198.19.0.2", "ip6_addr": "x"},
                {"ifname": "w1", "slave": "wan1", "id": 2, "tun_addr": "198.19.0.10", "ip6_addr": "x"})");
    }
    void at_b(const std::function<void()>& body) {
        as_b();
        siteb_->run(body);
        as_a();
    }

    static int tunnels(int op, const std::string& ifname = "all") {
        std::string source = "/etc/networkmanagement/device_info.json";
        return setup_tun(op, ifname, source, 1);
    }
    static int tunnels6(int op) {
        std::string source = "/etc/networkmanagement/device_info.json";
        return setup_tun6(op, "all", source, 1);
    }
    static int route(std::string ifname, std::string type, const std::string& dest,
                     const std::string& gateway) {
        std::string conf = write_document("routes.json", R"({"add": [{"SITE": "2", "DEST": ")" + dest +
                                                             R"(", "RTA_GATEWAY": [")" + gateway + "\"]}]}");
        return setup_tun_route(ifname, type, conf);
    }
    // Lets site B receive.
    void open_gue_port() const {
        siteb_->run([] { edit_fou(0); });
    }

    // What site B looks like, for the message of a test whose packet did not arrive there.
    std::string site_b() const {
        std::string text;
        for (const char* line :
             {"ip fou show", "ip -d -s link show", "ip rule show", "ip route show table all",
              "cat /proc/net/snmp", "sysctl -a --pattern rp_filter"}) {
            text += siteb_->tool(line).out;
        }
        return text;
    }

    static std::vector<std::string> errors() {
        std::vector<std::string> texts;
        for (const std::string& text : log_texts()) {
            if (text.starts_with("[ERROR]") && text.find("VXservice") == std::string::npos)
                texts.push_back(text);
        }
        return texts;
    }

    std::unique_ptr<Services> services_;
    std::unique_ptr<Netns> siteb_;
};

TEST_F(Sites, Ipv4TunnelIsCreatedAddressedUpAndRuled) {
    ASSERT_EQ(tunnels(0, "w0"), 0);
    EXPECT_THAT(errors(), IsEmpty());
    const Json::Value link = ip_json("link show dev tun1", "-d")[0];
    EXPECT_EQ(link["mtu"], 1300);
    EXPECT_EQ(link["num_tx_queues"], 1);
    const Json::Value& info = link["linkinfo"];
    EXPECT_EQ(info["info_kind"], "ipip");
    EXPECT_EQ(info["info_data"]["local"], "198.19.0.1");
    EXPECT_EQ(info["info_data"]["remote"], "any");
    EXPECT_EQ(info["info_data"]["encap"]["type"], "gue");
    EXPECT_EQ(info["info_data"]["encap"]["dport"], 5555);
    EXPECT_EQ(info["info_data"]["pmtudisc"], false);
    EXPECT_THAT(run_line("ip -o link show dev tun1").out, HasSubstr(",UP"));
    EXPECT_THAT(run_line("ip -o addr show dev tun1").out, HasSubstr("inet 198.19.0.1/32 "));
    EXPECT_THAT(read_file("/proc/sys/net/ipv4/neigh/tun1/mcast_solicit"), "0\n");
    EXPECT_THAT(run_line("ip rule show").out, HasSubstr("from all fwmark 0x1/0xf lookup 10001"));
}

TEST_F(Sites, DeletionLeavesNothingBehind) {
    const std::string before = kernel_state();
    ASSERT_EQ(tunnels(0), 0);
    ASSERT_EQ(tunnels6(0), 0);
    ASSERT_EQ(route("all", "s2s", "10.2.0.0/16", "198.19.0.2"), 0);
    ASSERT_EQ(route("all", "default", "default", "198.19.0.2"), 0);
    EXPECT_NE(kernel_state(), before);
    EXPECT_EQ(tunnels6(1), 0);
    EXPECT_EQ(tunnels(1), 0);
    EXPECT_THAT(errors(), IsEmpty());
    EXPECT_EQ(kernel_state(), before);
    EXPECT_EQ(tunnels(1), 0);
    EXPECT_THAT(log_texts(), Contains("[WARNING] Tunnel tun1 does not exist."));
}

TEST_F(Sites, CreatingATunnelTwiceIsRefusedByTheKernel) {
    ASSERT_EQ(tunnels(0, "w0"), 0);
    clear_log();
    EXPECT_EQ(tunnels(0, "w0"), 0);
    EXPECT_THAT(errors(), ElementsAre("[ERROR] edit_ipip_tunnel(): tun1 failed."));
}

TEST_F(Sites, TunnelWithoutAValidAddressExistsAndStaysDown) {
    wans(R"({"ifname": "w0", "slave": "wan0", "id": 1, "tun_addr": "10.0.0.999"})");
    EXPECT_EQ(tunnels(0, "w0"), 0);
    EXPECT_THAT(errors(), ElementsAre("[ERROR] setup_tun_ipv4(): tun1 failed, Ret: -3007"));
    EXPECT_GT(index_of("tun1"), 0);
    EXPECT_THAT(run_line("ip -o link show dev tun1").out, testing::Not(HasSubstr("UP")));
    EXPECT_THAT(run_line("ip -o addr show dev tun1").out, testing::Not(HasSubstr("inet ")));
    EXPECT_EQ(tunnels(1, "w0"), 0);
    EXPECT_EQ(index_of("tun1"), 0);
}

TEST_F(Sites, EntryWithoutASlaveCreatesNoStrayDevice) {
    const std::string before = kernel_state();
    wans(R"({"ifname": "w0", "id": 1, "tun_addr": "198.19.0.1"})");
    EXPECT_EQ(tunnels(0, "w0"), 0);
    EXPECT_THAT(errors(), ElementsAre("[ERROR] edit_ipip_tunnel():  failed."));
    EXPECT_EQ(kernel_state(), before);
}

TEST_F(Sites, MarkedPacketsLeaveByTheirTunnelAndArriveThroughGue) {
    ASSERT_EQ(tunnels(0), 0);
    ASSERT_EQ(route("w0", "s2s", "10.2.0.0/16", "198.19.0.2"), 0);
    ASSERT_EQ(route("w1", "s2s", "10.2.0.0/16", "198.19.0.10"), 0);
    at_b([] {
        EXPECT_EQ(tunnels(0), 0);
        write_file("/proc/sys/net/ipv4/conf/tun1/rp_filter", "0");
        write_file("/proc/sys/net/ipv4/conf/tun2/rp_filter", "0");
    });
    EXPECT_THAT(errors(), IsEmpty());
    corvo::UniqueFd at;
    siteb_->run([&] { at = udp_socket("10.2.0.1", 7000); });
    const corvo::UniqueFd one = udp_socket("10.1.0.1", 7001, 1);
    const corvo::UniqueFd two = udp_socket("10.1.0.1", 7002, 2);

    // Without the port that receives it, nothing gets out of the encapsulation.
    ASSERT_TRUE(send_to(one, "10.2.0.1", 7000));
    EXPECT_FALSE(arrives(at));
    open_gue_port();

    unsigned long tun1 = sent_by("tun1");
    unsigned long tun2 = sent_by("tun2");
    for (int i = 0; i < 20; ++i) {
        ASSERT_TRUE(send_to(one, "10.2.0.1", 7000));
        ASSERT_TRUE(arrives(at)) << site_b();
    }
    EXPECT_EQ(sent_by("tun1") - tun1, 20u);
    EXPECT_EQ(sent_by("tun2") - tun2, 0u);
    tun1 = sent_by("tun1");
    for (int i = 0; i < 20; ++i) {
        ASSERT_TRUE(send_to(two, "10.2.0.1", 7000));
        ASSERT_TRUE(arrives(at)) << site_b();
    }
    EXPECT_EQ(sent_by("tun1") - tun1, 0u);
    EXPECT_EQ(sent_by("tun2") - tun2, 20u);
}

TEST_F(Sites, SourceAddressChoosesTheTunnelOfMptcpSubflows) {
    ASSERT_EQ(tunnels(0), 0);
    ASSERT_EQ(route("w0", "mptcp", "10.2.0.0/16", "198.19.0.2"), 0);
    ASSERT_EQ(route("w1", "mptcp", "10.2.0.0/16", "198.19.0.10"), 0);
    const corvo::UniqueFd one = udp_socket("198.19.0.1", 7001);
    const corvo::UniqueFd two = udp_socket("198.19.0.9", 7002);
    const unsigned long tun1 = sent_by("tun1");
    const unsigned long tun2 = sent_by("tun2");
    for (int i = 0; i < 20; ++i) ASSERT_TRUE(send_to(one, "10.2.0.1", 7000));
    for (int i = 0; i < 30; ++i) ASSERT_TRUE(send_to(two, "10.2.0.1", 7000));
    EXPECT_EQ(sent_by("tun1") - tun1, 20u);
    EXPECT_EQ(sent_by("tun2") - tun2, 30u);
}

TEST_F(Sites, TunnelRouteSpreadsFlowsOverItsGatewaysByWeight) {
    write_file("/proc/sys/net/ipv4/fib_multipath_hash_policy", "1");
    ASSERT_EQ(tunnels(0, "w0"), 0);
    std::string ifname = "w0", type = "default";
    std::string conf = write_document("routes.json", R"({"add": [{"SITE": "2", "DEST": "default",
        "RTA_GATEWAY": ["198.19.0.2", "198.19.0.10"], "WEIGHT": ["3", "1"]}]})");
    ASSERT_EQ(setup_tun_route(ifname, type, conf), 0);
    // The default table catches the encapsulated packets too, unless what carries them is found first.
    must_run("ip rule add prio 100 to 198.19.0.0/16 lookup main");
    for (const char* words :
         {"192.0.2.2 lladdr 02:00:00:00:00:02 dev wan0", "198.51.100.2 lladdr 02:00:00:00:00:02 dev wan1"}) {
        must_run(std::string("ip neigh replace ") + words);
    }
    int port = 2000;
    const auto share = [&](int flows) {
        const unsigned long wan0 = sent_by("wan0");
        const unsigned long wan1 = sent_by("wan1");
        for (int i = 0; i < flows; ++i) {
            const corvo::UniqueFd flow = udp_socket("10.1.0.1", port++);
            EXPECT_TRUE(send_to(flow, "203.0.113.9", 9));
        }
        const double first = static_cast<double>(sent_by("wan0") - wan0);
        return 100.0 * first / (first + static_cast<double>(sent_by("wan1") - wan1));
    };
    double measured = share(2000);
    // The kernel's hash is seeded anew for every namespace: a bad draw of 2,000 is drawn again, larger.
    if (std::abs(measured - 75) > 3) measured = share(20000);
    EXPECT_NEAR(measured, 75, 3);
}

TEST_F(Sites, SitTunnelCarriesIpv6BetweenTheSites) {
    // The outer source is the address that the IPv4 tunnel brings.
    ASSERT_EQ(tunnels(0), 0);
    ASSERT_EQ(tunnels6(0), 0);
    at_b([] {
        EXPECT_EQ(tunnels(0), 0);
        EXPECT_EQ(tunnels6(0), 0);
    });
    EXPECT_THAT(errors(), IsEmpty());
    const Json::Value link = ip_json("link show dev ip6tun1", "-d")[0];
    EXPECT_EQ(link["mtu"], 1300);
    EXPECT_EQ(link["linkinfo"]["info_kind"], "sit");
    EXPECT_EQ(link["linkinfo"]["info_data"]["local"], "198.19.0.1");
    EXPECT_THAT(run_line("ip -o link show dev ip6tun1").out, HasSubstr(",UP"));
    EXPECT_THAT(run_line("ip -o -6 addr show dev ip6tun1").out, HasSubstr("inet6 ::198.19.0.1/96 "));
    EXPECT_THAT(run_line("ip -6 rule show").out, HasSubstr("from ::198.19.0.1 lookup 20001"));

    std::string type = "s2s6";
    std::string conf = write_document("routes6.json", R"({"add": [{"SITE": "2", "DEST": "fd00:2::/32",
        "RTA_GATEWAY": ["::198.19.0.2"]}]})");
    wans(R"({"ifname": "w0", "slave": "wan0", "id": 1, "tun_addr": "198.19.0.1", "ip6_addr": "x"})");
    ASSERT_EQ(setup_tun_route6(type, conf), 0);
    corvo::UniqueFd at;
    siteb_->run([&] { at = udp_socket("fd00:2::1", 7000); });
    const corvo::UniqueFd from = udp_socket("fd00:1::1", 7001, 1);
    const unsigned long sent = sent_by("ip6tun1");
    ASSERT_TRUE(send_to(from, "fd00:2::1", 7000));
    EXPECT_TRUE(arrives(at)) << site_b();
    EXPECT_EQ(sent_by("ip6tun1") - sent, 1u);
}

constexpr const char* kSites = R"({"SITE_INFO": {
    "7": {"LAN": ["10.1.0.0/16"],
          "PRIVATE1": {"PRIVATE_GROUP_ID": "g", "PRIVATE_ADDR4": "10.9.0.1", "PRIVATE_TUN_ADDR4": "198.19.0.48"}},
    "8": {"LAN": ["10.2.0.0/16"],
          "PRIVATE1": {"PRIVATE_GROUP_ID": "g", "PRIVATE_ADDR4": "10.9.0.2", "PRIVATE_TUN_ADDR4": "198.19.0.56"}}}})";

TEST_F(Sites, PrivateLinkCarriesTrafficOverTheRoutesOfTheSiteDocument) {
    add_veth("swdev1", *siteb_, "swdev1", {.address = "10.9.0.1/24", .peer_address = "10.9.0.2/24"});
    write_document("site.json", kSites);
    list(
        "Get_available_private_info",
        R"({"ifname": "lan1", "slave": "swdev1", "ip4_addr": "0.0.0.0", "prio": 50, "private_group_id": "g"})");
    const std::string before = kernel_state();
    std::string source = "/etc/networkmanagement/device_info.json";
    ASSERT_EQ(setup_private(0, "all", source), 0);
    at_b([&] { EXPECT_EQ(setup_private(0, "all", source), 0); });
    open_gue_port();
    EXPECT_THAT(errors(), IsEmpty());
    const Json::Value link = ip_json("link show dev tun1", "-d")[0];
    EXPECT_EQ(link["linkinfo"]["info_data"]["local"], "10.9.0.1");
    EXPECT_THAT(run_line("ip -o addr show dev tun1").out, HasSubstr("inet 198.19.0.48/32 "));

    corvo::UniqueFd at;
    siteb_->run([&] { at = udp_socket("10.2.0.1", 7000); });
    const corvo::UniqueFd from = udp_socket("10.1.0.1", 7001, 1);
    const unsigned long sent = sent_by("tun1");
    ASSERT_TRUE(send_to(from, "10.2.0.1", 7000));
    EXPECT_TRUE(arrives(at)) << site_b();
    EXPECT_EQ(sent_by("tun1") - sent, 1u);

    EXPECT_EQ(setup_private(1, "all", source), 0);
    EXPECT_EQ(kernel_state(), before);
}

TEST_F(Sites, RegionalLinkCarriesTrafficOverTheSharedTable) {
    add_veth("swdev2", *siteb_, "swdev2", {.address = "10.9.0.1/24", .peer_address = "10.9.0.2/24"});
    list("Get_available_rglink_info", R"({"ifname": "rg", "slave": "swdev2", "ip4_addr": "0.0.0.0"})");
    const std::string before = kernel_state();
    std::string source = "/etc/networkmanagement/device_info.json";
    ASSERT_EQ(setup_rglink(0, "all", source), 0);
    at_b([&] { EXPECT_EQ(setup_rglink(0, "all", source), 0); });
    open_gue_port();
    std::string type = "regional";
    std::string conf = write_document("regional.json", R"({"add": [{"SITE": "8", "DEST": "10.2.0.0/16",
        "RTA_GATEWAY": ["10.9.0.2"], "DEVICE": "tun2"}]})");
    ASSERT_EQ(setup_regional_route(type, conf), 0);
    EXPECT_THAT(errors(), IsEmpty());
    EXPECT_THAT(run_line("ip -o link show dev tun2").out, HasSubstr(",UP"));
    // Packets are sent to the shared table by whoever wants them there.
    must_run("ip rule add prio 25000 fwmark 0x9 lookup 25000");

    corvo::UniqueFd at;
    siteb_->run([&] { at = udp_socket("10.2.0.1", 7000); });
    const corvo::UniqueFd from = udp_socket("10.1.0.1", 7001, 9);
    const unsigned long sent = sent_by("tun2");
    ASSERT_TRUE(send_to(from, "10.2.0.1", 7000));
    EXPECT_TRUE(arrives(at)) << site_b();
    EXPECT_EQ(sent_by("tun2") - sent, 1u);

    must_run("ip rule del prio 25000");
    EXPECT_EQ(setup_rglink(1, "all", source), 0);
    EXPECT_EQ(kernel_state(), before);
}

}  // namespace
