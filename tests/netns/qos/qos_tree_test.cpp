// WAN shaping: the egress tree, as far as this tier's kernel goes.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "qos_fixture.h"

namespace corvo::test {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

TEST_F(QosTree, ClassesHangUnderOneRootClass) {
    write_wan("0", kMbit10);
    write_rates("[50,30]");
    const int result = shape(0, "eth1");
    EXPECT_EQ(result, has_fq_ ? 0 : -3011);
    const std::string text = classes("eth1");
    EXPECT_THAT(text, HasSubstr("class htb 1:1 root rate 10Mbit ceil 10Mbit"));
    EXPECT_THAT(text,
                testing::ContainsRegex("class htb 1:10 parent 1:1 .*prio 1 .*rate 100Kbit ceil 10Mbit"));
    EXPECT_THAT(text, testing::ContainsRegex("class htb 1:20 parent 1:1 .*prio 2 .*rate 5Mbit ceil 10Mbit"));
    EXPECT_THAT(text, testing::ContainsRegex("class htb 1:30 parent 1:1 .*prio 3 .*rate 3Mbit ceil 10Mbit"));
    EXPECT_THAT(text,
                testing::ContainsRegex("class htb 1:40 parent 1:1 .*prio 4 .*rate 1900Kbit ceil 10Mbit"));
    EXPECT_THAT(text, Not(HasSubstr("1:50")));
    EXPECT_EQ(tc_json("qdisc show dev eth1")[0]["options"]["default"], "0x40");
}

TEST_F(QosTree, LeafFailureEndsTheTreeAndIsLogged) {
    if (has_fq_) GTEST_SKIP() << "this kernel has fq, so that the leaves do not fail";
    write_wan("0", kMbit10);
    write_rates("[50,30]");
    EXPECT_EQ(shape(0, "eth1"), -3011);
    EXPECT_THAT(errors(), testing::IsSupersetOf({"Setup qdisc: 1:10 failed, Ret-3011", "Setup QoS error."}));
    EXPECT_EQ(filters("eth1"), "");
}

TEST_F(QosTree, StartOnATreeFailsAtTheRoot) {
    write_wan("0", kMbit10);
    write_rates("[50]");
    shape(0, "eth1");
    clear_log();
    EXPECT_EQ(shape(0, "eth1"), -3011);
    EXPECT_THAT(errors(), testing::IsSupersetOf({"Setup Root failed, Ret: -3011", "Setup QoS error."}));
}

TEST_F(QosTree, RestartAppliesTheNewDocument) {
    write_wan("0", kMbit10);
    write_rates("[50]");
    shape(0, "eth1");
    write_rates("[20,20]");
    EXPECT_EQ(shape(2, "eth1"), has_fq_ ? 0 : -3011);
    EXPECT_THAT(classes("eth1"), testing::ContainsRegex("class htb 1:30 parent 1:1 .*rate 2Mbit"));
    EXPECT_THAT(errors(), Not(Contains(HasSubstr("Setup Root failed"))));
}

TEST_F(QosTree, StopRemovesRootAndIngress) {
    write_wan("0", kMbit10);
    write_rates("[50]");
    shape(0, "eth1");
    must_run("tc qdisc add dev eth1 handle ffff: ingress");
    EXPECT_EQ(shape(1, "eth1"), 0);
    EXPECT_THAT(qdiscs("eth1"), Not(HasSubstr("htb")));
    EXPECT_THAT(qdiscs("eth1"), Not(HasSubstr("ingress")));
}

// A restart without its document leaves the interface as a stop does, and says so.
TEST_F(QosTree, RestartWithoutDocumentReportsIt) {
    write_wan("0", kMbit10);
    write_rates("[50]");
    shape(0, "eth1");
    ASSERT_EQ(unlink(kQosPath), 0);
    clear_log();
    EXPECT_EQ(shape(2, "eth1"), -3016);
    EXPECT_THAT(errors(), Contains("Rescan config error."));
    EXPECT_THAT(qdiscs("eth1"), Not(HasSubstr("htb")));
    EXPECT_EQ(count_log("[ERROR] Config file: [/etc/networkmanagement/qos.json] does not exist."), 1);
}

TEST_F(QosTree, RateRulesAreReportedAndNothingIsBuilt) {
    write_wan("0", kMbit10);
    write_rates("[60,50]");
    EXPECT_EQ(shape(0, "eth1"), -3001);
    EXPECT_THAT(errors(), ElementsAre("QoS rate sum is larger than 100.", "Rescan config error."));
    EXPECT_THAT(qdiscs("eth1"), Not(HasSubstr("htb")));
}

TEST_F(QosTree, MisjudgedCeilingIsReportedAndNothingIsBuilt) {
    write_wan("0", "24000000000");
    write_rates("[]");
    EXPECT_EQ(shape(0, "eth1"), -3001);
    EXPECT_THAT(errors(), Contains("Check QoS error."));
    EXPECT_THAT(qdiscs("eth1"), Not(HasSubstr("htb")));
}

TEST_F(QosTree, CeilingBelowAHundredBytesIsRefusedByTheKernel) {
    write_wan("0", "792");
    write_rates("[50]");
    EXPECT_EQ(shape(0, "eth1"), -3011);
    EXPECT_THAT(errors(), Contains("Setup class: 1:10 failed, Ret-3011"));
    EXPECT_THAT(classes("eth1"), HasSubstr("class htb 1:1 "));
    EXPECT_THAT(classes("eth1"), Not(HasSubstr("class htb 1:10 ")));
}

TEST_F(QosTree, RootClassFailureNamesTheFirstClass) {
    write_wan("0", "4");  // half a byte per second
    write_rates("[50]");
    EXPECT_EQ(shape(0, "eth1"), -3011);
    EXPECT_THAT(errors(), Contains("Setup class: 1:10 failed, Ret-3011"));
    EXPECT_EQ(classes("eth1"), "");
}

TEST_F(QosTree, RatesAbove32BitsPerSecond) {
    write_wan("0", "10000000000");
    write_rates("[50,40]");
    shape(0, "eth1");
    EXPECT_THAT(classes("eth1"), HasSubstr("class htb 1:1 root rate 10Gbit ceil 10Gbit"));
    EXPECT_THAT(classes("eth1"), testing::ContainsRegex("class htb 1:20 .*rate 5Gbit ceil 10Gbit"));
}

// What is above the options' 32 bits is cut, which is a far lower rate and never a refusal.
TEST_F(QosTree, RatesAboveTheOptionsWidthWrap) {
    ProcQoS shaper("eth1", 0, (4294967296UL + 1250000) * 8, "");
    EXPECT_EQ(shaper.setup_qos(), 0);
    EXPECT_THAT(classes("eth1"), testing::ContainsRegex("class htb 1:1 root .*rate 10Mbit ceil 10Mbit"));
}

TEST_F(QosTree, ClassNumbersAreHexadecimal) {
    write_wan("0", kMbit10);
    write_rates("[5,5,5,5,5,5,5,5,5,5,5,5,5,5,5,5]");
    EXPECT_EQ(shape(0, "eth1"), -3011);
    const std::string text = classes("eth1");
    EXPECT_THAT(text, HasSubstr("class htb 1:a0 "));
    EXPECT_THAT(text, HasSubstr("class htb 1:100 "));
    EXPECT_THAT(text, HasSubstr("class htb 1:120 "));  // 1 + 16 + hidden
    EXPECT_EQ(tc_json("qdisc show dev eth1")[0]["options"]["default"], "0x120");
}

TEST_F(QosTree, ResultIsThatOfTheLastInterface) {
    add_veth("eth2", "peer2");
    write_document("device_info.json", R"({"WAN_IFACE_INFO":{"eth2":{"ID":"1","TX_RATE":"792"},
                                          "zz9":{"ID":"2"},"eth1":{"ID":"3","TX_RATE":"10000000"}}})");
    write_rates("[50]");
    EXPECT_EQ(shape(0), 0);  // zz9 is not there, which is no failure
    EXPECT_THAT(errors(), Contains("Setup class: 1:10 failed, Ret-3011"));
    EXPECT_THAT(classes("eth1"), HasSubstr("1:20"));
}

}  // namespace
}  // namespace corvo::test
