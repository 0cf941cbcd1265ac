// What a cycle of the neighbour probe makes of its device and of the kernel's neighbour entries.

#include <gmock/gmock.h>

#include "neigh_fixture.h"

namespace corvo::test {
namespace {

using testing::ElementsAre;

TEST_F(NeighCycle, DeviceWithoutCarrierFails) {
    auto probe = connected();
    wan.carrier(false);
    EXPECT_EQ(probe->prepare(), 1);
    EXPECT_EQ(probe->get_neigh_state(), 0);
    EXPECT_EQ(probe->get_target_mac(), "");
    EXPECT_EQ(probe->probe(), 1);
    EXPECT_THAT(texts(), ElementsAre("[ERROR] eth1 get neigh failed, count: 1"));
    wan.carrier(true);
    EXPECT_EQ(probe->probe(), 0);
}

TEST_F(NeighCycle, DeviceThatIsDownFails) {
    auto probe = connected();
    ip_batch({"link set eth1 down"});
    EXPECT_EQ(probe->probe(), 1);
}

TEST_F(NeighCycle, DeviceThatIsGoneFails) {
    auto probe = connected();
    ip_batch({"link del eth1"});
    EXPECT_EQ(probe->prepare(), 1);
    EXPECT_EQ(probe->probe(), 1);
    EXPECT_EQ(probe->get_target_mac(), "");
}

TEST_F(NeighCycle, InterfacesThatCannotBeListedFailTheCycleAndForgetTheTarget) {
    auto probe = connected();
    ASSERT_NE(probe->get_target_mac(), "");
    {
        const NoDescriptors none;
        EXPECT_EQ(probe->prepare(), 1);
    }
    EXPECT_EQ(count_log("[ERROR] eth1 get ifaddrs failed."), 1);
    EXPECT_EQ(probe->get_target_mac(), "");
    EXPECT_EQ(probe->get_neigh_state(), 0);
    EXPECT_EQ(probe->probe(), 0) << "the next cycle finds everything again";
}

TEST_F(NeighCycle, NeighboursThatCannotBeAskedForFailTheCycleAndAddNothing) {
    Recorder ip("/sbin/ip");
    auto probe = wan.probe();
    clear_log();
    {
        const NoDescriptors none;
        EXPECT_EQ(probe->scan_neigh(), 1);
    }
    EXPECT_THAT(log_texts(), ElementsAre());
    EXPECT_EQ(ip.calls().size(), 0u);
}

TEST_F(NeighCycle, AddressOfAnotherDeviceWithALongerNameIsNotTakenOver) {
    Wan longer(2, "eth11");
    auto probe = connected();
    EXPECT_EQ(report(*probe)["ip"], Json::Value("192.0.1.2"));
}

TEST_F(NeighCycle, EachUsableStateCountsAsReachable) {
    for (const char* state : {"reachable", "stale", "delay", "probe", "noarp", "permanent"}) {
        wan.neighbour(state);
        auto probe = wan.probe(false);
        EXPECT_EQ(probe->probe(), 0) << state;
        EXPECT_EQ(probe->get_target_mac(), "02:00:00:00:00:01") << state;
    }
}

TEST_F(NeighCycle, MissingEntryIsAddedAndTheCycleStillFails) {
    Recorder ip("/sbin/ip");
    auto probe = wan.probe();
    clear_log();
    EXPECT_EQ(probe->scan_neigh(), 1);
    EXPECT_THAT(texts(), ElementsAre("[DEBUG] Exec: [/sbin/ip neigh add 192.0.1.1 nud probe lladdr "
                                     "ff:ff:ff:ff:ff:ff dev eth1]."));
    ASSERT_EQ(ip.calls().size(), 1u);
    EXPECT_THAT(ip.calls()[0].argv, ElementsAre("/sbin/ip", "neigh", "add", "192.0.1.1", "nud", "probe",
                                                "lladdr", "ff:ff:ff:ff:ff:ff", "dev", "eth1"));
    EXPECT_THAT(ip.calls()[0].descriptors, ElementsAre());
}

TEST_F(NeighCycle, EntryThatCannotBeAddedIsLoggedAsAnError) {
    Recorder ip("/sbin/ip");
    ip.exits(2);
    auto probe = wan.probe();
    clear_log();
    EXPECT_EQ(probe->scan_neigh(), 1);
    EXPECT_THAT(texts(), ElementsAre("[ERROR] Exec: [/sbin/ip neigh add 192.0.1.1 nud probe lladdr "
                                     "ff:ff:ff:ff:ff:ff dev eth1] failed."));
}

TEST_F(NeighCycle, RealToolCreatesAnEntryThatTheKernelResolves) {
    ip_batch({"addr add 192.0.1.1/32 dev gw1"});  // nobody answers for it but the broadcast itself is seen
    auto probe = wan.probe();
    EXPECT_EQ(probe->scan_neigh(), 1);
    const Json::Value entries = ip_json("neigh show 192.0.1.1 dev eth1");
    ASSERT_EQ(entries.size(), 1u);
}

TEST_F(NeighCycle, AddIsRepeatedOnlyWhileTheStoredStateIsNone) {
    Recorder ip("/sbin/ip");
    auto probe = wan.probe();
    cycles(*probe, 3);
    EXPECT_EQ(ip.calls().size(), 3u);
    wan.neighbour("failed");
    cycles(*probe, 3);
    EXPECT_EQ(ip.calls().size(), 3u);
    EXPECT_EQ(probe->get_neigh_state(), 32);
    // The failed entry goes, but what was seen of it stays: still no command.
    ip_batch({"neigh del 192.0.1.1 dev eth1"});
    cycles(*probe, 1);
    EXPECT_EQ(ip.calls().size(), 3u);
}

TEST_F(NeighCycle, EntryThatDisappearsIsForgottenAndAddedAgain) {
    auto probe = connected();
    Recorder ip("/sbin/ip");
    wan.no_neighbour();
    EXPECT_EQ(probe->probe(), 1);
    EXPECT_EQ(probe->get_target_mac(), "");
    EXPECT_EQ(probe->get_neigh_state(), 0);
    EXPECT_EQ(ip.calls().size(), 1u);
}

TEST_F(NeighCycle, NoNameOfADeviceReachesAShell) {
    Wan odd(7, "a;id>x|$(y)");
    Recorder ip("/sbin/ip");
    auto probe = odd.probe();
    clear_log();
    EXPECT_EQ(probe->scan_neigh(), 1);
    ASSERT_EQ(ip.calls().size(), 1u);
    EXPECT_EQ(ip.calls()[0].argv.back(), "a;id>x|$(y)");
    EXPECT_THAT(texts(), ElementsAre("[DEBUG] Exec: [/sbin/ip neigh add 192.0.7.1 nud probe lladdr "
                                     "ff:ff:ff:ff:ff:ff dev a;id>x|$(y)]."));
}

TEST_F(NeighCycle, IPv6TargetFailsEveryCycleAndAddsNothing) {
    Recorder ip("/sbin/ip");
    ProcNeigh probe(wan.dev, "2001:db8::1", 1000, true, 1);
    services->forget();
    cycles(probe, 7);
    EXPECT_EQ(ip.calls().size(), 0u);
    EXPECT_EQ(services->count("nm-halor.UpdateWanNexthopStatus {\"id\":1,\"stat\":1}"), 1);
}

}  // namespace
}  // namespace corvo::test
