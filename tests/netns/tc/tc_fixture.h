// What the traffic-control tests start from: a device, and what the kernel has of it.
#pragma once

#include <gtest/gtest.h>

#include <cstddef>
#include <string>
#include <vector>

#include "corvosetup/tc.h"
#include "support/kernel_feature.h"
#include "support/sandbox.h"

namespace corvo::test {

inline tc_options root_with_default(uint32_t minor) {
    return {minor, 0, 0, 0};
}
inline tc_options shaped(uint32_t rate, uint32_t ceil, uint32_t prio = 0) {
    return {0, rate, ceil, prio};
}

// The qdiscs of a device, without the one that every device has.
inline Json::Value qdiscs(const std::string& device) {
    Json::Value found(Json::arrayValue);
    for (const Json::Value& qdisc : tc_json("qdisc show dev " + device)) {
        if (qdisc["kind"] != "noqueue" && qdisc["kind"] != "pfifo_fast") found.append(qdisc);
    }
    return found;
}
inline std::string classes(const std::string& device) {
    return must_run("tc -d class show dev " + device);
}
inline std::string filters(const std::string& words) {
    return must_run("tc filter show dev " + words);
}

class Tc : public testing::Test {
protected:
    void SetUp() override {
        REQUIRE_KERNEL_FEATURE("htb");
        add_veth("wan", "peer");
    }
    void add_root(uint32_t default_minor = 0) {
        tc_options options = root_with_default(default_minor);
        ASSERT_EQ(setup_qdisc("wan", "root", "1:", "htb", &options), 0);
    }
    void add_tree() {
        add_root(0x10);
        tc_options options = shaped(1250000, 1250000);
        ASSERT_EQ(setup_class("wan", "1:", "1:1", "htb", &options), 0);
        options = shaped(125000, 1250000, 1);
        ASSERT_EQ(setup_class("wan", "1:1", "1:10", "htb", &options), 0);
    }
    LeakCheck leaks_;
};

class TcIngress : public Tc {
protected:
    void SetUp() override {
        Tc::SetUp();
        REQUIRE_KERNEL_FEATURE("u32");
        REQUIRE_KERNEL_FEATURE("mirred");
        REQUIRE_KERNEL_FEATURE("ifb");
        ip_batch({"link add ifb0 type ifb"});
    }
};

// The list of a device, released at the end.
struct Status {
    explicit Status(const char* device) : head(get_tx_queue_status(device)) {
        if (!head) return;
        for (tqs_link* link = head->next; link != head; link = link->next) {
            EXPECT_EQ(link->next->prev, link);
            entries.push_back(
                *reinterpret_cast<tqs_entry*>(reinterpret_cast<char*>(link) - offsetof(tqs_entry, links)));
        }
    }
    ~Status() { free_tqs_head(head); }
    Status(const Status&) = delete;
    Status& operator=(const Status&) = delete;
    tqs_link* head;
    std::vector<tqs_entry> entries;
};

}  // namespace corvo::test
