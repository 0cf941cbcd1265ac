// What "corvoctl check" finds, and what it lets pass.
#include "check/check.h"

#include <gmock/gmock.h>
#include <json/reader.h>

#include <filesystem>
#include <fstream>

namespace {

using check::Checker;
using check::Finding;
using check::Kind;
using check::Severity;
using ::testing::Contains;
using ::testing::IsEmpty;
using ::testing::Not;

Json::Value parse(const std::string& text) {
    Json::CharReaderBuilder builder;
    Json::Value root;
    std::istringstream in(text);
    std::string errors;
    EXPECT_TRUE(Json::parseFromStream(builder, in, &root, &errors)) << errors;
    return root;
}

std::vector<Finding> findings_of(Kind kind, const std::string& text, const std::string& interfaces = {}) {
    check::Options options;
    options.schema_directory = SCHEMAS;
    options.kernel_interfaces = interfaces;
    Checker checker(options);
    checker.add_document(kind, "document.json", parse(text));
    return checker.run();
}

MATCHER_P3(FindingAt, severity, pointer, part, "") {
    *result_listener << arg.pointer << ": " << arg.text;
    return arg.severity == severity && arg.pointer == pointer && arg.text.find(part) != std::string::npos;
}
auto ErrorAt(const std::string& pointer, const std::string& part) {
    return FindingAt(Severity::kError, pointer, part);
}
auto WarningAt(const std::string& pointer, const std::string& part) {
    return FindingAt(Severity::kWarning, pointer, part);
}

TEST(Check, PassesTheExamples) {
    check::Options options;
    options.schema_directory = SCHEMAS;
    options.kernel_interfaces.clear();
    Checker checker(options);
    ASSERT_TRUE(checker.add(EXAMPLE_DOCUMENTS));
    EXPECT_GE(checker.documents(), 10U);
    for (const auto& finding : checker.run())
        ADD_FAILURE() << finding.file << "#" << finding.pointer << ": " << finding.text;
}

TEST(Check, NamesAMissingSection) {
    EXPECT_THAT(findings_of(Kind::kDeviceInfo, "{}"), Contains(ErrorAt("", "WAN_IFACE_INFO")));
}

TEST(Check, NamesTheMemberOfTheWrongType) {
    EXPECT_THAT(findings_of(Kind::kDeviceInfo, R"({"WAN_IFACE_INFO": {"eth1": {"ID": "1", "TX_RATE": []}}})"),
                Contains(ErrorAt("/WAN_IFACE_INFO/eth1/TX_RATE", "")));
}

TEST(Check, RefusesTwoLinksOfOneId) {
    EXPECT_THAT(
        findings_of(
            Kind::kDeviceInfo,
            R"({"WAN_IFACE_INFO": {"eth1": {"ID": "1", "TX_RATE": "1"}, "eth2": {"ID": "1", "TX_RATE": "1"}}})"),
        Contains(ErrorAt("/WAN_IFACE_INFO/eth2/ID", "eth2 has the id of eth1")));
}

TEST(Check, RefusesTwoLinksOfOneTunnelDevice) {
    EXPECT_THAT(findings_of(Kind::kDeviceInfo, R"({"WAN_IFACE_INFO": {"eth1": {"ID": "3", "TX_RATE": "1"}},
                            "PRIVATE_IFACE_INFO": {"swdev3": {"ID": "7", "TX_RATE": "1"}}})"),
                Contains(ErrorAt("/PRIVATE_IFACE_INFO/swdev3", "both make the tunnel device tun3")));
}

TEST(Check, WarnsOfMarksThatCollideUnderTheMask) {
    EXPECT_THAT(
        findings_of(
            Kind::kDeviceInfo,
            R"({"WAN_IFACE_INFO": {"eth1": {"ID": "1", "TX_RATE": "1"}, "eth2": {"ID": "17", "TX_RATE": "1"}}})"),
        Contains(WarningAt("/WAN_IFACE_INFO/eth2", "the same packet mark 1")));
}

TEST(Check, WarnsOfAMarkThatMatchesUnmarkedPackets) {
    EXPECT_THAT(
        findings_of(Kind::kDeviceInfo, R"({"WAN_IFACE_INFO": {"eth1": {"ID": "16", "TX_RATE": "1"}}})"),
        Contains(WarningAt("/WAN_IFACE_INFO/eth1", "low four bits 0")));
}

TEST(Check, RefusesAnIdThatNoConditionFileHas) {
    EXPECT_THAT(
        findings_of(Kind::kDeviceInfo, R"({"WAN_IFACE_INFO": {"eth1": {"ID": "256", "TX_RATE": "1"}}})"),
        Contains(ErrorAt("/WAN_IFACE_INFO/eth1/ID", "256")));
}

TEST(Check, RefusesAnAddressThatIsNone) {
    EXPECT_THAT(
        findings_of(Kind::kDeviceInfo,
                    R"({"WAN_IFACE_INFO": {"eth1": {"ID": "1", "TX_RATE": "1", "IP4_GW": "192.0.2.300"}}})"),
        Contains(ErrorAt("/WAN_IFACE_INFO/eth1/IP4_GW", "192.0.2.300")));
}

TEST(Check, WarnsOfAnInterfaceThatIsNotThere) {
    EXPECT_THAT(
        findings_of(Kind::kDeviceInfo, R"({"WAN_IFACE_INFO": {"nonesuch0": {"ID": "1", "TX_RATE": "1"}}})",
                    "/sys/class/net"),
        Contains(WarningAt("/WAN_IFACE_INFO/nonesuch0", "there is no interface nonesuch0")));
}

TEST(Check, WarnsOfTunnelsThatShareRulePriorities) {
    const std::string interfaces = testing::TempDir() + "/check-interfaces";
    std::filesystem::create_directories(interfaces + "/tun3");
    std::ofstream(interfaces + "/tun3/ifindex") << "7\n";
    const auto findings = [&](const std::string& id) {
        return findings_of(Kind::kDeviceInfo,
                           R"({"WAN_IFACE_INFO": {"eth1": {"ID": ")" + id + R"(", "TX_RATE": "1"}},
                            "PRIVATE_IFACE_INFO": {"swdev3": {"ID": "3", "TX_RATE": "1"}}})",
                           interfaces);
    };
    EXPECT_THAT(findings("7"),
                Contains(WarningAt("/WAN_IFACE_INFO/eth1/ID", "shares its rule priorities with tun3")));
    EXPECT_THAT(findings("6"),
                Not(Contains(WarningAt("/WAN_IFACE_INFO/eth1/ID", "shares its rule priorities"))));
    std::filesystem::remove_all(interfaces);
}

TEST(Check, RefusesSharesAboveAHundred) {
    EXPECT_THAT(findings_of(Kind::kQos, R"({"QOS": {"RATE": [60, 41]}})"),
                Contains(ErrorAt("/QOS/RATE", "101 percent")));
    EXPECT_THAT(findings_of(Kind::kQos, R"({"QOS": {"RATE": [60, 40]}})"), IsEmpty());
}

TEST(Check, WarnsOfSharesBehindAZero) {
    EXPECT_THAT(findings_of(Kind::kQos, R"({"QOS": {"RATE": [60, 0, 30]}})"),
                Contains(WarningAt("/QOS/RATE/2", "ignored")));
}

TEST(Check, RefusesTheFifteenthShare) {
    EXPECT_THAT(findings_of(Kind::kQos, R"({"QOS": {"RATE": [1,1,1,1,1,1,1,1,1,1,1,1,1,1,1]}})"),
                Contains(ErrorAt("/QOS/RATE", "15 classes")));
}

TEST(Check, RefusesALanRuleWithoutItsGroup) {
    EXPECT_THAT(findings_of(Kind::kLanQos, R"({"GROUPS": [{"PRIO": "1"}], "UPLINK": [{"PRIO": "2"}]})"),
                Contains(ErrorAt("/UPLINK/0/PRIO", "no group")));
}

TEST(Check, RefusesAMacThatIsNone) {
    EXPECT_THAT(
        findings_of(Kind::kLanQos,
                    R"({"GROUPS": [{"PRIO": "1"}], "DOWNLINK": [{"PRIO": "1", "DMAC": "00:11:22:33:44"}]})"),
        Contains(ErrorAt("/DOWNLINK/0/DMAC", "no MAC address")));
}

TEST(Check, RefusesAHubThatIsNoSite) {
    EXPECT_THAT(
        findings_of(Kind::kSite,
                    R"({"SITE_INFO": {"1": {"ROLE": "EDGE", "HUB": "9", "GROUP_ID": "g", "DOMAIN": "d"}}})"),
        Contains(ErrorAt("/SITE_INFO/1/HUB", "no hub \"9\"")));
}

TEST(Check, RefusesADefaultRouteWrittenAsZeroes) {
    EXPECT_THAT(findings_of(Kind::kRoute,
                            R"({"add": [{"SITE": "2", "DEST": "0.0.0.0/0", "RTA_GATEWAY": ["10.0.0.1"]}]})"),
                Contains(ErrorAt("/add/0/DEST", "a length of 0 is refused")));
}

TEST(Check, RefusesGatewaysWithoutTheirWeights) {
    EXPECT_THAT(findings_of(Kind::kRoute, R"({"add": [{"SITE": "2", "DEST": "10.0.0.0/8",
                             "RTA_GATEWAY": ["10.0.0.1", "10.0.0.2"], "WEIGHT": ["1"]}]})"),
                Contains(ErrorAt("/add/0/WEIGHT", "need a weight each")));
}

TEST(Check, RefusesPrivateRoutesWithUnequalCounts) {
    EXPECT_THAT(findings_of(Kind::kRoutePrivate, R"({"add": [{"SITE": "2", "DEST": "10.0.0.0/8",
                             "RTA_GATEWAY": ["10.0.0.1"], "WEIGHT": ["1"], "LOCAL_PORT": []}]})"),
                Contains(ErrorAt("/add/0", "not equal in number")));
}

TEST(Check, NamesAFileThatIsNoJson) {
    const std::string path = ::testing::TempDir() + "/qos.json";
    std::ofstream(path) << "{\"QOS\": ";
    check::Options options;
    options.schema_directory = SCHEMAS;
    Checker checker(options);
    ASSERT_TRUE(checker.add(path));
    EXPECT_THAT(checker.run(), Contains(ErrorAt("", "not readable as JSON")));
}

TEST(Check, SaysWhenThereIsNoSuchFile) {
    Checker checker({});
    EXPECT_FALSE(checker.add("/nonesuch/document.json"));
}

TEST(Check, EveryFindingSaysWhatToDo) {
    for (const auto& finding :
         findings_of(Kind::kDeviceInfo, R"({"WAN_IFACE_INFO": {"eth1": {"ID": "x", "IP4_ADDR": 5}}})"))
        EXPECT_FALSE(finding.advice.empty()) << finding.text;
}

}  // namespace
