// The road of one event, end to end, with a timestamp for each stage. Runs on the testbed too, where the
// conditions are the kernel's.

#include "netns/monitor/road.h"

#include <algorithm>
#include <iostream>

#include "support/sanitized.h"

namespace corvo::test {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;

TEST_F(Road, GatewayIsFoundByAskingForItsNeighbourEntry) {
    start();
    const Json::Value state = monitor_->get_state();
    const Json::Value peer = isp_.ip_json("link show dev isp0");
    EXPECT_EQ(state["eth8"]["ARP"]["target_mac"], peer[0]["address"]) << "resolved by the kernel, not by us";
    EXPECT_EQ(
        count_log(
            "[DEBUG] Exec: [/sbin/ip neigh add 192.0.8.1 nud probe lladdr ff:ff:ff:ff:ff:ff dev eth8]."),
        1);
    monitor_->stop();
}

TEST_F(Road, EveryStageComesInItsOrderAndIsReversedOnTheFirstGoodCycle) {
    start();
    take_snapshots();
    gateway(false);
    ASSERT_TRUE(wait_for(1));
    EXPECT_EQ(count_log("[ERROR] eth8 get neigh failed, count: 5"), 1);
    EXPECT_EQ(count_log("[ERROR] eth8 get neigh failed, count: 6"), 0) << "the sixth failed cycle reports";

    ASSERT_EQ(snapshots_.size(), 2u);
    // When the interface is asked down, the kernel has its new route, and nothing else has happened.
    EXPECT_EQ(snapshots_[0].call, "pluvd.exec");
    EXPECT_THAT(snapshots_[0].gateways, ElementsAre("192.0.1.1"));
    EXPECT_EQ(snapshots_[0].condition, "1");
    EXPECT_EQ(snapshots_[0].stat, 0);
    // The hub manager hears of it before the packet filter and the status document.
    EXPECT_EQ(snapshots_[1].call, "nm-halor.UpdateWanNexthopStatus");
    EXPECT_EQ(snapshots_[1].condition, "1");
    EXPECT_EQ(snapshots_[1].stat, 0);
    EXPECT_EQ(condition("PORT8"), "0");
    ASSERT_TRUE(wait_until([&] { return timeline_.when("Update condition:  0") != Clock::time_point{}; }));
    timeline_.add("status document: 1");
    expect_order({"status changed: 0 to 1", "pluvd.exec", "nm-halor.UpdateWanNexthopStatus",
                  "Update condition:  0", "status document: 1"});

    snapshots_.clear();
    gateway(true);
    ASSERT_TRUE(wait_for(0));
    ASSERT_EQ(snapshots_.size(), 2u);
    EXPECT_EQ(snapshots_[0].call, "pluvd.exec");
    EXPECT_THAT(snapshots_[0].gateways, ElementsAre("192.0.1.1", "192.0.8.1"));
    EXPECT_EQ(snapshots_[0].condition, "0");
    EXPECT_EQ(snapshots_[1].call, "nm-halor.UpdateWanNexthopStatus");
    EXPECT_EQ(snapshots_[1].condition, "0");
    EXPECT_EQ(snapshots_[1].stat, 1);
    EXPECT_EQ(condition("PORT8"), "1");
    ASSERT_TRUE(wait_until([&] { return timeline_.when("Update condition:  1") != Clock::time_point{}; }));
    timeline_.add("status document: 0");
    expect_order({"status changed: 1 to 0", "pluvd.exec", "nm-halor.UpdateWanNexthopStatus",
                  "Update condition:  1", "status document: 0"});
    timeline_.print();
    monitor_->stop();
}

TEST_F(Road, SilentGatewayIsNoticedByTheKernelsOwnProbes) {
    start();
    // The carrier stays; nobody answers any more.
    isp_.ip({"addr flush dev isp0"});
    for (const char* knob : {"ucast_solicit", "mcast_solicit"})
        write_file(std::string("/proc/sys/net/ipv4/neigh/eth8/") + knob, "1");
    ip_batch({"neigh change 192.0.8.1 dev eth8 nud probe"});
    ASSERT_TRUE(wait_for(1));
    const Json::Value dead = monitor_->get_state();
    EXPECT_EQ(dead["eth8"]["ARP"]["neigh_status"], Json::Value("FAILED"));
    isp_.ip({"addr add 192.0.8.1/24 dev isp0"});
    ip_batch(
        {"neigh del 192.0.8.1 dev eth8", "neigh add 192.0.8.1 lladdr ff:ff:ff:ff:ff:ff nud probe dev eth8"});
    ASSERT_TRUE(wait_for(0));
    monitor_->stop();
}

TEST_F(Road, KernelHasItsNewRouteWithinFiveMilliseconds) {
    start();
    only_note_calls();
    std::vector<long> taken;
    // The testbed is an emulation some 14 times slower than its host, and shares that: its best round counts.
    // Everywhere else the middle one does. A machine that is busy with others gets more rounds.
    const long limit = kSanitized ? 100'000 : 5'000;
    const auto result = [&] {
        std::vector<long> sorted = taken;
        std::sort(sorted.begin(), sorted.end());
        return in_device_tier() ? sorted.front() : sorted[sorted.size() / 2];
    };
    for (int round = 0; round < 9 || (round < 30 && result() >= limit); ++round) {
        gateway(false);
        ASSERT_TRUE(wait_for(1));
        ASSERT_TRUE(wait_until(
            [&] { return timeline_.when("Update condition:  0") > timeline_.when("pluvd.exec"); }));
        taken.push_back(
            std::chrono::duration_cast<std::chrono::microseconds>(
                timeline_.when("kernel: new default route") - timeline_.when("status changed: 0 to 1"))
                .count());
        gateway(true);
        ASSERT_TRUE(wait_for(0));
    }
    for (const long us : taken) std::cout << "    decision to route: " << us << " us\n";
    EXPECT_LT(result(), limit);
    monitor_->stop();
}

TEST_F(Road, HungHubManagerDelaysNothingBeforeIt) {
    start();
    only_note_calls();
    // Its whole limit on the testbed, a part of it here.
    const auto hang = in_device_tier() ? 30000ms : 1500ms;
    bool hung = false;
    services->answer("nm-halor.UpdateWanNexthopStatus", [&] {
        timeline_.add("nm-halor.UpdateWanNexthopStatus");
        vx::Reply reply = vx::Reply::text("{\"error\":0}");
        if (!hung && in_device_tier()) reply.ending = vx::Reply::Ending::kHang;
        if (!hung && !in_device_tier()) reply.delay = hang;
        hung = true;
        return reply;
    });
    gateway(false);
    ASSERT_TRUE(wait_until([&] { return stat() == 1; }, 90s));
    ASSERT_TRUE(
        wait_until([&] { return timeline_.when("Update condition:  0") > timeline_.when("pluvd.exec"); }));
    timeline_.print();
    const auto decision = timeline_.when("status changed: 0 to 1");
    // (the testbed is an emulation on a shared machine)
    EXPECT_LT(timeline_.when("kernel: new default route") - decision,
              in_device_tier() || kSanitized ? 500ms : 20ms);
    EXPECT_LT(timeline_.when("pluvd.exec") - decision, in_device_tier() || kSanitized ? 1000ms : 200ms);
    EXPECT_GE(timeline_.when("Update condition:  0") - decision, hang - 100ms) << "what comes after it waits";
    services->recover("nm-halor.UpdateWanNexthopStatus");
    monitor_->stop();
}

}  // namespace
}  // namespace corvo::test
