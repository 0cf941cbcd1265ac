// WAN shaping: the entry and the object, documents, codes and messages.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "qos_fixture.h"

namespace corvo::test {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

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

}  // namespace
}  // namespace corvo::test
