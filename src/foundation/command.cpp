#include "foundation/command.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "foundation/fd.h"
#include "foundation/no_cancel.h"
#include "foundation/worker.h"

extern char** environ;

namespace corvo {

namespace {

using Deadline = std::chrono::steady_clock::time_point;
constexpr Deadline kNoDeadline = Deadline::max();

enum class Output { kInherit, kDiscard, kPipe };

void end_group(pid_t pid) {
    ::kill(-pid, SIGKILL);
}

// The wait status of a child that has ended or is about to. A daemon that ignores SIGCHLD has the kernel take
// the status away; the command then counts as successful.
int collect(pid_t pid) {
    const NoCancel no_cancel;  // left here, the child would stay behind as a zombie
    int status = 0;
    pid_t got = -1;
    do {
        got = ::waitpid(pid, &status, 0);
    } while (got < 0 && errno == EINTR);
    return got == pid ? status : 0;
}

// A child that runs. Its owner either waits for it or ends it: a cancelled thread leaves no child behind.
class Child {
public:
    Child() = default;
    Child(pid_t pid, UniqueFd output) : pid_(pid), output_(std::move(output)) {}
    Child(Child&& other) noexcept : pid_(std::exchange(other.pid_, -1)), output_(std::move(other.output_)) {}
    Child& operator=(Child&&) = delete;
    ~Child() {
        if (pid_ <= 0) return;
        end_group(pid_);
        collect(pid_);
    }

    bool runs() const { return pid_ > 0; }
    int output() const { return output_.get(); }
    void close_output() { output_.reset(); }
    void end() const { end_group(pid_); }

    // Waits until it has ended, ending it when `stop` is requested or the deadline passes.
    int wait(const StopSignal& stop, Deadline deadline) {
        const UniqueFd process(static_cast<int>(::syscall(SYS_pidfd_open, pid_, 0)));
        const auto wake =
            process ? stop.wait_readable(process.get(), deadline) : look_until_ended(stop, deadline);
        if (wake == StopSignal::Wake::kStopped || wake == StopSignal::Wake::kTimeout) end();
        return collect(std::exchange(pid_, -1));
    }

private:
    // For kernels without descriptors of processes, and processes without descriptors left.
    StopSignal::Wake look_until_ended(const StopSignal& stop, Deadline deadline) const {
        for (;;) {
            siginfo_t info{};
            const int looked = ::waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG | WNOWAIT);
            if ((looked == 0 && info.si_pid != 0) || (looked < 0 && errno != EINTR))
                return StopSignal::Wake::kReady;
            if (stop.wait_for(std::chrono::milliseconds(10))) return StopSignal::Wake::kStopped;
            if (std::chrono::steady_clock::now() >= deadline) return StopSignal::Wake::kTimeout;
        }
    }

    pid_t pid_ = -1;
    UniqueFd output_;  // the read end of its standard output, with Output::kPipe
};

// Attributes and file actions of one spawn.
class SpawnPlan {
public:
    SpawnPlan() {
        posix_spawnattr_init(&attributes_);
        posix_spawn_file_actions_init(&actions_);
        // The child starts with what a shell would give it, whatever the daemon blocks or ignores, and leads
        // a process group, so that a pipeline can be ended as a whole.
        sigset_t none;
        sigset_t all;
        sigemptyset(&none);
        sigfillset(&all);
        posix_spawnattr_setsigmask(&attributes_, &none);
        posix_spawnattr_setsigdefault(&attributes_, &all);
        posix_spawnattr_setpgroup(&attributes_, 0);
        posix_spawnattr_setflags(&attributes_,
                                 POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);
    }
    ~SpawnPlan() {
        posix_spawn_file_actions_destroy(&actions_);
        posix_spawnattr_destroy(&attributes_);
    }
    SpawnPlan(const SpawnPlan&) = delete;
    SpawnPlan& operator=(const SpawnPlan&) = delete;

    void discard_output() {
        posix_spawn_file_actions_addopen(&actions_, 1, "/dev/null", O_WRONLY, 0);
        posix_spawn_file_actions_adddup2(&actions_, 1, 2);
    }
    void output_to(int fd) { posix_spawn_file_actions_adddup2(&actions_, fd, 1); }

    // Ours are close-on-exec; the daemon's and the log stream's may not be.
    void close_others() { posix_spawn_file_actions_addclosefrom_np(&actions_, 3); }

    // The child's id, or -1 with errno set.
    pid_t spawn(const std::vector<std::string>& argv) const {
        std::vector<char*> words;
        words.reserve(argv.size() + 1);
        for (const auto& word : argv) words.push_back(const_cast<char*>(word.c_str()));
        words.push_back(nullptr);
        pid_t pid = -1;
        errno = ::posix_spawnp(&pid, words[0], &actions_, &attributes_, words.data(), environ);
        return errno == 0 ? pid : -1;
    }

private:
    posix_spawnattr_t attributes_;
    posix_spawn_file_actions_t actions_;
};

Child spawn(const std::vector<std::string>& argv, Output output) {
    if (argv.empty()) return {};
    SpawnPlan plan;
    UniqueFd read_end;
    UniqueFd write_end;
    if (output == Output::kPipe) {
        int ends[2];
        if (::pipe2(ends, O_CLOEXEC) != 0) return {};
        read_end.reset(ends[0]);
        write_end.reset(ends[1]);
        plan.output_to(ends[1]);
    } else if (output == Output::kDiscard) {
        plan.discard_output();
    }
    plan.close_others();
    pid_t pid = plan.spawn(argv);
    if (pid < 0 && errno == ENOEXEC) {
        // A script without a "#!" line, which a shell would run itself.
        std::vector<std::string> script{"/bin/sh"};
        script.insert(script.end(), argv.begin(), argv.end());
        pid = plan.spawn(script);
    }
    return pid > 0 ? Child(pid, std::move(read_end)) : Child();
}

int run(const std::vector<std::string>& argv, Output output, const StopSignal& stop, Deadline deadline) {
    Child child = spawn(argv, output);
    return child.runs() ? child.wait(stop, deadline) : -1;
}

std::vector<std::string> shell_argv(const std::string& text) {
    return {"/bin/sh", "-c", text};
}

// One read into `output`; false at the end of the stream.
bool read_piece(int fd, std::string& output) {
    char piece[4096];
    ssize_t got = -1;
    do {
        got = ::read(fd, piece, sizeof piece);
    } while (got < 0 && errno == EINTR);
    if (got <= 0) return false;
    output.append(piece, static_cast<std::size_t>(got));
    return true;
}

bool capture(const std::vector<std::string>& argv, std::string& output, std::size_t limit, bool first_line) {
    output.clear();
    Child child = spawn(argv, Output::kPipe);
    if (!child.runs()) return false;
    const StopSignal& stop = Worker::current_stop();
    while (output.size() <= limit) {
        if (stop.wait_readable(child.output()) != StopSignal::Wake::kReady) {
            child.end();
            break;
        }
        const std::size_t had = output.size();
        if (!read_piece(child.output(), output)) break;
        const auto end = first_line ? output.find('\n', had) : std::string::npos;
        if (end != std::string::npos) {
            output.resize(end + 1);
            break;
        }
    }
    if (output.size() > limit) output.resize(limit);
    child.close_output();  // who still writes gets SIGPIPE, as from a reader that has gone
    child.wait(stop, kNoDeadline);
    return true;
}

}  // namespace

int run_command(const std::vector<std::string>& argv) {
    return run(argv, Output::kInherit, Worker::current_stop(), kNoDeadline);
}

int run_command_quiet(const std::vector<std::string>& argv) {
    return run(argv, Output::kDiscard, Worker::current_stop(), kNoDeadline);
}

int run_command_within(const std::vector<std::string>& argv, std::chrono::milliseconds limit) {
    return run(argv, Output::kInherit, StopSignal::never(), std::chrono::steady_clock::now() + limit);
}

int run_shell(const std::string& text) {
    return run_command(shell_argv(text));
}

bool capture_command(const std::vector<std::string>& argv, std::string& output, std::size_t limit) {
    return capture(argv, output, limit, false);
}

bool capture_shell(const std::string& text, std::string& output, std::size_t limit) {
    return capture(shell_argv(text), output, limit, false);
}

bool capture_shell_line(const std::string& text, std::string& line, std::size_t limit) {
    return capture(shell_argv(text), line, limit, true);
}

std::vector<std::string> split_words(std::string_view text) {
    std::vector<std::string> words;
    std::size_t at = 0;
    while ((at = text.find_first_not_of(" \t", at)) != std::string_view::npos) {
        const auto end = std::min(text.find_first_of(" \t", at), text.size());
        words.emplace_back(text.substr(at, end - at));
        at = end;
    }
    return words;
}

}  // namespace corvo
