// An edge with two WAN links whose gateways live in namespaces of their own.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "netns/edged/daemon.h"
#include "support/sandbox.h"
#include "support/services.h"

namespace corvo::test {

class EdgeTest : public testing::Test {
protected:
    EdgeTest();

    // What the documents say of this edge. Changing one and publish() is what its owner would do.
    Json::Value device_info;
    void publish() { services->document("device_info.json", device_info); }
    Json::Value& wan(const std::string& name) { return device_info["WAN_IFACE_INFO"][name]; }

    // The default routes of table 253, as "METRIC eth1*5 eth2*2", sorted.
    static std::vector<std::string> default_routes();

    // Everything that a daemon could leave behind in the kernel, without what differs between equal set-ups
    // (indices of devices, random handles). Line by line.
    static std::vector<std::string> kernel_state();

    // A gateway's side of the wire goes down or comes back.
    void gateway(int number, bool up) {
        (number == 1 ? gw1 : gw2).ip({std::string("link set gw ") + (up ? "up" : "down")});
    }

    // Entries for the gateways that need no asking: the first cycle of a monitor finds them.
    void know_gateways();

    Netns gw1{"gw1"};
    Netns gw2{"gw2"};
    std::unique_ptr<Services> services;
};

}  // namespace corvo::test
