// Interface addresses.

#include <gtest/gtest.h>

#include <sys/socket.h>

#include <atomic>
#include <climits>
#include <cstring>
#include <thread>
#include <vector>

#include "corvosetup/link.h"
#include "netlink/link_message.h"
#include "netlink/raw_socket.h"
#include "support/sandbox.h"

namespace {

using namespace corvo::test;
using testing::Test;

class Addresses : public Test {
protected:
    void SetUp() override {
        add_veth("v0", "v1");
        index_ = index_of("v0");
    }
    std::vector<std::string> addresses(const std::string& family = "inet", const std::string& dev = "v0") {
        std::vector<std::string> found;
        const Json::Value shown = ip_json("addr show dev " + dev);
        for (const Json::Value& info : shown[0]["addr_info"]) {
            if (info["family"].asString() != family || info["scope"].asString() == "link") continue;
            found.push_back(info["local"].asString() + "/" + info["prefixlen"].asString());
        }
        return found;
    }
    std::string get() {
        std::vector<char> text(19);  // what the call asks for, and on the heap, where a byte too many is seen
        std::strcpy(text.data(), "untouched");
        last_ = get_ipv4_addr(index_, text.data());
        return text.data();
    }
    using Texts = std::vector<std::string>;

    LeakCheck leaks_;
    int index_ = 0;
    int last_ = 0;
};

TEST_F(Addresses, SetsAnAddressWithItsLength) {
    EXPECT_EQ(set_ipv4_addr(index_, "192.0.2.1/24"), 0);
    EXPECT_EQ(addresses(), Texts{"192.0.2.1/24"});
}

TEST_F(Addresses, WithoutALengthItIsAHost) {
    EXPECT_EQ(set_ipv4_addr(index_, "192.0.2.1"), 0);
    EXPECT_EQ(addresses(), Texts{"192.0.2.1/32"});
}

TEST_F(Addresses, SettingOneThatIsThereSucceeds) {
    EXPECT_EQ(set_ipv4_addr(index_, "192.0.2.1/24"), 0);
    EXPECT_EQ(set_ipv4_addr(index_, "192.0.2.1/24"), 0);
    EXPECT_EQ(addresses(), Texts{"192.0.2.1/24"});
    EXPECT_EQ(set_ipv6_addr(index_, "fd00::1/64"), 0);
    EXPECT_EQ(set_ipv6_addr(index_, "fd00::1/64"), 0);
    EXPECT_EQ(addresses("inet6"), Texts{"fd00::1/64"});
}

TEST_F(Addresses, LoopbackAddressesHaveHostScope) {
    EXPECT_EQ(set_ipv4_addr(index_, "127.9.0.1/8"), 0);
    EXPECT_EQ(ip_json("-4 addr show dev v0")[0]["addr_info"][0]["scope"].asString(), "host");
}

TEST_F(Addresses, SettersRefuseBadArguments) {
    for (const int index : {0, -1, INT_MIN}) {
        EXPECT_EQ(set_ipv4_addr(index, "192.0.2.1"), -3005);
        EXPECT_EQ(set_ipv6_addr(index, "fd00::1"), -3005);
        EXPECT_EQ(set_ipv4_addr(index, nullptr), -3005);
    }
    EXPECT_EQ(set_ipv4_addr(index_, nullptr), -3002);
    EXPECT_EQ(set_ipv6_addr(index_, nullptr), -3002);
    for (const char* text : {"", "nowhere", "fd00::1", "192.0.2.1/x", "default", "any"}) {
        EXPECT_EQ(set_ipv4_addr(index_, text), -3007) << text;
    }
    for (const char* text : {"", "nowhere", "192.0.2.1", "fd00::1/x", "default"}) {
        EXPECT_EQ(set_ipv6_addr(index_, text), -3007) << text;
    }
    EXPECT_TRUE(addresses().empty());
}

TEST_F(Addresses, SettersReportTheKernelsRefusal) {
    EXPECT_EQ(set_ipv4_addr(99999, "192.0.2.1"), -3011);
    EXPECT_EQ(set_ipv6_addr(99999, "fd00::1"), -3011);
    EXPECT_EQ(set_ipv4_addr(index_, "192.0.2.1/33"), -3011);
}

TEST_F(Addresses, TextOfAnAddressHasItsLength) {
    set_ipv4_addr(index_, "192.168.100.100/24");
    EXPECT_EQ(get(), "192.168.100.100/24");
    EXPECT_EQ(last_, 0);
}

TEST_F(Addresses, TextOfAHostAddressIsBare) {
    set_ipv4_addr(index_, "192.0.2.1/32");
    EXPECT_EQ(get(), "192.0.2.1");
}

TEST_F(Addresses, TextIsThatOfTheLocalSide) {
    ip_batch({"addr add 192.0.2.1 peer 192.0.2.9/24 dev v0"});
    EXPECT_EQ(get(), "192.0.2.1/24");
}

TEST_F(Addresses, OfSeveralTheFirstCounts) {
    set_ipv4_addr(index_, "192.0.2.1/24");
    set_ipv4_addr(index_, "198.51.100.1/24");
    set_ipv4_addr(index_, "192.0.2.2/24");
    EXPECT_EQ(get(), "192.0.2.1/24");
}

TEST_F(Addresses, OnlyTheDevicesOwnCount) {
    set_ipv4_addr(index_of("v1"), "198.51.100.1/24");
    set_ipv6_addr(index_, "fd00::1/64");
    EXPECT_EQ(get(), "untouched");
    EXPECT_EQ(last_, -3011);
}

TEST_F(Addresses, GetterRefusesBadArguments) {
    char text[64] = "untouched";
    for (const int index : {0, -1, INT_MIN}) EXPECT_EQ(get_ipv4_addr(index, text), -3005);
    EXPECT_EQ(get_ipv4_addr(index_, nullptr), -3002);
    EXPECT_EQ(get_ipv4_addr(99999, text), -3011);
    EXPECT_STREQ(text, "untouched");
}

TEST_F(Addresses, FlushTakesEveryIpv4AddressOfTheDevice) {
    set_ipv4_addr(index_, "192.0.2.1/24");
    set_ipv4_addr(index_, "192.0.2.2/24");  // secondary: goes with the first
    set_ipv4_addr(index_, "198.51.100.1/32");
    ip_batch({"addr add 203.0.113.1 peer 203.0.113.9/24 dev v0", "addr add 10.0.0.1/24 dev v0 label v0:1"});
    set_ipv6_addr(index_, "fd00::1/64");
    set_ipv4_addr(index_of("v1"), "198.51.100.7/24");
    EXPECT_EQ(flush_ipv4_addr(index_), 0);
    EXPECT_TRUE(addresses().empty());
    EXPECT_EQ(addresses("inet6"), Texts{"fd00::1/64"});
    EXPECT_EQ(addresses("inet", "v1"), Texts{"198.51.100.7/24"});
}

TEST_F(Addresses, FlushKeepsUpWithPromotedSecondaries) {
    must_run("sysctl -qw net.ipv4.conf.v0.promote_secondaries=1");
    set_ipv4_addr(index_, "192.0.2.1/24");
    set_ipv4_addr(index_, "192.0.2.2/24");
    set_ipv4_addr(index_, "192.0.2.3/24");
    EXPECT_EQ(flush_ipv4_addr(index_), 0);
    EXPECT_TRUE(addresses().empty());
}

TEST_F(Addresses, FlushOfNothingSucceeds) {
    EXPECT_EQ(flush_ipv4_addr(index_), 0);
    EXPECT_EQ(flush_ipv4_addr(99999), 0);
    for (const int index : {0, -1, INT_MIN}) EXPECT_EQ(flush_ipv4_addr(index), -3005);
}

TEST_F(Addresses, FlushTakesMoreThanOneDumpPart) {
    std::vector<std::string> commands;
    for (int i = 0; i < 1000; ++i) {
        commands.push_back("addr add 10." + std::to_string(i / 250) + "." + std::to_string(i % 250) +
                           ".1/32 dev v0");
    }
    ip_batch(commands);
    ASSERT_EQ(addresses().size(), 1000U);
    EXPECT_EQ(flush_ipv4_addr(index_), 0);
    EXPECT_TRUE(addresses().empty());
}

// Addresses come and go between the parts of a list that does not fit into one answer.
TEST_F(Addresses, ListThatChangesMeanwhileIsReadAgain) {
    constexpr int kMany = 2000;
    std::vector<std::string> commands;
    for (int i = 0; i < kMany; ++i) {
        commands.push_back("addr add 10." + std::to_string(i / 250) + "." + std::to_string(i % 250) +
                           ".1/32 dev v0");
    }
    ip_batch(commands);
    std::unique_ptr<corvo::nl::RawSocket> socket;
    ASSERT_EQ(corvo::nl::RawSocket::open_as_result(socket), 0);
    corvo::nl::MessageWriter request;
    corvo::nl::build_dump_addresses(request, 0, AF_INET);  // of one device alone, older kernels do not tell
    const auto list = [&](int changes) {
        int attempts = 0;
        int found = 0;
        bool changed = false;
        const corvo::nl::Answer answer = corvo::nl::consistent_dump(
            *socket, request,
            [&] {
                ++attempts;
                found = 0;
                changed = false;
            },
            [&](const corvo::nl::MessageView&) {
                ++found;
                if (changed || attempts > changes) return;
                changed = true;
                EXPECT_EQ(set_ipv4_addr(index_, ("172.16.0." + std::to_string(attempts) + "/32").c_str()), 0);
            });
        EXPECT_TRUE(answer.done());
        return std::pair(attempts, found);
    };
    const auto [attempts, all] = list(0);
    EXPECT_EQ(attempts, 1);
    EXPECT_GE(all, kMany);
    EXPECT_EQ(list(2), std::pair(3, all + 2));
}

// The same by the exported function, against somebody who keeps changing another device.
TEST_F(Addresses, FlushMissesNothingWhileAddressesChange) {
    std::atomic<bool> stop = false;
    std::thread other([&, peer = index_of("v1")] {
        while (!stop) {
            set_ipv4_addr(peer, "198.51.100.1/24");
            flush_ipv4_addr(peer);
        }
    });
    for (int round = 0; round < 5; ++round) {
        std::vector<std::string> commands;
        for (int i = 0; i < 600; ++i) {
            commands.push_back("addr add 10." + std::to_string(i / 250) + "." + std::to_string(i % 250) +
                               ".1/32 dev v0");
        }
        ip_batch(commands);
        EXPECT_EQ(flush_ipv4_addr(index_), 0);
        EXPECT_TRUE(addresses().empty());
    }
    stop = true;
    other.join();
}

}  // namespace
