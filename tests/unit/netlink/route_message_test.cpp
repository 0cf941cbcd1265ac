// Routes: records read, bytes built, entries read and printed.

#include "netlink/route_message.h"

#include <gtest/gtest.h>
#include <linux/rtnetlink.h>
#include <netlink/route/nexthop.h>
#include <netlink/route/route.h>

#include <list>

#include "bytes.h"
#include "foundation/text.h"
#include "netlink/nl.h"

namespace {

using corvo::copy_text;
using corvo::test::head_of;
using corvo::test::hex_payload;
using corvo::test::view_of;
using namespace corvo::nl;

unsigned index_of_device(const char* name) {
    if (std::string(name) == "eth3") return 3;
    return std::string(name) == "eth4" ? 4 : 0;
}

// A record with its next hops.
struct Record : route_conf {
    explicit Record(const char* destination, int length = 0, int in_table = 1000, int metric = 7)
        : route_conf{} {
        table = in_table;
        priority = metric;
        prefixlen = length;
        copy_text(dst, destination);
    }
    Record& hop(const char* gw, const char* dev, int weight = 0, bool onlink = false) {
        auto& added = hops_.emplace_back(::nexthop{});
        copy_text(added.gw, gw);
        copy_text(added.dev, dev);
        added.weight = weight;
        added.onlink = onlink;
        if (hops_.size() == 1) {
            nexthops = &added;
        } else {
            std::prev(hops_.end(), 2)->next = &added;
        }
        return *this;
    }
    Record& metrics(int lock_mask, int route_mtu, int mss) {
        lock = lock_mask;
        mtu = route_mtu;
        advmss = mss;
        return *this;
    }

private:
    std::list<::nexthop> hops_;
};

RouteSpec read(const route_conf& record, unsigned op = 0) {
    RouteSpec spec;
    EXPECT_EQ(read_record(record, op, index_of_device, spec), 0);
    return spec;
}

int code_of(const route_conf& record, unsigned op = 0) {
    RouteSpec spec;
    return read_record(record, op, index_of_device, spec);
}

std::string added(const route_conf& record) {
    MessageWriter out;
    build_add_route(out, read(record));
    EXPECT_FALSE(out.overflow());
    return hex_payload(out.bytes());
}

// What libnl makes of the same record.
std::string libnl_added(const Record& record, bool remove = false) {
    Route route(rtnl_route_alloc());
    rtnl_route_set_family(route.get(), AF_INET);
    rtnl_route_set_table(route.get(), record.table);
    if (record.priority) rtnl_route_set_priority(route.get(), record.priority);
    nl_addr* dst = nullptr;
    EXPECT_EQ(nl_addr_parse(record.dst, AF_INET, &dst), 0);
    if (record.prefixlen != 0) nl_addr_set_prefixlen(dst, record.prefixlen);
    rtnl_route_set_dst(route.get(), dst);
    nl_addr_put(dst);
    for (const ::nexthop* hop = record.nexthops; hop; hop = hop->next) {
        rtnl_nexthop* nh = rtnl_route_nh_alloc();
        if (hop->gw[0]) {
            nl_addr* gw = nullptr;
            EXPECT_EQ(nl_addr_parse(hop->gw, AF_INET, &gw), 0);
            rtnl_route_nh_set_gateway(nh, gw);
            nl_addr_put(gw);
        }
        if (hop->dev[0]) rtnl_route_nh_set_ifindex(nh, static_cast<int>(index_of_device(hop->dev)));
        if (hop->weight) rtnl_route_nh_set_weight(nh, static_cast<std::uint8_t>(hop->weight - 1));
        if (hop->onlink) rtnl_route_nh_set_flags(nh, RTNH_F_ONLINK);
        rtnl_route_add_nexthop(route.get(), nh);
    }
    if (record.lock) rtnl_route_set_metric(route.get(), RTAX_LOCK, static_cast<unsigned>(record.lock));
    if (record.mtu) rtnl_route_set_metric(route.get(), RTAX_MTU, static_cast<unsigned>(record.mtu));
    if (record.advmss) rtnl_route_set_metric(route.get(), RTAX_ADVMSS, static_cast<unsigned>(record.advmss));
    nl_msg* message = nullptr;
    const int built = remove ? rtnl_route_build_del_request(route.get(), 0, &message)
                             : rtnl_route_build_add_request(route.get(), NLM_F_CREATE | NLM_F_EXCL, &message);
    EXPECT_EQ(built, 0);
    return hex_payload(message);
}

TEST(RouteMessage, SameBytesAsLibnl) {
    std::list<Record> records;  // libnl puts the low byte of a large table where 0 belongs
    records.emplace_back("10.1.0.0", 16, 200).hop("10.0.0.1", "eth3");
    records.emplace_back("10.1.0.0", 16, 200).hop("10.0.0.1", "eth3", 5, true).metrics(0x104, 1374, 1302);
    records.emplace_back("10.1.2.3", 0, 200).hop("10.0.0.1", "");
    records.emplace_back("10.1.2.3", 0, 254, 0).hop("", "eth4");
    records.emplace_back("10.1.2.3/30", 0, 255, 1);
    records.emplace_back("default", 0, 253, 1).hop("10.0.0.1", "eth3", 3).hop("10.0.0.2", "eth4", 1, true);
    records.emplace_back("10.1.0.0", 16, 200)
        .hop("10.0.0.1", "eth3", 255, true)
        .hop("", "eth4")
        .metrics(0, 1342, 0);
    for (const Record& record : records) {
        EXPECT_EQ(added(record), libnl_added(record)) << record.dst;
        MessageWriter out;
        build_delete_route(out, read(record, 1));
        EXPECT_EQ(hex_payload(out.bytes()), libnl_added(record, true)) << record.dst;
    }
}

TEST(RouteMessage, AddingIsExclusive) {
    MessageWriter out;
    build_add_route(out, read(Record("10.1.0.0", 16)));
    EXPECT_EQ(head_of(out.bytes()).nlmsg_type, RTM_NEWROUTE);
    EXPECT_EQ(head_of(out.bytes()).nlmsg_flags, NLM_F_REQUEST | NLM_F_CREATE | NLM_F_EXCL);
}

TEST(RouteMessage, WeightOneIsKernelValueZeroAndWeightZeroIsUnset) {
    Record record("10.1.0.0", 16);
    record.hop("", "eth3", 0).hop("", "eth3", 1).hop("", "eth3", 7).hop("", "eth3", 300);
    const RouteSpec spec = read(record);
    EXPECT_EQ(spec.hops[0].weight, 0);
    EXPECT_EQ(spec.hops[1].weight, 0);
    EXPECT_EQ(spec.hops[2].weight, 6);
    EXPECT_EQ(spec.hops[3].weight, (300 - 1) & 0xff);
    EXPECT_NE(added(record).find("08000000 03000000 08000000 03000000 08000006 03000000"), std::string::npos);
}

TEST(RouteMessage, OneHopIsNoMultipath) {
    EXPECT_EQ(added(Record("10.1.0.0", 16).hop("10.0.0.1", "eth3", 0, true)),
              "02100000 00040001 04000000 "  // onlink in the route's own flags
              "08000f00 e8030000 08000100 0a010000 08000600 07000000 08000500 0a000001 08000400 03000000");
}

TEST(RouteMessage, SeveralHopsAreAMultipathWithTheirOwnFlags) {
    EXPECT_EQ(added(Record("10.1.0.0", 16).hop("10.0.0.1", "eth3", 5, true).hop("10.0.0.2", "eth4")),
              "02100000 00040001 00000000 08000f00 e8030000 08000100 0a010000 08000600 07000000 "
              "24000980 10000404 03000000 08000500 0a000001 10000000 04000000 08000500 0a000002");
}

TEST(RouteMessage, MetricsStandInTheOrderLockMtuAdvmss) {
    EXPECT_NE(added(Record("10.1.0.0", 16).metrics(0x104, 1374, 1302))
                  .find("1c000880 08000100 04010000 08000200 5e050000 08000800 16050000"),
              std::string::npos);
    EXPECT_EQ(added(Record("10.1.0.0", 16)).find("000880"), std::string::npos);
}

TEST(RouteMessage, ScopeIsLinkWithoutAnyGateway) {
    EXPECT_EQ(added(Record("10.1.0.0", 16).hop("", "eth3")).substr(0, 17), "02100000 0004fd01");
    EXPECT_EQ(added(Record("10.1.0.0", 16).hop("", "eth3").hop("10.0.0.1", "eth4")).substr(0, 17),
              "02100000 00040001");
}

TEST(RouteMessage, UnsetTableIsMain) {
    EXPECT_NE(added(Record("10.1.0.0", 16, 0)).find("08000f00 fe000000"), std::string::npos);
}

TEST(RouteMessage, MoreHopsThanAMessageHoldsAreReported) {
    Record record("10.1.0.0", 16);
    for (int i = 0; i < 5000; ++i) record.hop("10.0.0.1", "eth3");
    MessageWriter out;
    build_add_route(out, read(record));
    EXPECT_TRUE(out.overflow());
}

TEST(RouteMessage, WildcardDeletionSaysNothingButTheKey) {
    MessageWriter out;
    build_delete_any(out, read(Record("10.1.0.0", 16)).key);
    EXPECT_EQ(head_of(out.bytes()).nlmsg_type, RTM_DELROUTE);
    EXPECT_EQ(head_of(out.bytes()).nlmsg_flags, NLM_F_REQUEST);
    EXPECT_EQ(hex_payload(out.bytes()),
              "02100000 0000ff00 00000000 08000f00 e8030000 08000100 0a010000 08000600 07000000");
}

TEST(RouteMessage, DumpIsFilteredByTable) {
    MessageWriter out;
    build_dump_routes(out, AF_INET, 1000);
    EXPECT_EQ(head_of(out.bytes()).nlmsg_flags, NLM_F_REQUEST | NLM_F_DUMP);
    EXPECT_EQ(hex_payload(out.bytes()), "02000000 00000000 00000000 08000f00 e8030000");
    out.clear();
    build_dump_routes(out, AF_INET6, 0);
    EXPECT_EQ(hex_payload(out.bytes()), "0a000000 00000000 00000000");
}

TEST(RouteRecord, EmptyDestinationIsTheDefaultRouteForAddAndDeleteOnly) {
    for (const unsigned op : {0U, 1U}) {
        const RouteKey key = read(Record("", 0, 253), op).key;
        EXPECT_TRUE(key.has_dst);
        EXPECT_EQ(key.dst.size, 0);
    }
    for (const unsigned op : {2U, 3U}) EXPECT_FALSE(read(Record("", 0, 253), op).key.has_dst);
    EXPECT_EQ(added(Record("", 0, 253)), "02000000 fd04fd01 00000000 08000f00 fd000000 08000600 07000000");
}

TEST(RouteRecord, EveryWayToWriteTheDefaultDestinationIsTheSame) {
    const std::string bytes = added(Record("", 0, 253));
    for (const char* text : {"default", "any", "all", "0.0.0.0/0", "10.1.2.3/0"}) {
        EXPECT_EQ(added(Record(text, 0, 253)), bytes) << text;
        EXPECT_TRUE(read(Record(text, 0, 253), 2).key.complete()) << text;
    }
}

TEST(RouteRecord, BareDestinationIsAHost) {
    EXPECT_EQ(read(Record("10.1.2.3")).key.dst.prefix, 32);
    EXPECT_EQ(read(Record("10.1.2.3/24")).key.dst.prefix, 24);
    EXPECT_EQ(read(Record("10.1.2.3/24", 16)).key.dst.prefix, 16);
}

TEST(RouteRecord, LengthsThatNoPrefixHasAreLeftToTheKernel) {
    EXPECT_EQ(read(Record("10.1.0.0", 33)).key.dst.prefix, 33);
    EXPECT_EQ(read(Record("10.1.0.0", 256 + 16)).key.dst.prefix, 255);
    EXPECT_EQ(read(Record("10.1.0.0", -1)).key.dst.prefix, 255);
}

TEST(RouteRecord, UnreadableAddressesAndMissingDevicesAreRefused) {
    EXPECT_EQ(code_of(Record("nowhere")), -3007);
    EXPECT_EQ(code_of(Record("fd00::1")), -3007);
    EXPECT_EQ(code_of(Record("10.1.0.0").hop("nowhere", "eth3")), -3007);
    EXPECT_EQ(code_of(Record("10.1.0.0").hop("default", "eth3")), -3007);
    EXPECT_EQ(code_of(Record("10.1.0.0").hop("10.0.0.1", "eth9")), -3005);
    EXPECT_EQ(code_of(Record("10.1.0.0").hop("10.0.0.1", "eth3").hop("10.0.0.1", "eth9")), -3005);
}

TEST(RouteRecord, FlushDoesNotLookAtNextHops) {
    EXPECT_EQ(code_of(Record("10.1.0.0").hop("nowhere", "eth9"), 2), 0);
    EXPECT_EQ(code_of(Record("10.1.0.0").hop("nowhere", "eth3"), 3), -3007);
}

TEST(RouteRecord, UnterminatedTextsEndWithTheirField) {
    Record record("");
    std::memcpy(record.dst, "100.100.100.100/", sizeof record.dst);
    EXPECT_EQ(code_of(record), -3007);
    Record hops("10.1.0.0");
    hops.hop("10.0.0.1", "eth3");
    std::memset(hops.nexthops->dev, 'd', sizeof hops.nexthops->dev);
    EXPECT_EQ(code_of(hops), -3005);
    std::memset(hops.nexthops->gw, '1', sizeof hops.nexthops->gw);
    EXPECT_EQ(code_of(hops), -3007);
}

TEST(RouteRecord, Ipv6HopsCarryNeitherWeightNorOnlink) {
    nexthop6 second{};
    copy_text(second.gw, "fd00::2");
    copy_text(second.dev, "eth4");
    second.weight = 9;
    nexthop6 first{};
    copy_text(first.gw, "fd00::1");
    copy_text(first.dev, "eth3");
    first.weight = 5;
    first.next = &second;
    route6_conf record{};
    record.table = 1000;
    record.priority = 7;
    copy_text(record.dst, "fd00:1::");
    record.prefixlen = 64;
    record.nexthops = &first;
    RouteSpec spec;
    ASSERT_EQ(read_record(record, 0, index_of_device, spec), 0);
    MessageWriter out;
    build_add_route(out, spec);
    EXPECT_EQ(hex_payload(out.bytes()),
              "0a400000 00040001 00000000 08000f00 e8030000 "
              "14000100 fd000001 00000000 00000000 00000000 08000600 07000000 "
              "3c000980 1c000000 03000000 14000500 fd000000 00000000 00000000 00000001 "
              "1c000000 04000000 14000500 fd000000 00000000 00000000 00000002");
}

// An entry from the message that would add it.
RouteEntry entry_of(const route_conf& record) {
    MessageWriter out;
    build_add_route(out, read(record));
    RouteEntry entry;
    EXPECT_TRUE(read_route(view_of(out.bytes()), entry));
    return entry;
}

TEST(RouteEntries, ReadWhatTheKernelDumps) {
    const RouteEntry entry = entry_of(Record("10.1.0.0", 16).hop("10.0.0.1", "eth3", 5).hop("", "eth4"));
    EXPECT_EQ(entry.key, read(Record("10.1.0.0", 16)).key);
    ASSERT_EQ(entry.hops.size(), 2U);
    EXPECT_EQ(entry.hops[0].gateway.host_text(), "10.0.0.1");
    EXPECT_EQ(entry.hops[0].weight, 4);
    EXPECT_EQ(entry.hops[1].oif, 4U);
    EXPECT_EQ(entry.hops[1].gateway.size, 0);
}

TEST(RouteEntries, CachedRoutesAndOtherMessagesAreNone) {
    MessageWriter out;
    out.begin(RTM_NEWROUTE, 0);
    out.header(rtmsg{}).rtm_flags = RTM_F_CLONED;
    out.end();
    RouteEntry entry;
    EXPECT_FALSE(read_route(view_of(out.bytes()), entry));
    out.clear();
    out.begin(RTM_NEWLINK, 0);
    out.header(rtmsg{});
    out.end();
    EXPECT_FALSE(read_route(view_of(out.bytes()), entry));
}

TEST(RouteEntries, MatchByTablePriorityAndDestinationWhereSet) {
    const RouteEntry entry = entry_of(Record("10.1.0.0", 16, 1000, 7));
    EXPECT_TRUE(matches(entry, read(Record("10.1.0.0", 16, 1000, 7), 2).key));
    EXPECT_TRUE(matches(entry, read(Record("", 0, 1000, 7), 2).key));
    EXPECT_TRUE(matches(entry, read(Record("10.1.0.0", 16, 0, 7), 2).key));
    EXPECT_TRUE(matches(entry, read(Record("10.1.0.0", 16, 1000, 0), 2).key));
    EXPECT_TRUE(matches(entry, read(Record("", 0, 0, 0), 2).key));
    EXPECT_FALSE(matches(entry, read(Record("10.1.0.0", 17, 1000, 7), 2).key));
    EXPECT_FALSE(matches(entry, read(Record("10.2.0.0", 16, 1000, 7), 2).key));
    EXPECT_FALSE(matches(entry, read(Record("10.1.0.0", 16, 1001, 7), 2).key));
    EXPECT_FALSE(matches(entry, read(Record("10.1.0.0", 16, 1000, 8), 2).key));
    EXPECT_FALSE(matches(entry, read(Record("default", 0, 1000, 7), 2).key));
}

std::string printed(const route_conf& record) {
    return print_route(entry_of(record), [](std::uint32_t index) { return "eth" + std::to_string(index); });
}

TEST(RoutePrint, OneHopHasNeitherNexthopNorWeight) {
    EXPECT_EQ(printed(Record("10.1.0.0", 16).hop("10.0.0.1", "eth3", 5)),
              "table 1000 metric 7 10.1.0.0/16 via 10.0.0.1 dev eth3 \n");
}

TEST(RoutePrint, SeveralHopsHaveBoth) {
    EXPECT_EQ(
        printed(Record("10.1.2.3").hop("10.0.0.1", "eth3", 5).hop("", "eth4")),
        "table 1000 metric 7 10.1.2.3 nexthop via 10.0.0.1 dev eth3 weight 5 nexthop dev eth4 weight 1 \n");
}

TEST(RoutePrint, UnsetFieldsAreLeftOut) {
    EXPECT_EQ(printed(Record("", 0, 253, 0).hop("", "eth3")), "table 253 default dev eth3 \n");
    RouteEntry bare;
    EXPECT_EQ(print_route(bare, nullptr), "default \n");
}

TEST(Ipv6Flush, CommandTextIsTheAgreedOne) {
    route6_conf record{};
    record.table = 10005;
    record.priority = 9;
    record.prefixlen = 64;
    copy_text(record.dst, "fd00:1::");
    EXPECT_EQ(flush_command(record), "/usr/sbin/ip -6 route flush table 10005 fd00:1::/64 metric 9");
    record.prefixlen = 0;
    EXPECT_EQ(flush_command(record), "/usr/sbin/ip -6 route flush table 10005 fd00:1::/0 metric 9");
    copy_text(record.dst, "");
    EXPECT_EQ(flush_command(record), "/usr/sbin/ip -6 route flush table 10005 ::/0 metric 9");
    record.table = -1;
    EXPECT_EQ(flush_command(record), "/usr/sbin/ip -6 route flush table -1 ::/0 metric 9");
}

TEST(Ipv6Flush, LongestCommandFitsItsBuffer) {
    route6_conf record{};
    record.table = record.priority = record.prefixlen = -2147483647;
    std::memset(record.dst, 'f', sizeof record.dst);
    const std::string text = flush_command(record);
    EXPECT_FALSE(text.empty());
    EXPECT_LT(text.size(), 128U);
}

TEST(RouteRecords, FieldsStandWhereTheDaemonPutsThem) {
    EXPECT_EQ(sizeof(route_conf), 48U);
    EXPECT_EQ(sizeof(::nexthop), 48U);
    EXPECT_EQ(sizeof(route6_conf), 80U);
    EXPECT_EQ(sizeof(nexthop6), 80U);
    EXPECT_EQ(offsetof(route_conf, nexthops), 40U);
    EXPECT_EQ(offsetof(route6_conf, nexthops), 72U);
    EXPECT_EQ(offsetof(nexthop6, dev), 50U);
}

TEST(NexthopList, AppendsZeroedRecordsAtTheTail) {
    ::nexthop* head = nullptr;
    ::nexthop* first = add_nexthop(&head);
    ::nexthop* second = add_nexthop(&head);
    ASSERT_TRUE(first && second);
    EXPECT_EQ(head, first);
    EXPECT_EQ(first->next, second);
    EXPECT_EQ(second->next, nullptr);
    const ::nexthop zero{};
    EXPECT_EQ(std::memcmp(second, &zero, sizeof zero), 0);
    free_nexthop(head);
    free_nexthop(nullptr);
    nexthop6* head6 = nullptr;
    nexthop6* first6 = add_nexthop6(&head6);
    EXPECT_EQ(head6, first6);
    EXPECT_EQ(first6->next, nullptr);
    EXPECT_EQ(add_nexthop6(&head6), head6->next);
    free_nexthop6(head6);
    free_nexthop6(nullptr);
    EXPECT_EQ(add_nexthop(nullptr), nullptr);
    EXPECT_EQ(add_nexthop6(nullptr), nullptr);
}

}  // namespace
