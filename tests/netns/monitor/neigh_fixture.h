// What the tests of the neighbour probe's cycles start from.
#pragma once

#include "corvosetup/log.h"
#include "support/recorder.h"
#include "wan.h"

namespace corvo::test {

class NeighCycle : public MonitorTest {
protected:
    void cycles(ProcNeigh& probe, int count) {
        while (count-- > 0) probe.probe();
    }
    // A probe that has reported its link connected.
    std::unique_ptr<ProcNeigh> connected(bool is_wan = true) {
        wan.neighbour("permanent");
        auto probe = wan.probe(is_wan);
        EXPECT_EQ(probe->probe(), 0);
        services->forget();
        clear_log();
        return probe;
    }
    Json::Value report(ProcNeigh& probe) { return probe.get_state()[wan.dev]; }
};

}  // namespace corvo::test
