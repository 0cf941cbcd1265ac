// The life of a probe's thread, once for all probes.
//
// Who may include this: src/monitor only (and its tests, which shorten the periods).
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <thread>

namespace corvo {

// How long each probe waits between two cycles. What the library exports runs at these values; only the
// tests, which are linked with the objects themselves, write them.
struct Periods {
    std::atomic<std::chrono::milliseconds> neigh{std::chrono::milliseconds(2000)};
    std::atomic<std::chrono::milliseconds> ping{std::chrono::milliseconds(3000)};
    std::atomic<std::chrono::milliseconds> queue{std::chrono::milliseconds(2000)};
};
extern Periods periods;

// Starts `body` on a thread of its own with `running` set. 0, or the code of the failure with `running` reset
// and `slot` still null.
int start_worker(std::atomic<bool>& running, std::thread*& slot, std::function<void()> body);

// Clears `running`, wakes the thread from its wait, joins and frees it. A null slot is left alone.
void end_worker(std::atomic<bool>& running, std::thread*& slot) noexcept;

// The worker's loop: a cycle, a wait, until `running` is cleared. What a cycle throws ends that cycle only.
void run_cycles(const std::atomic<bool>& running, const std::atomic<std::chrono::milliseconds>& period,
                const std::function<void()>& cycle);

}  // namespace corvo
