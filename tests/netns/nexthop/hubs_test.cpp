// The hub tests against real hubs: namespaces whose kernels answer pings and whose responders are the
// library's own.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <mutex>
#include <optional>

#include "corvosetup/ping_test.h"
#include "corvosetup/udp.h"
#include "foundation/json.h"
#include "hub_peers.h"
#include "support/recorder.h"
#include "support/services.h"

namespace corvo::test {
namespace {

using namespace std::chrono_literals;
using std::chrono::steady_clock;
using testing::Contains;
using testing::Not;

std::chrono::milliseconds since(steady_clock::time_point begin) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(steady_clock::now() - begin);
}

// Edge 10 of group g, domain d with current hub 20.
class Hubs : public testing::Test {
protected:
    Hubs() {
        Json::Value& own = sites["10"];
        own["ROLE"] = "EDGE";
        own["HUB"] = "20";
        own["GROUP_ID"] = "g";
        own["DOMAIN"] = "d";
        ipsec.prints("");
        jq.prints("2\n");
    }

    void add_hub(const Site& site, int id, const char* rate = "1", const char* group = "g",
                 const char* wan = nullptr) {
        Json::Value& entry = sites[std::to_string(id)];
        entry["ROLE"] = "HUB";
        entry["GROUP_ID"] = group;
        entry["DOMAIN"] = "d";
        entry["PORT1"]["REAL_WAN_ADDR4"] = site.address();
        entry["PORT1"]["WAN_ADDR4"] = wan != nullptr ? wan : site.address();
        entry["PORT1"]["RX_RATE"] = rate;
    }

    // The services come last: the hubs' processes are forked before.
    void publish() {
        services.emplace();
        Json::Value info;
        info["DEVICE_ID"] = "10";
        services->document("device_info.json", info);
        Json::Value document;
        document["SITE_INFO"] = sites;
        services->document("site.json", document);
    }

    std::vector<std::string> updates() const {
        std::vector<std::string> names;
        for (const auto& call : services->calls("nm-halor.UpdateActiveHUB"))
            names.push_back(call.request["remote_site"].asString());
        return names;
    }

    int run_udp(bool check_connections = false) {
        publish();
        EXPECT_EQ(Start_nexthop_udp_test(check_connections), 0);
        const bool ended = wait_until(
            [] {
                return ended_with({"Update active hub", "Can't find", " success."});
            },
            60s);
        EXPECT_TRUE(ended);
        wait_until(
            [this] {
                return !updates().empty() || ended_with({"current hub: 20's PORT1@", "Can't find"});
            },
            3s);
        return Stop_nexthop_udp_test();
    }

    int run_ping() {
        publish();
        EXPECT_EQ(Start_nexthop_ping_test(), 0);
        EXPECT_TRUE(wait_until(
            [] {
                return ended_with({"Update active hub", "Can't find", "Ping current hub"});
            },
            60s));
        wait_until(
            [this] {
                return !updates().empty() || ended_with({"Ping current hub", "Can't find"});
            },
            3s);
        return Stop_nexthop_ping_test();
    }

    static bool ended_with(const std::vector<std::string>& words) {
        for (const auto& text : log_texts())
            for (const auto& word : words)
                if (text.find(word) != std::string::npos) return true;
        return false;
    }

    Recorder ipsec{"/sbin/ipsec"};
    Recorder jq{"/bin/jq"};
    Json::Value sites{Json::objectValue};
    std::optional<Services> services;
};

std::string reply_of(int id, int receiver, int result) {
    return "{\"Sender\":" + std::to_string(id) + ",\"Receiver\":" + std::to_string(receiver) +
           ",\"Result\":" + std::to_string(result) + ",\"Cpu\":1,\"Memory\":2,\"Connections\":3}";
}

TEST_F(Hubs, UdpKeepsACurrentHubThatAnswers) {
    const Site site(20);
    const HubProcess hub(site, 20);
    add_hub(site, 20);
    run_udp();
    EXPECT_THAT(log_texts(), Contains("[DEBUG] Udp requesting current hub: 20's PORT1@10.0.20.2 success."));
    EXPECT_THAT(log_texts(), Contains("[DEBUG] Receive response from 20"));
    EXPECT_TRUE(services->calls("nm-halor.*").empty());
    EXPECT_TRUE(services->calls("nm-morin-handler.*").empty());
}

TEST_F(Hubs, UdpReachesAHubBehindTranslationAtItsRealAddress) {
    const Site site(20);
    const HubProcess hub(site, 20);
    add_hub(site, 20, "1", "g", "192.168.1.1");
    run_udp();
    EXPECT_THAT(log_texts(), Contains("[DEBUG] Udp requesting current hub: 20's PORT1@10.0.20.2 success."));
}

TEST_F(Hubs, UdpTakesTheLargestOfTheHubsThatAnswer) {
    const Site silent(20), large(30), larger(40);
    const HubProcess hub30(large, 30), hub40(larger, 40);
    add_hub(silent, 20);
    add_hub(large, 30, "500");
    add_hub(larger, 40, "900");
    run_udp();
    EXPECT_THAT(log_texts(), Contains("[ERROR] Read from server: 10.0.20.2 error.").Times(3));
    EXPECT_THAT(updates(), testing::ElementsAre("40"));
}

TEST_F(Hubs, UdpGoesOnAfterARejectingHubAndReportsIt) {
    const Site silent(20), rejecting(30), good(40);
    const HubProcess hub40(good, 40);
    const FakeHub hub30(rejecting, [](const std::string&) { return std::vector{reply_of(30, 10, 17)}; });
    add_hub(silent, 20);
    sites["20"]["GROUP_ID"] = "other";
    add_hub(rejecting, 30, "900");
    add_hub(good, 40, "500");
    run_udp();
    EXPECT_THAT(log_texts(), Contains("[ERROR] Rejected by code: 17"));
    const auto posted = services->calls("nm-morin-handler.PostLog");
    ASSERT_EQ(posted.size(), 1U);
    EXPECT_EQ(posted[0].request["values"][0],
              "ProcUdpTest udp request site: 30's ip: 10.0.30.2 failed, ret: 17");
    EXPECT_THAT(updates(), testing::ElementsAre("40"));
}

TEST_F(Hubs, UdpTakesALateAnswerInALaterAttempt) {
    const Site site(20);
    std::atomic<int> seen{0};
    const FakeHub hub(site, [&](const std::string&) {
        if (++seen != 1) return std::vector<std::string>{};
        std::this_thread::sleep_for(2500ms);
        return std::vector{reply_of(20, 10, 0)};
    });
    add_hub(site, 20);
    run_udp();
    EXPECT_THAT(log_texts(), Contains("[DEBUG] Udp requesting current hub: 20's PORT1@10.0.20.2 success."));
    EXPECT_THAT(log_texts(), Contains("[ERROR] Read from server: 10.0.20.2 error.").Times(1));
}

TEST_F(Hubs, UdpDoesNotTakeAnAnswerForAnotherDevice) {
    const Site site(20);
    const FakeHub hub(site, [](const std::string&) { return std::vector{reply_of(20, 11, 0)}; });
    add_hub(site, 20);
    run_udp();
    EXPECT_THAT(log_texts(),
                Contains("[WARNING] Mismatched response device id[11 <-> 10] from 10.0.20.2:7788").Times(3));
    EXPECT_THAT(log_texts(), Contains("[ERROR] Can't find next active hop for 10"));
}

TEST_F(Hubs, UdpGivesUpOnAHubThatDiesBetweenAttempts) {
    const Site site(20);
    std::atomic<int> seen{0};
    const FakeHub hub(site, [&](const std::string&) {
        return ++seen <= 5 ? std::vector<std::string>{"dying"} : std::vector<std::string>{};
    });
    add_hub(site, 20);
    const auto begin = steady_clock::now();
    run_udp();
    EXPECT_THAT(log_texts(), Contains("[ERROR] Json parse failed !!!"));
    EXPECT_THAT(log_texts(), Contains("[ERROR] Can't find next active hop for 10"));
    EXPECT_LT(since(begin), 8s);
}

TEST_F(Hubs, UdpTakesAnotherHubWhenTheCurrentOneIsKilledBetweenAttempts) {
    const Site current(20), other(30);
    HubProcess stranger(current, 99);  // does not answer requests for 20
    const HubProcess good(other, 30);
    add_hub(current, 20);
    add_hub(other, 30);
    publish();
    const auto begin = steady_clock::now();
    ASSERT_EQ(Start_nexthop_udp_test(false), 0);
    ASSERT_TRUE(wait_for_log("[ERROR] Read from server: 10.0.20.2 error."));
    stranger.kill();
    ASSERT_TRUE(wait_until([this] { return !updates().empty(); }, 20s));
    EXPECT_LT(since(begin), 7500ms) << "a port that nobody has costs no more than a silent one";
    EXPECT_EQ(Stop_nexthop_udp_test(), 0);
    EXPECT_EQ(count_log("[ERROR] Read from server: 10.0.20.2 error."), 3);
    EXPECT_THAT(log_texts(), Contains("[ERROR] Udp requesting current hub: 20's PORT1@10.0.20.2 failed."));
    EXPECT_THAT(updates(), testing::ElementsAre("30"));
}

TEST_F(Hubs, UdpTellsItsWansWithoutTunnelsOrWhenCheckingConnections) {
    const Site site(20);
    std::mutex lock;
    std::string last;
    const FakeHub hub(site, [&](const std::string& text) {
        std::lock_guard hold(lock);
        last = text;
        return std::vector{reply_of(20, 0, 0)};
    });
    publish();
    ProcUdpTest test;
    std::string address = site.address();
    const auto told = [&](const char* tunnels, bool check) {
        ipsec.prints(tunnels);
        const int before = hub.seen();
        EXPECT_EQ(test.udp_request(20, address, check), 0);
        EXPECT_TRUE(wait_until([&] { return hub.seen() == before + 5; }));
        std::lock_guard hold(lock);
        Json::Value message;
        EXPECT_TRUE(parse_json(last, message));
        return message["Wan"].asInt();
    };
    EXPECT_EQ(told("", false), 2);
    EXPECT_EQ(told("x INSTALLED\n", false), 0);
    EXPECT_EQ(told("x INSTALLED\n", true), 2);
}

TEST_F(Hubs, UdpHubThatIsSilentCostsItsWaitsAndNoMore) {
    const Site first(20), second(30);
    add_hub(first, 20);
    add_hub(second, 30);
    publish();
    ProcUdpTest test;
    const auto begin = steady_clock::now();
    test.thread_task();
    EXPECT_GE(since(begin), 12s);
    EXPECT_LT(since(begin), 15s) << "the tools that each request asks take their time, too";
}

TEST_F(Hubs, PingKeepsACurrentHubThatAnswers) {
    const Site site(20);
    add_hub(site, 20);
    run_ping();
    EXPECT_THAT(log_texts(), Contains("[DEBUG] Ping current hub: 20's PORT1 @10.0.20.2 success."));
    EXPECT_TRUE(services->calls("nm-halor.*").empty());
}

TEST_F(Hubs, PingPassesOverSilentHubsAndThoseBehindTranslation) {
    const Site silent(20), translated(30), ignoring(40), good(50);
    silent.ignore_pings();
    ignoring.ignore_pings();
    add_hub(silent, 20);
    add_hub(translated, 30, "900", "g", "192.168.1.1");
    add_hub(ignoring, 40, "800");
    add_hub(good, 50, "700", "other");
    const auto begin = steady_clock::now();
    run_ping();
    EXPECT_GE(since(begin), 4s);
    EXPECT_THAT(log_texts(),
                Contains("[ERROR] ProcPingTest ping site: 40's ip: 10.0.40.2 failed, ret: -3001"));
    EXPECT_THAT(log_texts(), Contains("[DEBUG] Ping site: 50's PORT1 @10.0.50.2 success."));
    EXPECT_THAT(log_texts(), Not(Contains(testing::HasSubstr("10.0.30.2"))));
    EXPECT_THAT(updates(), testing::ElementsAre("50"));
}

TEST_F(Hubs, PingWithoutARouteFailsAtOnce) {
    const Site site(20);
    add_hub(site, 20);
    sites["20"]["PORT1"]["REAL_WAN_ADDR4"] = sites["20"]["PORT1"]["WAN_ADDR4"] = "203.0.113.9";
    run_ping();
    EXPECT_THAT(log_texts(), Contains("[ERROR] sendto failed."));
}

// The descriptor by which echoes take turns is opened by the first one and kept for the life of the process.
void first_echo() {
    std::string self = "127.0.0.1";
    EXPECT_EQ(ping_test.ping(self, ""), 0);
}

TEST_F(Hubs, StopsEndWaitingRunsWithin50Milliseconds) {
    const Site site(20);
    site.ignore_pings();
    add_hub(site, 20);
    publish();
    first_echo();
    LeakCheck leaks;
    ASSERT_EQ(Start_nexthop_ping_test(), 0);
    ASSERT_EQ(Start_nexthop_udp_test(false), 0);
    ASSERT_TRUE(
        wait_until([] { return ended_with({"PING TEST"}) && ended_with({"Udp requesting device"}); }));
    std::this_thread::sleep_for(300ms);
    auto begin = steady_clock::now();
    Stop_nexthop_ping_test();
    EXPECT_LT(since(begin), 50ms);
    begin = steady_clock::now();
    Stop_nexthop_udp_test();
    EXPECT_LT(since(begin), 50ms);
}

TEST_F(Hubs, StartedAndStoppedFromFourThreads) {
    const Site site(20);
    add_hub(site, 20);
    publish();
    first_echo();
    LeakCheck leaks;
    std::vector<std::thread> threads;
    for (int n = 0; n < 4; ++n)
        threads.emplace_back([n] {
            for (int round = 0; round < 15; ++round) {
                switch ((round + n) % 4) {
                    case 0:
                        Start_nexthop_ping_test();
                        break;
                    case 1:
                        Start_nexthop_udp_test(round % 2 == 0);
                        break;
                    case 2:
                        Stop_nexthop_ping_test();
                        break;
                    default:
                        Stop_nexthop_udp_test();
                }
            }
        });
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(Stop_nexthop_ping_test(), 0);
    EXPECT_EQ(Stop_nexthop_udp_test(), 0);
}

TEST_F(Hubs, PingOfTheLoopbackIsAnswered) {
    ProcPingTest test;
    std::string address = "127.0.0.1";
    EXPECT_EQ(test.ping(address, ""), 0);
    EXPECT_EQ(test.ping(address, "lo"), 0);
    EXPECT_EQ(test.ping(address, "nodev0"), -3005);
    EXPECT_THAT(log_texts(), Contains("[ERROR] Bind device: nodev0 failed!"));
}

// --- regional links
// -----------------------------------------------------------------------------------------

class RegionalLinks : public Hubs {
protected:
    RegionalLinks() {
        Json::Value& link = sites["10"]["RGLINK2"];
        link["REMOTE_SITE"] = "60";
        link["REMOTE_RGLINK"] = "RGLINK5";
        link["RGLINK_ADDR4"] = "198.18.0.1";
        sites["60"]["RGLINK5"]["RGLINK_ADDR4"] = "198.18.0.2";
    }
};

TEST_F(RegionalLinks, FarEndAnswersOverTheLinksDevice) {
    const Netns far("far");
    add_veth("swdev2", far, "swdev5", {.address = "198.18.0.1/24", .peer_address = "198.18.0.2/24"});
    ASSERT_TRUE(wait_for_carrier("swdev2"));
    publish();
    EXPECT_EQ(Start_rglink_ping_test(2), 0);
    EXPECT_THAT(log_texts(), Contains("[DEBUG] RGLINK: RGLINK2 ping remote site: 60's 198.18.0.2 success."));
}

TEST_F(RegionalLinks, EchoDoesNotLeaveByAnotherDevice) {
    const Netns far("far");
    add_veth("other0", far, "eth0", {.address = "198.18.0.1/24", .peer_address = "198.18.0.2/24"});
    add_veth("swdev2", "swdev2p");
    ASSERT_TRUE(wait_for_carrier("other0"));
    publish();
    EXPECT_NE(Start_rglink_ping_test(2), 0);
    must_run("ip link del swdev2");
    EXPECT_EQ(Start_rglink_ping_test(2), -3005);
    EXPECT_THAT(log_texts(),
                Contains("[ERROR] RGLINK: RGLINK2 dev: swdev2 ping remote site: 60's 198.18.0.2 failed."));
}

}  // namespace
}  // namespace corvo::test
