// A lock for things that take seconds: whoever waits for it still hears a stop request.
//
// Who may include this: nexthop and monitor.
#pragma once

#include <sys/types.h>

#include <mutex>

namespace corvo {

// A semaphore of one in an eventfd. Only for objects of static storage: it is never closed. A forked child
// would share its parent's semaphore, and gets one of its own instead.
class TurnLock {
public:
    constexpr TurnLock() = default;
    TurnLock(const TurnLock&) = delete;
    TurnLock& operator=(const TurnLock&) = delete;

private:
    friend class Turn;
    int fd();  // -1: the process has no descriptor left

    std::mutex lock_;
    pid_t owner_ = 0;
    int fd_ = -1;
};

// Holds a TurnLock while it lives. Waits for it; on a Worker no longer than until the stop request.
class Turn {
public:
    enum class State { kHeld, kStopped, kBroken };

    explicit Turn(TurnLock& lock);
    ~Turn();
    Turn(const Turn&) = delete;
    Turn& operator=(const Turn&) = delete;

    State state() const { return state_; }

private:
    int fd_;
    State state_ = State::kBroken;
};

}  // namespace corvo
