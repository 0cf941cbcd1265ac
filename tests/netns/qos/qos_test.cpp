// WAN shaping: documents, codes, messages, and the trees as far as this tier's kernel goes.

#include "corvosetup/qos.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "foundation/worker.h"
#include "shaping.h"
#include "support/kernel_feature.h"
#include "support/recorder.h"

namespace corvo::test {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

constexpr const char* kMbit10 = "10000000";

class Qos : public testing::Test {
protected:
    LeakCheck leaks_;
};

// With an interface. This tier's kernels mostly lack fq, so that a tree ends at its first leaf.
class QosTree : public Qos {
protected:
    void SetUp() override {
        REQUIRE_KERNEL_FEATURE("htb");
        add_veth("eth1", "peer");
    }
    bool has_fq_ = has_kernel_feature("fq");
};

// --- The entry

TEST_F(Qos, OperationAboveTwoIsInvalidAtOnce) {
    EXPECT_EQ(shape(3), -3004);
    EXPECT_EQ(shape(-1), -3004);
    EXPECT_THAT(
        messages(),
        ElementsAre("[DEBUG] Set config path to default path /etc/networkmanagement/device_info.json",
                    "[DEBUG] Set config path to default path /etc/networkmanagement/device_info.json"));
}

TEST_F(Qos, MissingDocumentIsNotOpened) {
    EXPECT_EQ(shape(0, "", "/nowhere.json"), -3016);
    EXPECT_THAT(errors(), Contains("prepare_qos_info failed! ret: -3016"));
}

TEST_F(Qos, MissingWanSection) {
    for (const char* text : {"{}", R"({"WAN_IFACE_INFO":{}})", R"({"WAN_IFACE_INFO":null})",
                             R"({"WAN_IFACE_INFO":[1]})", R"({"WAN_IFACE_INFO":"x"})", "[]"}) {
        clear_log();
        write_document("device_info.json", text);
        EXPECT_EQ(shape(0), -3020) << text;
        EXPECT_THAT(errors(), ElementsAre("No WAN_IFACE_INFO value.", "prepare_qos_info failed! ret: -3020"));
    }
}

TEST_F(Qos, MissingOtherSectionsAreNoError) {
    write_wan("0", "0");
    EXPECT_EQ(shape(1), 0);
    EXPECT_THAT(messages(), testing::IsSupersetOf({"[DEBUG] No PRIVATE_IFACE_INFO value.",
                                                   "[DEBUG] No RGLINK_IFACE_INFO value."}));
    EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(Qos, UnknownInterfaceIsMissing) {
    write_wan("0", "0");
    EXPECT_EQ(shape(0, "eth9"), -3005);
    EXPECT_THAT(errors(), ElementsAre("Could not find [eth9] in the WAN map!"));
}

TEST_F(Qos, InterfaceThatIsNotThereIsAWarning) {
    write_wan("0", "0");
    EXPECT_EQ(shape(0, "eth1"), 0);
    EXPECT_THAT(messages(), Contains("[WARNING] No iface: eth1"));
}

TEST_F(Qos, InterfacesWithoutIdAreNeverShaped) {
    write_document(
        "device_info.json",
        R"({"WAN_IFACE_INFO":{"a":{"ID":"0"},"b":{},"c":{"ID":"x"},"d":5,"e":{"ID":{}},"f":{"ID":2}}})");
    EXPECT_EQ(shape(0), 0);
    std::vector<std::string> warnings;
    for (const std::string& line : messages()) {
        if (line.starts_with("[WARNING]")) warnings.push_back(line);
    }
    EXPECT_THAT(warnings, ElementsAre("[WARNING] No iface: f"));
}

TEST_F(Qos, RatesOfAnotherTypeAreReportedAndCountAsNone) {
    write_document("device_info.json",
                   R"({"WAN_IFACE_INFO":{"a":{"ID":"1","RX_RATE":{},"TX_RATE":[8]},
                       "b":{"ID":"2","RX_RATE":8,"TX_RATE":"8"},"c":{"ID":"3","TX_RATE":null},
                       "d":{"ID":"0","TX_RATE":{}}}})");
    EXPECT_EQ(shape(1), 0);
    EXPECT_THAT(errors(), ElementsAre("Bad RX_RATE of [a], taken as 0.", "Bad TX_RATE of [a], taken as 0."));
}

TEST_F(Qos, AllInterfacesInByteOrderOfTheirNames) {
    write_document("device_info.json",
                   R"({"WAN_IFACE_INFO":{"eth3":{"ID":"1"},"Eth9":{"ID":"2"}},
                       "PRIVATE_IFACE_INFO":{"eth10":{"ID":"3"}},"RGLINK_IFACE_INFO":{"a1":{"ID":"4"}}})");
    for (const char* dev : {"", "all"}) {
        clear_log();
        EXPECT_EQ(shape(1, dev), 0);
        std::vector<std::string> order;
        for (const std::string& line : messages()) {
            if (line.starts_with("[DEBUG] dev: ")) order.push_back(line);
        }
        EXPECT_THAT(
            order,
            ElementsAre("[DEBUG] dev: Eth9, idx: 0, ifb: ifb0", "[DEBUG] dev: a1, idx: 0, ifb: ifb0",
                        "[DEBUG] dev: eth10, idx: 9, ifb: ifb9", "[DEBUG] dev: eth3, idx: 2, ifb: ifb2"));
    }
}

TEST_F(Qos, TunnelsAreNamedByTheirId) {
    write_document("device_info.json", R"({"WAN_IFACE_INFO":{"eth1":{"ID":"7"}}})");
    EXPECT_EQ(shape(1, "tun7", "", true), 0);
    EXPECT_THAT(messages(), Contains("[DEBUG] dev: tun7, idx: 0, ifb: ifb0"));
    EXPECT_EQ(shape(1, "eth1", "", true), -3005);
}

TEST_F(Qos, DefaultPathIsHandedBack) {
    std::string dev;
    std::string path;
    EXPECT_EQ(setup_qos(0, dev, path, false), -3016);
    EXPECT_EQ(path, kDevicePath);
}

TEST_F(Qos, TunnelPlaceholderOnlyLogs) {
    EXPECT_EQ(setup_tun_qos(0, "", ""), 0);
    const auto lines = log_texts();
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_THAT(lines[0], testing::MatchesRegex("\\[DEBUG\\] Enter qos.cpp::[0-9]+::setup_tun_qos"));
    EXPECT_THAT(lines[1], testing::MatchesRegex("\\[DEBUG\\] Exit qos.cpp::[0-9]+::setup_tun_qos: 0"));
}

TEST_F(Qos, EntryRecreatesALogThatWasRemoved) {
    ASSERT_EQ(unlink(kLogFile), 0);
    setup_tun_qos(0, "", "");
    EXPECT_THAT(log_texts(), Contains("[DEBUG] Reopen setup_logger to /var/log/network/corvo.log"));
}

// --- The object

TEST_F(Qos, IfbFollowsTheName) {
    ProcQoS("eth0", 0, 0, "");
    ProcQoS("eth1", 0, 0, "");
    ProcQoS("swdev3", 0, 0, "");
    ProcQoS("wan", 0, 0, "");
    EXPECT_THAT(messages(),
                ElementsAre("[DEBUG] dev: eth0, idx: -1, ifb: ifb-1", "[DEBUG] dev: eth1, idx: 0, ifb: ifb0",
                            "[DEBUG] dev: swdev3, idx: 2, ifb: ifb2", "[DEBUG] dev: wan, idx: 0, ifb: ifb0"));
}

TEST_F(Qos, CheckIfaceCodes) {
    EXPECT_EQ(ProcQoS("", 0, 0, "").check_iface(), -3004);
    EXPECT_EQ(ProcQoS("nosuch", 0, 0, "").check_iface(), -3005);
    EXPECT_EQ(ProcQoS("lo", 0, 0, "").check_iface(), 0);
}

TEST_F(Qos, VlanAndBridgeInterfacesAreNotTold) {
    ip_batch({"link add br0 type bridge"});
    EXPECT_FALSE(ProcQoS("br0", 0, 0, "").check_vlan_bridge_iface());
    EXPECT_FALSE(ProcQoS("eth1.100", 0, 0, "").check_vlan_bridge_iface());
}

TEST_F(Qos, DefaultShapingIsAPlaceholder) {
    EXPECT_EQ(ProcQoS("lo", 0, 0, "").setup_default_qos(), 0);
    EXPECT_THAT(log_texts(), Contains(testing::MatchesRegex(".*Exit qos.cpp::[0-9]+::setup_default_qos: 0")));
}

TEST_F(Qos, StopOfAMissingInterfaceSucceeds) {
    EXPECT_EQ(ProcQoS("nosuch", 0, 0, "").stop(), 0);
}

std::vector<std::string> classes_of(ProcQoS& shaper) {
    clear_log();
    shaper.show();
    std::vector<std::string> found;
    for (const std::string& line : messages()) {
        if (line.find("Prio: ") != std::string::npos) found.push_back(line.substr(8));
    }
    return found;
}

TEST_F(Qos, ShowPrintsMegabits) {
    ProcQoS shaper("eth1", 100000000, 200000000, "");
    write_rates("[50]");
    ASSERT_EQ(shaper.rescan_config(), 0);
    clear_log();
    EXPECT_EQ(shaper.show(), 0);
    EXPECT_THAT(messages(), ElementsAre("[DEBUG] ====================", "[DEBUG] Dev: [eth1]",
                                        "[DEBUG] Ingress Ceil: 100mbit", "[DEBUG] Egress Ceil: 200mbit",
                                        "[DEBUG] Prio: 1, Rate: 2mbit", "[DEBUG] Prio: 2, Rate: 100mbit",
                                        "[DEBUG] ===================="));
}

TEST_F(Qos, ShowWrapsAt32Bits) {
    ProcQoS shaper("eth1", 4294967296, 8000000000, "");
    shaper.show();
    EXPECT_THAT(messages(),
                testing::IsSupersetOf({"[DEBUG] Ingress Ceil: 0mbit", "[DEBUG] Egress Ceil: 3705mbit"}));
}

TEST_F(Qos, NoTransmitRateIsOneMegabit) {
    ProcQoS shaper("eth1", 0, 0, "");
    shaper.show();
    EXPECT_THAT(messages(), Contains("[DEBUG] Egress Ceil: 1mbit"));
}

struct Scan {
    const char* rate;
    int result;
    std::vector<std::string> log;
    std::vector<std::string> classes;
};
void PrintTo(const Scan& scan, std::ostream* out) {
    *out << scan.rate;
}

class Rescan : public testing::TestWithParam<Scan> {};

// 100 Mbit/s, so that a percent is shown as one.
TEST_P(Rescan, GivesTheClassesOfTheDocument) {
    write_rates(GetParam().rate);
    ProcQoS shaper("eth1", 0, 100000000, "");
    clear_log();
    EXPECT_EQ(shaper.rescan_config(), GetParam().result);
    EXPECT_EQ(messages(), GetParam().log);
    EXPECT_EQ(classes_of(shaper), GetParam().classes);
}

INSTANTIATE_TEST_SUITE_P(
    Rates, Rescan,
    testing::Values(
        Scan{"[50,30]",
             0,
             {"[DEBUG] Get reserved MGMT QoS from remaining bandwidth, left rate: 20",
              "[DEBUG] default class: 2"},
             {"Prio: 1, Rate: 1mbit", "Prio: 2, Rate: 50mbit", "Prio: 3, Rate: 30mbit"}},
        Scan{"[50,50]",
             0,
             {"[DEBUG] Get reserved MGMT QoS from [2], rate: 50", "[DEBUG] default class: 2"},
             {"Prio: 1, Rate: 1mbit", "Prio: 2, Rate: 50mbit", "Prio: 3, Rate: 49mbit"}},
        Scan{"[60,0,30]",
             0,
             {"[DEBUG] Get reserved MGMT QoS from remaining bandwidth, left rate: 10",
              "[DEBUG] default class: 1"},
             {"Prio: 1, Rate: 1mbit", "Prio: 2, Rate: 60mbit"}},
        Scan{"[50,0,50]",
             0,
             {"[DEBUG] Get reserved MGMT QoS from [3], rate: 50", "[DEBUG] default class: 1"},
             {"Prio: 1, Rate: 1mbit", "Prio: 2, Rate: 50mbit"}},
        Scan{"[]",
             0,
             {"[DEBUG] Get reserved MGMT QoS from remaining bandwidth, left rate: 100",
              "[DEBUG] default class: 0"},
             {"Prio: 1, Rate: 1mbit"}},
        Scan{"[100]",
             0,
             {"[DEBUG] Get reserved MGMT QoS from [1], rate: 100", "[DEBUG] default class: 1"},
             {"Prio: 1, Rate: 1mbit", "Prio: 2, Rate: 99mbit"}},
        Scan{"[60,41]", -3001, {"[ERROR] QoS rate sum is larger than 100."}, {"Prio: 1, Rate: 1mbit"}},
        Scan{"[4294967295,101]",
             -3001,
             {"[ERROR] QoS rate sum is larger than 100."},
             {"Prio: 1, Rate: 1mbit"}},
        Scan{"null", -3020, {"[ERROR] No QOS/RATE value."}, {"Prio: 1, Rate: 1mbit"}},
        Scan{"{\"a\":1}",
             -3004,
             {"[ERROR] Bad RATE format, RATE should be JSON array."},
             {"Prio: 1, Rate: 1mbit"}},
        Scan{"\"50\"",
             -3004,
             {"[ERROR] Bad RATE format, RATE should be JSON array."},
             {"Prio: 1, Rate: 1mbit"}},
        Scan{"[50,-5]",
             -3004,
             {"[ERROR] Bad RATE format, RATE should be JSON array."},
             {"Prio: 1, Rate: 1mbit"}},
        Scan{"[\"50\"]",
             -3004,
             {"[ERROR] Bad RATE format, RATE should be JSON array."},
             {"Prio: 1, Rate: 1mbit"}}));

TEST_F(Qos, RescanWithoutDocumentIsNotOpened) {
    ProcQoS shaper("eth1", 0, 0, "");
    EXPECT_EQ(shaper.rescan_config(), -3016);
}

TEST_F(Qos, RescanOfAnotherDocumentTypeIsAMissingSection) {
    write_document("qos.json", R"({"QOS":[1]})");
    ProcQoS shaper("eth1", 0, 0, "");
    EXPECT_EQ(shaper.rescan_config(), -3020);
    EXPECT_THAT(errors(), Contains("No QOS/RATE value."));
}

TEST_F(Qos, DefaultClassIsRecordedAndLogged) {
    write_document("qos.json", R"({"QOS":{"RATE":[10,10,10],"DEFAULT_CLASS":"2"}})");
    ProcQoS shaper("eth1", 0, 0, "");
    ASSERT_EQ(shaper.rescan_config(), 0);
    EXPECT_THAT(messages(), Contains("[DEBUG] default class: 2"));
}

TEST_F(Qos, RemainderBecomesAHiddenClassLoggedAsError) {
    write_rates("[50,30]");
    ProcQoS shaper("eth1", 0, 100000000, "");
    ASSERT_EQ(shaper.rescan_config(), 0);
    clear_log();
    EXPECT_EQ(shaper.check_qos(), 0);
    EXPECT_THAT(messages(), ElementsAre("[ERROR] QoS rate sum is smaller than ceiling rate.",
                                        "[DEBUG] Add the remains into a hidden Priority.",
                                        "[ERROR] Egress Ceiling: 12500000", "[ERROR] Egress Sum: 10125000",
                                        "[ERROR] Egress Diff: 2375000"));
    EXPECT_THAT(classes_of(shaper), ElementsAre("Prio: 1, Rate: 1mbit", "Prio: 2, Rate: 50mbit",
                                                "Prio: 3, Rate: 30mbit", "Prio: 4, Rate: 19mbit"));
}

TEST_F(Qos, NoRemainderAddsNothing) {
    write_rates("[50,50]");
    ProcQoS shaper("eth1", 0, 100000000, "");
    ASSERT_EQ(shaper.rescan_config(), 0);
    clear_log();
    EXPECT_EQ(shaper.check_qos(), 0);
    EXPECT_THAT(messages(), IsEmpty());
}

TEST_F(Qos, CeilingAboveTwoGigabytesIsMisjudged) {
    write_rates("[]");
    ProcQoS shaper("eth1", 0, 24000000000, "");
    ASSERT_EQ(shaper.rescan_config(), 0);
    clear_log();
    EXPECT_EQ(shaper.check_qos(), -3001);
    EXPECT_THAT(messages(), ElementsAre("[ERROR] QoS rate sum is larger than ceiling rate.",
                                        "[ERROR] Egress Ceiling: 3000000000", "[ERROR] Egress Sum: 30000000",
                                        "[ERROR] Egress Diff: -1324967296"));
}

// --- The tree

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

// --- Ingress

class QosIngress : public QosTree {
protected:
    void SetUp() override {
        QosTree::SetUp();
        REQUIRE_KERNEL_FEATURE("ingress");
        REQUIRE_KERNEL_FEATURE("u32");
        REQUIRE_KERNEL_FEATURE("mirred");
        REQUIRE_KERNEL_FEATURE("ifb");
        ip_batch({"link add ifb0 type ifb", "link set ifb0 up"});
        write_wan("100000000", kMbit10);
        write_rates("[50]");
    }
};

TEST_F(QosIngress, NoReceiveRateIsNoIngressPart) {
    write_wan("0", kMbit10);
    shape(0, "eth1");
    EXPECT_THAT(qdiscs("eth1"), Not(HasSubstr("ingress")));
    EXPECT_THAT(qdiscs("ifb0"), Not(HasSubstr("htb")));
}

// The egress tree fails on a kernel without fq; the ingress part is there all the same, and its result
// counts.
TEST_F(QosIngress, RunsAfterAFailedEgress) {
    const int result = shape(0, "eth1");
    EXPECT_EQ(result, has_fq_ ? 0 : 512);  // the raw status of the leaf command
    EXPECT_THAT(qdiscs("eth1"), HasSubstr("qdisc ingress ffff: parent ffff:fff1"));
    EXPECT_THAT(filters("eth1 ingress"), HasSubstr("mirred (Egress Redirect to device ifb0) stolen"));
    EXPECT_THAT(filters("eth1 ingress"), HasSubstr("match 00320000/00ff0000 at 8"));
    EXPECT_THAT(qdiscs("ifb0"), HasSubstr("qdisc htb 1: root refcnt 2 r2q 10 default 0x1"));
    EXPECT_THAT(classes("ifb0"), HasSubstr("class htb 1:1 root"));
    EXPECT_THAT(classes("ifb0"), HasSubstr("rate 100Mbit ceil 100Mbit"));
    if (has_fq_) return;
    EXPECT_THAT(errors(),
                testing::IsSupersetOf({"Setup QoS error.", "Setup ifb: ifb0 egress failed, Ret: 512"}));
}

TEST_F(QosIngress, EveryCommandIsLoggedWithItsRawStatus) {
    ProcQoS shaper("eth1", 100000000, 0, "");
    clear_log();
    const int result = shaper.setup_ingress_limit();
    EXPECT_THAT(
        messages(),
        ElementsAre(
            "[DEBUG] Setup ifb0's ingress 100mbits with type [htb].", "[DEBUG] Clean ifb0's Qdisc.",
            "[DEBUG] Command [/sbin/tc qdisc del dev ifb0 root], ret: 512",
            "[DEBUG] Command [/sbin/tc qdisc add dev ifb0 root handle 1: htb default 1], ret: 0",
            "[DEBUG] Command [/sbin/tc class add dev ifb0 parent 1: classid 1:1 htb rate 100000000 ceil "
            "100000000], ret: 0",
            "[DEBUG] Command [/sbin/tc qdisc add dev ifb0 parent 1:1 handle 10: fq], ret: " +
                std::to_string(result)));
}

TEST_F(QosIngress, DeletesWhatIsThereFirst) {
    ProcQoS shaper("eth1", 100000000, 0, "");
    shaper.setup_ingress_limit();
    clear_log();
    shaper.setup_ingress_limit();
    EXPECT_THAT(messages(),
                testing::IsSupersetOf(
                    {"[DEBUG] Command [/sbin/tc qdisc del dev ifb0 root], ret: 0",
                     "[DEBUG] Command [/sbin/tc qdisc add dev ifb0 root handle 1: htb default 1], ret: 0"}));
}

TEST_F(QosIngress, ReplacesWhatCouldNotBeDeleted) {
    Recorder tc("/sbin/tc");
    tc.when("qdisc show").prints("qdisc htb 1: root\nqdisc fq 10: parent 1:1\n");
    tc.when("class show").prints("class htb 1:1 root\n");
    tc.when("qdisc del").exits(2);
    ProcQoS shaper("eth1", 100000000, 0, "");
    EXPECT_EQ(shaper.setup_ingress_limit(), 0);
    EXPECT_THAT(
        tc.commands(),
        ElementsAre(
            "/sbin/tc qdisc del dev ifb0 root", "/sbin/tc qdisc show dev ifb0",
            "/sbin/tc qdisc replace dev ifb0 root handle 1: htb default 1", "/sbin/tc class show dev ifb0",
            "/sbin/tc class replace dev ifb0 parent 1: classid 1:1 htb rate 100000000 ceil 100000000",
            "/sbin/tc qdisc show dev ifb0", "/sbin/tc qdisc replace dev ifb0 parent 1:1 handle 10: fq"));
}

TEST_F(QosIngress, ResultIsTheLeafCommandsAlone) {
    Recorder tc("/sbin/tc");
    tc.exits(2);
    tc.when("handle 10: fq").exits(0);
    ProcQoS shaper("eth1", 100000000, 0, "");
    EXPECT_EQ(shaper.setup_ingress_limit(), 0);
    tc.when("handle 10: fq").exits(0);
    EXPECT_EQ(
        count_log("[DEBUG] Command [/sbin/tc qdisc add dev ifb0 root handle 1: htb default 1], ret: 512"), 1);
}

TEST_F(QosIngress, MissingIfbEndsIt) {
    ProcQoS shaper("eth0", 100000000, 0, "");
    EXPECT_EQ(shaper.check_ifb_iface(), -3005);
    EXPECT_EQ(shaper.setup_ingress_limit(), -3005);
    EXPECT_THAT(errors(), ElementsAre("No ifb iface: ifb-1"));
}

TEST_F(QosIngress, FilterIsTriedThreeTimesASecondApart) {
    ip_batch({"link del ifb0"});
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(shape(0, "eth1"), -3005);
    const auto took = std::chrono::steady_clock::now() - begin;
    EXPECT_EQ(count_log("[ERROR] Setup Ingress Filter failed, Ret: -3011"), 3);
    EXPECT_GE(took, std::chrono::seconds(3));
    EXPECT_LT(took, std::chrono::seconds(in_device_tier() ? 60 : 6));
    EXPECT_THAT(errors(),
                testing::IsSupersetOf({"No ifb iface: ifb0", "Setup ifb: ifb0 egress failed, Ret: -3005"}));
}

TEST_F(QosIngress, WaitForTheFilterEndsWithItsWorker) {
    ip_batch({"link del ifb0"});
    std::thread* thread = Worker::start([] { shape(0, "eth1"); });
    EXPECT_TRUE(wait_for_log("[ERROR] Setup Ingress Filter failed, Ret: -3011"));
    const auto begin = std::chrono::steady_clock::now();
    Worker::stop(thread);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(in_device_tier() ? 10 : 1));
}

TEST_F(QosIngress, ExistingIngressIsReportedAndKept) {
    must_run("tc qdisc add dev eth1 handle ffff: ingress");
    shape(0, "eth1");
    EXPECT_THAT(errors(), Contains("Setup Root Ingress failed, Ret: -3011"));
    EXPECT_THAT(filters("eth1 ingress"), HasSubstr("mirred"));
}

TEST_F(QosIngress, MissingToolIsTheShellsStatus) {
    Recorder tc("/sbin/tc");
    tc.exits(127);
    ProcQoS shaper("eth1", 100000000, 0, "");
    EXPECT_EQ(shaper.setup_ingress_limit(), 127 << 8);
}

}  // namespace
}  // namespace corvo::test
