// The responder under attack, under load, and with tools that hang.
#include <cstdlib>
#include <iostream>
#include <random>

#include "responder_fixture.h"

namespace corvo::test {
namespace {

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

}  // namespace
}  // namespace corvo::test
