// Plain rtnetlink for the tests' own eyes and hands, apart from the library's.
#pragma once

#include <linux/rtnetlink.h>

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "foundation/fd.h"

namespace corvo::test {

class Rtnetlink {
public:
    Rtnetlink();

    // Asks for everything of `type`; `header` begins with the family (and, for traffic control, the device).
    template <class Header>
    void dump(int type, const Header& header, const std::function<void(const nlmsghdr*)>& visit) {
        dump(type, std::string(reinterpret_cast<const char*>(&header), sizeof header), visit);
    }

    // Sends one request with this body (the type's header and its attributes); the kernel's errno, negative.
    int tell(int type, int flags, std::string_view body);

private:
    void dump(int type, const std::string& body, const std::function<void(const nlmsghdr*)>& visit);
    void send(int type, int flags, std::string_view body);

    UniqueFd fd_;
    std::uint32_t sequence_ = 0;
};

// A message without its head.
inline std::string_view body_of(const nlmsghdr* message) {
    return {static_cast<const char*>(NLMSG_DATA(message)), message->nlmsg_len - NLMSG_HDRLEN};
}

}  // namespace corvo::test
