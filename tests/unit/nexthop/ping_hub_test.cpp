// The ping next-hop test on a fake network and fake services.
#include <cerrno>
#include <iostream>

#include "corvosetup/ping_test.h"
#include "corvosetup/udp.h"
#include "hub_fixture.h"
#include "support/sanitized.h"

namespace corvo::test {
namespace {

class PingHubTest : public HubTest {
protected:
    // One whole run, as the thread makes it.
    void run() {
        publish();
        test.thread_task();
    }
    ProcPingTest test;
};

TEST_F(PingHubTest, CurrentHubThatAnswersIsKeptAndNothingIsReported) {
    kernel.peers["192.0.2.20"] = echo_peer();
    run();
    EXPECT_THAT(lines(), ElementsAre(testing::StartsWith("[DEBUG] PING TEST dev_id: 10 <4711>, @"),
                                     "[DEBUG] Ping current hub: 20's PORT1 @192.0.2.20 success."));
    EXPECT_THAT(services.calls(), IsEmpty());
    EXPECT_EQ(test.probe_nexthop(), 0);
}

TEST_F(PingHubTest, CurrentHubAnswersOnAnyPort) {
    sites["20"]["PORT2"] = port("192.0.2.21", "192.0.2.21");
    kernel.fail("sendto", EHOSTUNREACH, 1);
    kernel.peers["192.0.2.21"] = echo_peer();
    run();
    EXPECT_THAT(lines(), Contains("[DEBUG] Ping current hub: 20's PORT2 @192.0.2.21 success."));
    EXPECT_THAT(services.calls(), IsEmpty());
}

TEST_F(PingHubTest, PortsBehindTranslationAreNeverPinged) {
    sites["20"]["PORT1"] = port("192.0.2.20", "10.0.0.1");
    sites["30"] = hub("192.0.2.30");
    sites["30"]["PORT1"] = port("192.0.2.30", "10.0.0.1");
    run();
    EXPECT_EQ(kernel.count("sendto"), 0U);
    EXPECT_EQ(test.probe_nexthop(), -3001);
    EXPECT_THAT(lines(), Contains("[ERROR] Can't find next active hop for 10"));
}

TEST_F(PingHubTest, FirstCandidateThatAnswersBecomesTheHub) {
    sites["30"] = hub("192.0.2.30", "300");
    sites["40"] = hub("192.0.2.40", "500");
    sites["50"] = hub("192.0.2.50", "900", "other", "d");
    kernel.fail("sendto", EHOSTUNREACH, 2);  // the current hub's and that of 40
    kernel.peers["192.0.2.30"] = echo_peer();
    run();
    EXPECT_THAT(order_of_sends(), ElementsAre("192.0.2.20", "192.0.2.40", "192.0.2.30"));
    EXPECT_THAT(services.calls(), ElementsAre("nm-halor.UpdateActiveHUB {\"remote_site\":\"30\"}"));
    auto all = lines();
    all.erase(all.begin());
    EXPECT_THAT(all, ElementsAre("[ERROR] sendto failed.", "[ERROR] sendto failed.",
                                 "[ERROR] ProcPingTest ping site: 40's ip: 192.0.2.40 failed, ret: -3012",
                                 "[DEBUG] Ping site: 30's PORT1 @192.0.2.30 success.",
                                 "[DEBUG] Update active hub to 30"));
}

TEST_F(PingHubTest, RefusedUpdateIsLoggedAndTheResultStays0) {
    sites["30"] = hub("192.0.2.30");
    kernel.fail("sendto", EHOSTUNREACH, 1);
    kernel.peers["192.0.2.30"] = echo_peer();
    services.answer("nm-halor.UpdateActiveHUB", "{}");
    run();
    EXPECT_THAT(lines(), Contains("[ERROR] vxh nm-halor.UpdateActiveHUB failed, ret: -3001"));
    kernel.fail("sendto", EHOSTUNREACH, 1);
    EXPECT_EQ(test.probe_nexthop(), 0);
}

TEST_F(PingHubTest, DomainHubsAreCandidatesToo) {
    sites["30"] = hub("192.0.2.30", "1", "other", "d");
    sites["40"] = hub("192.0.2.40", "1", "other", "other");
    kernel.fail("sendto", EHOSTUNREACH);
    run();
    EXPECT_THAT(order_of_sends(), ElementsAre("192.0.2.20", "192.0.2.30"));
}

TEST_F(PingHubTest, ResultIsThatOfTheLastPing) {
    sites["30"] = hub("no.such.host");
    publish();
    test.thread_task();
    kernel.fail("sendto", EHOSTUNREACH);
    EXPECT_EQ(test.probe_nexthop(), -3001);  // the last was an unknown host
    sites["30"] = hub("192.0.2.30");
    publish();
    EXPECT_EQ(test.probe_nexthop(), -3012);
}

TEST_F(PingHubTest, DecisionOver2000SitesTakesItsWaitsAndNoMore) {
    for (int n = 0; n < 2000; ++n) {
        const auto id = std::to_string(1000 + n);
        sites[id] = hub("192.0.2." + std::to_string(n % 250 + 1), "5", n % 2 == 0 ? "g" : "other");
        if (n >= 2) sites[id]["PORT1"]["WAN_ADDR4"] = "10.0.0.1";  // behind translation
    }
    const Stopwatch watch;
    run();
    EXPECT_THAT(lines().back(), "[ERROR] Can't find next active hop for 10");
    EXPECT_EQ(kernel.count("sendto"), 3U);  // the current hub and two candidates
    EXPECT_GE(watch.elapsed(), 6000ms);
    // (a wait more would be two seconds)
    EXPECT_LT(watch.elapsed(), corvo::test::kSanitized ? 7900ms : 6800ms);
}

TEST_F(PingHubTest, FailuresOf2000HubsTakeNoWaiting) {
    for (int n = 0; n < 2000; ++n) sites[std::to_string(1000 + n)] = hub("192.0.2.1");
    kernel.fail("sendto", ENETUNREACH);
    const Stopwatch watch;
    run();
    EXPECT_EQ(kernel.count("sendto"), 2001U);
    if (!corvo::test::kSanitized) {
        EXPECT_LT(watch.elapsed(), 4000ms);
    }
    std::cout << "2000 hubs that fail at once: " << watch.elapsed().count() << " ms\n";
}

TEST_F(PingHubTest, UnregisteredDeviceEndsAtOnce) {
    services.device_id(0);
    run();
    EXPECT_THAT(lines(), ElementsAre("[ERROR] Local Management Mode ..."));
}

TEST_F(PingHubTest, NoSiteDocument) {
    test.thread_task();
    EXPECT_THAT(lines(), Contains("[ERROR] Fail to open SITE_CONF."));
    EXPECT_EQ(test.probe_nexthop(), -3016);
}

TEST_F(PingHubTest, DeviceThatIsNoEdge) {
    sites["10"]["ROLE"] = "HUB";
    run();
    EXPECT_THAT(lines(), Contains("[ERROR] Device: 10 is not 'EDGE.'"));
    EXPECT_EQ(test.probe_nexthop(), -3001);
}

TEST_F(PingHubTest, CharacteristicIsNotSufficient) {
    sites["10"]["HUB"] = "";
    run();
    EXPECT_THAT(lines(), Contains("[ERROR] Characteristic is not sufficent, hub: , group: g, domain: d"));
    EXPECT_THAT(lines(), Not(Contains("[ERROR] HUB is empty!")));
    EXPECT_EQ(test.probe_nexthop(), -3001);
}

TEST_F(PingHubTest, ExceptionOfTheRunIsLogged) {
    sites["20"]["PORT1"] = port("hub.example", "hub.example");  // a name takes a thread to look up
    kernel.fail("pthread_create", EAGAIN);
    run();
    EXPECT_THAT(lines(),
                Contains("[ERROR] ProcPingTest probe_nexthop failed, Resource temporarily unavailable"));
}

TEST_F(PingHubTest, SecondStartIsRefusedUntilStop) {
    publish();
    EXPECT_EQ(test.start_nexthop_ptest(), 0);
    EXPECT_EQ(test.start_nexthop_ptest(), -3026);
    EXPECT_THAT(lines(), Contains("[ERROR] ProcPingTest thread task has been started already."));
    EXPECT_EQ(test.stop_nexthop_ptest(), 0);
    EXPECT_EQ(test.start_nexthop_ptest(), 0);
    EXPECT_EQ(test.stop_nexthop_ptest(), 0);
    EXPECT_EQ(test.stop_nexthop_ptest(), 0);
}

TEST_F(PingHubTest, FinishedRunStaysUntilStop) {
    kernel.peers["192.0.2.20"] = echo_peer();
    publish();
    EXPECT_EQ(test.start_nexthop_ptest(), 0);
    ASSERT_TRUE(wait_for_log("[DEBUG] Ping current hub: 20's PORT1 @192.0.2.20 success.", 10s, log_file));
    EXPECT_EQ(test.start_nexthop_ptest(), -3026);
    test.stop_nexthop_ptest();
}

TEST_F(PingHubTest, StartWithoutAThreadToBeHad) {
    kernel.fail("pthread_create", EAGAIN);
    EXPECT_EQ(test.start_nexthop_ptest(), -3010);
    EXPECT_EQ(Start_nexthop_ping_test(), -3001);
    EXPECT_THAT(lines(), ElementsAre("[ERROR] ProcPingTest start failed, Resource temporarily unavailable"));
    kernel.heal("pthread_create");
    publish();
    EXPECT_EQ(Start_nexthop_ping_test(), 0);  // nothing of the failed start is left
    EXPECT_EQ(Stop_nexthop_ping_test(), 0);
}

TEST_F(PingHubTest, StopEndsAWaitingRunWithin50MillisecondsAndReportsNothing) {
    sites["30"] = hub("192.0.2.30");
    publish();
    ASSERT_EQ(Start_nexthop_ping_test(), 0);
    ASSERT_TRUE(wait_until([&] { return kernel.count("sendto") == 1; }));
    const Stopwatch watch;
    EXPECT_EQ(Stop_nexthop_ping_test(), 0);
    EXPECT_LT(watch.elapsed(), 50ms);
    EXPECT_EQ(lines().size(), 1U);  // "PING TEST"
    EXPECT_THAT(services.calls(), IsEmpty());
}

TEST_F(PingHubTest, StartReplacesARunThatIsUnderWay) {
    publish();
    ASSERT_EQ(Start_nexthop_ping_test(), 0);
    ASSERT_TRUE(wait_until([&] { return kernel.count("sendto") == 1; }));
    ASSERT_EQ(Start_nexthop_ping_test(), 0);
    ASSERT_TRUE(wait_until([&] { return kernel.count("sendto") == 2; }));
    Stop_nexthop_ping_test();
    EXPECT_THAT(traces(), Contains("[DEBUG] Enter ping_test.cpp::N::Start_nexthop_ping_test").Times(2));
    EXPECT_THAT(traces(), Contains("[DEBUG] Exit ping_test.cpp::N::Stop_nexthop_ping_test: 0").Times(1));
}

TEST_F(PingHubTest, StoppedAgainAndAgainFromFourThreads) {
    kernel.peers["192.0.2.20"] = echo_peer(1ms);
    publish();
    std::vector<std::thread> threads;
    std::atomic<int> odd{0};
    for (int n = 0; n < 4; ++n) {
        threads.emplace_back([&, n] {
            for (int round = 0; round < 50; ++round) {
                const int code = (round + n) % 3 != 0 ? Start_nexthop_ping_test() : Stop_nexthop_ping_test();
                odd += code != 0 ? 1 : 0;
            }
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(Stop_nexthop_ping_test(), 0);
    EXPECT_EQ(odd, 0);
}

TEST_F(PingHubTest, DestructorEndsTheRun) {
    publish();
    const Stopwatch watch;
    {
        ProcPingTest own;
        ASSERT_EQ(own.start_nexthop_ptest(), 0);
        ASSERT_TRUE(wait_until([&] { return kernel.count("sendto") == 1; }));
    }
    EXPECT_LT(watch.elapsed(), 1500ms);
}

TEST_F(PingHubTest, MissingLogFileIsMadeAgainByTheEntries) {
    std::filesystem::remove(log_file);
    EXPECT_EQ(Stop_nexthop_ping_test(), 0);
    EXPECT_TRUE(std::filesystem::exists(log_file));
    std::filesystem::remove(log_file);
    EXPECT_EQ(Stop_nexthop_udp_test(), 0);
    EXPECT_TRUE(std::filesystem::exists(log_file));
    std::filesystem::remove(log_file);
    EXPECT_EQ(Start_rglink_ping_test(1), -3016);
    EXPECT_TRUE(std::filesystem::exists(log_file));
}

}  // namespace
}  // namespace corvo::test
