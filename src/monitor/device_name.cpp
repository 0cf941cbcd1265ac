#include "monitor/device_name.h"

namespace corvo {

namespace {

std::size_t prefix_length(const std::string& dev) {
    const auto contains = [&](const char* mark) { return dev.find(mark) != std::string::npos; };
    if (contains("ppp-")) return 4;
    if (contains("ds-") || contains("me-")) return 3;
    return 0;
}

}  // namespace

bool is_point_to_point(const std::string& dev) {
    return prefix_length(dev) != 0;
}

std::string underlying_device(const std::string& dev) {
    return dev.substr(prefix_length(dev));
}

}  // namespace corvo
