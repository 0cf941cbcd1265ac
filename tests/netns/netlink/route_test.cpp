// edit_route on the kernel.

#include <gtest/gtest.h>
#include <netlink/errno.h>

#include <climits>

#include "corvosetup/link.h"
#include "netlink/raw_socket.h"
#include "routes.h"
#include "support/recorder.h"
#include "support/sandbox.h"

namespace {

using namespace corvo::test;

RouteRecord net(int table = 1000, int priority = 7) {
    return RouteRecord("10.1.0.0", 16, table, priority);
}

TEST_F(Routes, AddsARouteWithEverything) {
    RouteRecord record = net();
    record.hop("192.0.2.2", "v0").metrics(0x104, 1374, 1302);
    ASSERT_EQ(edit_route(0, record.get()), 0);
    EXPECT_EQ(
        text(1000),
        "10.1.0.0/16 via 192.0.2.2 dev v0 proto static metric 7 onlink mtu lock 1374 advmss lock 1302 \n");
}

TEST_F(Routes, WeightsAreOneBased) {
    RouteRecord record = net();
    record.hop("192.0.2.2", "v0", 5, false)
        .hop("198.51.100.2", "w0", 1, true)
        .hop("192.0.2.3", "v0", 0, false);
    ASSERT_EQ(edit_route(0, record.get()), 0);
    const Json::Value hops = table(1000)[0]["nexthops"];
    ASSERT_EQ(hops.size(), 3U);
    EXPECT_EQ(hops[0]["weight"].asInt(), 5);
    EXPECT_EQ(hops[1]["weight"].asInt(), 1);
    EXPECT_EQ(hops[2]["weight"].asInt(), 1);
    EXPECT_EQ(hops[0]["flags"].size(), 0U);
    EXPECT_EQ(hops[1]["flags"][0].asString(), "onlink");
    EXPECT_EQ(hops[1]["gateway"].asString(), "198.51.100.2");
    EXPECT_EQ(hops[1]["dev"].asString(), "w0");
}

TEST_F(Routes, EmptyDestinationIsTheDefaultRouteOfItsTable) {
    RouteRecord record("", 0, 253, 0);
    record.hop("192.0.2.2", "v0");
    ASSERT_EQ(edit_route(0, record.get()), 0);
    EXPECT_EQ(table(253)[0]["dst"].asString(), "default");
    ASSERT_EQ(edit_route(0, record.get()), 0);
    EXPECT_EQ(table(253).size(), 1U);
    EXPECT_EQ(edit_route(1, record.get()), 0);
    EXPECT_EQ(table(253).size(), 0U);
}

TEST_F(Routes, DestinationWordsAreTheDefaultRoute) {
    for (const char* word : {"default", "any", "all", "0.0.0.0/0"}) {
        RouteRecord record(word, 0, 1000, 7);
        record.hop("192.0.2.2", "v0");
        ASSERT_EQ(edit_route(0, record.get()), 0) << word;
        EXPECT_EQ(table(1000)[0]["dst"].asString(), "default") << word;
        EXPECT_EQ(table(1000).size(), 1U) << word;
        EXPECT_EQ(edit_route(2, record.get()), 0) << word;
        EXPECT_EQ(table(1000).size(), 0U) << word;
    }
}

TEST_F(Routes, UnsetTableIsMain) {
    RouteRecord record("10.1.0.0", 16, 0, 7);
    record.hop("192.0.2.2", "v0");
    ASSERT_EQ(edit_route(0, record.get()), 0);
    EXPECT_NE(text(254).find("10.1.0.0/16 via 192.0.2.2"), std::string::npos);
}

TEST_F(Routes, AddReplacesAnEqualRoute) {
    RouteRecord first = net();
    first.hop("192.0.2.2", "v0");
    RouteRecord second = net();
    second.hop("198.51.100.2", "w0").metrics(0, 1342, 0);
    ASSERT_EQ(edit_route(0, first.get()), 0);
    ASSERT_EQ(edit_route(0, second.get()), 0);
    EXPECT_EQ(text(1000), "10.1.0.0/16 via 198.51.100.2 dev w0 proto static metric 7 onlink mtu 1342 \n");
}

// Everything of one table, metric and destination, however it came there.
TEST_F(Routes, DeletesMatchingRoutesBeforeAdding) {
    ip_batch({
        "route add table 1000 10.1.0.0/16 via 192.0.2.9 metric 7 proto boot",
        "route append table 1000 10.1.0.0/16 via 192.0.2.10 metric 7 proto bird",
        "route append table 1000 10.1.0.0/16 dev w0 metric 7 proto kernel scope link",
        "route append table 1000 blackhole 10.1.0.0/16 metric 7",
        "route append table 1000 unreachable 10.1.0.0/16 metric 7",
        "route add table 1000 blackhole 10.1.0.0/16 metric 8",
        "route add table 1000 10.1.0.0/17 via 192.0.2.9 metric 7",
        "route add table 1001 10.1.0.0/16 via 192.0.2.9 metric 7",
    });
    ASSERT_EQ(table(1000).size(), 7U);
    RouteRecord record = net();
    record.hop("192.0.2.2", "v0");
    ASSERT_EQ(edit_route(0, record.get()), 0);
    EXPECT_EQ(text(1000),
              "10.1.0.0/17 via 192.0.2.9 dev v0 metric 7 \n"
              "10.1.0.0/16 via 192.0.2.2 dev v0 proto static metric 7 onlink \n"
              "blackhole 10.1.0.0/16 metric 8 \n");
    EXPECT_EQ(table(1001).size(), 1U);
}

TEST_F(Routes, RoutesWithATosAreLeftAlone) {
    ip_batch({"route add table 1000 10.1.0.0/16 tos 0x10 via 192.0.2.9 metric 7"});
    RouteRecord record = net();
    record.hop("192.0.2.2", "v0");
    ASSERT_EQ(edit_route(0, record.get()), 0);
    EXPECT_EQ(table(1000).size(), 2U);
    EXPECT_EQ(edit_route(2, record.get()), 0);
    EXPECT_EQ(table(1000).size(), 1U);
    RouteRecord whole("", 0, 1000, 0);
    EXPECT_EQ(edit_route(2, whole.get()), 0);
    EXPECT_EQ(text(1000), "10.1.0.0/16 tos 0x10 via 192.0.2.9 dev v0 metric 7 \n");
}

TEST_F(Routes, UnsetPriorityDeletesEveryPriorityBeforeAdding) {
    ip_batch({"route add table 1000 10.1.0.0/16 via 192.0.2.9 metric 7",
              "route add table 1000 blackhole 10.1.0.0/16 metric 8",
              "route add table 1000 10.2.0.0/16 dev v0", "route add table 1000 10.1.0.0/16 via 192.0.2.9"});
    RouteRecord record = net(1000, 0);
    record.hop("192.0.2.2", "v0");
    ASSERT_EQ(edit_route(0, record.get()), 0);
    EXPECT_EQ(text(1000),
              "10.1.0.0/16 via 192.0.2.2 dev v0 proto static onlink \n10.2.0.0/16 dev v0 scope link \n");
}

TEST_F(Routes, UnsetDestinationOfAnAddDeletesDefaultRoutesOnly) {
    ip_batch({"route add table 1000 default via 192.0.2.9 metric 7",
              "route append table 1000 blackhole default metric 7",
              "route add table 1000 default via 192.0.2.9 metric 8",
              "route add table 1000 10.2.0.0/16 dev v0 metric 7"});
    RouteRecord record("", 0, 1000, 7);
    record.hop("192.0.2.2", "v0");
    ASSERT_EQ(edit_route(0, record.get()), 0);
    EXPECT_EQ(text(1000),
              "default via 192.0.2.2 dev v0 proto static metric 7 onlink \n"
              "default via 192.0.2.9 dev v0 metric 8 \n"
              "10.2.0.0/16 dev v0 scope link metric 7 \n");
}

TEST_F(Routes, DeletesTheRouteDescribed) {
    RouteRecord record = net();
    record.hop("192.0.2.2", "v0");
    ASSERT_EQ(edit_route(0, record.get()), 0);
    RouteRecord other = net();
    other.hop("192.0.2.3", "v0");
    EXPECT_EQ(edit_route(1, other.get()), -NLE_OBJ_NOTFOUND);
    EXPECT_EQ(table(1000).size(), 1U);
    EXPECT_EQ(edit_route(1, record.get()), 0);
    EXPECT_EQ(table(1000).size(), 0U);
    EXPECT_EQ(edit_route(1, record.get()), -NLE_OBJ_NOTFOUND);
}

TEST_F(Routes, DeletesAMultipathRoute) {
    RouteRecord record = net();
    record.hop("192.0.2.2", "v0", 3).hop("198.51.100.2", "w0", 2).metrics(0x104, 1374, 1302);
    ASSERT_EQ(edit_route(0, record.get()), 0);
    EXPECT_EQ(edit_route(1, record.get()), 0);
    EXPECT_EQ(table(1000).size(), 0U);
}

TEST_F(Routes, FlushTakesEveryMatchingRoute) {
    ip_batch({"route add table 1000 10.1.0.0/16 via 192.0.2.9 metric 7",
              "route append table 1000 10.1.0.0/16 via 192.0.2.10 metric 7",
              "route append table 1000 10.1.0.0/16 via 192.0.2.11 metric 7",
              "route append table 1000 blackhole 10.1.0.0/16 metric 7",
              "route add table 1000 10.1.0.0/16 via 192.0.2.9 metric 8"});
    RouteRecord record = net();
    EXPECT_EQ(edit_route(2, record.get()), 0);
    EXPECT_EQ(text(1000), "10.1.0.0/16 via 192.0.2.9 dev v0 metric 8 \n");
    EXPECT_EQ(edit_route(2, record.get()), 0);
}

TEST_F(Routes, FlushOfATableAloneEmptiesIt) {
    std::vector<std::string> commands;
    for (int i = 0; i < 1500; ++i) {
        const std::string dst = "10." + std::to_string(i / 250) + "." + std::to_string(i % 250) + ".0/24";
        commands.push_back("route add table 1000 " + dst + " via 192.0.2.9 metric " + std::to_string(i % 3));
        if (i % 5 == 0) commands.push_back("route append table 1000 blackhole " + dst + " metric 9");
        if (i % 7 == 0)
            commands.push_back("route append table 1000 " + dst + " via 192.0.2.10 metric " +
                               std::to_string(i % 3));
    }
    commands.push_back("route add table 1001 10.1.0.0/16 via 192.0.2.9");
    ip_batch(commands);
    RouteRecord record("", 0, 1000, 0);
    EXPECT_EQ(edit_route(2, record.get()), 0);
    EXPECT_EQ(table(1000).size(), 0U);
    EXPECT_EQ(table(1001).size(), 1U);
    RouteRecord unused("", 0, 4711, 0);
    EXPECT_EQ(edit_route(2, unused.get()), 0);
}

TEST_F(Routes, FlushOfAPriorityMeetsEveryTable) {
    ip_batch({"route add table 1000 10.1.0.0/16 via 192.0.2.9 metric 7",
              "route add table 1001 10.2.0.0/16 via 192.0.2.9 metric 7",
              "route add table 1001 10.3.0.0/16 via 192.0.2.9 metric 8"});
    RouteRecord record("", 0, 0, 7);
    EXPECT_EQ(edit_route(2, record.get()), 0);
    EXPECT_EQ(table(1000).size(), 0U);
    EXPECT_EQ(table(1001).size(), 1U);
    EXPECT_NE(text(254).find("192.0.2.0/24"), std::string::npos);
}

// No caller of the library ever passes it; what it means is what it says.
TEST_F(Routes, AllZeroRecordFlushesEverything) {
    ip_batch({"route add table 1000 10.1.0.0/16 via 192.0.2.9 metric 7"});
    route_conf record{};
    EXPECT_EQ(edit_route(2, &record), 0);
    EXPECT_EQ(run_line("ip -4 route show table all").out, "");
}

// One route with an encapsulation is enough to make other readers of the table give up.
TEST_F(Routes, ForeignKindsOfRoutesDoNotDisturb) {
    const ToolResult encap = run_line(
        "ip route add table 1000 10.9.0.0/16 encap ip id 9 dst 192.0.2.99 via 192.0.2.9 dev v0 metric 3");
    ip_batch({"nexthop add id 5 via 192.0.2.9 dev v0", "route add table 1000 10.1.0.0/16 nhid 5 metric 7",
              "route add table 1000 10.8.0.0/16 via inet6 fe80::9 dev v0 metric 7"});
    RouteRecord record = net();
    record.hop("192.0.2.2", "v0");
    EXPECT_EQ(edit_route(0, record.get()), 0);
    EXPECT_EQ(table(1000).size(), 2U + (encap.ok() ? 1U : 0U));
    RouteRecord whole("", 0, 1000, 0);
    EXPECT_EQ(edit_route(2, whole.get()), 0);
    EXPECT_EQ(table(1000).size(), 0U);
}

TEST_F(Routes, KernelRefusalsComeAsLibnlsCodes) {
    RouteRecord host_bits("10.1.2.3", 16, 1000, 7);
    host_bits.hop("192.0.2.2", "v0");
    EXPECT_EQ(edit_route(0, host_bits.get()), -NLE_INVAL);
    RouteRecord long_prefix("10.1.0.0", 33, 1000, 7);
    long_prefix.hop("192.0.2.2", "v0");
    EXPECT_EQ(edit_route(0, long_prefix.get()), -NLE_INVAL);
    RouteRecord unreachable = net();
    unreachable.hop("203.0.113.1", "", 0, false);
    EXPECT_EQ(edit_route(0, unreachable.get()), -nl_syserr2nlerr(ENETUNREACH));
    RouteRecord no_hop = net();
    EXPECT_EQ(edit_route(0, no_hop.get()), -nl_syserr2nlerr(ENODEV));
    EXPECT_EQ(table(1000).size(), 0U);
}

// Deleting and adding are two requests of the kernel: what was there is gone when the new one is refused.
// Callers' lines have room for the code only; whoever asks gets the kernel's words beside them.
TEST_F(Routes, RefusalsAreTracedOnDemand) {
    RouteRecord record("10.1.0.0", 16, 1000, 7);
    record.hop("203.0.113.9", "v0", 0, false);
    clear_log();
    EXPECT_LT(edit_route(0, record.get()), 0);
    EXPECT_EQ(log_texts(), std::vector<std::string>{});
    corvo::nl::trace_refusals = true;
    EXPECT_LT(edit_route(0, record.get()), 0);
    EXPECT_EQ(edit_dummy(1, "no-such-device", 0), -3011);
    corvo::nl::trace_refusals = false;
    EXPECT_EQ(log_texts(), (std::vector<std::string>{
                               "[TRACE] Netlink request 24 refused: Network is unreachable: Nexthop has "
                               "invalid gateway",
                               "[TRACE] Netlink request 17 refused: No such device"}));
}

TEST_F(Routes, RefusedAddLeavesTheOldRouteDeleted) {
    RouteRecord good = net();
    good.hop("192.0.2.2", "v0");
    ASSERT_EQ(edit_route(0, good.get()), 0);
    RouteRecord bad = net();
    bad.hop("203.0.113.1", "", 0, false);
    EXPECT_LT(edit_route(0, bad.get()), 0);
    EXPECT_EQ(table(1000).size(), 0U);
}

TEST_F(Routes, NothingIsSentForUnreadableTexts) {
    RouteRecord good = net();
    good.hop("192.0.2.2", "v0");
    ASSERT_EQ(edit_route(0, good.get()), 0);
    RouteRecord no_gateway = net();
    no_gateway.hop("nowhere", "v0");
    EXPECT_EQ(edit_route(0, no_gateway.get()), -3007);
    RouteRecord no_device = net();
    no_device.hop("192.0.2.2", "missing");
    EXPECT_EQ(edit_route(0, no_device.get()), -3005);
    EXPECT_EQ(edit_route(1, no_device.get()), -3005);
    RouteRecord no_destination("nowhere", 0, 1000, 7);
    for (const int op : {0, 1, 2, 3}) EXPECT_EQ(edit_route(op, no_destination.get()), -3007) << op;
    EXPECT_EQ(table(1000).size(), 1U);
}

TEST_F(Routes, RefusesBadArguments) {
    RouteRecord record = net();
    route6_conf six{};
    EXPECT_EQ(edit_route(0, nullptr), -3002);
    EXPECT_EQ(edit_route(9, nullptr), -3002);
    EXPECT_EQ(edit_route6(0, nullptr), -3002);
    for (const int op : {4, 5, -1, INT_MIN, INT_MAX}) {
        EXPECT_EQ(edit_route(op, record.get()), -3004) << op;
        EXPECT_EQ(edit_route6(op, &six), -3004) << op;
    }
}

TEST_F(Routes, PrintsMatchingRoutes) {
    ip_batch({"route add table 1000 10.1.0.0/16 via 192.0.2.9 metric 7",
              "route add table 1000 10.2.0.1/32 dev v0 metric 8",
              "route add table 1000 default metric 9 nexthop via 192.0.2.2 dev v0 weight 3 nexthop via "
              "198.51.100.2 dev w0 weight 1",
              "route add table 1000 blackhole 10.3.0.0/24"});
    RouteRecord whole("", 0, 1000, 0);
    EXPECT_EQ(captured([&] { EXPECT_EQ(edit_route(3, whole.get()), 0); }),
              "table 1000 metric 9 default nexthop via 192.0.2.2 dev v0 weight 3 nexthop via 198.51.100.2 "
              "dev w0 weight 1 \n"
              "table 1000 metric 7 10.1.0.0/16 via 192.0.2.9 dev v0 \n"
              "table 1000 metric 8 10.2.0.1 dev v0 \n"
              "table 1000 10.3.0.0/24 \n");
    RouteRecord one("10.1.0.0", 16, 1000, 0);
    EXPECT_EQ(captured([&] { EXPECT_EQ(edit_route(3, one.get()), 0); }),
              "table 1000 metric 7 10.1.0.0/16 via 192.0.2.9 dev v0 \n");
    RouteRecord none("10.99.0.0", 16, 1000, 0);
    EXPECT_EQ(captured([&] { EXPECT_EQ(edit_route(3, none.get()), 0); }), "");
}

}  // namespace
