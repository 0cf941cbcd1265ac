// The queue monitor's mapping of samples, from lists built by hand.

#include "corvosetup/qdm.h"

#include <gmock/gmock.h>

#include <cmath>
#include <cstring>
#include <deque>
#include <limits>

#include "corvosetup/tc.h"
#include "own_log.h"
#include "refusing_output.h"

namespace corvo::test {
namespace {

using testing::ElementsAre;
using testing::UnorderedElementsAre;

// A list as the traffic-control layer makes it, in memory of its own.
class Sample {
public:
    Sample() { head_.next = head_.prev = &head_; }

    Sample& add(const char* handle, std::uint64_t ceil, std::uint64_t qlen, std::uint64_t rate,
                std::uint64_t htb_rate, double utils) {
        tqs_entry& entry = entries_.emplace_back();
        std::memcpy(entry.handle, handle, ::strnlen(handle, sizeof entry.handle));
        entry.ceil = ceil;
        entry.qlen = qlen;
        entry.rate = rate;
        entry.htb_rate = htb_rate;
        entry.utilisation = utils;
        entry.links = {&head_, head_.prev};
        head_.prev->next = &entry.links;
        head_.prev = &entry.links;
        return *this;
    }
    tqs_link* list() { return &head_; }

private:
    tqs_link head_;
    std::deque<tqs_entry> entries_;
};

class QueueMonitor : public OwnLog {
protected:
    Json::Value report_of(Sample& sample) {
        EXPECT_EQ(monitor.refill_obj_status(sample.list()), 0);
        EXPECT_EQ(monitor.save_state(), 0);
        return monitor.get_state()["eth0"];
    }

    ProcQdm monitor{"eth0"};
};

TEST_F(QueueMonitor, StateIsNullBeforeTheFirstSample) {
    EXPECT_TRUE(monitor.get_state().isNull());
}

TEST_F(QueueMonitor, MapsRootQueueRootClassAndClasses) {
    Sample sample;
    sample.add("1:", 1, 42, 2, 3, 4.0)
        .add("1:1", 100000000, 9, 5000000, 80000000, 62.9)
        .add("1:10", 10000000, 7, 1000, 2000, 99.99);
    const Json::Value report = report_of(sample);
    EXPECT_THAT(report.getMemberNames(),
                UnorderedElementsAre("QLEN", "CEIL", "RATE", "UTILS", "HTB_RATE", "COS"));
    EXPECT_EQ(report["QLEN"], Json::Value(Json::UInt64(42)));
    EXPECT_EQ(report["CEIL"], Json::Value(Json::UInt64(100000000)));
    EXPECT_EQ(report["RATE"], Json::Value(Json::UInt64(5000000)));
    EXPECT_EQ(report["UTILS"], Json::Value(Json::UInt64(62))) << "truncated";
    EXPECT_EQ(report["HTB_RATE"], Json::Value(Json::UInt64(80000000)));
    ASSERT_EQ(report["COS"].size(), 1u);
    const Json::Value& element = report["COS"][0];
    EXPECT_THAT(element.getMemberNames(), ElementsAre("1:10"));
    EXPECT_THAT(element["1:10"].getMemberNames(), UnorderedElementsAre("CEIL", "RATE", "UTILS", "HTB_RATE"));
    EXPECT_EQ(element["1:10"]["CEIL"], Json::Value(Json::UInt64(10000000)));
    EXPECT_EQ(element["1:10"]["RATE"], Json::Value(Json::UInt64(1000)));
    EXPECT_EQ(element["1:10"]["UTILS"], Json::Value(Json::UInt64(99)));
    EXPECT_EQ(element["1:10"]["HTB_RATE"], Json::Value(Json::UInt64(2000)));
}

TEST_F(QueueMonitor, WritesEveryNumberAsAnUnsignedInteger) {
    Sample sample;
    sample.add("1:10", 1, 1, 1, 1, 1.5);
    const Json::Value report = report_of(sample);
    for (const char* key : {"QLEN", "CEIL", "RATE", "UTILS", "HTB_RATE"})
        EXPECT_EQ(report[key].type(), Json::uintValue) << key;
    for (const char* key : {"CEIL", "RATE", "UTILS", "HTB_RATE"})
        EXPECT_EQ(report["COS"][0]["1:10"][key].type(), Json::uintValue) << key;
}

TEST_F(QueueMonitor, SkipsTheHandleNone) {
    Sample sample;
    sample.add("none", 1, 2, 3, 4, 5);
    const Json::Value report = report_of(sample);
    EXPECT_EQ(report["COS"], Json::Value(Json::arrayValue));
    EXPECT_EQ(report["QLEN"], Json::Value(Json::UInt64(0)));
}

TEST_F(QueueMonitor, RepeatedHandleKeepsItsFirstFigures) {
    Sample sample;
    sample.add("1:20", 1, 0, 11, 111, 0).add("1:20", 2, 0, 22, 222, 0);
    const Json::Value report = report_of(sample);
    ASSERT_EQ(report["COS"].size(), 1u);
    EXPECT_EQ(report["COS"][0]["1:20"]["RATE"], Json::Value(Json::UInt64(11)));
}

TEST_F(QueueMonitor, QueueLengthIsTheRootQueuesOnly) {
    Sample sample;
    sample.add("1:1", 1, 77, 1, 1, 1).add("1:10", 1, 88, 1, 1, 1);
    EXPECT_EQ(report_of(sample)["QLEN"], Json::Value(Json::UInt64(0)));
}

TEST_F(QueueMonitor, DeletedClassDisappearsWithTheNextSample) {
    Sample first;
    first.add("1:10", 1, 0, 1, 1, 1).add("1:20", 1, 0, 1, 1, 1);
    EXPECT_EQ(report_of(first)["COS"].size(), 2u);
    Sample second;
    second.add("1:20", 1, 0, 1, 1, 1);
    const Json::Value report = report_of(second);
    ASSERT_EQ(report["COS"].size(), 1u);
    EXPECT_THAT(report["COS"][0].getMemberNames(), ElementsAre("1:20"));
}

TEST_F(QueueMonitor, EmptySampleKeepsTheRootFigures) {
    Sample first;
    first.add("1:1", 8, 0, 5, 6, 7);
    report_of(first);
    Sample second;
    const Json::Value report = report_of(second);
    EXPECT_EQ(report["CEIL"], Json::Value(Json::UInt64(8)));
    EXPECT_EQ(report["COS"], Json::Value(Json::arrayValue));
}

TEST_F(QueueMonitor, UnsampledReportIsAllZeros) {
    EXPECT_EQ(monitor.save_state(), 0);
    const Json::Value report = monitor.get_state()["eth0"];
    for (const char* key : {"QLEN", "CEIL", "RATE", "UTILS", "HTB_RATE"})
        EXPECT_EQ(report[key], Json::Value(Json::UInt64(0))) << key;
    EXPECT_EQ(report["COS"], Json::Value(Json::arrayValue));
}

TEST_F(QueueMonitor, CeilingIsItsLow32Bits) {
    Sample sample;
    sample.add("1:1", (std::uint64_t{1} << 32) + 5, 0, std::uint64_t{1} << 40, 0, 0);
    const Json::Value report = report_of(sample);
    EXPECT_EQ(report["CEIL"], Json::Value(Json::UInt64(5)));
    EXPECT_EQ(report["RATE"], Json::Value(Json::UInt64(1) << 40));
}

TEST_F(QueueMonitor, UtilisationThatNoIntegerHoldsGoesToTheNearest) {
    constexpr auto kMax = std::numeric_limits<Json::UInt64>::max();
    const struct {
        double utils;
        Json::UInt64 shown;
    } cases[] = {{std::nan(""), 0},
                 {-1.0, 0},
                 {-0.5, 0},
                 {0.99, 0},
                 {100.0, 100},
                 {-std::numeric_limits<double>::infinity(), 0},
                 {std::numeric_limits<double>::infinity(), kMax},
                 {1e300, kMax},
                 {18446744073709551616.0, kMax},
                 {18446744073709549568.0, 18446744073709549568ULL}};
    for (const auto& one : cases) {
        Sample sample;
        sample.add("1:1", 1, 0, 0, 0, one.utils).add("1:10", 1, 0, 0, 0, one.utils);
        const Json::Value report = report_of(sample);
        EXPECT_EQ(report["UTILS"], Json::Value(one.shown)) << one.utils;
        EXPECT_EQ(report["COS"][0]["1:10"]["UTILS"], Json::Value(one.shown)) << one.utils;
    }
}

TEST_F(QueueMonitor, HandleWithoutTerminatorIsReadToItsEnd) {
    Sample sample;
    const std::string longest(32, 'f');
    sample.add(longest.c_str(), 1, 0, 1, 1, 1);
    EXPECT_THAT(report_of(sample)["COS"][0].getMemberNames(), ElementsAre(longest));
}

TEST_F(QueueMonitor, RefusesNoList) {
    EXPECT_EQ(monitor.refill_obj_status(nullptr), -3002);
}

TEST_F(QueueMonitor, ShowLeavesClassesOutOfTheCopyOnly) {
    Sample sample;
    sample.add("1:10", 1, 0, 2, 3, 4);
    report_of(sample);
    testing::internal::CaptureStdout();
    EXPECT_EQ(monitor.show(false), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "{\"eth0\":{\"CEIL\":0,\"HTB_RATE\":0,\"QLEN\":0,\"RATE\":0,\"UTILS\":0}}\n");
    testing::internal::CaptureStdout();
    EXPECT_EQ(monitor.show(true), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "{\"eth0\":{\"CEIL\":0,\"COS\":[{\"1:10\":{\"CEIL\":1,\"HTB_RATE\":3,\"RATE\":2,\"UTILS\":4}}],"
              "\"HTB_RATE\":0,\"QLEN\":0,\"RATE\":0,\"UTILS\":0}}\n");
}

TEST_F(QueueMonitor, ShowBeforeTheFirstSampleIsNull) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(monitor.show(false), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "null\n");
}

TEST_F(QueueMonitor, SaysWhyItCannotShow) {
    const RefusingOutput output;
    EXPECT_EQ(monitor.show(true), 0);
    EXPECT_EQ(output.text(), "Parse Qdisc status failed, no paper\n");
}

TEST_F(QueueMonitor, StopWithoutStartSaysArping) {
    EXPECT_EQ(monitor.stop(), 0);
    EXPECT_THAT(texts(), ElementsAre("[ERROR] eth0's has no running arping thread task."));
}

TEST_F(QueueMonitor, CycleOfANamelessDeviceSaysSoAndKeepsTheLastReport) {
    ProcQdm nameless("");
    Sample sample;
    sample.add("1:1", 8, 0, 5, 6, 7).add("1:10", 1, 0, 2, 3, 4);
    nameless.refill_obj_status(sample.list());
    EXPECT_EQ(nameless.probe(), 0);
    EXPECT_THAT(texts(), ElementsAre("[ERROR]  get_tx_queue_status failed."));
    EXPECT_EQ(nameless.get_state()[""]["CEIL"], Json::Value(Json::UInt64(8)));
    EXPECT_EQ(nameless.get_state()[""]["COS"].size(), 1u) << "the map keeps the last sample";
}

}  // namespace
}  // namespace corvo::test
