// The daemon's entry: which interfaces are shaped, at which line rates.

#include <map>
#include <string>
#include <unordered_map>

#include "corvosetup/cfg_file.h"
#include "corvosetup/qos.h"
#include "foundation/guard.h"
#include "foundation/json.h"
#include "foundation/log_line.h"
#include "qos/shaper.h"

using corvo::guarded;
namespace log_ = corvo::log;

namespace {

constexpr const char* kFile = "qos.cpp";
constexpr const char* kDevicePath = "/etc/networkmanagement/device_info.json";

using LineRates = std::unordered_map<std::string, linerate>;

// A rate of another type than text or number is none, and an interface without a transmit rate is shaped all
// the same: say why.
unsigned long read_rate(const Json::Value& interface, const std::string& name, const char* key) {
    const Json::Value& value = corvo::j_member(interface, key);
    if (!value.isConvertibleTo(Json::stringValue)) {
        log_::error("Bad ", key, " of [", name, "], taken as 0.");
    }
    return corvo::text_to_ulong(corvo::j_str(interface, key, "0"));
}

void add_interfaces(const Json::Value& section, bool tun, LineRates& rates) {
    for (const std::string& name : section.getMemberNames()) {
        const Json::Value& interface = corvo::j_member(section, name);
        const int id = corvo::text_to_int(corvo::j_str(interface, "ID", "0"));
        if (id == 0) continue;
        rates[tun ? "tun" + std::to_string(id) : name] = {read_rate(interface, name, "RX_RATE"),
                                                          read_rate(interface, name, "TX_RATE")};
    }
}

int prepare_qos_info(const std::string& path, bool tun, LineRates& rates) {
    const log_::Entry entry{kFile, "prepare_qos_info"};
    CfgFile file(path);
    if (!file.good()) return entry.leave(int{corvo::kNotOpened});
    Json::Value document;
    file >> document;

    const Json::Value& wan = corvo::j_obj(document, "WAN_IFACE_INFO");
    if (wan.empty()) {
        log_::error("No WAN_IFACE_INFO value.\n");
        return entry.leave(int{corvo::kMissingSection});
    }
    add_interfaces(wan, tun, rates);
    const Json::Value& private_links = corvo::j_obj(document, "PRIVATE_IFACE_INFO");
    if (private_links.empty()) log_::debug("No PRIVATE_IFACE_INFO value.\n");
    add_interfaces(private_links, tun, rates);
    const Json::Value& regional_links = corvo::j_obj(document, "RGLINK_IFACE_INFO");
    if (regional_links.empty()) log_::debug("No RGLINK_IFACE_INFO value.\n");
    add_interfaces(regional_links, tun, rates);
    return entry.leave(int{corvo::kOk});
}

}  // namespace

int setup_qos(int op, std::string& dev, std::string& path, bool tun) {
    return guarded([&]() -> int {
        log_::ensure_file();
        const log_::Entry entry{kFile, "setup_qos"};
        if (path.empty()) {
            path = kDevicePath;
            log_::debug("Set config path to default path ", path);
        }
        const auto operation = static_cast<unsigned>(op);
        if (operation >= corvo::qos::kOperations) return entry.leave(int{corvo::kInvalidArgument});

        LineRates known;
        if (const int result = prepare_qos_info(path, tun, known); result < 0) {
            log_::error("prepare_qos_info failed! ret: ", result);
            return entry.leave(result);
        }
        std::map<std::string, linerate> selected;
        if (dev.empty() || dev == "all") {
            selected.insert(known.begin(), known.end());
        } else if (const auto found = known.find(dev); found != known.end()) {
            selected.insert(*found);
        } else {
            log_::error("Could not find [", dev, "] in the WAN map!\n");
            return entry.leave(int{corvo::kNoInterface});
        }
        int result = corvo::kOk;
        for (const auto& [name, rate] : selected) {
            result = corvo::qos::run(operation, ProcQoS(name, rate.rx_rate, rate.tx_rate, path));
        }
        return entry.leave(result);
    });
}

int setup_tun_qos(int /*op*/, std::string /*a*/, std::string /*b*/) {
    return guarded([&]() -> int {
        log_::ensure_file();
        const log_::Entry entry{kFile, "setup_tun_qos"};
        return entry.leave(int{corvo::kOk});
    });
}
