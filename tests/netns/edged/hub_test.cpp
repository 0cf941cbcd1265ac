// The daemon's timer of hub tests: one at a time, and none whose links are in doubt.
#include <algorithm>

#include "foundation/json.h"
#include "netns/edged/edge.h"
#include "support/recorder.h"

using namespace corvo::test;
using namespace std::chrono_literals;
using testing::IsEmpty;

namespace {

// Hub 21 and the candidate 22 lie behind the gateways, which swallow what is for them: a test of both takes
// twelve seconds.
class EdgedHubTests : public EdgeTest {
protected:
    EdgedHubTests() {
        services->document("site.json", R"({"SITE_INFO": {
            "11": {"ROLE": "EDGE", "HUB": "21", "HUBS": ["21", "22"], "GROUP_ID": "g", "DOMAIN": "north", "LAN": []},
            "21": {"ROLE": "HUB", "GROUP_ID": "g", "DOMAIN": "north", "LAN": [],
                   "PORT1": {"WAN_ADDR4": "192.0.2.21", "REAL_WAN_ADDR4": "192.0.2.21", "TUN_ADDR4": "198.19.0.160"}},
            "22": {"ROLE": "HUB", "GROUP_ID": "g", "DOMAIN": "north", "LAN": [],
                   "PORT1": {"WAN_ADDR4": "192.0.2.22", "REAL_WAN_ADDR4": "192.0.2.22", "TUN_ADDR4": "198.19.0.168"}}}})");
        for (const Netns* gateway : {&gw1, &gw2}) gateway->ip({"route add blackhole 192.0.2.0/24"});
    }

    static Daemon::Options every_second() {
        return {.arguments = {"--hub-test", "udp", "--hub-interval", "1"}};
    }
    static long logged(const std::string& part) {
        const auto texts = log_texts();
        return std::count_if(texts.begin(), texts.end(),
                             [&](const auto& text) { return text.find(part) != std::string::npos; });
    }
    static bool wait_for(const std::string& part, long count, std::chrono::seconds limit) {
        return wait_until([&] { return logged(part) >= count; }, limit);
    }
    static long begun_between(const std::string& first, const std::string& last) {
        const auto texts = log_texts();
        const auto from = std::find(texts.begin(), texts.end(), first);
        const auto to = std::find(from, texts.end(), last);
        EXPECT_NE(to, texts.end());
        return std::count_if(
            from, to, [](const auto& text) { return text.find("UDP TEST dev_id") != std::string::npos; });
    }
    static bool events_say(const std::string& part) {
        const Json::Value state = daemon_state();
        return std::any_of(state["events"].begin(), state["events"].end(), [&](const Json::Value& event) {
            return event["text"].asString().find(part) != std::string::npos;
        });
    }
};

TEST_F(EdgedHubTests, RunToTheirEndThoughTheIntervalIsShorter) {
    Daemon daemon(every_second());
    ASSERT_TRUE(wait_for("Can't find next active hop for 11", 1, 90s)) << daemon.errors();
    EXPECT_LE(logged("UDP TEST dev_id"), 2);
    EXPECT_THAT(services->calls("nm-halor.UpdateActiveHUB"), IsEmpty());
    // The next one comes by itself.
    EXPECT_TRUE(wait_for("UDP TEST dev_id", 2, 40s));
}

TEST_F(EdgedHubTests, AreEndedWhileALinkIsInDoubtAndBeginAgainOnceThatIsKnownToBeDown) {
    Daemon daemon(every_second());
    ASSERT_TRUE(wait_for_links("up", "up")) << corvo::compact_json(daemon_state());
    ASSERT_TRUE(wait_for("UDP TEST dev_id", 1, 40s));
    gateway(1, false);
    ASSERT_TRUE(wait_until([] { return events_say("hub test ended"); }, 40s));
    ASSERT_TRUE(wait_for_links("down", "up"));
    EXPECT_TRUE(wait_for("UDP TEST dev_id", 2, 40s));
    EXPECT_EQ(
        begun_between("[ERROR] eth1 get neigh failed, count: 2", "[ERROR] eth1 get neigh failed, count: 5"),
        0);
    EXPECT_THAT(services->calls("nm-halor.UpdateActiveHUB"), IsEmpty());
}

TEST_F(EdgedHubTests, DoNotKeepTheDaemonFromEndingThoughTheirToolHangs) {
    Recorder ipsec("/sbin/ipsec");
    ipsec.always().hangs();
    Daemon daemon(every_second());
    ASSERT_TRUE(ipsec.wait_for_calls(1, 60s));
    EXPECT_EQ(daemon.terminate(), 0);
}

}  // namespace
