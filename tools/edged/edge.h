// The edge: the data plane as the documents ask for it, and the monitors that watch it.
#pragma once

#include <corvosetup/wm_obj.h>
#include <json/value.h>

#include <chrono>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "edged/desired.h"
#include "edged/ledger.h"
#include "edged/links.h"

namespace edged {

enum class HubTest { kNone, kUdp, kPing };

struct Options {
    std::string documents = "/etc/networkmanagement";
    std::string state_directory = "/run/corvo";
    HubTest hub_test = HubTest::kUdp;
    std::chrono::seconds hub_interval{60};
    bool clear_on_exit = false;
};

// Threading: apply(), tick() and take_down() belong to the main thread; state() may be called from any
// thread.
class Edge final : private Report {
public:
    explicit Edge(Options options);
    ~Edge() override;

    // Reads the documents and changes what differs from what is applied. False: they cannot be right;
    // everything stays as it was, and the status document says why.
    bool apply();

    // The periodic part: follows the monitors' reports and starts the hub test when it is due.
    void tick();

    // Ends the monitors in order and leaves the data plane as it is configured, or removes it.
    void take_down();

    // The status document (docs/daemon.md).
    Json::Value state() const;
    Json::Value links() const;

private:
    struct Monitor {
        std::unique_ptr<WmObj> object;
        Json::Value made_from;  // gateway, type and id: a change makes a new monitor
        unsigned long bandwidth = 0;
        int status = -1;  // -1: no report yet, 0 up, 1 down
        std::time_t since = 0;
        Json::Value report;
    };

    void change(const std::string& key, Change change, int code) override;

    void apply_kernel();
    void apply_default_gateways(const Desired& desired);
    void apply_shaping(const Desired& desired);
    void apply_monitors(const Desired& desired);
    void start_monitor(const std::string& name, const Json::Value& element, const char* type, int id);
    void follow_reports();
    void event(const std::string& text);
    void publish();

    Options options_;
    Ledger ledger_;
    std::optional<Desired> applied_;
    std::map<std::string, Monitor> monitors_;
    std::time_t started_;
    bool temporary_route_ = false;  // the route of metric 99 stands in while the monitors find out
    std::chrono::steady_clock::time_point temporary_until_;
    std::chrono::steady_clock::time_point next_hub_test_;
    std::chrono::steady_clock::time_point next_try_{};
    std::deque<Json::Value> events_;
    std::vector<std::string> problems_;        // of the last attempt to apply
    std::map<std::string, int> failed_steps_;  // key -> result code
    std::time_t last_apply_ = 0;
    bool last_apply_good_ = false;

    mutable std::mutex lock_;  // guards published_
    Json::Value published_;
};

}  // namespace edged
