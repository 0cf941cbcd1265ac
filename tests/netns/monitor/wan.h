// A WAN link of a test: a veth device whose neighbour entries, carrier and condition the test moves.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "corvosetup/neigh.h"
#include "corvosetup/route.h"
#include "monitor/cycle.h"
#include "netns/monitor/in_process_services.h"
#include "support/no_descriptors.h"
#include "support/recorder.h"
#include "support/sandbox.h"

namespace corvo::test {

// Device "ethN" (peer "gwN", both here) with 192.0.N.2/24, gateway 192.0.N.1, condition PORTN.
class Wan {
public:
    explicit Wan(int number, const std::string& dev = {});

    const std::string dev, peer, address, gateway, port;
    const int number;

    // Puts the gateway's neighbour entry into a state ("reachable", "stale", "failed", ...).
    void neighbour(const std::string& state) const;
    void no_neighbour() const;

    // Takes the carrier away from the device and gives it back; waits until the kernel shows it. An entry in
    // state PERMANENT outlives that.
    void carrier(bool on) const;

    std::unique_ptr<ProcNeigh> probe(bool is_wan = true) const;
};

// What is installed in the monitors' table: the gateway of each next hop.
std::vector<std::string> default_gateways();

// Shortens the probes' periods while it lives.
class ShortPeriods {
public:
    explicit ShortPeriods(std::chrono::milliseconds period);
    ~ShortPeriods();
};

// InProcessServices, one WAN, and nothing left over from the test before.
class MonitorTest : public testing::Test {
protected:
    MonitorTest();
    ~MonitorTest() override;

    // Lines of the log that are about the monitor itself: without other areas' traces.
    static std::vector<std::string> texts();

    Recorder conntrack{"/usr/sbin/conntrack"};
    std::unique_ptr<InProcessServices> services = std::make_unique<InProcessServices>();
    Wan wan{1};
};

}  // namespace corvo::test
