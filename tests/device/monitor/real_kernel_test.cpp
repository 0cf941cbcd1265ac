// The road of one event with the kernel's own conditions and connection-tracking entries. The tests of
// netns/monitor/road_test.cpp are part of this executable.

#include <thread>

#include "netns/monitor/road.h"
#include "support/kernel_feature.h"

namespace corvo::test {
namespace {

using namespace std::chrono_literals;

TEST_F(Road, RealConditionsAndConnectionsFollowTheLink) {
    REQUIRE_KERNEL_FEATURE("nf_condition");
    REQUIRE_KERNEL_FEATURE("conntrack");
    conntrack.always().runs_real();
    start();
    EXPECT_EQ(condition("PORT8"), "1");
    const auto connect = [](const std::string& nat, int port) {
        must_run("conntrack -I -p udp -s 10.9.9.9 -d 198.51.100.1 --sport " + std::to_string(port) +
                 " --dport 53 --timeout 600 --src-nat " + nat);
    };
    connect("192.0.8.2", 1001);
    connect("192.0.1.2", 1002);
    const auto connections = [](const std::string& nat) { return must_run("conntrack -L -n " + nat); };
    gateway(false);
    ASSERT_TRUE(wait_for(1));
    EXPECT_EQ(condition("PORT8"), "0");
    EXPECT_TRUE(wait_until([&] { return connections("192.0.8.2").find("sport=1001") == std::string::npos; }));
    EXPECT_NE(connections("192.0.1.2").find("sport=1002"), std::string::npos)
        << "the other link's connections stay";
    // Connections that are made while the link is down go with the next failed cycle.
    connect("192.0.8.2", 1003);
    EXPECT_TRUE(wait_until([&] { return connections("192.0.8.2").find("sport=1003") == std::string::npos; }));
    gateway(true);
    ASSERT_TRUE(wait_for(0));
    EXPECT_EQ(condition("PORT8"), "1");
    connect("192.0.8.2", 1004);
    std::this_thread::sleep_for(300ms);
    EXPECT_NE(connections("192.0.8.2").find("sport=1004"), std::string::npos);
    monitor_->stop();
    EXPECT_EQ(condition("PORT8"), "0");
}

}  // namespace
}  // namespace corvo::test
