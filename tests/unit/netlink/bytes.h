// Reading messages in tests: as words of hexadecimal digits, and as libnl builds them.
#pragma once

#include <netlink/msg.h>

#include <cstdio>
#include <string>

#include "netlink/message.h"

namespace corvo::test {

// "08000f00 e8030000 ...": four bytes to a word, in the order in which they are sent.
inline std::string hex(nl::Bytes bytes) {
    std::string out;
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        char digits[4];
        std::snprintf(digits, sizeof digits, "%02x", bytes[i]);
        if (i > 0 && i % 4 == 0) out += ' ';
        out += digits;
    }
    return out;
}

// Behind the message header.
inline std::string hex_payload(nl::Bytes bytes) {
    return hex(bytes.subspan(NLMSG_HDRLEN));
}

// A message that libnl built, behind its header; the message is released.
inline std::string hex_payload(nl_msg* message) {
    const nlmsghdr* head = nlmsg_hdr(message);
    std::string out = hex_payload({reinterpret_cast<const std::uint8_t*>(head), head->nlmsg_len});
    nlmsg_free(message);
    return out;
}

inline nlmsghdr head_of(nl::Bytes bytes) {
    nlmsghdr head;
    std::memcpy(&head, bytes.data(), sizeof head);
    return head;
}

// The message in `bytes`, as a reader sees it.
inline nl::MessageView view_of(nl::Bytes bytes) {
    nl::MessageView view;
    nl::next_message(bytes, view);
    return view;
}

}  // namespace corvo::test
