#include "tunnel/entries.h"

#include "foundation/guard.h"
#include "foundation/json.h"
#include "foundation/log_line.h"

namespace corvo::tunnel {

namespace {

EntryMap::iterator find_entry(EntryMap& entries, const std::string& name, Match match) {
    if (match == Match::kKey) return entries.find(name);
    // The order of the map must not decide between a name and another entry's slave: names first.
    for (const char* key : {"ifname", "slave"}) {
        for (auto entry = entries.begin(); entry != entries.end(); ++entry) {
            if (j_str(entry->second, key) == name) return entry;
        }
    }
    return entries.end();
}

}  // namespace

int fetch_entries(Fetch fetch, const char* name, const std::string& source, int comprehensive,
                  EntryMap& entries) {
    const int result = fetch(entries, source, comprehensive);
    if (result != kOk) log::error(name, " failed! ret: ", result);
    return result;
}

int run_entries(EntryMap& entries, const std::string& ifname, const EntryRun& how) {
    const auto run = [&](const std::string& key, Json::Value& entry, bool report) {
        const int result = guarded([&] { return how.run(key, entry); });
        if (result != kOk && how.failed && report) how.failed(key, result);
        return result;
    };

    if (ifname.empty() || ifname == "all") {
        int result = kOk;
        for (auto& [key, entry] : entries) result = run(key, entry, true);
        return result;
    }
    const auto found = find_entry(entries, ifname, how.match);
    if (found != entries.end()) return run(found->first, found->second, how.report_single);
    log::error("Could not find [", ifname, "] in ", how.map_name, " map!\n");
    if (!how.missing_as_empty) return kOk;
    Json::Value nothing;
    return run(ifname, nothing, how.report_single);
}

}  // namespace corvo::tunnel
