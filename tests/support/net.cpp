#include "support/net.h"

#include <fcntl.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <exception>
#include <stdexcept>
#include <thread>
#include <utility>

#include "support/files.h"
#include "support/isolation.h"
#include "support/wait.h"

namespace corvo::test {

namespace {

constexpr const char* kNamesDir = "/run/netns/";

void on_thread(const std::function<void()>& body) {
    std::exception_ptr failure;
    std::thread([&] {
        try {
            body();
        } catch (...) {
            failure = std::current_exception();
        }
    }).join();
    if (failure) std::rethrow_exception(failure);
}

void add_pair(const std::string& name, const std::string& peer, const std::string& where,
              const VethOptions& options) {
    const std::string queues = options.queues == 1 ? std::string()
                                                   : " numtxqueues " + std::to_string(options.queues) +
                                                         " numrxqueues " + std::to_string(options.queues);
    std::vector<std::string> commands{"link add " + name + queues + " type veth peer name " + peer + queues +
                                      where};
    if (!options.address.empty()) commands.push_back("addr add " + options.address + " dev " + name);
    if (options.up) commands.push_back("link set " + name + " up");
    ip_batch(commands);
}

std::vector<std::string> peer_commands(const std::string& peer, const VethOptions& options) {
    std::vector<std::string> commands;
    if (!options.peer_address.empty())
        commands.push_back("addr add " + options.peer_address + " dev " + peer);
    if (options.up) commands.push_back("link set " + peer + " up");
    return commands;
}

}  // namespace

Netns::Netns(std::string name) : name_(std::move(name)) {
    on_thread([this] {
        isolation::check(::unshare(CLONE_NEWNET) == 0, "unshare(network)");
        isolation::loopback_up();
        handle_.reset(::open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC));
        isolation::check(static_cast<bool>(handle_), "open the network namespace");
    });
    const std::string file = kNamesDir + name_;
    write_file(file, "");
    const std::string self = "/proc/self/fd/" + std::to_string(handle_.get());
    isolation::check(::mount(self.c_str(), file.c_str(), nullptr, MS_BIND, nullptr) == 0, "bind " + file);
}

Netns::~Netns() {
    const std::string file = kNamesDir + name_;
    ::umount2(file.c_str(), MNT_DETACH);
    ::unlink(file.c_str());
}

void Netns::run(const std::function<void()>& body) const {
    on_thread([&] {
        isolation::check(::setns(handle_.get(), CLONE_NEWNET) == 0, "enter " + name_);
        body();
    });
}

ToolResult Netns::tool(const std::string& line) const {
    ToolResult result;
    run([&] { result = run_line(line); });
    return result;
}

void Netns::ip(const std::vector<std::string>& commands) const {
    run([&] { ip_batch(commands); });
}

Json::Value Netns::ip_json(const std::string& words, const std::string& flags) const {
    Json::Value value;
    run([&] { value = test::ip_json(words, flags); });
    return value;
}

void add_veth(const std::string& name, const std::string& peer, const VethOptions& options) {
    add_pair(name, peer, "", options);
    if (const auto commands = peer_commands(peer, options); !commands.empty()) ip_batch(commands);
}

void add_veth(const std::string& name, const Netns& other, const std::string& peer,
              const VethOptions& options) {
    add_pair(name, peer, " netns " + other.name(), options);
    if (const auto commands = peer_commands(peer, options); !commands.empty()) other.ip(commands);
}

bool wait_for_carrier(const std::string& name) {
    const UniqueFd fd(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    ifreq request{};
    std::strncpy(request.ifr_name, name.c_str(), IFNAMSIZ - 1);
    return wait_until([&] {
        return ::ioctl(fd.get(), SIOCGIFFLAGS, &request) == 0 && (request.ifr_flags & IFF_RUNNING) != 0;
    });
}

int index_of(const std::string& name) {
    return static_cast<int>(::if_nametoindex(name.c_str()));
}

}  // namespace corvo::test
