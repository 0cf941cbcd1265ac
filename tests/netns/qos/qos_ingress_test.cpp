// WAN shaping: the ingress limit and its commands.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "foundation/worker.h"
#include "qos_fixture.h"
#include "support/recorder.h"

namespace corvo::test {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

class QosIngress : public QosTree {
protected:
    void SetUp() override {
        QosTree::SetUp();
        REQUIRE_KERNEL_FEATURE("ingress");
        REQUIRE_KERNEL_FEATURE("u32");
        REQUIRE_KERNEL_FEATURE("mirred");
        REQUIRE_KERNEL_FEATURE("ifb");
        ip_batch({"link add ifb0 type ifb", "link set ifb0 up"});
        write_wan("100000000", kMbit10);
        write_rates("[50]");
    }
};

TEST_F(QosIngress, NoReceiveRateIsNoIngressPart) {
    write_wan("0", kMbit10);
    shape(0, "eth1");
    EXPECT_THAT(qdiscs("eth1"), Not(HasSubstr("ingress")));
    EXPECT_THAT(qdiscs("ifb0"), Not(HasSubstr("htb")));
}

// The egress tree fails on a kernel without fq; the ingress part is there all the same, and its result
// counts.
TEST_F(QosIngress, RunsAfterAFailedEgress) {
    const int result = shape(0, "eth1");
    EXPECT_EQ(result, has_fq_ ? 0 : 512);  // the raw status of the leaf command
    EXPECT_THAT(qdiscs("eth1"), HasSubstr("qdisc ingress ffff: parent ffff:fff1"));
    EXPECT_THAT(filters("eth1 ingress"), HasSubstr("mirred (Egress Redirect to device ifb0) stolen"));
    EXPECT_THAT(filters("eth1 ingress"), HasSubstr("match 00320000/00ff0000 at 8"));
    EXPECT_THAT(qdiscs("ifb0"), HasSubstr("qdisc htb 1: root refcnt 2 r2q 10 default 0x1"));
    EXPECT_THAT(classes("ifb0"), HasSubstr("class htb 1:1 root"));
    EXPECT_THAT(classes("ifb0"), HasSubstr("rate 100Mbit ceil 100Mbit"));
    if (has_fq_) return;
    EXPECT_THAT(errors(),
                testing::IsSupersetOf({"Setup QoS error.", "Setup ifb: ifb0 egress failed, Ret: 512"}));
}

TEST_F(QosIngress, EveryCommandIsLoggedWithItsRawStatus) {
    ProcQoS shaper("eth1", 100000000, 0, "");
    clear_log();
    const int result = shaper.setup_ingress_limit();
    EXPECT_THAT(
        messages(),
        ElementsAre(
            "[DEBUG] Setup ifb0's ingress 100mbits with type [htb].", "[DEBUG] Clean ifb0's Qdisc.",
            "[DEBUG] Command [/sbin/tc qdisc del dev ifb0 root], ret: 512",
            "[DEBUG] Command [/sbin/tc qdisc add dev ifb0 root handle 1: htb default 1], ret: 0",
            "[DEBUG] Command [/sbin/tc class add dev ifb0 parent 1: classid 1:1 htb rate 100000000 ceil "
            "100000000], ret: 0",
            "[DEBUG] Command [/sbin/tc qdisc add dev ifb0 parent 1:1 handle 10: fq], ret: " +
                std::to_string(result)));
}

TEST_F(QosIngress, DeletesWhatIsThereFirst) {
    ProcQoS shaper("eth1", 100000000, 0, "");
    shaper.setup_ingress_limit();
    clear_log();
    shaper.setup_ingress_limit();
    EXPECT_THAT(messages(),
                testing::IsSupersetOf(
                    {"[DEBUG] Command [/sbin/tc qdisc del dev ifb0 root], ret: 0",
                     "[DEBUG] Command [/sbin/tc qdisc add dev ifb0 root handle 1: htb default 1], ret: 0"}));
}

TEST_F(QosIngress, ReplacesWhatCouldNotBeDeleted) {
    Recorder tc("/sbin/tc");
    tc.when("qdisc show").prints("qdisc htb 1: root\nqdisc fq 10: parent 1:1\n");
    tc.when("class show").prints("class htb 1:1 root\n");
    tc.when("qdisc del").exits(2);
    ProcQoS shaper("eth1", 100000000, 0, "");
    EXPECT_EQ(shaper.setup_ingress_limit(), 0);
    EXPECT_THAT(
        tc.commands(),
        ElementsAre(
            "/sbin/tc qdisc del dev ifb0 root", "/sbin/tc qdisc show dev ifb0",
            "/sbin/tc qdisc replace dev ifb0 root handle 1: htb default 1", "/sbin/tc class show dev ifb0",
            "/sbin/tc class replace dev ifb0 parent 1: classid 1:1 htb rate 100000000 ceil 100000000",
            "/sbin/tc qdisc show dev ifb0", "/sbin/tc qdisc replace dev ifb0 parent 1:1 handle 10: fq"));
}

TEST_F(QosIngress, ResultIsTheLeafCommandsAlone) {
    Recorder tc("/sbin/tc");
    tc.exits(2);
    tc.when("handle 10: fq").exits(0);
    ProcQoS shaper("eth1", 100000000, 0, "");
    EXPECT_EQ(shaper.setup_ingress_limit(), 0);
    tc.when("handle 10: fq").exits(0);
    EXPECT_EQ(
        count_log("[DEBUG] Command [/sbin/tc qdisc add dev ifb0 root handle 1: htb default 1], ret: 512"), 1);
}

TEST_F(QosIngress, MissingIfbEndsIt) {
    ProcQoS shaper("eth0", 100000000, 0, "");
    EXPECT_EQ(shaper.check_ifb_iface(), -3005);
    EXPECT_EQ(shaper.setup_ingress_limit(), -3005);
    EXPECT_THAT(errors(), ElementsAre("No ifb iface: ifb-1"));
}

TEST_F(QosIngress, FilterIsTriedThreeTimesASecondApart) {
    ip_batch({"link del ifb0"});
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(shape(0, "eth1"), -3005);
    const auto took = std::chrono::steady_clock::now() - begin;
    EXPECT_EQ(count_log("[ERROR] Setup Ingress Filter failed, Ret: -3011"), 3);
    EXPECT_GE(took, std::chrono::seconds(3));
    EXPECT_LT(took, std::chrono::seconds(in_device_tier() ? 60 : 6));
    EXPECT_THAT(errors(),
                testing::IsSupersetOf({"No ifb iface: ifb0", "Setup ifb: ifb0 egress failed, Ret: -3005"}));
}

TEST_F(QosIngress, WaitForTheFilterEndsWithItsWorker) {
    ip_batch({"link del ifb0"});
    std::thread* thread = Worker::start([] { shape(0, "eth1"); });
    EXPECT_TRUE(wait_for_log("[ERROR] Setup Ingress Filter failed, Ret: -3011"));
    const auto begin = std::chrono::steady_clock::now();
    Worker::stop(thread);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(in_device_tier() ? 10 : 1));
}

TEST_F(QosIngress, ExistingIngressIsReportedAndKept) {
    must_run("tc qdisc add dev eth1 handle ffff: ingress");
    shape(0, "eth1");
    EXPECT_THAT(errors(), Contains("Setup Root Ingress failed, Ret: -3011"));
    EXPECT_THAT(filters("eth1 ingress"), HasSubstr("mirred"));
}

TEST_F(QosIngress, MissingToolIsTheShellsStatus) {
    Recorder tc("/sbin/tc");
    tc.exits(127);
    ProcQoS shaper("eth1", 100000000, 0, "");
    EXPECT_EQ(shaper.setup_ingress_limit(), 127 << 8);
}

}  // namespace
}  // namespace corvo::test
