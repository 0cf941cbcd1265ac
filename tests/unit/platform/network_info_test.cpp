// What the network information service makes of a device-information document.

#include "network_info.h"

#include <gtest/gtest.h>

#include "foundation/json.h"
#include "support/files.h"

namespace {

using standin::LinkKind;

Json::Value parse(const std::string& text) {
    Json::Value out;
    EXPECT_TRUE(corvo::parse_json(text, out)) << text;
    return out;
}

Json::Value links(const std::string& text, LinkKind kind, bool comprehensive,
                  const standin::LiveLookup& live = {}) {
    return standin::link_elements(parse(text), kind, comprehensive, live);
}

constexpr char kOneWan[] = R"({"WAN_IFACE_INFO":{"eth1":{"ID":"1","RX_RATE":"100000000","TX_RATE":"50000000",
    "IP4_ADDR":"203.0.113.11/24","IP4_GW":"203.0.113.1","IP6_ADDR":"2001:db8::1/64","TUN_ADDR4":"198.19.0.80",
    "PRIO":"4"}}})";

TEST(NetworkInfo, AWanHasEveryMemberWithItsType) {
    const Json::Value got = links(kOneWan, LinkKind::kWan, false);
    EXPECT_EQ(corvo::compact_json(got),
              R"([{"enabled":true,"id":1,"ifname":"eth1","ip4_addr":"203.0.113.11","ip4_gw":"203.0.113.1",)"
              R"("ip4_prefix":24,"ip6_addr":"2001:db8::1","port":"PORT1","prio":4,"rx_rate":100000000,)"
              R"("slave":"eth1","tun_addr":"198.19.0.80","tx_rate":50000000}])");
}

TEST(NetworkInfo, APrivateLinkHasItsGroup) {
    const Json::Value got = links(
        R"({"PRIVATE_IFACE_INFO":{"swdev3":{"ID":"3","IP4_ADDR":"10.0.0.1","PRIVATE_GROUP_ID":"mpls-a","PRIO":7}}})",
        LinkKind::kPrivate, false);
    ASSERT_EQ(got.size(), 1U);
    EXPECT_EQ(got[0]["private_group_id"], "mpls-a");
    EXPECT_EQ(got[0]["slave"], "swdev3");
    EXPECT_EQ(got[0]["prio"], 7);
}

TEST(NetworkInfo, ARegionalLinkComesFromItsOwnSection) {
    const std::string text = R"({"RGLINK_IFACE_INFO":{"swdev4":{"ID":4,"IP4_ADDR":"10.0.0.2"}}})";
    EXPECT_EQ(links(text, LinkKind::kRegional, false)[0]["ifname"], "swdev4");
    EXPECT_TRUE(links(text, LinkKind::kWan, true).empty());
}

TEST(NetworkInfo, PointToPointNamesRideOnThePortBehindTheirPrefix) {
    for (const auto& [name, slave] : {std::pair<std::string, std::string>{"ppp-eth1", "eth1"},
                                      {"ds-lte", "lte"},
                                      {"me-x", "x"},
                                      {"eth0.100", "eth0.100"}}) {
        const Json::Value got =
            links(R"({"WAN_IFACE_INFO":{")" + name + R"(":{"ID":"1"}}})", LinkKind::kWan, true);
        EXPECT_EQ(got[0]["slave"], slave);
        EXPECT_EQ(got[0]["ifname"], name);
    }
}

TEST(NetworkInfo, AWrittenSlaveWins) {
    const Json::Value got =
        links(R"({"WAN_IFACE_INFO":{"ppp-eth1":{"ID":"1","SLAVE":"br0"}}})", LinkKind::kWan, true);
    EXPECT_EQ(got[0]["slave"], "br0");
}

TEST(NetworkInfo, ALinkWithoutANumberIsNoLink) {
    const std::string text =
        R"({"WAN_IFACE_INFO":{"a":{"ID":"0"},"b":{},"c":"text","d":[1],"e":{"ID":"x"},"f":{"ID":"6"}}})";
    const Json::Value got = links(text, LinkKind::kWan, true);
    ASSERT_EQ(got.size(), 1U);
    EXPECT_EQ(got[0]["ifname"], "f");
}

TEST(NetworkInfo, TheShortListLeavesOutWhatCannotCarryTraffic) {
    const std::string text = R"({"WAN_IFACE_INFO":{
        "no_addr":{"ID":"1","IP4_GW":"192.0.2.1","IP4_ADDR":""},
        "no_gw":{"ID":"2","IP4_ADDR":"192.0.2.2"},
        "off":{"ID":"3","IP4_ADDR":"192.0.2.3","IP4_GW":"192.0.2.1","ENABLED":"0"},
        "good":{"ID":"4","IP4_ADDR":"192.0.2.4","IP4_GW":"192.0.2.1"}}})";
    const Json::Value usable = links(text, LinkKind::kWan, false);
    ASSERT_EQ(usable.size(), 1U);
    EXPECT_EQ(usable[0]["ifname"], "good");
    EXPECT_EQ(links(text, LinkKind::kWan, true).size(), 4U);
}

TEST(NetworkInfo, APrivateLinkNeedsNoGateway) {
    const std::string text = R"({"PRIVATE_IFACE_INFO":{"eth1":{"ID":"1","IP4_ADDR":"0.0.0.0"}}})";
    EXPECT_EQ(links(text, LinkKind::kPrivate, false).size(), 1U) << "0.0.0.0: looked up when it is used";
}

TEST(NetworkInfo, EnabledMayBeANumberATextOrABoolean) {
    for (const char* off : {"0", "\"0\"", "false", "\"false\""}) {
        const Json::Value got = links(
            std::string(R"({"WAN_IFACE_INFO":{"a":{"ID":1,"ENABLED":)") + off + "}}}", LinkKind::kWan, true);
        EXPECT_FALSE(got[0]["enabled"].asBool()) << off;
    }
    for (const char* on : {"1", "\"1\"", "true", "\"true\"", "\"\""}) {
        const Json::Value got = links(
            std::string(R"({"WAN_IFACE_INFO":{"a":{"ID":1,"ENABLED":)") + on + "}}}", LinkKind::kWan, true);
        EXPECT_TRUE(got[0]["enabled"].asBool()) << on;
    }
}

TEST(NetworkInfo, RatesAbove32BitsStayWhole) {
    const Json::Value got =
        links(R"({"WAN_IFACE_INFO":{"a":{"ID":"1","TX_RATE":"100000000000"}}})", LinkKind::kWan, true);
    EXPECT_EQ(got[0]["tx_rate"].asUInt64(), 100000000000U);
}

TEST(NetworkInfo, TheKernelFillsInOnlyWhatTheDocumentLeavesOut) {
    const auto live = [](const std::string& name) {
        EXPECT_EQ(name, "eth1");
        return standin::LiveAddresses{"192.0.2.9", 24, "2001:db8::9"};
    };
    const Json::Value missing =
        links(R"({"WAN_IFACE_INFO":{"eth1":{"ID":"1"}}})", LinkKind::kWan, true, live);
    EXPECT_EQ(missing[0]["ip4_addr"], "192.0.2.9");
    EXPECT_EQ(missing[0]["ip4_prefix"], 24);
    EXPECT_EQ(missing[0]["ip6_addr"], "2001:db8::9");
    const Json::Value empty = links(R"({"WAN_IFACE_INFO":{"eth1":{"ID":"1","IP4_ADDR":"","IP6_ADDR":""}}})",
                                    LinkKind::kWan, true, live);
    EXPECT_EQ(empty[0]["ip4_addr"], "");
    EXPECT_EQ(empty[0]["ip6_addr"], "");
}

TEST(NetworkInfo, KernelAddressesOfTheLoopbackAndOfNothing) {
    EXPECT_EQ(standin::kernel_addresses("no-such-iface").ip4, "");
    const auto loopback = standin::kernel_addresses("lo");
    if (loopback.ip4.empty()) GTEST_SKIP() << "the loopback interface has no address here";
    EXPECT_EQ(loopback.ip4, "127.0.0.1");
    EXPECT_EQ(loopback.ip4_prefix, 8);
}

TEST(NetworkInfo, DocumentsOfTheWrongShapeGiveNoLinks) {
    for (const char* text : {"[]", "5", "{}", R"({"WAN_IFACE_INFO":[]})", R"({"WAN_IFACE_INFO":"x"})"}) {
        EXPECT_EQ(links(text, LinkKind::kWan, true), Json::Value(Json::arrayValue)) << text;
    }
}

TEST(NetworkInfo, DeviceIdIsATextOrANumberAndZeroWhenMissing) {
    EXPECT_EQ(standin::device_id(parse(R"({"DEVICE_ID":"11"})")), 11);
    EXPECT_EQ(standin::device_id(parse(R"({"DEVICE_ID":12})")), 12);
    EXPECT_EQ(standin::device_id(parse("{}")), 0);
    EXPECT_EQ(standin::device_id(parse(R"({"DEVICE_ID":{}})")), 0);
}

TEST(NetworkInfo, LocalManagementIsOffUnlessWritten) {
    EXPECT_FALSE(standin::local_management(parse("{}")));
    EXPECT_TRUE(standin::local_management(parse(R"({"LOCAL_MGMT":"1"})")));
    EXPECT_TRUE(standin::local_management(parse(R"({"LOCAL_MGMT":true})")));
    EXPECT_FALSE(standin::local_management(parse(R"({"LOCAL_MGMT":0})")));
}

TEST(NetworkInfo, TheExampleDescribesTwoWansAPrivateAndARegionalLink) {
    const std::string text = corvo::test::read_file(std::string(EXAMPLE_DOCUMENTS) + "/device_info.json");
    EXPECT_EQ(links(text, LinkKind::kWan, false).size(), 2U);
    EXPECT_EQ(links(text, LinkKind::kPrivate, false).size(), 1U);
    EXPECT_EQ(links(text, LinkKind::kRegional, false).size(), 1U);
    EXPECT_NE(standin::device_id(parse(text)), 0);
}

}  // namespace
