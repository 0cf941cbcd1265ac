// The live view's text.
#include "ctl/watch.h"

#include <gmock/gmock.h>
#include <json/reader.h>

#include <sstream>

#include "ctl/daemon.h"

namespace {

using corvoctl::compose;
using ::testing::Contains;
using ::testing::HasSubstr;
using ::testing::StartsWith;

constexpr const char* kState = R"({"schema": 1, "device_id": 11, "hub": "21", "started": 1000, "ready": true,
 "last_apply": {"time": 1000, "good": true, "problems": []}, "failed_steps": {},
 "links": [{"ifname": "eth1", "id": 1, "status": "down", "since": 1090, "gateway": "192.0.2.1", "bandwidth": 50000000,
   "neighbour": {"state": "FAILED", "mac": ""},
   "report": {"ARP": {"neigh_status": "REACHABLE", "target_mac": "02:00:00:00:00:01"},
              "QDM": {"RATE": 25000000, "CEIL": 50000000, "COS": [{"1:100": {"RATE": 1, "CEIL": 2}}, {"1:20": {"RATE": 0, "CEIL": 2}}]}}},
  {"ifname": "ppp-eth2", "id": 2, "status": "up", "since": 1000, "gateway": "192.0.2.9", "bandwidth": 1,
   "report": {"PING": {"stat": 0}, "QDM": {"RATE": 0, "CEIL": 0, "COS": []}}}],
 "events": [{"time": 1000, "text": "brought up"}, {"time": 1090, "text": "link eth1 down"}]})";

Json::Value state() {
    Json::Value root;
    std::istringstream(kState) >> root;
    return root;
}

const std::vector<std::string> kRoutes = {
    "table 253 metric 100 default nexthop via 192.0.2.1 dev eth1 weight 5 nexthop via 192.0.2.9 dev ppp-eth2 "
    "weight 2 "};

TEST(Watch, FitsEightyByTwentyFour) {
    const auto lines = compose(state(), kRoutes, 1100, {80, 24});
    EXPECT_LE(lines.size(), 24U);
    for (const auto& line : lines) EXPECT_LE(line.size(), 80U) << line;
}

TEST(Watch, FitsAScreenThatIsTooSmall) {
    const auto lines = compose(state(), kRoutes, 1100, {20, 5});
    EXPECT_EQ(lines.size(), 5U);
    for (const auto& line : lines) EXPECT_LE(line.size(), 20U) << line;
}

TEST(Watch, ShowsALinkWithItsStateNeighbourWeightAndRate) {
    const auto lines = compose(state(), kRoutes, 1100, {80, 24});
    EXPECT_THAT(lines, Contains("eth1       down     10 s    FAILED      5      [########........] 25M/50M"));
    EXPECT_THAT(lines, Contains("ppp-eth2   up       100 s   -           2      [................] 0/0"));
}

TEST(Watch, OrdersClassesByNumber) {
    const auto lines = compose(state(), kRoutes, 1100, {80, 24});
    const auto at = [&](const std::string& start) {
        return std::find_if(lines.begin(), lines.end(),
                            [&](const std::string& l) { return l.rfind(start, 0) == 0; });
    };
    ASSERT_NE(at("    1:20"), lines.end());
    EXPECT_LT(at("    1:20"), at("    1:100"));
}

TEST(Watch, UsesEveryLineOfTheScreenForClassesAndCountsTheRest) {
    Json::Value busy = state();
    for (Json::Value& link : busy["links"]) {
        link["report"]["QDM"]["COS"] = Json::Value(Json::arrayValue);
        for (int i = 0; i < 15; ++i)
            link["report"]["QDM"]["COS"][i]["1:" + std::to_string(10 * (i + 1))]["RATE"] = 1;
    }
    for (int i = 0; i < 5; ++i) busy["events"].append(busy["events"][0]);
    const auto lines = compose(busy, kRoutes, 1100, {80, 24});
    EXPECT_EQ(lines.size(), 24U);
    EXPECT_THAT(lines, Contains("    and 9 more classes"));
    EXPECT_THAT(lines, Contains(StartsWith("ppp-eth2   up")));
}

TEST(Watch, KeepsLinksAndEventsInViewWhenManyStepsFailed) {
    Json::Value failed = state();
    for (int i = 0; i < 30; ++i) failed["failed_steps"]["tun:eth" + std::to_string(i)] = -3011;
    for (int i = 0; i < 30; ++i) failed["last_apply"]["problems"].append("p");
    failed["last_apply"]["good"] = false;
    const auto lines = compose(failed, kRoutes, 1100, {80, 24});
    EXPECT_THAT(lines, Contains("! and 27 more (corvoctl status)"));
    EXPECT_THAT(lines, Contains(StartsWith("ppp-eth2   up")));
    EXPECT_THAT(lines, Contains(HasSubstr("link eth1 down")));
}

TEST(Watch, ShowsTheNewestEventFirst) {
    const auto lines = compose(state(), kRoutes, 1100, {80, 24});
    const auto events = std::find(lines.begin(), lines.end(), "EVENTS");
    ASSERT_NE(events, lines.end());
    EXPECT_THAT(*(events + 1), HasSubstr("link eth1 down"));
}

TEST(Watch, SaysWhyDocumentsWereRefused) {
    Json::Value refused = state();
    refused["last_apply"]["good"] = false;
    refused["last_apply"]["problems"].append("site.json#/SITE_INFO: no");
    const auto lines = compose(refused, kRoutes, 1100, {80, 24});
    EXPECT_THAT(lines, Contains(StartsWith("! documents refused")));
    EXPECT_THAT(lines, Contains("!   site.json#/SITE_INFO: no"));
}

TEST(Watch, TakesAStatusDocumentOfAnyShape) {
    for (const char* text : {"null", "[]", "5", R"({"links": 3, "events": {}, "failed_steps": []})",
                             R"({"links": [1, {"report": []}], "events": [7]})"}) {
        Json::Value root;
        std::istringstream(text) >> root;
        EXPECT_NO_THROW(compose(root, {}, 1100, {80, 24})) << text;
        EXPECT_NO_THROW(corvoctl::status_lines(root, 1100)) << text;
    }
}

TEST(Watch, SaysWhichStepsFailedAndHowToLearnWhy) {
    Json::Value failed = state();
    failed["failed_steps"]["tun:eth1"] = -3011;
    EXPECT_THAT(corvoctl::status_lines(failed, 1100),
                Contains("FAILED tun:eth1: -3011 (corvoctl explain -3011)"));
}

}  // namespace
