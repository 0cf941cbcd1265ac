// The log on the device's own paths: its directory, its script, a file system that is full.
#include "corvosetup/log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <filesystem>

#include "corvosetup/utils.h"
#include "foundation/log_line.h"
#include "support/recorder.h"
#include "support/sandbox.h"

namespace corvo::test {
namespace {

using testing::ElementsAre;

TEST(DeviceLog, FullLogIsHandedToTheScriptAndStartedAfresh) {
    Recorder script("/usr/sbin/log_compress.sh");
    script.exits(1);
    log::debug("old");
    std::filesystem::resize_file(kLogFile, 5242881);
    log::error("new");
    EXPECT_THAT(script.commands(), ElementsAre(std::string("/usr/sbin/log_compress.sh ") + kLogFile));
    EXPECT_THAT(log_texts(),
                ElementsAre(std::string("[DEBUG] Reopen setup_logger to ") + kLogFile,
                            "file size reach max log size: 5242880, log rotate.", "[ERROR] new"));
}

TEST(DeviceLog, ScriptInheritsNoDescriptorAndNoBlockedSignal) {
    Recorder script("/usr/sbin/log_compress.sh");
    std::filesystem::resize_file(kLogFile, 5242881);
    log::debug("x");
    ASSERT_EQ(script.calls().size(), 1U);
    EXPECT_THAT(script.calls()[0].descriptors, testing::IsEmpty());
    EXPECT_FALSE(script.calls()[0].blocked_signals);
}

TEST(DeviceLog, FullFileSystemCostsLinesButNeitherTearsNorSilencesTheLog) {
    const std::string dir = "/var/log/network/small";
    std::filesystem::create_directory(dir);
    ASSERT_EQ(::mount("tmpfs", dir.c_str(), "tmpfs", 0, "size=16k"), 0);
    const std::string path = dir + "/corvo.log";
    reopen_setup_logger(path);
    const LeakCheck leaks;
    for (int i = 0; i < 500; ++i) log::debug("line ", i, " ", std::string(100, 'x'));
    const std::string full = read_file(path);
    EXPECT_EQ(full.back(), '\n');  // the last line that fitted is whole
    for (const auto& line : log_lines(path)) EXPECT_FALSE(line.level.empty()) << line.message;
    std::filesystem::resize_file(path, 0);  // somebody makes room
    log::debug("room again");
    EXPECT_THAT(log_texts(path), ElementsAre("[DEBUG] room again"));
    reopen_setup_logger(kLogFile);
    ::umount2(dir.c_str(), MNT_DETACH);
}

TEST(DeviceLog, ReadOnlyFileSystemDoesNotRotateForEver) {
    Recorder script("/usr/sbin/log_compress.sh");
    const std::string dir = "/var/log/network/fixed";
    std::filesystem::create_directory(dir);
    ASSERT_EQ(::mount("tmpfs", dir.c_str(), "tmpfs", 0, "size=64k"), 0);
    const std::string path = dir + "/corvo.log";
    write_file(path, std::string(1000, 'x'));
    ASSERT_EQ(::mount(nullptr, dir.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
    reopen_setup_logger(path);
    script.forget_calls();
    max_log_size = 500;
    log::debug("x");
    EXPECT_EQ(script.calls().size(), 1U);
    max_log_size = 5242880;
    reopen_setup_logger(kLogFile);
    log::debug("kept");
    EXPECT_EQ(log_texts().back(), "[DEBUG] kept");
    ::umount2(dir.c_str(), MNT_DETACH);
}

TEST(DeviceLog, IsReadableByAllAndWritableByItsOwnerOnly) {
    std::filesystem::remove(kLogFile);
    const mode_t old = ::umask(022);
    log::ensure_file();
    ::umask(old);
    struct stat info {};
    ASSERT_EQ(::stat(kLogFile, &info), 0);
    EXPECT_EQ(info.st_mode & 0777U, 0644U);
}

TEST(Tools, MetricsReadWhatTheRealPipelinesMakeOfTheToolsOutput) {
    Recorder mpstat("/bin/mpstat");
    mpstat.prints(
        "Linux 6.1.0 (edge)  11/21/26  _x86_64_  (2 CPU)\n\n"
        "08:50:37     CPU    %usr   %nice    %sys %iowait    %irq   %soft  %steal  %guest  %gnice   %idle\n"
        "08:50:37     all    1.00    0.00    1.00    0.00    0.00    0.00    0.00    0.00    0.00   87.50\n");
    Recorder free("/bin/free");
    free.prints(
        "               total        used        free      shared  buff/cache   available\n"
        "Mem:            2000         500         100           0        1400        1500\n"
        "Swap:              0           0           0\n");
    Recorder ipsec("/sbin/ipsec");
    ipsec.prints("a{1}:  INSTALLED, TUNNEL\nb{2}:  REKEYED\nc{3}:  INSTALLED, TUNNEL\n");
    EXPECT_FLOAT_EQ(get_cpu_usage(), 12.5F);
    EXPECT_FLOAT_EQ(get_mem_usage(), 25.0F);
    EXPECT_EQ(get_ipsec_intalled_num(), 2);
    EXPECT_THAT(free.commands(), ElementsAre("/bin/free -m"));
    EXPECT_THAT(ipsec.commands(), ElementsAre("/sbin/ipsec statusall"));
}

TEST(Tools, WanPortsAreCountedInTheDevicesDocument) {
    Recorder jq("/bin/jq");
    jq.prints("3\n");
    EXPECT_EQ(get_wan_port_num(), 3);
    ASSERT_EQ(jq.calls().size(), 1U);
    EXPECT_THAT(jq.calls()[0].argv,
                ElementsAre("/bin/jq", ".WAN_PORT|length", "/etc/networkmanagement/device_info.json"));
}

TEST(Tools, FailingToolsGiveZero) {
    Recorder mpstat("/bin/mpstat");
    Recorder free("/bin/free");
    Recorder jq("/bin/jq");
    Recorder ipsec("/sbin/ipsec");
    for (Recorder* tool : {&mpstat, &free, &jq, &ipsec}) tool->exits(1);
    EXPECT_EQ(get_cpu_usage(), 0.0F);
    EXPECT_EQ(get_mem_usage(), 0.0F);
    EXPECT_EQ(get_wan_port_num(), 0);
    EXPECT_EQ(get_ipsec_intalled_num(), 0);
}

TEST(Tools, ConntrackGetsTheFilterAsTheRestOfItsCommandLine) {
    Recorder conntrack("/usr/sbin/conntrack");
    conntrack.prints("udp 17 src=10.0.0.1\n");
    conntrack_flush_wan_nat("10.0.0.1 -p udp");
    ASSERT_EQ(conntrack.calls().size(), 1U);
    EXPECT_THAT(conntrack.calls()[0].argv,
                ElementsAre("/usr/sbin/conntrack", "-D", "-n", "10.0.0.1", "-p", "udp"));
    EXPECT_THAT(log_texts(), ElementsAre("[DEBUG] Enter utils.cpp::367::conntrack_flush_wan_nat",
                                         "[DEBUG] Exit utils.cpp::370::conntrack_flush_wan_nat: ",
                                         "udp 17 src=10.0.0.1", ""));
}

}  // namespace
}  // namespace corvo::test
