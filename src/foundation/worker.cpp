#include "foundation/worker.h"

#include <poll.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <system_error>

#include "foundation/guard.h"
#include "foundation/no_cancel.h"

namespace corvo {

namespace {

thread_local const StopSignal* current = nullptr;

// Milliseconds for poll: rounded up, so that a wait never ends before its deadline.
int poll_timeout(std::chrono::steady_clock::time_point deadline) {
    const auto left = deadline - std::chrono::steady_clock::now();
    const auto ms = std::chrono::ceil<std::chrono::milliseconds>(left).count();
    return static_cast<int>(std::clamp<std::int64_t>(ms, 0, INT_MAX));
}

constexpr std::chrono::milliseconds kRefusedPause{50};

}  // namespace

StopSignal::StopSignal() : event_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (!event_) throw std::system_error(errno, std::generic_category(), "eventfd");
}

const StopSignal& StopSignal::never() {
    // Not destroyed: threads may ask while the process ends.
    static const auto* const signal = new StopSignal(Never{});
    return *signal;
}

void StopSignal::request() {
    if (!event_) return;
    requested_ = true;
    const std::uint64_t one = 1;
    // The counter is never read, so the only refusal is an overflow, and then the request already stands.
    [[maybe_unused]] const auto written = ::write(event_.get(), &one, sizeof one);
}

bool StopSignal::wait_for(std::chrono::milliseconds time) const {
    const auto deadline = std::chrono::steady_clock::now() + time;
    while (!requested_) {
        const auto wake = wait_readable(-1, deadline);
        if (wake != Wake::kError) return wake == Wake::kStopped;
        // poll() refuses when the kernel has no memory, or when somebody lowered the limit of descriptors
        // below two. A cycle that does not wait would take the whole processor, so it sleeps in steps.
        const auto now = std::chrono::steady_clock::now();
        if (now >= deadline) break;
        std::this_thread::sleep_for(std::min<std::chrono::nanoseconds>(kRefusedPause, deadline - now));
    }
    return requested_;
}

StopSignal::Wake StopSignal::wait_readable(int other, std::chrono::steady_clock::time_point deadline) const {
    const bool forever = deadline == std::chrono::steady_clock::time_point::max();
    pollfd wait[2] = {{event_.get(), POLLIN, 0},
                      {other, POLLIN, 0}};  // poll passes over a negative descriptor
    for (;;) {
        const int ready = ::poll(wait, 2, forever ? -1 : poll_timeout(deadline));
        if (ready < 0 && errno != EINTR) return Wake::kError;
        if (ready > 0) return wait[0].revents != 0 ? Wake::kStopped : Wake::kReady;
        if (!forever && std::chrono::steady_clock::now() >= deadline) return Wake::kTimeout;
    }
}

StopSignal::Wake StopSignal::wait_readable(int other) const {
    return wait_readable(other, std::chrono::steady_clock::time_point::max());
}

Worker::Worker(std::shared_ptr<StopSignal> stop, std::function<void()> body)
    : std::thread([stop, body = std::move(body)] {
          current = stop.get();
          guarded_void(body);
          current = nullptr;
      }),
      stop_(std::move(stop)) {}

std::thread* Worker::start(std::function<void()> body) {
    return new Worker(std::make_shared<StopSignal>(), std::move(body));
}

void Worker::request_stop(std::thread* slot) {
    if (slot != nullptr) static_cast<Worker*>(slot)->stop_->request();
}

void Worker::stop(std::thread*& slot) {
    const NoCancel no_cancel;  // a join that is left ends the process: the thread would be destroyed running
    std::unique_ptr<Worker> worker(static_cast<Worker*>(slot));
    if (!worker) return;
    worker->stop_->request();
    if (worker->get_id() == std::this_thread::get_id()) {
        worker->detach();
    } else if (worker->joinable()) {
        worker->join();
    }
    slot = nullptr;
}

const StopSignal& Worker::current_stop() {
    return current != nullptr ? *current : StopSignal::never();
}

}  // namespace corvo
