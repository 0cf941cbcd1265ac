#include "edged/edge.h"

#include <corvosetup/link.h>
#include <corvosetup/presetup.h>

#include <algorithm>

#include "edged/routes.h"
#include "edged/shaping.h"

namespace edged {

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr int kSchemaVersion = 1;
constexpr std::size_t kEventsKept = 100;
constexpr auto kBringUpPause = 2s;  // between attempts to load the documents for the first time
constexpr auto kLookPause = 5s;     // between looks for devices that came or changed
constexpr auto kFirstRetry = 30s;   // of steps that failed; doubled each time
constexpr auto kLongestRetry = 600s;

const char* word(Change change) {
    switch (change) {
        case Change::kAdopted:
            return "adopted";
        case Change::kCreated:
            return "created";
        case Change::kReplaced:
            return "replaced";
        case Change::kRemoved:
            return "removed";
        case Change::kFailed:
            return "failed";
    }
    return "";
}

// The kernel is prepared once, and the hub test has a clock of its own.
bool is_retried(const std::string& key) {
    return key.rfind("presetup:", 0) != 0 && key != "hub-test";
}

}  // namespace

Edge::Edge(Options options)
    : options_(std::move(options)),
      ledger_(options_.state_directory + "/applied.json"),
      monitors_(ledger_, *this),
      stand_in_(ledger_, *this),
      hub_tests_(options_.hub_test, options_.hub_interval),
      started_(std::time(nullptr)) {
    publish();
}

Edge::~Edge() = default;

void Edge::change(const std::string& key, Change change, int code) {
    const auto known = failed_steps_.find(key);
    const bool again = change == Change::kFailed && known != failed_steps_.end() && known->second == code;
    if (change == Change::kFailed)
        failed_steps_[key] = code;
    else
        failed_steps_.erase(key);
    if (change == Change::kAdopted || again) return;
    event(key + " " + word(change) + (code != 0 ? " (" + std::to_string(code) + ")" : ""));
}

void Edge::event(const std::string& text) {
    Json::Value entry(Json::objectValue);
    entry["time"] = Json::Int64(std::time(nullptr));
    entry["text"] = text;
    events_.push_back(entry);
    if (events_.size() > kEventsKept) events_.pop_front();
}

bool Edge::apply() {
    std::vector<std::string> problems;
    auto desired = load_desired(options_.documents, problems);
    const bool news = problems != problems_ || desired.has_value();
    last_apply_ = std::time(nullptr);
    ++attempts_;
    last_apply_good_ = desired.has_value();
    problems_ = problems;
    if (!desired) {
        if (news)
            event("documents refused: " + (problems.empty() ? std::string("unreadable") : problems.front()));
        publish();
        return false;
    }
    const bool first = !applied_;
    applied_ = std::move(desired);
    // What failed for links that are gone does not fail any more.
    std::erase_if(failed_steps_, [](const auto& step) { return is_retried(step.first); });
    if (first) apply_kernel();
    realise();
    event(first ? "brought up" : "documents applied");
    retry_pause_ = kFirstRetry;
    next_try_ = Clock::now() + retry_pause_;
    publish();
    return true;
}

// In this order: a monitor that ends empties default tables, which the routes fill again.
void Edge::realise() {
    const Desired& desired = *applied_;
    monitors_.retire(desired);
    apply_links(kTunnel, desired.wans, desired.device_id, ledger_, *this);
    apply_links(kTunnel6, desired.wans, desired.device_id, ledger_, *this);
    apply_links(kPrivate, desired.privates, desired.device_id, ledger_, *this);
    apply_links(kRegional, desired.regionals, desired.device_id, ledger_, *this);
    apply_private_routes(desired, ledger_, *this);
    apply_routes(desired, options_.state_directory, ledger_, *this);
    if (!brought_up_) stand_in_.begin(desired);
    apply_shaping(desired, options_.state_directory, ledger_, *this);
    monitors_.start(desired);
    brought_up_ = true;
}

void Edge::apply_kernel() {
    const struct {
        const char* key;
        int (*run)();
    } steps[] = {{"presetup:ipv4", presetup_ipv4},
                 {"presetup:ipv6", presetup_ipv6},
                 {"presetup:mptcp", presetup_mptcp},
                 {"presetup:rps", presetup_rps_xps}};
    module_probing();
    for (const auto& step : steps) {
        const int code = step.run();
        if (code != 0) change(step.key, Change::kFailed, code);
    }
    edit_fou(0);
}

// Steps that failed are tried again, less and less often; a device that came, or came back as another one, is
// taken into use soon.
void Edge::retry() {
    const auto now = Clock::now();
    if (now < next_look_) return;
    next_look_ = now + kLookPause;
    const bool failed = std::any_of(failed_steps_.begin(), failed_steps_.end(),
                                    [](const auto& step) { return is_retried(step.first); });
    const bool due = failed && now >= next_try_;
    if (!due && !monitors_.device_changed() && !shaping_device_changed(*applied_, ledger_)) return;
    realise();
    if (!due) return;
    retry_pause_ = std::min<std::chrono::seconds>(retry_pause_ * 2, kLongestRetry);
    next_try_ = Clock::now() + retry_pause_;
}

void Edge::tick() {
    if (!applied_) {
        // At boot the services may come up after us.
        if (Clock::now() < next_try_) return;
        apply();
        if (!applied_) next_try_ = Clock::now() + kBringUpPause;
        return;
    }
    monitors_.follow([this](const std::string& name, LinkStatus status) {
        event("link " + name + " " + word(status));
        stand_in_.note(name, status == LinkStatus::kDown);
    });
    stand_in_.follow(monitors_.all_wans_reported(), !monitors_.wans_up().empty());
    retry();
    test_hub();
    follow_hub();
    publish();
}

void Edge::test_hub() {
    // While the stand-in stands, traffic may still go out by a link that nobody has heard of yet.
    const LinkTrust trust = stand_in_.stands() ? LinkTrust::kDoubtful : monitors_.trust();
    int code = 0;
    switch (hub_tests_.follow(trust, code)) {
        case HubTests::Event::kNothing:
            return;
        case HubTests::Event::kStarted:
            change("hub-test", code == 0 ? Change::kAdopted : Change::kFailed, code);
            return;
        case HubTests::Event::kEnded:
            event("hub test ended: a link is in doubt");
            return;
    }
}

// The hub manager writes the active hub into the site document.
void Edge::follow_hub() {
    std::error_code error;
    const std::string path = applied_->directory + "/site.json";
    const auto time = std::filesystem::last_write_time(path, error);
    if (error || time == site_time_) return;
    site_time_ = time;
    const std::string hub = active_hub(path, applied_->device_id);
    if (hub == hub_) return;
    if (!hub_.empty()) event("hub " + hub_ + " -> " + hub);
    hub_ = hub;
}

void Edge::take_down() {
    hub_tests_.stop();
    // A monitor that stops takes its gateway out of the default route. What stays configured must go on
    // carrying traffic, so the links that are up get a route of their own first.
    if (applied_ && !options_.clear_on_exit) stand_in_.leave(*applied_, monitors_.wans_up());
    monitors_.stop_all();
    if (!options_.clear_on_exit) {
        if (!applied_) return;
        apply_private_routes(*applied_, ledger_, *this);
        apply_routes(*applied_, options_.state_directory, ledger_, *this);
        return;
    }
    stand_in_.remove();
    remove_shaping(options_.state_directory, ledger_, *this);
    for (const LinkKind* kind : {&kRegional, &kPrivate, &kTunnel6, &kTunnel})
        remove_links(*kind, ledger_, *this);
    // With the links their routes went.
    for (const char* prefix : {"route:", "private-routes:", "down:"})
        for (const auto& key : ledger_.keys(prefix)) ledger_.drop(key);
    edit_fou(1);
}

std::string Edge::summary() const {
    if (!applied_) return "not brought up: " + (problems_.empty() ? std::string("-") : problems_.front());
    std::string out = std::to_string(monitors_.wans_up().size()) + " of " +
                      std::to_string(applied_->wans.size()) + " WAN links up";
    if (!failed_steps_.empty()) out += ", " + std::to_string(failed_steps_.size()) + " steps failed";
    if (!last_apply_good_) out += ", new documents refused";
    return out;
}

void Edge::publish() {
    Json::Value out(Json::objectValue);
    out["schema"] = kSchemaVersion;
    out["started"] = Json::Int64(started_);
    out["device_id"] = applied_ ? applied_->device_id : 0;
    out["ready"] = applied_.has_value();
    out["last_apply"]["time"] = Json::Int64(last_apply_);
    out["last_apply"]["attempts"] = attempts_;
    out["last_apply"]["good"] = last_apply_good_;
    out["last_apply"]["problems"] = Json::Value(Json::arrayValue);
    for (const auto& problem : problems_) out["last_apply"]["problems"].append(problem);
    out["failed_steps"] = Json::Value(Json::objectValue);
    for (const auto& [key, code] : failed_steps_) out["failed_steps"][key] = code;
    out["stand_in_route"] = stand_in_.stands();
    out["links"] = monitors_.status();
    out["hub"] = hub_;
    out["events"] = Json::Value(Json::arrayValue);
    for (const auto& entry : events_) out["events"].append(entry);
    const std::lock_guard hold(lock_);
    published_.swap(out);
}

Json::Value Edge::state() const {
    const std::lock_guard hold(lock_);
    return published_;
}

Json::Value Edge::links() const {
    const std::lock_guard hold(lock_);
    return published_["links"];
}

}  // namespace edged
