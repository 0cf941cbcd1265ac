// The monitors of the links: one per WAN link, and per private link that has a gateway.
#pragma once

#include <corvosetup/neigh.h>
#include <corvosetup/wm_obj.h>
#include <json/value.h>

#include <ctime>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "edged/desired.h"
#include "edged/hub_tests.h"
#include "edged/ledger.h"
#include "edged/links.h"

namespace edged {

enum class LinkStatus { kStarting, kUp, kDown };

class Monitors {
public:
    Monitors(Ledger& ledger, Report& report);

    // Ends the monitors that `desired` does not have or has otherwise. The library empties the default tables
    // of their links: apply the routes afterwards.
    void retire(const Desired& desired);

    // Starts those that are missing.
    void start(const Desired& desired);

    // Reads what the monitors report, calls `changed` for each link whose status is another one now.
    void follow(const std::function<void(const std::string& name, LinkStatus status)>& changed);

    void stop_all();

    // Of the WAN links: whether all have reported, and which are up.
    bool all_wans_reported() const;
    std::vector<std::string> wans_up() const;

    // Whether the WAN links in use reach their gateways, by what the kernel knows of those at this moment: a
    // monitor calls a link down only after six bad looks. Without monitored WAN links there is nothing to
    // doubt.
    LinkTrust trust() const;

    // Whether a device that a monitor waits for is there now, or is not the one that it was started on.
    bool device_changed() const;

    // The "links" of the status document.
    Json::Value status() const;

private:
    struct Monitor {
        std::unique_ptr<WmObj> object;
        // Looks the gateway's entry up, and is never started: the monitor's report tells the state that the
        // entry had when the report was made. Null: a point-to-point link, which has none.
        std::unique_ptr<ProcNeigh> neighbour;
        int neighbour_state = 0;  // NUD bit
        Json::Value made_from;    // device, gateway, type and id: a change makes a new monitor
        bool wan = false;
        unsigned long bandwidth = 0;  // what the monitor has
        unsigned long wanted_bandwidth = 0;
        LinkStatus status = LinkStatus::kStarting;
        std::time_t since = 0;
        Json::Value report;
    };

    void start_one(const std::string& name, const Json::Value& element, bool wan);
    void stop_one(const std::string& name, Monitor& monitor);
    static void look(Monitor& monitor);

    Ledger& ledger_;
    Report& report_;
    const std::map<int, std::string> state_names_;  // of neighbours
    std::map<std::string, Monitor> monitors_;
    std::vector<std::string> awaited_;  // links whose device does not exist
};

const char* word(LinkStatus status);

}  // namespace edged
