// Waiting for something that another thread, a process or the kernel does.
#pragma once

#include <chrono>
#include <thread>

namespace corvo::test {

// Asks `condition` every few milliseconds (`pace`; more when asking is dear) until it holds or `limit` has
// passed; whether it holds. Never sleep for a fixed time in a test.
template <class Condition>
bool wait_until(Condition&& condition, std::chrono::milliseconds limit = std::chrono::seconds(10),
                std::chrono::milliseconds pace = std::chrono::milliseconds(5)) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= end) return condition();
        std::this_thread::sleep_for(pace);
    }
    return true;
}

}  // namespace corvo::test
