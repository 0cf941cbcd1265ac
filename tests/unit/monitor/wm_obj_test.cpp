// The monitor object without a network.

#include "corvosetup/wm_obj.h"

#include <gmock/gmock.h>

#include <memory>

#include "own_log.h"
#include "support/failing_new.h"

namespace corvo::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::UnorderedElementsAre;

class MonitorObject : public OwnLog {
protected:
    std::unique_ptr<WmObj> make(const char* dev, const char* type = "WAN") {
        WmObj* object = nullptr;
        EXPECT_EQ(Create_wm_obj(&object, dev, "192.0.2.1", 1000, type, 3), 0);
        return std::unique_ptr<WmObj>(object);
    }
};

TEST_F(MonitorObject, EthernetLinkIsWatchedByTheNeighbourProbe) {
    const auto object = make("lo");
    EXPECT_EQ(object->get_dev(), "lo");
    EXPECT_EQ(object->get_slave(), "lo");
    EXPECT_EQ(object->get_type(), "WAN");
    const Json::Value state = object->get_state();
    EXPECT_THAT(state.getMemberNames(), ElementsAre("lo"));
    EXPECT_THAT(state["lo"].getMemberNames(), UnorderedElementsAre("TYPE", "ARP", "QDM"));
    EXPECT_EQ(state["lo"]["TYPE"], Json::Value("WAN"));
    EXPECT_TRUE(state["lo"]["ARP"].isNull());
    EXPECT_TRUE(state["lo"]["QDM"].isNull());
}

TEST_F(MonitorObject, PointToPointLinkIsWatchedByThePingProbe) {
    const auto object = make("ppp-eth0.100");
    EXPECT_EQ(object->get_dev(), "ppp-eth0.100");
    EXPECT_EQ(object->get_slave(), "eth0.100") << "with its VLAN suffix";
    const Json::Value state = object->get_state();
    EXPECT_THAT(state["ppp-eth0.100"].getMemberNames(), UnorderedElementsAre("TYPE", "PING", "QDM"));
}

TEST_F(MonitorObject, MarkInTheMiddleOfTheNameCountsAndIsCutAtTheFixedPlace) {
    const auto object = make("vds-1");
    EXPECT_EQ(object->get_slave(), "-1");
    EXPECT_TRUE(object->get_state()["vds-1"].isMember("PING"));
}

TEST_F(MonitorObject, NeverReplacesAnObject) {
    const auto first = make("lo");
    forget();
    WmObj* slot = first.get();
    EXPECT_EQ(Create_wm_obj(&slot, "lo", "192.0.2.1", 1, "WAN", 1), -3004);
    EXPECT_EQ(slot, first.get());
    EXPECT_THAT(texts(),
                ElementsAre(MatchesRegex("\\[DEBUG\\] Enter wm_obj.cpp::[0-9]+::Create_wm_obj"),
                            "[ERROR] PTR is not null",
                            MatchesRegex("\\[DEBUG\\] Exit wm_obj.cpp::[0-9]+::Create_wm_obj: -3004")));
}

TEST_F(MonitorObject, NeedsAPlaceForTheObject) {
    EXPECT_EQ(Create_wm_obj(nullptr, "lo", "192.0.2.1", 1, "WAN", 1), -3002);
}

TEST_F(MonitorObject, WrongTargetIsAConstructionFailure) {
    WmObj* object = nullptr;
    EXPECT_EQ(Create_wm_obj(&object, "lo", "nowhere", 1, "WAN", 1), -3010);
    EXPECT_EQ(object, nullptr);
    EXPECT_THAT(texts(), ElementsAre(HasSubstr("Enter wm_obj.cpp"), "[ERROR] lo has wrong target ip.",
                                     "[ERROR] New WmObj failed, -3007", HasSubstr(": -3010")));
}

TEST_F(MonitorObject, MissingDeviceIsAConstructionFailure) {
    WmObj* object = nullptr;
    EXPECT_EQ(Create_wm_obj(&object, "nosuchdev0", "192.0.2.1", 1, "WAN", 1), -3010);
    EXPECT_EQ(object, nullptr);
    EXPECT_EQ(count("[ERROR] New WmObj failed, -3005"), 1);
}

TEST_F(MonitorObject, WrongTargetOfAPointToPointLinkIsAConstructionFailure) {
    WmObj* object = nullptr;
    EXPECT_EQ(Create_wm_obj(&object, "ds-lte", "1.2.3", 1, "WAN", 1), -3010);
    EXPECT_EQ(count("[ERROR] New WmObj failed, -3007"), 1);
}

TEST_F(MonitorObject, MissingMemoryIsAConstructionFailureWithItsText) {
    bool struck = true;
    for (int allocation = 0; struck; ++allocation) {
        WmObj* object = nullptr;
        const FailingNew failing(allocation, FailingNew::Then::kRecovers);
        const int result = Create_wm_obj(&object, "lo", "192.0.2.1", 1, "WAN", 1);
        struck = failing.struck();
        // Some failures are borne: a service that could not be asked, say.
        EXPECT_EQ(result, object != nullptr ? 0 : -3010) << allocation;
        delete object;
    }
    EXPECT_GE(count("[ERROR] New WmObj failed, std::bad_alloc"), 4) << "the monitor and its three members";
}

TEST_F(MonitorObject, DestructionReportsNothing) {
    auto object = make("lo");
    forget();
    object.reset();
    EXPECT_THAT(texts(), ElementsAre());
}

TEST_F(MonitorObject, ShowPrintsProbeAndQueues) {
    const auto object = make("ppp-x");
    testing::internal::CaptureStdout();
    EXPECT_EQ(object->show(), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "null\nnull\n");
}

}  // namespace
}  // namespace corvo::test
