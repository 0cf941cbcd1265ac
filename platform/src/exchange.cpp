#include "exchange.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>

#include "address.h"
#include "foundation/fd.h"
#include "vx_serve.h"
#include "wire.h"

namespace vx {

namespace {

using Clock = std::chrono::steady_clock;
using corvo::UniqueFd;

constexpr std::size_t kFirstRead = 16U << 10U;
constexpr std::size_t kGrowth = 1U << 20U;  // a promised length is not believed further than this ahead

// Waits for `events`; 0, or -ETIMEDOUT or another negative errno number.
int wait_for(int fd, short events, Clock::time_point deadline) {
    for (;;) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
        pollfd wait{fd, events, 0};
        const int ready = ::poll(&wait, 1, static_cast<int>(std::clamp<std::int64_t>(left, 0, INT_MAX)));
        if (ready > 0) return 0;
        if (ready < 0 && errno != EINTR) return -errno;
        if (ready == 0 && Clock::now() >= deadline) return -ETIMEDOUT;
    }
}

// A connect that found the service's queue full: there is no event to poll for, so the kernel waits, with
// the rest of the time as the socket's send limit.
int connect_waiting(int fd, const sockaddr_un& address, Clock::time_point deadline) {
    const int flags = ::fcntl(fd, F_GETFL);
    ::fcntl(fd, F_SETFL, flags & ~O_NONBLOCK);
    for (;;) {
        const auto left = std::chrono::ceil<std::chrono::microseconds>(deadline - Clock::now()).count();
        if (left <= 0) return -ETIMEDOUT;
        const timeval limit{static_cast<time_t>(left / 1000000), static_cast<suseconds_t>(left % 1000000)};
        if (::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit) != 0) return -errno;
        if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) break;
        if (errno != EINTR && errno != EAGAIN) return -errno;
    }
    ::fcntl(fd, F_SETFL, flags);
    return 0;
}

int connect_to(std::string_view service, Clock::time_point deadline, UniqueFd& out) {
    sockaddr_un address;
    if (!fill_address(socket_path(runtime_dir(), service), address)) return -ENAMETOOLONG;
    UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!fd) return -errno;
    while (::connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        if (errno == EINTR) continue;
        if (errno != EAGAIN) return -errno;
        if (const int result = connect_waiting(fd.get(), address, deadline); result != 0) return result;
        break;
    }
    out = std::move(fd);
    return 0;
}

int send_all(int fd, std::string_view head, std::string_view payload, Clock::time_point deadline) {
    while (!head.empty() || !payload.empty()) {
        iovec parts[2] = {{const_cast<char*>(head.data()), head.size()},
                          {const_cast<char*>(payload.data()), payload.size()}};
        msghdr message{};
        message.msg_iov = head.empty() ? &parts[1] : &parts[0];
        message.msg_iovlen = head.empty() || payload.empty() ? 1 : 2;
        const ssize_t sent = ::sendmsg(fd, &message, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent < 0) {
            if (errno == EINTR) continue;
            if (errno != EAGAIN) return -errno;
            if (const int result = wait_for(fd, POLLOUT, deadline); result != 0) return result;
            continue;
        }
        const auto count = static_cast<std::size_t>(sent);
        const std::size_t of_head = std::min(count, head.size());
        head.remove_prefix(of_head);
        payload.remove_prefix(count - of_head);
        // A peer that takes a few bytes at a time keeps this loop busy; the limit still ends it.
        if ((!head.empty() || !payload.empty()) && Clock::now() >= deadline) return -ETIMEDOUT;
    }
    return 0;
}

// Reads at least one byte into `to`; the count, or a negative errno number.
ssize_t receive_some(int fd, char* to, std::size_t room, Clock::time_point deadline) {
    for (;;) {
        if (const int result = wait_for(fd, POLLIN, deadline); result != 0) return result;
        const ssize_t got = ::recv(fd, to, room, MSG_DONTWAIT);
        if (got > 0) return Clock::now() < deadline ? got : -ETIMEDOUT;
        if (got == 0) return -ECONNRESET;
        if (errno != EINTR && errno != EAGAIN) return -errno;
        // A socket that is said to be readable and is not keeps this loop busy; the limit still ends it.
        if (Clock::now() >= deadline) return -ETIMEDOUT;
    }
}

int status_result(wire::Status status) {
    switch (status) {
        case wire::Status::kOk:
            return 0;
        case wire::Status::kNoMethod:
            return -ENOSYS;
        case wire::Status::kTooLarge:
            return -EMSGSIZE;
        case wire::Status::kRefused:
        case wire::Status::kMisrouted:
            break;
    }
    return -EREMOTEIO;
}

int receive_reply(int fd, Clock::time_point deadline, std::string& reply) {
    char first[kFirstRead];
    std::size_t have = 0;
    wire::ReplyHead head;
    do {
        const ssize_t got = receive_some(fd, first + have, sizeof first - have, deadline);
        if (got < 0) return static_cast<int>(got);
        have += static_cast<std::size_t>(got);
        head = wire::parse_reply_head({first, have});
        if (head.progress == wire::Progress::kBad) return -EPROTO;
    } while (head.progress == wire::Progress::kMore);
    if (have - wire::kHeader > head.payload_size) return -EPROTO;
    if (head.status != wire::Status::kOk) return status_result(head.status);

    std::string text(first + wire::kHeader, have - wire::kHeader);
    std::size_t filled = text.size();
    while (filled < head.payload_size) {
        if (filled == text.size()) text.resize(std::min(head.payload_size, filled + kGrowth));
        const ssize_t got = receive_some(fd, text.data() + filled, text.size() - filled, deadline);
        if (got < 0) return static_cast<int>(got);
        filled += static_cast<std::size_t>(got);
    }
    reply = std::move(text);
    return 0;
}

}  // namespace

int exchange(std::string_view service, std::string_view method, std::string_view payload,
             Clock::time_point deadline, std::string& reply) {
    reply.clear();
    if (!wire::valid_name(service) || !wire::valid_name(method)) return -EINVAL;
    if (payload.size() > wire::kMaxPayload) return -EMSGSIZE;
    UniqueFd fd;
    if (const int result = connect_to(service, deadline, fd); result != 0) return result;
    return converse(fd.get(), service, method, payload, deadline, reply);
}

int converse(int fd, std::string_view service, std::string_view method, std::string_view payload,
             Clock::time_point deadline, std::string& reply) {
    const std::string head = wire::request_head(service, method, payload.size());
    if (const int result = send_all(fd, head, payload, deadline); result != 0) return result;
    return receive_reply(fd, deadline, reply);
}

}  // namespace vx
