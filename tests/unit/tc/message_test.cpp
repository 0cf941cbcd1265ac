// The bytes of every traffic-control message, and reading reports back.

#include "netlink/tc_message.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/gen_stats.h>
#include <linux/pkt_sched.h>
#include <linux/rtnetlink.h>
#include <netlink/msg.h>
#include <netlink/route/class.h>
#include <netlink/route/qdisc/htb.h>

#include "netlink/tc_u32_keys.h"

namespace corvo::tc {
namespace {

const Device kDevice{7, 1500, 1000000000};

// What stands behind the netlink header, in words as they lie in memory.
std::string body(const nl::MessageWriter& message) {
    std::string text;
    const nl::Bytes bytes = message.bytes();
    for (std::size_t i = NLMSG_HDRLEN; i < bytes.size(); ++i) {
        char byte[4];
        std::snprintf(byte, sizeof byte, "%02x%s", bytes[i], i % 4 == 3 ? " " : "");
        text += byte;
    }
    if (!text.empty()) text.pop_back();
    return text;
}

nlmsghdr head(const nl::MessageWriter& message) {
    nlmsghdr header{};
    std::memcpy(&header, message.bytes().data(), sizeof header);
    return header;
}

constexpr int kExclusive = NLM_F_REQUEST | NLM_F_ACK | NLM_F_CREATE | NLM_F_EXCL;

TEST(TcMessage, HtbQdisc) {
    nl::MessageWriter out;
    add_qdisc_message(out, {kDevice, 0xffffffff, 0x10000}, "htb", 0x30);
    EXPECT_EQ(head(out).nlmsg_type, RTM_NEWQDISC);
    EXPECT_EQ(head(out).nlmsg_flags, kExclusive);
    EXPECT_EQ(head(out).nlmsg_len, out.size());
    EXPECT_EQ(body(out),
              "00000000 07000000 00000100 ffffffff 00000000 08000100 68746200 1c000280 18000200 03000000 "
              "0a000000 30000000 00000000 00000000");
}

TEST(TcMessage, QdiscOfAnotherKindHasNoOptions) {
    nl::MessageWriter out;
    add_qdisc_message(out, {kDevice, 0x10010, 0x1200000}, "fq", 0x30);
    EXPECT_EQ(body(out), "00000000 07000000 00002001 10000100 00000000 07000100 66710000");
}

TEST(TcMessage, IngressQdisc) {
    nl::MessageWriter out;
    add_qdisc_message(out, {kDevice, 0xfffffff1, 0xffff0000}, "ingress", 0);
    EXPECT_EQ(body(out), "00000000 07000000 0000ffff f1ffffff 00000000 0c000100 696e6772 65737300");
}

TEST(TcMessage, DeleteNamesThePlaceOnly) {
    nl::MessageWriter out;
    delete_qdisc_message(out, {kDevice, 0xffffffff, 0});
    EXPECT_EQ(head(out).nlmsg_type, RTM_DELQDISC);
    EXPECT_EQ(head(out).nlmsg_flags, NLM_F_REQUEST | NLM_F_ACK);
    EXPECT_EQ(body(out), "00000000 07000000 00000000 ffffffff 00000000");
}

TEST(TcMessage, FwFilter) {
    nl::MessageWriter out;
    add_fw_message(out, {kDevice, 0x10000, 0x3c0}, 0x10010, 0x3c0, 100);
    EXPECT_EQ(head(out).nlmsg_type, RTM_NEWTFILTER);
    EXPECT_EQ(head(out).nlmsg_flags, kExclusive);
    EXPECT_EQ(body(out),
              "00000000 07000000 c0030000 00000100 00036400 07000100 66770000 14000280 08000100 10000100 "
              "08000500 c0030000");
}

TEST(TcMessage, BypassFilter) {
    nl::MessageWriter out;
    add_bypass_message(out, kDevice, 0x800);
    EXPECT_EQ(head(out).nlmsg_flags, kExclusive);
    EXPECT_EQ(body(out),
              "00000000 07000000 00000000 0000ffff 08000100 08000100 75333200 30000280 08000100 00000000 "
              "24000500 01000100 00000000 00000000 00000000 00ff0000 00320000 08000000 00000000");
}

TEST(TcMessage, RedirectFilter) {
    nl::MessageWriter out;
    add_redirect_message(out, kDevice, 0x800, 9);
    EXPECT_EQ(head(out).nlmsg_flags, kExclusive);
    EXPECT_EQ(body(out),
              "00000000 07000000 00000000 0000ffff 08000000 08000100 75333200 68000280 08000100 01000100 "
              "24000500 01000100 00000000 00000000 00000000 00000000 00000000 00000000 00000000 "
              "38000780 34000180 0b000100 6d697272 65640000 24000280 20000200 00000000 00000000 04000000 "
              "00000000 00000000 01000000 09000000");
}

TEST(TcMessage, RedirectFilterOfVlanTraffic) {
    nl::MessageWriter out;
    add_redirect_message(out, kDevice, 0x8100, 9);
    EXPECT_EQ(body(out).substr(36, 8), "81000000");
}

U32QoSObj host_rule() {
    U32QoSObj rule{};
    rule.prio = 2;
    rule.protocol = 0x800;
    rule.saddr = inet_addr("10.1.2.3");
    rule.smask = inet_addr("255.255.255.0");
    return rule;
}

TEST(TcMessage, U32FilterIsCreatedWithoutExclusion) {
    nl::MessageWriter out;
    const std::uint32_t target = 0x10010;
    add_u32_message(out, {kDevice, 0x10000, 0}, &target, host_rule());
    EXPECT_EQ(head(out).nlmsg_flags, NLM_F_REQUEST | NLM_F_ACK | NLM_F_CREATE);
    EXPECT_EQ(body(out),
              "00000000 07000000 00000000 00000100 08000200 08000100 75333200 38000280 08000200 00000080 "
              "08000100 10000100 24000500 01000100 00000000 00000000 00000000 ffffff00 0a010200 0c000000 "
              "00000000");
}

TEST(TcMessage, U32FilterWithoutClassSetsNone) {
    nl::MessageWriter out;
    add_u32_message(out, {kDevice, 0x10000, 0}, nullptr, host_rule());
    EXPECT_EQ(body(out).find("08000100 10000100"), std::string::npos);
}

TEST(TcMessage, U32FilterPriorityIsSixteenBitsWide) {
    nl::MessageWriter out;
    U32QoSObj rule = host_rule();
    rule.prio = 0x50003;
    add_u32_message(out, {kDevice, 0x10000, 0}, nullptr, rule);
    EXPECT_EQ(body(out).substr(36, 8), "08000300");
}

TEST(TcMessage, U32FilterOfAnEmptyRecordMatchesEverything) {
    nl::MessageWriter out;
    U32QoSObj rule{};
    rule.protocol = 0x800;
    add_u32_message(out, {kDevice, 0x10000, 0}, nullptr, rule);
    EXPECT_NE(body(out).find("14000500 01000000 00000000 00000000 00000000"), std::string::npos) << body(out);
}

struct Key {
    std::uint32_t value, mask;
    int offset;
    bool operator==(const Key&) const = default;
};
void PrintTo(const Key& key, std::ostream* out) {
    *out << std::hex << key.value << '/' << key.mask << std::dec << " at " << key.offset;
}

std::vector<Key> keys(const U32QoSObj& rule) {
    std::vector<Key> result;
    const U32Keys keys = keys_of(rule);
    for (std::size_t i = 0; i < keys.size(); ++i) {
        const tc_u32_key& key = keys.data()[i];
        result.push_back({ntohl(key.val), ntohl(key.mask), key.off});
    }
    return result;
}

TEST(U32Keys, SourceMacIsTheEightBytesBeforeTheNetworkHeader) {
    U32QoSObj rule{};
    const unsigned char mac[6] = {0x02, 0x11, 0x22, 0x33, 0x44, 0x55};
    std::copy(mac, mac + 6, rule.smac);
    EXPECT_EQ(keys(rule), (std::vector<Key>{{0x44550000, 0xffff0000, -4}, {0x02112233, 0xffffffff, -8}}));
}

TEST(U32Keys, DestinationMacStartsInTheLowerHalfOfItsWord) {
    U32QoSObj rule{};
    const unsigned char mac[6] = {0x02, 0x11, 0x22, 0x33, 0x44, 0x55};
    std::copy(mac, mac + 6, rule.dmac);
    EXPECT_EQ(keys(rule), (std::vector<Key>{{0x00000211, 0x0000ffff, -16}, {0x22334455, 0xffffffff, -12}}));
}

TEST(U32Keys, AddressesStandInNetworkOrderAndUnderTheirMask) {
    U32QoSObj rule = host_rule();
    rule.daddr = inet_addr("192.168.7.9");
    rule.dmask = 0xffffffff;
    EXPECT_EQ(keys(rule), (std::vector<Key>{{0x0a010200, 0xffffff00, 12}, {0xc0a80709, 0xffffffff, 16}}));
}

TEST(U32Keys, PortsStandBehindAHeaderOfTwentyBytes) {
    U32QoSObj rule{};
    rule.sport = 53;
    rule.dport = 8080;
    EXPECT_EQ(keys(rule), (std::vector<Key>{{53U << 16, 0xffff0000, 20}, {8080, 0x0000ffff, 20}}));
}

TEST(U32Keys, PortsAboveSixteenBitsAreCut) {
    U32QoSObj rule{};
    rule.sport = 0x10035;
    rule.dport = 0x10050;
    EXPECT_EQ(keys(rule), (std::vector<Key>{{0x350000, 0xffff0000, 20}, {0x50, 0x0000ffff, 20}}));
}

TEST(U32Keys, AllFieldsTogetherKeepTheirOrder) {
    U32QoSObj rule = host_rule();
    rule.smac[0] = rule.dmac[0] = 2;
    rule.daddr = rule.dmask = 0xffffffff;
    rule.sport = rule.dport = 1;
    std::vector<int> offsets;
    for (const Key& key : keys(rule)) offsets.push_back(key.offset);
    EXPECT_EQ(offsets, (std::vector<int>{-4, -8, -16, -12, 12, 16, 20, 20}));
}

TEST(U32Keys, AZeroFieldAddsNone) {
    U32QoSObj rule{};
    rule.smask = rule.dmask = 0xffffffff;
    EXPECT_TRUE(keys(rule).empty());
}

// --- HTB classes

tc_htb_opt parameters_of(nl::Bytes message, std::vector<std::uint16_t>* order = nullptr) {
    tc_htb_opt options{};
    for (const nl::Attr& attr : nl::Attrs(message.subspan(NLMSG_HDRLEN + sizeof(tcmsg)))) {
        if (attr.type != TCA_OPTIONS) continue;
        for (const nl::Attr& inner : nl::Attrs(attr.data)) {
            if (order) order->push_back(inner.type);
            if (inner.type == TCA_HTB_PARMS) std::memcpy(&options, inner.data.data(), sizeof options);
        }
    }
    return options;
}

tc_htb_opt htb_parameters(std::uint32_t rate, std::uint32_t ceil, const Device& device = kDevice) {
    nl::MessageWriter out;
    add_htb_class_message(out, {device, 0x10001, 0x10010}, {0, rate, ceil, 4});
    EXPECT_FALSE(out.overflow());
    return parameters_of(out.bytes());
}

TEST(HtbClass, CarriesItsPlaceKindAndAttributesInOrder) {
    nl::MessageWriter out;
    add_htb_class_message(out, {kDevice, 0x10001, 0x10010}, {0, 125000, 250000, 4});
    EXPECT_EQ(head(out).nlmsg_type, RTM_NEWTCLASS);
    EXPECT_EQ(head(out).nlmsg_flags, kExclusive);
    EXPECT_EQ(body(out).substr(0, 62), "00000000 07000000 10000100 01000100 00000000 08000100 68746200");
    std::vector<std::uint16_t> order;
    const tc_htb_opt options = parameters_of(out.bytes(), &order);
    EXPECT_EQ(order, (std::vector<std::uint16_t>{TCA_HTB_PARMS, TCA_HTB_RTAB, TCA_HTB_CTAB}));
    EXPECT_EQ(options.rate.rate, 125000U);
    EXPECT_EQ(options.ceil.rate, 250000U);
    EXPECT_EQ(options.prio, 4U);
    EXPECT_EQ(options.quantum, 0U);
    EXPECT_EQ(options.rate.cell_log, 3);
    EXPECT_EQ(options.rate.cell_align, -1);
    EXPECT_EQ(options.rate.linklayer, TC_LINKLAYER_ETHERNET);
}

TEST(HtbClass, RatesReachTheLastBitOfTheirField) {
    const tc_htb_opt options = htb_parameters(4294967295U, 4294967295U);
    EXPECT_EQ(options.rate.rate, 4294967295U);
    EXPECT_EQ(options.ceil.rate, 4294967295U);
    EXPECT_GT(options.buffer, 0U);
}

TEST(HtbClass, BurstIsOnePacketOfTheDevice) {
    // 1500 bytes at 125000 bytes per second are 12 ms, which is 187500 ticks of 64 ns.
    EXPECT_EQ(htb_parameters(125000, 1250000).buffer, 187500U);
    EXPECT_EQ(htb_parameters(125000, 1250000).cbuffer, 18750U);
    EXPECT_EQ(htb_parameters(125000, 125000, {7, 9000, 1000000000}).buffer, 1125000U);
}

TEST(HtbClass, BurstBridgesTheTicksOfACoarseTimer) {
    // 500000 bytes per second are 2000 bytes in the 4 ms between two ticks: 3500 bytes, 7 ms.
    EXPECT_EQ(htb_parameters(500000, 500000, {7, 1500, 250}).buffer, 109375U);
    EXPECT_EQ(htb_parameters(500000, 500000, {7, 1500, 250}).cbuffer, 109375U);
}

TEST(HtbClass, BurstIsNeverNothingAndNeverWraps) {
    EXPECT_EQ(burst_ticks(1, 4294967295U), 1U);
    EXPECT_EQ(burst_ticks(1500, 1), 4294967295U);
    EXPECT_EQ(burst_ticks(1500, 5), 4294967295U);
    EXPECT_EQ(burst_ticks(1500, 100), 234375000U);
}

TEST(HtbClass, TablesReachPacketsOfTheDevice) {
    EXPECT_EQ(htb_parameters(125000, 125000, {7, 2047, 1000000000}).rate.cell_log, 3);
    EXPECT_EQ(htb_parameters(125000, 125000, {7, 2048, 1000000000}).rate.cell_log, 4);
    EXPECT_EQ(htb_parameters(125000, 125000, {7, 65536, 1000000000}).rate.cell_log, 9);
}

TEST(HtbClass, RateOfZeroIsLeftToTheKernelToRefuse) {
    const tc_htb_opt options = htb_parameters(0, 0);
    EXPECT_EQ(options.rate.rate, 0U);
    EXPECT_EQ(options.buffer, 0U);
}

// The library's own message for the same class; it counts in microseconds, so only rates that it can express
// are compared.
TEST(HtbClass, HasTheValuesThatTheLibraryComputes) {
    for (const std::uint32_t rate : {125000U, 1250000U, 12500000U, 1000U, 31250U}) {
        rtnl_link* link = rtnl_link_alloc();
        rtnl_link_set_ifindex(link, 7);
        rtnl_link_set_mtu(link, 1500);
        rtnl_class* theirs = rtnl_class_alloc();
        rtnl_tc_set_link(TC_CAST(theirs), link);
        rtnl_tc_set_parent(TC_CAST(theirs), 0x10001);
        rtnl_tc_set_handle(TC_CAST(theirs), 0x10010);
        rtnl_tc_set_kind(TC_CAST(theirs), "htb");
        rtnl_htb_set_rate(theirs, rate);
        rtnl_htb_set_ceil(theirs, rate);
        rtnl_htb_set_prio(theirs, 4);
        nl_msg* message = nullptr;
        ASSERT_EQ(rtnl_class_build_add_request(theirs, 0, &message), 0);
        const auto* bytes = reinterpret_cast<const std::uint8_t*>(nlmsg_hdr(message));
        const tc_htb_opt expected = parameters_of({bytes, nlmsg_hdr(message)->nlmsg_len});
        const tc_htb_opt ours = htb_parameters(rate, rate);
        EXPECT_EQ(ours.buffer, expected.buffer) << rate;
        EXPECT_EQ(ours.cbuffer, expected.cbuffer) << rate;
        EXPECT_EQ(ours.quantum, expected.quantum);
        EXPECT_EQ(ours.rate.cell_log, expected.rate.cell_log);
        EXPECT_EQ(ours.rate.cell_align, expected.rate.cell_align);
        nlmsg_free(message);
        rtnl_class_put(theirs);
        rtnl_link_put(link);
    }
}

TEST(TcMessage, ClassOfAKindWithoutParameters) {
    nl::MessageWriter out;
    add_plain_class_message(out, {kDevice, 0x10000, 0x10010}, "nsshtb");
    EXPECT_EQ(body(out), "00000000 07000000 10000100 00000100 00000000 0b000100 6e737368 74620000");
}

// --- Reports

nl::MessageWriter report_message(std::uint16_t type, const char* kind, bool with_htb) {
    nl::MessageWriter out;
    out.begin(type, 0);
    tcmsg header{};
    header.tcm_ifindex = 7;
    header.tcm_handle = 0x10010;
    header.tcm_parent = 0x10001;
    out.header(header);
    out.attr_text(TCA_KIND, kind);
    if (with_htb) {
        tc_htb_opt options{};
        options.rate.rate = 4294967295U;
        options.ceil.rate = 4294967295U;
        const std::size_t nest = out.begin_nest(TCA_OPTIONS);
        out.attr(TCA_HTB_PARMS, &options, sizeof options);
        const std::uint64_t ceil = 5'000'000'000;
        out.attr(TCA_HTB_CEIL64, &ceil, sizeof ceil);
        out.end_nest(nest);
    }
    const std::size_t statistics = out.begin_nest(TCA_STATS2);
    gnet_stats_queue queue{};
    queue.qlen = 42;
    out.attr(TCA_STATS_QUEUE, &queue, sizeof queue);
    gnet_stats_rate_est estimate{};
    estimate.bps = 1000;
    out.attr(TCA_STATS_RATE_EST, &estimate, sizeof estimate);
    out.end_nest(statistics);
    out.end();
    return out;
}

TEST(Report, ReadsAnHtbClass) {
    nl::MessageWriter out = report_message(RTM_NEWTCLASS, "htb", true);
    nl::Bytes bytes = out.bytes();
    nl::MessageView view;
    ASSERT_TRUE(nl::next_message(bytes, view));
    Report report;
    ASSERT_TRUE(read_report(view, report));
    EXPECT_EQ(report.device_index, 7);
    EXPECT_EQ(report.handle, 0x10010U);
    EXPECT_EQ(report.parent, 0x10001U);
    EXPECT_EQ(report.kind, "htb");
    EXPECT_EQ(report.queue_length, 42U);
    EXPECT_EQ(report.rate_estimate, 1000U);
    EXPECT_EQ(report.rate_estimate_64, 1000U);
    EXPECT_EQ(report.htb_rate, 4294967295U);
    EXPECT_EQ(report.htb_ceil_64, 5'000'000'000U);
}

TEST(Report, OtherKindsHaveNoHtbFigures) {
    nl::MessageWriter out = report_message(RTM_NEWTCLASS, "drr", true);
    nl::Bytes bytes = out.bytes();
    nl::MessageView view;
    ASSERT_TRUE(nl::next_message(bytes, view));
    Report report;
    ASSERT_TRUE(read_report(view, report));
    EXPECT_EQ(report.htb_rate, 0U);
    EXPECT_EQ(report.htb_ceil_64, 0U);
}

TEST(Report, CutMessagesAreHarmless) {
    nl::MessageWriter out = report_message(RTM_NEWTCLASS, "htb", true);
    for (std::size_t length = NLMSG_HDRLEN; length < out.size(); ++length) {
        std::vector<std::uint8_t> cut(out.bytes().begin(), out.bytes().begin() + static_cast<long>(length));
        const auto size = static_cast<std::uint32_t>(length);
        std::memcpy(cut.data(), &size, sizeof size);
        nl::Bytes bytes(cut);
        nl::MessageView view;
        ASSERT_TRUE(nl::next_message(bytes, view));
        Report report;
        read_report(view, report);
    }
}

TEST(Report, OtherMessagesAreNone) {
    nl::MessageWriter out = report_message(RTM_NEWLINK, "htb", true);
    nl::Bytes bytes = out.bytes();
    nl::MessageView view;
    ASSERT_TRUE(nl::next_message(bytes, view));
    Report report;
    EXPECT_FALSE(read_report(view, report));
}

}  // namespace
}  // namespace corvo::tc
