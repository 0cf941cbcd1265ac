#include "netns/monitor/wan.h"

#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cstring>
#include <stdexcept>

#include "foundation/fd.h"

namespace corvo::test {

namespace {

constexpr auto kNeighPeriod = std::chrono::milliseconds(2000);
constexpr auto kPingPeriod = std::chrono::milliseconds(3000);

ifreq flags_of(int fd, const std::string& dev) {
    ifreq request{};
    std::strncpy(request.ifr_name, dev.c_str(), IFNAMSIZ - 1);
    if (::ioctl(fd, SIOCGIFFLAGS, &request) != 0) throw std::runtime_error("flags of " + dev);
    return request;
}

bool is_running(int fd, const std::string& dev) {
    return (flags_of(fd, dev).ifr_flags & IFF_RUNNING) != 0;
}

}  // namespace

Wan::Wan(int number, const std::string& name)
    : dev(name.empty() ? "eth" + std::to_string(number) : name),
      peer("gw" + std::to_string(number)),
      address("192.0." + std::to_string(number) + ".2"),
      gateway("192.0." + std::to_string(number) + ".1"),
      port("PORT" + std::to_string(number)),
      number(number) {
    add_veth(dev, peer, {.address = address + "/24"});
    wait_for_carrier(dev);
    make_condition(port, "0");
}

void Wan::neighbour(const std::string& state) const {
    ip_batch({"neigh replace " + gateway + " lladdr 02:00:00:00:00:01 nud " + state + " dev " + dev});
}

void Wan::no_neighbour() const {
    neighbour("failed");  // a usable entry may be in use and would only lose its address
    ip_batch({"neigh del " + gateway + " dev " + dev});
}

void Wan::carrier(bool on) const {
    const UniqueFd fd(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    ifreq request = flags_of(fd.get(), peer);
    request.ifr_flags = static_cast<short>(on ? request.ifr_flags | IFF_UP : request.ifr_flags & ~IFF_UP);
    if (::ioctl(fd.get(), SIOCSIFFLAGS, &request) != 0) throw std::runtime_error("switch " + peer);
    if (!wait_until([&] { return is_running(fd.get(), dev) == on; }))
        throw std::runtime_error("no carrier change of " + dev);
}

std::unique_ptr<ProcNeigh> Wan::probe(bool is_wan) const {
    return std::make_unique<ProcNeigh>(dev, gateway, 1000, is_wan, static_cast<unsigned char>(number));
}

std::vector<std::string> default_gateways() {
    std::vector<std::string> gateways;
    for (const auto& route : ip_json("route show table all")) {
        // Table 253 by its name in iproute2; one that was never used cannot be asked for by itself.
        if (route["table"].asString() != "default") continue;
        if (route.isMember("gateway")) gateways.push_back(route["gateway"].asString());
        for (const auto& hop : route["nexthops"]) gateways.push_back(hop["gateway"].asString());
    }
    return gateways;
}

ShortPeriods::ShortPeriods(std::chrono::milliseconds period) {
    periods.neigh = period;
    periods.ping = period;
    periods.queue = period;
}

ShortPeriods::~ShortPeriods() {
    periods.neigh = kNeighPeriod;
    periods.ping = kPingPeriod;
    periods.queue = kNeighPeriod;
}

MonitorTest::MonitorTest() {
    gws.flush_gws();
    clear_log();
}

MonitorTest::~MonitorTest() {
    gws.flush_gws();
}

std::vector<std::string> MonitorTest::texts() {
    std::vector<std::string> out;
    for (const auto& text : log_texts()) {
        const bool trace =
            text.find("Enter ") != std::string::npos || text.find("Exit ") != std::string::npos;
        if (!trace) out.push_back(text);
    }
    return out;
}

}  // namespace corvo::test
