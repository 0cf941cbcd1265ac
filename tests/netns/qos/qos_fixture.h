// What the tests of WAN shaping start from.
#pragma once

#include <gtest/gtest.h>

#include "corvosetup/qos.h"
#include "shaping.h"
#include "support/kernel_feature.h"

namespace corvo::test {

inline constexpr const char* kMbit10 = "10000000";

class Qos : public testing::Test {
protected:
    LeakCheck leaks_;
};

// With an interface. This tier's kernels mostly lack fq, so that a tree ends at its first leaf.
class QosTree : public Qos {
protected:
    void SetUp() override {
        REQUIRE_KERNEL_FEATURE("htb");
        add_veth("eth1", "peer");
    }
    bool has_fq_ = has_kernel_feature("fq");
};

}  // namespace corvo::test
