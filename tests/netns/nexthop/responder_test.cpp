// The responder on a real kernel.
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>

#include <chrono>
#include <random>

#include "corvosetup/udp.h"
#include "foundation/json.h"
#include "hub_peers.h"
#include "support/recorder.h"
#include "vx_serve.h"

namespace corvo::test {
namespace {

using namespace std::chrono_literals;
using std::chrono::steady_clock;
using testing::Contains;
using testing::ElementsAre;
using testing::Not;

std::chrono::milliseconds since(steady_clock::time_point begin) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(steady_clock::now() - begin);
}

// Device 7 with the responder on wan0 (192.0.2.1) and a client in another namespace (192.0.2.2).
class Responder : public testing::Test {
protected:
    Responder()
        : services([this](vx::Server& server) {
              server.handle("vesta", "get_devid", [this](const vx::Call&) {
                  return vx::Reply::text("{\"error\":0,\"data\":" + std::to_string(device_id.load()) + "}");
              });
          }),
          peer("peer") {
        ipsec.prints("3\n");
        mpstat.prints("10:00:00 AM  all 1 0 0 0 0 0 0 0 80.50\n");
        free.prints("Mem: 1000 250 1\n");
        jq.prints("2\n");
    }

    void link(bool with_address = true) {
        add_veth("wan0", peer, "eth0",
                 {.address = with_address ? "192.0.2.1/24" : "", .peer_address = "192.0.2.2/24"});
        ASSERT_TRUE(wait_for_carrier("wan0"));
        peer.run([this] {
            client.reset(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
            sockaddr_in own{};
            own.sin_family = AF_INET;
            own.sin_port = htons(4000);
            ASSERT_EQ(bind(client.get(), reinterpret_cast<sockaddr*>(&own), sizeof own), 0);
            const int size = 4 << 20;
            setsockopt(client.get(), SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof size);
        });
    }

    void serve(ProcUdp& udp) {
        ASSERT_EQ(udp.start(), 0);
        ASSERT_TRUE(wait_until([] { return port_is_taken(); }));
    }

    void send(const std::string& bytes) {
        sockaddr_in to{};
        to.sin_family = AF_INET;
        to.sin_port = htons(7788);
        inet_pton(AF_INET, "192.0.2.1", &to.sin_addr);
        sendto(client.get(), bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof to);
    }

    // Figures that an earlier test of this process collected are not used again after this.
    static void let_figures_age() { std::this_thread::sleep_for(1050ms); }

    // The next answer; empty: none came in time.
    std::string receive(std::chrono::milliseconds limit = 5s) {
        pollfd wait{client.get(), POLLIN, 0};
        if (poll(&wait, 1, static_cast<int>(limit.count())) != 1) return {};
        char buffer[512];
        const auto got = recv(client.get(), buffer, sizeof buffer, 0);
        return got > 0 ? std::string(buffer, static_cast<std::size_t>(got)) : std::string();
    }

    std::string ask(const std::string& bytes) {
        send(bytes);
        return receive();
    }

    std::atomic<int> device_id{7};
    Recorder ipsec{"/sbin/ipsec"};
    Recorder mpstat{"/bin/mpstat"};
    Recorder free{"/bin/free"};
    Recorder jq{"/bin/jq"};
    vx::ServerThread services;
    Netns peer;
    UniqueFd client;
    std::string dev = "wan0";
    const std::string request = "{\"Sender\":5,\"Receiver\":7,\"Wan\":4}";
};

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

TEST_F(Responder, TracesItsSteps) {
    ProcUdp udp(dev);
    udp.prepare();
    udp.stop();
    const auto texts = log_texts();
    EXPECT_THAT(texts, Contains(testing::MatchesRegex("\\[DEBUG\\] Enter udp.cpp::[0-9]+::prepare")));
    EXPECT_THAT(texts, Contains(testing::MatchesRegex("\\[DEBUG\\] Exit udp.cpp::[0-9]+::prepare: -1")));
    EXPECT_THAT(texts, Contains(testing::MatchesRegex("\\[DEBUG\\] Exit udp.cpp::[0-9]+::stop: 0")));
}

TEST_F(Responder, SurvivesAStreamOfBadDatagrams) {
    const char* asked = std::getenv("CORVO_DATAGRAMS");
    const long count = asked != nullptr ? std::atol(asked) : 20'000;
    link();
    ProcUdp udp(dev);
    serve(udp);
    EXPECT_NE(ask(request), "");
    LeakCheck leaks;
    std::mt19937 random(11);
    const std::vector<std::string> odd = {"[]",
                                          "5",
                                          "{\"Sender\":\"x\"}",
                                          "{\"Receiver\":1e12}",
                                          "{\"Sender\":5,\"Receiver\":8}",
                                          request.substr(0, 20),
                                          std::string(256, '['),
                                          "{\"Pad\":\"" + std::string(600, 'x') + "\"}",
                                          "{\"Sender\":[],\"Receiver\":{}}"};
    for (long n = 0; n < count; ++n) {
        if (n % 3 == 0) {
            std::string bytes(random() % 400, '\0');
            for (auto& byte : bytes) byte = static_cast<char>(random());
            send(bytes);
        } else {
            send(odd[random() % odd.size()]);
        }
        if (n % 200 == 199) std::this_thread::sleep_for(2ms);
    }
    // The queue may still be full.
    EXPECT_TRUE(wait_until([&] {
        send(request);
        return receive(200ms) != "";
    }));
    EXPECT_GT(count_log("[ERROR] Json parse failed !!!"), 100);
}

TEST_F(Responder, KeepsUpWith1000RequestsPerSecondWithoutAPipelineForEach) {
    link();
    ProcUdp udp(dev);
    serve(udp);
    const int total = 3000;
    std::atomic<int> answers{0};
    std::thread reader([&] {
        while (answers < total && receive(3s) != "") ++answers;
    });
    const auto begin = steady_clock::now();
    for (int n = 0; n < total; ++n) {
        std::this_thread::sleep_until(begin + n * 1ms);
        send(request);
    }
    const auto took = since(begin);
    reader.join();
    EXPECT_EQ(answers, total);
    EXPECT_LT(took, 4500ms);
    const auto seconds = static_cast<std::size_t>(since(begin) / 1s);
    EXPECT_LE(mpstat.calls().size(), seconds + 2);
    EXPECT_LE(ipsec.calls().size(), seconds + 2);
    EXPECT_GE(mpstat.calls().size(), 2U);  // figures do get older
    std::cout << total << " requests in " << took.count() << " ms, figures collected "
              << mpstat.calls().size() << " times\n";
}

TEST_F(Responder, TwoRespondersShareTheFigures) {
    let_figures_age();
    link();
    must_run("ip link add wan1 type veth peer name wan1p");
    must_run("ip addr add 198.51.100.1/24 dev wan1");
    must_run("ip link set wan1 up");
    must_run("ip link set wan1p up");
    std::string other = "wan1";
    ProcUdp first(dev);
    ProcUdp second(other);
    serve(first);
    ASSERT_EQ(second.start(), 0);
    ASSERT_TRUE(wait_until(
        [] { return read_file("/proc/self/net/udp").find("016433C6:1E6C") != std::string::npos; }));
    const UniqueFd local(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(7788);
    inet_pton(AF_INET, "198.51.100.1", &to.sin_addr);
    send(request);
    sendto(local.get(), request.data(), request.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof to);
    EXPECT_NE(receive(), "");
    pollfd wait{local.get(), POLLIN, 0};
    EXPECT_EQ(poll(&wait, 1, 5000), 1);
    EXPECT_EQ(mpstat.calls().size(), 1U);
}

TEST_F(Responder, HangingToolDoesNotHoldUpTheStop) {
    let_figures_age();
    link();
    ipsec.always().hangs();
    ProcUdp udp(dev);
    serve(udp);
    send(request);
    ASSERT_TRUE(ipsec.wait_for_calls(1));
    const auto begin = steady_clock::now();
    udp.stop();
    EXPECT_LT(since(begin), 500ms);
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
