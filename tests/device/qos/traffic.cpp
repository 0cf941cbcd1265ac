#include "traffic.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <atomic>
#include <cmath>
#include <cstdio>
#include <stdexcept>
#include <thread>

namespace corvo::test {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kPayload = 300;
constexpr double kTolerance = 0.1;

double frame_bits(const Flow& flow) {
    return static_cast<double>(kPayload + (flow.esp ? 34 : 42)) * 8;
}

void need(bool good, const char* what) {
    if (!good) throw std::runtime_error(std::string(what) + ": " + std::strerror(errno));
}

sockaddr_in address(const std::string& text, std::uint16_t port) {
    sockaddr_in result{};
    result.sin_family = AF_INET;
    result.sin_port = htons(port);
    if (!text.empty()) need(::inet_pton(AF_INET, text.c_str(), &result.sin_addr) == 1, "address");
    return result;
}

UniqueFd socket_in(const Netns* where, const Flow& flow) {
    UniqueFd fd;
    const auto make = [&] {
        fd.reset(flow.esp ? ::socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_ESP)
                          : ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        need(static_cast<bool>(fd), "socket");
    };
    if (where) {
        where->run(make);
    } else {
        make();
    }
    return fd;
}

UniqueFd receiver(const Flow& flow) {
    UniqueFd fd = socket_in(flow.to, flow);
    const int room = 4 << 20;
    ::setsockopt(fd.get(), SOL_SOCKET, SO_RCVBUFFORCE, &room, sizeof room);
    const sockaddr_in here = address(flow.target, flow.port);
    need(::bind(fd.get(), reinterpret_cast<const sockaddr*>(&here), sizeof here) == 0, "bind");
    return fd;
}

UniqueFd sender(const Flow& flow) {
    UniqueFd fd = socket_in(flow.from, flow);
    need(::setsockopt(fd.get(), SOL_SOCKET, SO_MARK, &flow.mark, sizeof flow.mark) == 0, "mark");
    const sockaddr_in here = address(flow.source, flow.source_port);
    need(::bind(fd.get(), reinterpret_cast<const sockaddr*>(&here), sizeof here) == 0, "bind");
    const sockaddr_in there = address(flow.target, flow.port);
    need(::connect(fd.get(), reinterpret_cast<const sockaddr*>(&there), sizeof there) == 0, "connect");
    return fd;
}

// Packets at the flow's rate; what the machine or the queue cannot take is given up, not sent later.
void send_at_rate(const Flow& flow, int fd, const std::atomic<bool>& stop) {
    const char packet[kPayload]{};
    const double per_second = flow.offered * 1e6 / frame_bits(flow);
    double credit = 0;
    auto last = Clock::now();
    while (!stop) {
        const auto now = Clock::now();
        credit = std::min(credit + std::chrono::duration<double>(now - last).count() * per_second, 40.0);
        last = now;
        for (; credit >= 1; credit -= 1) ::send(fd, packet, sizeof packet, MSG_DONTWAIT);
        std::this_thread::sleep_for(std::chrono::milliseconds(3));
    }
}

}  // namespace

void run_traffic(std::vector<Flow>& flows, std::chrono::seconds time) {
    std::vector<UniqueFd> receivers;
    std::vector<UniqueFd> senders;
    for (const Flow& flow : flows) {
        receivers.push_back(receiver(flow));
        senders.push_back(sender(flow));
    }
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    for (std::size_t i = 0; i < flows.size(); ++i) {
        threads.emplace_back([&, i] { send_at_rate(flows[i], senders[i].get(), stop); });
    }
    std::vector<pollfd> polled;
    for (const UniqueFd& fd : receivers) polled.push_back({fd.get(), POLLIN, 0});
    std::vector<long> packets(flows.size());
    const auto receive_until = [&](Clock::time_point end) {
        for (;;) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now());
            if (left.count() <= 0) return;
            ::poll(polled.data(), polled.size(), static_cast<int>(left.count()));
            char packet[2048];
            for (std::size_t i = 0; i < polled.size(); ++i) {
                while (::recv(polled[i].fd, packet, sizeof packet, MSG_DONTWAIT) > 0) ++packets[i];
            }
        }
    };
    receive_until(Clock::now() + std::chrono::seconds(1));
    std::fill(packets.begin(), packets.end(), 0);
    const auto begin = Clock::now();
    receive_until(begin + time);
    const double seconds = std::chrono::duration<double>(Clock::now() - begin).count();
    stop = true;
    for (std::thread& thread : threads) thread.join();
    for (std::size_t i = 0; i < flows.size(); ++i) {
        flows[i].measured = static_cast<double>(packets[i]) * frame_bits(flows[i]) / seconds / 1e6;
    }
}

void expect_rates(const std::string& title, const std::vector<Flow>& flows) {
    for (const Flow& flow : flows) {
        std::printf("SHAPING \"%s: %s\" offered %.3f expected %.3f measured %.3f\n", title.c_str(),
                    flow.name.c_str(), flow.offered, flow.expected, flow.measured);
        EXPECT_NEAR(flow.measured, flow.expected, flow.expected * kTolerance) << title << ": " << flow.name;
    }
    std::fflush(stdout);
}

}  // namespace corvo::test
