// The edge: the data plane as the documents ask for it, and the monitors that watch it.
#pragma once

#include <json/value.h>

#include <chrono>
#include <ctime>
#include <deque>
#include <filesystem>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "edged/desired.h"
#include "edged/hub_tests.h"
#include "edged/ledger.h"
#include "edged/links.h"
#include "edged/monitors.h"
#include "edged/stand_in.h"

namespace edged {

struct Options {
    std::string documents = kDocumentPlace;
    std::string state_directory = "/run/corvo";
    HubTest hub_test = HubTest::kUdp;
    std::chrono::seconds hub_interval{60};
    bool clear_on_exit = false;
};

// Threading: apply(), tick() and take_down() belong to the main thread; state() and links() may be called
// from any thread.
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

    bool ready() const { return applied_.has_value(); }  // main thread only
    std::string summary() const;                         // one line, main thread only

    // The status document (docs/daemon.md).
    Json::Value state() const;
    Json::Value links() const;

private:
    void change(const std::string& key, Change change, int code) override;

    void realise();  // brings the kernel to applied_
    void retry();
    void apply_kernel();
    void test_hub();
    void follow_hub();
    void event(const std::string& text);
    void publish();

    Options options_;
    Ledger ledger_;
    std::optional<Desired> applied_;
    Monitors monitors_;
    StandIn stand_in_;
    HubTests hub_tests_;
    std::time_t started_;
    std::string hub_;
    std::filesystem::file_time_type site_time_{};
    std::chrono::steady_clock::time_point next_try_{};
    std::chrono::steady_clock::time_point next_look_{};
    std::chrono::seconds retry_pause_{};
    std::deque<Json::Value> events_;
    std::vector<std::string> problems_;        // of the last attempt to apply
    std::map<std::string, int> failed_steps_;  // key -> result code
    std::time_t last_apply_ = 0;
    unsigned attempts_ = 0;
    bool last_apply_good_ = false;
    bool brought_up_ = false;

    mutable std::mutex lock_;  // guards published_
    Json::Value published_;
};

}  // namespace edged
