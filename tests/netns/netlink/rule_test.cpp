// edit_rule and edit_rule6 on the kernel.

#include <gtest/gtest.h>

#include <climits>

#include "records.h"
#include "support/sandbox.h"

namespace {

using namespace corvo::test;

class Rules : public testing::Test {
protected:
    // The rules that are not there from the start.
    static std::string text(const std::string& family = "-4") {
        std::string out;
        const std::string all = run_line("ip " + family + " rule show").out;
        for (std::size_t at = 0; at < all.size();) {
            const std::size_t end = all.find('\n', at) + 1;
            const std::string line = all.substr(at, end - at);
            if (line.rfind("0:", 0) != 0 && line.rfind("3276", 0) != 0) out += line;
            at = end;
        }
        return out;
    }
    static int edit(int op, rule_conf record) { return edit_rule(op, &record); }
    static int edit(int op, rule6_conf record) { return edit_rule6(op, &record); }
    LeakCheck leaks_;
};

std::string captured(const std::function<void()>& body) {
    testing::internal::CaptureStdout();
    body();
    return testing::internal::GetCapturedStdout();
}

TEST_F(Rules, AddsRulesWithEverySelector) {
    EXPECT_EQ(edit(0, rule(10005, 10005, 5, 0xf)), 0);
    EXPECT_EQ(edit(0, rule(10005, 15005, 5, 0xf)), 0);
    EXPECT_EQ(edit(0, rule(20005, 20005, 0, 0, "10.9.0.1")), 0);
    EXPECT_EQ(edit(0, rule(20006, 20005, 0, 0, "10.9.0.0/16")), 0);
    EXPECT_EQ(edit(0, rule(20007, 20005, 0, 0, "", "lo")), 0);
    EXPECT_EQ(edit(0, rule(30005, 30005)), 0);
    EXPECT_EQ(text(),
              "10005:\tfrom all fwmark 0x5/0xf lookup 10005\n"
              "10005:\tfrom all fwmark 0x5/0xf lookup 15005\n"
              "20005:\tfrom 10.9.0.1 lookup 20005\n"
              "20006:\tfrom 10.9.0.0/16 lookup 20005\n"
              "20007:\tfrom all oif lo lookup 20005\n"
              "30005:\tfrom all lookup 30005\n");
}

TEST_F(Rules, DeviceNeedNotExist) {
    EXPECT_EQ(edit(0, rule(20005, 20005, 0, 0, "", "tun5")), 0);
    EXPECT_EQ(text(), "20005:\tfrom all oif tun5 [detached] lookup 20005\n");
}

TEST_F(Rules, AddingOneThatExistsIsSuccess) {
    EXPECT_EQ(edit(0, rule(10005, 10005, 5, 0xf)), 0);
    EXPECT_EQ(edit(0, rule(10005, 10005, 5, 0xf)), 0);
    EXPECT_EQ(text(), "10005:\tfrom all fwmark 0x5/0xf lookup 10005\n");
    EXPECT_EQ(edit(0, rule6(7, 8)), 0);
    EXPECT_EQ(edit(0, rule6(7, 8)), 0);
    EXPECT_EQ(text("-6"), "7:\tfrom all lookup 8\n");
}

TEST_F(Rules, DeletingOneThatDoesNotExistIsMinus3011) {
    EXPECT_EQ(edit(1, rule(10005, 10005)), -3011);
    EXPECT_EQ(edit(1, rule6(10005, 10005)), -3011);
}

TEST_F(Rules, PriorityAloneDeletesTheFirstOfIt) {
    edit(0, rule(10005, 10005, 5, 0xf));
    edit(0, rule(10005, 15005, 5, 0xf));
    EXPECT_EQ(edit(1, rule(10005, 0)), 0);
    EXPECT_EQ(text(), "10005:\tfrom all fwmark 0x5/0xf lookup 15005\n");
    EXPECT_EQ(edit(1, rule(10005, 0)), 0);
    EXPECT_EQ(edit(1, rule(10005, 0)), -3011);
}

TEST_F(Rules, MarkWithoutMaskIsAWholeMark) {
    EXPECT_EQ(edit(0, rule(7, 8, 5)), 0);
    EXPECT_EQ(text(), "7:\tfrom all fwmark 0x5 lookup 8\n");
}

TEST_F(Rules, UnreadableSourceInstallsNothing) {
    EXPECT_EQ(edit(0, rule(7, 8, 0, 0, "nowhere")), -3007);
    EXPECT_EQ(edit(0, rule(7, 8, 0, 0, "fd00::1")), -3007);
    EXPECT_EQ(edit(0, rule6(7, 8, "10.0.0.1")), -3007);
    EXPECT_EQ(edit(2, rule(7, 8, 0, 0, "nowhere")), -3007);
    EXPECT_EQ(text(), "");
    EXPECT_EQ(text("-6"), "");
}

TEST_F(Rules, RefusesBadArguments) {
    EXPECT_EQ(edit_rule(0, nullptr), -3002);
    EXPECT_EQ(edit_rule(7, nullptr), -3002);
    EXPECT_EQ(edit_rule6(0, nullptr), -3002);
    for (const int op : {4, -1, INT_MIN, INT_MAX}) {
        EXPECT_EQ(edit(op, rule(7, 8)), -3004) << op;
        EXPECT_EQ(edit(op, rule6(7, 8)), -3004) << op;
    }
}

TEST_F(Rules, KernelRefusalIsMinus3011) {
    EXPECT_EQ(edit(0, rule(7, 8, 0, 0, "10.0.0.1/33")), -3011);
    rule_conf record = rule(7, 8);
    std::memset(record.oif, 'o', sizeof record.oif);  // no end, too long for a name
    EXPECT_EQ(edit_rule(0, &record), -3011);
    EXPECT_EQ(text(), "");
}

TEST_F(Rules, FlushTakesEveryMatchingRule) {
    edit(0, rule(7, 8));
    edit(0, rule(7, 8, 5, 0xf));
    edit(0, rule(7, 8, 0, 0, "10.9.0.1"));
    edit(0, rule(7, 8, 0, 0, "", "lo"));
    edit(0, rule(7, 9));
    edit(0, rule(6, 8));
    ip_batch({"rule add prio 7 blackhole", "rule add prio 7 iif lo lookup 8",
              "rule add prio 7 ipproto tcp dport 80-90 lookup 8",
              "rule add prio 7 lookup 8 suppress_prefixlength 0"});
    EXPECT_EQ(edit(2, rule(7, 8)), 0);
    EXPECT_EQ(text(),
              "6:\tfrom all lookup 8\n"
              "7:\tfrom all lookup 9\n"
              "7:\tfrom all blackhole\n");
    EXPECT_EQ(edit(2, rule(7, 8)), 0);
}

TEST_F(Rules, FlushMatchesTheSelectors) {
    edit(0, rule(7, 8, 5, 0xf));
    edit(0, rule(7, 8, 6, 0xf));
    edit(0, rule(7, 8, 0, 0, "10.9.0.1"));
    edit(0, rule(7, 8, 0, 0, "10.9.0.0/16"));
    edit(0, rule(7, 8, 0, 0, "", "lo"));
    EXPECT_EQ(edit(2, rule(0, 0, 5)), 0);
    EXPECT_EQ(edit(2, rule(0, 0, 0, 0, "10.9.0.1")), 0);
    EXPECT_EQ(edit(2, rule(0, 0, 0, 0, "", "lo")), 0);
    EXPECT_EQ(text(), "7:\tfrom all fwmark 0x6/0xf lookup 8\n7:\tfrom 10.9.0.0/16 lookup 8\n");
}

// Restrictive rules behind and before plain ones: each goes, none twice.
TEST_F(Rules, FlushTakesNestedRulesInAnyOrder) {
    edit(0, rule(7, 8));
    edit(0, rule(7, 8, 0, 0, "", "lo"));
    edit(0, rule(7, 8, 5, 0xf, "", "lo"));
    ip_batch({"rule add prio 7 lookup 8 protocol bird"});
    EXPECT_EQ(edit(2, rule(7, 0)), 0);
    EXPECT_EQ(text(), "");
}

// No caller of the library ever passes it; what it means is what it says.
TEST_F(Rules, AllZeroRecordDeletesTheFirstRule) {
    EXPECT_EQ(edit(1, rule(0, 0)), 0);
    EXPECT_EQ(run_line("ip -4 rule show").out.find("lookup local"), std::string::npos);
}

TEST_F(Rules, FamiliesDoNotMix) {
    edit(0, rule(7, 8));
    edit(0, rule6(7, 8, "fd00::1/64", "lo"));
    EXPECT_EQ(text("-6"), "7:\tfrom fd00::1/64 oif lo lookup 8\n");
    EXPECT_EQ(edit(2, rule6(7, 0)), 0);
    EXPECT_EQ(text("-6"), "");
    EXPECT_EQ(text(), "7:\tfrom all lookup 8\n");
}

TEST_F(Rules, PrintsMatchingRules) {
    edit(0, rule(10005, 15005, 5, 0xf));
    edit(0, rule(20005, 20005, 0, 0, "10.9.0.1"));
    edit(0, rule(20005, 20005, 0, 0, "", "tun5"));
    EXPECT_EQ(captured([] { EXPECT_EQ(edit(3, rule(20005, 0)), 0); }),
              "20005: from 10.9.0.1 lookup 20005 \n20005: from all oif tun5 lookup 20005 \n");
    EXPECT_EQ(captured([] { EXPECT_EQ(edit(3, rule(0, 0)), 0); }),
              "from all lookup 255 \n"
              "10005: from all lookup 15005 \n"
              "20005: from 10.9.0.1 lookup 20005 \n"
              "20005: from all oif tun5 lookup 20005 \n"
              "32766: from all lookup 254 \n"
              "32767: from all lookup 253 \n");
    edit(0, rule6(7, 8, "fd00::/64"));
    EXPECT_EQ(captured([] { EXPECT_EQ(edit(3, rule6(7, 0)), 0); }), "7: from fd00::/64 lookup 8 \n");
}

TEST_F(Rules, FlushTakesMoreThanOneDumpPart) {
    for (std::uint32_t i = 1; i <= 1000; ++i) ASSERT_EQ(edit(0, rule(1000 + i, 8)), 0);
    EXPECT_EQ(edit(2, rule(0, 8)), 0);
    EXPECT_EQ(text(), "");
}

}  // namespace
