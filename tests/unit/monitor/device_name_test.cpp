#include "monitor/device_name.h"

#include <gtest/gtest.h>

namespace corvo {
namespace {

struct Case {
    const char* dev;
    bool point_to_point;
    const char* slave;
};
void PrintTo(const Case& name, std::ostream* out) {
    *out << '"' << name.dev << '"';
}

class DeviceName : public testing::TestWithParam<Case> {};

TEST_P(DeviceName, CutsAtTheFixedLengthOfTheMarkThatItContains) {
    EXPECT_EQ(is_point_to_point(GetParam().dev), GetParam().point_to_point);
    EXPECT_EQ(underlying_device(GetParam().dev), GetParam().slave);
}

INSTANTIATE_TEST_SUITE_P(Names, DeviceName,
                         testing::Values(Case{"ppp-wan0", true, "wan0"}, Case{"ds-lte", true, "lte"},
                                         Case{"me-x", true, "x"}, Case{"eth0", false, "eth0"},
                                         Case{"", false, ""}, Case{"ppp0", false, "ppp0"},
                                         Case{"ppp-", true, ""}, Case{"ds-", true, ""},
                                         // anywhere in the name, cut where a prefix would end
                                         Case{"vds-1", true, "-1"}, Case{"xme-eth0", true, "-eth0"},
                                         Case{"eth0ppp-", true, "ppp-"}, Case{"home-1", true, "e-1"},
                                         // the first mark of the list counts, not the first in the name
                                         Case{"ds-ppp-1", true, "pp-1"}, Case{"me-ds-1", true, "ds-1"},
                                         // a VLAN suffix stays
                                         Case{"ppp-eth0.100", true, "eth0.100"}));

}  // namespace
}  // namespace corvo
