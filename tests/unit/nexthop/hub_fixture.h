// What the tests of the hub tests and of the regional link test start from.
#pragma once

#include "probe_fixture.h"

namespace corvo::test {

// A port of a site, and a hub with one port that is not behind address translation.
inline Json::Value port(const std::string& real, const std::string& wan, const char* rate = "0") {
    Json::Value entry;
    entry["REAL_WAN_ADDR4"] = real;
    entry["WAN_ADDR4"] = wan;
    entry["RX_RATE"] = rate;
    return entry;
}

inline Json::Value hub(const std::string& address, const char* rate = "0", const char* group = "g",
                       const char* domain = "d") {
    Json::Value site;
    site["ROLE"] = "HUB";
    site["GROUP_ID"] = group;
    site["DOMAIN"] = domain;
    site["PORT1"] = port(address, address, rate);
    return site;
}

// Edge 10, current hub 20 at 192.0.2.20; nobody answers unless a test says so.
class HubTest : public ProbeTest {
protected:
    HubTest() {
        kernel.process = 4711;
        Json::Value& own = sites["10"];
        own["ROLE"] = "EDGE";
        own["HUB"] = "20";
        own["GROUP_ID"] = "g";
        own["DOMAIN"] = "d";
        sites["20"] = hub("192.0.2.20");
    }
    void publish() { services.site(sites); }

    std::vector<std::string> order_of_sends() {
        std::vector<std::string> order;
        for (const auto& call : kernel.calls()) {
            if (!call.starts_with("sendto ")) continue;
            const auto to = call.substr(7, call.find(':') - 7);
            if (order.empty() || order.back() != to) order.push_back(to);
        }
        return order;
    }

    Json::Value sites{Json::objectValue};
};

}  // namespace corvo::test
