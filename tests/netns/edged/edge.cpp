#include "netns/edged/edge.h"

#include <algorithm>
#include <map>
#include <sstream>

#include "foundation/json.h"

namespace corvo::test {

namespace {

constexpr const char* kDeviceInfo = R"({
 "DEVICE_ID": "11", "LOCAL_MGMT": "0",
 "WAN_IFACE_INFO": {
  "eth1": {"ID": "1", "RX_RATE": "0", "TX_RATE": "50000000", "IP4_ADDR": "203.0.113.11/24",
           "IP4_GW": "203.0.113.1", "IP6_ADDR": "", "TUN_ADDR4": "198.19.0.80", "PRIO": "1"},
  "eth2": {"ID": "2", "RX_RATE": "0", "TX_RATE": "20000000", "IP4_ADDR": "198.51.100.11/24",
           "IP4_GW": "198.51.100.1", "IP6_ADDR": "", "TUN_ADDR4": "198.19.0.81", "PRIO": "2"}}})";

// "I" for the index of a private link's device, which numbers its tables and rules.
std::string without_indices(std::string line, const std::map<std::string, std::string>& numbers) {
    for (const auto& [from, to] : numbers)
        for (std::size_t at = 0; (at = line.find(from, at)) != std::string::npos; at += to.size())
            line.replace(at, from.size(), to);
    return line;
}

std::map<std::string, std::string> table_names() {
    std::map<std::string, std::string> out;
    for (const Json::Value& link : ip_json("link show")) {
        const std::string name = link["ifname"].asString();
        if (!name.starts_with("tun")) continue;
        for (const int base : {10000, 15000, 20000})
            out[std::to_string(base + link["ifindex"].asInt())] = std::to_string(base) + "+" + name;
    }
    return out;
}

}  // namespace

EdgeTest::EdgeTest() {
    parse_json(kDeviceInfo, device_info);
    add_veth("eth1", gw1, "gw", {.address = "203.0.113.11/24", .peer_address = "203.0.113.1/24"});
    add_veth("eth2", gw2, "gw", {.address = "198.51.100.11/24", .peer_address = "198.51.100.1/24"});
    wait_for_carrier("eth1");
    wait_for_carrier("eth2");
    make_condition("PORT1", "0");
    make_condition("PORT2", "0");
    services = std::make_unique<Services>();
    publish();
}

void EdgeTest::know_gateways() {
    const auto mac = [](const Netns& gateway) {
        return gateway.ip_json("link show dev gw")[0]["address"].asString();
    };
    ip_batch({"neigh replace 203.0.113.1 dev eth1 nud permanent lladdr " + mac(gw1),
              "neigh replace 198.51.100.1 dev eth2 nud permanent lladdr " + mac(gw2)});
}

std::vector<std::string> EdgeTest::default_routes() {
    std::vector<std::string> out;
    if (!run_line("ip -j route show table 253").ok()) return out;  // a table that was never used
    for (const Json::Value& route : ip_json("route show table 253")) {
        std::vector<std::string> hops;
        for (const Json::Value& hop : route["nexthops"])
            hops.push_back(" " + hop["dev"].asString() + "*" + hop["weight"].asString());
        if (hops.empty()) hops.push_back(" " + route["dev"].asString());
        std::sort(hops.begin(), hops.end());
        out.push_back(route["metric"].asString());
        for (const auto& hop : hops) out.back() += hop;
    }
    std::sort(out.begin(), out.end());
    return out;
}

std::vector<std::string> EdgeTest::kernel_state() {
    const auto numbers = table_names();
    std::vector<std::string> out;
    for (const auto& route : default_routes()) out.push_back("default route " + route);
    for (const char* line : {"ip -o -d link show",
                             "ip -o addr show",
                             "ip rule show",
                             "ip -6 rule show",
                             "ip -4 -o route show table all",
                             "ip -6 -o route show table all",
                             "tc qdisc show",
                             "tc class show dev eth1",
                             "tc class show dev eth2",
                             "tc class show dev swdev3",
                             "tc class show dev swdev4",
                             "tc class show dev eth5",
                             "tc filter show dev swdev4",
                             "tc filter show dev eth5",
                             "tc filter show dev eth5 parent ffff:",
                             "tc filter show dev ifb0",
                             "tc class show dev ifb0",
                             "tc class show dev ifb1",
                             "tc filter show dev eth1",
                             "tc filter show dev eth2",
                             "tc filter show dev swdev3",
                             "tc filter show dev eth1 parent ffff:",
                             "tc filter show dev eth2 parent ffff:"}) {
        const std::string command = line;
        const bool indexed =
            command.find("link show") != std::string::npos || command.find("addr show") != std::string::npos;
        std::istringstream text(run_line(line).out);
        std::vector<std::string> lines;
        for (std::string one; std::getline(text, one);) {
            // Addresses that the kernel makes up, devices that come with modules, and the default route,
            // whose hops come in any order.
            if (one.find("sit0") != std::string::npos || one.find("tunl0") != std::string::npos ||
                one.find("fe80:") != std::string::npos || one.find("ff00:") != std::string::npos ||
                one.find("table default") != std::string::npos)
                continue;
            if (indexed) one = one.substr(one.find(' ') + 1);
            if (const auto count = one.find(" direct_packets_stat "); count != std::string::npos)
                one.erase(count, one.find(' ', count + 21) - count);
            if (const auto mode = one.find("addrgenmode "); mode != std::string::npos)
                one.erase(mode, one.find(' ', mode + 12) - mode + 1);
            lines.push_back(command + " | " + without_indices(one, numbers));
        }
        std::sort(lines.begin(), lines.end());
        out.insert(out.end(), lines.begin(), lines.end());
    }
    return out;
}

}  // namespace corvo::test
