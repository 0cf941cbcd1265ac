// Rules: records read, bytes built, entries read and printed.

#include "netlink/rule_message.h"

#include <gtest/gtest.h>
#include <linux/fib_rules.h>
#include <linux/rtnetlink.h>
#include <netlink/route/rule.h>

#include "bytes.h"
#include "foundation/text.h"
#include "netlink/nl.h"

namespace {

using corvo::copy_text;
using corvo::test::head_of;
using corvo::test::hex_payload;
using corvo::test::view_of;
using namespace corvo::nl;

rule_conf rule(std::uint32_t prio, std::uint32_t table, std::uint32_t mark = 0, std::uint32_t mask = 0,
               const char* src = "", const char* oif = "") {
    rule_conf record{prio, table, mark, mask, "", ""};
    copy_text(record.src, src);
    copy_text(record.oif, oif);
    return record;
}

RuleSpec read(const rule_conf& record) {
    RuleSpec spec;
    EXPECT_EQ(read_record(record, spec), 0);
    return spec;
}

std::string added(const rule_conf& record) {
    MessageWriter out;
    build_add_rule(out, read(record));
    return hex_payload(out.bytes());
}

std::string libnl_added(const rule_conf& record) {
    Rule rule(rtnl_rule_alloc());
    rtnl_rule_set_family(rule.get(), AF_INET);
    rtnl_rule_set_action(rule.get(), FR_ACT_TO_TBL);
    if (record.prio) rtnl_rule_set_prio(rule.get(), record.prio);
    if (record.table) rtnl_rule_set_table(rule.get(), record.table);
    if (record.mark) rtnl_rule_set_mark(rule.get(), record.mark);
    if (record.mask) rtnl_rule_set_mask(rule.get(), record.mask);
    if (record.src[0]) {
        nl_addr* src = nullptr;
        EXPECT_EQ(nl_addr_parse(record.src, AF_INET, &src), 0);
        rtnl_rule_set_src(rule.get(), src);
        nl_addr_put(src);
    }
    if (record.oif[0]) rtnl_rule_set_oif(rule.get(), record.oif);
    nl_msg* message = nullptr;
    EXPECT_EQ(rtnl_rule_build_add_request(rule.get(), 0, &message), 0);
    return hex_payload(message);
}

TEST(RuleMessage, SameBytesAsLibnl) {
    for (const rule_conf& record : {rule(5, 250, 5, 15), rule(20005, 200, 0, 0, "10.9.0.1"),
                                    rule(20005, 200, 0, 0, "10.1.0.0/16"), rule(20005, 200, 0, 0, "", "tun5"),
                                    rule(30005, 100), rule(0, 0), rule(1, 2, 3, 4, "10.0.0.1", "eth0")}) {
        EXPECT_EQ(added(record), libnl_added(record)) << record.prio;
    }
}

TEST(RuleMessage, LargeTablesGoInTheAttributeOnly) {
    EXPECT_EQ(
        added(rule(10005, 15005, 5, 0xf)),
        "02000000 00000001 00000000 08000f00 9d3a0000 08000600 15270000 08000a00 05000000 08001000 0f000000");
}

TEST(RuleMessage, AddingIsExclusiveAndBothAreAcknowledged) {
    MessageWriter out;
    build_add_rule(out, read(rule(5, 6)));
    EXPECT_EQ(head_of(out.bytes()).nlmsg_type, RTM_NEWRULE);
    EXPECT_EQ(head_of(out.bytes()).nlmsg_flags, NLM_F_REQUEST | NLM_F_ACK | NLM_F_CREATE | NLM_F_EXCL);
    out.clear();
    build_delete_rule(out, read(rule(5, 6)));
    EXPECT_EQ(head_of(out.bytes()).nlmsg_type, RTM_DELRULE);
    EXPECT_EQ(head_of(out.bytes()).nlmsg_flags, NLM_F_REQUEST | NLM_F_ACK);
}

TEST(RuleRecord, UnreadableSourceIsRefused) {
    RuleSpec spec;
    EXPECT_EQ(read_record(rule(1, 2, 0, 0, "nowhere"), spec), -3007);
    EXPECT_EQ(read_record(rule(1, 2, 0, 0, "fd00::1"), spec), -3007);
    rule6_conf record{};
    copy_text(record.src, "10.0.0.1");
    EXPECT_EQ(read_record(record, spec), -3007);
    copy_text(record.src, "fd00::1/64");
    EXPECT_EQ(read_record(record, spec), 0);
    EXPECT_EQ(spec.src.text(), "fd00::1/64");
}

TEST(RuleRecord, SourceThatFillsItsFieldIsReadWholeOrRefused) {
    rule_conf record = rule(1, 2);
    std::memcpy(record.src, "10.100.100.10/24", sizeof record.src);  // sixteen characters, no end
    EXPECT_EQ(read(record).src.text(), "10.100.100.10/24");
    std::memcpy(record.src, "192.168.100.100/", sizeof record.src);  // what is left of a longer one
    RuleSpec spec;
    EXPECT_EQ(read_record(record, spec), -3007);
}

RuleEntry entry_of(const rule_conf& record) {
    MessageWriter out;
    build_add_rule(out, read(record));
    RuleEntry entry;
    EXPECT_TRUE(read_rule(view_of(out.bytes()), entry));
    return entry;
}

TEST(RuleEntries, MatchEverythingThatIsSet) {
    const RuleEntry entry = entry_of(rule(5, 6, 7, 8, "10.0.0.0/8", "eth0"));
    EXPECT_TRUE(matches(entry, read(rule(0, 0))));
    EXPECT_TRUE(matches(entry, read(rule(5, 6, 7, 8, "10.0.0.0/8", "eth0"))));
    EXPECT_FALSE(matches(entry, read(rule(4, 0))));
    EXPECT_FALSE(matches(entry, read(rule(0, 5))));
    EXPECT_FALSE(matches(entry, read(rule(0, 0, 6))));
    EXPECT_FALSE(matches(entry, read(rule(0, 0, 0, 7))));
    EXPECT_FALSE(matches(entry, read(rule(0, 0, 0, 0, "10.0.0.0/9"))));
    EXPECT_FALSE(matches(entry, read(rule(0, 0, 0, 0, "", "eth1"))));
    EXPECT_FALSE(matches(entry, read(rule(0, 0, 0, 0, "all"))));
    EXPECT_TRUE(matches(entry_of(rule(5, 6)), read(rule(0, 0, 0, 0, "0.0.0.0/0"))));
}

TEST(RuleEntries, OnlyTableRulesMatch) {
    RuleEntry entry = entry_of(rule(5, 6));
    entry.action = FR_ACT_BLACKHOLE;
    EXPECT_FALSE(matches(entry, read(rule(5, 6))));
}

TEST(RuleEntries, DeletionRepeatsTheDumpedBytes) {
    const RuleEntry entry = entry_of(rule(5, 6, 7, 8, "10.0.0.0/8", "eth0"));
    MessageWriter out;
    build_delete_entry(out, entry);
    EXPECT_EQ(head_of(out.bytes()).nlmsg_type, RTM_DELRULE);
    EXPECT_EQ(hex_payload(out.bytes()), added(rule(5, 6, 7, 8, "10.0.0.0/8", "eth0")));
}

TEST(RulePrint, EveryPartWhereItIsSet) {
    EXPECT_EQ(print_rule(entry_of(rule(10005, 15005, 5, 15))), "10005: from all lookup 15005 \n");
    EXPECT_EQ(print_rule(entry_of(rule(20005, 20005, 0, 0, "10.9.0.1"))),
              "20005: from 10.9.0.1 lookup 20005 \n");
    EXPECT_EQ(print_rule(entry_of(rule(7, 8, 0, 0, "10.0.0.0/8", "tun5"))),
              "7: from 10.0.0.0/8 oif tun5 lookup 8 \n");
    EXPECT_EQ(print_rule(entry_of(rule(0, 0))), "from all \n");
}

TEST(RuleRecords, FieldsStandWhereTheDaemonPutsThem) {
    EXPECT_EQ(sizeof(rule_conf), 48U);
    EXPECT_EQ(sizeof(rule6_conf), 80U);
    EXPECT_EQ(offsetof(rule6_conf, oif), 62U);
}

}  // namespace
