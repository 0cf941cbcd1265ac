// The two hub tests and the regional link test on a fake network and fake services.
#include <cerrno>

#include "corvosetup/ping_test.h"
#include "corvosetup/udp.h"
#include "foundation/json.h"
#include "nexthop/udp_message.h"
#include "probe_fixture.h"

namespace corvo::test {
namespace {

Json::Value port(const std::string& real, const std::string& wan, const char* rate = "0") {
    Json::Value entry;
    entry["REAL_WAN_ADDR4"] = real;
    entry["WAN_ADDR4"] = wan;
    entry["RX_RATE"] = rate;
    return entry;
}

Json::Value hub(const std::string& address, const char* rate = "0", const char* group = "g",
                const char* domain = "d") {
    Json::Value site;
    site["ROLE"] = "HUB";
    site["GROUP_ID"] = group;
    site["DOMAIN"] = domain;
    site["PORT1"] = port(address, address, rate);
    return site;
}

// Edge 10, current hub 20 at 192.0.2.20; nobody answers unless a test says so.
class HubTest : public ProbeTest {
protected:
    HubTest() {
        kernel.process = 4711;
        Json::Value& own = sites["10"];
        own["ROLE"] = "EDGE";
        own["HUB"] = "20";
        own["GROUP_ID"] = "g";
        own["DOMAIN"] = "d";
        sites["20"] = hub("192.0.2.20");
    }
    void publish() { services.site(sites); }

    std::vector<std::string> order_of_sends() {
        std::vector<std::string> order;
        for (const auto& call : kernel.calls()) {
            if (!call.starts_with("sendto ")) continue;
            const auto to = call.substr(7, call.find(':') - 7);
            if (order.empty() || order.back() != to) order.push_back(to);
        }
        return order;
    }

    Json::Value sites{Json::objectValue};
};

// --- ping
// ---------------------------------------------------------------------------------------------------

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

// --- UDP
// ----------------------------------------------------------------------------------------------------

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

// --- regional links
// -----------------------------------------------------------------------------------------

class RegionalLinkTest : public HubTest {
protected:
    RegionalLinkTest() {
        Json::Value& link = sites["10"]["RGLINK2"];
        link["REMOTE_SITE"] = "60";
        link["REMOTE_RGLINK"] = "RGLINK7";
        link["RGLINK_ADDR4"] = "198.18.0.1";
        sites["60"]["RGLINK7"]["RGLINK_ADDR4"] = "198.18.0.2";
    }
    int run(int n = 2) {
        publish();
        return Start_rglink_ping_test(n);
    }
};

TEST_F(RegionalLinkTest, PingsTheFarEndOverTheLinksOwnDevice) {
    kernel.peers["198.18.0.2"] = echo_peer();
    EXPECT_EQ(run(), 0);
    EXPECT_THAT(kernel.calls(),
                ElementsAre("socket 2 3 1", "SO_MARK 960", "SO_BINDTODEVICE swdev2", "sendto 198.18.0.2:0"));
    EXPECT_THAT(lines(), ElementsAre("[DEBUG] RGLINK: RGLINK2 ping remote site: 60's 198.18.0.2 success."));
    EXPECT_THAT(traces(), Contains("[DEBUG] Exit ping_test.cpp::N::Start_rglink_ping_test: 0"));
}

TEST_F(RegionalLinkTest, FailureGivesThePingsCode) {
    kernel.fail("SO_BINDTODEVICE", ENODEV);
    EXPECT_EQ(run(), -3005);
    EXPECT_THAT(lines(),
                ElementsAre("[ERROR] Bind device: swdev2 failed!",
                            "[ERROR] RGLINK: RGLINK2 dev: swdev2 ping remote site: 60's 198.18.0.2 failed."));
}

TEST_F(RegionalLinkTest, SilenceIsATimeout) {
    const Stopwatch watch;
    EXPECT_EQ(run(), -3001);
    EXPECT_GE(watch.elapsed(), 2000ms);
}

TEST_F(RegionalLinkTest, NoSiteDocument) {
    EXPECT_EQ(Start_rglink_ping_test(2), -3016);
    EXPECT_THAT(lines(), Contains("[ERROR] Fail to open SITE_CONF."));
}

TEST_F(RegionalLinkTest, LinkThatThisDeviceDoesNotHave) {
    EXPECT_EQ(run(3), -3005);
    EXPECT_EQ(run(-1), -3005);
    EXPECT_THAT(lines(),
                ElementsAre("[ERROR] No regional link: RGLINK3.", "[ERROR] No regional link: RGLINK-1."));
}

TEST_F(RegionalLinkTest, EachMissingPieceHasItsCode) {
    sites["60"].removeMember("RGLINK7");
    EXPECT_EQ(run(), -3032);
    sites["10"]["RGLINK2"].removeMember("RGLINK_ADDR4");
    EXPECT_EQ(run(), -3007);
    sites["10"]["RGLINK2"]["REMOTE_RGLINK"] = "";
    EXPECT_EQ(run(), -3031);
    sites["10"]["RGLINK2"]["REMOTE_SITE"] = Json::Value(Json::arrayValue);
    EXPECT_EQ(run(), -3003);
    sites["10"]["RGLINK2"] = 5;
    EXPECT_EQ(run(), -3003);
    sites["10"] = 5;
    EXPECT_EQ(run(), -3005);
    EXPECT_THAT(lines(), ElementsAre("[ERROR] Empty target ip.", "[ERROR] Empty source ip.",
                                     "[ERROR] Empty remote rglink.", "[ERROR] Empty remote site.",
                                     "[ERROR] Empty remote site.", "[ERROR] No regional link: RGLINK2."));
    EXPECT_EQ(kernel.count("socket"), 0U);
}

TEST_F(RegionalLinkTest, MemberOnATestObjectDoesTheSame) {
    kernel.peers["198.18.0.2"] = echo_peer();
    publish();
    ProcPingTest test;
    EXPECT_EQ(test.probe_rglink(2), 0);
}

TEST_F(RegionalLinkTest, ExceptionIsLogged) {
    sites["60"]["RGLINK7"]["RGLINK_ADDR4"] = "far.example";
    kernel.fail("pthread_create", EAGAIN);
    EXPECT_EQ(run(), -3001);
    EXPECT_THAT(
        lines(),
        ElementsAre("[ERROR] ProcPingTest rglink ping test failed, Resource temporarily unavailable"));
}

TEST_F(RegionalLinkTest, LeavesTheRunOfTheHubTestAlone) {
    kernel.peers["198.18.0.2"] = echo_peer();
    publish();
    std::thread starter([] {
        for (int n = 0; n < 20; ++n) Start_nexthop_ping_test();
        Stop_nexthop_ping_test();
    });
    int good = 0;
    for (int n = 0; n < 5; ++n) good += Start_rglink_ping_test(2) == 0 ? 1 : 0;
    starter.join();
    EXPECT_EQ(good, 5);
}

}  // namespace
}  // namespace corvo::test
