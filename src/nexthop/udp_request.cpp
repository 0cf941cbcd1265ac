// The asking side.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <cerrno>
#include <chrono>
#include <mutex>
#include <optional>

#include "corvosetup/udp.h"
#include "corvosetup/utils.h"
#include "foundation/fd.h"
#include "foundation/guard.h"
#include "foundation/json.h"
#include "foundation/log_line.h"
#include "foundation/result.h"
#include "foundation/worker.h"
#include "nexthop/object_lock.h"
#include "nexthop/probe_socket.h"
#include "nexthop/udp_message.h"

using corvo::StopSignal;
using corvo::Worker;
namespace log = corvo::log;

// Constructed after the log, which is all it may come after: other initialisers may start a test.
__attribute__((init_priority(104))) std::string udp_msg =
    "{\"Sender\": 0, \"Receiver\": 0, \"Wan\": 0, \"RemoteWan\": 0, \"Cpu\": 0, \"Memory\": 0, "
    "\"Connections\": 0, \"Result\": 0}";

// Programs that look it up by its plain name get the same object. Weak: where the linker copies the object
// into a program, both names then follow the copy.
asm(".weak udp_msg\n.type udp_msg, @object\n.size udp_msg, 32\n.set udp_msg, _Z7udp_msgB5cxx11");

namespace {

// Codes of the exchange, older than the library's own numbering; peers' operators know them.
constexpr int kNotSent = -3;
constexpr int kNoAnswer = -4;
constexpr int kNoTimeout = -5;
constexpr int kNoMark = -7;
constexpr int kOtherDevice = -9;

constexpr int kAttempts = 3;
constexpr int kCopies = 5;  // against loss
constexpr std::chrono::seconds kAnswerWait{2};

// One exchange under way.
struct Exchange {
    int fd;
    int own;
    int receiver;
    const std::string& address;
    in_addr_t destination;
    std::optional<int> wans;  // told when there are no tunnels, or when told to
};

int prepare_socket(int fd) {
    const timeval wait{kAnswerWait.count(), 0};
    if (::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait) != 0) {
        log::error("Set socket opt [SO_RCVTIMEO] failed!\n");
        return kNoTimeout;
    }
    if (!corvo::set_management_mark(fd)) {
        log::error("Set socket opt [SO_MARK] failed!\n");
        return kNoMark;
    }
    sockaddr_in any{};
    any.sin_family = AF_INET;
    any.sin_addr.s_addr = htonl(INADDR_ANY);
    if (::bind(fd, reinterpret_cast<const sockaddr*>(&any), sizeof any) != 0) {
        log::error("Client socket bind failed.");
        return corvo::kSocketFailed;
    }
    return corvo::kOk;
}

// An address that is none reads as that of a broadcast, which nobody wants to send to.
bool send_copies(const Exchange& exchange, const std::string& text) {
    if (exchange.destination == INADDR_NONE) return false;
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(corvo::kProbePort);
    to.sin_addr.s_addr = exchange.destination;
    for (int copy = 0; copy < kCopies; ++copy) {
        if (::sendto(exchange.fd, text.data(), text.size(), 0, reinterpret_cast<const sockaddr*>(&to),
                     sizeof to) < 0)
            return false;
    }
    return true;
}

// Waits for one datagram until the deadline. Its length, or none.
std::optional<std::size_t> receive(int fd, char (&datagram)[corvo::kProbeDatagramSize], sockaddr_in& from) {
    const auto deadline = std::chrono::steady_clock::now() + kAnswerWait;
    // The clock is asked too: datagrams that turn out damaged may keep the socket readable for ever.
    while (std::chrono::steady_clock::now() < deadline &&
           Worker::current_stop().wait_readable(fd, deadline) == StopSignal::Wake::kReady) {
        socklen_t size = sizeof from;
        const auto got = ::recvfrom(fd, datagram, sizeof datagram, MSG_DONTWAIT,
                                    reinterpret_cast<sockaddr*>(&from), &size);
        if (got >= 0) return static_cast<std::size_t>(got);
        if (errno != EAGAIN && errno != EINTR) return std::nullopt;
    }
    return std::nullopt;
}

int judge(const corvo::ProbeReply& reply, const Exchange& exchange, const sockaddr_in& from) {
    if (reply.receiver != exchange.own) {
        char text[INET_ADDRSTRLEN] = "";
        ::inet_ntop(AF_INET, &from.sin_addr, text, sizeof text);
        log::warning("Mismatched response device id[", reply.receiver, " <-> ", exchange.own, "] from ", text,
                     ":", ntohs(from.sin_port));
        return kOtherDevice;
    }
    log::debug("Receive response from ", reply.sender);
    log::debug("Result: ", reply.result, ", CPU: ", reply.cpu, ", Memory: ", reply.memory,
               ", Connections: ", reply.connections);
    if (reply.result != 0) log::error("Rejected by code: ", reply.result);
    return reply.result;
}

// One attempt. True: the attempts end. `result` keeps its value when an answer does not parse.
bool attempt(const Exchange& exchange, int& result) {
    const std::string text =
        corvo::build_probe_request(udp_msg, exchange.own, exchange.receiver, exchange.wans);
    if (!send_copies(exchange, text)) {
        log::error("Write to server error.");
        result = kNotSent;
        return true;
    }
    char datagram[corvo::kProbeDatagramSize] = {};
    sockaddr_in from{};
    const auto length = receive(exchange.fd, datagram, from);
    if (!length) {
        result = kNoAnswer;
        if (Worker::current_stop().requested()) return true;
        log::error("Read from server: ", exchange.address, " error.");
        return false;
    }
    corvo::ProbeReply reply;
    if (!corvo::parse_probe_reply({datagram, *length}, reply)) {
        log::error("Json parse failed !!!");
        return false;
    }
    result = judge(reply, exchange, from);
    return reply.receiver == exchange.own;
}

int request(int own, int receiver, const std::string& address, bool check_connections) {
    const corvo::UniqueFd fd(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!fd) {
        log::error("Create listening socket failed.");
        return corvo::kSocketFailed;
    }
    if (const int ready = prepare_socket(fd.get()); ready != corvo::kOk) return ready;

    const int tunnels = get_ipsec_intalled_num();
    log::debug("Check connections: ", check_connections, ", IPSec installed: ", tunnels);
    log::debug("Udp requesting device: ", receiver, "'s ip ", address);
    Exchange exchange{fd.get(), own, receiver, address, ::inet_addr(address.c_str()), std::nullopt};
    if (tunnels == 0 || check_connections) exchange.wans = get_wan_port_num();
    int result = corvo::kBadReply;
    for (int n = 0; n < kAttempts; ++n) {
        if (Worker::current_stop().requested() || attempt(exchange, result)) break;
    }
    return result;
}

}  // namespace

int ProcUdpTest::udp_request(int receiver, std::string& address, bool check_connections) {
    return corvo::guarded([&] {
        const log::Entry entry{"udp.cpp", "udp_request"};
        std::unique_lock hold(corvo::object_lock(this, corvo::Guards::kData));
        const int own = corvo::text_to_int(dev_id);
        hold.unlock();
        return entry.leave(request(own, receiver, address, check_connections));
    });
}
