// Shaping as traffic feels it: shares, ceilings, limits per host group.

#include <gtest/gtest.h>

#include "corvosetup/lan_qos.h"
#include "corvosetup/qos.h"
#include "support/kernel_feature.h"
#include "support/sandbox.h"
#include "traffic.h"

namespace corvo::test {
namespace {

int shape(int op) {
    std::string dev;
    std::string path;
    return setup_qos(op, dev, path, false);
}
int shape_lan(int op) {
    std::string dev;
    std::string conf;
    std::string dev_conf;
    return setup_lan_qos(op, dev, conf, dev_conf);
}

void require_everything() {
    for (const char* feature : {"htb", "fq", "fw", "u32", "ingress", "mirred", "ifb"})
        REQUIRE_KERNEL_FEATURE(feature);
}

// Classes of 1 (management), 50, 30 and 19 percent (unmarked) of 800 kbit/s: slow enough for an emulated
// machine, whose timers are milliseconds late. A bucket holds one packet of the MTU, which is 15 ms at this
// rate.
class WanTraffic : public testing::Test {
protected:
    void SetUp() override {
        require_everything();
        if (IsSkipped() || HasFatalFailure()) return;
        add_veth("eth1", provider_, "peer", {"192.0.2.1/24", "192.0.2.2/24"});
        wait_for_carrier("eth1");
    }
    void start(const char* rx_rate) {
        write_document("device_info.json", std::string(
                                               R"({"WAN_IFACE_INFO":{"eth1":{"ID":"1","TX_RATE":"800000",
            "RX_RATE":")") + rx_rate + R"("}}})");
        write_document("qos.json", R"({"QOS":{"RATE":[50,30]}})");
        ASSERT_EQ(shape(0), 0);
    }
    Flow out(const char* name, std::uint16_t port, int mark, double offered, double expected) {
        Flow flow;
        flow.name = name;
        flow.to = &provider_;
        flow.target = "192.0.2.2";
        flow.port = port;
        flow.mark = mark;
        flow.offered = offered;
        flow.expected = expected;
        return flow;
    }
    Netns provider_{"provider"};
};

TEST_F(WanTraffic, EachClassGetsItsShareUnderContention) {
    start("0");
    std::vector<Flow> flows{out("management", 5001, 0x3c0, 0.05, 0.008), out("50 %", 5002, 0x40, 0.6, 0.4),
                            out("30 %", 5003, 0x80, 0.4, 0.24), out("unmarked", 5004, 0, 0.3, 0.152)};
    run_traffic(flows, std::chrono::seconds(16));
    expect_rates("contention", flows);
}

TEST_F(WanTraffic, AClassBorrowsUpToTheCeiling) {
    start("0");
    std::vector<Flow> flows{out("30 %", 5003, 0x80, 1.2, 0.8)};
    run_traffic(flows);
    expect_rates("alone", flows);
}

TEST_F(WanTraffic, ManagementBorrowsToo) {
    start("0");
    std::vector<Flow> flows{out("management", 5001, 0x3c0, 1.2, 0.8)};
    run_traffic(flows);
    expect_rates("management alone", flows);
}

TEST_F(WanTraffic, SpareRateGoesToTheLowerPriorityNumber) {
    start("0");
    std::vector<Flow> flows{out("50 %", 5002, 0x40, 0.8, 0.56), out("30 %", 5003, 0x80, 0.8, 0.24)};
    run_traffic(flows);
    expect_rates("two of four", flows);
}

// Bits of the mark outside of the shaper's are somebody else's.
TEST_F(WanTraffic, OtherBitsOfTheMarkDoNotMatter) {
    start("0");
    std::vector<Flow> flows{out("50 %", 5002, 0x1004f, 0.8, 0.56), out("30 %", 5003, 0x80, 0.8, 0.24)};
    run_traffic(flows);
    expect_rates("other mark bits", flows);
}

TEST_F(WanTraffic, IngressLimitHoldsAndEspPasses) {
    ip_batch({"link add ifb0 type ifb", "link set ifb0 up"});
    start("800000");
    const auto in = [&](const char* name, bool esp, double offered, double expected) {
        Flow flow;
        flow.name = name;
        flow.from = &provider_;
        flow.target = "192.0.2.1";
        flow.port = esp ? 0 : 5001;
        flow.esp = esp;
        flow.offered = offered;
        flow.expected = expected;
        return flow;
    };
    std::vector<Flow> flows{in("limited", false, 1.5, 0.8), in("ESP", true, 0.5, 0.5)};
    run_traffic(flows);
    expect_rates("ingress", flows);
}

TEST_F(WanTraffic, StopTakesTheLimitAway) {
    start("0");
    ASSERT_EQ(shape(1), 0);
    std::vector<Flow> flows{out("unshaped", 5002, 0x40, 1.5, 1.5)};
    run_traffic(flows, std::chrono::seconds(4));
    expect_rates("stopped", flows);
}

// --- LAN: hosts behind lan1, which is this machine's address 10.7.0.1 and 10.7.1.1.

class LanTraffic : public testing::Test {
protected:
    void SetUp() override {
        require_everything();
        if (IsSkipped() || HasFatalFailure()) return;
        add_veth("lan1", hosts_, "h1");
        ip_batch({"link add ifb0 type ifb", "link set ifb0 up"});
        wait_for_carrier("lan1");
    }
    void addresses(const std::string& here, const std::string& there) {
        ip_batch({"addr add 10.7.0.1/24 dev " + here, "addr add 10.7.1.1/24 dev " + here});
        std::vector<std::string> commands;
        for (const char* address : {"10.7.0.2", "10.7.0.3", "10.7.0.4", "10.7.0.5", "10.7.1.2", "10.7.1.3"})
            commands.push_back("addr add " + std::string(address) + "/24 dev " + there);
        hosts_.ip(commands);
    }
    void start(const std::string& device, const std::string& shaping) {
        write_document("device_info.json", device);
        write_document("lan_qos.json", shaping);
        ASSERT_EQ(shape_lan(0), 0);
        ASSERT_EQ(count_log("[ERROR] Setup QoS error."), 0);
    }
    // Towards the host at `address`, or from it.
    Flow down(const char* name, const char* address, std::uint16_t port, double offered, double expected) {
        Flow flow;
        flow.name = std::string("down, ") + name;
        flow.to = &hosts_;
        flow.target = address;
        flow.port = port;
        flow.offered = offered;
        flow.expected = expected;
        return flow;
    }
    Flow up(const char* name, const char* address, std::uint16_t port, double offered, double expected) {
        Flow flow = down("", address, port, offered, expected);
        flow.name = std::string("up, ") + name;
        flow.to = nullptr;
        flow.from = &hosts_;
        flow.source = address;
        flow.target = flow.source.starts_with("10.7.1.") ? "10.7.1.1" : "10.7.0.1";
        return flow;
    }
    Netns hosts_{"hosts"};
};

constexpr const char* kPort = R"({"LAN_PORT":{"1":{"INTERFACE":"lan1"}}})";

TEST_F(LanTraffic, GroupsHoldByAddressMaskAndPortBothWays) {
    addresses("lan1", "h1");
    start(kPort, R"({"GROUPS":[{"PRIO":"1","UPLINK_RATE":"25000","DOWNLINK_RATE":"25000"},
                               {"PRIO":"2","UPLINK_RATE":"37500","DOWNLINK_RATE":"50000"},
                               {"PRIO":"3","UPLINK_RATE":"12500","DOWNLINK_RATE":"12500"}],
        "DOWNLINK":[{"PRIO":"1","DIP":"10.7.0.2","DMASK":"32"},{"PRIO":"2","DIP":"10.7.1.9","DMASK":"24"},
                    {"PRIO":"3","DPORT":"5300"}],
        "UPLINK":[{"PRIO":"1","SIP":"10.7.0.2","SMASK":"32"},{"PRIO":"2","SIP":"10.7.1.9","SMASK":"24"},
                  {"PRIO":"3","SPORT":"6300"}]})");
    std::vector<Flow> flows{
        down("one host", "10.7.0.2", 5001, 0.4, 0.2), down("network", "10.7.1.2", 5002, 0.8, 0.4),
        down("port", "10.7.0.3", 5300, 0.3, 0.1),     down("no rule", "10.7.0.4", 5004, 0.8, 0.8),
        up("one host", "10.7.0.2", 5101, 0.5, 0.2),   up("network", "10.7.1.3", 5102, 0.8, 0.3),
        up("port", "10.7.0.3", 5103, 0.3, 0.1),       up("no rule", "10.7.0.5", 5104, 0.8, 0.8)};
    flows[6].source_port = 6300;
    run_traffic(flows);
    expect_rates("LAN", flows);
}

TEST_F(LanTraffic, GroupsHoldByMac) {
    addresses("lan1", "h1");
    const std::string mac = hosts_.ip_json("link show dev h1")[0]["address"].asString();
    start(kPort, R"({"GROUPS":[{"PRIO":"1","UPLINK_RATE":"25000","DOWNLINK_RATE":"50000"}],
        "DOWNLINK":[{"PRIO":"1","DMAC":")" +
                     mac + R"("}],"UPLINK":[{"PRIO":"1","SMAC":")" + mac + R"("}]})");
    std::vector<Flow> flows{down("its MAC", "10.7.0.2", 5001, 0.8, 0.4),
                            up("its MAC", "10.7.0.2", 5101, 0.5, 0.2)};
    run_traffic(flows);
    expect_rates("LAN by MAC", flows);
}

TEST_F(LanTraffic, AnotherMacIsNotShaped) {
    addresses("lan1", "h1");
    start(kPort, R"({"GROUPS":[{"PRIO":"1","UPLINK_RATE":"25000","DOWNLINK_RATE":"25000"}],
        "DOWNLINK":[{"PRIO":"1","DMAC":"02:01:02:03:04:05"}],"UPLINK":[{"PRIO":"1","SMAC":"02:01:02:03:04:05"}]})");
    std::vector<Flow> flows{down("other MAC", "10.7.0.2", 5001, 0.8, 0.8),
                            up("other MAC", "10.7.0.2", 5101, 0.8, 0.8)};
    run_traffic(flows, std::chrono::seconds(4));
    expect_rates("LAN by MAC", flows);
}

TEST_F(LanTraffic, GroupsHoldWithVlan) {
    ip_batch({"link add link lan1 name lan1.7 type vlan id 7", "link set lan1.7 up"});
    hosts_.ip({"link add link h1 name h1.7 type vlan id 7", "link set h1.7 up"});
    addresses("lan1.7", "h1.7");
    start(R"({"VLAN_SEG":{"7":{}},"LAN_PORT":{"1":{"INTERFACE":"lan1"}}})",
          R"({"GROUPS":[{"PRIO":"1","UPLINK_RATE":"25000","DOWNLINK_RATE":"50000"}],
        "DOWNLINK":[{"PRIO":"1","DIP":"10.7.0.2","DMASK":"32"}],"UPLINK":[{"PRIO":"1","SIP":"10.7.0.2","SMASK":"32"}]})");
    std::vector<Flow> flows{
        down("host", "10.7.0.2", 5001, 0.8, 0.4), down("no rule", "10.7.0.4", 5004, 0.8, 0.8),
        up("host", "10.7.0.2", 5101, 0.5, 0.2), up("no rule", "10.7.0.5", 5104, 0.8, 0.8)};
    run_traffic(flows);
    expect_rates("LAN with VLAN", flows);
}

}  // namespace
}  // namespace corvo::test
