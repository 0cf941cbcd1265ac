// Lists of routes over one session, at scale, and all functions from many threads at once.

#include "netlink/route_session.h"

#include <gtest/gtest.h>
#include <net/if.h>
#include <netlink/errno.h>

#include <atomic>
#include <map>
#include <set>
#include <sstream>
#include <thread>

#include "corvosetup/link.h"
#include "records.h"
#include "support/sandbox.h"

namespace {

using namespace corvo::test;
using corvo::nl::RouteSession;

class Session : public testing::Test {
protected:
    void SetUp() override {
        add_veth("v0", "v1", {.address = "192.0.2.1/24"});
        add_veth("w0", "w1", {.address = "198.51.100.1/24"});
    }
    static std::vector<std::string> lines(int table) {
        std::vector<std::string> found;
        std::istringstream all(run_line("ip -4 route show table " + std::to_string(table)).out);
        for (std::string line; std::getline(all, line);) found.push_back(line);
        return found;
    }
    LeakCheck leaks_;
};

std::string key(int i) {
    return "10." + std::to_string(i / 250) + "." + std::to_string(i % 250) + ".0";
}

TEST_F(Session, ResultsComeInTheOrderOfSubmission) {
    RouteSession session;
    ASSERT_EQ(session.open(), 0);
    RouteRecord good("10.1.0.0", 16, 1000, 7);
    good.hop("192.0.2.2", "v0");
    RouteRecord bad_address("nowhere", 16, 1000, 7);
    RouteRecord bad_device("10.2.0.0", 16, 1000, 7);
    bad_device.hop("192.0.2.2", "missing");
    RouteRecord refused("10.3.0.1", 16, 1000, 7);
    refused.hop("192.0.2.2", "v0");
    RouteRecord unkeyed("10.4.0.0", 16, 1000, 0);
    unkeyed.hop("192.0.2.2", "v0");
    for (RouteRecord* record : {&good, &bad_address, &bad_device, &refused, &unkeyed, &good}) {
        session.submit(0, *record->get());
    }
    EXPECT_EQ(session.finish(), (std::vector<int>{0, -3007, -3005, -NLE_INVAL, 0, 0}));
    EXPECT_TRUE(session.finish().empty());
    EXPECT_EQ(lines(1000).size(), 2U);
}

TEST_F(Session, EditsOfEveryOperationMixInOrder) {
    RouteSession session;
    ASSERT_EQ(session.open(), 0);
    RouteRecord one("10.1.0.0", 16, 1000, 7);
    one.hop("192.0.2.2", "v0");
    RouteRecord two("10.2.0.0", 16, 1000, 7);
    two.hop("192.0.2.2", "v0");
    session.submit(0, *one.get());
    session.submit(2, *one.get());
    session.submit(0, *two.get());
    session.submit(1, *two.get());
    session.submit(1, *two.get());
    session.submit(0, *one.get());
    EXPECT_EQ(session.finish(), (std::vector<int>{0, 0, 0, 0, -NLE_OBJ_NOTFOUND, 0}));
    EXPECT_EQ(lines(1000),
              std::vector<std::string>{"10.1.0.0/16 via 192.0.2.2 dev v0 proto static metric 7 onlink "});
}

// A device's index is remembered for a batch only, and never another device's.
TEST_F(Session, NextHopsLeaveByTheDeviceThatHasTheirNameNow) {
    RouteSession session;
    ASSERT_EQ(session.open(), 0);
    const auto results_of = [&](std::initializer_list<const char*> devices) {
        int i = 0;
        for (const char* device : devices) {
            RouteRecord record(key(i++), 24, 1000, 7);
            record.hop("192.0.2.2", device);
            session.submit(0, *record.get());
        }
        return session.finish();
    };
    EXPECT_EQ(results_of({"v0", "w0", "v0", "missing", "v0"}), (std::vector<int>{0, 0, 0, -3005, 0}));
    const auto line = [](const char* dst, const char* device) {
        return std::string(dst) + "/24 via 192.0.2.2 dev " + device + " proto static metric 7 onlink ";
    };
    EXPECT_EQ(lines(1000), (std::vector<std::string>{line("10.0.0.0", "v0"), line("10.0.1.0", "w0"),
                                                     line("10.0.2.0", "v0"), line("10.0.4.0", "v0")}));
    for (const char* step : {"ip link set v0 down", "ip link set v0 name old0", "ip link set w0 down",
                             "ip link set w0 name v0", "ip link set v0 up"}) {
        ASSERT_TRUE(run_line(step).ok()) << step;
    }
    EXPECT_EQ(results_of({"v0", "w0"}), (std::vector<int>{0, -3005}));
    EXPECT_EQ(lines(1000), std::vector<std::string>{line("10.0.0.0", "v0")});
}

// The same route twice in one list: the later one stays, also when old ones made the first one wait.
TEST_F(Session, TheLaterOfTwoEditsOfOneRouteStays) {
    std::vector<std::string> commands;
    for (int i = 9; i < 19; ++i) {
        commands.push_back("route append table 1000 10.1.0.0/16 via 192.0.2." + std::to_string(i) +
                           " metric 7");
    }
    ip_batch(commands);
    RouteSession session;
    ASSERT_EQ(session.open(), 0);
    for (int i = 100; i < 110; ++i) {
        RouteRecord record("10.1.0.0", 16, 1000, 7);
        record.hop("192.0.2." + std::to_string(i), "v0");
        session.submit(0, *record.get());
    }
    EXPECT_EQ(session.finish(), std::vector<int>(10, 0));
    EXPECT_EQ(lines(1000),
              std::vector<std::string>{"10.1.0.0/16 via 192.0.2.109 dev v0 proto static metric 7 onlink "});
}

// A list that meets an empty table for hundreds of routes and then former ones, refusals and its own routes
// again ends as edit_route ends one by one.
TEST_F(Session, ListOverAPartlyFilledTableEndsAsEditsOneByOne) {
    const auto filled = [](int i) { return i % 400 >= 330 || i % 61 == 0; };
    std::vector<std::string> commands;
    for (const char* table : {"1000", "2000"}) {
        for (int i = 0; i < 2000; ++i) {
            if (!filled(i)) continue;
            const std::string route = key(i) + "/24 metric 7 table " + table;
            commands.push_back("route append " + route + " via 192.0.2.9");
            if (i % 3 == 0) commands.push_back("route append " + route + " via 192.0.2.10 proto 77");
            if (i % 5 == 0) commands.push_back("route append blackhole " + route);
            if (i % 7 == 0) commands.push_back("route append " + route + " via 192.0.2.11 tos 0x10");
        }
    }
    ip_batch(commands);
    RouteSession session;
    ASSERT_EQ(session.open(), 0);
    std::vector<int> alone;
    for (int i = 0; i < 2500; ++i) {
        // From 2000 on: routes of a little before, within and across batches.
        const int at = i < 2000 ? i : 1900 + i % 130;
        for (const int table : {1000, 2000}) {
            RouteRecord record(key(at), at % 97 == 0 ? 33 : 24, table, 7);
            // A gateway that is an own address is refused, after the former routes are gone.
            record.hop(i % 53 == 0 ? "192.0.2.1" : "192.0.2." + std::to_string(20 + i % 200), "v0");
            if (table == 1000) {
                session.submit(0, *record.get());
            } else {
                alone.push_back(edit_route(0, record.get()));
            }
        }
    }
    EXPECT_EQ(session.finish(), alone);
    EXPECT_EQ(std::set<int>(alone.begin(), alone.end()), (std::set<int>{0, -NLE_INVAL}));
    EXPECT_EQ(lines(1000), lines(2000));
    EXPECT_GT(lines(1000).size(), 1900U);
}

// A gateway is looked up unless it is said to be on the link: what a route ahead of it did must be done.
TEST_F(Session, RouteMayDependOnTheOneAheadOfIt) {
    for (const char* way : {"v0", "w0"}) {
        run_line("ip route flush table 1000");
        ip_batch({"route add table 1000 10.1.0.0/16 dev v0 metric 7"});
        RouteSession session;
        ASSERT_EQ(session.open(), 0);
        for (int i = 0; i < 150; ++i) {  // more than a batch of routes that meet none
            RouteRecord record("10.200." + std::to_string(i) + ".0", 24, 1000, 7);
            record.hop("192.0.2.2", "v0");
            session.submit(0, *record.get());
        }
        RouteRecord link("10.1.0.0", 16, 1000, 7), far("10.2.0.0", 16, 1000, 7);
        link.hop("", way, 0, false);
        far.hop("10.1.0.1", "v0", 0, false);
        session.submit(0, *link.get());
        session.submit(0, *far.get());
        const std::vector<int> results = session.finish();
        ASSERT_EQ(results.size(), 152U);
        EXPECT_EQ(std::set<int>(results.begin(), results.end() - 1), std::set<int>{0});
        const bool reached = way == std::string("v0");
        EXPECT_EQ(results.back() == 0, reached) << results.back();
        EXPECT_EQ(run_line("ip route show table 1000 10.2.0.0/16").out.empty(), !reached);
    }
}

// An attribute, the list of next hops among them, is less than 64 KiB.
TEST_F(Session, MoreNextHopsThanAMessageHoldsAreRefusedAloneAndChangeNothing) {
    RouteSession session;
    ASSERT_EQ(session.open(), 0);
    RouteRecord before("10.1.0.0", 16, 1000, 7);
    before.hop("192.0.2.2", "v0");
    RouteRecord wide("10.1.0.0", 16, 1000, 7);
    RouteRecord wide_unkeyed("10.4.0.0", 16, 1000, 0);
    for (int i = 0; i < 5000; ++i) {
        wide.hop("192.0.2.3", "v0");
        wide_unkeyed.hop("192.0.2.3", "v0");
    }
    RouteRecord after("10.2.0.0", 16, 1000, 7);
    after.hop("192.0.2.2", "v0");
    for (RouteRecord* record : {&before, &wide, &wide_unkeyed, &after}) session.submit(0, *record->get());
    EXPECT_EQ(session.finish(), (std::vector<int>{0, -NLE_MSGSIZE, -NLE_MSGSIZE, 0}));
    EXPECT_EQ(edit_route(0, wide.get()), -NLE_MSGSIZE);
    EXPECT_EQ(lines(1000),
              (std::vector<std::string>{"10.1.0.0/16 via 192.0.2.2 dev v0 proto static metric 7 onlink ",
                                        "10.2.0.0/16 via 192.0.2.2 dev v0 proto static metric 7 onlink "}));
}

// Every request of every batch is refused; no answer may be lost or counted for another.
TEST_F(Session, ManyRefusalsAreAllReported) {
    RouteSession session;
    ASSERT_EQ(session.open(), 0);
    for (int i = 0; i < 5000; ++i) {
        RouteRecord record(key(i), i % 7 == 0 ? 24 : 33, 1000, 7);
        record.hop("192.0.2.2", "v0");
        session.submit(0, *record.get());
    }
    const std::vector<int> results = session.finish();
    ASSERT_EQ(results.size(), 5000U);
    for (int i = 0; i < 5000; ++i) ASSERT_EQ(results[i], i % 7 == 0 ? 0 : -NLE_INVAL) << i;
    EXPECT_EQ(lines(1000).size(), 715U);
}

// When the socket's room for answers is too small, what was lost is done again one by one.
TEST_F(Session, LostAnswersAreMadeUpFor) {
    RouteSession session;
    ASSERT_EQ(session.open(), 0);
    RouteRecord first("10.255.0.0", 24, 1000, 7);
    first.hop("192.0.2.2", "v0");
    session.submit(0, *first.get());
    RouteRecord second("10.255.1.0", 24, 1000, 7);
    second.hop("192.0.2.2", "v0");
    session.submit(0, *second.get());
    ASSERT_EQ(session.finish(), std::vector<int>(2, 0));  // the session has made its room now
    const int small = 2048;
    ASSERT_EQ(setsockopt(session.socket().fd(), SOL_SOCKET, SO_RCVBUF, &small, sizeof small), 0);
    for (int i = 0; i < 300; ++i) {
        RouteRecord record(key(i), i % 3 == 0 ? 24 : 33, 1000, 7);
        record.hop("192.0.2.2", "v0");
        session.submit(0, *record.get());
    }
    const std::vector<int> results = session.finish();
    for (int i = 0; i < 300; ++i) EXPECT_EQ(results[i], i % 3 == 0 ? 0 : -NLE_INVAL) << i;
    EXPECT_EQ(lines(1000).size(), 102U);
}

// Three routes of each key, a blackhole beside them, and one of another metric that must stay.
TEST_F(Session, TenThousandKeysWithDuplicatesEndAsExactlyTheExpectedTable) {
    constexpr int kKeys = 10000;
    std::vector<std::string> commands;
    for (int i = 0; i < kKeys; ++i) {
        const std::string dst = key(i) + "/24";
        commands.push_back("route append table 1000 " + dst + " via 192.0.2.9 metric 7 proto boot");
        commands.push_back("route append table 1000 " + dst + " via 192.0.2.10 metric 7 proto bird");
        commands.push_back("route append table 1000 " + dst + " dev w0 metric 7 scope link");
        commands.push_back("route append table 1000 blackhole " + dst + " metric 7");
        commands.push_back("route append table 1000 " + dst + " via 192.0.2.9 metric 8");
    }
    ip_batch(commands);
    ASSERT_EQ(lines(1000).size(), 5U * kKeys);
    {
        RouteSession session;
        ASSERT_EQ(session.open(), 0);
        for (int i = 0; i < kKeys; ++i) {
            RouteRecord record(key(i), 24, 1000, 7);
            record.hop("192.0.2.2", "v0").metrics(0x104, 1342, 1290);
            session.submit(0, *record.get());
        }
        EXPECT_EQ(session.finish(), std::vector<int>(kKeys, 0));
    }
    std::map<std::string, int> expected;
    for (int i = 0; i < kKeys; ++i) {
        const std::string dst = key(i) + "/24";
        ++expected[dst +
                   " via 192.0.2.2 dev v0 proto static metric 7 onlink mtu lock 1342 advmss lock 1290 "];
        ++expected[dst + " via 192.0.2.9 dev v0 metric 8 "];
    }
    std::map<std::string, int> found;
    for (const std::string& line : lines(1000)) ++found[line];
    EXPECT_TRUE(found == expected);

    RouteSession session;
    ASSERT_EQ(session.open(), 0);
    for (int i = 0; i < kKeys; ++i) {
        RouteRecord record(key(i), 24, 1000, 7);
        session.submit(2, *record.get());
    }
    EXPECT_EQ(session.finish(), std::vector<int>(kKeys, 0));
    EXPECT_EQ(lines(1000).size(), static_cast<std::size_t>(kKeys));
}

// The same, one call at a time.
TEST_F(Session, EditRouteAloneDoesTheSame) {
    std::vector<std::string> commands;
    for (int i = 0; i < 300; ++i) {
        for (const char* hop : {" via 192.0.2.9", " via 192.0.2.10", " via 192.0.2.11"}) {
            commands.push_back("route append table 1000 " + key(i) + "/24" + hop + " metric 7");
        }
        commands.push_back("route append table 1000 blackhole " + key(i) + "/24 metric 7");
    }
    ip_batch(commands);
    for (int i = 0; i < 300; ++i) {
        RouteRecord record(key(i), 24, 1000, 7);
        record.hop("192.0.2.2", "v0");
        ASSERT_EQ(edit_route(0, record.get()), 0);
    }
    EXPECT_EQ(lines(1000).size(), 300U);
}

// One thread's life: its own tables, rules, addresses and flags, all functions of the layer.
void live(int me, std::atomic<int>& wrong) {
    auto expect = [&](int got, int wanted) {
        if (got != wanted) ++wrong;
    };
    const std::string dev = "t" + std::to_string(me);
    const int index = index_of(dev);
    const int table = 2000 + me;
    const std::string address = "10.200." + std::to_string(me) + ".1/24";
    const std::string gateway = "10.200." + std::to_string(me) + ".2";
    const auto number = static_cast<std::uint32_t>(table);
    for (int round = 0; round < 20; ++round) {
        unsigned flags = 0;
        expect(set_dev_flags(index, IFF_UP), 0);
        expect(get_dev_flags(index, &flags), 0);
        expect((flags & IFF_UP) != 0, true);
        expect(set_ipv4_addr(index, address.c_str()), 0);
        expect(set_ipv6_addr(index, ("fd20:" + std::to_string(me) + "::1/64").c_str()), 0);
        char text[64] = "";
        expect(get_ipv4_addr(index, text), 0);
        expect(text == address, true);
        for (int i = 0; i < 5; ++i) {
            RouteRecord record(key(i), 24, table, 7);
            record.hop(gateway, dev, i).hop(gateway, dev, 2);
            expect(edit_route(0, record.get()), 0);
            expect(edit_route(0, record.get()), 0);
            if (i == 0) expect(edit_route(1, record.get()), 0);
            if (i == 1) expect(edit_route(2, record.get()), 0);
        }
        RouteRecord unkeyed("10.99.0.0", 16, table, 0);
        unkeyed.hop(gateway, dev);
        expect(edit_route(0, unkeyed.get()), 0);
        RouteSession session;
        expect(session.open(), 0);
        for (int i = 10; i < 60; ++i) {
            RouteRecord record(key(i), 24, table, 7);
            record.hop(gateway, dev);
            session.submit(0, *record.get());
        }
        expect(session.finish() == std::vector<int>(50, 0), true);
        std::vector<corvo::nl::RouteEntry> entries;
        corvo::nl::RouteKey whole;
        whole.family = AF_INET;
        whole.table = number;
        expect(session.list(whole, entries), 0);
        expect(static_cast<int>(entries.size()), 3 + 1 + 50);
        RouteRecord everything("", 0, table, 0);
        expect(edit_route(2, everything.get()), 0);
        expect(session.list(whole, entries), 0);
        expect(static_cast<int>(entries.size()), 0);
        rule_conf selector = rule(number, number, 5, 0xf);
        expect(edit_rule(0, &selector), 0);
        expect(edit_rule(0, &selector), 0);
        rule6_conf selector6 = rule6(number, number);
        expect(edit_rule6(0, &selector6), 0);
        expect(edit_rule(1, &selector), 0);
        expect(edit_rule(1, &selector), -3011);
        expect(edit_rule6(2, &selector6), 0);
        expect(edit_rule6(1, &selector6), -3011);
        expect(edit_fou(2), 0);
        ipip_conf tunnel{};
        expect(edit_ipip_tunnel(0, &tunnel), -3004);
        expect(edit_dummy(1, ("no" + dev).c_str(), 0), -3011);
        expect(flush_ipv4_addr(index), 0);
        expect(get_ipv4_addr(index, text), -3011);
        expect(unset_dev_flags(index, IFF_UP), 0);
    }
}

TEST_F(Session, SixteenThreadsUseEverythingAtOnce) {
    constexpr int kThreads = 16;
    for (int i = 0; i < kThreads; ++i) {
        const std::string name = "t" + std::to_string(i);
        add_veth(name, "p" + std::to_string(i));
    }
    std::atomic<int> wrong = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) threads.emplace_back([i, &wrong] { live(i, wrong); });
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(wrong, 0);
}

// All edit the same route: no crash, no hang, one of theirs stays.
TEST_F(Session, ThreadsThatFightForOneRouteLeaveOne) {
    std::vector<std::thread> threads;
    for (int i = 0; i < 16; ++i) {
        threads.emplace_back([i] {
            for (int round = 0; round < 50; ++round) {
                RouteRecord record("10.1.0.0", 16, 1000, 7);
                record.hop("192.0.2." + std::to_string(10 + i), "v0");
                const int result = edit_route(0, record.get());
                if (result != 0 && result != -NLE_EXIST) ADD_FAILURE() << result;
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(lines(1000).size(), 1U);
}

}  // namespace
