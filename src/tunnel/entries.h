// The interface lists of the network information service, and which of their entries a call is for.
//
// Who may include this: this area.
#pragma once

#include <json/value.h>

#include <functional>
#include <string>
#include <unordered_map>

namespace corvo::tunnel {

using EntryMap = std::unordered_map<std::string, Json::Value>;
using Fetch = int (*)(EntryMap& out, std::string path, int comprehensive);

constexpr const char* kDeviceInfo = "/etc/networkmanagement/device_info.json";

// Fills `entries`; a failure is logged with the fetching function's `name` and its code returned.
int fetch_entries(Fetch fetch, const char* name, const std::string& source, int comprehensive,
                  EntryMap& entries);

enum class Match {
    kKey,            // the entry of that name
    kNameThenSlave,  // the entry with that "ifname"; failing all, one that rides on an interface of that name
};

struct EntryRun {
    const char* map_name;  // in the message about a name that is not there
    Match match = Match::kKey;
    bool missing_as_empty = false;  // a name that is not there: run once on a null entry all the same
    std::function<int(const std::string& key, Json::Value& entry)> run = {};
    // Logs a failed run; empty: the runs log for themselves.
    std::function<void(const std::string& key, int result)> failed = {};
    bool report_single = true;  // whether `failed` is for a single named entry too
};

// Runs on every entry ("" or "all") or on the one of that name. The result is that of the last run, so one
// that failed is forgotten when a later one succeeds; 0 when nothing ran. An entry that throws is one that
// failed.
int run_entries(EntryMap& entries, const std::string& ifname, const EntryRun& how);

}  // namespace corvo::tunnel
