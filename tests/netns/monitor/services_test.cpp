// The monitor while the services are absent, hung, talking nonsense or dying.

#include <gmock/gmock.h>

#include <functional>

#include "corvosetup/qdm.h"
#include "wan.h"

namespace corvo::test {
namespace {

using namespace std::chrono_literals;
using testing::IsSupersetOf;
using Clock = std::chrono::steady_clock;

class BrokenServices : public MonitorTest {
protected:
    BrokenServices() { wan.neighbour("permanent"); }

    void cycles(ProcNeigh& probe, int count) {
        while (count-- > 0) probe.probe();
    }
    Json::Value stat(ProcNeigh& probe) { return probe.get_state()[wan.dev]["stat"]; }

    // Both services that a report talks to end their exchanges like this.
    void all_end(vx::Reply::Ending ending, const std::string& payload = "{\"error\":0}") {
        for (const char* target : {"pluvd.exec", "nm-halor.UpdateWanNexthopStatus"}) {
            services->answer(target, [=] {
                vx::Reply reply = vx::Reply::text(payload);
                reply.ending = ending;
                return reply;
            });
        }
    }

    // A report in these circumstances is made, with its failures logged, in next to no time; the next change
    // is reported properly once the services are well again.
    void report_and_recover(int expected_code) {
        auto probe = wan.probe();
        clear_log();
        const auto begin = Clock::now();
        EXPECT_EQ(probe->probe(), 0);
        EXPECT_LT(Clock::now() - begin, 2s);
        EXPECT_EQ(count_log("[ERROR] PLUVD.exec IFUP failed."), 1);
        EXPECT_EQ(count_log("[ERROR] update_nexthop_status, ret: " + std::to_string(expected_code)), 3);
        EXPECT_EQ(condition("PORT1"), "1");
        EXPECT_EQ(stat(*probe), Json::Value(0));

        for (const char* target : {"pluvd.exec", "nm-halor.UpdateWanNexthopStatus"})
            services->recover(target);
        services->forget();
        wan.neighbour("failed");
        cycles(*probe, 6);
        EXPECT_THAT(services->texts(),
                    testing::ElementsAre("pluvd.exec {\"flag\": \"2\"}",
                                         "nm-halor.UpdateWanNexthopStatus {\"id\":1,\"stat\":1}"));
        EXPECT_EQ(stat(*probe), Json::Value(1));
    }
};

TEST_F(BrokenServices, AbsentServicesDelayNothing) {
    auto probe = wan.probe();
    services.reset();
    clear_log();
    const auto begin = Clock::now();
    EXPECT_EQ(probe->probe(), 0);
    EXPECT_LT(Clock::now() - begin, 1s);
    EXPECT_EQ(count_log("[ERROR] PLUVD.exec IFUP failed."), 1);
    EXPECT_EQ(count_log("[ERROR] update_nexthop_status, ret: -3023"), 3);
    EXPECT_EQ(condition("PORT1"), "1");
    EXPECT_EQ(default_gateways(), std::vector<std::string>{"192.0.1.1"});

    services = std::make_unique<InProcessServices>();
    wan.neighbour("failed");
    cycles(*probe, 6);
    EXPECT_EQ(services->count("nm-halor.UpdateWanNexthopStatus {\"id\":1,\"stat\":1}"), 1);
}

TEST_F(BrokenServices, MonitorMadeWithoutServicesIsInLocalManagement) {
    services.reset();
    auto probe = wan.probe();
    EXPECT_EQ(probe->probe(), 0);
    EXPECT_EQ(condition("PORT1"), "0") << "left alone";
    EXPECT_EQ(probe->get_state()["eth1"]["local_mgmt"], Json::Value(true));
}

TEST_F(BrokenServices, GarbageIsAFailedCall) {
    all_end(vx::Reply::Ending::kAnswer, "\x01]{nonsense");
    report_and_recover(-3019);
}

TEST_F(BrokenServices, AnswersOfWrongTypesAreFailedCalls) {
    all_end(vx::Reply::Ending::kAnswer, "{\"error\":[\"x\"]}");
    report_and_recover(-3001);
}

TEST_F(BrokenServices, AnswersThatAreNoObjectAreFailedCalls) {
    all_end(vx::Reply::Ending::kAnswer, "[[5],\"x\"]");
    report_and_recover(-3019);
}

TEST_F(BrokenServices, EmptyAnswersAreFailedCalls) {
    all_end(vx::Reply::Ending::kAnswer, "");
    report_and_recover(-3024);
}

TEST_F(BrokenServices, ServicesThatDieInTheMiddleOfACallAreFailedCalls) {
    all_end(vx::Reply::Ending::kHalf);
    report_and_recover(-3023);
}

TEST_F(BrokenServices, ServicesThatCloseWithoutAnAnswerAreFailedCalls) {
    all_end(vx::Reply::Ending::kClose);
    report_and_recover(-3023);
}

TEST_F(BrokenServices, HungServiceCostsItsLimitAndNoMore) {
    services->answer("pluvd.exec", [] {
        vx::Reply reply;
        reply.ending = vx::Reply::Ending::kHang;
        return reply;
    });
    auto probe = wan.probe();
    const auto begin = Clock::now();
    EXPECT_EQ(probe->probe(), 0);
    const auto taken = Clock::now() - begin;
    EXPECT_GE(taken, 4500ms) << "its limit is 5 s";
    EXPECT_LT(taken, 7s);
    EXPECT_EQ(stat(*probe), Json::Value(0));
}

TEST_F(BrokenServices, StopWaitsForTheCallThatRunsAndNoLonger) {
    const ShortPeriods shorter(5ms);
    services->answer("pluvd.exec", [] {
        vx::Reply reply = vx::Reply::text("{\"error\":0}");
        reply.delay = 1500ms;
        return reply;
    });
    auto probe = wan.probe();
    services->forget();
    const auto begin = Clock::now();
    ASSERT_EQ(probe->start(), 0);
    ASSERT_TRUE(wait_until([&] { return services->count("pluvd.exec {\"flag\": \"4\"}") == 1; }));
    probe->stop();
    const auto taken = Clock::now() - begin;
    EXPECT_GE(taken, 1400ms);
    EXPECT_LT(taken, 3s);
    EXPECT_EQ(condition("PORT1"), "0") << "the farewell comes after the report that was on its way";
}

TEST_F(BrokenServices, StatusIsReadableWhileAServiceHangs) {
    const ShortPeriods shorter(5ms);
    auto probe = wan.probe();
    ASSERT_EQ(probe->start(), 0);
    ASSERT_TRUE(wait_until([&] { return !probe->get_state().isNull(); }));
    services->answer("nm-halor.UpdateWanNexthopStatus", [] {
        vx::Reply reply = vx::Reply::text("{\"error\":0}");
        reply.delay = 1000ms;
        return reply;
    });
    services->forget();
    wan.neighbour("failed");
    ASSERT_TRUE(wait_until(
        [&] { return services->count("nm-halor.UpdateWanNexthopStatus {\"id\":1,\"stat\":1}") == 1; }));
    const auto begin = Clock::now();
    EXPECT_EQ(stat(*probe), Json::Value(0)) << "the last finished report";
    EXPECT_EQ(probe->reload_condition(), 0);
    EXPECT_EQ(probe->reset_bandwidth(4000), 0);
    EXPECT_LT(Clock::now() - begin, 300ms);
    probe->stop();
}

TEST_F(BrokenServices, QueueMonitorNeedsNoService) {
    services.reset();
    ProcQdm monitor("eth1");
    EXPECT_EQ(monitor.probe(), 0);
    EXPECT_FALSE(monitor.get_state().isNull());
}

}  // namespace
}  // namespace corvo::test
