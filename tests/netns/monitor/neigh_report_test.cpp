// The pieces of the neighbour probe's reports: hub manager, condition file, bandwidth.

#include <gmock/gmock.h>
#include <sys/stat.h>

#include "neigh_fixture.h"

namespace corvo::test {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsSupersetOf;

TEST_F(NeighCycle, StatusIsReportedThreeTimesWhenTheHubManagerRefuses) {
    wan.neighbour("permanent");
    auto probe = wan.probe();
    services->fail("nm-halor.UpdateWanNexthopStatus", -77);
    services->forget();
    clear_log();
    EXPECT_EQ(probe->probe(), 0);
    EXPECT_EQ(services->count("nm-halor.UpdateWanNexthopStatus {\"id\":1,\"stat\":0}"), 3);
    EXPECT_EQ(count_log("[ERROR] update_nexthop_status, ret: -77"), 3);
    EXPECT_EQ(report(*probe)["stat"], Json::Value(0)) << "the cycle goes on";
    cycles(*probe, 3);
    EXPECT_EQ(services->count("nm-halor.UpdateWanNexthopStatus {\"id\":1,\"stat\":0}"), 3) << "and is over";
}

TEST_F(NeighCycle, StatusIsReportedUntilTheHubManagerAgrees) {
    wan.neighbour("permanent");
    auto probe = wan.probe();
    int asked = 0;
    services->answer("nm-halor.UpdateWanNexthopStatus",
                     [&] { return vx::Reply::text(++asked < 2 ? "{\"error\":-1}" : "{\"error\":0}"); });
    clear_log();
    probe->probe();
    EXPECT_EQ(asked, 2);
    EXPECT_EQ(count_log("[ERROR] update_nexthop_status, ret: -1"), 1);
}

TEST_F(NeighCycle, UnknownInstanceRestartsTheMonitorWithEachAttempt) {
    wan.neighbour("permanent");
    auto probe = wan.probe();
    services->fail("nm-halor.UpdateWanNexthopStatus", -5017);
    services->forget();
    clear_log();
    probe->probe();
    EXPECT_EQ(services->count("nm-halor.RestartMonitor "), 3);
    EXPECT_EQ(count_log("[ERROR] Instance is not existed; Do nm-halor.RestartMonitor."), 3);
    EXPECT_EQ(count_log("[ERROR] update_nexthop_status, ret: -5017"), 3);
}

TEST_F(NeighCycle, UnknownInstanceOfALinkThatIsDownRestartsNothing) {
    auto probe = connected();
    services->fail("nm-halor.UpdateWanNexthopStatus", -5017);
    wan.neighbour("failed");
    cycles(*probe, 6);
    EXPECT_EQ(services->count("nm-halor.RestartMonitor "), 0);
    EXPECT_EQ(count_log("[WARNING] interface has been removed."), 3);
}

TEST_F(NeighCycle, FailingConditionEndsTheCycleUnsavedAndEverythingIsRepeated) {
    ::unlink("/proc/net/nf_condition/PORT1");
    ASSERT_EQ(::mkdir("/proc/net/nf_condition/PORT1", 0700), 0);
    wan.neighbour("permanent");
    auto probe = wan.probe();
    services->forget();
    clear_log();
    probe->probe();
    EXPECT_TRUE(probe->get_state().isNull());
    EXPECT_THAT(texts(), IsSupersetOf({"[ERROR] Open file: /proc/net/nf_condition/PORT1 failed",
                                       "[ERROR] local_mgmt enabled: 0 , is fail?:  0"}));
    clear_log();
    probe->probe();
    EXPECT_TRUE(probe->get_state().isNull());
    EXPECT_THAT(texts(), ElementsAre("[WARNING] status changed: 0 to 0",
                                     "[ERROR] Duplicate dev: eth1, gateway: 192.0.1.1",
                                     "[ERROR] Add default gateway failed, dev: eth1",
                                     "[ERROR] Open file: /proc/net/nf_condition/PORT1 failed",
                                     "[ERROR] local_mgmt enabled: 0 , is fail?:  0"));
    EXPECT_EQ(services->count("pluvd.exec {\"flag\": \"4\"}"), 2);
    ::rmdir("/proc/net/nf_condition/PORT1");
    probe->probe();
    EXPECT_EQ(condition("PORT1"), "1");
    EXPECT_EQ(report(*probe)["stat"], Json::Value(0));
}

TEST_F(NeighCycle, FailingConditionOfADownReportSaysSo) {
    auto probe = connected();
    ::unlink("/proc/net/nf_condition/PORT1");
    ASSERT_EQ(::mkdir("/proc/net/nf_condition/PORT1", 0700), 0);
    wan.neighbour("failed");
    cycles(*probe, 6);
    EXPECT_EQ(count_log("[ERROR] local_mgmt enabled: 0 , is fail?:  1"), 1);
    EXPECT_EQ(report(*probe)["stat"], Json::Value(0)) << "the document still shows the last saved report";
    ::rmdir("/proc/net/nf_condition/PORT1");
}

TEST_F(NeighCycle, ReloadWritesTheLastReportedStatus) {
    auto probe = connected();
    write_file("/proc/net/nf_condition/PORT1", "0");
    EXPECT_EQ(probe->reload_condition(), 0);
    EXPECT_EQ(condition("PORT1"), "1");
    wan.neighbour("failed");
    cycles(*probe, 6);
    write_file("/proc/net/nf_condition/PORT1", "1");
    EXPECT_EQ(probe->reload_condition(), 0);
    EXPECT_EQ(condition("PORT1"), "0");
}

TEST_F(NeighCycle, WritingTheConditionIsTracedWhenVerbose) {
    auto probe = connected();
    clear_log();
    verbose = 1;
    EXPECT_EQ(probe->update_condition(0), 0);
    verbose = 0;
    EXPECT_THAT(
        log_texts(),
        ElementsAre(testing::MatchesRegex(R"(\[DEBUG\] Enter neigh\.cpp::[0-9]+::update_condition)"),
                    "[DEBUG] Update condition:  1",
                    testing::MatchesRegex(R"(\[DEBUG\] Exit neigh\.cpp::[0-9]+::update_condition: 0)")));
}

TEST_F(NeighCycle, ConditionThatCannotBeOpenedIsMinus3016) {
    auto probe = connected();
    ::unlink("/proc/net/nf_condition/PORT1");
    ASSERT_EQ(::mkdir("/proc/net/nf_condition/PORT1", 0700), 0);
    EXPECT_EQ(probe->reload_condition(), -3016);
    EXPECT_EQ(probe->update_condition(1), -3016);
    EXPECT_EQ(count_log("[ERROR] Open file: /proc/net/nf_condition/PORT1 failed"), 2);
    ::rmdir("/proc/net/nf_condition/PORT1");
}

TEST_F(NeighCycle, BandwidthIsResetWhateverKindAndStatusTheLinkHas) {
    auto probe = connected(false);
    Wan other(2);
    ASSERT_EQ(add_default_gateway(other.dev, other.gateway, 3000), 0);
    clear_log();
    EXPECT_EQ(probe->reset_bandwidth(6000), 0);
    EXPECT_THAT(texts(), IsSupersetOf({"[DEBUG] Gateway has no iface: eth1",
                                       "[DEBUG] Add gateway: 192.0.1.1, dev: eth1, bandwidth: 6000",
                                       "[DEBUG] DEV [eth1], GW [192.0.1.1], WEIGHT [2]."}));
    EXPECT_THAT(default_gateways(), ElementsAre("192.0.2.1", "192.0.1.1"));
}

TEST_F(NeighCycle, BandwidthResetIsUsedByTheNextReport) {
    Wan other(2);
    auto probe = connected();
    ASSERT_EQ(add_default_gateway(other.dev, other.gateway, 3000), 0);
    wan.neighbour("failed");
    cycles(*probe, 6);
    EXPECT_EQ(probe->reset_bandwidth(9000), 0);
    del_default_gateway(wan.dev, true);
    wan.neighbour("permanent");
    clear_log();
    cycles(*probe, 1);
    EXPECT_THAT(texts(), Contains("[DEBUG] Add gateway: 192.0.1.1, dev: eth1, bandwidth: 9000"));
}

TEST_F(NeighCycle, BandwidthResetLogsBothFailures) {
    auto probe = connected();
    clear_log();
    // The only gateway goes (an empty set has no route), and comes back without a weight to divide.
    EXPECT_EQ(probe->reset_bandwidth(0), -3004);
    EXPECT_THAT(texts(), IsSupersetOf({"[ERROR] Delete default gateway failed, dev: eth1",
                                       "[ERROR] Add default gateway failed, dev: eth1"}));
}

}  // namespace
}  // namespace corvo::test
