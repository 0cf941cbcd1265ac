#include "edged/shaping.h"

#include <corvosetup/lan_qos.h>
#include <corvosetup/qos.h>
#include <corvosetup/tc.h>
#include <corvosetup/utils.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <set>
#include <string_view>

namespace edged {

namespace {

constexpr const char* kLanKey = "lan_qos";

// Whether the device carries a tree of ours.
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

// The ifb device that limits the ingress of `dev`: that of the port's number less one, ifb0 for all others.
std::string ingress_device(const std::string& dev) {
    const auto digit = dev.find_first_of("0123456789");
    const int number = digit == std::string::npos ? 1 : std::atoi(dev.c_str() + digit);
    return "ifb" + std::to_string(number > 0 ? number - 1 : 0);
}

void remove_tree(const std::string& key, Ledger& ledger, Report& report) {
    const std::string dev = key.substr(key.find(':') + 1);
    const bool limited = text_of(ledger.record(key)["applied"], "rx_rate", "0") != "0";
    ledger.begin(key, ledger.record(key)["applied"]);
    if (get_ifindex(dev.c_str()) > 0) {
        clean_qdisc(dev.c_str(), "root");
        clean_qdisc(dev.c_str(), "ingress");
    }
    ledger.drop(key);
    // The ifb device may serve another interface, and the LAN's uplink.
    const std::string ifb = ingress_device(dev);
    bool shared = ifb == "ifb0" && ledger.record(kLanKey).isObject();
    for (const auto& other : ledger.keys("qos:")) shared = shared || ingress_device(other.substr(4)) == ifb;
    if (limited && !shared && get_ifindex(ifb.c_str()) > 0) clean_qdisc(ifb.c_str(), "root");
    report.change(key, Change::kRemoved, 0);
}

void apply_tree(const std::string& dev, const Json::Value& interface, const Desired& desired, Ledger& ledger,
                Report& report) {
    const int index = get_ifindex(dev.c_str());
    const std::string key = "qos:" + dev;
    Json::Value made_from(Json::objectValue);
    made_from["rx_rate"] = text_of(interface, "RX_RATE", "0");
    made_from["tx_rate"] = text_of(interface, "TX_RATE", "0");
    made_from["qos"] = desired.qos;
    if (ledger.fits(key, made_from, index) && has_tree(dev)) {
        report.change(key, Change::kAdopted, 0);
        return;
    }
    const bool replaces = ledger.record(key)["applied"].isObject();
    ledger.begin(key, made_from);
    std::string name = dev;
    std::string path = desired.device_info_path();
    int code = setup_qos(2, name, path, false);
    // With an ingress limit the result is that side's alone.
    if (code == 0 && !has_tree(dev)) code = -3001;
    if (code == 0) ledger.put(key, made_from, index);
    report.change(key, code != 0 ? Change::kFailed : replaces ? Change::kReplaced : Change::kCreated, code);
}

// The LAN's operations read their documents from files.
int run_lan(int op, const Json::Value& applied, const std::string& work_directory) {
    std::string conf = work_directory + "/lan_qos-change.json";
    std::string device_info = work_directory + "/device_info-change.json";
    std::ofstream(conf, std::ios::trunc) << compact(applied["qos"]) << '\n';
    std::ofstream(device_info, std::ios::trunc) << compact(applied["device_info"]) << '\n';
    std::string all = "all";
    return setup_lan_qos(op, all, conf, device_info);
}

std::set<std::string> lan_ports(const Json::Value& lan) {
    std::set<std::string> out;
    const Json::Value ports = member(lan["device_info"], "LAN_PORT");
    for (const auto& port : ports) out.insert(text_of(port, "INTERFACE"));
    out.erase("");
    return out;
}

bool any_rate(const Json::Value& lan, const char* key) {
    const Json::Value groups = member(lan["qos"], "GROUPS");
    if (!groups.isArray()) return false;
    return std::any_of(groups.begin(), groups.end(),
                       [key](const Json::Value& group) { return number_of(group, key) != 0; });
}

// The library's result does not tell of a port that failed; what the kernel holds afterwards does.
int judge_lan(const Json::Value& lan) {
    int code = any_rate(lan, "UPLINK_RATE") && !has_tree("ifb0") ? -3001 : 0;
    const bool down = any_rate(lan, "DOWNLINK_RATE");
    for (const auto& port : lan_ports(lan)) {
        if (get_ifindex(port.c_str()) < 1)
            code = -3005;
        else if (down && !has_tree(port) && code == 0)
            code = -3001;
    }
    return code;
}

// Another device of a port's name has none of the old one's trees.
int lan_devices(const Json::Value& lan) {
    int out = 0;
    for (const auto& port : lan_ports(lan)) out = out * 31 + get_ifindex(port.c_str());
    return out;
}

void remove_lan(const std::string& work_directory, Ledger& ledger) {
    const Json::Value recorded = ledger.record(kLanKey);
    ledger.begin(kLanKey, recorded["begun"]);
    for (const char* which : {"applied", "begun"})
        if (recorded[which].isObject()) run_lan(1, recorded[which], work_directory);
}

void apply_lan(const Desired& desired, const std::string& work_directory, Ledger& ledger, Report& report) {
    Json::Value lan(Json::objectValue);
    lan["qos"] = desired.lan_qos;
    for (const char* section : {"LAN_PORT", "VLAN_SEG"})
        if (desired.device_info.isObject() && desired.device_info.isMember(section))
            lan["device_info"][section] = desired.device_info[section];
    const Json::Value recorded = ledger.record(kLanKey);
    if (desired.lan_qos.isNull()) {
        if (!recorded.isObject()) return;
        remove_lan(work_directory, ledger);
        ledger.drop(kLanKey);
        report.change(kLanKey, Change::kRemoved, 0);
        return;
    }
    if (ledger.fits(kLanKey, lan, lan_devices(lan))) {
        report.change(kLanKey, Change::kAdopted, 0);
        return;
    }
    if (recorded.isObject()) remove_lan(work_directory, ledger);
    ledger.begin(kLanKey, lan);
    int code = run_lan(2, lan, work_directory);
    if (code == 0) code = judge_lan(lan);
    if (code == 0) ledger.put(kLanKey, lan, lan_devices(lan));
    report.change(kLanKey,
                  code != 0             ? Change::kFailed
                  : recorded.isObject() ? Change::kReplaced
                                        : Change::kCreated,
                  code);
}

// Interface: its element, of all that are to be shaped.
std::map<std::string, Json::Value> wanted_trees(const Desired& desired) {
    std::map<std::string, Json::Value> wanted;
    for (const char* section : {"WAN_IFACE_INFO", "PRIVATE_IFACE_INFO", "RGLINK_IFACE_INFO"}) {
        const Json::Value interfaces = member(desired.device_info, section);
        if (!interfaces.isObject() || desired.qos.isNull()) continue;
        for (const auto& dev : interfaces.getMemberNames())
            if (number_of(interfaces[dev], "ID") != 0) wanted[dev] = interfaces[dev];
    }
    return wanted;
}

// Of a step that is done: whether it was done to another device than the one that is there now.
bool is_other(const Json::Value& record, int ifindex) {
    return ifindex > 0 && record.isObject() && !record.isMember("begun") && record["ifindex"] != ifindex;
}

}  // namespace

bool shaping_device_changed(const Desired& desired, const Ledger& ledger) {
    for (const auto& [dev, interface] : wanted_trees(desired)) {
        const int index = get_ifindex(dev.c_str());
        const Json::Value& record = ledger.record("qos:" + dev);
        if ((index > 0 && record.isNull()) || is_other(record, index)) return true;
    }
    const Json::Value& lan = ledger.record(kLanKey);
    return lan.isObject() && is_other(lan, lan_devices(lan["applied"]));
}

void apply_shaping(const Desired& desired, const std::string& work_directory, Ledger& ledger,
                   Report& report) {
    const auto wanted = wanted_trees(desired);
    for (const auto& key : ledger.keys("qos:"))
        if (!wanted.count(key.substr(4))) remove_tree(key, ledger, report);
    for (const auto& [dev, interface] : wanted)
        if (get_ifindex(dev.c_str()) > 0) apply_tree(dev, interface, desired, ledger, report);
    apply_lan(desired, work_directory, ledger, report);
}

void remove_shaping(const std::string& work_directory, Ledger& ledger, Report& report) {
    if (ledger.record(kLanKey).isObject()) {
        remove_lan(work_directory, ledger);
        ledger.drop(kLanKey);
        report.change(kLanKey, Change::kRemoved, 0);
    }
    for (const auto& key : ledger.keys("qos:")) remove_tree(key, ledger, report);
}

}  // namespace edged
