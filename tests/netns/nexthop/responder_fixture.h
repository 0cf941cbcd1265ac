// What the tests of the responder start from.
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>

#include <atomic>
#include <chrono>

#include "corvosetup/udp.h"
#include "hub_peers.h"
#include "support/recorder.h"
#include "vx_serve.h"

namespace corvo::test {

using namespace std::chrono_literals;
using std::chrono::steady_clock;

inline std::chrono::milliseconds since(steady_clock::time_point begin) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(steady_clock::now() - begin);
}

// Device 7 with the responder on wan0 (192.0.2.1) and a client in another namespace (192.0.2.2).
class Responder : public testing::Test {
protected:
    Responder()
        : services([this](vx::Server& server) {
              server.handle("vesta", "get_devid", [this](const vx::Call&) {
                  return vx::Reply::text("{\"error\":0,\"data\":" + std::to_string(device_id.load()) + "}");
              });
          }),
          peer("peer") {
        ipsec.prints("3\n");
        mpstat.prints("10:00:00 AM  all 1 0 0 0 0 0 0 0 80.50\n");
        free.prints("Mem: 1000 250 1\n");
        jq.prints("2\n");
    }

    void link(bool with_address = true) {
        add_veth("wan0", peer, "eth0",
                 {.address = with_address ? "192.0.2.1/24" : "", .peer_address = "192.0.2.2/24"});
        ASSERT_TRUE(wait_for_carrier("wan0"));
        peer.run([this] {
            client.reset(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
            sockaddr_in own{};
            own.sin_family = AF_INET;
            own.sin_port = htons(4000);
            ASSERT_EQ(bind(client.get(), reinterpret_cast<sockaddr*>(&own), sizeof own), 0);
            const int size = 4 << 20;
            setsockopt(client.get(), SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof size);
        });
    }

    void serve(ProcUdp& udp) {
        ASSERT_EQ(udp.start(), 0);
        ASSERT_TRUE(wait_until([] { return port_is_taken(); }));
    }

    void send(const std::string& bytes) {
        sockaddr_in to{};
        to.sin_family = AF_INET;
        to.sin_port = htons(7788);
        inet_pton(AF_INET, "192.0.2.1", &to.sin_addr);
        sendto(client.get(), bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof to);
    }

    // Figures that an earlier test of this process collected are not used again after this.
    static void let_figures_age() { std::this_thread::sleep_for(1050ms); }

    // The next answer; empty: none came in time.
    std::string receive(std::chrono::milliseconds limit = 5s) {
        pollfd wait{client.get(), POLLIN, 0};
        if (poll(&wait, 1, static_cast<int>(limit.count())) != 1) return {};
        char buffer[512];
        const auto got = recv(client.get(), buffer, sizeof buffer, 0);
        return got > 0 ? std::string(buffer, static_cast<std::size_t>(got)) : std::string();
    }

    std::string ask(const std::string& bytes) {
        send(bytes);
        return receive();
    }

    std::atomic<int> device_id{7};
    Recorder ipsec{"/sbin/ipsec"};
    Recorder mpstat{"/bin/mpstat"};
    Recorder free{"/bin/free"};
    Recorder jq{"/bin/jq"};
    vx::ServerThread services;
    Netns peer;
    UniqueFd client;
    std::string dev = "wan0";
    const std::string request = "{\"Sender\":5,\"Receiver\":7,\"Wan\":4}";
};

}  // namespace corvo::test
