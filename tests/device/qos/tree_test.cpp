// Whole shaping trees, object by object.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "corvosetup/lan_qos.h"
#include "corvosetup/qos.h"
#include "corvosetup/tc.h"
#include "support/kernel_feature.h"
#include "support/sandbox.h"

namespace corvo::test {
namespace {

using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;

std::string shown(const std::string& words) {
    return must_run("tc " + words);
}

class Trees : public testing::Test {
protected:
    void SetUp() override {
        for (const char* feature : {"htb", "fq", "fw", "u32", "ingress", "mirred", "ifb"})
            REQUIRE_KERNEL_FEATURE(feature);
        add_veth("eth1", "peer");
        ip_batch({"link add ifb0 type ifb", "link set ifb0 up"});
    }
    int shape(int op, const char* rates, const char* rx_rate = "0") {
        write_document("device_info.json", std::string(
                                               R"({"WAN_IFACE_INFO":{"eth1":{"ID":"1","TX_RATE":"10000000",
            "RX_RATE":")") + rx_rate + R"("}}})");
        write_document("qos.json", std::string(R"({"QOS":{"RATE":)") + rates + "}}");
        std::string dev = "eth1";
        std::string path;
        return setup_qos(op, dev, path, false);
    }
};

TEST_F(Trees, WanClassesLeavesAndFilters) {
    ASSERT_EQ(shape(0, "[50,20,10]"), 0);
    const std::string classes = shown("-d class show dev eth1");
    EXPECT_THAT(classes, ContainsRegex("class htb 1:1 root rate 10Mbit ceil 10Mbit"));
    EXPECT_THAT(classes,
                ContainsRegex("class htb 1:10 parent 1:1 leaf 120: prio 1 .*rate 100Kbit ceil 10Mbit"));
    EXPECT_THAT(classes,
                ContainsRegex("class htb 1:20 parent 1:1 leaf 130: prio 2 .*rate 5Mbit ceil 10Mbit"));
    EXPECT_THAT(classes,
                ContainsRegex("class htb 1:30 parent 1:1 leaf 140: prio 3 .*rate 2Mbit ceil 10Mbit"));
    EXPECT_THAT(classes,
                ContainsRegex("class htb 1:40 parent 1:1 leaf 150: prio 4 .*rate 1Mbit ceil 10Mbit"));
    EXPECT_THAT(classes,
                ContainsRegex("class htb 1:50 parent 1:1 leaf 160: prio 5 .*rate 1900Kbit ceil 10Mbit"));
    const std::string qdiscs = shown("qdisc show dev eth1");
    EXPECT_THAT(qdiscs, HasSubstr("qdisc htb 1: root"));
    EXPECT_THAT(qdiscs, HasSubstr("default 0x50"));
    for (const char* leaf : {"fq 120: parent 1:10", "fq 130: parent 1:20", "fq 140: parent 1:30",
                             "fq 150: parent 1:40", "fq 160: parent 1:50"})
        EXPECT_THAT(qdiscs, HasSubstr(leaf));
    const std::string filters = shown("filter show dev eth1");
    EXPECT_THAT(
        filters,
        HasSubstr("filter parent 1: protocol all pref 100 fw chain 0 handle 0x3c0/0x3c0 classid 1:10"));
    EXPECT_THAT(filters, HasSubstr("handle 0x40/0x3c0 classid 1:20"));
    EXPECT_THAT(filters, HasSubstr("handle 0x80/0x3c0 classid 1:30"));
    EXPECT_THAT(filters, HasSubstr("handle 0xc0/0x3c0 classid 1:40"));
    EXPECT_THAT(filters, Not(HasSubstr("1:50")));  // the hidden class has none
}

TEST_F(Trees, WithoutRemainderEveryClassHasAFilter) {
    ASSERT_EQ(shape(0, "[50,50]"), 0);
    EXPECT_THAT(shown("class show dev eth1"), Not(HasSubstr("1:40")));
    EXPECT_THAT(shown("filter show dev eth1"), HasSubstr("handle 0x80/0x3c0 classid 1:30"));
    EXPECT_THAT(shown("qdisc show dev eth1"), HasSubstr("default 0x30"));
}

TEST_F(Trees, FifteenthPercentageMeetsTheManagementMark) {
    ASSERT_EQ(shape(0, "[6,6,6,6,6,6,6,6,6,6,6,6,6,6,6]"), -3011);
    EXPECT_EQ(count_log("[ERROR] Setup filter: 1:160 failed, Ret-3011"), 1);
    EXPECT_EQ(count_log("[ERROR] Setup QoS error."), 1);
    EXPECT_THAT(shown("filter show dev eth1"), HasSubstr("handle 0x3c0/0x3c0 classid 1:10"));
    EXPECT_THAT(shown("filter show dev eth1"), HasSubstr("handle 0x380/0x3c0 classid 1:f0"));
    EXPECT_THAT(shown("filter show dev eth1"), Not(HasSubstr("1:100")));
    EXPECT_THAT(shown("qdisc show dev eth1"), HasSubstr("qdisc fq 1100: parent 1:f0"));
    EXPECT_THAT(shown("qdisc show dev eth1"), HasSubstr("qdisc fq 1110: parent 1:100"));
}

TEST_F(Trees, IngressLimitOnTheIfbDevice) {
    ASSERT_EQ(shape(0, "[50]", "100000000"), 0);
    const std::string qdiscs = shown("qdisc show dev ifb0");
    EXPECT_THAT(qdiscs, ContainsRegex("qdisc htb 1: root .*default 0x1"));
    EXPECT_THAT(qdiscs, HasSubstr("qdisc fq 10: parent 1:1"));
    EXPECT_THAT(shown("class show dev ifb0"),
                ContainsRegex("class htb 1:1 root .*rate 100Mbit ceil 100Mbit"));
    EXPECT_EQ(count_log("[DEBUG] Command [/sbin/tc qdisc add dev ifb0 parent 1:1 handle 10: fq], ret: 0"), 1);
    EXPECT_THAT(shown("filter show dev eth1 ingress"),
                HasSubstr("mirred (Egress Redirect to device ifb0) stolen"));
}

TEST_F(Trees, RestartKeepsNothingOfTheOldTree) {
    ASSERT_EQ(shape(0, "[50,20,10]", "100000000"), 0);
    ASSERT_EQ(shape(2, "[30]", "50000000"), 0);
    EXPECT_THAT(shown("class show dev eth1"), Not(HasSubstr("1:40 ")));
    EXPECT_THAT(shown("class show dev ifb0"), HasSubstr("rate 50Mbit"));
    const std::string filters = shown("filter show dev eth1 ingress");
    EXPECT_EQ(filters.find("mirred"), filters.rfind("mirred"));
    ASSERT_EQ(shape(1, "[30]"), 0);
    EXPECT_THAT(shown("qdisc show dev eth1"), Not(HasSubstr("htb")));
}

TEST_F(Trees, LanGroupsLeavesRulesAndRedirect) {
    write_document("device_info.json", R"({"LAN_PORT":{"1":{"INTERFACE":"eth1"},"2":{"INTERFACE":"eth1"}}})");
    write_document("lan_qos.json", R"({"GROUPS":[{"PRIO":"1","UPLINK_RATE":"125000","DOWNLINK_RATE":"250000"},
                                                 {"PRIO":"11","UPLINK_RATE":"0","DOWNLINK_RATE":"500000"}],
        "UPLINK":[{"PRIO":"1","SIP":"10.1.2.3","SMASK":"24"}],
        "DOWNLINK":[{"PRIO":"1","DIP":"10.1.2.3","DMASK":"24"},{"PRIO":"11","DPORT":"8080"}]})");
    std::string dev;
    std::string conf;
    std::string dev_conf;
    ASSERT_EQ(setup_lan_qos(0, dev, conf, dev_conf), 0);
    EXPECT_EQ(count_log("[ERROR] Setup QoS error."), 0);  // the port that is listed twice is shaped once
    const std::string classes = shown("class show dev eth1");
    EXPECT_THAT(classes, ContainsRegex("class htb 1:1 root leaf 10: prio 1 rate 2Mbit ceil 2Mbit"));
    EXPECT_THAT(classes, ContainsRegex("class htb 1:b root leaf b0: prio 7 rate 4Mbit ceil 4Mbit"));
    EXPECT_THAT(shown("class show dev ifb0"), Not(HasSubstr("1:b")));
    EXPECT_THAT(shown("filter show dev eth1"),
                HasSubstr("flowid 1:1 not_in_hw \n  match 0a010200/ffffff00 at 16"));
    EXPECT_THAT(shown("filter show dev eth1"),
                HasSubstr("flowid 1:b not_in_hw \n  match 00001f90/0000ffff at 20"));
    EXPECT_THAT(shown("filter show dev ifb0"),
                HasSubstr("flowid 1:1 not_in_hw \n  match 0a010200/ffffff00 at 12"));
    EXPECT_THAT(shown("filter show dev eth1 ingress"), HasSubstr("mirred (Egress Redirect to device ifb0)"));
    ASSERT_EQ(setup_lan_qos(2, dev, conf, dev_conf), 0);
    ASSERT_EQ(setup_lan_qos(1, dev, conf, dev_conf), 0);
    EXPECT_THAT(shown("qdisc show dev ifb0"), Not(HasSubstr("htb")));
    EXPECT_THAT(shown("qdisc show dev eth1"), Not(HasSubstr("htb")));
}

TEST_F(Trees, FwFilterIsExclusive) {
    ASSERT_EQ(shape(0, "[50]"), 0);
    EXPECT_EQ(setup_fw_filter("eth1", "1:", ":40", "1:20"), -3011);
    EXPECT_EQ(setup_fw_filter("eth1", "1:", ":100", "1:20"), 0);
    EXPECT_THAT(shown("filter show dev eth1"), HasSubstr("handle 0x100/0x3c0 classid 1:20"));
}

}  // namespace
}  // namespace corvo::test
