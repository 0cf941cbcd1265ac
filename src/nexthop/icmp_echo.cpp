#include "nexthop/icmp_echo.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <netinet/ip_icmp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <memory>
#include <new>

#include "foundation/fd.h"
#include "foundation/log_line.h"
#include "foundation/result.h"
#include "foundation/worker.h"
#include "nexthop/probe_socket.h"
#include "nexthop/resolve.h"
#include "nexthop/turn.h"

namespace corvo {

const EchoStyle kLinkProbeEcho = {kBadAddress, false, kSocketFailed, "bind device failed.\n"};
const EchoStyle kHubTestEcho = {kFailed, true, kNoInterface, "Bind device: % failed!\n"};

namespace {

constexpr std::size_t kIpHeaderSize = 20;
constexpr std::size_t kIcmpHeaderSize = 8;
constexpr std::chrono::seconds kEchoWait{2};

std::uint16_t read_u16(const unsigned char* from) {
    std::uint16_t value;
    std::memcpy(&value, from, sizeof value);
    return value;
}

// The exchanges of a process share identifier and sequence: two at once would take each other's answers.
TurnLock echo_turn;

int mark(int fd) {
    if (set_management_mark(fd)) return kOk;
    log::error("Set socket opt [SO_MARK] failed!\n");
    return kSocketFailed;
}

std::string binding_message(const EchoStyle& style, const std::string& device) {
    std::string text = style.binding_text;
    if (const auto at = text.find('%'); at != std::string::npos) text.replace(at, 1, device);
    return text;
}

int bind_device(int fd, const std::string& device, const EchoStyle& style) {
    if (device.empty()) return kOk;
    // The kernel would cut a longer name and might find another device by what is left.
    if (device.size() < IFNAMSIZ &&
        ::setsockopt(fd, SOL_SOCKET, SO_BINDTODEVICE, device.c_str(), device.size()) == 0)
        return kOk;
    log::write(log::Level::kError, binding_message(style, device), true);
    return style.binding_code;
}

int prepare_socket(int fd, const std::string& device, const EchoStyle& style) {
    if (style.mark_before_binding) {
        const int marked = mark(fd);
        return marked == kOk ? bind_device(fd, device, style) : marked;
    }
    const int bound = bind_device(fd, device, style);
    return bound == kOk ? mark(fd) : bound;
}

int send_request(int fd, const sockaddr_in& to, pid_t process) {
    const EchoRequest request = build_echo_request(process);
    const auto sent =
        ::sendto(fd, request.data(), request.size(), 0, reinterpret_cast<const sockaddr*>(&to), sizeof to);
    if (sent == static_cast<ssize_t>(request.size())) return kOk;
    log::error("sendto failed.\n");
    return kSendFailed;
}

int fail_short(std::size_t length, const sockaddr_in& from) {
    char text[INET_ADDRSTRLEN] = "";
    ::inet_ntop(AF_INET, &from.sin_addr, text, sizeof text);
    log::error("packet too short (", length, " bytes) from ", text);
    return kReceiveFailed;
}

int await_reply(int fd, unsigned char* buffer, pid_t process) {
    const auto deadline = std::chrono::steady_clock::now() + kEchoWait;
    const StopSignal& stop = Worker::current_stop();
    // The clock is asked too: packets of others may keep the socket readable for ever.
    while (std::chrono::steady_clock::now() < deadline) {
        const auto wake = stop.wait_readable(fd, deadline);
        if (wake == StopSignal::Wake::kError) log::error("select() error.\n");
        if (wake != StopSignal::Wake::kReady) return kFailed;

        sockaddr_in from{};
        socklen_t from_size = sizeof from;
        const auto got = ::recvfrom(fd, buffer, kEchoReplyCapacity, MSG_DONTWAIT,
                                    reinterpret_cast<sockaddr*>(&from), &from_size);
        if (got < 0) {
            if (errno == EAGAIN || errno == EINTR) continue;
            log::error("recvfrom failed.\n");
            return kReceiveFailed;
        }
        const auto length = static_cast<std::size_t>(got);
        switch (judge_echo_reply(buffer, length, process)) {
            case EchoVerdict::kMatch:
                return kOk;
            case EchoVerdict::kShort:
                return fail_short(length, from);
            case EchoVerdict::kOther:
                break;
        }
    }
    return kFailed;
}

}  // namespace

std::uint16_t internet_checksum(const void* data, std::size_t length) {
    const auto* bytes = static_cast<const unsigned char*>(data);
    std::uint64_t sum = 0;
    for (; length > 1; length -= 2, bytes += 2) sum += read_u16(bytes);
    if (length == 1) {
        const unsigned char last[2] = {*bytes, 0};
        sum += read_u16(last);
    }
    while (sum > 0xffff) sum = (sum >> 16) + (sum & 0xffff);
    return static_cast<std::uint16_t>(~sum);
}

EchoRequest build_echo_request(pid_t process) {
    EchoRequest request{};
    request[0] = ICMP_ECHO;
    const auto identifier = static_cast<std::uint16_t>(process);
    std::memcpy(&request[4], &identifier, sizeof identifier);
    std::memcpy(&request[6], &kEchoSequence, sizeof kEchoSequence);
    const std::uint16_t checksum = internet_checksum(request.data(), request.size());
    std::memcpy(&request[2], &checksum, sizeof checksum);
    return request;
}

EchoVerdict judge_echo_reply(const unsigned char* packet, std::size_t length, pid_t process) {
    if (length < kIpHeaderSize + kIcmpHeaderSize) return EchoVerdict::kShort;
    const unsigned char* icmp = packet + kIpHeaderSize;
    const bool ours = icmp[0] == ICMP_ECHOREPLY && read_u16(icmp + 6) == kEchoSequence &&
                      static_cast<pid_t>(read_u16(icmp + 4)) == process;
    return ours ? EchoVerdict::kMatch : EchoVerdict::kOther;
}

int exchange_echo(const std::string& target, const std::string& device, const EchoStyle& style) {
    const auto address = resolve_ipv4(target);
    if (!address) {
        if (Worker::current_stop().requested()) return kFailed;
        log::error("unknown host ", target);
        return style.unresolved_code;
    }
    const std::unique_ptr<unsigned char[]> buffer(new (std::nothrow) unsigned char[kEchoReplyCapacity]());
    if (!buffer) {
        log::error("malloc error.\n");
        return kAllocFailed;
    }
    const Turn turn(echo_turn);
    if (turn.state() == Turn::State::kStopped) return kFailed;
    const bool alone = turn.state() == Turn::State::kHeld;
    const UniqueFd fd(alone ? ::socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_ICMP) : -1);
    if (!fd) {
        log::error("create socket failed.\n");
        return kSocketFailed;
    }
    if (const int ready = prepare_socket(fd.get(), device, style); ready != kOk) return ready;

    const pid_t process = ::getpid();
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_addr = *address;
    if (const int sent = send_request(fd.get(), to, process); sent != kOk) return sent;
    return await_reply(fd.get(), buffer.get(), process);
}

}  // namespace corvo
