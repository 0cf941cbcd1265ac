// edit_route6 on the kernel.

#include <gtest/gtest.h>
#include <netlink/errno.h>

#include "routes.h"
#include "support/recorder.h"

namespace {

using namespace corvo::test;

class Routes6 : public Routes {
protected:
    void SetUp() override {
        Routes::SetUp();
        ip_batch({"addr add fd00::1/64 dev v0 nodad", "addr add fd01::1/64 dev w0 nodad"});
    }
    void TearDown() override {
        free_nexthop6(record_.nexthops);
        record_.nexthops = nullptr;
    }
    route6_conf* record(const std::string& dst, int length, int table, int priority) {
        TearDown();
        record_ = {};
        record_.table = table;
        record_.priority = priority;
        record_.prefixlen = length;
        corvo::copy_text(record_.dst, dst);
        return &record_;
    }
    void hop(const std::string& gw, const std::string& dev, int weight = 0) {
        nexthop6* added = add_nexthop6(&record_.nexthops);
        corvo::copy_text(added->gw, gw);
        corvo::copy_text(added->dev, dev);
        added->weight = weight;
    }
    route6_conf record_{};
};

TEST_F(Routes6, AddsARouteWithEverything) {
    record("fd10::", 64, 1000, 7);
    record_.mtu = 1460;
    record_.advmss = 1400;
    hop("fd00::2", "v0");
    ASSERT_EQ(edit_route6(0, &record_), 0);
    EXPECT_EQ(text(1000, "-6"),
              "fd10::/64 via fd00::2 dev v0 proto static metric 7 mtu 1460 advmss 1400 pref medium\n");
}

TEST_F(Routes6, WeightsAreNotSent) {
    record("fd10::", 64, 1000, 7);
    hop("fd00::2", "v0", 5);
    hop("fd01::2", "w0", 9);
    ASSERT_EQ(edit_route6(0, &record_), 0);
    const Json::Value hops = table(1000, "-6")[0]["nexthops"];
    ASSERT_EQ(hops.size(), 2U);
    EXPECT_EQ(hops[0]["weight"].asInt(), 1);
    EXPECT_EQ(hops[1]["weight"].asInt(), 1);
}

TEST_F(Routes6, AddReplacesByTheCommand) {
    ip_batch({"route add table 1000 fd10::/64 via fd00::9 metric 7",
              "route add table 1000 fd10::/64 via fd00::9 metric 8"});
    record("fd10::", 64, 1000, 7);
    hop("fd00::2", "v0");
    Recorder ip("/usr/sbin/ip");
    ip.always().runs_real();
    ASSERT_EQ(edit_route6(0, &record_), 0);
    EXPECT_EQ(ip.commands(),
              std::vector<std::string>{"/usr/sbin/ip -6 route flush table 1000 fd10::/64 metric 7"});
    EXPECT_EQ(text(1000, "-6"),
              "fd10::/64 via fd00::2 dev v0 proto static metric 7 pref medium\n"
              "fd10::/64 via fd00::9 dev v0 metric 8 pref medium\n");
}

TEST_F(Routes6, AddThatMeetsARouteAnswersItExists) {
    ip_batch({"route add table 1000 fd10::/64 via fd00::9 metric 7"});
    record("fd10::", 64, 1000, 7);
    hop("fd00::9", "v0");
    Recorder ip("/usr/sbin/ip");  // removes nothing
    EXPECT_EQ(edit_route6(0, &record_), -NLE_EXIST);
}

TEST_F(Routes6, FlushIsOnlyTheCommandAndItsStatusIsNotLookedAt) {
    ip_batch({"route add table 1000 fd10::/64 via fd00::9 metric 7"});
    Recorder ip("/usr/sbin/ip");
    ip.exits(2);
    EXPECT_EQ(edit_route6(2, record("fd10::", 64, 1000, 7)), 0);
    EXPECT_EQ(ip.commands(),
              std::vector<std::string>{"/usr/sbin/ip -6 route flush table 1000 fd10::/64 metric 7"});
    EXPECT_EQ(table(1000, "-6").size(), 1U);
}

TEST_F(Routes6, FlushOfAnEmptyDestinationNamesTheWholeRange) {
    Recorder ip("/usr/sbin/ip");
    EXPECT_EQ(edit_route6(2, record("", 0, 1000, 7)), 0);
    EXPECT_EQ(edit_route6(2, record("default", 0, 1000, 7)), 0);
    EXPECT_EQ(ip.commands(),
              (std::vector<std::string>{"/usr/sbin/ip -6 route flush table 1000 ::/0 metric 7",
                                        "/usr/sbin/ip -6 route flush table 1000 default/0 metric 7"}));
}

// The length stands in the command as the record has it; route documents have been written around that.
TEST_F(Routes6, FlushWithoutALengthTakesTheDefaultRouteAndNotTheHost) {
    ip_batch({"route add table 1000 default via fd00::9 metric 7",
              "route add table 1000 fd10::1/128 via fd00::9 metric 7"});
    EXPECT_EQ(edit_route6(2, record("fd10::1", 0, 1000, 7)), 0);
    EXPECT_EQ(text(1000, "-6"), "fd10::1 via fd00::9 dev v0 metric 7 pref medium\n");
}

TEST_F(Routes6, NothingButAddressesReachesTheCommand) {
    Recorder ip("/usr/sbin/ip");
    for (const char* text : {"fd10::;id", "$(id)", "fd10:: x", "10.1.0.0", "-6", "`id`"}) {
        for (const int op : {0, 1, 2, 3})
            EXPECT_EQ(edit_route6(op, record(text, 64, 1000, 7)), -3007) << text;
    }
    EXPECT_TRUE(ip.commands().empty());
}

TEST_F(Routes6, NothingIsSentOrRunForUnreadableNextHops) {
    Recorder ip("/usr/sbin/ip");
    record("fd10::", 64, 1000, 7);
    hop("10.0.0.1", "v0");
    EXPECT_EQ(edit_route6(0, &record_), -3007);
    record("fd10::", 64, 1000, 7);
    hop("fd00::2", "missing");
    EXPECT_EQ(edit_route6(0, &record_), -3005);
    EXPECT_TRUE(ip.commands().empty());
}

TEST_F(Routes6, DeletesTheRouteDescribed) {
    record("fd10::", 64, 1000, 7);
    hop("fd00::2", "v0");
    ASSERT_EQ(edit_route6(0, &record_), 0);
    EXPECT_EQ(edit_route6(1, &record_), 0);
    EXPECT_EQ(table(1000, "-6").size(), 0U);
    EXPECT_EQ(edit_route6(1, &record_), -NLE_OBJ_NOTFOUND);
}

TEST_F(Routes6, EmptyDestinationIsTheDefaultRouteOfItsTable) {
    record("", 0, 1000, 7);
    hop("fd00::2", "v0");
    ASSERT_EQ(edit_route6(0, &record_), 0);
    ASSERT_EQ(edit_route6(0, &record_), 0);
    EXPECT_EQ(text(1000, "-6"), "default via fd00::2 dev v0 proto static metric 7 pref medium\n");
}

TEST_F(Routes6, PrintsMatchingRoutes) {
    ip_batch({"route add table 1000 fd10::/64 via fd00::9 metric 7",
              "route add table 1000 fd11::1/128 metric 8 nexthop via fd00::9 dev v0 nexthop via fd01::9 "
              "dev w0 weight 3"});
    EXPECT_EQ(captured([&] { EXPECT_EQ(edit_route6(3, record("", 0, 1000, 0)), 0); }),
              "table 1000 metric 7 fd10::/64 via fd00::9 dev v0 \n"
              "table 1000 metric 8 fd11::1 nexthop via fd00::9 dev v0 weight 1 nexthop via fd01::9 dev w0 "
              "weight 3 \n");
}

}  // namespace
