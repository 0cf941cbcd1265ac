// What the LAN shaping documents say.
//
// Who may include this: the qos area and its tests. Both readers log what they find missing and throw
// std::runtime_error for a member of the wrong type; a null or missing member is an empty one.
#pragma once

#include <json/value.h>

#include <string>
#include <vector>

#include "corvosetup/lan_qos.h"

namespace corvo::qos {

struct LanPorts {
    unsigned short protocol = 0x800;      // 0x8100 on a device with VLAN segments
    std::vector<std::string> interfaces;  // in document order of their ports, each once
};

// The LAN interfaces of the device-information document, reduced to `dev` unless that is empty or "all".
// -3020 without LAN ports, -3005 when none is left: `dev` is not one of them.
int read_lan_ports(const Json::Value& document, const std::string& dev, LanPorts& ports);

struct LanDirection {
    std::vector<LanQosCls> classes;
    std::vector<U32QoSObj> rules;
};
struct LanShaping {
    LanDirection uplink;
    LanDirection downlink;
};

// Groups and rules of the LAN shaping document; every rule matches `protocol`.
void read_lan_shaping(const Json::Value& document, unsigned short protocol, LanShaping& shaping);

}  // namespace corvo::qos
