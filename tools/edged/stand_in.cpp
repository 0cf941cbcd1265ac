#include "edged/stand_in.h"

#include <corvosetup/link.h>
#include <corvosetup/route.h>
#include <corvosetup/service.h>
#include <corvosetup/utils.h>
#include <net/if.h>

#include <algorithm>
#include <unordered_map>

namespace edged {

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr const char* kKey = "stand-in";

// The kernel refuses a route as a whole when one of its devices is missing or down.
bool usable(const std::string& name) {
    const int index = get_ifindex(name.c_str());
    unsigned flags = 0;
    return index > 0 && get_dev_flags(index, &flags) == 0 && (flags & IFF_UP) != 0;
}

}  // namespace

void StandIn::begin(const Desired& desired) {
    std::vector<std::string> all;
    std::vector<std::string> alive;
    for (const auto& [name, element] : desired.wans) {
        if (text_of(element, "ip4_gw").empty() || !usable(name)) continue;
        all.push_back(name);
        if (!ledger_.record("down:" + name).isObject()) alive.push_back(name);
    }
    build(desired, alive.empty() ? all : alive);
    until_ = Clock::now() + 30s;
}

// The library chooses among the links that the service reports as usable, and wants every id it is given to
// be among them.
void StandIn::build(const Desired& desired, const std::vector<std::string>& names) {
    std::unordered_map<std::string, Json::Value> reported;
    int code = get_available_wan_info(reported, desired.device_info_path(), 0);
    Json::Value ids(Json::arrayValue);
    Json::Value made_from(Json::arrayValue);
    for (const auto& name : names) {
        const auto found = reported.find(name);
        if (found == reported.end()) continue;
        Json::Value entry(Json::arrayValue);
        entry.append(get_ifindex(name.c_str()));
        for (const char* key : {"id", "ip4_gw", "tx_rate"}) entry.append(member(found->second, key));
        made_from.append(entry);
        ids.append(Json::UInt(number_of(found->second, "id")));
    }
    if (code == 0 && ids.empty()) return;
    if (code == 0 && ledger_.fits(kKey, made_from)) {
        stands_ = true;
        report_.change(kKey, Change::kAdopted, 0);
        return;
    }
    ledger_.begin(kKey, made_from);
    if (code == 0) code = setup_def(ids);
    if (code == 0) ledger_.put(kKey, made_from);
    stands_ = code == 0;
    report_.change(kKey, code == 0 ? Change::kCreated : Change::kFailed, code);
}

void StandIn::note(const std::string& name, bool down) {
    const std::string key = "down:" + name;
    if (down)
        ledger_.put(key, Json::Value(true));
    else
        ledger_.drop(key);
}

void StandIn::follow(bool all_reported, bool any_up) {
    if (stands_ && any_up && (all_reported || Clock::now() >= until_)) remove();
}

void StandIn::leave(const Desired& desired, const std::vector<std::string>& names) {
    if (!names.empty()) build(desired, names);
}

void StandIn::remove() {
    ledger_.begin(kKey);
    tmp_gws.flush_gws();
    ledger_.drop(kKey);
    stands_ = false;
    report_.change(kKey, Change::kRemoved, 0);
}

}  // namespace edged
