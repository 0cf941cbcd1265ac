// Host names to IPv4 addresses, without outliving a stop request.
//
// Who may include this: nexthop.
#pragma once

#include <netinet/in.h>

#include <optional>
#include <string>

namespace corvo {

// The address that `host` writes (as inet_addr reads it) or that the system's resolver finds for it; none
// when there is none or the calling worker is asked to stop. Blocks as long as the resolver does. Any thread.
std::optional<in_addr> resolve_ipv4(const std::string& host);

}  // namespace corvo
