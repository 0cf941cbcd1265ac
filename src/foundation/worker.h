// The one way this library runs a thread.
//
// Who may include this: the areas with threads (nexthop, monitor), and the command runner.
//
// A worker has a stop descriptor. Everything it waits for is waited for together with that descriptor, so
// that stopping is: signal, join. Threads are never cancelled: a cancelled thread leaves streams, sockets and
// children behind, and unwinding it through a destructor ends the process.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <thread>

#include "foundation/fd.h"

namespace corvo {

// A stop request that can be polled. Threading: all members may be called from any thread.
class StopSignal {
public:
    StopSignal();  // throws std::system_error when there is no descriptor left

    void request();
    bool requested() const { return requested_; }

    // Readable from the request on; for poll() beside a socket.
    int fd() const { return event_.get(); }

    // Sleeps; true when the stop was requested before or meanwhile (returns at once then).
    bool wait_for(std::chrono::milliseconds time) const;

    // Waits until `other` is readable, the stop was requested or the deadline passed. Interrupted waits go on
    // with the remaining time of the monotonic clock. kError: poll() refused; at once, so the caller paces
    // itself.
    enum class Wake { kReady, kStopped, kTimeout, kError };
    Wake wait_readable(int other, std::chrono::steady_clock::time_point deadline) const;
    Wake wait_readable(int other) const;  // no deadline

    // One that nobody requests.
    static const StopSignal& never();

private:
    struct Never {};
    explicit StopSignal(Never) {}  // needs no descriptor

    UniqueFd event_;
    std::atomic<bool> requested_ = false;
};

// Runs `body` on a thread of its own. The exported classes keep the thread in a `std::thread*` field; what
// that points to is always a Worker, which is why only start() fills such a field and only stop() empties it.
class Worker final : public std::thread {
public:
    // Starts the thread. Throws std::system_error or std::bad_alloc; nothing is left behind then.
    static std::thread* start(std::function<void()> body);

    // Ends the thread in `slot`: requests the stop, joins unless the thread is the calling one (which is then
    // detached and keeps what it needs), deletes it and sets `slot` to null. A null slot is left alone. The
    // calling thread is not cancelled meanwhile.
    static void stop(std::thread*& slot);

    // Requests the stop of the thread in `slot` without waiting for it.
    static void request_stop(std::thread* slot);

    // The stop signal of the calling thread's worker; on a thread that no Worker runs, one that nobody
    // requests.
    static const StopSignal& current_stop();

private:
    Worker(std::shared_ptr<StopSignal> stop, std::function<void()> body);

    std::shared_ptr<StopSignal> stop_;  // shared with the thread, which may outlive this object when detached
};

}  // namespace corvo
