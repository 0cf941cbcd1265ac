// The one sequence that creates and deletes devices.
#include "tunnel/device.h"

#include "fake_device.h"

using corvo::test::FakeDevice;
using corvo::tunnel::DeviceSetup;
using testing::ElementsAre;

namespace {

class DeviceSetupTest : public FakeDevice {};

TEST_F(DeviceSetupTest, RecordThatCannotBeFilledEndsCreationAndDeletion) {
    int edits = 0;
    const DeviceSetup link{
        .dev = "tun3",
        .ifindex = [] { return 12; },
        .fill_record = [] { return -3001; },
        .edit_name = "edit_ipip_tunnel()",
        .edit = [&](int) { return ++edits; },
        .address = {"setup_tun_ipv4()", [] { return 0; }},
        .set_flag = [](unsigned) { return 0; },
    };
    EXPECT_EQ(link.run(0), -3001);
    EXPECT_EQ(link.run(1), -3001);
    EXPECT_EQ(edits, 0);
    EXPECT_THAT(log(),
                ElementsAre("[ERROR] dump2struct(): tun3 failed.", "[ERROR] dump2struct(): tun3 failed."));
}

}  // namespace
