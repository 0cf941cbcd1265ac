// The neighbour probe without a network: construction, judging of entries, documents, tables.

#include "corvosetup/neigh.h"

#include <gmock/gmock.h>
#include <linux/neighbour.h>
#include <netlink/addr.h>
#include <netlink/route/neighbour.h>

#include <memory>
#include <thread>
#include <vector>

#include "monitor/neighbour.h"
#include "own_log.h"
#include "refusing_output.h"

namespace corvo::test {
namespace {

using testing::ElementsAre;
using testing::UnorderedElementsAre;

class NeighProbe : public OwnLog {
protected:
    NeighProbe() : probe("lo", "192.0.2.1", 1000, false, 7) { forget(); }

    // Hands the callback an entry as libnl would.
    void see(int state, const char* dst, const char* lladdr = nullptr) {
        std::unique_ptr<rtnl_neigh, decltype(&rtnl_neigh_put)> entry(rtnl_neigh_alloc(), rtnl_neigh_put);
        rtnl_neigh_set_family(entry.get(), AF_INET);
        rtnl_neigh_set_state(entry.get(), state);
        nl_addr* address = nullptr;
        ASSERT_EQ(nl_addr_parse(dst, AF_INET, &address), 0);
        rtnl_neigh_set_dst(entry.get(), address);
        nl_addr_put(address);
        if (lladdr != nullptr) {
            ASSERT_EQ(nl_addr_parse(lladdr, AF_LLC, &address), 0);
            rtnl_neigh_set_lladdr(entry.get(), address);
            nl_addr_put(address);
        }
        probe_mac_cb(reinterpret_cast<nl_object*>(entry.get()), &probe);
    }

    ProcNeigh probe;
};

TEST_F(NeighProbe, TakesOverEachUsableState) {
    for (const int state : {NUD_REACHABLE, NUD_STALE, NUD_DELAY, NUD_PROBE, NUD_NOARP, NUD_PERMANENT}) {
        probe.set_neigh_state(0);
        probe.set_target_mac("");
        see(state, "192.0.2.1", "02:00:00:00:00:0a");
        EXPECT_EQ(probe.get_neigh_state(), state);
        EXPECT_EQ(probe.get_target_mac(), "02:00:00:00:00:0a");
    }
}

TEST_F(NeighProbe, DropsTheTargetForEachUnusableState) {
    for (const int state : {NUD_NONE, NUD_INCOMPLETE, NUD_FAILED}) {
        probe.set_neigh_state(NUD_REACHABLE);
        probe.set_target_mac("02:00:00:00:00:0a");
        see(state, "192.0.2.1");
        EXPECT_EQ(probe.get_neigh_state(), state);
        EXPECT_EQ(probe.get_target_mac(), "");
    }
}

TEST_F(NeighProbe, LeavesEverythingForTheStoredState) {
    probe.set_neigh_state(NUD_REACHABLE);
    probe.set_target_mac("02:00:00:00:00:0a");
    see(NUD_REACHABLE, "192.0.2.1", "02:00:00:00:00:0b");
    EXPECT_EQ(probe.get_target_mac(), "02:00:00:00:00:0a");
}

TEST_F(NeighProbe, LeavesEverythingForAUsableEntryOfAnotherAddress) {
    see(NUD_REACHABLE, "192.0.2.2", "02:00:00:00:00:0b");
    EXPECT_EQ(probe.get_neigh_state(), 0);
    EXPECT_EQ(probe.get_target_mac(), "");
}

TEST_F(NeighProbe, DropsTheTargetForAnUnusableEntryOfWhateverAddress) {
    probe.set_neigh_state(NUD_REACHABLE);
    probe.set_target_mac("02:00:00:00:00:0a");
    see(NUD_FAILED, "192.0.2.2");
    EXPECT_EQ(probe.get_neigh_state(), NUD_FAILED);
    EXPECT_EQ(probe.get_target_mac(), "");
}

TEST_F(NeighProbe, ShowsAUsableEntryWithoutAddressAsNone) {
    see(NUD_NOARP, "192.0.2.1");
    EXPECT_EQ(probe.get_target_mac(), "none");
}

TEST_F(NeighProbe, CallbackBearsNullArguments) {
    probe_mac_cb(nullptr, &probe);
    probe_mac_cb(nullptr, nullptr);
    EXPECT_EQ(probe.get_neigh_state(), 0);
}

TEST_F(NeighProbe, StateIsNullBeforeTheFirstReport) {
    EXPECT_TRUE(probe.get_state().isNull());
}

TEST_F(NeighProbe, SavesTheWholeDocument) {
    probe.set_neigh_state(NUD_REACHABLE);
    probe.set_target_mac("02:00:00:00:00:0a");
    EXPECT_EQ(probe.save_state(), 0);
    const Json::Value state = probe.get_state();
    EXPECT_THAT(state.getMemberNames(), ElementsAre("lo"));
    const Json::Value& report = state["lo"];
    EXPECT_THAT(report.getMemberNames(),
                UnorderedElementsAre("neigh_stat", "neigh_status", "stat", "status", "mac", "ip",
                                     "target_mac", "target_ip", "local_mgmt", "id"));
    EXPECT_EQ(report["neigh_stat"], Json::Value(2));
    EXPECT_EQ(report["neigh_status"], Json::Value("REACHABLE"));
    EXPECT_EQ(report["stat"], Json::Value(0));
    EXPECT_EQ(report["status"], Json::Value("Link is connected."));
    EXPECT_EQ(report["mac"], Json::Value(""));
    EXPECT_EQ(report["ip"], Json::Value(""));
    EXPECT_EQ(report["target_mac"], Json::Value("02:00:00:00:00:0a"));
    EXPECT_EQ(report["target_ip"], Json::Value("192.0.2.1"));
    EXPECT_EQ(report["local_mgmt"], Json::Value(true)) << "true when nobody answers";
    EXPECT_EQ(report["id"], Json::Value(7u));
    EXPECT_EQ(report["id"].type(), Json::uintValue);
}

TEST_F(NeighProbe, ReturnedStateIsACopy) {
    probe.save_state();
    Json::Value state = probe.get_state();
    state["lo"]["stat"] = 99;
    EXPECT_EQ(probe.get_state()["lo"]["stat"], Json::Value(0));
}

TEST_F(NeighProbe, UnknownStateShowsAnEmptyTextAndIsInserted) {
    ASSERT_EQ(neigh_state_str.count(3), 0u);
    probe.set_neigh_state(3);
    probe.save_state();
    EXPECT_EQ(probe.get_state()["lo"]["neigh_status"], Json::Value(""));
    ASSERT_EQ(neigh_state_str.count(3), 1u);
    EXPECT_EQ(neigh_state_str[3], "");
    neigh_state_str.erase(3);
}

TEST_F(NeighProbe, UnknownStatusShowsAnEmptyTextAndIsInserted) {
    EXPECT_EQ(link_status_text(5), "");
    EXPECT_EQ(neigh_stat_mapping.count(5), 1u);
    neigh_stat_mapping.erase(5);
}

TEST_F(NeighProbe, TablesHoldTheKernelsStatesAndTheLinkStatuses) {
    const std::map<int, std::string> states = {{0, "NONE"},    {1, "INCOMPLETE"}, {2, "REACHABLE"},
                                               {4, "STALE"},   {8, "DELAY"},      {16, "PROBE"},
                                               {32, "FAILED"}, {64, "NOARP"},     {128, "PERMANENT"}};
    EXPECT_EQ(neigh_state_str, states);
    const std::map<int, std::string> statuses = {{0, "Link is connected."}, {1, "gateway neigh failed."}};
    EXPECT_EQ(neigh_stat_mapping, statuses);
}

TEST_F(NeighProbe, LooksUpFromManyThreadsAtOnce) {
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 4; ++thread) {
        threads.emplace_back([thread] {
            for (int value = 1000; value < 1100; ++value) neighbour_state_text(value + thread % 2);
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(neigh_state_str.size(), 9u + 101u);
    std::erase_if(neigh_state_str, [](const auto& item) { return item.first >= 1000; });
}

TEST_F(NeighProbe, ShowsTheDocumentOnOneLine) {
    probe.save_state();
    testing::internal::CaptureStdout();
    EXPECT_EQ(probe.show(), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "{\"lo\":{\"id\":7,\"ip\":\"\",\"local_mgmt\":true,\"mac\":\"\",\"neigh_stat\":0,"
              "\"neigh_status\":\"NONE\",\"stat\":0,\"status\":\"Link is connected.\",\"target_ip\":"
              "\"192.0.2.1\",\"target_mac\":\"\"}}\n");
}

TEST_F(NeighProbe, SaysWhyItCannotShow) {
    const RefusingOutput output;
    EXPECT_EQ(probe.show(), 0);
    EXPECT_EQ(output.text(), "Parse Neigh status failed, no paper\n");
}

TEST_F(NeighProbe, AccessorsGiveWhatWasStored) {
    EXPECT_EQ(probe.get_dev(), "lo");
    EXPECT_EQ(probe.get_target_ip(), "192.0.2.1");
    probe.set_neigh_state(64);
    EXPECT_EQ(probe.get_neigh_state(), 64);
    probe.set_target_mac("x");
    EXPECT_EQ(probe.get_target_mac(), "x");
}

TEST_F(NeighProbe, TracesOnlyWhileVerbose) {
    probe.setup_dbg(3);
    probe.save_state();
    EXPECT_THAT(texts(), ElementsAre()) << "the debug level gates nothing";
    verbose = 1;
    probe.save_state();
    EXPECT_THAT(texts(),
                ElementsAre(testing::MatchesRegex("\\[DEBUG\\] Enter neigh.cpp::[0-9]+::save_state"),
                            testing::MatchesRegex("\\[DEBUG\\] Exit neigh.cpp::[0-9]+::save_state: 0")));
}

TEST_F(NeighProbe, IPv6TargetFailsEveryCycleQuietly) {
    ProcNeigh six("lo", "2001:db8::1", 1, false, 1);
    forget();
    EXPECT_EQ(six.scan_neigh(), 1);
    EXPECT_THAT(texts(), ElementsAre());
}

TEST_F(NeighProbe, DestructorOfAnIdleProbeLogsNothing) {
    {
        ProcNeigh other("lo", "192.0.2.1", 1, true, 1), another("lo", "192.0.2.1", 1, true, 2);
        forget();
    }
    EXPECT_THAT(texts(), ElementsAre());
}

using NeighConstruction = OwnLog;

int thrown_by(const char* dev, const char* target) {
    try {
        ProcNeigh probe(dev, target, 1, true, 1);
    } catch (int code) {
        return code;
    }
    return 0;
}

TEST_F(NeighConstruction, RefusesAWrongTarget) {
    EXPECT_EQ(thrown_by("lo", "192.0.2"), -3007);
    EXPECT_THAT(texts(), ElementsAre("[ERROR] lo has wrong target ip."));
}

TEST_F(NeighConstruction, RefusesATargetThatIsNoAddressAtAll) {
    EXPECT_EQ(thrown_by("lo", "gateway"), -3007) << "whatever the address check's own code is";
    EXPECT_EQ(thrown_by("lo", ""), -3007);
}

TEST_F(NeighConstruction, RefusesAMissingDevice) {
    EXPECT_EQ(thrown_by("nosuchdev0", "192.0.2.1"), -3005);
    EXPECT_THAT(texts(), ElementsAre("[ERROR] nosuchdev0 get ifindex failed."));
}

TEST_F(NeighConstruction, LooksAtTheTargetFirst) {
    EXPECT_EQ(thrown_by("nosuchdev0", "x"), -3007);
}

}  // namespace
}  // namespace corvo::test
