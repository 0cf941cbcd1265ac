#include "nexthop/turn.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

#include "foundation/worker.h"

namespace corvo {

int TurnLock::fd() {
    std::lock_guard hold(lock_);
    const pid_t process = ::getpid();
    if (fd_ >= 0 && owner_ == process) return fd_;
    if (fd_ >= 0) ::close(fd_);
    owner_ = process;
    fd_ = ::eventfd(1, EFD_CLOEXEC | EFD_NONBLOCK | EFD_SEMAPHORE);
    return fd_;
}

Turn::Turn(TurnLock& lock) : fd_(lock.fd()) {
    if (fd_ < 0) return;
    const StopSignal& stop = Worker::current_stop();
    for (;;) {
        const auto wake = stop.wait_readable(fd_);
        if (wake == StopSignal::Wake::kStopped) state_ = State::kStopped;
        if (wake != StopSignal::Wake::kReady) return;
        std::uint64_t token = 0;
        if (::read(fd_, &token, sizeof token) == sizeof token) {
            state_ = State::kHeld;
            return;
        }
        if (errno != EAGAIN && errno != EINTR) return;  // EAGAIN: another thread was faster
    }
}

Turn::~Turn() {
    if (state_ != State::kHeld) return;
    const std::uint64_t token = 1;
    [[maybe_unused]] const auto written = ::write(fd_, &token, sizeof token);
}

}  // namespace corvo
