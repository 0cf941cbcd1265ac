// Runs the library's presetup the way the managing daemon does, and shows what it changed in the kernel:
// every value is read from the kernel before and after, and compared with what the library's tables promise.

#include <net/if.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "corvosetup/log.h"
#include "corvosetup/presetup.h"

namespace {

namespace fs = std::filesystem;

constexpr const char* kIpv4 = "/proc/sys/net/ipv4/";
constexpr const char* kIpv6 = "/proc/sys/net/ipv6/conf/";
constexpr const char* kLinks = "/sys/class/net/";

// One kernel value: where it is, what it shall be (empty: whatever presetup makes of it), what it was and is.
struct Value {
    std::string path;
    std::string wanted;
    std::optional<std::string> before;
    std::optional<std::string> after;
};

std::optional<std::string> read(const std::string& path) {
    std::ifstream file(path);
    std::string text;
    if (!std::getline(file, text)) return {};
    return text;
}

std::vector<std::string> entries(const std::string& folder) {
    std::vector<std::string> names;
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(folder, error)) names.push_back(entry.path().filename());
    return names;
}

std::vector<Value> values_of_presetup() {
    std::vector<Value> all;
    for (const auto& name : entries(std::string(kIpv4) + "conf"))
        for (const auto& [key, value] : conf_map)
            all.push_back({std::string(kIpv4) + "conf/" + name + "/" + key, value, {}, {}});
    for (const auto& [key, value] : std::map<std::string, std::string>{{"ip_forward", "1"},
                                                                       {"neigh/default/gc_interval", "270"},
                                                                       {"neigh/default/gc_thresh1", "1"},
                                                                       {"neigh/default/gc_thresh2", "3000"},
                                                                       {"neigh/default/gc_thresh3", "3000"}})
        all.push_back({kIpv4 + key, value, {}, {}});
    for (const auto& name : entries(kIpv6)) {
        for (const auto& [key, value] : conf6_map) {
            // The global switch is on, every single interface is off.
            const bool global = name == "all" && key == "forwarding";
            all.push_back({kIpv6 + name + "/" + key, global ? "1" : value, {}, {}});
        }
    }
    all.push_back({std::string(kIpv6) + "all/disable_ipv6", "0", {}, {}});
    for (const auto& [path, value] : tcp_map) all.push_back({path, value, {}, {}});
    for (const auto& name : entries(kLinks))
        for (const auto& queue : entries(kLinks + name + "/queues"))
            all.push_back({kLinks + name + "/queues/" + queue + (queue[0] == 'r' ? "/rps_cpus" : "/xps_cpus"),
                           "",
                           {},
                           {}});
    return all;
}

std::string shown(const std::optional<std::string>& value) {
    return value ? (value->empty() ? "(empty)" : *value) : "-";
}

// The path with the interface (and queue) replaced by a star, so that what happens to all of them is one
// line.
std::string pattern(const std::string& path) {
    for (const std::string& folder :
         {std::string(kIpv4) + "conf/", std::string(kIpv6), std::string(kLinks)}) {
        if (!path.starts_with(folder)) continue;
        const auto last = path.rfind('/');
        return folder + (folder == kLinks ? "*/queues/*" : "*") + path.substr(last);
    }
    return path;
}

void heading(const char* text) {
    std::printf("\n== %s\n", text);
}

void print(const std::map<std::string, int>& lines) {
    for (const auto& [line, count] : lines) {
        std::printf("%s", line.c_str());
        if (count > 1) std::printf("   (%d times)", count);
        std::printf("\n");
    }
}

struct Step {
    const char* name;
    std::function<int()> run;
};

}  // namespace

int main() {
    heading("before");
    const auto links_before = entries(kLinks);
    std::printf("%zu links; log: %s\n", links_before.size(), log_target.c_str());

    // The devices of module_probing come first: their values are part of what the other steps set.
    heading("presetup, in the daemon's order");
    std::printf("%-18s (no result)\n", "module_probing");
    module_probing();
    auto values = values_of_presetup();
    for (auto& value : values) value.before = read(value.path);
    const Step steps[] = {{"presetup_ipv4", presetup_ipv4},
                          {"presetup_ipv6", presetup_ipv6},
                          {"presetup_mptcp", presetup_mptcp},
                          {"presetup_rps_xps", presetup_rps_xps}};
    for (const auto& step : steps) std::printf("%-18s %d\n", step.name, step.run());

    heading("what changed in the kernel");
    for (const auto& name : entries(kLinks)) {
        bool found = false;
        for (const auto& old : links_before) found = found || old == name;
        if (!found)
            std::printf("new link %s: %s\n", name.c_str(), shown(read(kLinks + name + "/flags")).c_str());
    }
    int changed = 0, kept = 0, missing = 0, wrong = 0;
    std::map<std::string, int> lines;
    std::map<std::string, int> absent;
    for (auto& value : values) {
        value.after = read(value.path);
        if (!value.after && !value.before) {
            ++missing;
            ++absent[pattern(value.path)];
        } else if (!value.wanted.empty() && value.after != value.wanted) {
            ++wrong;
            ++lines["WRONG: " + value.path + ": " + shown(value.after) + ", not " + value.wanted];
        } else if (value.before != value.after) {
            ++changed;
            ++lines[pattern(value.path) + ": " + shown(value.before) + " -> " + shown(value.after)];
        } else {
            ++kept;
        }
    }
    print(lines);
    heading("what this kernel does not have");
    print(absent);
    std::printf("\n%d values changed, %d were right already, %d do not exist here, %d wrong\n", changed, kept,
                missing, wrong);
    return wrong == 0 ? 0 : 1;
}
