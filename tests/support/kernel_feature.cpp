#include "support/kernel_feature.h"

#include <map>
#include <stdexcept>
#include <utility>
#include <vector>

#include "support/net.h"

namespace corvo::test {

namespace {

struct Probe {
    std::vector<std::string> modules;   // loaded first on the testbed; the kernel loads the others by itself
    std::vector<std::string> commands;  // all must succeed, in an empty namespace
};

const char* const kHtb = "tc qdisc add dev p0 root handle 1: htb";
const char* const kVeth = "ip link add p0 type veth peer name p1";

const std::map<std::string, Probe>& probes() {
    static const std::map<std::string, Probe> all{
        {"dummy", {{}, {"ip link add p0 type dummy"}}},
        {"veth", {{}, {kVeth}}},
        {"ifb", {{}, {"ip link add p0 type ifb"}}},
        {"ipip", {{}, {"ip link add p0 type ipip local 192.0.2.1 remote 192.0.2.2"}}},
        {"sit", {{}, {"ip link add p0 type sit local 192.0.2.1 remote 192.0.2.2"}}},
        {"fou", {{"fou"}, {"ip fou add port 5555 gue"}}},
        {"ipip-gue",
         {{"fou"},
          {"ip link add p0 type ipip local 192.0.2.1 remote 192.0.2.2 encap gue encap-sport auto encap-dport "
           "5"}}},
        {"sit-gue",
         {{"fou"},
          {"ip link add p0 type sit local 192.0.2.1 remote 192.0.2.2 encap gue encap-sport auto encap-dport "
           "5"}}},
        {"htb", {{}, {kVeth, kHtb}}},
        {"fq", {{}, {kVeth, "tc qdisc add dev p0 root fq"}}},
        {"fq_codel", {{}, {kVeth, "tc qdisc add dev p0 root fq_codel"}}},
        {"netem", {{}, {kVeth, "tc qdisc add dev p0 root netem delay 1ms"}}},
        {"ingress", {{}, {kVeth, "tc qdisc add dev p0 handle ffff: ingress"}}},
        {"u32",
         {{}, {kVeth, kHtb, "tc filter add dev p0 parent 1: protocol ip u32 match u32 0 0 flowid 1:1"}}},
        {"fw",
         {{}, {kVeth, kHtb, "tc filter add dev p0 parent 1: protocol ip handle 0x40/0x3c0 fw classid 1:1"}}},
        {"mirred",
         {{},
          {kVeth, "tc qdisc add dev p0 handle ffff: ingress",
           "tc filter add dev p0 parent ffff: protocol ip u32 match u32 0 0 action mirred egress redirect "
           "dev p1"}}},
        {"bbr", {{"tcp_bbr"}, {"grep -qw bbr /proc/sys/net/ipv4/tcp_available_congestion_control"}}},
        {"mptcp", {{}, {"test -e /proc/sys/net/mptcp/enabled"}}},
        {"conntrack",
         {{"nf_conntrack", "nf_conntrack_netlink"},
          {"conntrack -I -p udp -s 192.0.2.1 -d 192.0.2.2 --sport 1 --dport 2 -t 9", "conntrack -D -p udp"}}},
        {"multiqueue",
         {{},
          {"ip link add p0 numtxqueues 2 numrxqueues 2 type veth peer name p1 numtxqueues 2 numrxqueues 2"}}},
        {"nf_condition", {{"xt_condition"}, {"test -d /proc/net/nf_condition"}}},
    };
    return all;
}

// Empty: it works. Else why not.
std::string try_out(const Probe& probe) {
    if (in_device_tier())
        for (const auto& module : probe.modules)
            if (const auto loaded = run_line("modprobe " + module); !loaded.ok()) return loaded.err;
    const Netns scratch("feature-probe");
    for (const auto& command : probe.commands)
        if (const auto result = scratch.tool(command); !result.ok())
            return command + ": " + (result.err.empty() ? "no" : result.err);
    return {};
}

}  // namespace

bool has_kernel_feature(const std::string& name, std::string* why) {
    static std::map<std::string, std::string> known;
    const auto probe = probes().find(name);
    if (probe == probes().end()) throw std::invalid_argument("unknown kernel feature " + name);
    auto found = known.find(name);
    if (found == known.end()) found = known.emplace(name, try_out(probe->second)).first;
    if (why != nullptr) *why = found->second;
    return found->second.empty();
}

}  // namespace corvo::test
