// Commands, system figures, interface names and the pinning of queues.
#include <net/if.h>
#include <sys/wait.h>

#include <cmath>
#include <csignal>
#include <vector>

#include "corvosetup/utils.h"
#include "foundation/command.h"
#include "foundation/cpus.h"
#include "foundation/worker.h"
#include "service_fixture.h"

namespace {

using fake_process::Argv;

class CommandTest : public ServiceFixture {
protected:
    static std::string run(std::string command) { return exec(command); }
    static Argv shell(const std::string& text) { return {"/bin/sh", "-c", text}; }
};

// ---- exec

TEST_F(CommandTest, ExecReturnsTheWholeOutput) {
    EXPECT_EQ(run("printf 'a\\nb'; echo err >&2 2>/dev/null; printf c"), "a\nbc");
    EXPECT_EQ(run("head -c 100000 /dev/zero | tr '\\0' x"), std::string(100000, 'x'));
    EXPECT_EQ(lines(), Lines{});
}

TEST_F(CommandTest, ExecGoesThroughTheShell) {
    run("exit 0 | cat");
    EXPECT_EQ(fake_process::started(), std::vector<Argv>{shell("exit 0 | cat")});
}

TEST_F(CommandTest, ExecIgnoresTheExitStatus) {
    EXPECT_EQ(run("echo out; exit 3"), "out\n");
    EXPECT_EQ(run("kill -9 $$"), "");
    EXPECT_EQ(run("no-such-command-anywhere 2>/dev/null"), "");
    EXPECT_EQ(lines(), Lines{});
}

TEST_F(CommandTest, ExecWithoutAPipeLogsAndReturnsNothing) {
    fake_process::refuse_starts(EAGAIN);
    EXPECT_EQ(run("echo x"), "");
    EXPECT_EQ(lines(), Lines{"[ERROR] pipe error"});
}

TEST_F(CommandTest, ExecKeepsBytesOfEveryValue) {
    EXPECT_EQ(run("printf 'a\\000b\\377'"), std::string("a\0b\377", 4));
}

TEST_F(CommandTest, ExecOfARunawayEnds) {
    const std::string output = run("yes");
    EXPECT_EQ(output.size(), 64U << 20);
}

TEST_F(CommandTest, ExecWorksForADaemonThatIgnoresItsChildren) {
    const auto old = ::signal(SIGCHLD, SIG_IGN);
    EXPECT_EQ(run("echo x"), "x\n");
    EXPECT_EQ(corvo::run_command({"/bin/true"}), 0);
    EXPECT_EQ(corvo::run_command({"/bin/false"}), 0);  // the status went to nobody
    ::signal(SIGCHLD, old);
}

TEST_F(CommandTest, ExecLeavesNoDescriptorAndNoChild) {
    const int before = open_descriptors();
    for (int i = 0; i < 10; ++i) run("echo x");
    fake_process::refuse_starts(ENOMEM);
    for (int i = 0; i < 10; ++i) run("echo x");
    EXPECT_EQ(open_descriptors(), before);
    EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);
}

// ---- exec_c

TEST_F(CommandTest, ExecCReadsOneLine) {
    char buf[512];
    EXPECT_EQ(exec_c("printf 'one\\ntwo\\n'", buf), 0);
    EXPECT_STREQ(buf, "one\n");
}

TEST_F(CommandTest, ExecCKeepsAtMost511Characters) {
    char buf[513];
    buf[512] = 'x';
    EXPECT_EQ(exec_c("head -c 2000 /dev/zero | tr '\\0' y", buf), 0);
    EXPECT_EQ(std::string(buf), std::string(511, 'y'));
    EXPECT_EQ(buf[512], 'x');
    EXPECT_EQ(exec_c("head -c 510 /dev/zero | tr '\\0' y; echo", buf), 0);
    EXPECT_EQ(std::string(buf), std::string(510, 'y') + "\n");
}

TEST_F(CommandTest, ExecCOfASilentCommandGivesAnEmptyText) {
    char buf[512] = "old";
    EXPECT_EQ(exec_c("true", buf), 0);
    EXPECT_STREQ(buf, "");
    EXPECT_EQ(exec_c("exit 3", buf), 0);
}

TEST_F(CommandTest, ExecCWithoutAPointerIs3002) {
    char buf[512];
    EXPECT_EQ(exec_c(nullptr, buf), -3002);
    EXPECT_EQ(exec_c("true", nullptr), -3002);
    EXPECT_TRUE(fake_process::started().empty());
}

TEST_F(CommandTest, ExecCWithoutAPipeIs3001) {
    fake_process::refuse_starts(EAGAIN);
    char buf[512] = "old";
    EXPECT_EQ(exec_c("true", buf), -3001);
    EXPECT_EQ(lines(), Lines{});
}

TEST_F(CommandTest, ExecCOfAnEndlessCommandEnds) {
    char buf[512];
    EXPECT_EQ(exec_c("yes", buf), 0);
    EXPECT_STREQ(buf, "y\n");
}

// ---- interface names

TEST_F(CommandTest, InterfaceIndexAndName) {
    EXPECT_EQ(get_ifindex("lo"), static_cast<int>(::if_nametoindex("lo")));
    EXPECT_GT(get_ifindex("lo"), 0);
    EXPECT_EQ(get_ifindex("none0"), 0);
    EXPECT_EQ(get_ifindex(nullptr), 0);
    EXPECT_EQ(get_ifindex(""), 0);
    std::vector<char> name(IF_NAMESIZE);  // on the heap, where AddressSanitizer sees a byte too many
    EXPECT_EQ(get_ifname(static_cast<unsigned>(get_ifindex("lo")), name.data()), name.data());
    EXPECT_STREQ(name.data(), "lo");
    EXPECT_EQ(get_ifname(0, name.data()), nullptr);
    EXPECT_EQ(get_ifname(1, nullptr), nullptr);
}

// ---- figures

struct FigureCase {
    const char* name;
    std::function<double()> run;
    const char* pipeline;
    bool integer;
};
void PrintTo(const FigureCase& figure, std::ostream* out) {
    *out << figure.name;
}

class Figures : public CommandTest, public ::testing::WithParamInterface<FigureCase> {};

TEST_P(Figures, RunsItsPipeline) {
    fake_process::replace("/bin/sh -c", "true");
    GetParam().run();
    EXPECT_EQ(fake_process::started(), std::vector<Argv>{shell(GetParam().pipeline)});
}

TEST_P(Figures, ConvertsTheText) {
    fake_process::replace("/bin/sh -c", "echo ' 12.5 rest'");
    EXPECT_EQ(GetParam().run(), GetParam().integer ? 12.0 : 12.5);
}

TEST_P(Figures, EmptyOutputIsZero) {
    fake_process::replace("/bin/sh -c", "true");
    EXPECT_EQ(GetParam().run(), 0.0);
}

TEST_P(Figures, UnparsableOutputIsZero) {
    fake_process::replace("/bin/sh -c", "echo none");
    EXPECT_EQ(GetParam().run(), 0.0);
}

TEST_P(Figures, NotANumberIsZero) {
    for (const char* script : {"echo nan", "echo -nan", "echo inf", "echo 1e999"}) {
        fake_process::replace("/bin/sh -c", script);
        const double value = GetParam().run();
        EXPECT_TRUE(value == 0.0 || GetParam().integer) << script << " " << value;
        EXPECT_TRUE(std::isfinite(value));
    }
}

TEST_P(Figures, ToolThatCannotBeStartedIsZero) {
    fake_process::refuse_starts(EAGAIN);
    EXPECT_EQ(GetParam().run(), 0.0);
    EXPECT_EQ(lines(), Lines{"[ERROR] pipe error"});
}

INSTANTIATE_TEST_SUITE_P(
    Metrics, Figures,
    ::testing::Values(FigureCase{"cpu_usage", [] { return get_cpu_usage(); },
                                 "/bin/mpstat | /bin/awk '$12 ~ /[0-9.]+/ {print 100 - $12}'", false},
                      FigureCase{"mem_usage", [] { return get_mem_usage(); },
                                 "/bin/free -m | /bin/grep Mem | /bin/awk '{print $3/$2 * 100.0}'", false},
                      FigureCase{"wan_port_num", [] { return get_wan_port_num(); },
                                 "/bin/jq '.WAN_PORT|length' /etc/networkmanagement/device_info.json", true},
                      FigureCase{"ipsec_intalled_num", [] { return get_ipsec_intalled_num(); },
                                 "/sbin/ipsec statusall | /bin/grep -c INSTALLED", true}),
    [](const auto& info) { return info.param.name; });

// ---- conntrack

TEST_F(CommandTest, ConntrackFlushRunsTheFilterAsGivenBetweenItsTraces) {
    fake_process::replace("/bin/sh -c", "printf 'line 1\\nline 2\\n'");
    conntrack_flush_wan_nat("10.0.0.1 -p udp");
    EXPECT_EQ(fake_process::started(), std::vector<Argv>{shell("/usr/sbin/conntrack -D -n 10.0.0.1 -p udp")});
    EXPECT_EQ(lines(),
              (Lines{"[DEBUG] Enter utils.cpp::367::conntrack_flush_wan_nat",
                     "[DEBUG] Exit utils.cpp::370::conntrack_flush_wan_nat: ", "line 1", "line 2", ""}));
}

TEST_F(CommandTest, ConntrackTracesAreAlwaysWritten) {
    verbose = 0;
    fake_process::refuse_starts(ENOENT);
    conntrack_flush_wan_nat("");
    EXPECT_EQ(fake_process::started()[0][2], "/usr/sbin/conntrack -D -n ");
    EXPECT_EQ(lines(), (Lines{"[DEBUG] Enter utils.cpp::367::conntrack_flush_wan_nat", "[ERROR] pipe error",
                              "[DEBUG] Exit utils.cpp::370::conntrack_flush_wan_nat: ", ""}));
}

TEST_F(CommandTest, ConntrackFlushRecreatesADeletedLogFirst) {
    fake_process::replace("/bin/sh -c", "true");
    std::filesystem::remove(log_path_);
    conntrack_flush_wan_nat("1.1.1.1");
    ASSERT_GE(lines().size(), 2U);
    EXPECT_EQ(lines()[0], "[DEBUG] Reopen setup_logger to " + log_path_);
    EXPECT_EQ(lines()[1], "[DEBUG] Enter utils.cpp::367::conntrack_flush_wan_nat");
}

// ---- pinning

TEST(CpuMask, OneBitPerProcessorModulo32) {
    EXPECT_EQ(corvo::cpu_mask(1), 1U);
    EXPECT_EQ(corvo::cpu_mask(4), 0xfU);
    EXPECT_EQ(corvo::cpu_mask(31), 0x7fffffffU);
    EXPECT_EQ(corvo::cpu_mask(32), 0U);
    EXPECT_EQ(corvo::cpu_mask(33), 1U);
    EXPECT_EQ(corvo::cpu_mask(64), 0U);
}

TEST_F(CommandTest, PinningLogsTheMaskInDecimalAndReturnsTheServicesCode) {
    fake_process::processors(6);
    fake_vx::reply(R"({"error":0})");
    EXPECT_EQ(setup_cpus("none0"), 0);
    fake_vx::reply(R"({"error":1})");
    EXPECT_EQ(setup_cpus("none0"), -3019);
    vx().refuse_create = true;
    EXPECT_EQ(setup_cpus("none0"), -3022);
    const std::string line = "[DEBUG] Setup CPU pinning: none0, mask: 63";
    EXPECT_EQ(lines(), (Lines{line, line, line}));
}

TEST_F(CommandTest, PinningListsTheQueuesUnderAPathWithADoubledSlash) {
    fake_vx::reply(R"({"error":0})");
    EXPECT_EQ(setup_cpus("none0"), 0);
    EXPECT_EQ(fake_process::opened_directories(), Lines{"/sys/class/net/none0/queues//"});
}

TEST_F(CommandTest, PinningOfAnOverlongNameOnlyAsksTheService) {
    fake_vx::reply(R"({"error":0})");
    EXPECT_EQ(setup_cpus(std::string(400, 'x')), 0);
    EXPECT_EQ(vx().calls.size(), 1U);
}

}  // namespace
