// The testbed has what a device has.

#include <gtest/gtest.h>

#include <filesystem>

#include "support/kernel_feature.h"
#include "support/recorder.h"
#include "support/sandbox.h"

namespace corvo::test {
namespace {

class Testbed : public testing::TestWithParam<const char*> {};

TEST_P(Testbed, HasTheKernelFeature) {
    std::string why;
    EXPECT_TRUE(has_kernel_feature(GetParam(), &why)) << why;
}

INSTANTIATE_TEST_SUITE_P(Device, Testbed,
                         testing::Values("dummy", "veth", "ifb", "ipip", "sit", "fou", "ipip-gue", "sit-gue",
                                         "htb", "fq", "fq_codel", "netem", "ingress", "u32", "fw", "mirred",
                                         "bbr", "mptcp", "conntrack", "multiqueue", "nf_condition"));

TEST(TestbedConditions, ExistWhileARuleRefersToThem) {
    EXPECT_EQ(condition("PORT3"), std::nullopt);
    make_condition("PORT3", "1");
    EXPECT_EQ(condition("PORT3"), "1");
    write_file("/proc/net/nf_condition/PORT3", "0");
    EXPECT_EQ(condition("PORT3"), "0");
    must_run("iptables -w -F OUTPUT");
    EXPECT_EQ(condition("PORT3"), std::nullopt);
}

TEST(TestbedConditions, DoNotPassFromTestToTest) {
    EXPECT_EQ(condition("PORT3"), std::nullopt);
}

TEST(TestbedTools, AreThereByTheirAbsolutePaths) {
    for (const char* tool : {"/sbin/modprobe", "/sbin/ifconfig", "/usr/sbin/conntrack", "/bin/mpstat",
                             "/bin/free", "/bin/jq", "/sbin/ipsec", "/sbin/ip", "/sbin/tc"})
        EXPECT_TRUE(std::filesystem::exists(tool)) << tool;
}

}  // namespace
}  // namespace corvo::test
