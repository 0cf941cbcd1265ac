// Waiting for something that another thread, a process or the kernel does.
#pragma once

#include <chrono>
#include <thread>

namespace corvo::test {

// Asks `condition` every few milliseconds until it holds or `limit` has passed; whether it holds. Never sleep
// for a fixed time in a test.
template <class Condition>
bool wait_until(Condition&& condition, std::chrono::milliseconds limit = std::chrono::seconds(10)) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= end) return condition();
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

}  // namespace corvo::test
