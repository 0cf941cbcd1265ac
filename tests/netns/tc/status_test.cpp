// The queue status of a device.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tc_fixture.h"

namespace corvo::test {
namespace {

using testing::HasSubstr;

TEST_F(Tc, StatusOfADefaultQdiscIsOneNode) {
    must_run("tc qdisc replace dev wan root pfifo_fast");
    must_run("tc qdisc del dev wan root");
    const Status plain("lo");  // noqueue
    ASSERT_EQ(plain.entries.size(), 1U);
    EXPECT_STREQ(plain.entries[0].handle, "none");
    EXPECT_EQ(plain.entries[0].ceil, 0U);
    EXPECT_EQ(plain.entries[0].rate, 0U);
    EXPECT_EQ(plain.entries[0].utilisation, 0);
}

TEST_F(Tc, StatusOfAnUnknownDeviceIsAnEmptyList) {
    const Status status("nosuch");
    ASSERT_NE(status.head, nullptr);
    EXPECT_EQ(status.head->next, status.head);
    EXPECT_EQ(status.head->prev, status.head);
}

TEST_F(Tc, StatusHasQdiscsBeforeClasses) {
    add_tree();
    ASSERT_EQ(setup_qdisc("wan", "1:10", "120:", "pfifo", nullptr), 0);
    ASSERT_EQ(setup_qdisc_ingress("wan", "", 0), 0);
    const Status status("wan");
    ASSERT_EQ(status.entries.size(), 3U);  // neither the leaf nor ingress hang at the root
    EXPECT_STREQ(status.entries[0].handle, "1:");
    EXPECT_EQ(status.entries[0].ceil, 0U);
    for (const tqs_entry& entry : {status.entries[1], status.entries[2]}) {
        EXPECT_EQ(entry.ceil, 10000000U) << entry.handle;
        EXPECT_EQ(entry.rate, 0U);
        EXPECT_EQ(entry.utilisation, 0);
    }
    std::vector<std::string> names{status.entries[1].handle, status.entries[2].handle};
    EXPECT_THAT(names, testing::UnorderedElementsAre("1:1", "1:10"));
    EXPECT_EQ(status.entries[names[0] == "1:10" ? 1 : 2].htb_rate, 1000000U);
}

TEST_F(Tc, StatusWrapsAbove32Bits) {
    add_root();
    tc_options options = shaped(536870911, 536870912);
    ASSERT_EQ(setup_class("wan", "1:", "1:1", "htb", &options), 0);
    const Status status("wan");
    ASSERT_EQ(status.entries.size(), 2U);
    EXPECT_EQ(status.entries[1].htb_rate, 4294967288U);
    EXPECT_EQ(status.entries[1].ceil, 0U);
}

TEST_F(Tc, StatusLeavesClassesOfOtherKindsOut) {
    must_run("tc qdisc add dev wan root handle 1: tbf rate 1mbit burst 10k latency 10ms");
    ASSERT_THAT(classes("wan"), HasSubstr("class tbf 1:1"));
    const Status status("wan");
    ASSERT_EQ(status.entries.size(), 1U);
    EXPECT_STREQ(status.entries[0].handle, "1:");
}

TEST_F(Tc, StatusCountsWhatWaits) {
    add_root(0x10);
    tc_options options = shaped(125, 125);  // a packet in eight seconds
    ASSERT_EQ(setup_class("wan", "1:", "1:10", "htb", &options), 0);
    ip_batch({"addr add 192.0.2.1/24 dev wan", "neigh add 192.0.2.2 lladdr 02:00:00:00:00:02 dev wan"});
    wait_for_carrier("wan");
    run_line("ping -c 8 -i 0.01 -W 1 -s 1000 192.0.2.2");
    const Status status("wan");
    ASSERT_EQ(status.entries.size(), 2U);
    EXPECT_GT(status.entries[0].qlen, 0U);
    EXPECT_GT(status.entries[1].qlen, 0U);
}

// The kernel estimates rates where a class was made with an estimator.
TEST_F(Tc, StatusHasTheEstimatedRateAndItsShareOfTheCeiling) {
    add_root(0x10);
    must_run("tc class add dev wan parent 1: classid 1:10 estimator 250ms 500ms htb rate 1mbit ceil 8mbit");
    ip_batch({"addr add 192.0.2.1/24 dev wan", "neigh add 192.0.2.2 lladdr 02:00:00:00:00:02 dev wan"});
    wait_for_carrier("wan");
    run_line("ping -c 100 -i 0.01 -W 1 -s 1000 192.0.2.2");
    const Status status("wan");
    ASSERT_EQ(status.entries.size(), 2U);
    const tqs_entry& entry = status.entries[1];
    EXPECT_EQ(status.entries[0].rate, 0U);
    EXPECT_GT(entry.rate, 10000U);
    EXPECT_EQ(entry.rate % 8, 0U);
    EXPECT_EQ(entry.ceil, 8000000U);
    EXPECT_EQ(entry.htb_rate, 1000000U);
    EXPECT_DOUBLE_EQ(entry.utilisation, static_cast<double>(entry.rate / 8) * 100 / 1000000);
}

}  // namespace
}  // namespace corvo::test
