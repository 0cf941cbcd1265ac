#include "nexthop/resolve.h"

#include <arpa/inet.h>
#include <netdb.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "foundation/worker.h"

namespace corvo {

namespace {

std::optional<in_addr> ask_resolver(const std::string& host) {
    std::vector<char> storage(1024);
    hostent entry{};
    hostent* found = nullptr;
    int reason = 0;
    while (::gethostbyname_r(host.c_str(), &entry, storage.data(), storage.size(), &found, &reason) == ERANGE)
        storage.resize(storage.size() * 2);
    if (found == nullptr || found->h_addrtype != AF_INET || found->h_addr_list[0] == nullptr)
        return std::nullopt;
    in_addr address{};
    std::memcpy(&address, found->h_addr_list[0], sizeof address);
    return address;
}

// One question to the resolver, shared by who asks and who waits.
struct Lookup {
    StopSignal done;
    std::mutex lock;
    std::optional<in_addr> answer;
};

}  // namespace

std::optional<in_addr> resolve_ipv4(const std::string& host) {
    const in_addr_t written = ::inet_addr(host.c_str());
    if (written != INADDR_NONE) return in_addr{written};
    if (host.empty()) return std::nullopt;

    // The resolver waits for name servers for many seconds and cannot be interrupted. It gets a thread that
    // owns all it touches and is left to itself when nobody waits any more.
    auto lookup = std::make_shared<Lookup>();
    std::thread([lookup, host] {
        auto answer = ask_resolver(host);
        {
            std::lock_guard hold(lookup->lock);
            lookup->answer = answer;
        }
        lookup->done.request();
    }).detach();
    if (Worker::current_stop().wait_readable(lookup->done.fd()) != StopSignal::Wake::kReady)
        return std::nullopt;
    std::lock_guard hold(lookup->lock);
    return lookup->answer;
}

}  // namespace corvo
