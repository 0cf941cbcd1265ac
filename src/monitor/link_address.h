// The flags and addresses of one device.
#pragma once

#include <optional>
#include <string>

namespace corvo {

struct LinkAddresses {
    bool present = false;           // there is a device of that name
    bool usable = false;            // it has a link-layer address, is up and running
    std::string mac;                // six hex bytes joined by colons
    std::optional<std::string> ip;  // dotted IPv4; the last one of several
};

// Asks the kernel for one device, whatever their number, as getifaddrs would show it: addresses under another
// label are not the device's. False: the kernel could not be asked. Threading: any thread.
bool find_link_addresses(const std::string& dev, LinkAddresses& out);

}  // namespace corvo
