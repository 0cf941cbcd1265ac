// The responder on a real kernel.
#include <gmock/gmock.h>

#include <atomic>
#include <thread>
#include <vector>

#include "foundation/command.h"
#include "responder_fixture.h"
#include "support/sanitized.h"

namespace corvo::test {
namespace {

using testing::Contains;

TEST_F(Responder, AnswersWithItsFigures) {
    let_figures_age();
    link();
    ProcUdp udp(dev);
    serve(udp);
    EXPECT_EQ(ask(request),
              "{\"Connections\":0,\"Cpu\":19.5,\"Memory\":25.0,\"Receiver\":5,\"RemoteWan\":2,\"Result\":0,"
              "\"Sender\":7}\n");
    EXPECT_THAT(log_texts(), Contains("[DEBUG] Receive request from [5]@192.0.2.2 to [7]@192.0.2.1"));
    EXPECT_THAT(log_texts(), Contains("[DEBUG] Wan number: 4, local Wan number: 2"));
    EXPECT_THAT(log_texts(), Contains("[DEBUG] Cpu: 19.5, Memory: 25, Connections: 0"));
    EXPECT_THAT(log_texts(), Contains(testing::MatchesRegex("\\[DEBUG\\] Udp Test: [0-9]+ <[0-9]+>, @")));
    EXPECT_EQ(udp.stop(), 0);
}

TEST_F(Responder, CountsInstalledTunnels) {
    let_figures_age();
    link();
    ipsec.prints("a INSTALLED\nb INSTALLED\nc\n");
    ProcUdp udp(dev);
    serve(udp);
    EXPECT_NE(ask(request).find("\"Connections\":2,"), std::string::npos);
}

TEST_F(Responder, DoesNotAnswerARequestWithoutIds) {
    link();
    ProcUdp udp(dev);
    serve(udp);
    send("{\"Sender\":0,\"Receiver\":7}");
    send("{\"Sender\":5}");
    send("{\"Sender\":\"x\",\"Receiver\":1e12}");
    EXPECT_NE(ask(request), "");
    EXPECT_EQ(receive(100ms), "");
    EXPECT_THAT(log_texts(), Contains("[WARNING] Missing SenderID: 0 or ReceiverId: 7"));
    EXPECT_THAT(log_texts(), Contains("[WARNING] Missing SenderID: 5 or ReceiverId: 0"));
    EXPECT_THAT(log_texts(), Contains("[WARNING] Missing SenderID: 0 or ReceiverId: 0"));
}

TEST_F(Responder, DoesNotAnswerARequestForAnotherDevice) {
    link();
    ProcUdp udp(dev);
    serve(udp);
    send("{\"Sender\":5,\"Receiver\":8}");
    EXPECT_NE(ask(request), "");
    EXPECT_EQ(receive(100ms), "");
    EXPECT_THAT(log_texts(), Contains("[WARNING] Mismatched device id[8 <-> 7] from 192.0.2.2:4000"));
}

TEST_F(Responder, DatagramsThatAreNoObjectsAreLoggedAndPassedOver) {
    link();
    ProcUdp udp(dev);
    serve(udp);
    for (const char* bytes : {"[]", "5", "", "{", "nonsense"}) send(bytes);
    EXPECT_NE(ask(request), "");
    EXPECT_EQ(count_log("[ERROR] Json parse failed !!!"), 5);
}

TEST_F(Responder, LongerDatagramsAreCutAt256Bytes) {
    link();
    ProcUdp udp(dev);
    serve(udp);
    send("{\"Sender\":5,\"Receiver\":7,\"Pad\":\"" + std::string(1000, 'x') + "\"}");
    send(request + std::string(1000, ' '));  // the part that counts is within
    EXPECT_NE(receive(), "");
    EXPECT_EQ(count_log("[ERROR] Json parse failed !!!"), 1);
}

TEST_F(Responder, IsBoundToTheAddressAndMarksItsPackets) {
    link();
    ProcUdp udp(dev);
    serve(udp);
    const auto sockets = must_run("ss -H -u -a -n -e sport = 7788");
    EXPECT_NE(sockets.find("192.0.2.1:7788"), std::string::npos) << sockets;  // no "%wan0" behind the address
    EXPECT_NE(sockets.find("fwmark:0x3c0"), std::string::npos) << sockets;
}

TEST_F(Responder, AnswersOnePerDatagram) {
    link();
    ProcUdp udp(dev);
    serve(udp);
    for (int n = 0; n < 5; ++n) send(request);
    for (int n = 0; n < 5; ++n) EXPECT_NE(receive(), "") << n;
    EXPECT_EQ(receive(100ms), "");
}

TEST_F(Responder, ReadsItsDeviceIdOnce) {
    link();
    device_id = 0;
    ProcUdp udp(dev);
    serve(udp);
    device_id = 7;
    send(request);
    EXPECT_TRUE(wait_for_log("[WARNING] Mismatched device id[7 <-> 0] from 192.0.2.2:4000"));
    udp.stop();
    serve(udp);
    EXPECT_NE(ask(request), "");
}

TEST_F(Responder, SecondStartIsRefusedUntilStop) {
    link();
    ProcUdp udp(dev);
    serve(udp);
    EXPECT_EQ(udp.start(), -3026);
    EXPECT_EQ(udp.stop(), 0);
    EXPECT_FALSE(port_is_taken());
    EXPECT_EQ(udp.stop(), 0);
    serve(udp);
}

TEST_F(Responder, StopEndsABlockedReceiveAtOnce) {
    link();
    ProcUdp udp(dev);
    serve(udp);
    const auto begin = steady_clock::now();
    EXPECT_EQ(udp.stop(), 0);
    EXPECT_LT(since(begin), 50ms);
}

TEST_F(Responder, StopThatOvertakesTheThreadHolds) {
    link();
    LeakCheck leaks;
    ProcUdp udp(dev);
    for (int n = 0; n < 100; ++n) {
        ASSERT_EQ(udp.start(), 0);
        ASSERT_EQ(udp.stop(), 0);
    }
    EXPECT_FALSE(port_is_taken());
}

TEST_F(Responder, StartedAndStoppedFromFourThreads) {
    link();
    LeakCheck leaks;
    ProcUdp udp(dev);
    std::vector<std::thread> threads;
    for (int n = 0; n < 4; ++n)
        threads.emplace_back([&udp, n] {
            for (int round = 0; round < 50; ++round) (round + n) % 2 == 0 ? udp.start() : udp.stop();
        });
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(udp.stop(), 0);
}

TEST_F(Responder, WaitsForAnAddressInStepsOfThreeSeconds) {
    link(false);
    ProcUdp udp(dev);
    ASSERT_EQ(udp.start(), 0);
    ASSERT_TRUE(wait_until([&] { return count_log("[DEBUG] Get device ID: 7") == 1; }));
    must_run("ip addr add 192.0.2.1/24 dev wan0");
    const auto begin = steady_clock::now();
    ASSERT_TRUE(wait_until([] { return port_is_taken(); }));
    EXPECT_LT(since(begin), 3500ms);
    EXPECT_NE(ask(request), "");
}

TEST_F(Responder, StopEndsTheWaitForAnAddressAtOnce) {
    link(false);
    ProcUdp udp(dev);
    ASSERT_EQ(udp.start(), 0);
    ASSERT_TRUE(wait_until([&] { return count_log("[DEBUG] Get device ID: 7") == 1; }));
    const auto begin = steady_clock::now();
    EXPECT_EQ(udp.stop(), 0);
    EXPECT_LT(since(begin), 50ms);
}

TEST_F(Responder, PrepareNeedsAnAddressAndADeviceThatIsUpAndRunning) {
    link(false);
    ProcUdp udp(dev);
    EXPECT_EQ(udp.prepare(), -1);  // only IPv6 addresses, if any
    must_run("ip addr add 192.0.2.1/24 dev wan0");
    EXPECT_EQ(udp.prepare(), 0);
    peer.ip({"link set eth0 down"});
    ASSERT_TRUE(wait_until([] { return read_file("/sys/class/net/wan0/carrier")[0] == '0'; }));
    EXPECT_EQ(udp.prepare(), -1);  // up, not running
    must_run("ip link set wan0 down");
    EXPECT_EQ(udp.prepare(), -1);
    std::string missing = "nodev0";
    EXPECT_EQ(ProcUdp(missing).prepare(), -1);
}

TEST_F(Responder, TakesTheFirstAddressOfTheDevice) {
    link();
    must_run("ip addr add 192.0.2.77/24 dev wan0");
    ProcUdp udp(dev);
    serve(udp);
    EXPECT_NE(ask(request), "");
}

TEST_F(Responder, ListeningWithoutAnAddressIsRefused) {
    ProcUdp udp(dev);
    udp.udp_listen();
    EXPECT_THAT(log_texts(), Contains("[ERROR] Can't get ip for device: wan0"));
}

TEST_F(Responder, EndsWhenThePortIsTakenAndDoesNotStartAgainByItself) {
    link();
    UniqueFd holder(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_in any{};
    any.sin_family = AF_INET;
    any.sin_port = htons(7788);
    ASSERT_EQ(bind(holder.get(), reinterpret_cast<sockaddr*>(&any), sizeof any), 0);
    ProcUdp udp(dev);
    ASSERT_EQ(udp.start(), 0);
    ASSERT_TRUE(wait_for_log("[ERROR] Server socket bind failed."));
    holder.reset();
    EXPECT_EQ(udp.start(), -3026);  // ended, and kept until the stop
    EXPECT_FALSE(port_is_taken());
    EXPECT_EQ(udp.stop(), 0);
    serve(udp);
}

// Until its exec a child has the descriptors of its parent, the socket of a responder that is stopped in that
// moment, too.
TEST_F(Responder, BeginsAgainWhileChildrenAreStarted) {
    link();
    std::atomic<bool> enough{false};
    std::vector<std::thread> others;
    for (int i = 0; i < 3; ++i)
        others.emplace_back([&] {
            while (!enough) run_command_quiet({"/bin/true"});
        });
    ProcUdp udp(dev);
    const int kRounds = kSanitized ? 40 : 200;
    int rounds = 0;
    const auto refused = [] { return count_log("[ERROR] Server socket bind failed.") > 0; };
    while (rounds < kRounds && !refused() && udp.start() == 0) {
        wait_until([&] { return port_is_taken() || refused(); });
        if (udp.stop() == 0) ++rounds;
    }
    EXPECT_EQ(rounds, kRounds);
    EXPECT_FALSE(refused());
    enough = true;
    for (auto& other : others) other.join();
    serve(udp);
}

TEST_F(Responder, TracesItsSteps) {
    ProcUdp udp(dev);
    udp.prepare();
    udp.stop();
    const auto texts = log_texts();
    EXPECT_THAT(texts, Contains(testing::MatchesRegex("\\[DEBUG\\] Enter udp.cpp::[0-9]+::prepare")));
    EXPECT_THAT(texts, Contains(testing::MatchesRegex("\\[DEBUG\\] Exit udp.cpp::[0-9]+::prepare: -1")));
    EXPECT_THAT(texts, Contains(testing::MatchesRegex("\\[DEBUG\\] Exit udp.cpp::[0-9]+::stop: 0")));
}

TEST_F(Responder, GoesOnWhenItsDeviceGoesDownAndReturns) {
    link();
    ProcUdp udp(dev);
    serve(udp);
    must_run("ip link set wan0 down");
    must_run("ip link set wan0 up");
    ASSERT_TRUE(wait_for_carrier("wan0"));
    EXPECT_TRUE(wait_until([&] {
        send(request);
        return receive(200ms) != "";
    }));
}

TEST_F(Responder, DestructorEndsTheThread) {
    link();
    LeakCheck leaks;
    {
        ProcUdp udp(dev);
        serve(udp);
    }
    EXPECT_FALSE(port_is_taken());
}

}  // namespace
}  // namespace corvo::test
