// The monitor object on real devices: all members together.

#include "corvosetup/wm_obj.h"

#include <gmock/gmock.h>

#include <thread>

#include "support/layout.h"
#include "wan.h"

namespace corvo::test {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsSupersetOf;
using testing::UnorderedElementsAre;

class WholeMonitor : public MonitorTest {
protected:
    WholeMonitor() { wan.neighbour("permanent"); }

    std::unique_ptr<WmObj> make(const std::string& dev, const std::string& type = "WAN",
                                const std::string& target = "192.0.1.1") {
        WmObj* object = nullptr;
        EXPECT_EQ(Create_wm_obj(&object, dev, target, 1000, type, 1), 0);
        return std::unique_ptr<WmObj>(object);
    }
    static bool reported(WmObj& object, const char* member) {
        return wait_until([&] {
            const Json::Value state = object.get_state();
            const Json::Value& report = state[object.get_dev()];
            return !report[member].isNull() && !report["QDM"].isNull();
        });
    }
};

TEST_F(WholeMonitor, RunsItsMembersAndShowsTheirReports) {
    auto object = make("eth1");
    EXPECT_EQ(object->start(), 0);
    ASSERT_TRUE(reported(*object, "ARP"));
    const Json::Value state = object->get_state();
    EXPECT_THAT(state["eth1"].getMemberNames(), UnorderedElementsAre("TYPE", "ARP", "QDM"));
    EXPECT_EQ(state["eth1"]["ARP"]["stat"], Json::Value(0));
    EXPECT_EQ(state["eth1"]["QDM"]["QLEN"], Json::Value(Json::UInt64(0)));
    EXPECT_TRUE(wait_until([] {
        return run_line("ss -Hlun sport = :7788").out.find("192.0.1.2:7788") != std::string::npos;
    })) << "the responder listens on the WAN's address";
    EXPECT_EQ(object->stop(), 0);
}

TEST_F(WholeMonitor, PointToPointLinkShowsPingAndTheQueuesOfItsSlave) {
    auto object = make("ppp-eth1");
    EXPECT_EQ(object->start(), 0);
    ASSERT_TRUE(reported(*object, "PING"));
    const Json::Value state = object->get_state();
    EXPECT_THAT(state["ppp-eth1"].getMemberNames(), UnorderedElementsAre("TYPE", "PING", "QDM"));
    EXPECT_EQ(state["ppp-eth1"]["PING"]["stat"], Json::Value(0));
    EXPECT_EQ(object->stop(), 0);
}

TEST_F(WholeMonitor, SecondStartIsRefusedByEachMemberAndReturnsTheLastOnesResult) {
    auto object = make("eth1");
    EXPECT_EQ(object->start(), 0);
    clear_log();
    EXPECT_EQ(object->start(), -3026);
    EXPECT_THAT(texts(), IsSupersetOf({"[ERROR] Dev: eth1's arp start failed, Ret: -3026",
                                       "[ERROR] Dev: eth1's qdm start failed, Ret: -3026",
                                       "[ERROR] Dev: eth1's udp start failed, Ret: -3026"}));
    EXPECT_EQ(object->stop(), 0);
}

TEST_F(WholeMonitor, SecondStartOfAPointToPointLinkSaysPing) {
    auto object = make("ppp-eth1");
    object->start();
    EXPECT_EQ(object->start(), -3026);
    EXPECT_EQ(count_log("[ERROR] Dev: ppp-eth1's ping start failed, Ret: -3026"), 1);
    object->stop();
}

TEST_F(WholeMonitor, FailureOfAnEarlierMemberDoesNotShowInTheResult) {
    auto object = make("eth1");
    // Only the first member is running when the whole is started.
    ASSERT_EQ(object->start(), 0);
    ASSERT_EQ(object->stop(), 0);
    clear_log();
    EXPECT_EQ(object->stop(), 0) << "the queue monitor complains, the responder does not";
    EXPECT_EQ(count_log("[ERROR] eth1's has no running arping thread task."), 1);
}

TEST_F(WholeMonitor, StopReportsTheLinkDown) {
    auto object = make("eth1");
    object->start();
    ASSERT_TRUE(reported(*object, "ARP"));
    EXPECT_EQ(condition("PORT1"), "1");
    object->stop();
    EXPECT_EQ(condition("PORT1"), "0");
    EXPECT_EQ(services->count("nm-halor.UpdateWanNexthopStatus {\"id\":1,\"stat\":1}"), 1);
}

TEST_F(WholeMonitor, DestructionWithoutStopEndsTheThreadsAndReportsNothing) {
    LeakCheck leaks;
    auto object = make("eth1");
    object->start();
    ASSERT_TRUE(reported(*object, "ARP"));
    services->forget();
    object.reset();
    EXPECT_EQ(condition("PORT1"), "1");
    EXPECT_THAT(services->texts(), ElementsAre());
    EXPECT_THAT(default_gateways(), ElementsAre("192.0.1.1"));
}

TEST_F(WholeMonitor, LowerCaseWanIsNoWan) {
    auto object = make("eth1", "wan");
    object->start();
    ASSERT_TRUE(reported(*object, "ARP"));
    EXPECT_THAT(default_gateways(), ElementsAre());
    EXPECT_EQ(services->count("nm-halor.Update_private_nexthop_status {\"portname\":\"PORT1\",\"stat\":0}"),
              1);
    EXPECT_EQ(object->get_state()["eth1"]["TYPE"], Json::Value("wan"));
    object->stop();
}

TEST_F(WholeMonitor, BandwidthGoesToTheProbe) {
    auto ethernet = make("eth1");
    EXPECT_EQ(ethernet->reset_bandwidth(5), 0);
    EXPECT_EQ(ethernet->reset_bandwidth(0), -3004) << "the code of adding the gateway";
    gws.flush_gws();
    auto point_to_point = make("ppp-eth1");
    EXPECT_EQ(point_to_point->reset_bandwidth(0), -3004);
}

TEST_F(WholeMonitor, ConditionIsReloadedFromTheProbe) {
    auto ethernet = make("eth1");
    EXPECT_EQ(ethernet->reload_nf_condition(), 0);
    EXPECT_EQ(condition("PORT1"), "1");
    write_file("/proc/net/nf_condition/PORT1", "0");
    auto point_to_point = make("ppp-eth1");
    EXPECT_EQ(point_to_point->reload_nf_condition(), 0);
    EXPECT_EQ(condition("PORT1"), "1");
}

TEST_F(WholeMonitor, DebugLevelReachesEveryMember) {
    constexpr std::size_t kNeigh = 104, kPing = 112, kQdm = 120, kUdp = 128;
    auto ethernet = make("eth1");
    auto point_to_point = make("ppp-eth1");
    ethernet->setup_dbg(3);
    point_to_point->setup_dbg(4);
    EXPECT_EQ(field<int>(field<void*>(ethernet.get(), kNeigh), 4), 3);
    EXPECT_EQ(field<void*>(ethernet.get(), kPing), nullptr);
    EXPECT_EQ(field<int>(field<void*>(ethernet.get(), kQdm), 4), 3);
    EXPECT_EQ(field<int>(field<void*>(ethernet.get(), kUdp), 8), 3);
    EXPECT_EQ(field<void*>(point_to_point.get(), kNeigh), nullptr);
    EXPECT_EQ(field<int>(field<void*>(point_to_point.get(), kPing), 4), 4);
    EXPECT_EQ(field<int>(field<void*>(point_to_point.get(), kQdm), 4), 4);
    EXPECT_EQ(field<int>(field<void*>(point_to_point.get(), kUdp), 8), 4);
}

TEST_F(WholeMonitor, IsStartedAndStoppedFromFourThreads) {
    const ShortPeriods shorter(std::chrono::milliseconds(2));
    for (const char* dev : {"eth1", "ppp-eth1"}) {
        auto object = make(dev);
        LeakCheck leaks;
        std::vector<std::thread> threads;
        for (int n = 0; n < 4; ++n) {
            threads.emplace_back([&, n] {
                for (int round = 0; round < 25; ++round) {
                    if ((round + n) % 2 == 0) {
                        object->start();
                    } else {
                        object->stop();
                    }
                    object->get_state();
                }
            });
        }
        for (auto& thread : threads) thread.join();
        object->stop();
        EXPECT_EQ(condition("PORT1"), "0");
        EXPECT_EQ(object->start(), 0) << "nothing of the hammering is left";
        EXPECT_EQ(object->stop(), 0);
    }
}

TEST_F(WholeMonitor, MakingAndEndingLeavesNothingBehind) {
    LeakCheck leaks;
    for (int round = 0; round < 20; ++round) {
        auto object = make(round % 2 ? "ppp-eth1" : "eth1");
        object->start();
        if (round % 3 != 0) object->stop();
        WmObj* failed = nullptr;
        EXPECT_EQ(Create_wm_obj(&failed, "none", "192.0.1.1", 1, "WAN", 1), -3010);
    }
}

}  // namespace
}  // namespace corvo::test
