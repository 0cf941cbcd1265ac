// What the kernel that runs the tests can do.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "support/sandbox.h"

namespace corvo::test {

// Whether the kernel has a feature, found out by using it in a namespace that is thrown away (and, on the
// device testbed, after loading its module). Names: "dummy", "veth", "ifb", "ipip", "sit", "fou" (GUE ports),
// "ipip-gue", "sit-gue", "htb", "fq", "fq_codel", "netem", "ingress", "u32", "fw", "mirred", "bbr", "mptcp",
// "conntrack", "multiqueue", "nf_condition". `why` gets the kernel's refusal. Throws for a name that is not
// in this list. Each is tried once per process.
bool has_kernel_feature(const std::string& name, std::string* why = nullptr);

}  // namespace corvo::test

// Skips the TEST, with the reason in its output, on a machine whose kernel lacks the feature; on the device
// testbed, where everything has to be there, the test fails.
#define REQUIRE_KERNEL_FEATURE(name)                                             \
    do {                                                                         \
        std::string corvo_why;                                                   \
        if (!corvo::test::has_kernel_feature(name, &corvo_why)) {                \
            if (corvo::test::in_device_tier())                                   \
                FAIL() << "no kernel feature " << (name) << ": " << corvo_why;   \
            GTEST_SKIP() << "this kernel lacks " << (name) << ": " << corvo_why; \
        }                                                                        \
    } while (false)
