// What a log line costs, counted by stepping a child from system call to system call.
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

#include <map>

#include "foundation/log_line.h"
#include "log_fixture.h"
#include "support/sanitized.h"
#include "valgrind.h"

namespace {

using LogCost = LogFixture;

constexpr int kWarmUp = 3;  // the first line reads the time zone
constexpr int kLines = 20;

// The system calls that a child makes while it writes kLines lines, by number.
std::map<long, int> calls_of_lines(const std::string& text) {
    std::map<long, int> calls;
    const pid_t child = ::fork();
    if (child == 0) {
        for (int i = 0; i < kWarmUp; ++i) corvo::log::debug(text, i);
        ::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
        ::raise(SIGSTOP);
        for (int i = 0; i < kLines; ++i) corvo::log::debug(text, i);
        ::_exit(0);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    if (!WIFSTOPPED(status)) return calls;
    ::ptrace(PTRACE_SETOPTIONS, child, nullptr, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL);
    for (;;) {
        if (::ptrace(PTRACE_SYSCALL, child, nullptr, nullptr) != 0) break;
        if (::waitpid(child, &status, 0) != child || WIFEXITED(status) || WIFSIGNALED(status)) break;
        __ptrace_syscall_info info{};
        ::ptrace(PTRACE_GET_SYSCALL_INFO, child, sizeof info, &info);
        if (info.op == PTRACE_SYSCALL_INFO_ENTRY) ++calls[static_cast<long>(info.entry.nr)];
    }
    calls.erase(SYS_exit_group);
    calls.erase(SYS_rt_sigprocmask);  // the end of raise() and of the process
    calls.erase(SYS_gettid);
    calls.erase(SYS_tgkill);
    return calls;
}

#define NEEDS_BARE_SYSTEM_CALLS()                    \
    if (corvo::test::kSanitized || under_valgrind()) \
    GTEST_SKIP() << "the checker's own system calls would be counted"

void expect_one_stat_and_one_write(const std::map<long, int>& calls) {
    int stats = 0;
    int writes = 0;
    int others = 0;
    for (const auto& [number, count] : calls) {
        if (number == SYS_newfstatat || number == SYS_statx
#ifdef SYS_stat
            || number == SYS_stat
#endif
        )
            stats += count;
        else if (number == SYS_write || number == SYS_writev)
            writes += count;
        else
            others += count;
    }
    EXPECT_EQ(stats, kLines);
    EXPECT_EQ(writes, kLines);
    EXPECT_EQ(others, 0);
}

TEST_F(LogCost, LineIsOneStatAndOneWrite) {
    NEEDS_BARE_SYSTEM_CALLS();
    expect_one_stat_and_one_write(calls_of_lines("a line of the usual length "));
}

TEST_F(LogCost, LongLineIsOneStatAndOneWriteToo) {
    NEEDS_BARE_SYSTEM_CALLS();
    expect_one_stat_and_one_write(calls_of_lines(std::string(20000, 'x')));
}

}  // namespace
