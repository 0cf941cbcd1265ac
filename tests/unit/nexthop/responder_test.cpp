// The responder, call by call: what the kernel refuses and what a failing socket costs.
#include <algorithm>
#include <cerrno>

#include "corvosetup/udp.h"
#include "foundation/json.h"
#include "probe_fixture.h"

namespace corvo::test {
namespace {

// Device 10 with the responder on the loopback, which has an address everywhere.
class ResponderCalls : public ProbeTest {
protected:
    void TearDown() override {
        udp.stop();
        ProbeTest::TearDown();
    }

    void serve() {
        ASSERT_EQ(udp.start(), 0);
        ASSERT_TRUE(wait_until([&] { return kernel.count("bind 127.0.0.1:7788") == 1; }));
    }
    // The lines after the one that names the thread.
    std::vector<std::string> outcome() const {
        auto all = lines();
        if (!all.empty()) all.erase(all.begin());
        return all;
    }
    int count(const std::string& line) const { return count_log(line, log_file); }
    bool ended() const {
        for (const auto& trace : traces())
            if (trace == "[DEBUG] Exit udp.cpp::N::thread_task: 0") return true;
        return false;
    }

    std::string dev = "lo";
    ProcUdp udp{dev};
    const FakeReply request{"{\"Sender\":5,\"Receiver\":10,\"Wan\":4}", 0ms, "198.51.100.5", 4000};
};

TEST_F(ResponderCalls, MarksBeforeItBindsToTheAddressAndPort7788) {
    serve();
    EXPECT_THAT(kernel.calls(), ElementsAre("socket 2 2 0", "SO_MARK 960", "bind 127.0.0.1:7788"));
}

TEST_F(ResponderCalls, NoSocketEndsTheThread) {
    kernel.fail("socket", EMFILE);
    ASSERT_EQ(udp.start(), 0);
    ASSERT_TRUE(wait_until([&] { return ended(); }));
    EXPECT_THAT(outcome(), ElementsAre("[ERROR] Create listening socket failed."));
    EXPECT_EQ(udp.start(), -3026) << "the owner starts it again, after a stop";
}

TEST_F(ResponderCalls, RefusedMarkEndsTheThreadWithoutBinding) {
    kernel.fail("SO_MARK", EPERM);
    ASSERT_EQ(udp.start(), 0);
    ASSERT_TRUE(wait_until([&] { return ended(); }));
    EXPECT_THAT(outcome(), ElementsAre("[ERROR] Set socket opt [SO_MARK] failed!"));
    EXPECT_EQ(kernel.count("bind"), 0U);
    EXPECT_EQ(kernel.left_open(), 0);
}

TEST_F(ResponderCalls, RefusedBindingEndsTheThread) {
    kernel.fail("bind", EADDRINUSE);
    ASSERT_EQ(udp.start(), 0);
    ASSERT_TRUE(wait_until([&] { return ended(); }));
    EXPECT_THAT(outcome(), ElementsAre("[ERROR] Server socket bind failed."));
    EXPECT_EQ(kernel.left_open(), 0);
}

TEST_F(ResponderCalls, FailingReceiveIsTriedAgainAfter100MillisecondsAndTheNextDatagramIsServed) {
    serve();
    kernel.fail("recvfrom", EIO, 4);
    const Stopwatch watch;
    kernel.arrive(request);
    ASSERT_TRUE(wait_until([&] { return kernel.count("sendto 198.51.100.5:4000") == 1; }));
    EXPECT_GE(watch.elapsed(), 400ms);
    EXPECT_EQ(count("[ERROR] Could not read datagram !!!"), 4);
}

TEST_F(ResponderCalls, StopEndsThePauseAfterAFailingReceive) {
    serve();
    kernel.fail("recvfrom", ENETDOWN);
    kernel.arrive(request);
    ASSERT_TRUE(wait_until([&] { return count("[ERROR] Could not read datagram !!!") > 0; }));
    const Stopwatch watch;
    EXPECT_EQ(udp.stop(), 0);
    EXPECT_LT(watch.elapsed(), 50ms);
}

TEST_F(ResponderCalls, DatagramThatVanishedIsNoFailure) {
    serve();
    kernel.fail("recvfrom", EAGAIN, 1);  // its checksum was wrong
    kernel.arrive(request);
    ASSERT_TRUE(wait_until([&] { return kernel.count("sendto") == 1; }));
    EXPECT_EQ(count("[ERROR] Could not read datagram !!!"), 0);
}

TEST_F(ResponderCalls, FailingSendIsLoggedAndTheNextRequestAnswered) {
    serve();
    kernel.fail("sendto", ENETUNREACH, 1);
    kernel.arrive(request);
    ASSERT_TRUE(wait_until([&] { return count("[ERROR] Could not send datagram !!!") == 1; }));
    EXPECT_TRUE(kernel.sent().empty());
    kernel.arrive(request);
    ASSERT_TRUE(wait_until([&] { return kernel.sent().size() == 1; }));
    Json::Value answer;
    ASSERT_TRUE(parse_json(kernel.sent()[0], answer));
    EXPECT_EQ(answer["Sender"], 10);
    EXPECT_EQ(answer["Receiver"], 5);
    EXPECT_EQ(count("[ERROR] Could not send datagram !!!"), 1);
}

TEST_F(ResponderCalls, SaysWhoAskedAndWhatItAnswered) {
    serve();
    kernel.arrive(request);
    ASSERT_TRUE(wait_until([&] { return kernel.sent().size() == 1; }));
    udp.stop();
    const auto all = outcome();
    ASSERT_EQ(all.size(), 3U);
    EXPECT_EQ(all[0], "[DEBUG] Receive request from [5]@198.51.100.5 to [10]@127.0.0.1");
    EXPECT_THAT(all[1], testing::MatchesRegex("\\[DEBUG\\] Wan number: 4, local Wan number: [0-9]+"));
    EXPECT_THAT(all[2],
                testing::MatchesRegex("\\[DEBUG\\] Cpu: [0-9.]+, Memory: [0-9.]+, Connections: [0-9]+"));
}

TEST_F(ResponderCalls, StartWithoutAThreadToBeHadIsRefusedAndMayBeRepeated) {
    kernel.fail("pthread_create", EAGAIN);
    EXPECT_EQ(udp.start(), -3010);
    EXPECT_THAT(traces(),
                ElementsAre("[DEBUG] Enter udp.cpp::N::start", "[DEBUG] Exit udp.cpp::N::start: -3010"));
    kernel.heal("pthread_create");
    serve();
}

}  // namespace
}  // namespace corvo::test
