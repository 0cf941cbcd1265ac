// The UDP next-hop test on a fake network and fake services.
#include <cerrno>

#include "corvosetup/udp.h"
#include "foundation/json.h"
#include "hub_fixture.h"
#include "nexthop/udp_message.h"
#include "support/failing_new.h"

namespace corvo::test {
namespace {

// Answers every request for `id`, with a result.
FakeKernel::Peer hub_peer(int id, int result = 0) {
    return [=](const std::string& packet) -> std::vector<FakeReply> {
        ProbeRequest request;
        if (!parse_probe_request(packet, request) || request.receiver != id) return {};
        return {{"{\"Sender\":" + std::to_string(id) + ",\"Receiver\":" + std::to_string(request.sender) +
                 ",\"Result\":" + std::to_string(result) + "}"}};
    };
}

class UdpHubTest : public HubTest {
protected:
    void run(bool check_connections = false) {
        publish();
        ASSERT_EQ(test.start_nexthop_utest(check_connections), 0);
        // A run of these tests ends with one of these lines.
        ASSERT_TRUE(wait_until(
            [&] {
                for (const auto& line : lines())
                    for (const char* last : {"Update active hub", "Can't find", "success.", "Fail to open",
                                             "is not 'EDGE", "not sufficent", "probe_hub failed"})
                        if (line.find(last) != std::string::npos) return true;
                return false;
            },
            60s));
        // Whatever is left of the run takes no waiting any more.
        std::this_thread::sleep_for(50ms);
        test.stop_nexthop_utest();
    }

    // The lines of the run without those of the single requests.
    std::vector<std::string> run_lines() const {
        std::vector<std::string> kept;
        for (const auto& line : lines()) {
            bool of_request = false;
            for (const char* text :
                 {"Check connections: ", "Udp requesting device: ", "Receive response from ",
                  "] Result: ", "Write to server error", "Rejected by", "UDP TEST "})
                of_request = of_request || line.find(text) != std::string::npos;
            if (!of_request) kept.push_back(line);
        }
        return kept;
    }

    ProcUdpTest test;
};

TEST_F(UdpHubTest, CurrentHubThatAnswersIsKept) {
    kernel.peers["192.0.2.20"] = hub_peer(20);
    run();
    EXPECT_THAT(run_lines(),
                ElementsAre("[DEBUG] Udp requesting current hub: 20's PORT1@192.0.2.20 success."));
    EXPECT_THAT(services.calls(), IsEmpty());
    EXPECT_THAT(lines(), Contains(testing::StartsWith("[DEBUG] UDP TEST dev_id: 10 <4711>, @")));
}

TEST_F(UdpHubTest, CurrentHubAnswersOnItsSecondPort) {
    sites["20"]["PORT2"] = port("192.0.2.21", "10.0.0.1");
    sites["20"]["PORT1"] = port("", "");
    kernel.peers["192.0.2.21"] = hub_peer(20);
    run();
    EXPECT_THAT(run_lines(),
                ElementsAre("[ERROR] Udp requesting current hub: 20's PORT1@ failed.",
                            "[DEBUG] Udp requesting current hub: 20's PORT2@192.0.2.21 success."));
    EXPECT_THAT(services.calls(), IsEmpty());
}

TEST_F(UdpHubTest, CurrentHubOfAnotherGroupIsNotAsked) {
    sites["20"]["GROUP_ID"] = "h";
    sites["30"] = hub("192.0.2.30");
    kernel.peers["192.0.2.20"] = hub_peer(20);
    kernel.peers["192.0.2.30"] = hub_peer(30);
    run();
    EXPECT_THAT(run_lines(), ElementsAre("[ERROR] GROUP_ID is not same! self: g; hub: h",
                                         "[DEBUG] Udp requesting site: 30's PORT1@192.0.2.30 success.",
                                         "[DEBUG] Update active hub to 30"));
    EXPECT_THAT(services.calls(), ElementsAre("nm-halor.UpdateActiveHUB {\"remote_site\":\"30\"}"));
}

TEST_F(UdpHubTest, RejectingHubIsReportedAndTheNextIsTaken) {
    sites["10"]["HUBS"].append("40");
    sites["30"] = hub("192.0.2.30", "900");
    sites["40"] = hub("192.0.2.40", "1");
    kernel.peers["192.0.2.20"] = hub_peer(20, 5);
    kernel.peers["192.0.2.40"] = hub_peer(40, 6);
    kernel.peers["192.0.2.30"] = hub_peer(30);
    const long before = std::time(nullptr);
    run();
    const std::string failure = "ProcUdpTest udp request site: 40's ip: 192.0.2.40 failed, ret: 6";
    EXPECT_THAT(run_lines(), ElementsAre("[ERROR] Udp requesting current hub: 20's PORT1@192.0.2.20 failed.",
                                         "[ERROR] " + failure,
                                         "[DEBUG] Udp requesting site: 30's PORT1@192.0.2.30 success.",
                                         "[DEBUG] Update active hub to 30"));
    const auto calls = services.calls();
    ASSERT_EQ(calls.size(), 2U);
    Json::Value posted;
    ASSERT_TRUE(parse_json(calls[0].substr(calls[0].find(' ')), posted)) << calls[0];
    EXPECT_TRUE(calls[0].starts_with("nm-morin-handler.PostLog "));
    EXPECT_EQ(posted["msg_id"], 190);
    EXPECT_EQ(posted["values"][0], failure);
    EXPECT_GE(posted["timestamp"].asInt64(), before);
    EXPECT_EQ(calls[1], "nm-halor.UpdateActiveHUB {\"remote_site\":\"30\"}");
}

TEST_F(UdpHubTest, RefusedUpdateEndsTheRunAllTheSame) {
    sites["30"] = hub("192.0.2.30", "2");
    sites["40"] = hub("192.0.2.40", "1");
    sites["20"]["PORT1"] = port("", "");
    kernel.peers["192.0.2.30"] = hub_peer(30);
    kernel.peers["192.0.2.40"] = hub_peer(40);
    services.answer("nm-halor.UpdateActiveHUB", "{\"error\":-77}");
    run();
    EXPECT_THAT(lines(), Contains("[ERROR] vxh nm-halor.UpdateActiveHUB failed, ret: -77"));
    EXPECT_EQ(services.calls().size(), 1U);
    EXPECT_EQ(test.probe_nexthop(), 0);
}

TEST_F(UdpHubTest, DomainHubsAreTriedUnlessConnectionsAreChecked) {
    sites["20"]["PORT1"] = port("", "");
    sites["30"] = hub("192.0.2.30", "1", "h", "d");
    kernel.peers["192.0.2.30"] = hub_peer(30);
    run(true);
    EXPECT_THAT(run_lines(), Contains("[ERROR] Can't find next active hop for 10"));
    EXPECT_THAT(lines(), Contains("[DEBUG] Check connections: 1, IPSec installed: 0"));
    EXPECT_EQ(kernel.count("sendto"), 0U);
    clear_log(log_file);
    run(false);
    EXPECT_THAT(run_lines(), Contains("[DEBUG] Update active hub to 30"));
}

TEST_F(UdpHubTest, WithoutAnAddressEveryCandidateFails) {
    sites["20"]["PORT1"] = port("", "");
    sites["30"] = hub("");
    sites["40"] = hub("192.0.2.40");
    sites["40"].removeMember("PORT1");
    run();
    EXPECT_THAT(run_lines(), ElementsAre("[ERROR] Udp requesting current hub: 20's PORT1@ failed.",
                                         "[ERROR] ProcUdpTest udp request site: 30's ip:  failed, ret: -3",
                                         "[ERROR] Can't find next active hop for 10"));
    EXPECT_EQ(test.probe_nexthop(), -3);
}

TEST_F(UdpHubTest, UnregisteredDeviceDoesNothing) {
    services.device_id(0);
    publish();
    test.thread_task();
    EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(UdpHubTest, NoSiteDocument) {
    test.thread_task();
    EXPECT_THAT(run_lines(), Contains("[ERROR] Fail to open SITE_CONF."));
    EXPECT_EQ(test.probe_nexthop(), -3016);
}

TEST_F(UdpHubTest, DeviceThatIsNoEdge) {
    sites["10"]["ROLE"] = "HUB";
    publish();
    test.thread_task();
    EXPECT_THAT(run_lines(), ElementsAre("[ERROR] Device: 10 is not 'EDGE.'"));
    EXPECT_EQ(test.probe_nexthop(), -3001);
}

TEST_F(UdpHubTest, CharacteristicIsNotSufficient) {
    sites["10"]["DOMAIN"] = "";
    publish();
    test.thread_task();
    EXPECT_THAT(run_lines(),
                ElementsAre("[ERROR] Characteristic is not sufficent, hub: 20, group: g, domain: "));
    EXPECT_EQ(test.probe_nexthop(), -3001);
}

TEST_F(UdpHubTest, EmptyHubHasALineOfItsOwn) {
    sites["10"].removeMember("HUB");
    publish();
    test.thread_task();
    EXPECT_THAT(run_lines(),
                ElementsAre("[ERROR] Characteristic is not sufficent, hub: , group: g, domain: d",
                            "[ERROR] HUB is empty!"));
}

// Whichever allocation of a run fails, the run ends without an exception; those that no narrower guard takes
// have a line of their own.
TEST_F(UdpHubTest, ExceptionOfTheRunIsLoggedAndEndsIt) {
    sites["20"]["GROUP_ID"] = "another group than the edge's";  // so that nobody is asked
    sites["a candidate whose name needs memory"]["ROLE"] = "HUB";
    sites["a candidate whose name needs memory"]["GROUP_ID"] = "g";
    publish();
    test.thread_task();
    const std::string line = "[ERROR] ProcUdpTest probe_hub failed: std::bad_alloc";
    int failed_runs = 0;
    bool struck = true;
    for (int allocation = 0; struck; ++allocation) {
        clear_log(log_file);
        int result = 0;
        {
            const FailingNew failing(allocation, FailingNew::Then::kRecovers);
            result = test.probe_nexthop();
            struck = failing.struck();
        }
        ASSERT_LT(result, 0) << allocation;
        if (count_log(line, log_file) == 0) continue;
        ++failed_runs;
        EXPECT_EQ(lines().back(), line);
    }
    EXPECT_GT(failed_runs, 5);
    EXPECT_THAT(services.calls(), IsEmpty());
}

TEST_F(UdpHubTest, SecondStartIsRefusedUntilStop) {
    publish();
    EXPECT_EQ(test.start_nexthop_utest(false), 0);
    EXPECT_EQ(test.start_nexthop_utest(false), -3026);
    EXPECT_EQ(test.stop_nexthop_utest(), 0);
    EXPECT_EQ(test.stop_nexthop_utest(), 0);
    kernel.fail("pthread_create", EAGAIN);
    EXPECT_EQ(test.start_nexthop_utest(false), -3010);
    EXPECT_EQ(Start_nexthop_udp_test(false), -3010);
}

TEST_F(UdpHubTest, StopEndsAWaitingRunWithin50MillisecondsAndReportsNothing) {
    sites["30"] = hub("192.0.2.30");
    publish();
    ASSERT_EQ(Start_nexthop_udp_test(true), 0);
    ASSERT_TRUE(wait_until([&] { return kernel.count("sendto") == 5; }));
    const Stopwatch watch;
    EXPECT_EQ(Stop_nexthop_udp_test(), 0);
    EXPECT_LT(watch.elapsed(), 50ms);
    EXPECT_THAT(run_lines(), IsEmpty());
    EXPECT_THAT(services.calls(), IsEmpty());
    EXPECT_THAT(traces(), Contains("[DEBUG] Exit udp.cpp::N::Start_nexthop_udp_test: 0"));
    EXPECT_THAT(traces(), Contains("[DEBUG] Exit udp.cpp::N::Stop_nexthop_udp_test: 0"));
}

TEST_F(UdpHubTest, StoppedAgainAndAgainFromFourThreads) {
    kernel.peers["192.0.2.20"] = hub_peer(20);
    publish();
    std::vector<std::thread> threads;
    std::atomic<int> odd{0};
    for (int n = 0; n < 4; ++n) {
        threads.emplace_back([&, n] {
            for (int round = 0; round < 25; ++round) {
                const int code =
                    (round + n) % 3 != 0 ? Start_nexthop_udp_test(false) : Stop_nexthop_udp_test();
                odd += code != 0 ? 1 : 0;
            }
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(Stop_nexthop_udp_test(), 0);
    EXPECT_EQ(odd, 0);
}

}  // namespace
}  // namespace corvo::test
