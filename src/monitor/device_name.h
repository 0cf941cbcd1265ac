// What a device's name says about its link.
#pragma once

#include <string>

namespace corvo {

// "ppp-", "ds-" and "me-" mark point-to-point links. They count wherever they stand in the name, while the
// cut is at the fixed length: "vds-1" is a point-to-point link on "-1". Provisioning depends on both.
bool is_point_to_point(const std::string& dev);

// `dev` without its prefix; `dev` itself when there is none. A VLAN suffix stays.
std::string underlying_device(const std::string& dev);

}  // namespace corvo
