// The programs as their users meet them: corvo-services and vx-call, and what the library exports.

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <sstream>

#include "fixture.h"
#include "foundation/json.h"
#include "support/process.h"
#include "support/wait.h"

extern char** environ;

namespace {

using namespace platform_test;
using corvo::test::read_file;
using corvo::test::run_tool;
using corvo::test::ToolResult;
using corvo::test::wait_until;
using corvo::test::write_file;

class Program : public RuntimeDir {
protected:
    Program() { write_file(directory_ / "docs/device_info.json", R"({"DEVICE_ID":"11"})"); }
    ~Program() override { end(SIGKILL); }

    // Starts corvo-services with these arguments and waits for its readiness line.
    void start(std::vector<std::string> arguments) {
        int ready[2];
        ASSERT_EQ(::pipe(ready), 0);  // inherited on purpose
        ::fcntl(ready[0], F_SETFD, FD_CLOEXEC);
        arguments.insert(arguments.begin(), {CORVO_SERVICES, "--documents", directory_ / "docs"});
        arguments.insert(arguments.end(), {"--ready-fd", std::to_string(ready[1])});
        std::vector<char*> argv;
        for (auto& argument : arguments) argv.push_back(argument.data());
        argv.push_back(nullptr);
        ASSERT_EQ(::posix_spawn(&pid_, CORVO_SERVICES, nullptr, nullptr, argv.data(), environ), 0);
        ::close(ready[1]);
        const corvo::UniqueFd in(ready[0]);
        bool closed = false;
        std::string line;
        pollfd wait{in.get(), POLLIN, 0};
        while (!closed && ::poll(&wait, 1, 20000) == 1) {
            char part[64];
            const ssize_t got = ::read(in.get(), part, sizeof part);
            closed = got <= 0;
            if (got > 0) line.append(part, static_cast<std::size_t>(got));
        }
        ASSERT_EQ(line, "corvo-services: ready\n");
        EXPECT_TRUE(closed) << "the descriptor is closed after the line";
    }

    // Sends the signal and returns the exit status (128+N when a signal ended it).
    int end(int signal) {
        if (pid_ <= 0) return -1;
        ::kill(pid_, signal);
        return wait();
    }
    int wait() {
        int status = 0;
        ::waitpid(pid_, &status, 0);
        pid_ = -1;
        return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
    }
    bool served(const std::string& service) const {
        return ::access((directory_ / (service + ".sock")).c_str(), F_OK) == 0;
    }

    pid_t pid_ = -1;
};

TEST_F(Program, ServesEveryServiceAndEndsCleanlyOnSigterm) {
    start({});
    for (const char* service :
         {"vesta", "TarnService", "nm-halor", "nm-morin-handler", "pluvd", "Corvo_CPU_tune", "control"}) {
        EXPECT_TRUE(served(service)) << service;
    }
    EXPECT_EQ(call("vesta", "get_devid").reply, R"({"data":11,"error":0})");
    EXPECT_EQ(end(SIGTERM), 0);
    EXPECT_FALSE(served("vesta"));
}

TEST_F(Program, OnlyTheNamedServicesAreServed) {
    start({"--only", "vesta", "--only", "pluvd", "--no-control"});
    EXPECT_TRUE(served("vesta"));
    EXPECT_TRUE(served("pluvd"));
    EXPECT_FALSE(served("nm-halor"));
    EXPECT_FALSE(served("control"));
    EXPECT_EQ(call("nm-halor", "RestartMonitor").result, -ENOENT);
}

TEST_F(Program, EveryFaultIsSeenByACaller) {
    start({});
    const auto fault = [&](const std::string& rest, int limit = 1) {
        EXPECT_EQ(call("control", "set_fault", R"({"target":"vesta.get_devid",)" + rest + "}").reply,
                  R"({"error":0})");
        return call("vesta", "get_devid", "", limit);
    };
    EXPECT_EQ(fault(R"("kind":"error","value":-5)").reply, R"({"error":-5})");
    EXPECT_EQ(fault(R"("kind":"empty")").reply, "");
    EXPECT_EQ(fault(R"("kind":"huge","size":16777216)", 30).reply.size(), 16777216U);
    EXPECT_EQ(fault(R"("kind":"huge")").result, -EPROTO);
    EXPECT_EQ(fault(R"("kind":"half")").result, -ECONNRESET);
    EXPECT_EQ(fault(R"("kind":"close")").result, -ECONNRESET);
    EXPECT_EQ(fault(R"("kind":"hang")").result, -ETIMEDOUT);
    EXPECT_EQ(fault(R"("kind":"none","delay_ms":5000)").result, -ETIMEDOUT);
    const CallResult late = fault(R"("kind":"none","delay_ms":200)");
    EXPECT_EQ(late.reply, R"({"data":11,"error":0})");
    EXPECT_GE(late.seconds, 0.2);
    EXPECT_EQ(fault(R"("kind":"die")").result, -ECONNRESET);
    EXPECT_EQ(call("vesta", "get_devid").result, -ECONNREFUSED);
    EXPECT_EQ(call("pluvd", "exec", R"({"flag": "1"})").reply, R"({"error":0})") << "the others go on";
    call("control", "clear_faults");
    EXPECT_EQ(call("control", "revive", R"({"service":"vesta"})").reply, R"({"error":0})");
    EXPECT_EQ(call("vesta", "get_devid").reply, R"({"data":11,"error":0})");
    EXPECT_EQ(fault(R"("kind":"kill")").result, -ECONNRESET);
    EXPECT_EQ(wait(), 128 + SIGKILL);
}

TEST_F(Program, StartsAgainOverTheSocketsOfAKilledOne) {
    start({});
    end(SIGKILL);
    EXPECT_TRUE(served("vesta"));
    EXPECT_EQ(call("vesta", "get_devid").result, -ECONNREFUSED);
    start({});
    EXPECT_EQ(call("vesta", "get_devid").result, 0);
}

TEST_F(Program, ASecondOneInTheSameDirectoryIsRefused) {
    start({});
    const ToolResult second = run_tool({CORVO_SERVICES, "-d", directory_ / "docs"});
    EXPECT_EQ(second.status, 1);
    EXPECT_NE(second.err.find("Address already in use"), std::string::npos) << second.err;
    EXPECT_EQ(call("vesta", "get_devid").result, 0);
}

TEST_F(Program, JournalAndFaultsFilesAreUsed) {
    write_file(directory_ / "faults", R"({"vesta.get_devid":{"kind":"error","value":-9}})");
    start({"--journal", directory_ / "journal", "--faults", directory_ / "faults"});
    EXPECT_EQ(call("vesta", "get_devid").reply, R"({"error":-9})");
    Json::Value line;
    ASSERT_TRUE(corvo::parse_json(read_file(directory_ / "journal"), line));
    EXPECT_EQ(line["fault"], "error") << "the line is there when the caller has its answer";
}

TEST_F(Program, OutOfDescriptorsItWaitsWithoutSpinningAndGoesOn) {
    start({});
    const auto cpu_ns = [&] {
        std::istringstream text(read_file("/proc/" + std::to_string(pid_) + "/schedstat"));
        std::uint64_t used = 0;
        text >> used;
        return used;
    };
    const rlimit few{24, 24};
    ASSERT_EQ(::prlimit(pid_, RLIMIT_NOFILE, &few, nullptr), 0);
    std::vector<corvo::UniqueFd> clients;
    for (int i = 0; i < 40; ++i) clients.push_back(connect_raw("vesta"));
    const std::uint64_t before = cpu_ns();
    EXPECT_EQ(call("vesta", "get_devid", "", 1).result, -ETIMEDOUT) << "nobody can be accepted any more";
    EXPECT_LT(cpu_ns() - before, 30'000'000U) << "ten attempts in one second";
    clients.clear();
    EXPECT_EQ(call("vesta", "get_devid", "", 10).result, 0);
}

TEST_F(Program, ServicesTellsWrongUsage) {
    EXPECT_EQ(run_tool({CORVO_SERVICES, "--only", "nobody"}).status, 2);
    EXPECT_EQ(run_tool({CORVO_SERVICES, "--nonsense"}).status, 2);
    EXPECT_EQ(run_tool({CORVO_SERVICES, "extra"}).status, 2);
    EXPECT_EQ(run_tool({CORVO_SERVICES, "--ready-fd", "x"}).status, 2);
    const ToolResult help = run_tool({CORVO_SERVICES, "--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_NE(help.out.find("--documents"), std::string::npos);
}

TEST_F(Program, VxCallPrintsTheReply) {
    const vx::ServerThread server(serve_echo);
    const ToolResult got = run_tool({VX_CALL, "echo", "echo", R"({"a":1})"});
    EXPECT_EQ(got.status, 0) << got.err;
    EXPECT_EQ(got.out, "{\"a\":1}\n");
    EXPECT_EQ(run_tool({VX_CALL, "echo", "echo"}).out, "\n");
}

TEST_F(Program, VxCallReadsTheRequestFromItsInput) {
    const vx::ServerThread server(serve_echo);
    const std::string text(1 << 20, 'x');
    const ToolResult got = run_tool({VX_CALL, "echo", "echo", "-"}, text);
    EXPECT_EQ(got.status, 0) << got.err;
    EXPECT_TRUE(got.out == text + "\n");
}

TEST_F(Program, VxCallTellsFailures) {
    const vx::ServerThread server(serve_echo);
    const ToolResult absent = run_tool({VX_CALL, "absent", "m"});
    EXPECT_EQ(absent.status, 1);
    EXPECT_EQ(absent.err, "vx-call: absent.m: the service is not running (-2)\n");
    EXPECT_EQ(run_tool({VX_CALL, "echo", "unknown"}).err,
              "vx-call: echo.unknown: the service has no such method (-38)\n");
    EXPECT_EQ(run_tool({VX_CALL, "echo", "throw"}).err,
              "vx-call: echo.throw: the service refused the request (-121)\n");
}

TEST_F(Program, VxCallTellsWrongUsage) {
    for (const auto& words : std::vector<std::vector<std::string>>{{},
                                                                   {"service"},
                                                                   {"a", "b", "c", "d"},
                                                                   {"-x", "a", "b"},
                                                                   {"-t", "0", "a", "b"},
                                                                   {"-t", "x", "a", "b"}}) {
        std::vector<std::string> argv{VX_CALL};
        argv.insert(argv.end(), words.begin(), words.end());
        EXPECT_EQ(run_tool(argv).status, 2);
    }
    EXPECT_EQ(run_tool({VX_CALL, "-h"}).status, 0);
}

TEST_F(Program, TheLibraryExportsExactlyTheSixOperations) {
    const ToolResult got = run_tool({"nm", "-D", "--defined-only", "--format=posix", VX_LIBRARY});
    ASSERT_EQ(got.status, 0) << got.err;
    std::vector<std::string> names;
    std::istringstream lines(got.out);
    for (std::string line; std::getline(lines, line);) names.push_back(line.substr(0, line.find(' ')));
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (std::vector<std::string>{"VXCALL_1", "vx_call@@VXCALL_1", "vx_io_create@@VXCALL_1",
                                               "vx_io_free@@VXCALL_1", "vx_io_printf@@VXCALL_1",
                                               "vx_io_read@@VXCALL_1", "vx_io_realloc@@VXCALL_1"}));
}

}  // namespace
