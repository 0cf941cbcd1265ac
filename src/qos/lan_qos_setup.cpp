// The daemon's entry: the uplink device, then every LAN interface.

#include <optional>
#include <stdexcept>

#include "corvosetup/cfg_file.h"
#include "corvosetup/lan_qos.h"
#include "foundation/guard.h"
#include "foundation/log_line.h"
#include "qos/lan_rules.h"
#include "qos/shaper.h"

using corvo::guarded;
namespace log_ = corvo::log;
namespace qos = corvo::qos;

namespace {

constexpr const char* kFile = "lan_qos.cpp";
constexpr const char* kShapingPath = "/etc/networkmanagement/lan_qos.json";
constexpr const char* kDevicePath = "/etc/networkmanagement/device_info.json";
constexpr const char* kUplinkDevice = "ifb0";

// Loads the document and hands it to `read`. A member of the wrong type ends in the one line both readers
// have for it.
template <class Read>
int parse(const std::string& path, Read&& read) {
    try {
        CfgFile file(path);
        if (!file.good()) return corvo::kNotOpened;
        Json::Value document;
        file >> document;
        return read(document);
    } catch (const std::runtime_error& error) {
        log_::error("Parse device info rror: ", error.what());
        return corvo::kBadReply;
    }
}

int parse_dev_info(const std::string& path, const std::string& dev, qos::LanPorts& ports) {
    const log_::Entry entry{kFile, "parse_dev_info"};
    return entry.leave(
        parse(path, [&](const Json::Value& document) { return qos::read_lan_ports(document, dev, ports); }));
}

int parse_qos_info(const std::string& path, unsigned short protocol, qos::LanShaping& shaping) {
    const log_::Entry entry{kFile, "parse_qos_info"};
    return entry.leave(parse(path, [&](const Json::Value& document) {
        qos::read_lan_shaping(document, protocol, shaping);
        return int{corvo::kOk};
    }));
}

// Whether the operation failed on this device.
bool failed(unsigned op, ProcLanQoS&& shaper) {
    return qos::run(op, shaper) != 0;
}

void run_all(unsigned op, const qos::LanPorts& ports, qos::LanShaping& shaping) {
    std::string redirect;
    unsigned failures = 0;
    if (!shaping.uplink.classes.empty() && !shaping.uplink.rules.empty()) {
        std::string device = kUplinkDevice;
        failures += failed(
            op, ProcLanQoS(device, shaping.uplink.classes, shaping.uplink.rules, redirect, ports.protocol));
        redirect = kUplinkDevice;
    }
    for (std::string interface : ports.interfaces) {
        failures += failed(op, ProcLanQoS(interface, shaping.downlink.classes, shaping.downlink.rules,
                                          redirect, ports.protocol));
    }
    if (failures != 0) log_::error("Setup lan qos failed: ", failures);
}

}  // namespace

int setup_lan_qos(int op, std::string& dev, std::string& conf, std::string& dev_conf) {
    return guarded([&]() -> int {
        log_::ensure_file();
        const log_::Entry entry{kFile, "setup_lan_qos"};
        if (conf.empty()) {
            conf = kShapingPath;
            log_::debug("Set lan_qos config path to default path /etc/networkmanagement/lan_qos.json.\n");
        }
        if (dev_conf.empty()) {
            dev_conf = kDevicePath;
            log_::debug(
                "Set dev_info config path to default path /etc/networkmanagement/device_info.json.\n");
        }
        const auto operation = static_cast<unsigned>(op);
        if (operation >= qos::kOperations) return entry.leave(int{corvo::kInvalidArgument});

        qos::LanPorts ports;
        if (const int result = parse_dev_info(dev_conf, dev, ports); result < 0) {
            log_::error("parse_dev_info failed! ret: ", result);
            return entry.leave(result);
        }
        qos::LanShaping shaping;
        if (const int result = parse_qos_info(conf, ports.protocol, shaping); result < 0) {
            log_::error("parse_qos_info failed! ret: ", result);
            return entry.leave(result);
        }
        log_::debug("DEV: [", dev, "], Conf: ", conf, ", Dev_Conf: ", dev_conf,
                    ", UPLINK_CLS: ", shaping.uplink.classes.size(),
                    ", DOWNLINK_CLS: ", shaping.downlink.classes.size(),
                    ", UPLINK: ", shaping.uplink.rules.size(), ", DOWNLINK: ", shaping.downlink.rules.size());
        run_all(operation, ports, shaping);
        return entry.leave(int{corvo::kOk});
    });
}
