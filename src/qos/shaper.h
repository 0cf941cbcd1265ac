// What shaping of WAN and of LAN devices have in common.
//
// Who may include this: the qos area.
#pragma once

#include <string>

#include "corvosetup/utils.h"
#include "foundation/log_line.h"
#include "foundation/result.h"

namespace corvo::qos {

enum Operation : unsigned { kStart, kStop, kRestart, kOperations };

inline constexpr unsigned short kIpv4 = 0x800;
inline constexpr unsigned short kVlan = 0x8100;

template <class Shaper>
int run(unsigned operation, Shaper&& shaper) {
    switch (operation) {
        case kStop:
            return shaper.stop();
        case kRestart:
            return shaper.restart();
        default:
            return shaper.start();
    }
}

// -3004 without a name, -3005 without such a device.
inline int check_device(const std::string& name) {
    if (name.empty()) return kInvalidArgument;
    return get_ifindex(name.c_str()) < 1 ? kNoInterface : kOk;
}

// Logs which object of a tree failed, by the minor number of its class, and hands `result` back.
inline int object_failed(const char* what, const std::string& minor, int result) {
    log::error("Setup ", what, ": 1:", minor, " failed, Ret", result);
    return result;
}

}  // namespace corvo::qos
