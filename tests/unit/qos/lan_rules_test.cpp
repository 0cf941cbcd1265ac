// The LAN shaping documents.

#include "qos/lan_rules.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>

#include "foundation/json.h"
#include "foundation/result.h"

namespace corvo::qos {
namespace {

using testing::ElementsAre;

Json::Value json(const std::string& text) {
    Json::Value value;
    EXPECT_TRUE(parse_json(text, value)) << text;
    return value;
}

constexpr const char* kPorts = R"({"LAN_PORT":{"1":{"INTERFACE":"eth2"},"2":{"INTERFACE":"eth3"},
                                                 "3":{"INTERFACE":"eth2"}}})";

TEST(LanPorts, EveryInterfaceOnce) {
    LanPorts ports;
    EXPECT_EQ(read_lan_ports(json(kPorts), "", ports), 0);
    EXPECT_THAT(ports.interfaces, ElementsAre("eth2", "eth3"));
    EXPECT_EQ(ports.protocol, 0x800);
}

TEST(LanPorts, AllIsEveryInterface) {
    LanPorts ports;
    EXPECT_EQ(read_lan_ports(json(kPorts), "all", ports), 0);
    EXPECT_THAT(ports.interfaces, ElementsAre("eth2", "eth3"));
}

TEST(LanPorts, ReducedToTheOneAskedFor) {
    LanPorts ports;
    EXPECT_EQ(read_lan_ports(json(kPorts), "eth3", ports), 0);
    EXPECT_THAT(ports.interfaces, ElementsAre("eth3"));
}

TEST(LanPorts, UnlistedDeviceIsMissing) {
    LanPorts ports;
    EXPECT_EQ(read_lan_ports(json(kPorts), "eth9", ports), kNoInterface);
    EXPECT_TRUE(ports.interfaces.empty());
}

TEST(LanPorts, WithVlanSegmentsTheProtocolIsVlan) {
    LanPorts ports;
    EXPECT_EQ(read_lan_ports(json(R"({"VLAN_SEG":{},"LAN_PORT":{"1":{"INTERFACE":"eth2"}}})"), "", ports), 0);
    EXPECT_EQ(ports.protocol, 0x8100);
}

TEST(LanPorts, NoPortsIsAMissingSection) {
    for (const char* text : {R"({})", R"({"LAN_PORT":{}})", R"({"LAN_PORT":null})"}) {
        LanPorts ports;
        EXPECT_EQ(read_lan_ports(json(text), "", ports), kMissingSection) << text;
    }
}

TEST(LanPorts, WrongTypesThrow) {
    for (const char* text : {R"([])", R"({"LAN_PORT":[1]})", R"({"LAN_PORT":"x"})", R"({"LAN_PORT":{"1":5}})",
                             R"({"LAN_PORT":{"1":{"INTERFACE":{}}}})"}) {
        LanPorts ports;
        EXPECT_THROW(read_lan_ports(json(text), "", ports), std::runtime_error) << text;
    }
}

TEST(LanShaping, RateOfZeroMakesNoClassInThatDirection) {
    LanShaping shaping;
    read_lan_shaping(json(R"({"GROUPS":[{"PRIO":"1","UPLINK_RATE":"0","DOWNLINK_RATE":"5000"},
                                         {"PRIO":"2","UPLINK_RATE":"700"}]})"),
                     0x800, shaping);
    ASSERT_EQ(shaping.uplink.classes.size(), 1U);
    EXPECT_EQ(shaping.uplink.classes[0].prio, 2U);
    EXPECT_EQ(shaping.uplink.classes[0].rate, 700U);
    ASSERT_EQ(shaping.downlink.classes.size(), 1U);
    EXPECT_EQ(shaping.downlink.classes[0].prio, 1U);
    EXPECT_EQ(shaping.downlink.classes[0].rate, 5000U);
}

TEST(LanShaping, RatesAreTakenAsTheyStand) {
    LanShaping shaping;
    read_lan_shaping(json(R"({"GROUPS":[{"PRIO":1,"UPLINK_RATE":8000000000}]})"), 0x800, shaping);
    EXPECT_EQ(shaping.uplink.classes.at(0).rate, 8000000000U);
}

TEST(LanShaping, RuleFieldsInNetworkOrder) {
    LanShaping shaping;
    read_lan_shaping(json(R"({"UPLINK":[{"PRIO":"3","SMAC":"02:11:22:33:44:55","DMAC":"0a:0b:0c:0d:0e:0f",
        "SIP":"10.1.2.3","SMASK":"24","DIP":"192.168.0.1","DMASK":"32","SPORT":"53","DPORT":"8080"}]})"),
                     0x8100, shaping);
    ASSERT_EQ(shaping.uplink.rules.size(), 1U);
    EXPECT_TRUE(shaping.downlink.rules.empty());
    const U32QoSObj& rule = shaping.uplink.rules[0];
    EXPECT_EQ(rule.prio, 3U);
    EXPECT_EQ(rule.protocol, 0x8100);
    EXPECT_THAT(rule.smac, ElementsAre(2, 0x11, 0x22, 0x33, 0x44, 0x55));
    EXPECT_THAT(rule.dmac, ElementsAre(10, 11, 12, 13, 14, 15));
    EXPECT_EQ(rule.saddr, inet_addr("10.1.2.3"));
    EXPECT_EQ(rule.smask, inet_addr("255.255.255.0"));
    EXPECT_EQ(rule.daddr, inet_addr("192.168.0.1"));
    EXPECT_EQ(rule.dmask, 0xffffffffU);
    EXPECT_EQ(rule.sport, 53U);
    EXPECT_EQ(rule.dport, 8080U);
}

TEST(LanShaping, AddressWithoutMaskIsOneHost) {
    LanShaping shaping;
    read_lan_shaping(json(R"({"DOWNLINK":[{"PRIO":"1","DIP":"10.0.0.7"}]})"), 0x800, shaping);
    EXPECT_EQ(shaping.downlink.rules.at(0).dmask, 0xffffffffU);
}

TEST(LanShaping, UnreadableFieldsAreNotMatched) {
    LanShaping shaping;
    read_lan_shaping(json(R"({"UPLINK":[{"PRIO":"1","SMAC":"zz","SIP":"10.0.0.300"}]})"), 0x800, shaping);
    EXPECT_THAT(shaping.uplink.rules.at(0).smac, testing::Each(0));
    EXPECT_EQ(shaping.uplink.rules.at(0).saddr, 0U);
}

TEST(LanShaping, EmptyDocumentIsNothing) {
    for (const char* text : {R"({})", R"({"GROUPS":null,"UPLINK":[],"DOWNLINK":null})"}) {
        LanShaping shaping;
        read_lan_shaping(json(text), 0x800, shaping);
        EXPECT_TRUE(shaping.uplink.classes.empty() && shaping.downlink.rules.empty());
    }
}

TEST(LanShaping, WrongTypesThrow) {
    for (const char* text :
         {R"("x")", R"({"GROUPS":{}})", R"({"GROUPS":[1]})", R"({"UPLINK":"x"})", R"({"DOWNLINK":[[]]})",
          R"({"GROUPS":[{"PRIO":[1]}]})", R"({"UPLINK":[{"PRIO":"1","SIP":{}}]})"}) {
        LanShaping shaping;
        EXPECT_THROW(read_lan_shaping(json(text), 0x800, shaping), std::runtime_error) << text;
    }
}

}  // namespace
}  // namespace corvo::qos
