#include "monitor/hysteresis.h"

#include <gtest/gtest.h>

namespace corvo {
namespace {

// A link as the probe keeps it, driven by cycles alone.
struct Link {
    bool reported = false;
    int status = 0;
    unsigned fail_count = 0;
    int reports = 0;
    int flushes = 0;

    Verdict cycle(bool good) {
        const Verdict verdict = judge_cycle(good, reported, status, fail_count);
        flushes += verdict.flush_nat;
        if (verdict.report) {
            ++reports;
            status = verdict.status;
            reported = true;
        }
        fail_count = count_after(verdict.fail_count);
        return verdict;
    }
    void cycles(int count, bool good) {
        while (count-- > 0) cycle(good);
    }
};

TEST(Hysteresis, FirstGoodCycleReportsConnected) {
    Link link;
    const Verdict verdict = link.cycle(true);
    EXPECT_TRUE(verdict.report);
    EXPECT_EQ(verdict.status, 0);
}

TEST(Hysteresis, FurtherGoodCyclesReportNothing) {
    Link link;
    link.cycles(10, true);
    EXPECT_EQ(link.reports, 1);
}

TEST(Hysteresis, FiveFailedCyclesAreBorneAndTheSixthReportsDown) {
    Link link;
    link.cycle(true);
    for (unsigned count = 1; count <= 5; ++count) {
        const Verdict verdict = link.cycle(false);
        EXPECT_FALSE(verdict.settled);
        EXPECT_FALSE(verdict.report);
        EXPECT_EQ(verdict.fail_count, count);
    }
    const Verdict sixth = link.cycle(false);
    EXPECT_TRUE(sixth.report);
    EXPECT_EQ(sixth.status, 1);
    EXPECT_EQ(link.reports, 2);
}

TEST(Hysteresis, FiveFailedCyclesAndAGoodOneChangeNothing) {
    Link link;
    link.cycle(true);
    for (int round = 0; round < 20; ++round) {
        link.cycles(5, false);
        link.cycle(true);
    }
    EXPECT_EQ(link.reports, 1);
    EXPECT_EQ(link.fail_count, 0u);
}

TEST(Hysteresis, OneGoodCycleReportsUpAgain) {
    Link link;
    link.cycle(true);
    link.cycles(6, false);
    const Verdict verdict = link.cycle(true);
    EXPECT_TRUE(verdict.report);
    EXPECT_EQ(verdict.status, 0);
}

TEST(Hysteresis, CountStartsAgainAfterADownReport) {
    Link link;
    link.cycle(true);
    link.cycles(6, false);
    EXPECT_EQ(link.fail_count, 0u);
    EXPECT_EQ(link.cycle(false).fail_count, 1u);
}

TEST(Hysteresis, FlushesOnEveryFailedCycleWhileReportedDown) {
    Link link;
    link.cycle(true);
    link.cycles(6, false);
    EXPECT_EQ(link.flushes, 0) << "the cycle that reports down does not flush yet";
    link.cycles(20, false);
    EXPECT_EQ(link.flushes, 20);
    EXPECT_EQ(link.reports, 2) << "down is said once";
}

TEST(Hysteresis, NeverSeenLinkIsReportedDownAtTheSixthCycle) {
    Link link;
    link.cycles(5, false);
    EXPECT_EQ(link.reports, 0);
    link.cycle(false);
    EXPECT_EQ(link.reports, 1);
    EXPECT_EQ(link.status, 1);
}

TEST(Hysteresis, NothingIsFlushedBeforeTheFirstReport) {
    Link link;
    link.status = 1;  // said, but its report did not come through
    link.cycles(6, false);
    EXPECT_EQ(link.flushes, 0);
}

}  // namespace
}  // namespace corvo
