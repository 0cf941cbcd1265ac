// One cycle of the neighbour probe after the other, on a real device: when it reports, and what.

#include <gmock/gmock.h>

#include "neigh_fixture.h"

namespace corvo::test {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsSupersetOf;

TEST_F(NeighCycle, FirstGoodCycleReportsConnected) {
    wan.neighbour("reachable");
    auto probe = wan.probe();
    services->forget();
    clear_log();
    EXPECT_EQ(probe->probe(), 0);
    EXPECT_THAT(texts(), ElementsAre("[WARNING] status changed: 0 to 0",
                                     "[DEBUG] Add gateway: 192.0.1.1, dev: eth1, bandwidth: 1000",
                                     "[DEBUG] Flush default route table: 253, metric: 100",
                                     "[DEBUG] GCD: 1000", "[DEBUG] DEV [eth1], GW [192.0.1.1], WEIGHT [1].",
                                     "[DEBUG] Update condition:  1"));
    EXPECT_THAT(services->texts(), ElementsAre("pluvd.exec {\"flag\": \"4\"}",
                                               "nm-halor.UpdateWanNexthopStatus {\"id\":1,\"stat\":0}"));
    EXPECT_EQ(condition("PORT1"), "1");
    EXPECT_THAT(default_gateways(), ElementsAre("192.0.1.1"));
    const Json::Value state = report(*probe);
    EXPECT_EQ(state["neigh_status"], Json::Value("REACHABLE"));
    EXPECT_EQ(state["status"], Json::Value("Link is connected."));
    EXPECT_EQ(state["ip"], Json::Value("192.0.1.2"));
    EXPECT_EQ(state["target_mac"], Json::Value("02:00:00:00:00:01"));
    EXPECT_EQ(state["mac"], ip_json("link show dev eth1")[0]["address"]);
    EXPECT_EQ(state["local_mgmt"], Json::Value(false));
    EXPECT_EQ(state["id"], Json::Value(1u));
}

TEST_F(NeighCycle, FurtherGoodCyclesDoNothing) {
    auto probe = connected();
    cycles(*probe, 5);
    EXPECT_THAT(texts(), ElementsAre());
    EXPECT_THAT(services->texts(), ElementsAre());
}

TEST_F(NeighCycle, SixthFailedCycleReportsDown) {
    Wan other(2);
    auto probe = connected();
    ASSERT_EQ(add_default_gateway(other.dev, other.gateway, 3000), 0);
    clear_log();
    wan.neighbour("failed");
    cycles(*probe, 6);
    EXPECT_THAT(
        texts(),
        ElementsAre("[ERROR] eth1 get neigh failed, count: 1", "[ERROR] eth1 get neigh failed, count: 2",
                    "[ERROR] eth1 get neigh failed, count: 3", "[ERROR] eth1 get neigh failed, count: 4",
                    "[ERROR] eth1 get neigh failed, count: 5", "[WARNING] status changed: 0 to 1",
                    "[DEBUG] Delete gateway: 192.0.1.1, dev: eth1",
                    "[DEBUG] Flush default route table: 253, metric: 100", "[DEBUG] GCD: 3000",
                    "[DEBUG] DEV [eth2], GW [192.0.2.1], WEIGHT [1].", "[DEBUG] Update condition:  0"));
    EXPECT_THAT(services->texts(), ElementsAre("pluvd.exec {\"flag\": \"2\"}",
                                               "nm-halor.UpdateWanNexthopStatus {\"id\":1,\"stat\":1}"));
    EXPECT_THAT(default_gateways(), ElementsAre("192.0.2.1"));
    EXPECT_EQ(condition("PORT1"), "0");
    EXPECT_EQ(report(*probe)["stat"], Json::Value(1));
    EXPECT_EQ(report(*probe)["status"], Json::Value("gateway neigh failed."));
    EXPECT_EQ(report(*probe)["neigh_status"], Json::Value("FAILED"));
    EXPECT_EQ(report(*probe)["target_mac"], Json::Value(""));
}

TEST_F(NeighCycle, FailuresOfADownReportAreLoggedAndItGoesOn) {
    auto probe = connected();
    add_default_gateway("eth2", "192.0.2.1", 0);  // without a weight no route can be built
    services->fail("pluvd.exec", -1);
    clear_log();
    wan.neighbour("failed");
    cycles(*probe, 6);
    EXPECT_THAT(texts(), IsSupersetOf({"[ERROR] Delete default gateway failed, dev: eth1",
                                       "[ERROR] PLUVD.exec IFDOWN failed.", "[DEBUG] Update condition:  0"}));
    EXPECT_EQ(report(*probe)["stat"], Json::Value(1));
}

TEST_F(NeighCycle, FailuresOfAnUpReportAreLoggedAndItGoesOn) {
    wan.neighbour("permanent");
    add_default_gateway(wan.dev, wan.gateway, 1);
    services->fail("pluvd.exec", -1);
    auto probe = wan.probe();
    clear_log();
    cycles(*probe, 1);
    EXPECT_THAT(texts(), IsSupersetOf({"[ERROR] Add default gateway failed, dev: eth1",
                                       "[ERROR] PLUVD.exec IFUP failed.", "[DEBUG] Update condition:  1"}));
    EXPECT_EQ(report(*probe)["stat"], Json::Value(0));
}

TEST_F(NeighCycle, LastGatewayOfTheDeviceStays) {
    auto probe = connected();
    wan.neighbour("failed");
    cycles(*probe, 6);
    EXPECT_THAT(texts(), Contains("[WARNING] Skip Gateway deletion, gws: 1"));
    EXPECT_THAT(default_gateways(), ElementsAre("192.0.1.1"));
}

TEST_F(NeighCycle, OneGoodCycleReportsUp) {
    Wan other(2);
    auto probe = connected();
    ASSERT_EQ(add_default_gateway(other.dev, other.gateway, 3000), 0);
    wan.neighbour("failed");
    cycles(*probe, 6);
    EXPECT_THAT(default_gateways(), ElementsAre("192.0.2.1"));
    clear_log();
    services->forget();
    wan.neighbour("reachable");
    EXPECT_EQ(probe->probe(), 0);
    EXPECT_THAT(texts(), IsSupersetOf({"[WARNING] status changed: 1 to 0", "[DEBUG] Update condition:  1"}));
    EXPECT_THAT(services->texts(), ElementsAre("pluvd.exec {\"flag\": \"4\"}",
                                               "nm-halor.UpdateWanNexthopStatus {\"id\":1,\"stat\":0}"));
    EXPECT_THAT(default_gateways(), ElementsAre("192.0.2.1", "192.0.1.1"));
    EXPECT_EQ(condition("PORT1"), "1");
    EXPECT_EQ(report(*probe)["stat"], Json::Value(0));
}

TEST_F(NeighCycle, FiveFailedCyclesAndAGoodOneChangeNothing) {
    auto probe = connected();
    for (int round = 0; round < 3; ++round) {
        wan.neighbour("failed");
        cycles(*probe, 5);
        wan.neighbour("permanent");
        cycles(*probe, 1);
    }
    EXPECT_THAT(services->texts(), ElementsAre());
    EXPECT_EQ(condition("PORT1"), "1");
    EXPECT_EQ(count_log("[ERROR] eth1 get neigh failed, count: 5"), 3);
    EXPECT_EQ(count_log("[ERROR] eth1 get neigh failed, count: 6"), 0);
}

TEST_F(NeighCycle, CountStartsAgainAfterTheDownReport) {
    auto probe = connected();
    wan.neighbour("failed");
    cycles(*probe, 6);
    clear_log();
    cycles(*probe, 1);
    EXPECT_THAT(texts(), Contains("[ERROR] eth1 get neigh failed, count: 1"));
}

TEST_F(NeighCycle, NeverSeenGatewayIsReportedDownOnceAtTheSixthCycle) {
    Recorder ip("/sbin/ip");
    auto probe = wan.probe();
    services->forget();
    cycles(*probe, 5);
    EXPECT_TRUE(probe->get_state().isNull());
    EXPECT_THAT(services->texts(), ElementsAre());
    cycles(*probe, 20);
    EXPECT_EQ(services->count("nm-halor.UpdateWanNexthopStatus {\"id\":1,\"stat\":1}"), 1);
    EXPECT_EQ(report(*probe)["neigh_status"], Json::Value("NONE"));
}

TEST_F(NeighCycle, FlushesNatEntriesOnEveryFailedCycleWhileDown) {
    auto probe = connected();
    wan.neighbour("failed");
    cycles(*probe, 6);
    EXPECT_THAT(conntrack.commands(), ElementsAre()) << "not before the report, nor in the reporting cycle";
    cycles(*probe, 3);
    EXPECT_THAT(conntrack.commands(),
                ElementsAre("/usr/sbin/conntrack -D -n 192.0.1.2", "/usr/sbin/conntrack -D -n 192.0.1.2",
                            "/usr/sbin/conntrack -D -n 192.0.1.2"));
    wan.neighbour("permanent");
    cycles(*probe, 2);
    EXPECT_EQ(conntrack.calls().size(), 3u);
}

TEST_F(NeighCycle, FlushesNothingWithoutAnAddress) {
    Recorder ip("/sbin/ip");
    ip_batch({"addr flush dev eth1"});
    auto probe = wan.probe();
    cycles(*probe, 10);
    EXPECT_EQ(report(*probe)["ip"], Json::Value(""));
    EXPECT_THAT(conntrack.commands(), ElementsAre())
        << "an empty filter would flush every entry of the device";
}

TEST_F(NeighCycle, LinkThatIsNoWanTouchesNoGateway) {
    wan.neighbour("permanent");
    auto probe = wan.probe(false);
    services->forget();
    clear_log();
    cycles(*probe, 1);
    EXPECT_THAT(texts(),
                ElementsAre("[WARNING] status changed: 0 to 0", "[DEBUG] Skip default gateway setup ...",
                            "[DEBUG] Update condition:  1"));
    wan.neighbour("failed");
    cycles(*probe, 6);
    EXPECT_THAT(services->texts(),
                ElementsAre("nm-halor.Update_private_nexthop_status {\"portname\":\"PORT1\",\"stat\":0}",
                            "nm-halor.Update_private_nexthop_status {\"portname\":\"PORT1\",\"stat\":1}"));
    EXPECT_THAT(default_gateways(), ElementsAre());
    EXPECT_EQ(condition("PORT1"), "0");
}

TEST_F(NeighCycle, LocalManagementKeepsTheConditionUntilStop) {
    services->set_local_mgmt(true);
    write_file("/proc/net/nf_condition/PORT1", "1");
    auto probe = connected();
    EXPECT_EQ(report(*probe)["local_mgmt"], Json::Value(true));
    wan.neighbour("failed");
    cycles(*probe, 6);
    EXPECT_EQ(report(*probe)["stat"], Json::Value(1));
    EXPECT_EQ(condition("PORT1"), "1");
    probe->stop();
    EXPECT_EQ(condition("PORT1"), "0");
}

TEST_F(NeighCycle, OwnAddressAsTargetEndsMonitoringAsConnected) {
    ProcNeigh probe(wan.dev, wan.address, 1000, true, 1);
    services->forget();
    clear_log();
    ASSERT_EQ(probe.start(), 0);
    EXPECT_TRUE(wait_until([&] { return !probe.get_state().isNull(); }));
    EXPECT_THAT(texts(), Contains("[TRACE] eth1's ip and target ip are the same, skip monitoring."));
    EXPECT_EQ(report(probe)["stat"], Json::Value(0));
    EXPECT_EQ(probe.start(), -3026) << "the worker has ended, the probe is not stopped";
    probe.stop();
    EXPECT_EQ(count_log("[TRACE] eth1's ip and target ip are the same, skip monitoring."), 1);
}

TEST_F(NeighCycle, TracesWhileVerbose) {
    auto probe = connected();
    verbose = 1;
    probe->probe();
    verbose = 0;
    std::vector<std::string> seen;
    for (const auto& text : log_texts()) seen.push_back(text.substr(0, text.find("::")));
    EXPECT_THAT(seen, Contains("[DEBUG] Enter neigh.cpp"));
    EXPECT_THAT(seen, Contains("[DEBUG] Exit neigh.cpp"));
    EXPECT_THAT(log_texts(),
                Contains(testing::MatchesRegex("\\[DEBUG\\] Enter neigh.cpp::[0-9]+::scan_neigh")));
    EXPECT_THAT(log_texts(), Contains(testing::MatchesRegex("\\[DEBUG\\] Exit neigh.cpp::[0-9]+::probe: 0")));
}

TEST_F(NeighCycle, LeavesNothingBehind) {
    auto probe = connected();
    LeakCheck leaks;
    for (int round = 0; round < 10; ++round) {
        wan.neighbour("failed");
        cycles(*probe, 8);
        wan.no_neighbour();
        cycles(*probe, 2);
        wan.neighbour("permanent");
        cycles(*probe, 2);
    }
}

}  // namespace
}  // namespace corvo::test
