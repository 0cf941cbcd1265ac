// The asking side of the UDP probe, call by call.
#include <algorithm>
#include <cerrno>

#include "corvosetup/udp.h"
#include "foundation/json.h"
#include "foundation/worker.h"
#include "nexthop/udp_message.h"
#include "probe_fixture.h"

namespace corvo::test {
namespace {

class UdpRequest : public ProbeTest {
protected:
    int request(const std::string& to = "192.0.2.1", bool check_connections = false) {
        std::string address = to;
        return test.udp_request(7, address, check_connections);
    }

    // The lines after the two that announce the request.
    std::vector<std::string> outcome() const {
        auto all = lines();
        all.erase(all.begin(), all.begin() + std::min<std::ptrdiff_t>(2, std::ssize(all)));
        return all;
    }

    // A fresh object has no id: its own id is 0, as "Receiver" of the answers here.
    ProcUdpTest test;
};

std::string answer_text(int result = 0, int receiver = 0) {
    return "{\"Sender\":7,\"Receiver\":" + std::to_string(receiver) +
           ",\"Cpu\":12.5,\"Memory\":50,\"Connections\":3,\"RemoteWan\":2,\"Result\":" +
           std::to_string(result) + "}";
}

TEST_F(UdpRequest, IsAnsweredAndAccepted) {
    kernel.peers["192.0.2.1"] = saying(answer_text());
    EXPECT_EQ(request(), 0);
    EXPECT_THAT(lines(), ElementsAre("[DEBUG] Check connections: 0, IPSec installed: 0",
                                     "[DEBUG] Udp requesting device: 7's ip 192.0.2.1",
                                     "[DEBUG] Receive response from 7",
                                     "[DEBUG] Result: 0, CPU: 12.5, Memory: 50, Connections: 3"));
    EXPECT_THAT(traces(), ElementsAre("[DEBUG] Enter udp.cpp::N::udp_request",
                                      "[DEBUG] Exit udp.cpp::N::udp_request: 0"));
}

TEST_F(UdpRequest, SetsTimeoutAndMarkBindsAnywhereAndSendsFiveTimes) {
    kernel.peers["192.0.2.1"] = saying(answer_text());
    EXPECT_EQ(request(), 0);
    EXPECT_THAT(kernel.calls(),
                ElementsAre("socket 2 2 0", "SO_RCVTIMEO 2.0", "SO_MARK 960", "bind 0.0.0.0:0",
                            "sendto 192.0.2.1:7788", "sendto 192.0.2.1:7788", "sendto 192.0.2.1:7788",
                            "sendto 192.0.2.1:7788", "sendto 192.0.2.1:7788"));
    const auto sent = kernel.sent();
    EXPECT_EQ(std::count(sent.begin(), sent.end(), sent[0]), 5);
    Json::Value message;
    ASSERT_TRUE(parse_json(sent[0], message));
    EXPECT_EQ(message["Receiver"], 7);
    EXPECT_EQ(message.size(), 8U);
}

TEST_F(UdpRequest, NoSocket) {
    kernel.fail("socket", EMFILE);
    EXPECT_EQ(request(), -3008);
    EXPECT_THAT(lines(), ElementsAre("[ERROR] Create listening socket failed."));
}

TEST_F(UdpRequest, TimeoutRefused) {
    kernel.fail("SO_RCVTIMEO", EDOM);
    EXPECT_EQ(request(), -5);
    EXPECT_THAT(lines(), ElementsAre("[ERROR] Set socket opt [SO_RCVTIMEO] failed!"));
}

TEST_F(UdpRequest, MarkRefused) {
    kernel.fail("SO_MARK", EPERM);
    EXPECT_EQ(request(), -7);
    EXPECT_THAT(lines(), ElementsAre("[ERROR] Set socket opt [SO_MARK] failed!"));
}

TEST_F(UdpRequest, BindingRefused) {
    kernel.fail("bind", EADDRINUSE);
    EXPECT_EQ(request(), -3008);
    EXPECT_THAT(lines(), ElementsAre("[ERROR] Client socket bind failed."));
}

TEST_F(UdpRequest, FailedSendEndsTheAttempts) {
    kernel.fail("sendto", ENETUNREACH);
    EXPECT_EQ(request(), -3);
    EXPECT_THAT(outcome(), ElementsAre("[ERROR] Write to server error."));
    EXPECT_EQ(kernel.count("sendto"), 1U);
}

TEST_F(UdpRequest, EmptyOrWrongAddressIsNotSentToTheBroadcastAddress) {
    for (const char* address : {"", "nonsense", "255.255.255.255"}) {
        EXPECT_EQ(request(address), -3) << address;
    }
    EXPECT_EQ(kernel.count("sendto"), 0U);
    EXPECT_THAT(lines(), Contains("[DEBUG] Udp requesting device: 7's ip "));
    EXPECT_THAT(lines(), Contains("[ERROR] Write to server error.").Times(3));
}

TEST_F(UdpRequest, SilenceIsThreeAttemptsOfTwoSeconds) {
    const Stopwatch watch;
    EXPECT_EQ(request(), -4);
    EXPECT_GE(watch.elapsed(), 6000ms);
    EXPECT_LT(watch.elapsed(), 7500ms);
    EXPECT_THAT(outcome(), ElementsAre("[ERROR] Read from server: 192.0.2.1 error.",
                                       "[ERROR] Read from server: 192.0.2.1 error.",
                                       "[ERROR] Read from server: 192.0.2.1 error."));
    EXPECT_EQ(kernel.count("sendto"), 15U);
}

TEST_F(UdpRequest, ReceiveErrorIsAnAttempt) {
    kernel.peers["192.0.2.1"] = saying(answer_text());
    kernel.fail("recvfrom", EIO, 1);
    EXPECT_EQ(request(), 0);
    EXPECT_THAT(outcome(), Contains("[ERROR] Read from server: 192.0.2.1 error.").Times(1));
    EXPECT_EQ(kernel.count("sendto"), 10U);
}

TEST_F(UdpRequest, AnswerToTheFourthDatagramIsTakenInTheSameAttempt) {
    int seen = 0;
    kernel.peers["192.0.2.1"] = [&](const std::string&) -> std::vector<FakeReply> {
        if (++seen != 4) return {};
        return {{answer_text()}};
    };
    EXPECT_EQ(request(), 0);
    EXPECT_EQ(kernel.count("sendto"), 5U);
}

TEST_F(UdpRequest, LateAnswerIsTakenInALaterAttempt) {
    int seen = 0;
    kernel.peers["192.0.2.1"] = [&](const std::string&) -> std::vector<FakeReply> {
        if (++seen != 1) return {};
        return {{answer_text(), 2200ms}};
    };
    EXPECT_EQ(request(), 0);
    EXPECT_EQ(kernel.count("sendto"), 10U);
}

TEST_F(UdpRequest, AnswersThatAreNoObjectsGiveTheStartingCode) {
    for (const char* text : {"[]", "5", "{", ""}) {
        kernel.peers["192.0.2.1"] = saying(text);
        EXPECT_EQ(request(), -3019) << text;
    }
    EXPECT_THAT(lines(), Contains("[ERROR] Json parse failed !!!").Times(12));
}

TEST_F(UdpRequest, AnswerThatDoesNotParseKeepsTheCodeOfTheAttemptBefore) {
    int seen = 0;
    kernel.peers["192.0.2.1"] = [&](const std::string&) -> std::vector<FakeReply> {
        if (++seen <= 5) return {};
        return {{"["}};
    };
    EXPECT_EQ(request(), -4);
}

TEST_F(UdpRequest, AnswerForAnotherDevice) {
    kernel.peers["192.0.2.1"] = [](const std::string&) -> std::vector<FakeReply> {
        return {{answer_text(0, 99), 0ms, "198.51.100.7", 4000}};
    };
    EXPECT_EQ(request(), -9);
    const std::string line = "[WARNING] Mismatched response device id[99 <-> 0] from 198.51.100.7:4000";
    EXPECT_THAT(outcome(), ElementsAre(line, line, line));
}

TEST_F(UdpRequest, RefusalEndsTheAttemptsWithItsCode) {
    kernel.peers["192.0.2.1"] = saying(answer_text(17));
    EXPECT_EQ(request(), 17);
    EXPECT_THAT(outcome(), ElementsAre("[DEBUG] Receive response from 7",
                                       "[DEBUG] Result: 17, CPU: 12.5, Memory: 50, Connections: 3",
                                       "[ERROR] Rejected by code: 17"));
    EXPECT_EQ(kernel.count("sendto"), 5U);
}

TEST_F(UdpRequest, AnswerWithoutAResultIsRejectedByMinusOne) {
    for (const char* text : {"{}", "{\"Result\":\"0\"}", "{\"Result\":null,\"Cpu\":[],\"Sender\":{}}"}) {
        kernel.peers["192.0.2.1"] = saying(text);
        EXPECT_EQ(request(), -1) << text;
    }
    EXPECT_THAT(lines(), Contains("[ERROR] Rejected by code: -1").Times(3));
}

TEST_F(UdpRequest, AnswerBeyond256BytesIsCutAndDoesNotParse) {
    kernel.peers["192.0.2.1"] = saying("{\"Pad\":\"" + std::string(300, 'x') + "\",\"Result\":0}");
    EXPECT_EQ(request(), -3019);
}

TEST_F(UdpRequest, StopEndsTheWaitWithoutALine) {
    std::thread* slot = Worker::start([&] { request(); });
    ASSERT_TRUE(wait_until([&] { return kernel.count("sendto") == 5; }));
    const Stopwatch watch;
    Worker::stop(slot);
    EXPECT_LT(watch.elapsed(), 50ms);
    EXPECT_THAT(outcome(), IsEmpty());
}

}  // namespace
}  // namespace corvo::test
