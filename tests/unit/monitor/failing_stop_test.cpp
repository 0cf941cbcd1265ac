// A monitor whose members cannot be stopped. Theirs do not fail by themselves, but what they say is passed
// on.

#include <gmock/gmock.h>

#include <memory>

#include "corvosetup/neigh.h"
#include "corvosetup/ping.h"
#include "corvosetup/qdm.h"
#include "corvosetup/udp.h"
#include "corvosetup/wm_obj.h"
#include "own_log.h"

namespace {

bool refuse = false;

}  // namespace

#define REFUSABLE_STOP(TYPE, NAME, RESULT)            \
    extern "C" int __real_##NAME(TYPE*);              \
    extern "C" int __wrap_##NAME(TYPE* self) {        \
        return refuse ? RESULT : __real_##NAME(self); \
    }

REFUSABLE_STOP(ProcNeigh, _ZN9ProcNeigh4stopEv, -3006)
REFUSABLE_STOP(ProcPing, _ZN8ProcPing4stopEv, -3007)
REFUSABLE_STOP(ProcQdm, _ZN7ProcQdm4stopEv, -3008)
REFUSABLE_STOP(ProcUdp, _ZN7ProcUdp4stopEv, -3009)

namespace corvo::test {
namespace {

using testing::ElementsAre;

class FailingStop : public OwnLog {
protected:
    ~FailingStop() override { refuse = false; }

    // Stops a monitor of `dev` whose members refuse.
    int stop(const char* dev) {
        WmObj* made = nullptr;
        EXPECT_EQ(Create_wm_obj(&made, dev, "192.0.2.1", 1000, "WAN", 3), 0);
        const std::unique_ptr<WmObj> object(made);
        forget();
        refuse = true;
        const int result = object->stop();
        refuse = false;
        return result;
    }
};

TEST_F(FailingStop, EveryMemberIsStoppedAndTheLastResultIsReturned) {
    EXPECT_EQ(stop("lo"), -3009);
    EXPECT_THAT(texts(), ElementsAre("[ERROR] Dev: lo's arp stop failed, Ret: -3006",
                                     "[ERROR] Dev: lo's qdm stop failed, Ret: -3008",
                                     "[ERROR] Dev: lo's udp stop failed, Ret: -3009"));
}

TEST_F(FailingStop, PointToPointLinkNamesItsPing) {
    EXPECT_EQ(stop("ppp-eth1"), -3009);
    EXPECT_THAT(texts(), ElementsAre("[ERROR] Dev: ppp-eth1's ping stop failed, Ret: -3007",
                                     "[ERROR] Dev: ppp-eth1's qdm stop failed, Ret: -3008",
                                     "[ERROR] Dev: ppp-eth1's udp stop failed, Ret: -3009"));
}

}  // namespace
}  // namespace corvo::test
