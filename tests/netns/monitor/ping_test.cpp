// The probe of point-to-point links: its one report, its farewell, its echo exchange.

#include "corvosetup/ping.h"

#include <gmock/gmock.h>
#include <netinet/in.h>
#include <netinet/ip_icmp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>

#include "corvosetup/log.h"

#include "foundation/fd.h"
#include "support/recorder.h"
#include "wan.h"

namespace corvo::test {
namespace {

using namespace std::chrono_literals;
using testing::Contains;
using testing::ElementsAre;
using testing::IsSupersetOf;
using testing::MatchesRegex;
using Clock = std::chrono::steady_clock;

class PingLink : public MonitorTest {
protected:
    PingLink() {
        // The gateway answers from a namespace of its own.
        add_veth("ppp-eth5", far_, "far0", {.address = "192.0.5.2/24", .peer_address = "192.0.5.1/24"});
        wait_for_carrier("ppp-eth5");
        make_condition("PORT5", "0");
    }

    std::unique_ptr<ProcPing> probe(bool is_wan = true, const std::string& target = "192.0.5.1") {
        return std::make_unique<ProcPing>("ppp-eth5", target, 1000, is_wan, 5);
    }
    // Starts it and waits until its report is saved.
    void start(ProcPing& probe) {
        services->forget();
        clear_log();
        ASSERT_EQ(probe.start(), 0);
        ASSERT_TRUE(wait_until([&] { return !probe.get_state().isNull(); }));
    }

    Netns far_{"far"};
};

TEST_F(PingLink, ReportsConnectedOnceAndTheWorkerEnds) {
    const ShortPeriods shorter(5ms);
    auto link = probe();
    const int threads = Held::now().threads;
    start(*link);
    EXPECT_TRUE(wait_until([&] { return Held::now().threads == threads; })) << "the worker has ended";
    EXPECT_THAT(
        texts(),
        ElementsAre(MatchesRegex("\\[DEBUG\\] PING Test: ppp-eth5 <[0-9]+>, @[0-9]+"),
                    "[WARNING] status changed: 0 to 0",
                    "[DEBUG] Add gateway: 192.0.5.1, dev: ppp-eth5, bandwidth: 1000",
                    "[DEBUG] Flush default route table: 253, metric: 100", "[DEBUG] GCD: 1000",
                    "[DEBUG] DEV [ppp-eth5], GW [192.0.5.1], WEIGHT [1].", "[DEBUG] Update condition:  1"));
    EXPECT_THAT(services->texts(), ElementsAre("pluvd.exec {\"flag\": \"4\"}",
                                               "nm-halor.UpdateWanNexthopStatus {\"id\":5,\"stat\":0}"));
    EXPECT_EQ(condition("PORT5"), "1");
    EXPECT_THAT(default_gateways(), ElementsAre("192.0.5.1"));
    const Json::Value report = link->get_state()["ppp-eth5"];
    EXPECT_EQ(report["stat"], Json::Value(0));
    EXPECT_EQ(report["ip"], Json::Value("")) << "no cycle looks it up";
    EXPECT_EQ(report["id"], Json::Value(5u));
    link->stop();
}

TEST_F(PingLink, StaysStartedAfterItsWorkerHasEnded) {
    const ShortPeriods shorter(5ms);
    auto link = probe();
    start(*link);
    EXPECT_EQ(link->start(), -3026);
    EXPECT_EQ(count_log("[ERROR] ppp-eth5's ping thread task has been started already."), 1);
    link->stop();
    services->forget();
    EXPECT_EQ(link->start(), 0) << "after a stop";
    link->stop();
    EXPECT_EQ(services->count("pluvd.exec {\"flag\": \"4\"}"), 0) << "it has said so already";
}

TEST_F(PingLink, StopReportsDownWhateverKindOfLinkItIs) {
    Wan other(2);
    for (const bool is_wan : {true, false}) {
        auto link = probe(is_wan);
        add_default_gateway("ppp-eth5", "192.0.5.1", 1000);
        add_default_gateway(other.dev, other.gateway, 1000);
        write_file("/proc/net/nf_condition/PORT5", "1");
        services->forget();
        EXPECT_EQ(link->stop(), 0);
        EXPECT_EQ(condition("PORT5"), "0");
        EXPECT_THAT(default_gateways(), ElementsAre("192.0.2.1"));
        std::vector<std::string> targets;
        for (const auto& call : services->calls()) targets.push_back(call.target);
        EXPECT_THAT(targets, ElementsAre("TarnService.Get_available_wan_info",
                                         is_wan ? "nm-halor.UpdateWanNexthopStatus"
                                                : "nm-halor.Update_private_nexthop_status"));
    }
}

TEST_F(PingLink, StopLogsItsFailures) {
    auto link = probe();
    add_default_gateway("ppp-eth5", "192.0.5.1", 1000);
    services->fail("TarnService.Get_available_wan_info", -1);
    clear_log();
    link->stop();
    EXPECT_THAT(texts(), IsSupersetOf({"[ERROR] Flush mptcp default route failed, dev: ppp-eth5",
                                       "[ERROR] Delete default gateway failed, dev: ppp-eth5"}));
}

TEST_F(PingLink, LinkThatIsNoWanTouchesNoGateway) {
    const ShortPeriods shorter(5ms);
    auto link = probe(false);
    start(*link);
    EXPECT_THAT(texts(), Contains("[DEBUG] Skip default gateway setup ..."));
    EXPECT_THAT(services->texts(),
                ElementsAre("nm-halor.Update_private_nexthop_status {\"portname\":\"PORT5\",\"stat\":0}"));
    EXPECT_THAT(default_gateways(), ElementsAre());
    link->stop();
}

TEST_F(PingLink, LocalManagementKeepsTheConditionUntilStop) {
    const ShortPeriods shorter(5ms);
    services->set_local_mgmt(true);
    write_file("/proc/net/nf_condition/PORT5", "7");
    auto link = probe();
    start(*link);
    EXPECT_EQ(condition("PORT5"), "7");
    link->stop();
    EXPECT_EQ(condition("PORT5"), "0");
}

TEST_F(PingLink, OnlyAFailingConditionMakesItReportAgain) {
    const ShortPeriods shorter(20ms);
    ::unlink("/proc/net/nf_condition/PORT5");
    ASSERT_EQ(::mkdir("/proc/net/nf_condition/PORT5", 0700), 0);
    services->fail("nm-halor.UpdateWanNexthopStatus", -9);
    auto link = probe();
    services->forget();
    clear_log();
    ASSERT_EQ(link->start(), 0);
    ASSERT_TRUE(wait_until([&] { return services->count("pluvd.exec {\"flag\": \"4\"}") >= 3; }));
    EXPECT_TRUE(link->get_state().isNull());
    EXPECT_GE(count_log("[ERROR] local_mgmt enabled: 0 , is fail?:  0"), 2);
    ::rmdir("/proc/net/nf_condition/PORT5");
    ASSERT_TRUE(wait_until([&] { return !link->get_state().isNull(); }));
    EXPECT_EQ(condition("PORT5"), "1");
    const int reports = services->count("pluvd.exec {\"flag\": \"4\"}");
    EXPECT_EQ(services->count("nm-halor.UpdateWanNexthopStatus {\"id\":5,\"stat\":0}"), 3 * reports);
    link->stop();
}

TEST_F(PingLink, StopEndsTheThreeSecondSleepAtOnce) {
    ::unlink("/proc/net/nf_condition/PORT5");
    ASSERT_EQ(::mkdir("/proc/net/nf_condition/PORT5", 0700), 0);
    auto link = probe();
    ASSERT_EQ(link->start(), 0);
    ASSERT_TRUE(wait_for_log("[ERROR] local_mgmt enabled: 0 , is fail?:  0"));
    const auto begin = Clock::now();
    link->stop();
    EXPECT_LT(Clock::now() - begin, 500ms);
    ::rmdir("/proc/net/nf_condition/PORT5");
}

TEST_F(PingLink, ReloadWritesTheLastReportedStatus) {
    auto link = probe();
    EXPECT_EQ(link->reload_condition(), 0);
    EXPECT_EQ(condition("PORT5"), "1") << "0 counts as connected before the first report too";
    EXPECT_EQ(link->update_condition(1), 0);
    EXPECT_EQ(condition("PORT5"), "0");
}

TEST_F(PingLink, BandwidthIsResetUnconditionally) {
    auto link = probe(false);
    clear_log();
    EXPECT_EQ(link->reset_bandwidth(70), 0);
    EXPECT_THAT(texts(), Contains("[DEBUG] Add gateway: 192.0.5.1, dev: ppp-eth5, bandwidth: 70"));
    EXPECT_EQ(link->reset_bandwidth(0), -3004);
    EXPECT_THAT(texts(), IsSupersetOf({"[ERROR] Delete default gateway failed, dev: ppp-eth5",
                                       "[ERROR] Add default gateway failed, dev: ppp-eth5"}));
}

TEST_F(PingLink, DestructorEndsTheThreadAndReportsNothing) {
    LeakCheck leaks;
    auto link = probe();
    start(*link);
    services->forget();
    clear_log();
    link.reset();
    EXPECT_THAT(log_texts(), ElementsAre());
    EXPECT_EQ(services->calls().size(), 0u);
    EXPECT_EQ(condition("PORT5"), "1");
}

TEST_F(PingLink, InterfacesThatCannotBeListedFailThePreparation) {
    auto link = probe();
    clear_log();
    {
        const NoDescriptors none;
        EXPECT_EQ(link->prepare(), -3001);
    }
    EXPECT_EQ(count_log("[ERROR] ppp-eth5 get ifaddrs failed."), 1);
    EXPECT_EQ(link->prepare(), 0);
    EXPECT_EQ(count_log("[ERROR] ppp-eth5 get ifaddrs failed."), 1);
}

TEST_F(PingLink, GatewayAnswersAnEcho) {
    probe()->ping();  // the process's one descriptor for taking turns stays
    LeakCheck leaks;
    EXPECT_EQ(probe()->ping(), 0);
}

TEST_F(PingLink, SilentGatewayTimesOutAfterTwoSeconds) {
    probe()->ping();
    LeakCheck leaks;
    auto link = probe(true, "192.0.5.77");
    const auto begin = Clock::now();
    EXPECT_EQ(link->ping(), -3001);
    EXPECT_GE(Clock::now() - begin, 1900ms);
    EXPECT_LT(Clock::now() - begin, 3500ms);
}

TEST_F(PingLink, EchoIsTracedWithTheDebugLevelOnly) {
    auto link = probe();
    clear_log();
    verbose = 1;
    link->ping();
    EXPECT_THAT(log_texts(), ElementsAre());
    verbose = 0;
    link->setup_dbg(1);
    link->ping();
    EXPECT_THAT(log_texts(), ElementsAre(MatchesRegex("\\[DEBUG\\] Enter ping.cpp::[0-9]+::ping"),
                                         MatchesRegex("\\[DEBUG\\] Exit ping.cpp::[0-9]+::ping: 0")));
}

TEST_F(PingLink, EchoNeedsTheDevice) {
    ProcPing gone("ppp-none", "192.0.5.1", 1, true, 5);
    clear_log();
    EXPECT_EQ(gone.ping(), -3008);
    EXPECT_THAT(log_texts(), ElementsAre("[ERROR] bind device failed."));
}

// What arrives at the gateway of the echo that the child sends.
std::string packet_of(int fd) {
    pollfd wait{fd, POLLIN, 0};
    char bytes[256];
    if (::poll(&wait, 1, 5000) != 1) return {};
    const auto got = ::recv(fd, bytes, sizeof bytes, 0);
    return got > 0 ? std::string(bytes, static_cast<std::size_t>(got)) : std::string();
}

TEST_F(PingLink, ProcessIdAbove65535IsCutInTheRequestAndNeverMatches) {
    UniqueFd gateway;
    far_.run([&] { gateway.reset(::socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_ICMP)); });
    ASSERT_TRUE(gateway);
    write_file("/proc/sys/kernel/ns_last_pid", "70000");
    const pid_t child = ::fork();
    if (child == 0) {
        ProcPing link("ppp-eth5", "192.0.5.1", 1000, true, 5);
        ::_exit(::getpid() > 65535 && link.ping() == -3001 ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    ASSERT_GT(child, 65535);
    const std::string packet = packet_of(gateway.get());
    ASSERT_EQ(packet.size(), 20u + 64u);
    EXPECT_EQ(packet[20], ICMP_ECHO);
    std::uint16_t identifier = 0, sequence = 0;
    std::memcpy(&identifier, &packet[24], 2);
    std::memcpy(&sequence, &packet[26], 2);
    EXPECT_EQ(identifier, child & 0xffff);
    EXPECT_EQ(sequence, 12345) << "both in host byte order";
    EXPECT_EQ(packet.substr(28), std::string(56, '\0'));
}

}  // namespace
}  // namespace corvo::test
