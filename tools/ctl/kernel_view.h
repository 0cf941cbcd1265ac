// What the kernel holds, read after a call: several library functions report success whatever became of a
// single device, so what corvoctl prints about a device comes from here.
#pragma once

#include <json/value.h>

#include <string>
#include <vector>

namespace corvoctl {

struct LinkView {
    std::string name;
    int ifindex = 0;  // 0: there is no such device
    bool up = false;
    std::vector<std::string> addresses;  // with prefix length, IPv4 first

    bool exists() const { return ifindex > 0; }
};

LinkView view_link(const std::string& name);
Json::Value to_json(const LinkView& link);
std::string to_line(const LinkView& link);

}  // namespace corvoctl
