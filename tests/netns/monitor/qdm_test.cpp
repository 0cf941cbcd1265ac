// The queue monitor on a real tree.

#include "corvosetup/qdm.h"

#include <gmock/gmock.h>
#include <unistd.h>

#include <set>

#include "support/failing_new.h"
#include "support/kernel_feature.h"
#include "wan.h"

namespace corvo::test {
namespace {

using namespace std::chrono_literals;
using testing::Contains;
using testing::ElementsAre;
using testing::MatchesRegex;
using testing::UnorderedElementsAre;

class QueueTree : public MonitorTest {
protected:
    static void tree() {
        must_run("tc qdisc add dev eth1 root handle 1: htb default 20");
        must_run("tc class add dev eth1 parent 1: classid 1:1 htb rate 80mbit ceil 100mbit");
        must_run("tc class add dev eth1 parent 1:1 classid 1:10 htb rate 8mbit ceil 16mbit");
        must_run("tc class add dev eth1 parent 1:1 classid 1:20 htb rate 4mbit ceil 100mbit");
    }
    std::set<std::string> classes() {
        std::set<std::string> handles;
        const Json::Value state = monitor.get_state();
        for (const auto& element : state["eth1"]["COS"])
            for (const auto& handle : element.getMemberNames()) handles.insert(handle);
        return handles;
    }

    ProcQdm monitor{"eth1"};
};

TEST_F(QueueTree, ReportsTheTreeInBitsPerSecond) {
    REQUIRE_KERNEL_FEATURE("htb");
    tree();
    EXPECT_EQ(monitor.probe(), 0);
    const Json::Value report = monitor.get_state()["eth1"];
    EXPECT_EQ(report["CEIL"], Json::Value(Json::UInt64(100000000)));
    EXPECT_EQ(report["HTB_RATE"], Json::Value(Json::UInt64(80000000)));
    EXPECT_EQ(report["QLEN"], Json::Value(Json::UInt64(0)));
    EXPECT_THAT(classes(), UnorderedElementsAre("1:10", "1:20"));
    for (const auto& element : report["COS"]) {
        if (!element.isMember("1:10")) continue;
        EXPECT_EQ(element["1:10"]["CEIL"], Json::Value(Json::UInt64(16000000)));
        EXPECT_EQ(element["1:10"]["HTB_RATE"], Json::Value(Json::UInt64(8000000)));
    }
}

TEST_F(QueueTree, DeletedClassDisappearsAtTheNextCycle) {
    REQUIRE_KERNEL_FEATURE("htb");
    tree();
    monitor.probe();
    must_run("tc class del dev eth1 classid 1:10");
    monitor.probe();
    EXPECT_THAT(classes(), UnorderedElementsAre("1:20"));
}

TEST_F(QueueTree, DeviceWithoutATreeReportsZerosAndNoClasses) {
    clear_log();
    EXPECT_EQ(monitor.probe(), 0);
    const Json::Value report = monitor.get_state()["eth1"];
    for (const char* key : {"QLEN", "CEIL", "RATE", "UTILS", "HTB_RATE"})
        EXPECT_EQ(report[key], Json::Value(Json::UInt64(0))) << key;
    EXPECT_EQ(report["COS"], Json::Value(Json::arrayValue));
    EXPECT_THAT(texts(), ElementsAre());
}

TEST_F(QueueTree, TreeThatGoesKeepsTheRootFiguresAndLosesItsClasses) {
    REQUIRE_KERNEL_FEATURE("htb");
    tree();
    monitor.probe();
    must_run("tc qdisc del dev eth1 root");
    monitor.probe();
    EXPECT_EQ(monitor.get_state()["eth1"]["CEIL"], Json::Value(Json::UInt64(100000000)));
    EXPECT_EQ(monitor.get_state()["eth1"]["COS"].size(), 0u);
}

TEST_F(QueueTree, DeviceThatIsGoneKeepsTheRootFigures) {
    REQUIRE_KERNEL_FEATURE("htb");
    tree();
    monitor.probe();
    ip_batch({"link del eth1"});
    EXPECT_EQ(monitor.probe(), 0);
    EXPECT_EQ(monitor.get_state()["eth1"]["CEIL"], Json::Value(Json::UInt64(100000000)));
}

// Whichever allocation of a cycle fails: what could not be taken over is said, and the next cycle is whole.
TEST_F(QueueTree, SampleThatCannotBeTakenOverIsSaid) {
    REQUIRE_KERNEL_FEATURE("htb");
    tree();
    monitor.probe();
    clear_log();
    LeakCheck leaks;
    bool struck = true;
    for (int allocation = 0; struck; ++allocation) {
        const FailingNew failing(allocation, FailingNew::Then::kRecovers);
        const int result = monitor.probe();
        struck = failing.struck();
        EXPECT_TRUE(result == 0 || result == -3010) << result;
    }
    EXPECT_GT(count_log("[ERROR] eth1 refill_obj_status failed."), 0);
    EXPECT_EQ(monitor.probe(), 0);
    EXPECT_THAT(classes(), UnorderedElementsAre("1:10", "1:20"));
}

TEST_F(QueueTree, WorkerSaysWhoItIsAndSamples) {
    const ShortPeriods shorter(5ms);
    LeakCheck leaks;
    clear_log();
    ASSERT_EQ(monitor.start(), 0);
    EXPECT_EQ(monitor.start(), -3026);
    ASSERT_TRUE(wait_until([&] { return !monitor.get_state().isNull(); }));
    EXPECT_EQ(monitor.stop(), 0);
    EXPECT_THAT(texts(), Contains(MatchesRegex("\\[DEBUG\\] QDM: eth1 <[0-9]+>, @[0-9]+")));
    EXPECT_EQ(count_log("[ERROR] eth1's qdm thread task has been started already."), 1);
    EXPECT_EQ(monitor.start(), 0) << "after a stop";
    EXPECT_EQ(monitor.stop(), 0);
    EXPECT_EQ(monitor.stop(), 0);
    EXPECT_EQ(count_log("[ERROR] eth1's has no running arping thread task."), 1);
}

TEST_F(QueueTree, StopInterruptsTheSleep) {
    ASSERT_EQ(monitor.start(), 0);
    ASSERT_TRUE(wait_until([&] { return !monitor.get_state().isNull(); }));
    const auto begin = std::chrono::steady_clock::now();
    monitor.stop();
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 500ms);
}

TEST_F(QueueTree, DestructorEndsTheThreadAndReportsNothing) {
    LeakCheck leaks;
    auto other = std::make_unique<ProcQdm>("eth1");
    ASSERT_EQ(other->start(), 0);
    ASSERT_TRUE(wait_until([&] { return !other->get_state().isNull(); }));
    clear_log();
    other.reset();
    EXPECT_THAT(log_texts(), ElementsAre());
}

TEST_F(QueueTree, LeavesNothingBehind) {
    REQUIRE_KERNEL_FEATURE("htb");
    tree();
    LeakCheck leaks;
    for (int round = 0; round < 50; ++round) monitor.probe();
}

}  // namespace
}  // namespace corvo::test
