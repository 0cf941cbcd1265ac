#include "edged/edge.h"

#include <corvosetup/lan_qos.h>
#include <corvosetup/link.h>
#include <corvosetup/ping_test.h>
#include <corvosetup/presetup.h>
#include <corvosetup/qos.h>
#include <corvosetup/route.h>
#include <corvosetup/tc.h>
#include <corvosetup/tun.h>
#include <corvosetup/udp.h>
#include <corvosetup/utils.h>

#include <algorithm>
#include <filesystem>
#include <set>

#include "edged/routes.h"

namespace edged {

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr int kSchemaVersion = 1;
constexpr std::size_t kEventsKept = 100;

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

const char* status_word(int status) {
    return status < 0 ? "starting" : status == 0 ? "up" : "down";
}

bool has_tree(const std::string& dev) {
    const std::unique_ptr<tqs_link, void (*)(tqs_link*)> head(get_tx_queue_status(dev.c_str()),
                                                              free_tqs_head);
    if (!head) return false;
    for (const tqs_link* at = head->next; at != head.get(); at = at->next) {
        const auto* entry = reinterpret_cast<const tqs_entry*>(reinterpret_cast<const char*>(at) -
                                                               offsetof(tqs_entry, links));
        if (std::string_view(entry->handle) == "1:") return true;
    }
    return false;
}

int port_number(const std::string& slave) {
    const auto digit = slave.find_first_of("0123456789");
    return digit == std::string::npos ? 0 : std::atoi(slave.c_str() + digit);
}

}  // namespace

Edge::Edge(Options options)
    : options_(std::move(options)),
      ledger_(options_.state_directory + "/applied.json"),
      started_(std::time(nullptr)),
      next_hub_test_(Clock::now() + options_.hub_interval) {
    publish();
}

Edge::~Edge() = default;

void Edge::change(const std::string& key, Change change, int code) {
    if (change == Change::kFailed)
        failed_steps_[key] = code;
    else
        failed_steps_.erase(key);
    if (change == Change::kAdopted) return;
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
    last_apply_ = std::time(nullptr);
    last_apply_good_ = desired.has_value();
    problems_ = problems;
    if (!desired) {
        event("documents refused: " + (problems.empty() ? std::string("unreadable") : problems.front()));
        publish();
        return false;
    }
    const bool first = !applied_;
    if (first) apply_kernel();
    apply_links(kTunnel, desired->wans, desired->device_id, ledger_, *this);
    apply_links(kTunnel6, desired->wans, desired->device_id, ledger_, *this);
    apply_links(kPrivate, desired->privates, desired->device_id, ledger_, *this);
    apply_links(kRegional, desired->regionals, desired->device_id, ledger_, *this);
    apply_private_routes(*desired, ledger_, *this);
    apply_routes(*desired, options_.state_directory, ledger_, *this);
    if (first) apply_default_gateways(*desired);
    apply_shaping(*desired);
    apply_monitors(*desired);
    applied_ = std::move(desired);
    event(first ? "brought up" : "documents applied");
    publish();
    return true;
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

// The monitors build the route of metric 100 one link at a time. Until each has reported, the route of metric
// 99 carries traffic over all of them, so that no link that was in use is left out meanwhile.
void Edge::apply_default_gateways(const Desired& desired) {
    Json::Value ids(Json::arrayValue);
    for (const auto& [name, element] : desired.wans)
        if (!text_of(element, "ip4_gw").empty()) ids.append(Json::UInt(number_of(element, "id")));
    if (ids.empty()) return;
    const int code = setup_def(ids);
    change("gateways", code == 0 ? Change::kCreated : Change::kFailed, code);
    temporary_route_ = code == 0;
    temporary_until_ = Clock::now() + 30s;
}

void Edge::apply_shaping(const Desired& desired) {
    std::set<std::string> wanted;
    const auto get = [](const Json::Value& object, const char* key) {
        return object.isObject() ? object.get(key, Json::Value()) : Json::Value();
    };
    for (const char* section : {"WAN_IFACE_INFO", "PRIVATE_IFACE_INFO", "RGLINK_IFACE_INFO"}) {
        const Json::Value interfaces = get(desired.device_info, section);
        if (!interfaces.isObject() || desired.qos.isNull()) continue;
        for (std::string dev : interfaces.getMemberNames()) {
            const int index = get_ifindex(dev.c_str());
            if (number_of(interfaces[dev], "ID") == 0 || index <= 0) continue;
            const std::string key = "qos:" + dev;
            wanted.insert(key);
            Json::Value made_from(Json::objectValue);
            made_from["rates"] =
                text_of(interfaces[dev], "RX_RATE") + "/" + text_of(interfaces[dev], "TX_RATE");
            made_from["qos"] = desired.qos;
            if (ledger_.fits(key, made_from, index) && has_tree(dev)) continue;
            std::string path = desired.device_info_path();
            const int code = setup_qos(2, dev, path, false);
            if (code == 0)
                ledger_.put(key, made_from, index);
            else
                ledger_.drop(key);
            change(key, code == 0 ? Change::kCreated : Change::kFailed, code);
        }
    }
    for (const auto& key : ledger_.keys("qos:")) {
        if (wanted.count(key)) continue;
        const std::string dev = key.substr(4);
        clean_qdisc(dev.c_str(), "root");
        clean_qdisc(dev.c_str(), "ingress");
        ledger_.drop(key);
        change(key, Change::kRemoved, 0);
    }

    Json::Value lan(Json::objectValue);
    lan["qos"] = desired.lan_qos;
    lan["ports"] = get(desired.device_info, "LAN_PORT");
    lan["vlan"] = get(desired.device_info, "VLAN_SEG");
    if (desired.lan_qos.isNull() || ledger_.fits("lan_qos", lan)) return;
    std::string all = "all";
    std::string conf = desired.directory + "/lan_qos.json";
    std::string device_info = desired.device_info_path();
    const int code = setup_lan_qos(2, all, conf, device_info);
    if (code == 0) ledger_.put("lan_qos", lan);
    change("lan_qos", code == 0 ? Change::kCreated : Change::kFailed, code);
}

void Edge::start_monitor(const std::string& name, const Json::Value& element, const char* type, int id) {
    const std::string gateway = text_of(element, "ip4_gw");
    if (gateway.empty()) return;
    Json::Value made_from(Json::objectValue);
    made_from["gateway"] = gateway;
    made_from["type"] = type;
    made_from["id"] = id;
    const auto bandwidth =
        static_cast<unsigned long>(std::strtoull(text_of(element, "tx_rate", "0").c_str(), nullptr, 10));

    auto found = monitors_.find(name);
    if (found != monitors_.end() && found->second.made_from == made_from) {
        if (found->second.bandwidth != bandwidth) found->second.object->reset_bandwidth(bandwidth);
        found->second.bandwidth = bandwidth;
        return;
    }
    if (found != monitors_.end()) {
        found->second.object->stop();
        monitors_.erase(found);
    }
    WmObj* raw = nullptr;
    const int code = Create_wm_obj(&raw, name, gateway, bandwidth, type, static_cast<unsigned char>(id));
    Monitor monitor;
    monitor.object.reset(raw);
    monitor.made_from = made_from;
    monitor.bandwidth = bandwidth;
    monitor.since = std::time(nullptr);
    if (code == 0) {
        monitor.object->start();
        monitors_[name] = std::move(monitor);
    }
    change("monitor:" + name, code == 0 ? Change::kCreated : Change::kFailed, code);
}

void Edge::apply_monitors(const Desired& desired) {
    std::vector<std::string> gone;
    for (const auto& [name, monitor] : monitors_)
        if (!desired.wans.count(name) && !desired.privates.count(name)) gone.push_back(name);
    for (const auto& name : gone) {
        monitors_[name].object->stop();
        monitors_.erase(name);
        change("monitor:" + name, Change::kRemoved, 0);
    }
    for (const auto& [name, element] : desired.wans)
        start_monitor(name, element, "WAN", static_cast<int>(number_of(element, "id")));
    for (const auto& [name, element] : desired.privates)
        start_monitor(name, element, "PRIVATE", port_number(text_of(element, "slave")));
}

void Edge::follow_reports() {
    bool all_reported = true;
    for (auto& [name, monitor] : monitors_) {
        const Json::Value all = monitor.object->get_state();
        monitor.report = all.isObject() ? all.get(name, Json::Value()) : Json::Value();
        const Json::Value& probe = monitor.report.isObject() && monitor.report.isMember("PING")
                                       ? monitor.report["PING"]
                                       : monitor.report["ARP"];
        const int status = probe.isObject() ? static_cast<int>(number_of(probe, "stat", -1)) : -1;
        all_reported = all_reported && status >= 0;
        if (status == monitor.status) continue;
        monitor.status = status;
        monitor.since = std::time(nullptr);
        event("link " + name + " " + status_word(status));
    }
    if (temporary_route_ && (all_reported || Clock::now() >= temporary_until_)) {
        tmp_gws.flush_gws();
        temporary_route_ = false;
    }
}

void Edge::tick() {
    if (!applied_) {
        // At boot the services may come up after us.
        if (Clock::now() < next_try_) return;
        next_try_ = Clock::now() + 5s;
        apply();
        return;
    }
    follow_reports();
    if (options_.hub_test != HubTest::kNone && Clock::now() >= next_hub_test_) {
        next_hub_test_ = Clock::now() + options_.hub_interval;
        const int code =
            options_.hub_test == HubTest::kUdp ? Start_nexthop_udp_test(false) : Start_nexthop_ping_test();
        if (code != 0) change("hub-test", Change::kFailed, code);
    }
    publish();
}

void Edge::take_down() {
    if (options_.hub_test == HubTest::kUdp) Stop_nexthop_udp_test();
    if (options_.hub_test == HubTest::kPing) Stop_nexthop_ping_test();
    // A monitor that stops takes its gateway out of the default route. What stays configured must go on
    // carrying traffic, so the links that are up are put into the route of metric 99 first.
    if (applied_ && !options_.clear_on_exit) {
        Json::Value ids(Json::arrayValue);
        for (const auto& [name, monitor] : monitors_)
            if (monitor.status == 0 && applied_->wans.count(name))
                ids.append(Json::UInt(number_of(monitor.made_from, "id")));
        if (!ids.empty()) setup_def(ids);
    }
    for (auto& [name, monitor] : monitors_) monitor.object->stop();
    monitors_.clear();
    if (!applied_) return;
    if (!options_.clear_on_exit) {
        restore_default_tables(*applied_, ledger_, *this);
        return;
    }
    tmp_gws.flush_gws();
    for (const auto& key : ledger_.keys("qos:")) {
        const std::string dev = key.substr(4);
        clean_qdisc(dev.c_str(), "root");
        clean_qdisc(dev.c_str(), "ingress");
        ledger_.drop(key);
    }
    if (!applied_->lan_qos.isNull()) {
        std::string all = "all";
        std::string conf = applied_->directory + "/lan_qos.json";
        std::string device_info = applied_->device_info_path();
        setup_lan_qos(1, all, conf, device_info);
        ledger_.drop("lan_qos");
    }
    for (const char* prefix : {"route:", "private-routes:"})
        for (const auto& key : ledger_.keys(prefix)) ledger_.drop(key);
    for (const LinkKind* kind : {&kRegional, &kPrivate, &kTunnel6, &kTunnel})
        remove_links(*kind, ledger_, *this);
    edit_fou(1);
}

void Edge::publish() {
    Json::Value out(Json::objectValue);
    out["schema"] = kSchemaVersion;
    out["started"] = Json::Int64(started_);
    out["device_id"] = applied_ ? applied_->device_id : 0;
    out["ready"] = applied_.has_value();
    out["last_apply"]["time"] = Json::Int64(last_apply_);
    out["last_apply"]["good"] = last_apply_good_;
    out["last_apply"]["problems"] = Json::Value(Json::arrayValue);
    for (const auto& problem : problems_) out["last_apply"]["problems"].append(problem);
    out["failed_steps"] = Json::Value(Json::objectValue);
    for (const auto& [key, code] : failed_steps_) out["failed_steps"][key] = code;
    out["links"] = Json::Value(Json::arrayValue);
    for (const auto& [name, monitor] : monitors_) {
        Json::Value link(Json::objectValue);
        link["ifname"] = name;
        link["id"] = monitor.made_from["id"];
        link["type"] = monitor.made_from["type"];
        link["gateway"] = monitor.made_from["gateway"];
        link["bandwidth"] = Json::UInt64(monitor.bandwidth);
        link["status"] = status_word(monitor.status);
        link["since"] = Json::Int64(monitor.since);
        link["report"] = monitor.report;
        out["links"].append(link);
    }
    if (applied_) {
        const std::string own = std::to_string(applied_->device_id);
        const Json::Value sites =
            applied_->site.isObject() ? applied_->site.get("SITE_INFO", Json::Value()) : Json::Value();
        out["hub"] = sites.isObject() ? text_of(sites.get(own, Json::Value()), "HUB") : std::string();
    }
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
