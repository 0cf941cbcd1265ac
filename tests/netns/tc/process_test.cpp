// Traffic control when the process runs out of something, and from many threads.

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <thread>

#include "support/failing_new.h"
#include "tc_fixture.h"

namespace corvo::test {
namespace {

TEST_F(Tc, NoDescriptorLeftIsAConnectFailure) {
    tc_options options = root_with_default(0);
    rlimit limit{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    rlimit none = limit;
    none.rlim_cur = 0;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    const int qdisc = setup_qdisc("wan", "root", "1:", "htb", &options);
    const int clean = clean_qdisc("wan", "root");
    tqs_link* head = get_tx_queue_status("wan");
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    EXPECT_EQ(qdisc, -3009);
    EXPECT_EQ(clean, -3009);
    ASSERT_NE(head, nullptr);
    EXPECT_EQ(head->next, head);
    free_tqs_head(head);
}

// Every allocation of every function fails once: the socket's is -3008, every other one -3010, and nothing is
// left behind either way.
template <class Call>
void expect_codes_without_memory(Call&& call, bool socket_code_wanted = true) {
    bool socket_code = false;
    bool object_code = false;
    for (int count = 0; count < 100; ++count) {
        int result = 0;
        bool struck = false;
        {
            FailingNew failing(count);
            result = call();
            struck = failing.struck();
        }
        if (!struck) {
            EXPECT_EQ(result, 0);
            EXPECT_TRUE(object_code);
            EXPECT_EQ(socket_code, socket_code_wanted);
            return;
        }
        EXPECT_TRUE(result == -3008 || result == -3010) << result << " at " << count;
        (result == -3008 ? socket_code : object_code) = true;
    }
    ADD_FAILURE() << "no end of allocations";
}

TEST_F(Tc, MemoryFailuresHaveTheirCodes) {
    tc_options root = root_with_default(0);
    tc_options options = shaped(1000, 1000);
    expect_codes_without_memory([&] { return setup_qdisc("wan", "root", "1:", "htb", &root); });
    expect_codes_without_memory([&] { return setup_class("wan", "1:", "1:1", "htb", &options); });
    expect_codes_without_memory([&] { return setup_qdisc_ingress("wan", "", 0); });
    expect_codes_without_memory([&] { return clean_qdisc("wan", "root"); });
    expect_codes_without_memory([&] { return clean_qdisc("wan", "ingress"); });
    EXPECT_EQ(qdiscs("wan").size(), 0U);
}

TEST_F(TcIngress, MemoryFailuresHaveTheirCodes) {
    add_tree();
    U32QoSObj rule{};
    rule.protocol = 0x800;
    ASSERT_EQ(setup_qdisc_ingress("wan", "", 0), 0);
    expect_codes_without_memory([&] { return setup_u32_filter("wan", "1:", "1:10", &rule); });
    expect_codes_without_memory([&] { return setup_qdisc_ingress_filter("wan", "ifb0", 0x800); });
}

TEST_F(Tc, StatusWithoutMemoryIsWhatFits) {
    add_tree();
    for (int count = 0;; ++count) {
        tqs_link* head = nullptr;
        bool struck = false;
        {
            FailingNew failing(count);
            head = get_tx_queue_status("wan");
            struck = failing.struck();
        }
        EXPECT_EQ(head == nullptr, count == 0);
        free_tqs_head(head);
        if (!struck) break;
    }
}

// --- Many at once

TEST_F(TcIngress, ThreadsDoNotDisturbEachOther) {
    constexpr int kThreads = 16;
    for (int i = 0; i < kThreads; ++i) {
        const std::string number = std::to_string(i);
        add_veth("w" + number, "p" + number);
    }
    LeakCheck leaks;
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([i] {
            const std::string device = "w" + std::to_string(i);
            const char* name = device.c_str();
            U32QoSObj rule{};
            rule.prio = 1;
            rule.protocol = 0x800;
            rule.sport = static_cast<uint32_t>(i + 1);
            for (int round = 0; round < 5; ++round) {
                tc_options root = root_with_default(0x10);
                tc_options options = shaped(125000, 125000);
                EXPECT_EQ(setup_qdisc(name, "root", "1:", "htb", &root), 0);
                EXPECT_EQ(setup_class(name, "1:", "1:10", "htb", &options), 0);
                EXPECT_EQ(setup_class(name, "1:", "1:10", "htb", &options), -3011);
                EXPECT_EQ(setup_u32_filter(name, "1:", "1:10", &rule), 0);
                EXPECT_EQ(setup_qdisc(name, "1:10", "nosuchname:1", "pfifo", nullptr), 0);
                EXPECT_EQ(setup_qdisc(name, "nosuchname", "2:", "pfifo", nullptr), -3011);
                EXPECT_EQ(setup_qdisc_ingress(name, "ifb0", 0x800), 0);
                EXPECT_EQ(setup_qdisc_ingress_filter(name, "ifb0", 0x800), 0);
                EXPECT_EQ(Status(name).entries.size(), 2U);
                EXPECT_EQ(clean_qdisc(name, "root"), 0);
                EXPECT_EQ(clean_qdisc(name, "ingress"), 0);
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    for (int i = 0; i < kThreads; ++i) EXPECT_EQ(qdiscs("w" + std::to_string(i)).size(), 0U);
}

}  // namespace
}  // namespace corvo::test
