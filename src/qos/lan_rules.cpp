#include "qos/lan_rules.h"

#include <arpa/inet.h>

#include <algorithm>
#include <stdexcept>

#include "corvosetup/utils.h"
#include "foundation/json.h"
#include "foundation/log_line.h"
#include "foundation/result.h"
#include "qos/shaper.h"

namespace corvo::qos {
namespace {

const Json::Value& expect(const Json::Value& value, Json::ValueType type, const char* what) {
    if (!value.isNull() && value.type() != type) {
        throw std::runtime_error(std::string(what) + " is not " +
                                 (type == Json::arrayValue ? "an array" : "an object"));
    }
    return value;
}

// The text of a member, from a number too; `fallback` when there is none.
std::string text_of(const Json::Value& object, const char* key, const char* fallback) {
    const Json::Value& value = j_member(object, key);
    if (!value.isNull() && !value.isConvertibleTo(Json::stringValue)) {
        throw std::runtime_error(std::string(key) + " is not a text");
    }
    return j_str(object, key, fallback);
}

void read_mac(const Json::Value& rule, const char* key, unsigned char (&mac)[6]) {
    const std::string text = text_of(rule, key, "");
    // Zero afterwards, so the rule matches every address: say so.
    if (str2mac(text, reinterpret_cast<char*>(mac)) < 0 && !text.empty()) {
        log::error("Bad ", key, ": [", text, "], not matched.");
    }
}

void read_address(const Json::Value& rule, const char* key, const char* mask_key, uint32_t& address,
                  uint32_t& mask) {
    const std::string text = text_of(rule, key, "");
    address = htonl(str2uint32_t(text));
    mask = htonl(prefix2uint32_t(text_of(rule, mask_key, "0")));
    if (address == 0 && !text.empty() && text != "0.0.0.0") {
        log::error("Bad ", key, ": [", text, "], not matched.");
    }
}

U32QoSObj read_rule(const Json::Value& rule, unsigned short protocol) {
    U32QoSObj match{};
    match.prio = static_cast<uint32_t>(text_to_int(text_of(rule, "PRIO", "0")));
    match.protocol = protocol;
    read_mac(rule, "SMAC", match.smac);
    read_mac(rule, "DMAC", match.dmac);
    read_address(rule, "SIP", "SMASK", match.saddr, match.smask);
    read_address(rule, "DIP", "DMASK", match.daddr, match.dmask);
    match.sport = static_cast<uint32_t>(text_to_int(text_of(rule, "SPORT", "0")));
    match.dport = static_cast<uint32_t>(text_to_int(text_of(rule, "DPORT", "0")));
    return match;
}

void read_rules(const Json::Value& document, const char* key, unsigned short protocol,
                std::vector<U32QoSObj>& rules) {
    for (const Json::Value& rule : expect(j_member(document, key), Json::arrayValue, key)) {
        rules.push_back(read_rule(expect(rule, Json::objectValue, key), protocol));
    }
}

}  // namespace

int read_lan_ports(const Json::Value& document, const std::string& dev, LanPorts& ports) {
    expect(document, Json::objectValue, "The document");
    ports.protocol = document.isMember("VLAN_SEG") ? kVlan : kIpv4;
    const Json::Value& section = expect(j_member(document, "LAN_PORT"), Json::objectValue, "LAN_PORT");
    if (section.empty()) {
        log::error("No LAN_PORT value.\n");
        return kMissingSection;
    }
    auto& names = ports.interfaces;
    for (const Json::Value& port : section) {
        std::string name = text_of(expect(port, Json::objectValue, "LAN_PORT"), "INTERFACE", "");
        if (std::find(names.begin(), names.end(), name) == names.end()) names.push_back(std::move(name));
    }
    if (!dev.empty() && dev != "all") {
        const bool listed = std::find(names.begin(), names.end(), dev) != names.end();
        names.clear();
        if (listed) {
            names.push_back(dev);
        } else {
            log::error("Could not find [", dev, "] in LAN interface.\n");
        }
    }
    if (names.empty()) {
        log::error("No available LAN interface.\n");
        return kNoInterface;
    }
    return kOk;
}

void read_lan_shaping(const Json::Value& document, unsigned short protocol, LanShaping& shaping) {
    expect(document, Json::objectValue, "The document");
    for (const Json::Value& group : expect(j_member(document, "GROUPS"), Json::arrayValue, "GROUPS")) {
        expect(group, Json::objectValue, "GROUPS");
        const auto prio = static_cast<unsigned>(text_to_int(text_of(group, "PRIO", "0")));
        const unsigned long up = text_to_ulong(text_of(group, "UPLINK_RATE", "0"));
        const unsigned long down = text_to_ulong(text_of(group, "DOWNLINK_RATE", "0"));
        if (up != 0) shaping.uplink.classes.push_back({prio, up});
        if (down != 0) shaping.downlink.classes.push_back({prio, down});
    }
    read_rules(document, "UPLINK", protocol, shaping.uplink.rules);
    read_rules(document, "DOWNLINK", protocol, shaping.downlink.rules);
}

}  // namespace corvo::qos
