#include "monitor/cycle.h"

#include <utility>

#include "foundation/guard.h"
#include "foundation/worker.h"

namespace corvo {

Periods periods;

int start_worker(std::atomic<bool>& running, std::thread*& slot, std::function<void()> body) {
    running = true;  // before the thread exists: a stop that comes first must not be undone by it
    const int result = guarded([&] {
        slot = Worker::start(std::move(body));
        return static_cast<int>(kOk);
    });
    if (result != kOk) running = false;
    return result;
}

void end_worker(std::atomic<bool>& running, std::thread*& slot) noexcept {
    running = false;
    guarded_void([&] { Worker::stop(slot); });
}

void run_cycles(const std::atomic<bool>& running, const std::atomic<std::chrono::milliseconds>& period,
                const std::function<void()>& cycle) {
    const StopSignal& stop = Worker::current_stop();
    while (running) {
        guarded_void(cycle);
        if (!running || stop.wait_for(period.load())) break;
    }
}

}  // namespace corvo
