// The responder.
#include "corvosetup/udp.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <memory>
#include <optional>

#include "corvosetup/service.h"
#include "foundation/fd.h"
#include "foundation/guard.h"
#include "foundation/json.h"
#include "foundation/log_line.h"
#include "foundation/result.h"
#include "foundation/worker.h"
#include "nexthop/load_figures.h"
#include "nexthop/probe_socket.h"
#include "nexthop/udp_message.h"

using corvo::StopSignal;
using corvo::Worker;
namespace log = corvo::log;

namespace {

constexpr std::chrono::seconds kAddressRetry{3};
constexpr std::chrono::milliseconds kErrorPause{100};
constexpr std::chrono::milliseconds kPortPause{20};
constexpr int kPortAttempts = 50;
// What a slow collection of the load figures leaves waiting must fit.
constexpr int kReceiveBuffer = 1 << 20;

sockaddr_in probe_address(const std::string& dotted) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(corvo::kProbePort);
    address.sin_addr.s_addr = ::inet_addr(dotted.c_str());
    return address;
}

std::string dotted(const in_addr& address) {
    char text[INET_ADDRSTRLEN] = "";
    ::inet_ntop(AF_INET, &address, text, sizeof text);
    return text;
}

// A child that another thread starts has our descriptors until its exec, the socket of a responder that has
// just been stopped among them: a port that is taken may be free a moment later. False on a stop, too.
bool bind_to(int fd, const std::string& local) {
    const sockaddr_in address = probe_address(local);
    for (int attempt = 1;; ++attempt) {
        if (::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) return true;
        if (errno != EADDRINUSE || attempt == kPortAttempts) break;
        if (Worker::current_stop().wait_for(kPortPause)) return false;
    }
    log::error("Server socket bind failed.");
    return false;
}

// A socket that serves on `local`; none, and one line, when it cannot be had.
corvo::UniqueFd open_listener(const std::string& local) {
    corvo::UniqueFd fd(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!fd) {
        log::error("Create listening socket failed.");
        return fd;
    }
    if (!corvo::set_management_mark(fd.get())) {
        log::error("Set socket opt [SO_MARK] failed!\n");
        return {};
    }
    // Not needed to work, hence no complaint.
    ::setsockopt(fd.get(), SOL_SOCKET, SO_RCVBUFFORCE, &kReceiveBuffer, sizeof kReceiveBuffer);
    if (!bind_to(fd.get(), local)) return {};
    return fd;
}

// One request and where it came from.
struct Arrival {
    corvo::ProbeRequest request;
    sockaddr_in from{};
};

// Receives one datagram. None: it is not a request that is to be looked at; the log says why.
std::optional<Arrival> receive_request(int fd) {
    char datagram[corvo::kProbeDatagramSize] = {};
    Arrival arrival;
    socklen_t size = sizeof arrival.from;
    const auto got = ::recvfrom(fd, datagram, sizeof datagram, MSG_DONTWAIT,
                                reinterpret_cast<sockaddr*>(&arrival.from), &size);
    if (got < 0) {
        // What woke us was dropped for its checksum.
        if (errno == EAGAIN || errno == EINTR) return std::nullopt;
        log::error("Could not read datagram !!!");
        // An error that stays would fill the log at full speed.
        Worker::current_stop().wait_for(kErrorPause);
        return std::nullopt;
    }
    if (!corvo::parse_probe_request({datagram, static_cast<std::size_t>(got)}, arrival.request)) {
        log::error("Json parse failed !!!");
        return std::nullopt;
    }
    return arrival;
}

bool is_for_us(const Arrival& arrival, int own) {
    const auto& request = arrival.request;
    if (request.receiver == 0 || request.sender == 0) {
        log::warning("Missing SenderID: ", request.sender, " or ReceiverId: ", request.receiver);
        return false;
    }
    if (request.receiver != own) {
        log::warning("Mismatched device id[", request.receiver, " <-> ", own, "] from ",
                     dotted(arrival.from.sin_addr), ":", ntohs(arrival.from.sin_port));
        return false;
    }
    return true;
}

void answer(int fd, const Arrival& arrival, int own, const std::string& local) {
    const corvo::LoadFigures load = corvo::current_load();
    if (Worker::current_stop().requested()) return;
    log::debug("Receive request from [", arrival.request.sender, "]@", dotted(arrival.from.sin_addr), " to [",
               own, "]@", local);
    log::debug("Wan number: ", arrival.request.wan, ", local Wan number: ", load.wans);
    log::debug("Cpu: ", load.cpu, ", Memory: ", load.memory, ", Connections: ", load.tunnels);
    const std::string text = corvo::build_probe_answer(own, arrival.request.sender, load);
    // Never blocks: answers to addresses that do not resolve would hold the socket for seconds.
    const auto sent = ::sendto(fd, text.data(), text.size(), MSG_DONTWAIT,
                               reinterpret_cast<const sockaddr*>(&arrival.from), sizeof arrival.from);
    if (sent < 0) log::error("Could not send datagram !!!");
}

void serve_one(int fd, int own, const std::string& local) {
    const auto arrival = receive_request(fd);
    if (arrival && is_for_us(*arrival, own)) answer(fd, *arrival, own, local);
}

struct FreeAddresses {
    void operator()(ifaddrs* list) const { ::freeifaddrs(list); }
};

// The IPv4 address of `dev` in dotted form; none unless the device is up and running.
std::optional<std::string> device_address(const std::string& dev) {
    ifaddrs* first = nullptr;
    if (::getifaddrs(&first) != 0) return std::nullopt;
    const std::unique_ptr<ifaddrs, FreeAddresses> list(first);
    for (const ifaddrs* entry = first; entry != nullptr; entry = entry->ifa_next) {
        if (entry->ifa_addr == nullptr || dev != entry->ifa_name) continue;
        if ((entry->ifa_flags & IFF_UP) == 0 || (entry->ifa_flags & IFF_RUNNING) == 0) return std::nullopt;
        if (entry->ifa_addr->sa_family == AF_INET)
            return dotted(reinterpret_cast<const sockaddr_in*>(entry->ifa_addr)->sin_addr);
    }
    return std::nullopt;
}

}  // namespace

ProcUdp::ProcUdp(std::string& dev) : running(false), sock(-1), dbg(0), dev(dev), thread(nullptr) {}

ProcUdp::~ProcUdp() {
    running = false;
    Worker::stop(thread);
}

void ProcUdp::setup_dbg(int level) {
    std::lock_guard hold(fields);
    dbg = level;
}

int ProcUdp::start() {
    return corvo::guarded([&] {
        const log::Entry entry{"udp.cpp", "start"};
        std::lock_guard hold(lifecycle);
        if (thread != nullptr) return entry.leave(int{corvo::kAlreadyStarted});
        const int started = corvo::guarded([&] {
            thread = Worker::start([this] { thread_task(); });
            return int{corvo::kOk};
        });
        return entry.leave(started);
    });
}

int ProcUdp::stop() {
    return corvo::guarded([&] {
        const log::Entry entry{"udp.cpp", "stop"};
        std::lock_guard hold(lifecycle);
        running = false;
        Worker::stop(thread);
        running = false;  // the thread may have been about to set it
        return entry.leave(0);
    });
}

int ProcUdp::prepare() {
    return corvo::guarded_or(-1, [&] {
        const log::Entry entry{"udp.cpp", "prepare"};
        const auto address = device_address(dev);
        if (!address) return entry.leave(-1);
        std::lock_guard hold(fields);
        local_ip = *address;
        return entry.leave(0);
    });
}

void ProcUdp::serve(int fd, const std::string& local, int own) {
    const StopSignal& stop = Worker::current_stop();
    while (running) {
        const auto wake = stop.wait_readable(fd);
        if (wake == StopSignal::Wake::kStopped) return;
        if (wake == StopSignal::Wake::kError) stop.wait_for(kErrorPause);
        // Whatever one datagram does, the next one is served.
        corvo::guarded_void([&] { serve_one(fd, own, local); });
    }
}

void ProcUdp::udp_listen() {
    corvo::guarded_void([&] {
        const log::Entry entry{"udp.cpp", "udp_listen"};
        std::unique_lock hold(fields);
        const int own = corvo::text_to_int(dev_id);
        const std::string local = local_ip;
        hold.unlock();

        if (local.empty()) {
            log::error("Can't get ip for device: ", dev);
        } else if (const corvo::UniqueFd fd = open_listener(local)) {
            hold.lock();
            sock = fd.get();
            hold.unlock();
            serve(fd.get(), local, own);
            hold.lock();
            sock = -1;
            hold.unlock();
        }
        entry.leave(0);
    });
}

void ProcUdp::thread_task() {
    corvo::guarded_void([&] {
        const log::Entry entry{"udp.cpp", "thread_task"};
        log::debug("Udp Test: ", ::getpid(), " <", ::gettid(), ">, @");
        const StopSignal& stop = Worker::current_stop();
        running = true;
        const std::string id = std::to_string(get_device_id());
        {
            std::lock_guard hold(fields);
            dev_id = id;
        }
        while (running && !stop.requested()) {
            if (prepare() == 0) break;
            stop.wait_for(kAddressRetry);
        }
        if (!stop.requested()) udp_listen();
        entry.leave(0);
    });
}
