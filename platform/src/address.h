// Where a service's socket lies.
#pragma once

#include <string>
#include <string_view>

struct sockaddr_un;

namespace vx {

// "<directory>/<service>.sock"
std::string socket_path(const std::string& directory, std::string_view service);

// False when the path does not fit into a socket address.
bool fill_address(const std::string& path, sockaddr_un& address);

}  // namespace vx
