// The serving side, against clients that behave and clients that do not.

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <system_error>
#include <vector>

#include "fixture.h"
#include "support/leak_check.h"
#include "support/wait.h"
#include "wire.h"

namespace {

using namespace platform_test;
using corvo::test::LeakCheck;
using corvo::test::wait_until;
using std::chrono::milliseconds;
using std::chrono::seconds;
namespace wire = vx::wire;

class Server : public RuntimeDir {
protected:
    std::string socket(const std::string& service) const { return directory_ / (service + ".sock"); }
    static std::string frame(const std::string& service, const std::string& method,
                             const std::string& payload) {
        return wire::request_head(service, method, payload.size()) + payload;
    }
    static bool exists(const std::string& path) { return ::access(path.c_str(), F_OK) == 0; }
};

TEST_F(Server, SocketIsThereWhileItServesAndGoneAfter) {
    {
        vx::ServerThread server(serve_echo);
        EXPECT_TRUE(exists(socket("echo")));
    }
    EXPECT_FALSE(exists(socket("echo")));
}

TEST_F(Server, CreatesTheRuntimeDirectory) {
    vx::ServerOptions options;
    options.directory = directory_ / "run/deep/vx";
    const vx::ServerThread server(options, serve_echo);
    EXPECT_TRUE(exists(options.directory + "/echo.sock"));
}

TEST_F(Server, SocketModeIsTheOneAskedFor) {
    vx::ServerOptions options;
    options.socket_mode = 0600;
    const mode_t before = ::umask(0);
    const vx::ServerThread server(options, serve_echo);
    ::umask(before);
    struct stat info {};
    ASSERT_EQ(::stat(socket("echo").c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 0600U);
}

TEST_F(Server, ASecondServerOfTheSameServiceIsRefusedAndTheFirstGoesOn) {
    const vx::ServerThread first(serve_echo);
    vx::Server second;
    serve_echo(second);
    try {
        second.open();
        FAIL() << "opened twice";
    } catch (const std::system_error& refused) {
        EXPECT_EQ(refused.code().value(), EADDRINUSE);
        EXPECT_NE(std::string(refused.what()).find("echo"), std::string::npos);
    }
    EXPECT_EQ(call("echo", "echo", "x").reply, "x");
}

TEST_F(Server, ASocketFileLeftByACrashIsReplaced) {
    {
        RawService crashed("echo", [](int) {});
    }
    ASSERT_TRUE(exists(socket("echo")));
    const vx::ServerThread server(serve_echo);
    EXPECT_EQ(call("echo", "echo", "x").reply, "x");
}

TEST_F(Server, NamesThatCannotBeServedAreRefused) {
    vx::Server server;
    const auto handler = [](const vx::Call&) { return vx::Reply(); };
    EXPECT_THROW(server.handle("../x", "m", handler), std::invalid_argument);
    EXPECT_THROW(server.handle("s", "a/b", handler), std::invalid_argument);
    EXPECT_NO_THROW(server.handle("s", "*", handler));
}

TEST_F(Server, ADirectoryThatCannotBeUsedIsAnError) {
    vx::ServerOptions options;
    options.directory = "/proc/nothing/here";
    vx::Server server(options);
    serve_echo(server);
    EXPECT_THROW(server.open(), std::system_error);
}

TEST_F(Server, TheStarMethodTakesWhatHasNoHandlerOfItsOwn) {
    const vx::ServerThread server([](vx::Server& s) {
        s.handle("any", "known", [](const vx::Call&) { return vx::Reply::text("known"); });
        s.handle("any", "*",
                 [](const vx::Call& c) { return vx::Reply::text("star " + std::string(c.method)); });
    });
    EXPECT_EQ(call("any", "known").reply, "known");
    EXPECT_EQ(call("any", "other").reply, "star other");
}

TEST_F(Server, RunEndsAtTheGivenTime) {
    vx::Server server;
    serve_echo(server);
    server.open();
    const corvo::UniqueFd never(::eventfd(0, EFD_CLOEXEC));
    const auto begun = std::chrono::steady_clock::now();
    server.run(never.get(), begun + milliseconds(50));
    const auto took = std::chrono::steady_clock::now() - begun;
    EXPECT_GE(took, milliseconds(50));
    EXPECT_LT(took, seconds(2));
}

TEST_F(Server, ADelayedAnswerDoesNotHoldUpOthers) {
    std::atomic<bool> asked = false;
    const vx::ServerThread server([&](vx::Server& s) {
        serve_echo(s);
        s.handle("late", "m", [&](const vx::Call&) {
            asked = true;
            vx::Reply reply = vx::Reply::text("late");
            reply.delay = seconds(2);
            return reply;
        });
    });
    CallResult slow;
    std::atomic<bool> over = false;
    std::thread waiting([&] {
        slow = call("late", "m", "x", 30);
        over = true;
    });
    EXPECT_TRUE(wait_until([&] { return asked.load(); }));
    EXPECT_EQ(call("echo", "echo", "y").reply, "y");
    EXPECT_FALSE(over);
    waiting.join();
    EXPECT_EQ(slow.reply, "late");
    EXPECT_GE(slow.seconds, 2.0);
}

TEST_F(Server, SlowClientsDoNotHoldUpOthers) {
    const vx::ServerThread server(serve_echo);
    std::vector<corvo::UniqueFd> slow;
    const std::string request = frame("echo", "echo", "x");
    for (int i = 0; i < 50; ++i) {
        slow.push_back(connect_raw("echo"));
        send_raw(slow.back().get(), std::string_view(request).substr(0, static_cast<std::size_t>(i % 12)));
    }
    for (int i = 0; i < 20; ++i) {
        const CallResult got = call("echo", "echo", "y");
        EXPECT_EQ(got.reply, "y");
        EXPECT_LT(got.seconds, 2.5);
    }
}

TEST_F(Server, AClientThatDoesNotReadItsReplyDoesNotHoldUpOthers) {
    const vx::ServerThread server(serve_echo);
    const corvo::UniqueFd deaf = connect_raw("echo");
    send_raw(deaf.get(), frame("echo", "large", "16000000"));
    for (int i = 0; i < 5; ++i) EXPECT_LT(call("echo", "echo", "y").seconds, 2.5);
}

TEST_F(Server, ARequestThatDoesNotComeIsGivenUpAfterItsLimit) {
    vx::ServerOptions options;
    options.request_limit = milliseconds(200);
    vx::ServerThread server(options, serve_echo);
    const corvo::UniqueFd slow = connect_raw("echo");
    send_raw(slow.get(), "VXQ1");
    bool closed = false;
    const auto begun = std::chrono::steady_clock::now();
    EXPECT_EQ(read_to_end(slow.get(), closed), "");
    EXPECT_TRUE(closed);
    EXPECT_GE(std::chrono::steady_clock::now() - begun, milliseconds(150));
    server.stop();
    EXPECT_EQ(server.counters().timed_out, 1U);
}

TEST_F(Server, ATricklingRequestIsGivenUpAfterTheSameLimit) {
    // Each byte is progress, but the limit counts from the connection.
    vx::ServerOptions options;
    options.request_limit = milliseconds(300);
    vx::ServerThread server(options, serve_echo);
    const corvo::UniqueFd slow = connect_raw("echo");
    const std::string request = frame("echo", "echo", std::string(100, 'x'));
    const auto begun = std::chrono::steady_clock::now();
    std::size_t sent = 0;
    for (; sent < request.size(); ++sent) {
        if (::send(slow.get(), &request[sent], 1, MSG_NOSIGNAL) < 0) break;
        std::this_thread::sleep_for(milliseconds(20));
    }
    EXPECT_LT(sent, request.size());
    EXPECT_LT(std::chrono::steady_clock::now() - begun, seconds(2));
    server.stop();
    EXPECT_EQ(server.counters().timed_out, 1U);
}

TEST_F(Server, AReplyThatIsNotTakenIsGivenUpAfterItsLimit) {
    vx::ServerOptions options;
    options.reply_limit = milliseconds(200);
    vx::ServerThread server(options, serve_echo);
    const corvo::UniqueFd deaf = connect_raw("echo");
    send_raw(deaf.get(), frame("echo", "large", "16000000"));
    pollfd hang_up{deaf.get(), 0, 0};
    EXPECT_EQ(::poll(&hang_up, 1, 20000), 1) << "the server closes, unread bytes or not";
    server.stop();
    EXPECT_EQ(server.counters().timed_out, 1U);
}

TEST_F(Server, MalformedFramesAreClosedAtOnce) {
    vx::ServerThread server(serve_echo);
    const std::string frames[] = {
        "GET / HTTP/1.1\r\n\r\n",
        wire::request_head("echo", "echo", (16U << 20U) + 1),
        wire::request_head("../x", "echo", 100),
        frame("echo", "echo", "x") + "trailing",
        wire::reply_frame(wire::Status::kOk, "{}"),
    };
    for (const std::string& bytes : frames) {
        const corvo::UniqueFd bad = connect_raw("echo");
        send_raw(bad.get(), bytes);
        bool closed = false;
        EXPECT_EQ(read_to_end(bad.get(), closed), "");
        EXPECT_TRUE(closed);
    }
    EXPECT_EQ(call("echo", "echo", "x").reply, "x");
    server.stop();
    EXPECT_EQ(server.counters().malformed, std::size(frames));
}

TEST_F(Server, ARequestForAnotherServiceIsNotServed) {
    int handled = 0;
    vx::ServerThread server([&](vx::Server& s) {
        serve_echo(s);
        s.handle("other", "m", [&](const vx::Call&) {
            ++handled;
            return vx::Reply();
        });
    });
    const corvo::UniqueFd wrong = connect_raw("echo");
    send_raw(wrong.get(), frame("other", "m", ""));
    bool closed = false;
    EXPECT_EQ(read_to_end(wrong.get(), closed), wire::reply_frame(wire::Status::kMisrouted, ""));
    server.stop();
    EXPECT_EQ(handled, 0);
    EXPECT_EQ(server.counters().malformed, 1U);
}

TEST_F(Server, AClientThatShutsItsSendingSideStillGetsItsReply) {
    const vx::ServerThread server(serve_echo);
    const corvo::UniqueFd half = connect_raw("echo");
    send_raw(half.get(), frame("echo", "echo", "x"));
    ::shutdown(half.get(), SHUT_WR);
    bool closed = false;
    EXPECT_EQ(read_to_end(half.get(), closed), wire::reply_frame(wire::Status::kOk, "x"));
}

TEST_F(Server, AHalfClosedRequestIsDropped) {
    vx::ServerThread server(serve_echo);
    const corvo::UniqueFd half = connect_raw("echo");
    send_raw(half.get(), frame("echo", "echo", "xyz").substr(0, 20));
    ::shutdown(half.get(), SHUT_WR);
    bool closed = false;
    EXPECT_EQ(read_to_end(half.get(), closed), "");
    EXPECT_TRUE(closed);
    server.stop();
    EXPECT_EQ(server.counters().abandoned, 1U);
    EXPECT_EQ(server.counters().handled, 0U);
}

TEST_F(Server, AClientThatLeavesDuringADelayIsForgotten) {
    vx::ServerThread server([](vx::Server& s) {
        s.handle("late", "m", [](const vx::Call&) {
            vx::Reply reply = vx::Reply::text("x");
            reply.delay = std::chrono::minutes(10);
            return reply;
        });
        serve_echo(s);
    });
    {
        const LeakCheck leaks;
        corvo::UniqueFd leaving = connect_raw("late");
        send_raw(leaving.get(), frame("late", "m", ""));
        EXPECT_EQ(call("echo", "echo", "x").reply, "x");
        leaving.reset();
        EXPECT_EQ(call("echo", "echo", "x").reply, "x");
    }
    server.stop();
    EXPECT_EQ(server.counters().abandoned, 1U);
}

TEST_F(Server, ANewClientDisplacesTheSlowestWhenThereAreTooMany) {
    vx::ServerOptions options;
    options.max_clients = 4;
    vx::ServerThread server(options, serve_echo);
    std::vector<corvo::UniqueFd> slow;
    for (int i = 0; i < 4; ++i) slow.push_back(connect_raw("echo"));
    EXPECT_EQ(call("echo", "echo", "x").reply, "x");
    bool closed = false;
    read_to_end(slow[0].get(), closed, 2);
    EXPECT_TRUE(closed) << "the first of the slow ones had to go";
    server.stop();
    EXPECT_EQ(server.counters().displaced, 1U);
}

TEST_F(Server, LargeRequestsShareABudgetAndSmallOnesPass) {
    vx::ServerOptions options;
    options.max_buffered = 4U << 20U;
    vx::ServerThread server(options, serve_echo);
    std::vector<corvo::UniqueFd> greedy;
    std::vector<std::thread> senders;
    const std::string most = frame("echo", "echo", std::string(16U << 20U, 'x')).substr(0, 3U << 20U);
    for (int i = 0; i < 4; ++i) {
        greedy.push_back(connect_raw("echo"));
        senders.emplace_back([&, fd = greedy.back().get()] { send_raw(fd, most); });
    }
    for (auto& sender : senders) sender.join();
    EXPECT_EQ(call("echo", "echo", "x").reply, "x");
    server.stop();
    EXPECT_GE(server.counters().starved, 2U);
}

TEST_F(Server, AnAnswerAbove16MiBFailsTheCall) {
    vx::ServerOptions patient;
    patient.reply_limit = std::chrono::seconds(60);  // a checker's machine is slow
    const vx::ServerThread server(patient, serve_echo);
    EXPECT_EQ(call("echo", "large", std::to_string(16U << 20U), 30).result, 0);
    EXPECT_EQ(call("echo", "large", std::to_string((16U << 20U) + 1), 30).result, -EMSGSIZE);
}

TEST_F(Server, ACrashedServiceRefusesAndARevivedOneAnswers) {
    vx::ServerThread server([](vx::Server& s) {
        serve_echo(s);
        s.handle("admin", "crash", [&s](const vx::Call& c) {
            return vx::Reply::text(s.crash(std::string(c.payload)) ? "1" : "0");
        });
        s.handle("admin", "revive", [&s](const vx::Call& c) {
            return vx::Reply::text(s.revive(std::string(c.payload)) ? "1" : "0");
        });
    });
    EXPECT_EQ(call("admin", "crash", "nobody").reply, "0");
    EXPECT_EQ(call("admin", "crash", "echo").reply, "1");
    EXPECT_TRUE(exists(socket("echo"))) << "as a crash leaves it";
    EXPECT_EQ(call("echo", "echo", "x").result, -ECONNREFUSED);
    EXPECT_EQ(call("admin", "revive", "echo").reply, "1");
    EXPECT_EQ(call("echo", "echo", "x").reply, "x");
}

TEST_F(Server, AHandlerMayCrashItsOwnService) {
    vx::ServerThread server([](vx::Server& s) {
        serve_echo(s);
        s.handle("self", "die", [&s](const vx::Call&) {
            s.crash("self");
            return vx::Reply::text("never sent");
        });
    });
    EXPECT_EQ(call("self", "die").result, -ECONNRESET);
    EXPECT_EQ(call("self", "die").result, -ECONNREFUSED);
    EXPECT_EQ(call("echo", "echo", "x").reply, "x");
}

struct EndingCase {
    vx::Reply::Ending ending;
    int result;
};

TEST_F(Server, EachBrokenEndingIsAFailureOfItsOwn) {
    using Ending = vx::Reply::Ending;
    for (const auto& [ending, result] :
         {EndingCase{Ending::kRefused, -EREMOTEIO}, EndingCase{Ending::kRaw, -EPROTO},
          EndingCase{Ending::kHalf, -ECONNRESET}, EndingCase{Ending::kClose, -ECONNRESET},
          EndingCase{Ending::kHang, -ETIMEDOUT}}) {
        const vx::ServerThread server([ending = ending](vx::Server& s) {
            s.handle("broken", "m", [ending](const vx::Call&) {
                vx::Reply reply = vx::Reply::text("{\"error\":0}");
                reply.ending = ending;
                return reply;
            });
        });
        EXPECT_EQ(call("broken", "m", "x", 1).result, result) << static_cast<int>(ending);
    }
}

TEST_F(Server, StoppingClosesEverything) {
    const LeakCheck leaks;
    vx::ServerThread server(serve_echo);
    std::vector<corvo::UniqueFd> clients;
    for (int i = 0; i < 10; ++i) clients.push_back(connect_raw("echo"));
    call("echo", "echo", "x");
    server.stop();
    for (const auto& client : clients) {
        bool closed = false;
        read_to_end(client.get(), closed, 1);
        EXPECT_TRUE(closed);
    }
}

}  // namespace
