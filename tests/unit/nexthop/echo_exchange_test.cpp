// One echo exchange, call by call.
#include <cerrno>
#include <cstring>

#include "corvosetup/ping_test.h"
#include "foundation/worker.h"
#include "nexthop/icmp_echo.h"
#include "probe_fixture.h"
#include "support/failing_new.h"

namespace corvo::test {
namespace {

class EchoExchange : public ProbeTest {
protected:
    EchoExchange() { kernel.process = 4711; }

    int exchange(const std::string& target = "192.0.2.1", const std::string& device = "",
                 const EchoStyle& style = kHubTestEcho) {
        return exchange_echo(target, device, style);
    }
};

TEST_F(EchoExchange, OfAHubTestMarksBeforeItBinds) {
    kernel.peers["192.0.2.1"] = echo_peer();
    EXPECT_EQ(exchange("192.0.2.1", "swdev2"), 0);
    EXPECT_THAT(kernel.calls(),
                ElementsAre("socket 2 3 1", "SO_MARK 960", "SO_BINDTODEVICE swdev2", "sendto 192.0.2.1:0"));
    EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(EchoExchange, OfALinkProbeBindsBeforeItMarks) {
    kernel.peers["192.0.2.1"] = echo_peer();
    EXPECT_EQ(exchange("192.0.2.1", "ppp0", kLinkProbeEcho), 0);
    EXPECT_THAT(kernel.calls(),
                ElementsAre("socket 2 3 1", "SO_BINDTODEVICE ppp0", "SO_MARK 960", "sendto 192.0.2.1:0"));
}

TEST_F(EchoExchange, WithoutADeviceIsRoutedByItsMarkAlone) {
    kernel.peers["192.0.2.1"] = echo_peer();
    EXPECT_EQ(exchange(), 0);
    EXPECT_EQ(kernel.count("SO_BINDTODEVICE"), 0U);
}

TEST_F(EchoExchange, SendsTheRequestOnce) {
    exchange();
    const auto sent = kernel.sent();
    ASSERT_EQ(sent.size(), 1U);
    const auto request = build_echo_request(4711);
    EXPECT_EQ(sent[0], std::string(reinterpret_cast<const char*>(request.data()), request.size()));
}

TEST_F(EchoExchange, UnknownHostHasACodeForEachCaller) {
    EXPECT_EQ(exchange("no.such.host", "", kHubTestEcho), -3001);
    EXPECT_EQ(exchange("no.such.host", "", kLinkProbeEcho), -3007);
    EXPECT_EQ(exchange("", "", kHubTestEcho), -3001);
    EXPECT_THAT(lines(), ElementsAre("[ERROR] unknown host no.such.host", "[ERROR] unknown host no.such.host",
                                     "[ERROR] unknown host "));
    EXPECT_THAT(kernel.calls(), IsEmpty());
}

TEST_F(EchoExchange, ResolvesNames) {
    kernel.names["hub.example"] = "192.0.2.1";
    kernel.names["long.example"] = "large";
    kernel.peers["192.0.2.1"] = echo_peer();
    EXPECT_EQ(exchange("hub.example"), 0);
    EXPECT_EQ(exchange("long.example"), 0);
}

TEST_F(EchoExchange, NoMemory) {
    const std::string target = "192.0.2.1", device = "ppp0";
    {
        // The reply's buffer is the first thing an exchange with a dotted address asks memory for.
        const FailingNew failing(0, FailingNew::Then::kRecovers);
        EXPECT_EQ(exchange_echo(target, device, kLinkProbeEcho), -3010);
    }
    EXPECT_THAT(lines(), ElementsAre("[ERROR] malloc error."));
    EXPECT_EQ(kernel.count("socket"), 0U);
}

TEST_F(EchoExchange, NoSocket) {
    kernel.fail("socket", EPERM);
    EXPECT_EQ(exchange(), -3008);
    EXPECT_THAT(lines(), ElementsAre("[ERROR] create socket failed."));
}

TEST_F(EchoExchange, MarkRefused) {
    kernel.fail("SO_MARK", EPERM);
    EXPECT_EQ(exchange("192.0.2.1", "swdev2"), -3008);
    EXPECT_EQ(exchange("192.0.2.1", "ppp0", kLinkProbeEcho), -3008);
    EXPECT_THAT(lines(), ElementsAre("[ERROR] Set socket opt [SO_MARK] failed!",
                                     "[ERROR] Set socket opt [SO_MARK] failed!"));
    EXPECT_EQ(kernel.count("sendto"), 0U);
}

TEST_F(EchoExchange, DeviceThatCannotBeBoundHasCodeAndTextForEachCaller) {
    kernel.fail("SO_BINDTODEVICE", ENODEV);
    EXPECT_EQ(exchange("192.0.2.1", "swdev2"), -3005);
    EXPECT_EQ(exchange("192.0.2.1", "ppp0", kLinkProbeEcho), -3008);
    EXPECT_THAT(lines(), ElementsAre("[ERROR] Bind device: swdev2 failed!", "[ERROR] bind device failed."));
    EXPECT_EQ(kernel.count("sendto"), 0U);
}

TEST_F(EchoExchange, DeviceNameThatTheKernelWouldCutIsRefused) {
    EXPECT_EQ(exchange("192.0.2.1", "swdev-2147483648"), -3005);
    EXPECT_THAT(lines(), ElementsAre("[ERROR] Bind device: swdev-2147483648 failed!"));
    EXPECT_EQ(kernel.count("SO_BINDTODEVICE"), 0U);
}

TEST_F(EchoExchange, SendFails) {
    kernel.fail("sendto", ENETUNREACH);
    EXPECT_EQ(exchange(), -3012);
    EXPECT_THAT(lines(), ElementsAre("[ERROR] sendto failed."));
}

TEST_F(EchoExchange, WaitFails) {
    kernel.peers["192.0.2.1"] = [&](const std::string&) -> std::vector<FakeReply> {
        kernel.fail("poll", ENOMEM);
        return {};
    };
    EXPECT_EQ(exchange(), -3001);
    EXPECT_THAT(lines(), ElementsAre("[ERROR] select() error."));
}

TEST_F(EchoExchange, InterruptedWaitGoesOn) {
    kernel.peers["192.0.2.1"] = [&](const std::string& packet) {
        kernel.fail("poll", EINTR, 3);
        return echo_peer(60ms)(packet);
    };
    EXPECT_EQ(exchange(), 0);
    EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(EchoExchange, ReceiveFails) {
    kernel.peers["192.0.2.1"] = echo_peer();
    kernel.fail("recvfrom", EIO);
    EXPECT_EQ(exchange(), -3013);
    EXPECT_THAT(lines(), ElementsAre("[ERROR] recvfrom failed."));
}

TEST_F(EchoExchange, ShortPacketTellsItsLengthAndSender) {
    kernel.peers["192.0.2.1"] = [](const std::string&) -> std::vector<FakeReply> {
        return {{std::string(27, 'x'), 0ms, "198.51.100.7"}};
    };
    EXPECT_EQ(exchange(), -3013);
    EXPECT_THAT(lines(), ElementsAre("[ERROR] packet too short (27 bytes) from 198.51.100.7"));
}

TEST_F(EchoExchange, SilenceTakesTwoSecondsAndNoLine) {
    const Stopwatch watch;
    EXPECT_EQ(exchange(), -3001);
    EXPECT_GE(watch.elapsed(), 2000ms);
    EXPECT_LT(watch.elapsed(), 2500ms);
    EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(EchoExchange, RepliesToOthersAreWaitedOut) {
    kernel.peers["192.0.2.1"] = [](const std::string& packet) {
        auto replies = echo_peer()(packet);
        auto other = replies[0];
        other.bytes[24] = static_cast<char>(other.bytes[24] + 1);
        auto late = replies[0];
        late.after = 100ms;
        return std::vector<FakeReply>{other, other, late};
    };
    EXPECT_EQ(exchange(), 0);
    EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(EchoExchange, PacketsOfOthersDoNotProlongTheWait) {
    kernel.peers["192.0.2.1"] = [](const std::string& packet) {
        std::vector<FakeReply> replies;
        for (int n = 1; n < 30; ++n) {
            auto reply = echo_peer(std::chrono::milliseconds(n * 100))(packet)[0];
            reply.bytes[24] = static_cast<char>(reply.bytes[24] + 1);
            replies.push_back(reply);
        }
        return replies;
    };
    const Stopwatch watch;
    EXPECT_EQ(exchange_echo("192.0.2.1", "", kHubTestEcho), -3001);
    EXPECT_GE(watch.elapsed(), 2000ms);
    EXPECT_LT(watch.elapsed(), 2500ms);
}

TEST_F(EchoExchange, ProcessIdAbove65535NeverMatches) {
    kernel.process = 70000;
    kernel.peers["192.0.2.1"] = echo_peer();
    EXPECT_EQ(exchange(), -3001);
}

TEST_F(EchoExchange, RunsOneAtATime) {
    std::atomic<int> under_way{0};
    std::atomic<int> most{0};
    kernel.peers["192.0.2.1"] = [&](const std::string& packet) {
        most = std::max<int>(most, static_cast<int>(kernel.count("socket")) - under_way);
        ++under_way;
        return echo_peer(20ms)(packet);
    };
    std::vector<std::thread> threads;
    std::atomic<int> good{0};
    for (int n = 0; n < 4; ++n)
        threads.emplace_back([&] { good += exchange_echo("192.0.2.1", "", kHubTestEcho) == 0 ? 1 : 0; });
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(good, 4);
    EXPECT_EQ(most, 1);  // no second socket was open when a request went out
}

// Runs `body` on a Worker, stops it when `ready` holds, and gives how long the stop took.
std::chrono::milliseconds time_to_stop(const std::function<void()>& body,
                                       const std::function<bool()>& ready) {
    std::thread* slot = Worker::start(body);
    EXPECT_TRUE(wait_until(ready));
    const Stopwatch watch;
    Worker::stop(slot);
    return watch.elapsed();
}

TEST_F(EchoExchange, StopEndsTheWaitForAReply) {
    int code = 0;
    EXPECT_LT(time_to_stop([&] { code = exchange_echo("192.0.2.1", "", kHubTestEcho); },
                           [&] { return kernel.count("sendto") == 1; }),
              50ms);
    EXPECT_EQ(code, -3001);
    EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(EchoExchange, StopEndsTheWaitForTheTurn) {
    std::thread first([] { exchange_echo("192.0.2.1", "", kHubTestEcho); });
    ASSERT_TRUE(wait_until([&] { return kernel.count("sendto") == 1; }));
    std::atomic<bool> begun{false};
    EXPECT_LT(time_to_stop(
                  [&] {
                      begun = true;
                      exchange_echo("192.0.2.2", "", kHubTestEcho);
                  },
                  [&] { return begun.load(); }),
              50ms);
    EXPECT_EQ(kernel.count("socket"), 1U);
    first.join();
}

TEST_F(EchoExchange, StopEndsTheWaitForANameServer) {
    kernel.names["slow.example"] = "block";
    std::atomic<bool> begun{false};
    EXPECT_LT(time_to_stop(
                  [&] {
                      begun = true;
                      exchange_echo("slow.example", "", kHubTestEcho);
                  },
                  [&] { return begun.load(); }),
              50ms);
    EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(EchoExchange, OfTheHubTestIsAlwaysTraced) {
    kernel.peers["192.0.2.1"] = echo_peer();
    ProcPingTest test;
    std::string target = "192.0.2.1";
    EXPECT_EQ(test.ping(target, ""), 0);
    EXPECT_THAT(traces(), ElementsAre("[DEBUG] Enter ping_test.cpp::N::ping",
                                      "[DEBUG] Exit ping_test.cpp::N::ping: 0"));
}

}  // namespace
}  // namespace corvo::test
