#include "rtnetlink.h"

#include <sys/socket.h>

#include <cstring>
#include <stdexcept>

namespace corvo::test {

Rtnetlink::Rtnetlink() : fd_(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE)) {
    if (!fd_) throw std::runtime_error("no netlink socket for the kernel's state");
}

void Rtnetlink::send(int type, int flags, std::string_view body) {
    nlmsghdr head{};
    head.nlmsg_len = static_cast<std::uint32_t>(NLMSG_LENGTH(body.size()));
    head.nlmsg_type = static_cast<std::uint16_t>(type);
    head.nlmsg_flags = static_cast<std::uint16_t>(NLM_F_REQUEST | flags);
    head.nlmsg_seq = ++sequence_;
    std::string message(reinterpret_cast<const char*>(&head), sizeof head);
    message += body;
    message.resize(NLMSG_ALIGN(message.size()));
    if (::send(fd_.get(), message.data(), message.size(), 0) < 0) throw std::runtime_error("rtnetlink: send");
}

void Rtnetlink::dump(int type, const std::string& body, const std::function<void(const nlmsghdr*)>& visit) {
    send(type, NLM_F_DUMP, body);
    alignas(nlmsghdr) static char buffer[1 << 17];
    for (;;) {
        auto got = static_cast<int>(::recv(fd_.get(), buffer, sizeof buffer, 0));
        if (got < 0) throw std::runtime_error("rtnetlink: receive");
        for (auto* message = reinterpret_cast<const nlmsghdr*>(buffer);
             NLMSG_OK(message, static_cast<unsigned>(got)); message = NLMSG_NEXT(message, got)) {
            if (message->nlmsg_type == NLMSG_DONE || message->nlmsg_type == NLMSG_ERROR) return;
            visit(message);
        }
    }
}

int Rtnetlink::tell(int type, int flags, std::string_view body) {
    send(type, NLM_F_ACK | flags, body);
    alignas(nlmsghdr) char buffer[8192];
    const auto got = ::recv(fd_.get(), buffer, sizeof buffer, 0);
    const auto* message = reinterpret_cast<const nlmsghdr*>(buffer);
    if (got < 0 || !NLMSG_OK(message, static_cast<unsigned>(got)) || message->nlmsg_type != NLMSG_ERROR)
        throw std::runtime_error("rtnetlink: no answer");
    return static_cast<const nlmsgerr*>(NLMSG_DATA(message))->error;
}

}  // namespace corvo::test
