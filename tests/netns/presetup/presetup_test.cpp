// What the daemon's first calls leave in the kernel, in the log and with the tools.
#include "corvosetup/presetup.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <functional>

#include "corvosetup/utils.h"
#include "kernel_files.h"
#include "processors.h"
#include "support/kernel_feature.h"
#include "support/recorder.h"
#include "support/sandbox.h"
#include "support/services.h"

namespace corvo::test {
namespace {

using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::StartsWith;

const std::string kIpv4 = "/proc/sys/net/ipv4/";
const std::string kIpv6Conf = "/proc/sys/net/ipv6/conf/";

std::vector<std::string> names_in(const std::string& path) {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(path))
        names.push_back(entry.path().filename());
    return names;
}

bool writable(const std::string& path) {
    const UniqueFd file(::open(path.c_str(), O_WRONLY | O_CLOEXEC));
    return static_cast<bool>(file);
}

// ---- IPv4

TEST(PresetupIpv4, SetsEveryKeyOfEveryEntryAllAndDefaultIncluded) {
    Recorder ip("/usr/sbin/ip");
    add_veth("wan0", "peer0");
    presetup_ipv4();
    const auto names = names_in(kIpv4 + "conf");
    EXPECT_THAT(names, AllOf(Contains("all"), Contains("default"), Contains("lo"), Contains("wan0")));
    for (const auto& name : names)
        for (const auto& [key, value] : conf_map)
            EXPECT_EQ(value_of(kIpv4 + "conf/" + name + "/" + key), value) << name << " " << key;
}

TEST(PresetupIpv4, OpensForwardingAndSetsTheNeighbourLimits) {
    presetup_ipv4();
    EXPECT_EQ(value_of(kIpv4 + "ip_forward"), "1");
    // The limits of the neighbour table belong to the machine, not to the namespace, and exist in its first
    // namespace only; elsewhere each is a failed write.
    for (const auto& [key, value] : std::vector<std::pair<std::string, std::string>>{
             {"gc_interval", "270"}, {"gc_thresh1", "1"}, {"gc_thresh2", "3000"}, {"gc_thresh3", "3000"}}) {
        const std::string path = kIpv4 + "neigh/default/" + key;
        if (writable(path))
            EXPECT_EQ(value_of(path), value);
        else
            EXPECT_EQ(count_log("[ERROR] Write value fail, file: " + path), 1) << path;
    }
}

TEST(PresetupIpv4, ResultSaysWhetherAnyWriteFailedAndTheTracesFrameTheRest) {
    const int result = presetup_ipv4();
    auto texts = log_texts();
    ASSERT_GE(texts.size(), 2U);
    EXPECT_EQ(texts.front(), "[DEBUG] INIT Enter presetup.cpp::117::presetup_ipv4");
    EXPECT_EQ(texts.back(), "[DEBUG] Exit presetup.cpp::175::presetup_ipv4: " + std::to_string(result));
    EXPECT_EQ(result, texts.size() == 2 ? 0 : -3001);
    for (std::size_t i = 1; i + 1 < texts.size(); ++i)
        EXPECT_THAT(texts[i], StartsWith("[ERROR] Write value fail, file: /proc/sys/net/ipv4/"));
}

// The kernel's directory in the form that every step succeeds on.
void fill_ipv4() {
    for (const char* name : {"all", "default", "eth9"})
        for (const auto& [key, value] : conf_map) write_file(kIpv4 + "conf/" + name + "/" + key, "old");
    write_file(kIpv4 + "ip_forward", "0");
    for (const char* key : {"gc_interval", "gc_thresh1", "gc_thresh2", "gc_thresh3"})
        write_file(kIpv4 + "neigh/default/" + key, "0");
}

TEST(PresetupIpv4, ReturnsZeroWhenEveryWriteSucceeds) {
    const Replaced ipv4(kIpv4);
    fill_ipv4();
    EXPECT_EQ(presetup_ipv4(), 0);
    for (const auto& [key, value] : conf_map) EXPECT_EQ(read_file(kIpv4 + "conf/eth9/" + key), value);
    EXPECT_EQ(read_file(kIpv4 + "ip_forward"), "1");
    EXPECT_EQ(read_file(kIpv4 + "neigh/default/gc_interval"), "270");
    EXPECT_EQ(read_file(kIpv4 + "neigh/default/gc_thresh1"), "1");
    EXPECT_EQ(read_file(kIpv4 + "neigh/default/gc_thresh2"), "3000");
    EXPECT_EQ(read_file(kIpv4 + "neigh/default/gc_thresh3"), "3000");
    EXPECT_THAT(log_texts(), ElementsAre("[DEBUG] INIT Enter presetup.cpp::117::presetup_ipv4",
                                         "[DEBUG] Exit presetup.cpp::175::presetup_ipv4: 0"));
}

TEST(PresetupIpv4, OneFailedWriteIsLoggedAndTheRestIsDone) {
    const Replaced ipv4(kIpv4);
    fill_ipv4();
    const std::string broken = kIpv4 + "conf/eth9/rp_filter";
    std::filesystem::remove(broken);
    std::filesystem::create_directory(broken);
    EXPECT_EQ(presetup_ipv4(), -3001);
    EXPECT_THAT(log_texts(), ElementsAre("[DEBUG] INIT Enter presetup.cpp::117::presetup_ipv4",
                                         "[ERROR] Write value fail, file: " + broken,
                                         "[DEBUG] Exit presetup.cpp::175::presetup_ipv4: -3001"));
    EXPECT_EQ(read_file(kIpv4 + "conf/eth9/send_redirects"), "0");
    EXPECT_EQ(read_file(kIpv4 + "neigh/default/gc_thresh3"), "3000");
}

TEST(PresetupIpv4, EachKeyThatAnEntryDoesNotTakeIsLoggedInTheOrderOfTheKeys) {
    const Replaced ipv4(kIpv4);
    fill_ipv4();
    std::filesystem::remove_all(kIpv4 + "conf/eth9");
    write_file(kIpv4 + "conf/eth9", "no directory, so none of its keys can be opened");
    std::vector<std::string> expected{"[DEBUG] INIT Enter presetup.cpp::117::presetup_ipv4"};
    for (const char* key : {"accept_redirects", "arp_announce", "arp_ignore", "forwarding",
                            "ignore_routes_with_linkdown", "rp_filter", "send_redirects"})
        expected.push_back("[ERROR] Write value fail, file: " + kIpv4 + "conf/eth9/" + key);
    expected.push_back("[DEBUG] Exit presetup.cpp::175::presetup_ipv4: -3001");
    EXPECT_EQ(presetup_ipv4(), -3001);
    EXPECT_EQ(log_texts(), expected);
    EXPECT_EQ(read_file(kIpv4 + "conf/all/forwarding"), "1");
    EXPECT_EQ(read_file(kIpv4 + "ip_forward"), "1");
}

TEST(PresetupIpv4, MissingDirectoryIsAFailureAndTheRestIsDone) {
    const Replaced ipv4(kIpv4);
    fill_ipv4();
    std::filesystem::remove_all(kIpv4 + "conf");
    EXPECT_EQ(presetup_ipv4(), -3001);
    EXPECT_EQ(read_file(kIpv4 + "ip_forward"), "1");
    EXPECT_EQ(read_file(kIpv4 + "neigh/default/gc_thresh3"), "3000");
}

TEST(PresetupIpv4, TellsTheLoopbackNotToTakePartInMultipathByPathLookup) {
    std::vector<std::unique_ptr<Recorder>> everywhere;
    for (const char* path : {"/usr/sbin/ip", "/usr/bin/ip"})
        everywhere.push_back(std::make_unique<Recorder>(path));
    for (auto& recorder : everywhere) recorder->exits(255);
    const Replaced ipv4(kIpv4);
    fill_ipv4();
    EXPECT_EQ(presetup_ipv4(), 0);
    EXPECT_THAT(Recorders::commands(), ElementsAre("ip li set dev lo multipath off"));
    EXPECT_EQ(log_texts().size(), 2U);  // its failure is nobody's business
}

// ---- IPv6

TEST(PresetupIpv6, GlobalForwardingStaysOnAndEveryOtherEntryGetsItOff) {
    add_veth("wan0", "peer0");
    EXPECT_EQ(presetup_ipv6(), 0);
    EXPECT_EQ(value_of(kIpv6Conf + "all/forwarding"), "1");
    EXPECT_EQ(value_of(kIpv6Conf + "default/forwarding"), "0");
    EXPECT_EQ(value_of(kIpv6Conf + "wan0/forwarding"), "0");
    EXPECT_EQ(value_of(kIpv6Conf + "all/disable_ipv6"), "0");
    for (const auto& name : names_in(kIpv6Conf))
        for (const auto& [key, value] : conf6_map) {
            const std::string path = kIpv6Conf + name + "/" + key;
            if ((name == "all" && key == "forwarding") || !std::filesystem::exists(path)) continue;
            EXPECT_EQ(value_of(path), value) << path;
        }
    EXPECT_THAT(log_texts(), ElementsAre("[DEBUG] INIT Enter presetup.cpp::182::presetup_ipv6",
                                         "[DEBUG] Exit presetup.cpp::217::presetup_ipv6: 0"));
}

TEST(PresetupIpv6, MissingKeyFileIsSkippedSilently) {
    const Replaced conf(kIpv6Conf);
    write_file(kIpv6Conf + "all/forwarding", "0");
    write_file(kIpv6Conf + "eth9/autoconf", "1");
    EXPECT_EQ(presetup_ipv6(), 0);
    EXPECT_EQ(read_file(kIpv6Conf + "eth9/autoconf"), "0");
    EXPECT_FALSE(std::filesystem::exists(kIpv6Conf + "eth9/addr_gen_mode"));
    EXPECT_EQ(read_file(kIpv6Conf + "all/disable_ipv6"), "0");
    EXPECT_EQ(log_texts().size(), 2U);
}

TEST(PresetupIpv6, FailedFirstWriteIsRememberedAndTheRestIsDone) {
    const Replaced conf(kIpv6Conf);
    std::filesystem::create_directories(kIpv6Conf + "all/forwarding");
    write_file(kIpv6Conf + "eth9/forwarding", "1");
    EXPECT_EQ(presetup_ipv6(), -3001);
    EXPECT_EQ(read_file(kIpv6Conf + "eth9/forwarding"), "0");
    EXPECT_THAT(log_texts(), ElementsAre("[DEBUG] INIT Enter presetup.cpp::182::presetup_ipv6",
                                         "[ERROR] Write value fail, file: " + kIpv6Conf + "all/forwarding",
                                         "[DEBUG] Exit presetup.cpp::217::presetup_ipv6: -3001"));
}

TEST(PresetupIpv6, MissingDirectoryIsAFailure) {
    const Replaced ipv6("/proc/sys/net/ipv6");
    EXPECT_EQ(presetup_ipv6(), -3001);
    EXPECT_THAT(log_texts(), ElementsAre("[DEBUG] INIT Enter presetup.cpp::182::presetup_ipv6",
                                         "[ERROR] Write value fail, file: " + kIpv6Conf + "all/forwarding",
                                         "[ERROR] Write value fail, file: " + kIpv6Conf + "all/disable_ipv6",
                                         "[DEBUG] Exit presetup.cpp::217::presetup_ipv6: -3001"));
}

// ---- MPTCP

TEST(PresetupMptcp, WritesInOrderOfThePathsAndReportsWhatTheKernelDoesNotHave) {
    std::vector<std::string> expected{"[DEBUG] INIT Enter presetup.cpp::224::presetup_mptcp"};
    for (const auto& [path, value] : tcp_map)
        if (!writable(path)) expected.push_back("[ERROR] Write value fail, file: " + path);
    const int result = expected.size() == 1 ? 0 : -3001;
    expected.push_back("[DEBUG] Exit presetup.cpp::236::presetup_mptcp: " + std::to_string(result));
    EXPECT_EQ(presetup_mptcp(), result);
    EXPECT_EQ(log_texts(), expected);
    EXPECT_EQ(value_of(kIpv4 + "ip_local_reserved_ports"), "58080");
}

TEST(PresetupMptcp, ChoosesBbr) {
    if (read_file(kIpv4 + "tcp_available_congestion_control").find("bbr") == std::string::npos)
        GTEST_SKIP() << "this kernel has no bbr";
    presetup_mptcp();
    EXPECT_EQ(value_of(kIpv4 + "tcp_congestion_control"), "bbr");
}

TEST(PresetupMptcp, ReturnsZeroOnAKernelThatHasEveryValue) {
    const Replaced net("/proc/sys/net");
    for (const auto& [path, value] : tcp_map) write_file(path, "old");
    EXPECT_EQ(presetup_mptcp(), 0);
    for (const auto& [path, value] : tcp_map) EXPECT_EQ(value_of(path), value) << path;
}

// ---- modules and ifb devices

TEST(ModuleProbing, LoadsSevenIfbDevicesAndBringsThemUp) {
    Recorder modprobe("/sbin/modprobe");
    Recorder ifconfig("/sbin/ifconfig");
    ip_batch({"link add myifb1x type veth peer name peer0"});
    module_probing();
    EXPECT_THAT(Recorders::commands(),
                ElementsAre("/sbin/modprobe ifb numifbs=7", "/sbin/ifconfig myifb1x up"));
    EXPECT_THAT(log_texts(),
                ElementsAre("[DEBUG] Enter presetup.cpp::97::module_probing",
                            "[DEBUG] Enter presetup.cpp::75::ifb_up", "[DEBUG] found IFB: myifb1x",
                            "[DEBUG] Exit presetup.cpp::91::ifb_up: 0",
                            "[DEBUG] Exit presetup.cpp::111::module_probing: 0"));
}

TEST(ModuleProbing, FailingToolsAreLoggedAndChangeNothingElse) {
    Recorder modprobe("/sbin/modprobe");
    Recorder ifconfig("/sbin/ifconfig");
    modprobe.exits(1);
    ifconfig.exits(1);
    ip_batch({"link add ifb0 type veth peer name peer0"});
    module_probing();
    EXPECT_THAT(log_texts(), ElementsAre("[DEBUG] Enter presetup.cpp::97::module_probing",
                                         "[ERROR] /sbin/modprobe ifb numifbs=7 failed.",
                                         "[DEBUG] Enter presetup.cpp::75::ifb_up", "[DEBUG] found IFB: ifb0",
                                         "[ERROR] /sbin/ifconfig ifb0 up failed.",
                                         "[DEBUG] Exit presetup.cpp::91::ifb_up: 0",
                                         "[DEBUG] Exit presetup.cpp::111::module_probing: 0"));
}

TEST(ModuleProbing, ToolThatIsMissingCountsAsFailed) {
    const Replaced tools("/sbin");
    const Replaced classes("/sys/class/net");
    std::filesystem::create_directory("/sys/class/net/ifb0");
    module_probing();
    const auto texts = log_texts();
    EXPECT_THAT(texts, Contains("[ERROR] /sbin/modprobe ifb numifbs=7 failed."));
    EXPECT_THAT(texts, Contains("[ERROR] /sbin/ifconfig ifb0 up failed."));
}

TEST(ModuleProbing, ListingThatFailsIsSilent) {
    Recorder modprobe("/sbin/modprobe");
    const Replaced classes("/sys/class");
    module_probing();
    EXPECT_EQ(log_texts().size(), 4U);
    EXPECT_THAT(log_texts(), Contains("[DEBUG] Exit presetup.cpp::91::ifb_up: 0"));
}

TEST(ModuleProbing, NameThatAShellWouldReadReachesTheToolWhole) {
    Recorder modprobe("/sbin/modprobe");
    Recorder ifconfig("/sbin/ifconfig");
    const Replaced classes("/sys/class/net");
    std::filesystem::create_directory("/sys/class/net/ifb0;id>x");
    module_probing();
    ASSERT_EQ(ifconfig.calls().size(), 1U);
    EXPECT_THAT(ifconfig.calls()[0].argv, ElementsAre("/sbin/ifconfig", "ifb0;id>x", "up"));
}

TEST(ModuleProbing, RealToolBringsARealIfbUp) {
    REQUIRE_KERNEL_FEATURE("ifb");
    Recorder modprobe("/sbin/modprobe");
    if (!std::filesystem::exists("/sbin/ifconfig")) GTEST_SKIP() << "this machine has no ifconfig";
    ip_batch({"link add ifb3 type ifb"});
    module_probing();
    EXPECT_THAT(ip_json("link show dev ifb3")[0]["flags"].toStyledString(), testing::HasSubstr("\"UP\""));
}

// ---- all of them

TEST(Presetup, EveryEntryPointRecreatesADeletedLogFirst) {
    Recorder modprobe("/sbin/modprobe");
    told_processors = 1;
    for (const auto& run : std::vector<std::function<void()>>{
             [] { module_probing(); }, [] { presetup_ipv4(); }, [] { presetup_ipv6(); },
             [] { presetup_mptcp(); }, [] { presetup_rps_xps(); }}) {
        std::filesystem::remove(kLogFile);
        run();
        ASSERT_FALSE(log_texts().empty());
        EXPECT_EQ(log_texts().front(), std::string("[DEBUG] Reopen setup_logger to ") + kLogFile);
        EXPECT_THAT(log_texts()[1], testing::HasSubstr("Enter presetup.cpp::"));
    }
    told_processors = 0;
}

TEST(Presetup, MayBeRepeatedAndLeavesNothingBehind) {
    Recorder modprobe("/sbin/modprobe");
    add_veth("eth9", "peer9");
    presetup_ipv4();
    presetup_ipv6();
    presetup_mptcp();
    const LeakCheck leaks;
    for (int i = 0; i < 3; ++i) {
        module_probing();
        presetup_ipv4();
        presetup_ipv6();
        presetup_mptcp();
        presetup_rps_xps();
    }
}

}  // namespace
}  // namespace corvo::test
