// The default route of metric 99, which stands in for the monitors' own of metric 100.
//
// The monitors build their route one link at a time, and take their gateways out of it when they stop. While
// they find out, and after they have ended, the stand-in carries traffic over all links that are, or were, in
// use.
#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "edged/desired.h"
#include "edged/ledger.h"
#include "edged/links.h"

namespace edged {

class StandIn {
public:
    StandIn(Ledger& ledger, Report& report) : ledger_(ledger), report_(report) {}

    // Over the WAN links that were not down when they were last seen. Left alone when it stands already.
    void begin(const Desired& desired);

    // Remembers for the next start which links are down.
    void note(const std::string& name, bool down);

    // Removes it once every monitor has reported, or had the time to, and one link at least is up.
    void follow(bool all_reported, bool any_up);

    // Over exactly these links: for the time after the daemon.
    void leave(const Desired& desired, const std::vector<std::string>& names);

    void remove();

    bool stands() const { return stands_; }

private:
    void build(const Desired& desired, const std::vector<std::string>& names);

    Ledger& ledger_;
    Report& report_;
    bool stands_ = false;
    std::chrono::steady_clock::time_point until_;
};

}  // namespace edged
