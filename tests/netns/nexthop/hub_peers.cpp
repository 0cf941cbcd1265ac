#include "hub_peers.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

#include "corvosetup/log.h"
#include "corvosetup/udp.h"
#include "vx_serve.h"

namespace corvo::test {

namespace {

// The hub's process: serves until its parent closes the other end of `life` or dies.
[[noreturn]] void be_hub(const std::string& netns, int id, int life) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    const int space = open(("/run/netns/" + netns).c_str(), O_RDONLY | O_CLOEXEC);
    if (space < 0 || setns(space, CLONE_NEWNET) != 0) _exit(2);
    const std::string sockets = "/run/vx-" + std::to_string(id);
    setenv("VX_RUNTIME_DIR", sockets.c_str(), 1);
    reopen_setup_logger("/var/log/network/hub-" + std::to_string(id) + ".log");
    const vx::ServerThread services([&](vx::Server& server) {
        server.handle("vesta", "get_devid", [id](const vx::Call&) {
            return vx::Reply::text("{\"error\":0,\"data\":" + std::to_string(id) + "}");
        });
    });
    std::string dev = "eth0";
    ProcUdp responder(dev);
    if (responder.start() != 0) _exit(3);
    char byte;
    while (read(life, &byte, 1) > 0) {
    }
    responder.stop();
    _exit(0);
}

}  // namespace

Site::Site(int id) : netns_("site" + std::to_string(id)), address_("10.0." + std::to_string(id) + ".2") {
    const std::string near = "10.0." + std::to_string(id) + ".1/24";
    add_veth("w" + std::to_string(id), netns_, "eth0", {.address = near, .peer_address = address_ + "/24"});
    if (!wait_for_carrier("w" + std::to_string(id))) throw std::runtime_error("no carrier");
}

void Site::ignore_pings() const {
    netns_.run([] { write_file("/proc/sys/net/ipv4/icmp_echo_ignore_all", "1"); });
}

bool port_is_taken() {
    return read_file("/proc/thread-self/net/udp").find(":1E6C ") != std::string::npos;
}

HubProcess::HubProcess(const Site& site, int id) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
    life_.reset(ends[1]);
    const UniqueFd theirs(ends[0]);
    pid_ = fork();
    if (pid_ == 0) {
        life_.reset();
        be_hub(site.netns().name(), id, ends[0]);
    }
    bool serves = false;
    wait_until([&] {
        site.netns().run([&] { serves = port_is_taken(); });
        return serves;
    });
    if (!serves) throw std::runtime_error("the hub does not come up");
}

HubProcess::~HubProcess() {
    life_.reset();
    if (pid_ > 0) waitpid(pid_, nullptr, 0);
}

void HubProcess::kill() {
    ::kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    pid_ = -1;
}

FakeHub::FakeHub(const Site& site, Answer answer) {
    site.netns().run([&] {
        fd_.reset(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        sockaddr_in any{};
        any.sin_family = AF_INET;
        any.sin_port = htons(7788);
        if (bind(fd_.get(), reinterpret_cast<sockaddr*>(&any), sizeof any) != 0)
            throw std::runtime_error("port 7788 is taken");
    });
    thread_ = std::thread([this, answer = std::move(answer)] {
        while (!over_) {
            pollfd wait{fd_.get(), POLLIN, 0};
            if (poll(&wait, 1, 20) != 1) continue;
            char buffer[512];
            sockaddr_in from{};
            socklen_t size = sizeof from;
            const auto got =
                recvfrom(fd_.get(), buffer, sizeof buffer, 0, reinterpret_cast<sockaddr*>(&from), &size);
            if (got < 0) continue;
            for (const auto& text : answer(std::string(buffer, static_cast<std::size_t>(got))))
                sendto(fd_.get(), text.data(), text.size(), 0, reinterpret_cast<sockaddr*>(&from), size);
            ++seen_;
        }
    });
}

FakeHub::~FakeHub() {
    over_ = true;
    thread_.join();
}

}  // namespace corvo::test
