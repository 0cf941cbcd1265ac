// The sets of default gateways with a kernel and a network information service that the tests answer.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <json/value.h>

#include <mutex>
#include <sstream>
#include <unordered_map>

#define class struct  // the sets' fields are no part of the interface, but they are what is looked at here
#include "corvosetup/route.h"
#undef class
#include "corvosetup/log.h"
#include "corvosetup/routing.h"
#include "foundation/json.h"
#include "support/files.h"
#include "support/log.h"

using corvo::test::clear_log;
using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

namespace {

using EntryMap = std::unordered_map<std::string, Json::Value>;

struct World {
    std::vector<std::string> edits;  // what reached the kernel
    int flush_result = 0;
    int add_result = 0;
    int hops_left = 1000;  // next hops that can still be allocated
    int service_result = 0;
    EntryMap wans;
    std::string asked_path;
    int asked_comprehensive = -1;
};
World* world = nullptr;

std::string describe(int op, const route_conf& record) {
    std::ostringstream text;
    text << op << " " << record.dst << "/" << record.prefixlen << " table " << record.table << " metric "
         << record.priority;
    for (const nexthop* hop = record.nexthops; hop != nullptr; hop = hop->next) {
        text << " [" << hop->gw << " " << hop->dev << " " << hop->weight << " " << int{hop->onlink} << "]";
    }
    return text.str();
}

}  // namespace

extern "C" int __wrap_edit_route(int op, route_conf* record) {
    world->edits.push_back(describe(op, *record));
    return op == 2 ? world->flush_result : world->add_result;
}
extern "C" nexthop* __real_add_nexthop(nexthop** head);
extern "C" nexthop* __wrap_add_nexthop(nexthop** head) {
    return world->hops_left-- > 0 ? __real_add_nexthop(head) : nullptr;
}
int answer_wans(EntryMap& out, std::string path, int comprehensive) asm(
    "__wrap__Z22get_available_wan_infoRSt13unordered_mapINSt7__cxx1112basic_stringIcSt11char_"
    "traitsIcESaIcEEEN4"
    "Json5ValueESt4hashIS5_ESt8equal_toIS5_ESaISt4pairIKS5_S7_EEES5_i");
int answer_wans(EntryMap& out, std::string path, int comprehensive) {
    world->asked_path = path;
    world->asked_comprehensive = comprehensive;
    if (world->service_result == 0) out = world->wans;
    return world->service_result;
}

namespace {

class DefaultGateways : public testing::Test {
protected:
    DefaultGateways() {
        world = &world_;
        reopen_setup_logger(log_);
        clear_log(log_);
        tmp_gws.gateways.clear();
        gws.gateways.clear();
    }
    ~DefaultGateways() override { reopen_setup_logger("/dev/null"); }

    // The log without the traces.
    std::vector<std::string> log() const {
        std::vector<std::string> texts;
        for (const std::string& text : corvo::test::log_texts(log_)) {
            if (text.find("route.cpp::") == std::string::npos) texts.push_back(text);
        }
        return texts;
    }
    // The traces, without line numbers.
    std::vector<std::string> traces() const {
        std::vector<std::string> texts;
        for (const std::string& text : corvo::test::log_texts(log_)) {
            const auto at = text.find("route.cpp::");
            if (at == std::string::npos) continue;
            texts.push_back(text.substr(0, at) + text.substr(text.find("::", at + 11) + 2));
        }
        return texts;
    }
    std::vector<std::string> gateways(const DefaultGws& set) const {
        std::vector<std::string> texts;
        for (const DefaultGw& gw : set.gateways) {
            texts.push_back(gw.dev + " " + gw.gw + " " + std::to_string(gw.bandwidth) + " " +
                            std::to_string(gw.weight));
        }
        return texts;
    }
    void wan(const std::string& ifname, const char* json) {
        corvo::parse_json(json, world_.wans[ifname]);
        world_.wans[ifname]["ifname"] = ifname;
    }

    corvo::test::TempDir dir_;
    std::string log_ = dir_ / "corvo.log";
    World world_;
    DefaultGws set_{253, 100};
};

TEST_F(DefaultGateways, GlobalSetsShareTable253AndDifferInMetric) {
    EXPECT_EQ(gws.table, 253u);
    EXPECT_EQ(gws.metric, 100u);
    EXPECT_EQ(tmp_gws.table, 253u);
    EXPECT_EQ(tmp_gws.metric, 99u);
}

TEST_F(DefaultGateways, AddingRebuildsTheRouteFlushFirst) {
    EXPECT_EQ(set_.add_gw("wan0", "192.0.2.1", 100000), 0);
    EXPECT_THAT(world_.edits, ElementsAre("2 default/0 table 253 metric 100",
                                          "0 default/0 table 253 metric 100 [192.0.2.1 wan0 1 0]"));
    EXPECT_THAT(log(), ElementsAre("[DEBUG] Add gateway: 192.0.2.1, dev: wan0, bandwidth: 100000",
                                   "[DEBUG] Flush default route table: 253, metric: 100",
                                   "[DEBUG] GCD: 100000", "[DEBUG] DEV [wan0], GW [192.0.2.1], WEIGHT [1]."));
}

TEST_F(DefaultGateways, WeightsAreTheBandwidthsOverTheirGreatestCommonDivisor) {
    set_.add_gw("a", "192.0.2.1", 100000);
    set_.add_gw("b", "192.0.2.2", 50000);
    EXPECT_EQ(set_.add_gw("c", "192.0.2.3", 20000), 0);
    EXPECT_EQ(set_.find_gcd(), 10000u);
    EXPECT_EQ(world_.edits.back(),
              "0 default/0 table 253 metric 100 [192.0.2.1 a 10 0] [192.0.2.2 b 5 0] [192.0.2.3 c 2 0]");
}

TEST_F(DefaultGateways, GcdOfOneGatewayIsItsBandwidthAndOfNoneIsOne) {
    EXPECT_EQ(set_.find_gcd(), 1u);
    set_.gateways.push_back({"a", "192.0.2.1", 777, 1});
    EXPECT_EQ(set_.find_gcd(), 777u);
    set_.gateways.push_back({"b", "192.0.2.2", 0, 1});
    EXPECT_EQ(set_.find_gcd(), 777u);
}

TEST_F(DefaultGateways, GcdKeepsAll64Bits) {
    set_.gateways.push_back({"a", "192.0.2.1", 0xc000000000000000UL, 1});
    set_.gateways.push_back({"b", "192.0.2.2", 0x8000000000000000UL, 1});
    EXPECT_EQ(set_.find_gcd(), 0x4000000000000000UL);
}

TEST_F(DefaultGateways, DuplicateDeviceIsRefusedAndChangesNothing) {
    set_.add_gw("wan0", "192.0.2.1", 5);
    world_.edits.clear();
    clear_log(log_);
    EXPECT_EQ(set_.add_gw("wan0", "192.0.2.9", 7), -3006);
    EXPECT_THAT(world_.edits, IsEmpty());
    EXPECT_THAT(gateways(set_), ElementsAre("wan0 192.0.2.1 5 1"));
    EXPECT_THAT(log(), ElementsAre("[ERROR] Duplicate dev: wan0, gateway: 192.0.2.9"));
}

TEST_F(DefaultGateways, LastGatewayIsKeptWithoutForce) {
    set_.add_gw("wan0", "192.0.2.1", 5);
    world_.edits.clear();
    clear_log(log_);
    EXPECT_EQ(set_.del_gw("wan0", false), 0);
    EXPECT_THAT(world_.edits, IsEmpty());
    EXPECT_THAT(gateways(set_), ElementsAre("wan0 192.0.2.1 5 1"));
    EXPECT_THAT(log(), ElementsAre("[WARNING] Skip Gateway deletion, gws: 1"));
}

TEST_F(DefaultGateways, UnforcedDeletionFromAnEmptySetIsSkippedToo) {
    EXPECT_EQ(set_.del_gw("wan0", false), 0);
    EXPECT_THAT(log(), ElementsAre("[WARNING] Skip Gateway deletion, gws: 0"));
}

TEST_F(DefaultGateways, ForcedDeletionOfTheLastFlushesAndReportsAnEmptySet) {
    set_.add_gw("wan0", "192.0.2.1", 5);
    world_.edits.clear();
    clear_log(log_);
    EXPECT_EQ(set_.del_gw("wan0", true), -3003);
    EXPECT_THAT(world_.edits, ElementsAre("2 default/0 table 253 metric 100"));
    EXPECT_THAT(gateways(set_), IsEmpty());
    EXPECT_THAT(log(), ElementsAre("[DEBUG] Delete gateway: 192.0.2.1, dev: wan0",
                                   "[DEBUG] Flush default route table: 253, metric: 100"));
}

TEST_F(DefaultGateways, DeletionKeepsTheOrderOfTheOthers) {
    for (const char* dev : {"a", "b", "c"}) set_.add_gw(dev, "192.0.2.1", 5);
    EXPECT_EQ(set_.del_gw("b", false), 0);
    EXPECT_THAT(gateways(set_), ElementsAre("a 192.0.2.1 5 1", "c 192.0.2.1 5 1"));
    EXPECT_EQ(world_.edits.back(), "0 default/0 table 253 metric 100 [192.0.2.1 a 1 0] [192.0.2.1 c 1 0]");
}

TEST_F(DefaultGateways, DeletingAnUnknownDeviceIsASuccessWithoutARebuild) {
    for (const char* dev : {"a", "b"}) set_.add_gw(dev, "192.0.2.1", 5);
    world_.edits.clear();
    clear_log(log_);
    EXPECT_EQ(set_.del_gw("zz", false), 0);
    EXPECT_THAT(world_.edits, IsEmpty());
    EXPECT_THAT(log(), ElementsAre("[DEBUG] Gateway has no iface: zz"));
}

TEST_F(DefaultGateways, AllBandwidthsZeroLeaveNoRoute) {
    EXPECT_EQ(set_.add_gw("wan0", "192.0.2.1", 0), -3004);
    EXPECT_THAT(world_.edits, ElementsAre("2 default/0 table 253 metric 100"));
    EXPECT_THAT(log(), ElementsAre("[DEBUG] Add gateway: 192.0.2.1, dev: wan0, bandwidth: 0",
                                   "[DEBUG] Flush default route table: 253, metric: 100", "[DEBUG] GCD: 0",
                                   "[ERROR] Weight reduciton failed."));
}

TEST_F(DefaultGateways, GatewayOfZeroBandwidthBesideOthersIsSentWithoutAWeight) {
    set_.add_gw("a", "192.0.2.1", 6);
    set_.add_gw("b", "192.0.2.2", 0);
    EXPECT_EQ(world_.edits.back(), "0 default/0 table 253 metric 100 [192.0.2.1 a 1 0] [192.0.2.2 b 0 0]");
}

TEST_F(DefaultGateways, WeightIsTheLowEightBits) {
    set_.add_gw("a", "192.0.2.1", 300);
    set_.add_gw("b", "192.0.2.2", 1);
    set_.add_gw("c", "192.0.2.3", 256);
    EXPECT_EQ(world_.edits.back(),
              "0 default/0 table 253 metric 100 [192.0.2.1 a 44 0] [192.0.2.2 b 1 0] [192.0.2.3 c 0 0]");
    EXPECT_THAT(log(), Contains("[DEBUG] DEV [a], GW [192.0.2.1], WEIGHT [300]."));
}

TEST_F(DefaultGateways, FailedFlushIsLoggedAndTheRebuildGoesOn) {
    world_.flush_result = -3010;
    EXPECT_EQ(set_.add_gw("wan0", "192.0.2.1", 5), 0);
    EXPECT_EQ(world_.edits.size(), 2u);
    EXPECT_THAT(log(), Contains("[ERROR] Flush default route table: 253, metric: 100 failed."));
}

TEST_F(DefaultGateways, FlushGwsReturnsTheResultOfTheFlush) {
    set_.add_gw("wan0", "192.0.2.1", 5);
    world_.flush_result = -3010;
    world_.edits.clear();
    EXPECT_EQ(set_.flush_gws(), -3010);
    EXPECT_THAT(gateways(set_), IsEmpty());
    EXPECT_THAT(world_.edits, ElementsAre("2 default/0 table 253 metric 100"));
}

TEST_F(DefaultGateways, GatewayWhoseRouteFailedStaysInTheSet) {
    world_.add_result = -12;
    EXPECT_EQ(set_.add_gw("wan0", "192.0.2.1", 5), -12);
    EXPECT_THAT(gateways(set_), ElementsAre("wan0 192.0.2.1 5 1"));
    EXPECT_THAT(log(), Contains("[ERROR] Add default route failed. table: 253, metric: 100, ret: -12"));
    world_.add_result = 0;
    EXPECT_EQ(set_.add_gw("wan1", "192.0.2.2", 5), 0);
    EXPECT_EQ(world_.edits.back(),
              "0 default/0 table 253 metric 100 [192.0.2.1 wan0 1 0] [192.0.2.2 wan1 1 0]");
}

TEST_F(DefaultGateways, NoMemoryForANextHopIsReported) {
    world_.hops_left = 0;
    EXPECT_EQ(set_.add_gw("wan0", "192.0.2.1", 5), -3010);
    EXPECT_THAT(world_.edits, ElementsAre("2 default/0 table 253 metric 100"));
    EXPECT_THAT(log(), Contains("[ERROR] Add default route failed. table: 253, metric: 100, ret: -3010"));
}

TEST_F(DefaultGateways, TextsThatDoNotFitAreNeverCutIntoOtherOnes) {
    EXPECT_EQ(set_.add_gw("wan0", "192.168.100.1000", 5), -3007);
    EXPECT_EQ(set_.del_gw("wan0", true), -3003);
    EXPECT_EQ(set_.add_gw("a-name-longer-than-15", "192.0.2.1", 5), -3005);
    for (const std::string& edit : world_.edits) EXPECT_EQ(edit[0], '2') << edit;
}

TEST_F(DefaultGateways, EveryMemberIsTraced) {
    set_.add_gw("wan0", "192.0.2.1", 5);
    EXPECT_THAT(traces(),
                ElementsAre("[DEBUG] Enter add_gw", "[DEBUG] Enter setup_default_gateways",
                            "[DEBUG] INIT Enter flush_default_route_table",
                            "[DEBUG] Exit flush_default_route_table: 0", "[DEBUG] Enter find_gcd",
                            "[DEBUG] Exit find_gcd: 5", "[DEBUG] Enter weight_reduction",
                            "[DEBUG] Exit weight_reduction: 0", "[DEBUG] Enter set_default_gateways",
                            "[DEBUG] Exit set_default_gateways: 0", "[DEBUG] Exit setup_default_gateways: 0",
                            "[DEBUG] Exit add_gw: 0"));
    clear_log(log_);
    set_.del_gw("wan0", false);
    set_.flush_gws();
    EXPECT_THAT(traces(),
                ElementsAre("[DEBUG] Enter del_gw", "[DEBUG] Exit del_gw: 0", "[DEBUG] Enter flush_gws",
                            "[DEBUG] INIT Enter flush_default_route_table",
                            "[DEBUG] Exit flush_default_route_table: 0", "[DEBUG] Exit flush_gws: 0"));
}

TEST_F(DefaultGateways, FreeFunctionsWorkOnTheMonitorsSet) {
    EXPECT_EQ(add_default_gateway("a", "192.0.2.1", 5), 0);
    EXPECT_EQ(add_default_gateway("b", "192.0.2.2", 5), 0);
    EXPECT_EQ(add_default_gateway("b", "192.0.2.2", 5), -3006);
    EXPECT_EQ(del_default_gateway("a", false), 0);
    EXPECT_THAT(gateways(gws), ElementsAre("b 192.0.2.2 5 1"));
    EXPECT_EQ(del_default_gateway("b", false), 0);
    EXPECT_EQ(del_default_gateway("b", true), -3003);
    EXPECT_THAT(gateways(tmp_gws), IsEmpty());
}

Json::Value ids(const char* json) {
    Json::Value value;
    corvo::parse_json(json, value);
    return value;
}

TEST_F(DefaultGateways, SetupDefFillsTheTemporarySetFromConfiguration) {
    wan("wan0", R"({"id": 1, "ip4_gw": "192.0.2.1", "tx_rate": 100000})");
    wan("wan1", R"({"id": 2, "ip4_gw": "192.0.2.2", "tx_rate": 50000})");
    wan("wan2", R"({"id": 3, "ip4_gw": "192.0.2.3", "tx_rate": 1})");
    tmp_gws.gateways.push_back({"old", "192.0.2.9", 1, 1});
    EXPECT_EQ(setup_def(ids("[2, 1]")), 0);
    EXPECT_EQ(world_.asked_path, "/etc/networkmanagement/device_info.json");
    EXPECT_EQ(world_.asked_comprehensive, 0);
    EXPECT_THAT(gateways(tmp_gws), ElementsAre("wan1 192.0.2.2 50000 1", "wan0 192.0.2.1 100000 2"));
    EXPECT_EQ(world_.edits.front(), "2 default/0 table 253 metric 99");
    EXPECT_EQ(world_.edits.back(),
              "0 default/0 table 253 metric 99 [192.0.2.2 wan1 1 0] [192.0.2.1 wan0 2 0]");
    EXPECT_THAT(log(), Contains("[TRACE] Gateway IDs: [2,1]"));
    EXPECT_THAT(gateways(gws), IsEmpty());
}

TEST_F(DefaultGateways, SetupDefIgnoresTheResultsOfTheAdds) {
    wan("wan0", R"({"id": 1, "ip4_gw": "192.0.2.1", "tx_rate": 0})");
    EXPECT_EQ(setup_def(ids("[1]")), 0);
    world_.add_result = -12;
    EXPECT_EQ(setup_def(ids("[1]")), 0);
}

TEST_F(DefaultGateways, SetupDefWithoutAnArrayIsRefusedBeforeTheServiceIsAsked) {
    for (const char* text : {"{}", "1", "\"1\"", "null"}) EXPECT_EQ(setup_def(ids(text)), -3004) << text;
    EXPECT_EQ(world_.asked_comprehensive, -1);
}

TEST_F(DefaultGateways, SetupDefLeavesTheSetAloneWhenIdsAndWansDoNotMatch) {
    wan("wan0", R"({"id": 1, "ip4_gw": "192.0.2.1", "tx_rate": 5})");
    tmp_gws.gateways.push_back({"old", "192.0.2.9", 1, 1});
    EXPECT_EQ(setup_def(ids("[1, 4]")), -3004);
    EXPECT_THAT(log(),
                ElementsAre("[TRACE] Gateway IDs: [1,4]", "[ERROR] IDs: 2 is not matched with WANs: 1"));
    EXPECT_THAT(gateways(tmp_gws), ElementsAre("old 192.0.2.9 1 1"));
    EXPECT_THAT(world_.edits, IsEmpty());
    EXPECT_EQ(setup_def(ids("[1, 1]")), -3004);
}

TEST_F(DefaultGateways, SetupDefReturnsTheServicesCode) {
    world_.service_result = -3023;
    EXPECT_EQ(setup_def(ids("[1]")), -3023);
    EXPECT_THAT(log(), ElementsAre("[ERROR] Get_available_wan_info failed."));
}

TEST_F(DefaultGateways, IdsMatchAsNumbersOrDecimalTextsAndNothingElse) {
    wan("wan0", R"({"id": "1", "ip4_gw": "192.0.2.1", "tx_rate": 5})");
    EXPECT_EQ(setup_def(ids("[1]")), 0);
    EXPECT_EQ(setup_def(ids("[\"1\"]")), 0);
    wan("wan0", R"({"id": 18446744073709551615, "ip4_gw": "192.0.2.1", "tx_rate": 5})");
    EXPECT_EQ(setup_def(ids("[18446744073709551615]")), 0);
    for (const char* id : {"-1", "true", "[]", "{}", "null", "1.5", "\"1x\"", "\"\"", "\" 1\""}) {
        wan("wan0", (std::string(R"({"id": )") + id + "}").c_str());
        EXPECT_EQ(setup_def(ids((std::string("[") + id + "]").c_str())), -3004) << id;
    }
}

TEST_F(DefaultGateways, SetupDefOfNoIdsEmptiesTheSet) {
    tmp_gws.gateways.push_back({"old", "192.0.2.9", 1, 1});
    EXPECT_EQ(setup_def(ids("[]")), 0);
    EXPECT_THAT(gateways(tmp_gws), IsEmpty());
    EXPECT_THAT(world_.edits, ElementsAre("2 default/0 table 253 metric 99"));
}

TEST_F(DefaultGateways, DaemonEntriesMakeARemovedLogFileAgain) {
    std::filesystem::remove(log_);
    del_default_gateway("a", false);
    EXPECT_THAT(corvo::test::log_texts(log_), Contains("[DEBUG] Reopen setup_logger to " + log_));
}

}  // namespace
