// The regional link test over a regional link that the library itself has set up, between two sites.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>

#include "corvosetup/ping_test.h"
#include "corvosetup/rglink.h"
#include "foundation/json.h"
#include "support/kernel_feature.h"
#include "support/sandbox.h"
#include "support/services.h"

namespace corvo::test {
namespace {

using testing::Contains;
using testing::HasSubstr;

unsigned long sent_by(const std::string& dev) {
    return std::stoul(read_file("/sys/class/net/" + dev + "/statistics/tx_packets"));
}

// Device 10 and site 60, joined by the port swdev2 (their swdev5), with regional link 2 built on it.
class RealRegionalLink : public testing::Test {
protected:
    void SetUp() override {
        REQUIRE_KERNEL_FEATURE("ipip");
        REQUIRE_KERNEL_FEATURE("fou");
        far.emplace("site60");
        add_veth("swdev2", *far, "swdev5", {.address = "198.18.0.1/24", .peer_address = "198.18.0.2/24"});
        ASSERT_TRUE(wait_for_carrier("swdev2"));

        services.emplace();
        services->document("device_info.json", R"({"DEVICE_ID": "10"})");
        services->document("site.json", R"({"SITE_INFO": {
            "10": {"ROLE": "EDGE", "RGLINK2": {"REMOTE_SITE": "60", "REMOTE_RGLINK": "RGLINK5",
                                               "RGLINK_ADDR4": "198.18.0.1"}},
            "60": {"ROLE": "HUB", "RGLINK5": {"RGLINK_ADDR4": "198.18.0.2"}}}})");
        services->answer_text(
            "TarnService.Get_available_rglink_info",
            R"({"error": 0, "data": [{"ifname": "rg2", "slave": "swdev2", "ip4_addr": "0.0.0.0"}]})");
        ASSERT_EQ(setup_rglink(0, "all", source), 0);
        ASSERT_NE(index_of("tun2"), 0);
        ASSERT_EQ(ip_json("link show dev tun2", "-d")[0]["linkinfo"]["info_kind"].asString(), "ipip");
    }

    std::string source = "/etc/networkmanagement/device_info.json";
    std::optional<Netns> far;
    std::optional<Services> services;
};

TEST_F(RealRegionalLink, FarEndAnswers) {
    const unsigned long before = sent_by("swdev2");
    EXPECT_EQ(Start_rglink_ping_test(2), 0);
    EXPECT_GT(sent_by("swdev2"), before);
    EXPECT_THAT(log_texts(), Contains("[DEBUG] RGLINK: RGLINK2 ping remote site: 60's 198.18.0.2 success."));
}

TEST_F(RealRegionalLink, FarEndThatIsDownIsATimeout) {
    far->ip({"link set swdev5 down"});
    EXPECT_NE(Start_rglink_ping_test(2), 0);
    EXPECT_THAT(log_texts(),
                Contains("[ERROR] RGLINK: RGLINK2 dev: swdev2 ping remote site: 60's 198.18.0.2 failed."));
    far->ip({"link set swdev5 up"});
    ASSERT_TRUE(wait_for_carrier("swdev2"));
    EXPECT_TRUE(wait_until([] { return Start_rglink_ping_test(2) == 0; }));
}

TEST_F(RealRegionalLink, SilentFarEndIsATimeout) {
    far->run([] { write_file("/proc/sys/net/ipv4/icmp_echo_ignore_all", "1"); });
    EXPECT_EQ(Start_rglink_ping_test(2), -3001);
}

TEST_F(RealRegionalLink, DeviceThatIsGoneCannotBeBound) {
    EXPECT_EQ(setup_rglink(1, "all", source), 0);
    must_run("ip link del swdev2");
    EXPECT_EQ(Start_rglink_ping_test(2), -3005);
    EXPECT_THAT(log_texts(), Contains("[ERROR] Bind device: swdev2 failed!"));
}

}  // namespace
}  // namespace corvo::test
