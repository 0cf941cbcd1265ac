#include "edged/monitors.h"

#include <corvosetup/utils.h>
#include <linux/neighbour.h>

#include <algorithm>
#include <cstdlib>

#include "edged/routes.h"

namespace edged {

namespace {

// The number in the name of a private port: condition files and reports carry it.
int port_number(const std::string& slave) {
    const auto digit = slave.find_first_of("0123456789");
    return digit == std::string::npos ? 0 : std::atoi(slave.c_str() + digit);
}

Json::Value made_from(const std::string& name, const Json::Value& element, bool wan) {
    Json::Value out(Json::objectValue);
    out["ifindex"] = get_ifindex(name.c_str());
    out["gateway"] = text_of(element, "ip4_gw");
    out["type"] = wan ? "WAN" : "PRIVATE";
    out["id"] = wan ? static_cast<int>(number_of(element, "id")) : port_number(text_of(element, "slave"));
    return out;
}

// By the same parts of its name as the library.
bool is_point_to_point(const std::string& name) {
    for (const char* part : {"ppp-", "ds-", "me-"})
        if (name.find(part) != std::string::npos) return true;
    return false;
}

// Null also when the device has gone meanwhile: the monitor will say so.
std::unique_ptr<ProcNeigh> watch_neighbour(const std::string& name, const std::string& gateway) {
    if (is_point_to_point(name)) return nullptr;
    try {
        return std::make_unique<ProcNeigh>(name, gateway, 0, false, 0);
    } catch (int) {
        return nullptr;
    }
}

}  // namespace

const char* word(LinkStatus status) {
    switch (status) {
        case LinkStatus::kStarting:
            return "starting";
        case LinkStatus::kUp:
            return "up";
        case LinkStatus::kDown:
            return "down";
    }
    return "";
}

// The library's names are not to be read while monitors run: copied before.
Monitors::Monitors(Ledger& ledger, Report& report)
    : ledger_(ledger), report_(report), state_names_(neigh_state_str) {}

void Monitors::look(Monitor& monitor) {
    if (!monitor.neighbour) return;
    if (monitor.neighbour->prepare() == 0) monitor.neighbour->scan_neigh();
    monitor.neighbour_state = monitor.neighbour->get_neigh_state();
}

void Monitors::stop_one(const std::string& name, Monitor& monitor) {
    doubt_default_table(name, !monitor.wan, ledger_);
    monitor.object->stop();
}

void Monitors::retire(const Desired& desired) {
    for (auto at = monitors_.begin(); at != monitors_.end();) {
        const auto& [name, monitor] = *at;
        const auto& links = monitor.wan ? desired.wans : desired.privates;
        const auto found = links.find(name);
        if (found != links.end() && monitor.made_from == made_from(name, found->second, monitor.wan)) {
            ++at;
            continue;
        }
        stop_one(name, at->second);
        report_.change("monitor:" + name, Change::kRemoved, 0);
        at = monitors_.erase(at);
    }
}

void Monitors::start(const Desired& desired) {
    awaited_.clear();
    for (const auto& [name, element] : desired.wans) start_one(name, element, true);
    for (const auto& [name, element] : desired.privates) start_one(name, element, false);
}

void Monitors::start_one(const std::string& name, const Json::Value& element, bool wan) {
    const Json::Value from = made_from(name, element, wan);
    const std::string gateway = from["gateway"].asString();
    if (gateway.empty()) return;
    const auto bandwidth =
        static_cast<unsigned long>(std::strtoull(text_of(element, "tx_rate", "0").c_str(), nullptr, 10));
    if (const auto found = monitors_.find(name); found != monitors_.end()) {
        found->second.wanted_bandwidth = bandwidth;
        return;
    }
    const std::string key = "monitor:" + name;
    if (from["ifindex"].asInt() < 1) awaited_.push_back(name);
    WmObj* raw = nullptr;
    const int code = Create_wm_obj(&raw, name, gateway, bandwidth, from["type"].asString(),
                                   static_cast<unsigned char>(from["id"].asInt()));
    if (code != 0) {
        report_.change(key, Change::kFailed, code);
        return;
    }
    Monitor& monitor = monitors_[name];
    monitor.object.reset(raw);
    monitor.made_from = from;
    monitor.wan = wan;
    monitor.bandwidth = monitor.wanted_bandwidth = bandwidth;
    monitor.since = std::time(nullptr);
    monitor.neighbour = watch_neighbour(name, gateway);
    monitor.object->start();
    report_.change(key, Change::kCreated, 0);
}

void Monitors::follow(const std::function<void(const std::string&, LinkStatus)>& changed) {
    for (auto& [name, monitor] : monitors_) {
        look(monitor);
        const Json::Value all = monitor.object->get_state();
        monitor.report = all.isObject() ? all.get(name, Json::Value()) : Json::Value();
        if (!monitor.report.isObject()) continue;
        const Json::Value probe = monitor.report.get(monitor.report.isMember("PING") ? "PING" : "ARP", {});
        const long stat = number_of(probe, "stat", -1);
        const LinkStatus status = stat < 0    ? LinkStatus::kStarting
                                  : stat == 0 ? LinkStatus::kUp
                                              : LinkStatus::kDown;
        if (status != monitor.status) {
            monitor.status = status;
            monitor.since = std::time(nullptr);
            changed(name, status);
        }
        // A new weight puts the gateway into the default route whatever the link's state and kind: only a WAN
        // link that is up may get it.
        if (monitor.wanted_bandwidth == monitor.bandwidth) continue;
        if (monitor.wan && status != LinkStatus::kUp) continue;
        if (monitor.wan) monitor.object->reset_bandwidth(monitor.wanted_bandwidth);
        monitor.bandwidth = monitor.wanted_bandwidth;
        report_.change("monitor:" + name, Change::kReplaced, 0);
    }
}

void Monitors::stop_all() {
    for (auto& [name, monitor] : monitors_) stop_one(name, monitor);
    monitors_.clear();
}

bool Monitors::all_wans_reported() const {
    return std::none_of(monitors_.begin(), monitors_.end(), [](const auto& entry) {
        return entry.second.wan && entry.second.status == LinkStatus::kStarting;
    });
}

std::vector<std::string> Monitors::wans_up() const {
    std::vector<std::string> out;
    for (const auto& [name, monitor] : monitors_)
        if (monitor.wan && monitor.status == LinkStatus::kUp) out.push_back(name);
    return out;
}

LinkTrust Monitors::trust() const {
    bool monitored = false;
    bool asking = false;
    bool in_use = false;
    for (const auto& [name, monitor] : monitors_) {
        monitored = monitored || monitor.wan;
        if (!monitor.wan || monitor.status != LinkStatus::kUp) continue;
        in_use = true;
        if (!monitor.neighbour) continue;  // its probe's word has to do
        constexpr int kResolved = NUD_REACHABLE | NUD_STALE | NUD_DELAY | NUD_NOARP | NUD_PERMANENT;
        if ((monitor.neighbour_state & kResolved) == 0) return LinkTrust::kDoubtful;
        asking = asking || monitor.neighbour_state == NUD_DELAY;
    }
    if (monitored && !in_use) return LinkTrust::kDoubtful;
    return asking ? LinkTrust::kAsking : LinkTrust::kSure;
}

bool Monitors::device_changed() const {
    const auto exists = [](const std::string& name) { return get_ifindex(name.c_str()) > 0; };
    if (std::any_of(awaited_.begin(), awaited_.end(), exists)) return true;
    return std::any_of(monitors_.begin(), monitors_.end(), [](const auto& entry) {
        const int index = get_ifindex(entry.first.c_str());
        return index > 0 && entry.second.made_from["ifindex"] != index;
    });
}

Json::Value Monitors::status() const {
    Json::Value out(Json::arrayValue);
    for (const auto& [name, monitor] : monitors_) {
        Json::Value link(Json::objectValue);
        link["ifname"] = name;
        link["id"] = monitor.made_from["id"];
        link["type"] = monitor.made_from["type"];
        link["gateway"] = monitor.made_from["gateway"];
        link["bandwidth"] = Json::UInt64(monitor.bandwidth);
        link["status"] = word(monitor.status);
        link["since"] = Json::Int64(monitor.since);
        if (monitor.neighbour) {
            const auto text = state_names_.find(monitor.neighbour_state);
            link["neighbour"]["state"] = text != state_names_.end() ? text->second : "";
            link["neighbour"]["mac"] = monitor.neighbour->get_target_mac();
        }
        link["report"] = monitor.report;
        out.append(link);
    }
    return out;
}

}  // namespace edged
