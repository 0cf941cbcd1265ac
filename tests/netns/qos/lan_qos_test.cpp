// LAN shaping: documents, codes, messages, and the trees as far as this tier's kernel goes.

#include "corvosetup/lan_qos.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "shaping.h"
#include "support/kernel_feature.h"

namespace corvo::test {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

constexpr const char* kOnePort = R"({"LAN_PORT":{"1":{"INTERFACE":"lan1"}}})";
constexpr const char* kBothWays = R"({"GROUPS":[{"PRIO":"1","UPLINK_RATE":"125000","DOWNLINK_RATE":"250000"}],
    "UPLINK":[{"PRIO":"1","SIP":"10.1.2.3","SMASK":"24"}],"DOWNLINK":[{"PRIO":"1","DIP":"10.1.2.3","DMASK":"24"}]})";

class LanQos : public testing::Test {
protected:
    void write(const std::string& device, const std::string& shaping) {
        write_document("device_info.json", device);
        write_document("lan_qos.json", shaping);
    }
    LeakCheck leaks_;
};

TEST_F(LanQos, OperationAboveTwoIsInvalidBeforeAnyDocument) {
    EXPECT_EQ(shape_lan(3), -3004);
    EXPECT_EQ(shape_lan(-1), -3004);
    EXPECT_EQ(count_log("[ERROR] Config file: [/etc/networkmanagement/device_info.json] does not exist."), 0);
}

TEST_F(LanQos, DefaultPathsAreLogged) {
    EXPECT_EQ(shape_lan(3), -3004);
    EXPECT_THAT(
        messages(),
        ElementsAre("[DEBUG] Set lan_qos config path to default path /etc/networkmanagement/lan_qos.json.",
                    "[DEBUG] Set dev_info config path to default path "
                    "/etc/networkmanagement/device_info.json."));
}

TEST_F(LanQos, MissingDeviceDocument) {
    EXPECT_EQ(shape_lan(0), -3016);
    EXPECT_THAT(errors(), Contains("parse_dev_info failed! ret: -3016"));
}

TEST_F(LanQos, MissingShapingDocument) {
    write_document("device_info.json", kOnePort);
    EXPECT_EQ(shape_lan(0), -3016);
    EXPECT_THAT(errors(), Contains("parse_qos_info failed! ret: -3016"));
}

TEST_F(LanQos, NoLanPorts) {
    write("{}", "{}");
    EXPECT_EQ(shape_lan(0), -3020);
    EXPECT_THAT(errors(), ElementsAre("No LAN_PORT value.", "parse_dev_info failed! ret: -3020"));
}

TEST_F(LanQos, UnlistedInterface) {
    write(kOnePort, "{}");
    EXPECT_EQ(shape_lan(0, "lan9"), -3005);
    EXPECT_THAT(errors(), ElementsAre("Could not find [lan9] in LAN interface.",
                                      "No available LAN interface.", "parse_dev_info failed! ret: -3005"));
}

TEST_F(LanQos, WrongTypesInEitherDocumentHaveTheSameLine) {
    write(R"({"LAN_PORT":[1]})", "{}");
    EXPECT_EQ(shape_lan(0), -3019);
    EXPECT_THAT(errors(), ElementsAre("Parse device info rror: LAN_PORT is not an object",
                                      "parse_dev_info failed! ret: -3019"));
    clear_log();
    write(kOnePort, R"({"GROUPS":"x"})");
    EXPECT_EQ(shape_lan(0), -3019);
    EXPECT_THAT(errors(), ElementsAre("Parse device info rror: GROUPS is not an array",
                                      "parse_qos_info failed! ret: -3019"));
}

TEST_F(LanQos, UnreadableAddressesAreReported) {
    write(kOnePort,
          R"({"GROUPS":[],"UPLINK":[{"PRIO":"1","SMAC":"zz","SIP":"10.0.0.300","DIP":"0.0.0.0"}]})");
    EXPECT_EQ(shape_lan(1), 0);
    EXPECT_THAT(errors(), ElementsAre("Bad SMAC: [zz], not matched.", "Bad SIP: [10.0.0.300], not matched."));
}

TEST_F(LanQos, CountsAreLogged) {
    write(kOnePort, kBothWays);
    EXPECT_EQ(shape_lan(1, "lan1"), 0);
    EXPECT_THAT(
        messages(),
        Contains("[DEBUG] DEV: [lan1], Conf: /etc/networkmanagement/lan_qos.json, Dev_Conf: "
                 "/etc/networkmanagement/device_info.json, UPLINK_CLS: 1, DOWNLINK_CLS: 1, UPLINK: 1, "
                 "DOWNLINK: 1"));
}

TEST_F(LanQos, FailuresAreOnlyCounted) {
    write(R"({"LAN_PORT":{"1":{"INTERFACE":"no1"},"2":{"INTERFACE":"no2"},"3":{"INTERFACE":"no1"}}})",
          kBothWays);
    EXPECT_EQ(shape_lan(0), 0);
    EXPECT_THAT(errors(),
                ElementsAre("No iface: ifb0", "No iface: no1", "No iface: no2", "Setup lan qos failed: 3"));
}

TEST_F(LanQos, PortWithoutInterfaceIsAFailureToo) {
    write(R"({"LAN_PORT":{"1":{}}})", kBothWays);
    EXPECT_EQ(shape_lan(0), 0);
    EXPECT_THAT(errors(), Contains("Setup lan qos failed: 2"));
}

TEST_F(LanQos, CheckIfaceCodes) {
    std::vector<LanQosCls> groups;
    std::vector<U32QoSObj> rules;
    std::string none;
    std::string lo = "lo";
    std::string missing = "nosuch";
    EXPECT_EQ(ProcLanQoS(none, groups, rules, none, 0x800).check_iface(), -3004);
    EXPECT_EQ(ProcLanQoS(missing, groups, rules, none, 0x800).check_iface(), -3005);
    EXPECT_EQ(ProcLanQoS(lo, groups, rules, none, 0x800).check_iface(), 0);
    EXPECT_EQ(ProcLanQoS(lo, groups, rules, none, 0x800).setup_default_qos(), 0);
}

class LanTree : public LanQos {
protected:
    void SetUp() override {
        REQUIRE_KERNEL_FEATURE("htb");
        REQUIRE_KERNEL_FEATURE("u32");
        REQUIRE_KERNEL_FEATURE("mirred");
        REQUIRE_KERNEL_FEATURE("ifb");
        add_veth("lan1", "host1");
        ip_batch({"link add ifb0 type ifb", "link set ifb0 up"});
    }
    bool has_fq_ = has_kernel_feature("fq");
};

TEST_F(LanTree, NothingToSetIsLoggedAndNoFailure) {
    write(kOnePort, R"({"GROUPS":[{"PRIO":"1","DOWNLINK_RATE":"5000"}]})");
    EXPECT_EQ(shape_lan(0), 0);
    EXPECT_THAT(errors(), ElementsAre("No QoS object or Redirection to set."));
    EXPECT_THAT(qdiscs("lan1"), Not(HasSubstr("htb")));
}

TEST_F(LanTree, ClassesAreThoseOfTheGroupsWithoutConversion) {
    write(kOnePort, kBothWays);
    EXPECT_EQ(shape_lan(0), 0);
    EXPECT_THAT(classes("lan1"),
                testing::ContainsRegex("class htb 1:1 root .*prio 1 .*rate 2Mbit ceil 2Mbit"));
    EXPECT_THAT(classes("ifb0"),
                testing::ContainsRegex("class htb 1:1 root .*prio 1 .*rate 1Mbit ceil 1Mbit"));
    EXPECT_EQ(tc_json("qdisc show dev lan1")[0]["options"]["default"], "0");
}

TEST_F(LanTree, LeafFailureIsLoggedAndCounted) {
    if (has_fq_) GTEST_SKIP() << "this kernel has fq, so that the leaves do not fail";
    write(kOnePort, kBothWays);
    EXPECT_EQ(shape_lan(0), 0);
    EXPECT_THAT(errors(), ElementsAre("Setup qdisc: 1:1 failed, Ret-3011", "Setup QoS error.",
                                      "Setup qdisc: 1:1 failed, Ret-3011", "Setup QoS error.",
                                      "Setup lan qos failed: 2"));
}

TEST_F(LanTree, WithoutUplinkRulesIfbIsLeftAloneAndNothingIsRedirected) {
    must_run("tc qdisc add dev ifb0 root handle 7: htb");
    write(kOnePort, R"({"GROUPS":[{"PRIO":"1","UPLINK_RATE":"1000","DOWNLINK_RATE":"5000"}],
                        "DOWNLINK":[{"PRIO":"1","DPORT":"80"}]})");
    for (const int op : {0, 2, 1}) {
        EXPECT_EQ(shape_lan(op), 0);
        EXPECT_THAT(qdiscs("ifb0"), HasSubstr("qdisc htb 7:"));
        EXPECT_THAT(qdiscs("lan1"), Not(HasSubstr("ingress")));
    }
}

// Rules are what the redirect needs; a LAN port without classes of its own is redirected all the same.
TEST_F(LanTree, UplinkOnlyRedirectsThePort) {
    std::vector<LanQosCls> groups;
    std::vector<U32QoSObj> rules;
    std::string dev = "lan1";
    std::string redirect = "ifb0";
    ProcLanQoS shaper(dev, groups, rules, redirect, 0x8100);
    EXPECT_EQ(shaper.start(), 0);
    EXPECT_THAT(qdiscs("lan1"), HasSubstr("qdisc htb 1: root"));
    EXPECT_THAT(qdiscs("lan1"), HasSubstr("qdisc ingress ffff:"));
    EXPECT_THAT(filters("lan1 ingress"), HasSubstr("protocol 802.1Q"));
    EXPECT_THAT(filters("lan1 ingress"), HasSubstr("mirred (Egress Redirect to device ifb0)"));
}

TEST_F(LanTree, FailedRedirectIsLoggedAndItsResultKept) {
    std::vector<LanQosCls> groups;
    std::vector<U32QoSObj> rules;
    std::string dev = "lan1";
    std::string redirect = "ifb9";
    ProcLanQoS shaper(dev, groups, rules, redirect, 0x800);
    EXPECT_EQ(shaper.start(), -3011);
    EXPECT_THAT(errors(), ElementsAre("Setup Ingress Filter failed, Ret: -3011", "Setup QoS error."));
}

TEST_F(LanTree, FailedIngressIsLoggedAndItsResultKept) {
    must_run("tc qdisc add dev lan1 handle ffff: ingress");
    std::vector<LanQosCls> groups;
    std::vector<U32QoSObj> rules;
    std::string dev = "lan1";
    std::string redirect = "ifb0";
    ProcLanQoS shaper(dev, groups, rules, redirect, 0x800);
    EXPECT_EQ(shaper.start(), -3011);
    EXPECT_THAT(errors(), ElementsAre("Setup Root Ingress failed, Ret: -3011", "Setup QoS error."));
}

TEST_F(LanTree, StartOnATreeFailsAtTheRoot) {
    must_run("tc qdisc add dev lan1 root handle 1: htb");
    std::vector<LanQosCls> groups;
    std::vector<U32QoSObj> rules;
    std::string dev = "lan1";
    std::string redirect = "ifb0";
    EXPECT_EQ(ProcLanQoS(dev, groups, rules, redirect, 0x800).start(), -3011);
    EXPECT_THAT(errors(), ElementsAre("Setup Root failed, Ret: -3011", "Setup QoS error."));
    EXPECT_EQ(ProcLanQoS(dev, groups, rules, redirect, 0x800).restart(), 0);
}

TEST_F(LanTree, ClassFailureNamesTheGroup) {
    std::vector<LanQosCls> groups{{10, 1000}, {10, 1000}};
    std::vector<U32QoSObj> rules{{}};
    std::string dev = "lan1";
    std::string none;
    EXPECT_EQ(ProcLanQoS(dev, groups, rules, none, 0x800).start(), -3011);
    EXPECT_THAT(errors(), ElementsAre("Setup class: 1:a failed, Ret-3011", "Setup QoS error."));
}

TEST_F(LanTree, FilterFailureNamesTheClassOfTheRule) {
    std::vector<LanQosCls> groups;
    std::vector<U32QoSObj> rules(2);
    rules[0].prio = 10;
    rules[1].prio = 0x10000;  // no class has such a number
    rules[0].protocol = rules[1].protocol = 0x800;
    std::string dev = "lan1";
    std::string redirect = "ifb0";
    EXPECT_EQ(ProcLanQoS(dev, groups, rules, redirect, 0x800).start(), -3004);
    EXPECT_THAT(errors(), ElementsAre("Setup filter: 1:10000 failed, Ret-3004", "Setup QoS error."));
    EXPECT_THAT(filters("lan1"), HasSubstr("flowid 1:a"));
    EXPECT_THAT(qdiscs("lan1"), Not(HasSubstr("ingress")));
}

TEST_F(LanTree, WithVlanSegmentsEverythingMatchesTaggedTraffic) {
    write(R"({"VLAN_SEG":{},"LAN_PORT":{"1":{"INTERFACE":"lan1"},"2":{"INTERFACE":"lan1"}}})", R"({
        "GROUPS":[{"PRIO":"1","UPLINK_RATE":"125000"}],"UPLINK":[{"PRIO":"1","SPORT":"80"}],
        "DOWNLINK":[{"PRIO":"1","DIP":"10.1.2.3","DMASK":"24"}]})");
    shape_lan(0);  // ifb0 may lack its leaves; the port has none to lack
    EXPECT_THAT(filters("lan1"), HasSubstr("protocol 802.1Q pref 1 u32"));
    EXPECT_THAT(filters("lan1"), HasSubstr("match 0a010200/ffffff00 at 16"));
    const std::string redirects = filters("lan1 ingress");
    EXPECT_THAT(redirects, HasSubstr("protocol 802.1Q"));
    EXPECT_THAT(redirects, HasSubstr("mirred (Egress Redirect to device ifb0)"));
    EXPECT_THAT(redirects, Not(HasSubstr("protocol ip ")));
    EXPECT_EQ(count_log("[ERROR] Setup Root failed, Ret: -3011"), 0);  // named twice, shaped once
}

TEST_F(LanTree, GroupThatCannotBeNumberedIsAnError) {
    write(kOnePort, R"({"GROUPS":[{"PRIO":"-1","DOWNLINK_RATE":"5000"}],"DOWNLINK":[{"PRIO":"-1"}]})");
    EXPECT_EQ(shape_lan(0), 0);
    EXPECT_THAT(errors(), ElementsAre("Setup qdisc: 1:ffffffff failed, Ret-3011", "Setup QoS error.",
                                      "Setup lan qos failed: 1"));
}

TEST_F(LanTree, StopCleansRootAndIngress) {
    must_run("tc qdisc add dev lan1 root handle 1: htb");
    must_run("tc qdisc add dev lan1 handle ffff: ingress");
    write(kOnePort, R"({})");
    EXPECT_EQ(shape_lan(1), 0);
    EXPECT_THAT(messages(), Contains("[DEBUG] Clean lan1's Qdisc."));
    EXPECT_THAT(qdiscs("lan1"), Not(HasSubstr("htb")));
    EXPECT_THAT(qdiscs("lan1"), Not(HasSubstr("ingress")));
    EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(LanTree, StopOfAMissingInterfaceIsNoFailure) {
    write(R"({"LAN_PORT":{"1":{"INTERFACE":"nosuch"}}})", "{}");
    EXPECT_EQ(shape_lan(1), 0);
    EXPECT_THAT(errors(), IsEmpty());
}

}  // namespace
}  // namespace corvo::test
