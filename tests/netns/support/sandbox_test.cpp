// The sandbox itself: what a TEST finds, and that nothing passes from one to the next.

#include "support/sandbox.h"

#include <gmock/gmock.h>
#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include "corvosetup/log.h"
#include "foundation/log_line.h"
#include "support/kernel_feature.h"

namespace corvo::test {
namespace {

using testing::ElementsAre;

// Run twice, under two names: the second finds nothing of the first.
void leave_traces_everywhere() {
    EXPECT_THAT(log_texts(), ElementsAre());
    EXPECT_FALSE(std::filesystem::exists("/etc/networkmanagement/site.json"));
    EXPECT_FALSE(std::filesystem::exists("/run/vx/vesta"));
    EXPECT_EQ(index_of("left0"), 0);
    EXPECT_EQ(max_log_size, 5242880);
    EXPECT_EQ(verbose, 0U);
    EXPECT_EQ(log_target, kLogFile);
    EXPECT_EQ(condition("PORT9"), std::nullopt);

    write_document("site.json", "{}");
    write_file("/run/vx/vesta", "");
    add_veth("left0", "left1");
    EXPECT_GT(index_of("left0"), 0);
    log::error("left");
    max_log_size = 1;
    verbose = 1;
    log_target = "/nowhere";
    if (!in_device_tier()) make_condition("PORT9");
}

TEST(Sandbox, StartsEmptyForTheFirst) {
    leave_traces_everywhere();
}
TEST(Sandbox, StartsEmptyForTheSecond) {
    leave_traces_everywhere();
}

TEST(Sandbox, KeepsTheRestOfEtc) {
    EXPECT_FALSE(read_file("/etc/passwd").empty());
}

TEST(Sandbox, CollectsTheLibrarysLog) {
    log::error("text ", 5);
    log::debug("own end\n");
    EXPECT_THAT(log_texts(), ElementsAre("[ERROR] text 5", "[DEBUG] own end"));
    EXPECT_EQ(log_lines()[0].time, get_cur_time());
    clear_log();
    log::warning("next");
    EXPECT_THAT(log_texts(), ElementsAre("[WARNING] next"));
}

TEST(Sandbox, HasItsOwnInterfacesInSysAndProc) {
    add_veth("one0", "one1", {.address = "192.0.2.1/24"});
    EXPECT_TRUE(std::filesystem::exists("/sys/class/net/one0/mtu"));
    EXPECT_TRUE(std::filesystem::exists("/proc/sys/net/ipv4/conf/one0/rp_filter"));
    EXPECT_NE(read_file("/proc/net/dev").find("one0"), std::string::npos);
    EXPECT_FALSE(std::filesystem::exists("/sys/class/net/eth0"));
    EXPECT_EQ(ip_json("addr show dev one0")[0]["addr_info"][0]["local"].asString(), "192.0.2.1");
}

TEST(Sandbox, LoopbackIsUp) {
    EXPECT_EQ(ip_json("addr show dev lo")[0]["addr_info"][0]["local"].asString(), "127.0.0.1");
}

TEST(Sandbox, SeesOnlyItsOwnProcesses) {
    EXPECT_LT(getpid(), 20000);
    EXPECT_EQ(read_file("/proc/self/stat").substr(0, std::to_string(getpid()).size()),
              std::to_string(getpid()));
    EXPECT_TRUE(std::filesystem::exists("/proc/1"));
    EXPECT_EQ(std::filesystem::read_symlink("/proc/1/exe"), std::filesystem::read_symlink("/proc/self/exe"));
}

TEST(Sandbox, ConditionFilesHoldValues) {
    if (in_device_tier()) REQUIRE_KERNEL_FEATURE("nf_condition");
    make_condition("PORT3", "0");
    EXPECT_EQ(condition("PORT3"), "0");
    write_file("/proc/net/nf_condition/PORT3", "1");
    EXPECT_EQ(condition("PORT3"), "1");
    EXPECT_EQ(condition("PORT4"), std::nullopt);
}

TEST(Sandbox, OtherFilesOfProcNetFollowTheReadingThread) {
    Netns other("other");
    add_veth("v0", other, "v1");
    EXPECT_EQ(read_file("/proc/net/dev").find("v1"), std::string::npos);
    // The real directory shows what the process's first thread sees, whichever thread reads.
    const std::string path = in_device_tier() ? "/proc/thread-self/net/dev" : "/proc/net/dev";
    other.run([&] { EXPECT_NE(read_file(path).find("v1"), std::string::npos); });
}

TEST(SandboxDeathTest, DeathTestsRunInside) {
    EXPECT_DEATH(abort(), "");
    EXPECT_EXIT(_exit(3), testing::ExitedWithCode(3), "");
}

TEST(Netns, CarriesTrafficToTheTest) {
    Netns other("other");
    add_veth("v0", other, "v1", {.address = "192.0.2.1/24", .peer_address = "192.0.2.2/24"});
    ASSERT_TRUE(wait_for_carrier("v0"));
    EXPECT_EQ(other.ip_json("addr show dev v1")[0]["addr_info"][0]["local"].asString(), "192.0.2.2");
    EXPECT_TRUE(wait_until([] { return run_line("ping -c1 -W2 192.0.2.2").ok(); }));
}

TEST(Netns, HandsExceptionsOut) {
    const Netns other("other");
    EXPECT_THROW(other.ip({"link set nothing up"}), std::runtime_error);
    EXPECT_EQ(other.tool("false").status, 1);
}

TEST(Netns, CanBeUsedByName) {
    const Netns other("other");
    add_veth("v0", "v1");
    must_run("ip link set v1 netns other");
    EXPECT_EQ(run_line("ip -n other link show dev v1").status, 0);
}

TEST(KernelFeature, FindsWhatEveryKernelHere) {
    std::string why;
    EXPECT_TRUE(has_kernel_feature("veth", &why)) << why;
    EXPECT_TRUE(has_kernel_feature("htb", &why)) << why;
    EXPECT_THROW(has_kernel_feature("teleport"), std::invalid_argument);
}

TEST(LeakCheckTest, ReportsAnOpenDescriptor) {
    int fd = -1;
    EXPECT_NONFATAL_FAILURE(
        {
            LeakCheck leaks;
            fd = socket(AF_UNIX, SOCK_STREAM, 0);
        },
        "left open: socket");
    close(fd);
}

TEST(LeakCheckTest, ReportsAChildNobodyWaitedFor) {
    EXPECT_NONFATAL_FAILURE(
        {
            LeakCheck leaks;
            if (fork() == 0) _exit(0);
        },
        "children left behind");
}

TEST(LeakCheckTest, IsContentWhenAllIsGivenBack) {
    LeakCheck leaks;
    close(socket(AF_UNIX, SOCK_STREAM, 0));
    must_run("true");
}

}  // namespace
}  // namespace corvo::test
