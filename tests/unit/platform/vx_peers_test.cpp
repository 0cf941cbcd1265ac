// Calls of services that are absent, hang, crash, answer slowly or send what is no reply.

#include <fcntl.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <vector>

#include "address.h"
#include "exchange.h"
#include "fixture.h"
#include "support/leak_check.h"
#include "support/wait.h"
#include "wire.h"

namespace {

using namespace platform_test;
using corvo::test::LeakCheck;
using std::chrono::milliseconds;
namespace wire = vx::wire;

constexpr std::size_t kMiB16 = 16U << 20U;

class VxPeers : public RuntimeDir {};

TEST_F(VxPeers, AbsentServiceFailsAtOnce) {
    const CallResult got = call("absent", "x", "y", 30);
    EXPECT_EQ(got.result, -ENOENT);
    EXPECT_LT(got.seconds, 5.0);
}

TEST_F(VxPeers, CrashedServiceFailsAtOnce) {
    {
        RawService gone("gone", [](int) {});
    }  // its socket file stays
    const CallResult got = call("gone", "x", "y", 30);
    EXPECT_EQ(got.result, -ECONNREFUSED);
    EXPECT_LT(got.seconds, 5.0);
}

TEST_F(VxPeers, MissingRuntimeDirectoryFailsAtOnce) {
    ::setenv("VX_RUNTIME_DIR", (directory_ / "none").c_str(), 1);
    EXPECT_EQ(call("x", "x").result, -ENOENT);
}

TEST_F(VxPeers, RuntimeDirectoryThatDoesNotFitIntoAnAddressIsRefused) {
    ::setenv("VX_RUNTIME_DIR", ("/" + std::string(200, 'd')).c_str(), 1);
    EXPECT_EQ(call("x", "x").result, -ENAMETOOLONG);
}

TEST_F(VxPeers, HungServiceEndsAtTheLimit) {
    RawService hung("hung", [](int fd) {
        bool closed = false;
        read_to_end(fd, closed, 10);
    });
    const CallResult got = call("hung", "x", "y", 1);
    EXPECT_EQ(got.result, -ETIMEDOUT);
    EXPECT_FALSE(got.replied);
    EXPECT_GE(got.seconds, 1.0);
    EXPECT_LT(got.seconds, 3.0);
}

TEST_F(VxPeers, ServiceThatDoesNotTakeTheRequestEndsAtTheLimit) {
    std::atomic<bool> done = false;
    RawService deaf("deaf", [&](int) {
        while (!done) std::this_thread::sleep_for(milliseconds(5));
    });
    const CallResult got = call("deaf", "x", std::string(kMiB16, 'x'), 1);
    done = true;
    EXPECT_EQ(got.result, -ETIMEDOUT);
    EXPECT_LT(got.seconds, 3.0);
}

TEST_F(VxPeers, ServiceThatNeverAcceptsEndsAtTheLimit) {
    // Its queue is full: already the connect has to wait.
    std::atomic<bool> done = false;
    RawService busy("busy", [&](int) {
        while (!done) std::this_thread::sleep_for(milliseconds(5));
    });
    for (int i = 0; i < 20; ++i) {
        // A connection that its caller has given up stays in the queue until it is accepted.
        std::string reply;
        const auto soon = std::chrono::steady_clock::now() + milliseconds(30);
        EXPECT_EQ(vx::exchange("busy", "x", "y", soon, reply), -ETIMEDOUT);
    }
    const corvo::UniqueFd one_more(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    sockaddr_un address;
    ASSERT_TRUE(vx::fill_address(directory_ / "busy.sock", address));
    ASSERT_EQ(::connect(one_more.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), -1);
    ASSERT_EQ(errno, EAGAIN) << "the queue must be full";
    const CallResult got = call("busy", "x", "y", 1);
    done = true;
    EXPECT_EQ(got.result, -ETIMEDOUT);
    EXPECT_GE(got.seconds, 1.0);
    EXPECT_LT(got.seconds, 3.0);
}

TEST_F(VxPeers, ReplyThatTricklesInEndsAtTheLimit) {
    // A byte every 50 ms keeps every single wait short; the limit holds for the whole exchange.
    RawService trickle("trickle", [](int fd) {
        read_request(fd);
        const std::string frame = wire::reply_frame(wire::Status::kOk, std::string(1000, 'x'));
        for (const char c : frame) {
            if (::send(fd, &c, 1, MSG_NOSIGNAL) < 0) return;
            std::this_thread::sleep_for(milliseconds(50));
        }
    });
    const CallResult got = call("trickle", "x", "y", 1);
    EXPECT_EQ(got.result, -ETIMEDOUT);
    EXPECT_LT(got.seconds, 3.0);
}

TEST_F(VxPeers, ReplyInSmallPiecesIsPutTogether) {
    RawService pieces("pieces", [](int fd) {
        read_request(fd);
        for (const char c : wire::reply_frame(wire::Status::kOk, "{\"error\":0}")) {
            send_raw(fd, {&c, 1});
            std::this_thread::sleep_for(milliseconds(1));
        }
    });
    EXPECT_EQ(call("pieces", "x", "y").reply, "{\"error\":0}");
}

TEST_F(VxPeers, ServiceDyingAnywhereInItsReplyIsAFailure) {
    const std::string frame = wire::reply_frame(wire::Status::kOk, "{\"error\":0,\"data\":[1,2,3]}");
    std::atomic<std::size_t> cut = 0;
    RawService dying("dying", [&](int fd) {
        read_request(fd);
        send_raw(fd, std::string_view(frame).substr(0, cut));
    });
    for (; cut < frame.size(); ++cut) {
        const CallResult got = call("dying", "x", "y");
        EXPECT_EQ(got.result, -ECONNRESET) << cut;
        EXPECT_FALSE(got.replied) << cut;
    }
}

TEST_F(VxPeers, ServiceClosingBeforeItHasReadTheRequestIsAFailureWithoutSigpipe) {
    // The default action of SIGPIPE would end this process.
    ASSERT_NE(std::signal(SIGPIPE, SIG_DFL), SIG_ERR);
    RawService closing("closing", [](int) {});
    for (int i = 0; i < 20; ++i) {
        const CallResult got = call("closing", "x", std::string(1 << 20, 'x'));
        EXPECT_TRUE(got.result == -EPIPE || got.result == -ECONNRESET) << got.result;
    }
}

TEST_F(VxPeers, HalfClosedServiceIsAFailure) {
    RawService half("half", [](int fd) {
        read_request(fd);
        ::shutdown(fd, SHUT_WR);
        bool closed = false;
        read_to_end(fd, closed, 5);
    });
    const CallResult got = call("half", "x", "y");
    EXPECT_EQ(got.result, -ECONNRESET);
    EXPECT_LT(got.seconds, 2.5);
}

TEST_F(VxPeers, GarbageInsteadOfAReplyIsRefused) {
    for (const std::string& garbage : {std::string("HTTP/1.1 200 OK\r\n\r\n"), std::string(100, '\0'),
                                       wire::reply_head(wire::Status::kRefused, 5) + "12345"}) {
        RawService service("garbage", [&](int fd) {
            read_request(fd);
            send_raw(fd, garbage);
        });
        EXPECT_EQ(call("garbage", "x", "y").result, -EPROTO) << garbage;
        std::filesystem::remove(directory_ / "garbage.sock");
    }
}

TEST_F(VxPeers, BytesBehindTheReplyAreRefused) {
    RawService service("more", [](int fd) {
        read_request(fd);
        send_raw(fd, wire::reply_frame(wire::Status::kOk, "{}") + "x");
    });
    EXPECT_EQ(call("more", "x", "y").result, -EPROTO);
}

TEST_F(VxPeers, RequestAndReplyOf16MiBPass) {
    vx::ServerThread server(serve_echo);
    std::string text(kMiB16, 'x');
    text[5] = 'y';
    text[kMiB16 - 1] = 'z';
    const CallResult got = call("echo", "echo", text, 30);
    EXPECT_EQ(got.result, 0);
    EXPECT_TRUE(got.reply == text);
}

TEST_F(VxPeers, RequestAbove16MiBIsNotSent) {
    vx::ServerThread server(serve_echo);
    void* io = vx_io_create();
    vx_io_printf(io, "before");
    EXPECT_EQ(vx_io_printf(io, "%s", std::string(kMiB16 + 1, 'x').c_str()), -EMSGSIZE);
    EXPECT_EQ(vx_call("echo", "echo", io, 5, -1), 0);
    EXPECT_STREQ(vx_io_read(io, nullptr), "before") << "a refused text leaves the buffer as it was";
    vx_io_free(io);
    std::string reply;
    EXPECT_EQ(vx::exchange("echo", "echo", std::string(kMiB16 + 1, 'x'),
                           std::chrono::steady_clock::now() + std::chrono::seconds(5), reply),
              -EMSGSIZE);
    server.stop();
    EXPECT_EQ(server.counters().accepted, 1U);
}

TEST_F(VxPeers, ReplyThatClaimsMoreThan16MiBIsRefusedAtItsHead) {
    RawService huge("huge", [](int fd) {
        read_request(fd);
        send_raw(fd, wire::reply_head(wire::Status::kOk, kMiB16 + 1));
        bool closed = false;
        read_to_end(fd, closed, 5);
        EXPECT_TRUE(closed);
    });
    const CallResult got = call("huge", "x", "y", 5);
    EXPECT_EQ(got.result, -EPROTO);
    EXPECT_LT(got.seconds, 2.5);
}

TEST_F(VxPeers, UnknownMethodAndFailedHandlerAreTold) {
    vx::ServerThread server(serve_echo);
    EXPECT_EQ(call("echo", "unknown").result, -ENOSYS);
    EXPECT_EQ(call("echo", "throw").result, -EREMOTEIO);
    EXPECT_EQ(call("echo", "refuse").result, -EREMOTEIO);
}

TEST_F(VxPeers, InterruptedWaitsGoOn) {
    vx::ServerOptions patient;  // a checker's machine is slow
    patient.request_limit = patient.reply_limit = std::chrono::seconds(60);
    vx::ServerThread server(patient, serve_echo);
    struct sigaction action {};
    action.sa_handler = [](int) {};  // without SA_RESTART: every wait is cut short
    ::sigaction(SIGALRM, &action, nullptr);
    const itimerval often{{0, 2000}, {0, 2000}};
    ::setitimer(ITIMER_REAL, &often, nullptr);
    const CallResult late = call("echo", "slow", "x");
    const std::string text(kMiB16, 'x');
    const CallResult large = call("echo", "echo", text, 30);
    const itimerval off{};
    ::setitimer(ITIMER_REAL, &off, nullptr);
    std::signal(SIGALRM, SIG_IGN);  // from now on: one still under way would end the process
    EXPECT_EQ(late.result, 0);
    EXPECT_EQ(late.reply, "late");
    EXPECT_EQ(large.result, 0);
    EXPECT_TRUE(large.reply == text);
}

TEST_F(VxPeers, NoDescriptorIsLeftWhateverHappens) {
    vx::ServerThread server(serve_echo);
    RawService closing("closing", [](int) {});
    call("echo", "echo", "warm");
    const LeakCheck leaks;
    for (int i = 0; i < 20; ++i) {
        call("echo", "echo", "x");
        call("echo", "unknown");
        call("absent", "x");
        call("closing", "x", "y");
        call("../x", "y");
    }
}

TEST_F(VxPeers, OutOfDescriptorsIsAFailure) {
    vx::ServerThread server(serve_echo);
    rlimit before{};
    ::getrlimit(RLIMIT_NOFILE, &before);
    const corvo::UniqueFd lowest_free(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    const rlimit full{static_cast<rlim_t>(lowest_free.get() + 1), before.rlim_max};
    ::setrlimit(RLIMIT_NOFILE, &full);
    const int result = call("echo", "echo", "x").result;
    ::setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_EQ(result, -EMFILE);
    EXPECT_EQ(call("echo", "echo", "x").result, 0);
}

TEST_F(VxPeers, EightThreadsCallAtOnce) {
    vx::ServerThread server(serve_echo);
    std::atomic<int> wrong = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 100; ++i) {
                const std::string text =
                    std::to_string(t) + "/" + std::string(static_cast<std::size_t>(i * 37), 'x');
                const CallResult got = call("echo", "echo", text, 30);
                if (got.result != 0 || got.reply != text) ++wrong;
            }
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(wrong, 0);
    server.stop();
    EXPECT_EQ(server.counters().handled, 800U);
}

TEST_F(VxPeers, SocketsAreNotInheritedByPrograms) {
    // While a call is under way, each of the caller's and the server's sockets is close-on-exec.
    const vx::ServerThread server([](vx::Server& s) {
        s.handle("late", "m", [](const vx::Call&) {
            vx::Reply reply;
            reply.delay = std::chrono::seconds(3);
            return reply;
        });
    });
    std::thread caller([] { call("late", "m", "x"); });
    const auto sockets = [](int& inherited) {
        int count = 0;
        inherited = 0;
        for (int fd = 3; fd < 256; ++fd) {
            int type = 0;
            socklen_t size = sizeof type;
            if (::getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &size) != 0) continue;
            ++count;
            if ((::fcntl(fd, F_GETFD) & FD_CLOEXEC) == 0) ++inherited;
        }
        return count;
    };
    int inherited = 0;
    EXPECT_TRUE(corvo::test::wait_until([&] { return sockets(inherited) >= 3; }))
        << "the listener and both ends of the call";
    EXPECT_EQ(inherited, 0);
    caller.join();
}

}  // namespace
