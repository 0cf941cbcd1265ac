// The life of the daemon: bring-up, failover, new documents, end.
#include <signal.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "foundation/json.h"
#include "netns/edged/edge.h"

using namespace corvo::test;
using namespace std::chrono_literals;
using corvo::compact_json;
using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::Ge;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

class Edged : public EdgeTest {
protected:
    // Waits for the attempt after the `attempts`th to apply documents.
    static bool wait_for_attempt(unsigned attempts) {
        return wait_until(
            [&] { return corvo::j_uint64(daemon_state()["last_apply"], "attempts") > attempts; }, 40s);
    }
    static unsigned attempts() {
        return static_cast<unsigned>(corvo::j_uint64(daemon_state()["last_apply"], "attempts"));
    }
    static std::vector<std::string> problems() {
        std::vector<std::string> out;
        const Json::Value state = daemon_state();
        for (const auto& problem : state["last_apply"]["problems"]) out.push_back(problem.asString());
        return out;
    }
    static std::vector<std::string> events() {
        std::vector<std::string> out;
        const Json::Value state = daemon_state();
        for (const auto& event : state["events"]) out.push_back(event["text"].asString());
        return out;
    }
    // The kernel thread ids that the neighbour probe of `dev` has logged.
    static std::vector<std::string> probe_threads(const std::string& dev) {
        std::vector<std::string> out;
        for (const std::string& text : log_texts()) {
            if (text.find("NEIGH: " + dev + " ") == std::string::npos) continue;
            out.push_back(text.substr(text.rfind('@') + 1));
        }
        return out;
    }
};

TEST_F(Edged, PutsTheDefaultRouteOverEveryWanByWeight) {
    Daemon daemon;
    ASSERT_TRUE(wait_for_links("up", "up")) << compact_json(daemon_state()) << daemon.errors();
    EXPECT_THAT(default_routes(), ElementsAre("100 eth1*5 eth2*2"));
    EXPECT_EQ(condition("PORT1"), "1");
    EXPECT_EQ(condition("PORT2"), "1");
    EXPECT_TRUE(services->wait_for_calls("nm-halor.UpdateWanNexthopStatus", 2));
}

TEST_F(Edged, CarriesTrafficByAStandInUntilItsMonitorsHaveReported) {
    gateway(2, false);
    Daemon daemon;
    ASSERT_TRUE(wait_until([&] { return link_status("eth1") == "up"; }, 20s)) << daemon.errors();
    // eth2 has not made up its mind yet.
    EXPECT_THAT(default_routes(), ElementsAre("100 eth1", "99 eth1*5 eth2*2"));
    ASSERT_TRUE(wait_for_links("up", "down"));
    EXPECT_THAT(default_routes(), ElementsAre("100 eth1"));
}

TEST_F(Edged, MovesTheDefaultRouteWhenAGatewayDiesAndReturns) {
    Daemon daemon;
    ASSERT_TRUE(wait_for_links("up", "up"));
    services->forget_calls();
    gateway(1, false);
    ASSERT_TRUE(wait_for_links("down", "up"));
    EXPECT_THAT(default_routes(), ElementsAre("100 eth2"));
    EXPECT_EQ(condition("PORT1"), "0");
    EXPECT_EQ(condition("PORT2"), "1");
    ASSERT_TRUE(services->wait_for_calls("nm-halor.UpdateWanNexthopStatus", 1));
    const auto calls = services->calls("nm-halor.UpdateWanNexthopStatus");
    EXPECT_EQ(calls[0].request["id"], 1);
    EXPECT_EQ(calls[0].request["stat"], 1);
    gateway(1, true);
    ASSERT_TRUE(wait_for_links("up", "up"));
    EXPECT_THAT(default_routes(), ElementsAre("100 eth1*5 eth2*2"));
    EXPECT_EQ(condition("PORT1"), "1");
    EXPECT_THAT(events(), AllOf(Contains("link eth1 down"), Contains("link eth1 up")));
}

TEST_F(Edged, RefusesTwoLinksOfOneIdAndComesUpWhenTheDocumentIsMended) {
    wan("eth2")["ID"] = "1";
    publish();
    Daemon daemon;
    ASSERT_TRUE(wait_until([&] { return !problems().empty(); }, 20s));
    EXPECT_THAT(problems(), Contains(HasSubstr("device_info.json#/WAN_IFACE_INFO/eth2/ID")));
    EXPECT_FALSE(daemon_state()["ready"].asBool());
    EXPECT_THAT(default_routes(), IsEmpty());
    wan("eth2")["ID"] = "2";
    publish();
    EXPECT_TRUE(wait_for_links("up", "up"));
    EXPECT_THAT(problems(), IsEmpty());
}

TEST_F(Edged, ComesUpWhenTheServicesComeLater) {
    services->kill();
    Daemon daemon;
    ASSERT_TRUE(wait_until([&] { return attempts() > 0; }, 20s));
    EXPECT_FALSE(daemon_state()["ready"].asBool());
    EXPECT_THAT(problems(), Contains("the configuration service gives no device id"));
    services->start();
    EXPECT_TRUE(wait_for_links("up", "up"));
    EXPECT_THAT(default_routes(), ElementsAre("100 eth1*5 eth2*2"));
}

TEST_F(Edged, TakesAnInterfaceIntoUseWhenItAppears) {
    must_run("ip link del eth2");
    Daemon daemon;
    ASSERT_TRUE(wait_until([&] { return link_status("eth1") == "up"; }, 20s));
    EXPECT_EQ(link_status("eth2"), "");
    add_veth("eth2", gw2, "gw", {.address = "198.51.100.11/24", .peer_address = "198.51.100.1/24"});
    EXPECT_TRUE(wait_for_links("up", "up"));
    EXPECT_THAT(default_routes(), ElementsAre("100 eth1*5 eth2*2"));
}

TEST_F(Edged, KeepsTheLastGoodStateWhenNewDocumentsAreBad) {
    Daemon daemon;
    ASSERT_TRUE(wait_for_links("up", "up"));
    const auto before = kernel_state();
    const unsigned tried = attempts();
    wan("eth1")["IP4_GW"] = "203.0.113.999";
    publish();
    daemon.signal(SIGHUP);
    ASSERT_TRUE(wait_for_attempt(tried));
    const ToolResult status = corvoctl({"status"});
    EXPECT_EQ(status.status, 0);
    EXPECT_THAT(status.out, AllOf(HasSubstr("documents REFUSED"),
                                  HasSubstr("device_info.json#/WAN_IFACE_INFO/eth1/IP4_GW")));
    EXPECT_THAT(kernel_state(), testing::ElementsAreArray(before));
    EXPECT_EQ(link_status("eth1"), "up");

    services->document("device_info.json", "{");
    daemon.signal(SIGHUP);
    ASSERT_TRUE(wait_for_attempt(tried + 1));
    EXPECT_FALSE(daemon_state()["last_apply"]["good"].asBool());
    EXPECT_THAT(kernel_state(), testing::ElementsAreArray(before));

    wan("eth1")["IP4_GW"] = "203.0.113.1";
    publish();
    daemon.signal(SIGHUP);
    ASSERT_TRUE(wait_for_attempt(tried + 2));
    EXPECT_TRUE(daemon_state()["last_apply"]["good"].asBool());
}

TEST_F(Edged, ReplacesOnlyTheMonitorOfTheLinkThatChanged) {
    gw2.ip({"addr add 198.51.100.2/24 dev gw"});
    Daemon daemon;
    ASSERT_TRUE(wait_for_links("up", "up"));
    const auto first = probe_threads("eth1");
    const auto second = probe_threads("eth2");
    ASSERT_THAT(first, SizeIs(1));
    ASSERT_THAT(second, SizeIs(1));
    wan("eth2")["IP4_GW"] = "198.51.100.2";
    publish();
    daemon.signal(SIGHUP);
    ASSERT_TRUE(wait_until([] { return probe_threads("eth2").size() == 2; }, 20s));
    ASSERT_TRUE(wait_for_links("up", "up"));
    EXPECT_EQ(probe_threads("eth1"), first);
    const std::string tasks = "/proc/" + std::to_string(daemon.pid()) + "/task/";
    EXPECT_TRUE(std::filesystem::exists(tasks + first[0]));
    EXPECT_FALSE(std::filesystem::exists(tasks + second[0]));
    EXPECT_EQ(run_line("ip route show table 253").out.find("198.51.100.1 "), std::string::npos);
    EXPECT_THAT(default_routes(), ElementsAre("100 eth1*5 eth2*2"));
}

TEST_F(Edged, MovesWeightsWithoutReplacingMonitors) {
    Daemon daemon;
    ASSERT_TRUE(wait_for_links("up", "up"));
    const auto threads = probe_threads("eth2");
    wan("eth2")["TX_RATE"] = "100000000";
    publish();
    daemon.signal(SIGHUP);
    EXPECT_TRUE(
        wait_until([] { return default_routes() == std::vector<std::string>{"100 eth1*1 eth2*2"}; }, 20s));
    EXPECT_EQ(probe_threads("eth2"), threads);
}

// The library would put a gateway that is dead into the default route.
TEST_F(Edged, GivesALinkThatIsDownItsNewWeightWhenItReturns) {
    gateway(2, false);
    Daemon daemon;
    ASSERT_TRUE(wait_for_links("up", "down"));
    const unsigned tried = attempts();
    wan("eth2")["TX_RATE"] = "100000000";
    publish();
    daemon.signal(SIGHUP);
    ASSERT_TRUE(wait_for_attempt(tried));
    EXPECT_THAT(default_routes(), ElementsAre("100 eth1"));
    gateway(2, true);
    EXPECT_TRUE(
        wait_until([] { return default_routes() == std::vector<std::string>{"100 eth1*1 eth2*2"}; }, 20s));
}

TEST_F(Edged, EndsTheMonitorOfALinkThatIsGone) {
    Daemon daemon;
    ASSERT_TRUE(wait_for_links("up", "up"));
    device_info["WAN_IFACE_INFO"].removeMember("eth2");
    publish();
    daemon.signal(SIGHUP);
    ASSERT_TRUE(wait_until([] { return link_status("eth2").empty(); }, 20s));
    EXPECT_THAT(default_routes(), ElementsAre("100 eth1"));
    EXPECT_EQ(condition("PORT2"), "0");
}

TEST_F(Edged, LeavesTheDataPlaneWhenItEnds) {
    Daemon daemon;
    ASSERT_TRUE(wait_for_links("up", "up"));
    EXPECT_EQ(daemon.terminate(), 0);
    EXPECT_THAT(default_routes(), ElementsAre("99 eth1*5 eth2*2"));
    EXPECT_THAT(daemon.errors(), testing::Not(HasSubstr("corvo-edged")));
}

TEST_F(Edged, DoesNotTouchTheRouteThatItsPredecessorLeft) {
    {
        Daemon daemon;
        ASSERT_TRUE(wait_for_links("up", "up"));
        ASSERT_EQ(daemon.terminate(), 0);
    }
    clear_log();
    Daemon daemon;
    ASSERT_TRUE(wait_for_links("up", "up"));
    const auto texts = log_texts();
    const auto at = [&](const std::string& text) {
        return std::find_if(texts.begin(), texts.end(),
                            [&](const std::string& line) { return line.find(text) != std::string::npos; });
    };
    // It goes once, when the route of the monitors is there.
    EXPECT_EQ(std::count_if(texts.begin(), texts.end(),
                            [](const std::string& line) {
                                return line.find("Flush default route table: 253, metric: 99") !=
                                       std::string::npos;
                            }),
              1);
    EXPECT_LT(at("DEV [eth1]"), at("metric: 99"));
    EXPECT_THAT(default_routes(), ElementsAre("100 eth1*5 eth2*2"));
}

TEST_F(Edged, LeavesADeadLinkOutOfTheStandInWhenItIsStartedAgain) {
    gateway(1, false);
    {
        Daemon daemon;
        ASSERT_TRUE(wait_for_links("down", "up"));
        daemon.kill();
    }
    Daemon daemon;
    ASSERT_TRUE(wait_until([&] { return daemon_state()["stand_in_route"].asBool(); }, 20s));
    EXPECT_THAT(default_routes(), Contains("99 eth2"));
}

TEST_F(Edged, RemovesEverythingWhenToldTo) {
    const auto clean = kernel_state();
    Daemon daemon({.arguments = {"--clear-on-exit"}});
    ASSERT_TRUE(wait_for_links("up", "up"));
    EXPECT_EQ(daemon.terminate(), 0);
    EXPECT_THAT(kernel_state(), testing::ElementsAreArray(clean));
    EXPECT_EQ(condition("PORT1"), "0");
}

TEST_F(Edged, WritesWrongUsageToStandardErrorAndExitsWithTwo) {
    Daemon daemon({.arguments = {"--no-such-option"}});
    EXPECT_EQ(daemon.wait(), 2);
    EXPECT_THAT(daemon.errors(), HasSubstr("--no-such-option"));
}

TEST_F(Edged, TakesDocumentsOfAnotherDirectoryAsIfTheyWereInTheUsualPlace) {
    const std::string other = scratch_dir() + "/other";
    std::filesystem::create_directories(other);
    const std::string usual = read_file(kDocumentDir + std::string("device_info.json"));
    services.reset();
    services = std::make_unique<Services>(Services::Options{.documents = other});
    wan("eth2")["TX_RATE"] = "30000000";
    publish();
    Daemon daemon({.arguments = {"--documents", other}});
    ASSERT_TRUE(wait_for_links("up", "up")) << compact_json(daemon_state()) << daemon.errors();
    EXPECT_THAT(default_routes(), ElementsAre("100 eth1*5 eth2*3"));
    // What the library reads at the usual place, in the daemon's process, is the other directory; nobody else
    // sees that.
    const std::string seen =
        "/proc/" + std::to_string(daemon.pid()) + "/root" + kDocumentDir + "device_info.json";
    EXPECT_EQ(read_file(seen), read_file(other + "/device_info.json"));
    EXPECT_EQ(read_file(kDocumentDir + std::string("device_info.json")), usual);
    // New documents, put in place the way that careful writers do.
    wan("eth2")["TX_RATE"] = "40000000";
    publish();
    ASSERT_EQ(corvoctl({"reload"}).status, 0);
    EXPECT_TRUE(
        wait_until([] { return default_routes() == std::vector<std::string>{"100 eth1*5 eth2*4"}; }, 20s));
}

TEST_F(Edged, RefusesDocumentsThatTheServicesDoNotServe) {
    const std::string other = scratch_dir() + "/other";
    std::filesystem::create_directories(other);
    Json::Value there = device_info;
    there["WAN_IFACE_INFO"]["eth2"]["TX_RATE"] = "30000000";
    write_file(other + "/device_info.json", compact_json(there));
    Daemon daemon({.arguments = {"--documents", other}});
    ASSERT_TRUE(wait_until([&] { return !problems().empty(); }, 20s)) << daemon.errors();
    EXPECT_THAT(problems(), Contains(HasSubstr("start the services with the same documents")));
    EXPECT_THAT(default_routes(), IsEmpty());
    EXPECT_EQ(Daemon({.arguments = {"--documents", other + "/none"}}).wait(), 2);
}

TEST_F(Edged, RefusesToRunBesideAnother) {
    Daemon first;
    ASSERT_TRUE(wait_until([] { return daemon_state().isObject(); }, 20s));
    Daemon second;
    EXPECT_EQ(second.wait(), 1);
    EXPECT_THAT(second.errors(), HasSubstr("another corvo-edged"));
    EXPECT_TRUE(wait_for_links("up", "up"));
}

}  // namespace
