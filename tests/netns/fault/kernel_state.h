// What the kernel holds of a test's machine, as texts that two moments can be compared by.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace corvo::test {

// Sorted lines by section: "link", "addr", "rule", "rule6", "route", "route6", "qdisc", "class", "filter",
// "condition". Left out is what changes by itself: indexes, counters, times, flags of the carrier.
struct KernelState {
    std::map<std::string, std::vector<std::string>> sections;

    static KernelState now();
    bool operator==(const KernelState&) const = default;

    // What `later` has more ("+") and less ("-").
    std::string difference(const KernelState& later) const;
};

}  // namespace corvo::test
