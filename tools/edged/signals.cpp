#include "edged/signals.h"

#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <optional>
#include <system_error>

namespace edged {

namespace {

using Clock = std::chrono::steady_clock;

int checked(int fd) {
    if (fd < 0) throw std::system_error(errno, std::generic_category(), "signals");
    return fd;
}

int open_signals() {
    sigset_t set;
    sigemptyset(&set);
    for (const int number : {SIGTERM, SIGINT, SIGHUP}) sigaddset(&set, number);
    sigprocmask(SIG_BLOCK, &set, nullptr);
    return checked(::signalfd(-1, &set, SFD_CLOEXEC));
}

void wake(int fd) {
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = ::write(fd, &one, sizeof one);
}

int milliseconds_until(Clock::time_point end) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()).count();
    return static_cast<int>(std::clamp<long>(left, 0, 60000));
}

}  // namespace

Signals::Signals(std::chrono::seconds limit)
    : limit_(limit),
      signal_fd_(open_signals()),
      asked_fd_(checked(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))),
      end_fd_(checked(::eventfd(0, EFD_CLOEXEC))),
      thread_([this] { follow(); }) {}

Signals::~Signals() {
    wake(end_fd_);
    thread_.join();
    for (const int fd : {signal_fd_, asked_fd_, end_fd_}) ::close(fd);
}

Signals::Asked Signals::take() {
    const std::lock_guard hold(lock_);
    std::uint64_t count = 0;
    [[maybe_unused]] const ssize_t got = ::read(asked_fd_, &count, sizeof count);
    const Asked out = asked_;
    asked_.reload = false;
    return out;
}

void Signals::reload() {
    const std::lock_guard hold(lock_);
    asked_.reload = true;
    wake(asked_fd_);
}

void Signals::follow() {
    std::optional<Clock::time_point> end;
    pollfd wait[2] = {{signal_fd_, POLLIN, 0}, {end_fd_, POLLIN, 0}};
    for (;;) {
        ::poll(wait, 2, end ? milliseconds_until(*end) : -1);
        if (wait[1].revents != 0) return;
        if (end && Clock::now() >= *end) {
            std::fprintf(stderr, "corvo-edged: did not end within %ld s: giving up\n",
                         static_cast<long>(limit_.count()));
            ::_exit(1);
        }
        signalfd_siginfo info{};
        if (wait[0].revents == 0 || ::read(signal_fd_, &info, sizeof info) != sizeof info) continue;
        if (info.ssi_signo == SIGHUP) {
            reload();
            continue;
        }
        if (!end) end = Clock::now() + limit_;
        const std::lock_guard hold(lock_);
        asked_.stop = true;
        wake(asked_fd_);
    }
}

}  // namespace edged
