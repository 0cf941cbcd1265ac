// The command runner and the workers that wait for it.
#include "foundation/command.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <thread>

#include "cancellation.h"
#include "fake_process.h"
#include "foundation/worker.h"
#include "log_fixture.h"
#include "valgrind.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

class RunnerTest : public ::testing::Test {
protected:
    ~RunnerTest() override { fake_process::reset(); }

    void wait_for(const std::string& path) const {
        for (int i = 0; i < 2000 && !std::filesystem::exists(path); ++i) std::this_thread::sleep_for(5ms);
    }
    static bool no_child_left() { return ::waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD; }

    TempDir dir_;
};

TEST_F(RunnerTest, GivesTheWaitStatus) {
    EXPECT_EQ(corvo::run_command({"/bin/true"}), 0);
    EXPECT_EQ(WEXITSTATUS(corvo::run_command({"/bin/sh", "-c", "exit 7"})), 7);
    EXPECT_EQ(WTERMSIG(corvo::run_command({"/bin/sh", "-c", "kill -9 $$"})), 9);
    EXPECT_EQ(WEXITSTATUS(corvo::run_shell("exit 4")), 4);
}

TEST_F(RunnerTest, MissingToolIsMinusOne) {
    NEEDS_SPAWN_TO_TELL_FAILED_EXECS();
    EXPECT_EQ(corvo::run_command({"/no/such/tool"}), -1);
    EXPECT_EQ(corvo::run_command({}), -1);
    std::string output;
    EXPECT_FALSE(corvo::capture_command({"/no/such/tool"}, output));
}

TEST_F(RunnerTest, ToolWithoutASlashIsFoundByPath) {
    EXPECT_EQ(corvo::run_command({"true"}), 0);
}

TEST_F(RunnerTest, ArgumentsAreNotInterpreted) {
    std::string output;
    EXPECT_TRUE(corvo::capture_command({"/bin/echo", "a;id", "$(id)", "`id`", "x y", "*"}, output));
    EXPECT_EQ(output, "a;id $(id) `id` x y *\n");
}

TEST_F(RunnerTest, ScriptWithoutAFirstLineIsRunByTheShell) {
    NEEDS_SPAWN_TO_TELL_FAILED_EXECS();
    const std::string script = dir_ / "script";
    put(script, "echo got \"$1\" > " + (dir_ / "out") + "\n");
    std::filesystem::permissions(script, std::filesystem::perms::owner_all);
    EXPECT_EQ(corvo::run_command({script, "word"}), 0);
    EXPECT_EQ(content_of(dir_ / "out"), "got word\n");
}

TEST_F(RunnerTest, ChildGetsNoDescriptorOfOurs) {
    const int leaky = ::open("/dev/null", O_RDONLY);  // without close-on-exec, as a daemon may open one
    std::string output;
    EXPECT_TRUE(corvo::capture_shell("ls /proc/self/fd | wc -l", output));
    ::close(leaky);
    EXPECT_LE(std::stoi(output), 4) << output;  // 0, 1, 2 and that of ls
}

TEST_F(RunnerTest, ChildStartsWithDefaultSignals) {
    const auto old = ::signal(SIGPIPE, SIG_IGN);
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    std::string output;
    EXPECT_TRUE(corvo::capture_shell("grep -E 'SigBlk|SigIgn' /proc/self/status", output));
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    ::signal(SIGPIPE, old);
    // The two signals that the C library keeps to itself stay ignored in every child that it spawns.
    EXPECT_EQ(output, "SigBlk:\t0000000000000000\nSigIgn:\t0000000180000000\n");
}

TEST_F(RunnerTest, OutputCanBeThrownAway) {
    // Standard output of the test goes to a file meanwhile.
    const int saved = ::dup(1);
    const int file = ::open((dir_ / "stdout").c_str(), O_CREAT | O_WRONLY, 0600);
    ::dup2(file, 1);
    corvo::run_command_quiet({"/bin/sh", "-c", "echo quiet; echo quiet >&2"});
    corvo::run_command({"/bin/sh", "-c", "echo loud"});
    ::dup2(saved, 1);
    ::close(saved);
    ::close(file);
    EXPECT_EQ(content_of(dir_ / "stdout"), "loud\n");
}

TEST_F(RunnerTest, StoppedWorkerEndsTheCommandThatItReads) {
    std::string output;
    std::thread* thread = corvo::Worker::start(
        [&] { corvo::capture_shell("echo first; touch " + (dir_ / "up") + "; sleep 100 | cat", output); });
    wait_for(dir_ / "up");
    const auto start = Clock::now();
    corvo::Worker::stop(thread);
    EXPECT_LT(Clock::now() - start, 10s);
    EXPECT_TRUE(no_child_left());
}

TEST_F(RunnerTest, ThreadCancelledAsItsCommandEndsLeavesNoChild) {
    NEEDS_CANCELLATION();
    fake_process::cancel_at_wait();
    std::atomic<int> status{-2};
    std::thread daemon_thread([&] {
        status = corvo::run_command({"/bin/true"});
        pthread_testcancel();
        ADD_FAILURE() << "the cancellation was lost";
    });
    daemon_thread.join();
    EXPECT_EQ(status, 0);
    EXPECT_TRUE(no_child_left());
}

// ---- waiting for a child, with a descriptor of the process and, where the kernel or the process has none
// left, by looking again and again

enum class By { kDescriptor, kLooking };

class WaitingTest : public RunnerTest, public ::testing::WithParamInterface<By> {
protected:
    WaitingTest() {
        if (GetParam() == By::kLooking) fake_process::refuse_process_descriptors();
    }
};

TEST_P(WaitingTest, GivesTheWaitStatus) {
    EXPECT_EQ(corvo::run_command({"/bin/true"}), 0);
    EXPECT_EQ(WEXITSTATUS(corvo::run_command({"/bin/sh", "-c", "sleep 0.05; exit 7"})), 7);
    EXPECT_EQ(WTERMSIG(corvo::run_command({"/bin/sh", "-c", "kill -9 $$"})), 9);
    EXPECT_TRUE(no_child_left());
}

TEST_P(WaitingTest, ChildWhoseStatusTheDaemonTakesCountsAsSuccessful) {
    const auto old = ::signal(SIGCHLD, SIG_IGN);
    EXPECT_EQ(corvo::run_command({"/bin/sh", "-c", "sleep 0.05; exit 7"}), 0);
    ::signal(SIGCHLD, old);
}

TEST_P(WaitingTest, LimitEndsTheWholeGroup) {
    const auto start = Clock::now();
    EXPECT_EQ(WTERMSIG(corvo::run_command_within({"/bin/sh", "-c", "sleep 100 | sleep 100"}, 200ms)),
              SIGKILL);
    EXPECT_LT(Clock::now() - start, 10s);
    EXPECT_EQ(corvo::run_command_within({"/bin/true"}, 20s), 0);
}

TEST_P(WaitingTest, StoppedWorkerEndsTheCommandThatItWaitsFor) {
    std::atomic<int> status{-2};
    std::thread* thread = corvo::Worker::start([&] {
        status = corvo::run_command({"/bin/sh", "-c", "touch " + (dir_ / "up") + "; sleep 100"});
    });
    wait_for(dir_ / "up");
    const auto start = Clock::now();
    corvo::Worker::stop(thread);
    EXPECT_LT(Clock::now() - start, 10s);
    EXPECT_EQ(WTERMSIG(status.load()), SIGKILL);
    EXPECT_TRUE(no_child_left());
}

TEST_P(WaitingTest, StopDoesNotCutACommandWithALimitShort) {
    std::atomic<int> status{-2};
    std::thread* thread = corvo::Worker::start([&] {
        status = corvo::run_command_within({"/bin/sh", "-c", "touch " + (dir_ / "up") + "; sleep 0.3"}, 20s);
    });
    wait_for(dir_ / "up");
    corvo::Worker::stop(thread);
    EXPECT_EQ(status, 0);
}

TEST_P(WaitingTest, CancelledThreadLeavesNoChildAndNoDescriptor) {
    NEEDS_CANCELLATION();
    const int before = open_descriptors();
    std::thread daemon_thread([&] {
        std::string output;
        corvo::capture_shell("touch " + (dir_ / "up") + "; sleep 100", output);
    });
    const auto id = daemon_thread.native_handle();
    wait_for(dir_ / "up");
    const auto start = Clock::now();
    pthread_cancel(id);
    daemon_thread.join();
    EXPECT_LT(Clock::now() - start, 10s);
    EXPECT_TRUE(no_child_left());
    EXPECT_EQ(open_descriptors(), before);
}

INSTANTIATE_TEST_SUITE_P(Child, WaitingTest, ::testing::Values(By::kDescriptor, By::kLooking),
                         [](const auto& info) {
                             return info.param == By::kDescriptor ? "Descriptor" : "Looking";
                         });

// ---- texts

TEST(Words, AreCutAtBlanksOnly) {
    EXPECT_EQ(corvo::split_words("  a b\t c;d  "), (std::vector<std::string>{"a", "b", "c;d"}));
    EXPECT_TRUE(corvo::split_words("  ").empty());
}

// ---- workers

TEST(WorkerTest, StopWakesASleepingWorkerAtOnce) {
    std::atomic<bool> up{false};
    std::atomic<bool> stopped{false};
    std::thread* thread = corvo::Worker::start([&] {
        up = true;
        stopped = corvo::Worker::current_stop().wait_for(100s);
    });
    while (!up) std::this_thread::sleep_for(1ms);
    const auto start = Clock::now();
    corvo::Worker::stop(thread);
    EXPECT_LT(Clock::now() - start, 5s);
    EXPECT_TRUE(stopped);
    EXPECT_EQ(thread, nullptr);
}

TEST(WorkerTest, StopOfNothingIsNothing) {
    std::thread* none = nullptr;
    corvo::Worker::stop(none);
    corvo::Worker::request_stop(none);
}

TEST(WorkerTest, WaitEndsAtItsDeadlineAndNotBefore) {
    const auto start = Clock::now();
    EXPECT_FALSE(corvo::Worker::current_stop().wait_for(50ms));
    EXPECT_GE(Clock::now() - start, 50ms);
}

// With a limit below its two descriptors poll() refuses every call.
TEST(WorkerTest, WaitThatTheKernelRefusesIsSleptThroughAndStillStopped) {
    rlimit before{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
    corvo::StopSignal stop;
    const rlimit none{0, before.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
    const auto refused = stop.wait_readable(-1);
    auto begin = Clock::now();
    const bool early = stop.wait_for(120ms);
    const auto waited = Clock::now() - begin;
    stop.request();
    begin = Clock::now();
    const bool stopped = stop.wait_for(10s);
    const auto to_stop = Clock::now() - begin;
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);
    EXPECT_EQ(refused, corvo::StopSignal::Wake::kError);
    EXPECT_FALSE(early);
    EXPECT_GE(waited, 120ms);
    EXPECT_TRUE(stopped);
    EXPECT_LT(to_stop, 1s);
}

TEST(WorkerTest, ReadableDescriptorAndStopAreToldApart) {
    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    corvo::StopSignal signal;
    using Wake = corvo::StopSignal::Wake;
    EXPECT_EQ(signal.wait_readable(ends[0], Clock::now() + 10ms), Wake::kTimeout);
    ASSERT_EQ(::write(ends[1], "x", 1), 1);
    EXPECT_EQ(signal.wait_readable(ends[0]), Wake::kReady);
    signal.request();
    EXPECT_EQ(signal.wait_readable(ends[0]), Wake::kStopped);
    EXPECT_TRUE(signal.requested());
    ::close(ends[0]);
    ::close(ends[1]);
}

TEST(WorkerTest, ExceptionOutOfABodyEndsTheThreadOnly) {
    std::thread* thread = corvo::Worker::start([] { throw 5; });
    corvo::Worker::stop(thread);
    thread = corvo::Worker::start([] { throw std::runtime_error("x"); });
    corvo::Worker::stop(thread);
}

TEST(WorkerTest, WorkerMayStopItself) {
    struct Slot {
        std::atomic<bool> ready{false};
        std::thread* thread = nullptr;
        std::atomic<bool> done{false};
    };
    static Slot slot;
    slot.thread = corvo::Worker::start([] {
        while (!slot.ready) std::this_thread::yield();
        corvo::Worker::stop(slot.thread);
        EXPECT_TRUE(corvo::Worker::current_stop().requested());
        slot.done = true;
    });
    slot.ready = true;
    while (!slot.done) std::this_thread::sleep_for(1ms);
    EXPECT_EQ(slot.thread, nullptr);
}

TEST(WorkerTest, CancelledThreadFinishesItsStopFirst) {
    NEEDS_CANCELLATION();
    std::thread* worker = corvo::Worker::start([] {
        corvo::Worker::current_stop().wait_for(100s);
        std::this_thread::sleep_for(20ms);  // the other thread waits in its join
    });
    std::thread daemon_thread([&] {
        pthread_cancel(pthread_self());
        corvo::Worker::stop(worker);
        pthread_testcancel();
        ADD_FAILURE() << "the cancellation was lost";
    });
    daemon_thread.join();
    EXPECT_EQ(worker, nullptr);
}

TEST(WorkerTest, StoppedWorkersLeaveNoDescriptor) {
    corvo::Worker::current_stop();
    const int before = open_descriptors();
    for (int i = 0; i < 20; ++i) {
        std::thread* thread = corvo::Worker::start([] { corvo::Worker::current_stop().wait_for(10s); });
        corvo::Worker::stop(thread);
    }
    EXPECT_EQ(open_descriptors(), before);
}

}  // namespace
