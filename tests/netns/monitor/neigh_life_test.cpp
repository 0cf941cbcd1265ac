// Starting, stopping and ending the neighbour probe.

#include <gmock/gmock.h>
#include <unistd.h>

#include <thread>

#include "support/recorder.h"
#include "wan.h"

namespace corvo::test {
namespace {

using namespace std::chrono_literals;
using testing::Contains;
using testing::ElementsAre;
using testing::IsSupersetOf;
using testing::MatchesRegex;
using Clock = std::chrono::steady_clock;

class NeighLife : public MonitorTest {
protected:
    NeighLife() { wan.neighbour("permanent"); }

    static bool reported(ProcNeigh& probe) {
        return wait_until([&] { return !probe.get_state().isNull(); });
    }
};

TEST_F(NeighLife, WorkerSaysWhoItIsAndReports) {
    auto probe = wan.probe();
    clear_log();
    ASSERT_EQ(probe->start(), 0);
    EXPECT_TRUE(reported(*probe));
    EXPECT_THAT(log_texts(), Contains(MatchesRegex("\\[DEBUG\\] NEIGH: eth1 <" + std::to_string(::getpid()) +
                                                   ">, @[0-9]+")));
    EXPECT_EQ(probe->stop(), 0);
}

TEST_F(NeighLife, CyclesComeEveryTwoSeconds) {
    auto probe = wan.probe();
    wan.neighbour("failed");
    clear_log();
    const auto begin = Clock::now();
    ASSERT_EQ(probe->start(), 0);
    ASSERT_TRUE(wait_for_log("[ERROR] eth1 get neigh failed, count: 2"));
    const auto taken = Clock::now() - begin;
    EXPECT_GE(taken, 2000ms);
    EXPECT_LT(taken, 2500ms);
    probe->stop();
}

TEST_F(NeighLife, SecondStartIsRefused) {
    auto probe = wan.probe();
    ASSERT_EQ(probe->start(), 0);
    EXPECT_EQ(probe->start(), -3026);
    EXPECT_EQ(count_log("[ERROR] eth1's neigh thread task has been started already."), 1);
    probe->stop();
    EXPECT_EQ(probe->start(), 0) << "after a stop it may start again";
    probe->stop();
}

TEST_F(NeighLife, StopInterruptsTheSleep) {
    auto probe = wan.probe();
    ASSERT_EQ(probe->start(), 0);
    ASSERT_TRUE(reported(*probe));
    const auto begin = Clock::now();
    probe->stop();
    EXPECT_LT(Clock::now() - begin, 500ms) << "the cycle is 2 s long";
}

TEST_F(NeighLife, StopThatComesBeforeTheThreadRunsIsNotLost) {
    for (int round = 0; round < 50; ++round) {
        auto probe = wan.probe(false);
        ASSERT_EQ(probe->start(), 0);
        probe->stop();
    }
}

TEST_F(NeighLife, StopReportsTheWanDownInItsOrder) {
    Wan other(2);
    auto probe = wan.probe();
    ASSERT_EQ(add_default_gateway(other.dev, other.gateway, 1000), 0);
    ASSERT_EQ(probe->start(), 0);
    ASSERT_TRUE(reported(*probe));
    services->forget();
    clear_log();
    EXPECT_EQ(probe->stop(), 0);
    EXPECT_EQ(condition("PORT1"), "0");
    EXPECT_THAT(default_gateways(), ElementsAre("192.0.2.1"));
    std::vector<std::string> targets;
    for (const auto& call : services->calls()) targets.push_back(call.target);
    EXPECT_THAT(targets,
                ElementsAre("TarnService.Get_available_wan_info", "nm-halor.UpdateWanNexthopStatus"));
    EXPECT_EQ(services->count("nm-halor.UpdateWanNexthopStatus {\"id\":1,\"stat\":1}"), 1);
    const auto lines = texts();
    const auto place = [&](const std::string& text) {
        return std::find(lines.begin(), lines.end(), text) - lines.begin();
    };
    EXPECT_EQ(lines[0], "[DEBUG] Update condition:  0");
    EXPECT_LT(place("[DEBUG] Update condition:  0"),
              place("[ERROR] Could not find [eth1] in available_wan_info map!"));
    EXPECT_LT(place("[ERROR] Could not find [eth1] in available_wan_info map!"),
              place("[DEBUG] Delete gateway: 192.0.1.1, dev: eth1"));
}

TEST_F(NeighLife, StopOfALinkThatIsNoWanFlushesPrivateRoutesOnly) {
    auto probe = wan.probe(false);
    add_default_gateway(wan.dev, wan.gateway, 1000);
    services->forget();
    clear_log();
    EXPECT_EQ(probe->stop(), 0);
    std::vector<std::string> targets;
    for (const auto& call : services->calls()) targets.push_back(call.target);
    EXPECT_THAT(targets, ElementsAre("TarnService.Get_available_private_info",
                                     "nm-halor.Update_private_nexthop_status"));
    EXPECT_EQ(services->count("nm-halor.Update_private_nexthop_status {\"portname\":\"PORT1\",\"stat\":1}"),
              1);
    EXPECT_THAT(default_gateways(), ElementsAre("192.0.1.1")) << "the gateway is not the probe's to remove";
}

TEST_F(NeighLife, StopLogsItsFailuresAndAsksTheHubManagerOnce) {
    auto probe = wan.probe();
    ASSERT_EQ(add_default_gateway(wan.dev, wan.gateway, 1000), 0);
    services->fail("TarnService.Get_available_wan_info", -1);
    services->fail("nm-halor.UpdateWanNexthopStatus", -1);
    services->forget();
    clear_log();
    EXPECT_EQ(probe->stop(), 0);
    EXPECT_THAT(texts(), IsSupersetOf({"[ERROR] Flush mptcp default route failed, dev: eth1",
                                       "[ERROR] Delete default gateway failed, dev: eth1"}))
        << "a set that becomes empty has no route to rebuild";
    EXPECT_EQ(services->count("nm-halor.UpdateWanNexthopStatus {\"id\":1,\"stat\":1}"), 1);
    EXPECT_EQ(count_log("[ERROR] update_nexthop_status, ret: -1"), 0) << "the result is ignored";
}

TEST_F(NeighLife, StopOfALinkThatIsNoWanLogsItsFailure) {
    auto probe = wan.probe(false);
    services->fail("TarnService.Get_available_private_info", -1);
    EXPECT_EQ(probe->stop(), 0);
    EXPECT_EQ(count_log("[ERROR] Flush private mptcp default route failed, dev: eth1"), 1);
}

TEST_F(NeighLife, StopOfAStoppedProbeReportsAgain) {
    auto probe = wan.probe();
    probe->stop();
    write_file("/proc/net/nf_condition/PORT1", "1");
    services->forget();
    EXPECT_EQ(probe->stop(), 0);
    EXPECT_EQ(condition("PORT1"), "0");
    EXPECT_EQ(services->count("nm-halor.UpdateWanNexthopStatus {\"id\":1,\"stat\":1}"), 1);
}

TEST_F(NeighLife, DestructorEndsTheThreadAndReportsNothing) {
    LeakCheck leaks;
    auto probe = wan.probe();
    ASSERT_EQ(probe->start(), 0);
    ASSERT_TRUE(reported(*probe));
    services->forget();
    clear_log();
    const auto begin = Clock::now();
    probe.reset();
    EXPECT_LT(Clock::now() - begin, 500ms);
    EXPECT_THAT(log_texts(), ElementsAre());
    EXPECT_EQ(services->calls().size(), 0u);
    EXPECT_EQ(condition("PORT1"), "1");
    EXPECT_THAT(default_gateways(), ElementsAre("192.0.1.1"));
}

TEST_F(NeighLife, StartWithoutResourcesFailsAndMayBeRepeated) {
    auto probe = wan.probe();
    {
        const NoDescriptors none;
        EXPECT_EQ(probe->start(), -3010);
    }
    EXPECT_EQ(probe->start(), 0);
    EXPECT_TRUE(reported(*probe));
    probe->stop();
}

TEST_F(NeighLife, EverythingMayBeAskedWhileTheWorkerRuns) {
    const ShortPeriods shorter(1ms);
    auto probe = wan.probe();
    ASSERT_EQ(probe->start(), 0);
    std::atomic<bool> over{false};
    std::thread asker([&] {
        while (!over) {
            probe->get_state();
            probe->get_neigh_state();
            probe->get_target_mac();
            probe->setup_dbg(1);
            probe->reload_condition();
        }
    });
    std::thread changer([&] {
        while (!over) {
            probe->reset_bandwidth(2000);
            probe->set_neigh_state(0);
            probe->set_target_mac("");
        }
    });
    for (int round = 0; round < 20; ++round) {
        wan.neighbour("failed");
        std::this_thread::sleep_for(10ms);
        wan.neighbour("permanent");
        std::this_thread::sleep_for(5ms);
    }
    over = true;
    asker.join();
    changer.join();
    EXPECT_TRUE(wait_until([&] { return probe->get_state()["eth1"]["stat"] == Json::Value(0); }));
    probe->stop();
}

}  // namespace
}  // namespace corvo::test
