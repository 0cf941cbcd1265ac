// Traffic for the shaping tests: flows at a fixed rate, and what arrives of them.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "support/net.h"

namespace corvo::test {

// UDP (or, with `esp`, bare ESP) packets from one namespace to another; null is the test's own.
struct Flow {
    std::string name;
    const Netns* from = nullptr;
    const Netns* to = nullptr;
    std::string source;  // address to send from, empty: the kernel's choice
    std::string target;
    std::uint16_t port = 0;
    std::uint16_t source_port = 0;
    int mark = 0;
    bool esp = false;
    double offered = 0;   // Mbit/s on the wire, Ethernet header included, as the kernel's shapers count
    double expected = 0;  // Mbit/s
    double measured = 0;  // filled in by run_traffic
};

// Sends all flows at once; after a second for the queues to fill, measures what arrives for `time`.
void run_traffic(std::vector<Flow>& flows, std::chrono::seconds time = std::chrono::seconds(8));

// Prints the table of expected and measured rates under `title` (tests/device/qos/plot draws it), and fails
// the test where they differ by more than a tenth.
void expect_rates(const std::string& title, const std::vector<Flow>& flows);

}  // namespace corvo::test
