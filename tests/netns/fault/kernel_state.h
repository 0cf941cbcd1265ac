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
    // The bodies of the kernel's own messages, by section and line; not compared.
    std::map<std::string, std::map<std::string, std::string>> messages;

    static KernelState now();
    bool operator==(const KernelState& other) const { return sections == other.sections; }

    // What `later` has more ("+") and less ("-").
    std::string difference(const KernelState& later) const;
    // The lines of a section that `other` does not have.
    std::vector<std::string> beyond(const KernelState& other, const std::string& section) const;
};

// Brings the kernel from `now` back to `base`, as far as that takes links that are too many, flags,
// addresses, routes, rules, queueing and conditions: in this process, since a test does it before each of its
// steps.
void restore(const KernelState& base, const KernelState& now);

}  // namespace corvo::test
