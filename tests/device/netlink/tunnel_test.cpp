// Tunnel devices, dummy devices and the FOU port on a kernel that has their drivers.

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/if.h>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <sys/socket.h>
#include <unistd.h>

#include "corvosetup/link.h"
#include "foundation/fd.h"
#include "foundation/text.h"
#include "support/kernel_feature.h"
#include "support/sandbox.h"

namespace {

using namespace corvo::test;

ipip_conf ipip(const std::string& name = "tun5") {
    ipip_conf conf{};
    corvo::copy_text(conf.name, name);
    corvo::copy_text(conf.local, "192.0.2.1");
    corvo::copy_text(conf.remote, "192.0.2.2");
    conf.dport = 5555;
    return conf;
}

sit_conf sit() {
    sit_conf conf{};
    corvo::copy_text(conf.name, "sit5");
    corvo::copy_text(conf.local, "192.0.2.1");
    corvo::copy_text(conf.remote, "192.0.2.2");
    conf.ttl = 64;
    return conf;
}

Json::Value details(const std::string& name) {
    return ip_json("link show dev " + name, "-d")[0];
}

class Tunnels : public testing::Test {
protected:
    LeakCheck leaks_;
};

TEST_F(Tunnels, IpipCarriesGueAndItsFixedMtu) {
    REQUIRE_KERNEL_FEATURE("ipip-gue");
    ipip_conf conf = ipip();
    conf.queues = 3;
    ASSERT_EQ(edit_ipip_tunnel(0, &conf), 0);
    const Json::Value link = details("tun5");
    EXPECT_EQ(link["mtu"].asInt(), 1300);
    EXPECT_EQ(link["num_tx_queues"].asInt(), 3);
    EXPECT_EQ(link["num_rx_queues"].asInt(), 3);
    const Json::Value data = link["linkinfo"]["info_data"];
    EXPECT_EQ(link["linkinfo"]["info_kind"].asString(), "ipip");
    EXPECT_EQ(data["local"].asString(), "192.0.2.1");
    EXPECT_EQ(data["remote"].asString(), "192.0.2.2");
    EXPECT_EQ(data["encap"]["type"].asString(), "gue");
    EXPECT_EQ(data["encap"]["dport"].asInt(), 5555);
    EXPECT_EQ(edit_ipip_tunnel(1, &conf), 0);
    EXPECT_EQ(index_of("tun5"), 0);
    EXPECT_EQ(edit_ipip_tunnel(1, &conf), -3011);
}

TEST_F(Tunnels, TtlZeroSwitchesPathMtuDiscoveryOffAndAnotherDoesNot) {
    REQUIRE_KERNEL_FEATURE("ipip-gue");
    ipip_conf inherit = ipip("tun5");
    ASSERT_EQ(edit_ipip_tunnel(0, &inherit), 0);
    ipip_conf fixed = ipip("tun6");
    corvo::copy_text(fixed.remote, "192.0.2.3");
    fixed.ttl = 64;
    ASSERT_EQ(edit_ipip_tunnel(0, &fixed), 0);
    EXPECT_FALSE(details("tun5")["linkinfo"]["info_data"]["pmtudisc"].asBool());
    EXPECT_TRUE(details("tun6")["linkinfo"]["info_data"]["pmtudisc"].asBool());
    EXPECT_EQ(details("tun6")["linkinfo"]["info_data"]["ttl"].asInt(), 64);
}

TEST_F(Tunnels, CreationIsExclusive) {
    REQUIRE_KERNEL_FEATURE("ipip-gue");
    ipip_conf conf = ipip();
    ASSERT_EQ(edit_ipip_tunnel(0, &conf), 0);
    corvo::copy_text(conf.remote, "192.0.2.9");
    EXPECT_EQ(edit_ipip_tunnel(0, &conf), -3011);
    EXPECT_EQ(details("tun5")["linkinfo"]["info_data"]["remote"].asString(), "192.0.2.2");
}

// With 0.0.0.0 it would be the driver's fallback device, and be refused.
TEST_F(Tunnels, UnreadableLocalAddressCreatesADeviceThatIsDown) {
    REQUIRE_KERNEL_FEATURE("ipip-gue");
    ipip_conf conf = ipip();
    corvo::copy_text(conf.local, "");
    EXPECT_EQ(edit_ipip_tunnel(0, &conf), 0);
    unsigned flags = IFF_UP;
    EXPECT_EQ(get_dev_flags(index_of("tun5"), &flags), 0);
    EXPECT_EQ(flags & IFF_UP, 0U);
    corvo::copy_text(conf.name, "tun6");
    corvo::copy_text(conf.remote, "");
    EXPECT_EQ(edit_ipip_tunnel(0, &conf), 0);
    EXPECT_GT(index_of("tun6"), 0);
}

TEST_F(Tunnels, SitHasNoEncapsulation) {
    REQUIRE_KERNEL_FEATURE("sit");
    sit_conf conf = sit();
    conf.queues = 2;
    ASSERT_EQ(edit_sit_tunnel(0, &conf), 0);
    const Json::Value link = details("sit5");
    EXPECT_EQ(link["mtu"].asInt(), 1300);
    EXPECT_EQ(link["num_tx_queues"].asInt(), 2);
    EXPECT_EQ(link["linkinfo"]["info_kind"].asString(), "sit");
    EXPECT_EQ(link["linkinfo"]["info_data"]["remote"].asString(), "192.0.2.2");
    EXPECT_EQ(link["linkinfo"]["info_data"]["ttl"].asInt(), 64);
    EXPECT_FALSE(link["linkinfo"]["info_data"].isMember("encap"));
    EXPECT_EQ(edit_sit_tunnel(0, &conf), -3011);
    EXPECT_EQ(edit_sit_tunnel(1, &conf), 0);
    EXPECT_EQ(index_of("sit5"), 0);
}

TEST_F(Tunnels, DummyIsCreatedAndDeleted) {
    REQUIRE_KERNEL_FEATURE("dummy");
    ASSERT_EQ(edit_dummy(0, "dum0", 3), 0);
    EXPECT_EQ(details("dum0")["linkinfo"]["info_kind"].asString(), "dummy");
    EXPECT_EQ(details("dum0")["num_tx_queues"].asInt(), 3);
    EXPECT_EQ(edit_dummy(0, "dum0", 3), 0);
    EXPECT_EQ(edit_dummy(1, "dum0", 0), 0);
    EXPECT_EQ(edit_dummy(1, "dum0", 0), -3011);
}

TEST_F(Tunnels, FouPortIsOpenedAndClosed) {
    REQUIRE_KERNEL_FEATURE("fou");
    EXPECT_EQ(edit_fou(0), 0);
    const std::string open = must_run("ip fou show");
    EXPECT_NE(open.find("port 5555 gue"), std::string::npos) << open;
    EXPECT_EQ(edit_fou(0), 0);
    EXPECT_EQ(edit_fou(2), 0);
    EXPECT_EQ(edit_fou(1), 0);
    EXPECT_EQ(must_run("ip fou show").find("5555"), std::string::npos);
}

// An echo request and its answer, both as GUE packets over UDP port 5555 between two machines.
TEST_F(Tunnels, GuePacketsArriveOnPort5555) {
    REQUIRE_KERNEL_FEATURE("ipip-gue");
    REQUIRE_KERNEL_FEATURE("fou");
    Netns peer("peer");
    add_veth("v0", peer, "v1", {.address = "192.0.2.1/24", .peer_address = "192.0.2.2/24"});
    ASSERT_EQ(edit_fou(0), 0);
    ipip_conf here = ipip();
    ASSERT_EQ(edit_ipip_tunnel(0, &here), 0);
    ASSERT_EQ(set_ipv4_addr(index_of("tun5"), "10.9.0.1/30"), 0);
    ASSERT_EQ(set_dev_flags(index_of("tun5"), IFF_UP), 0);
    peer.run([] {
        EXPECT_EQ(edit_fou(0), 0);
        ipip_conf there = ipip();
        corvo::copy_text(there.local, "192.0.2.2");
        corvo::copy_text(there.remote, "192.0.2.1");
        EXPECT_EQ(edit_ipip_tunnel(0, &there), 0);
        EXPECT_EQ(set_ipv4_addr(index_of("tun5"), "10.9.0.2/30"), 0);
        EXPECT_EQ(set_dev_flags(index_of("tun5"), IFF_UP), 0);
    });
    // What the wire carries, seen beside the kernel.
    corvo::UniqueFd wire(::socket(AF_PACKET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, htons(ETH_P_IP)));
    sockaddr_ll at{};
    at.sll_family = AF_PACKET;
    at.sll_protocol = htons(ETH_P_IP);
    at.sll_ifindex = index_of("v0");
    ASSERT_EQ(::bind(wire.get(), reinterpret_cast<sockaddr*>(&at), sizeof at), 0);
    EXPECT_TRUE(wait_until([] { return run_line("ping -c 1 -W 2 10.9.0.2").ok(); }));
    int to_5555 = 0;
    std::uint8_t packet[2048];
    for (ssize_t got; (got = ::recv(wire.get(), packet, sizeof packet, 0)) > 0;) {
        const bool udp = got > 28 && packet[9] == IPPROTO_UDP;
        if (udp && packet[22] == 5555 / 256 && packet[23] == 5555 % 256) ++to_5555;
    }
    EXPECT_GE(to_5555, 1);
}

}  // namespace
