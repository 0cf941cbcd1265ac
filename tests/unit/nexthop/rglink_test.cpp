// The regional link test on a fake network and fake services.
#include <cerrno>

#include "corvosetup/ping_test.h"
#include "hub_fixture.h"

namespace corvo::test {
namespace {

class RegionalLinkTest : public HubTest {
protected:
    RegionalLinkTest() {
        Json::Value& link = sites["10"]["RGLINK2"];
        link["REMOTE_SITE"] = "60";
        link["REMOTE_RGLINK"] = "RGLINK7";
        link["RGLINK_ADDR4"] = "198.18.0.1";
        sites["60"]["RGLINK7"]["RGLINK_ADDR4"] = "198.18.0.2";
    }
    int run(int n = 2) {
        publish();
        return Start_rglink_ping_test(n);
    }
};

TEST_F(RegionalLinkTest, PingsTheFarEndOverTheLinksOwnDevice) {
    kernel.peers["198.18.0.2"] = echo_peer();
    EXPECT_EQ(run(), 0);
    EXPECT_THAT(kernel.calls(),
                ElementsAre("socket 2 3 1", "SO_MARK 960", "SO_BINDTODEVICE swdev2", "sendto 198.18.0.2:0"));
    EXPECT_THAT(lines(), ElementsAre("[DEBUG] RGLINK: RGLINK2 ping remote site: 60's 198.18.0.2 success."));
    EXPECT_THAT(traces(), Contains("[DEBUG] Exit ping_test.cpp::N::Start_rglink_ping_test: 0"));
}

TEST_F(RegionalLinkTest, FailureGivesThePingsCode) {
    kernel.fail("SO_BINDTODEVICE", ENODEV);
    EXPECT_EQ(run(), -3005);
    EXPECT_THAT(lines(),
                ElementsAre("[ERROR] Bind device: swdev2 failed!",
                            "[ERROR] RGLINK: RGLINK2 dev: swdev2 ping remote site: 60's 198.18.0.2 failed."));
}

TEST_F(RegionalLinkTest, SilenceIsATimeout) {
    const Stopwatch watch;
    EXPECT_EQ(run(), -3001);
    EXPECT_GE(watch.elapsed(), 2000ms);
}

TEST_F(RegionalLinkTest, NoSiteDocument) {
    EXPECT_EQ(Start_rglink_ping_test(2), -3016);
    EXPECT_THAT(lines(), Contains("[ERROR] Fail to open SITE_CONF."));
}

TEST_F(RegionalLinkTest, LinkThatThisDeviceDoesNotHave) {
    EXPECT_EQ(run(3), -3005);
    EXPECT_EQ(run(-1), -3005);
    EXPECT_THAT(lines(),
                ElementsAre("[ERROR] No regional link: RGLINK3.", "[ERROR] No regional link: RGLINK-1."));
}

TEST_F(RegionalLinkTest, EachMissingPieceHasItsCode) {
    sites["60"].removeMember("RGLINK7");
    EXPECT_EQ(run(), -3032);
    sites["10"]["RGLINK2"].removeMember("RGLINK_ADDR4");
    EXPECT_EQ(run(), -3007);
    sites["10"]["RGLINK2"]["REMOTE_RGLINK"] = "";
    EXPECT_EQ(run(), -3031);
    sites["10"]["RGLINK2"]["REMOTE_SITE"] = Json::Value(Json::arrayValue);
    EXPECT_EQ(run(), -3003);
    sites["10"]["RGLINK2"] = 5;
    EXPECT_EQ(run(), -3003);
    sites["10"] = 5;
    EXPECT_EQ(run(), -3005);
    EXPECT_THAT(lines(), ElementsAre("[ERROR] Empty target ip.", "[ERROR] Empty source ip.",
                                     "[ERROR] Empty remote rglink.", "[ERROR] Empty remote site.",
                                     "[ERROR] Empty remote site.", "[ERROR] No regional link: RGLINK2."));
    EXPECT_EQ(kernel.count("socket"), 0U);
}

TEST_F(RegionalLinkTest, MemberOnATestObjectDoesTheSame) {
    kernel.peers["198.18.0.2"] = echo_peer();
    publish();
    ProcPingTest test;
    EXPECT_EQ(test.probe_rglink(2), 0);
}

TEST_F(RegionalLinkTest, ExceptionIsLogged) {
    sites["60"]["RGLINK7"]["RGLINK_ADDR4"] = "far.example";
    kernel.fail("pthread_create", EAGAIN);
    EXPECT_EQ(run(), -3001);
    EXPECT_THAT(
        lines(),
        ElementsAre("[ERROR] ProcPingTest rglink ping test failed, Resource temporarily unavailable"));
}

TEST_F(RegionalLinkTest, LeavesTheRunOfTheHubTestAlone) {
    kernel.peers["198.18.0.2"] = echo_peer();
    publish();
    std::thread starter([] {
        for (int n = 0; n < 20; ++n) Start_nexthop_ping_test();
        Stop_nexthop_ping_test();
    });
    int good = 0;
    for (int n = 0; n < 5; ++n) good += Start_rglink_ping_test(2) == 0 ? 1 : 0;
    starter.join();
    EXPECT_EQ(good, 5);
}

}  // namespace
}  // namespace corvo::test
