// Traffic-control functions against the kernel: qdiscs, classes and classifiers.

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tc_fixture.h"

namespace corvo::test {
namespace {

using testing::HasSubstr;
using testing::Not;

TEST_F(Tc, HtbRootSendsUnclassifiedTrafficToTheDefaultMinor) {
    add_root(0x30);
    const Json::Value found = qdiscs("wan");
    ASSERT_EQ(found.size(), 1U);
    EXPECT_EQ(found[0]["kind"], "htb");
    EXPECT_EQ(found[0]["handle"], "1:");
    EXPECT_TRUE(found[0]["root"].asBool());
    EXPECT_EQ(found[0]["options"]["default"], "0x30");
    EXPECT_EQ(found[0]["options"]["r2q"], 10);
}

TEST_F(Tc, RootWithoutOptionsHasDefaultZero) {
    EXPECT_EQ(setup_qdisc("wan", "root", "1:", "htb", nullptr), 0);
    EXPECT_EQ(qdiscs("wan")[0]["options"]["default"], "0");
}

TEST_F(Tc, QdiscIsCreatedExclusively) {
    add_root(0x30);
    tc_options options = root_with_default(0x40);
    EXPECT_EQ(setup_qdisc("wan", "root", "1:", "htb", &options), -3011);
    EXPECT_EQ(qdiscs("wan")[0]["options"]["default"], "0x30");
}

TEST_F(Tc, UnusableHandleIsPassedOverWithSuccess) {
    tc_options options = root_with_default(0);
    for (const char* handle : {"x:y:z", "1:2:3", "10000:", "two words:", ""}) {
        EXPECT_EQ(setup_qdisc("wan", "root", handle, "htb", &options), 0) << handle;
        EXPECT_EQ(qdiscs("wan").size(), 0U) << handle;
    }
}

TEST_F(Tc, UnusableClassIdIsPassedOverWithSuccess) {
    add_root();
    tc_options options = shaped(1000, 1000);
    EXPECT_EQ(setup_class("wan", "1:", "x:y:z", "htb", &options), 0);
    EXPECT_EQ(setup_class("wan", "1:", "1:10000", "htb", &options), 0);
    EXPECT_EQ(classes("wan"), "");
}

TEST_F(Tc, UnknownQdiscKindIsRefused) {
    EXPECT_EQ(setup_qdisc("wan", "root", "1:", "nosuchkind", nullptr), -3011);
    EXPECT_EQ(setup_qdisc("wan", "root", "1:", "a_kind_whose_name_is_too_long", nullptr), -3011);
    EXPECT_EQ(setup_qdisc("wan", "root", "1:", nullptr, nullptr), -3011);
}

TEST_F(Tc, UnknownDeviceIsRefused) {
    tc_options options = shaped(1000, 1000);
    U32QoSObj rule{};
    for (const char* device : {"nosuch", "", "wan:1", "a_name_that_is_too_long_for_a_device"}) {
        EXPECT_EQ(setup_qdisc(device, "root", "1:", "htb", &options), -3011) << device;
        EXPECT_EQ(clean_qdisc(device, "root"), -3011) << device;
        EXPECT_EQ(setup_class(device, "1:", "1:1", "htb", &options), -3011) << device;
        EXPECT_EQ(setup_fw_filter(device, "1:", ":1", "1:1"), -3011) << device;
        EXPECT_EQ(setup_u32_filter(device, "1:", "1:1", &rule), -3011) << device;
        EXPECT_EQ(setup_qdisc_ingress(device, "wan", 0x800), -3011) << device;
        EXPECT_EQ(setup_qdisc_ingress_filter(device, "wan", 0x800), -3011) << device;
    }
}

TEST_F(Tc, NoDeviceIsRefusedAndNeverEveryDevice) {
    add_tree();
    tc_options options = shaped(1000, 1000);
    U32QoSObj rule{};
    EXPECT_EQ(setup_qdisc(nullptr, "root", "1:", "htb", &options), -3011);
    EXPECT_EQ(setup_class(nullptr, "1:", "1:20", "htb", &options), -3011);
    EXPECT_EQ(setup_fw_filter(nullptr, "1:", ":1", "1:10"), -3011);
    EXPECT_EQ(setup_u32_filter(nullptr, "1:", "1:10", &rule), -3011);
    EXPECT_EQ(setup_qdisc_ingress(nullptr, "wan", 0x800), -3011);
    EXPECT_EQ(setup_qdisc_ingress_filter(nullptr, "wan", 0x800), -3011);
    EXPECT_EQ(clean_qdisc(nullptr, "root"), -3002);
    EXPECT_EQ(qdiscs("wan").size(), 1U);
}

TEST_F(Tc, UnusableParentIsRefused) {
    tc_options options = shaped(1000, 1000);
    U32QoSObj rule{};
    for (const char* parent : {"x:y:z", "nosuchname", "", "1:1:1"}) {
        EXPECT_EQ(setup_qdisc("wan", parent, "1:", "htb", &options), -3011) << parent;
        EXPECT_EQ(clean_qdisc("wan", parent), -3011) << parent;
        EXPECT_EQ(setup_class("wan", parent, "1:1", "htb", &options), -3011) << parent;
        EXPECT_EQ(setup_fw_filter("wan", parent, ":1", "1:1"), -3011) << parent;
        EXPECT_EQ(setup_u32_filter("wan", parent, "1:1", &rule), -3011) << parent;
    }
}

TEST_F(Tc, ParentOfZeroIsInvalid) {
    tc_options options = shaped(1000, 1000);
    U32QoSObj rule{};
    for (const char* parent : {"none", "0:", ":0"}) {
        EXPECT_EQ(setup_qdisc("wan", parent, "1:", "htb", &options), -3004) << parent;
        EXPECT_EQ(clean_qdisc("wan", parent), -3004) << parent;
        EXPECT_EQ(setup_class("wan", parent, "1:1", "htb", &options), -3004) << parent;
        EXPECT_EQ(setup_fw_filter("wan", parent, ":1", "1:1"), -3004) << parent;
        EXPECT_EQ(setup_u32_filter("wan", parent, "1:1", &rule), -3004) << parent;
    }
}

// --- Classes

TEST_F(Tc, HtbClassHasRateCeilingAndPriority) {
    add_tree();
    EXPECT_THAT(classes("wan"), HasSubstr("class htb 1:1 root rate 10Mbit ceil 10Mbit"));
    EXPECT_THAT(classes("wan"),
                HasSubstr("class htb 1:10 parent 1:1 prio 1 quantum 12500 rate 1Mbit ceil 10Mbit linklayer "
                          "ethernet burst 1500b/1 mpu 0b cburst 1500b/1"));
}

TEST_F(Tc, ClassMatchesThatOfTheSystemsTool) {
    add_tree();
    must_run(
        "tc class add dev wan parent 1:1 classid 1:20 htb rate 1mbit ceil 10mbit prio 1 burst 1500 cburst "
        "1500");
    std::string ours;
    std::string theirs;
    for (std::istringstream lines(classes("wan")); std::getline(lines, ours);) {
        if (ours.starts_with("class htb 1:20")) theirs = ours.substr(14);
    }
    EXPECT_THAT(classes("wan"), HasSubstr("class htb 1:10" + theirs));
}

TEST_F(Tc, RatesUpToTheLastBitArrive) {
    add_root();
    tc_options options = shaped(4294967295U, 4294967295U);
    EXPECT_EQ(setup_class("wan", "1:", "1:1", "htb", &options), 0);
    EXPECT_THAT(classes("wan"), HasSubstr("rate 34359Mbit ceil 34359Mbit"));
    options = shaped(600000000, 600000000);  // above 2^32 bits per second
    EXPECT_EQ(setup_class("wan", "1:", "1:2", "htb", &options), 0);
    EXPECT_THAT(classes("wan"), HasSubstr("rate 4800Mbit ceil 4800Mbit"));
}

TEST_F(Tc, ClassIsCreatedExclusively) {
    add_tree();
    tc_options options = shaped(1000000, 1000000, 5);
    EXPECT_EQ(setup_class("wan", "1:1", "1:10", "htb", &options), -3011);
    EXPECT_THAT(classes("wan"), HasSubstr("1:10 parent 1:1 prio 1"));
}

TEST_F(Tc, ClassWithoutRateIsRefused) {
    add_root();
    tc_options options{};
    EXPECT_EQ(setup_class("wan", "1:", "1:1", "htb", &options), -3011);
    options = shaped(1000, 0);
    EXPECT_EQ(setup_class("wan", "1:", "1:1", "htb", &options), -3011);
    EXPECT_EQ(setup_class("wan", "1:", "1:1", "htb", nullptr), -3011);
    EXPECT_EQ(classes("wan"), "");
}

TEST_F(Tc, ClassOfAnotherMajorThanItsParentIsRefused) {
    add_root();
    tc_options options = shaped(1000, 1000);
    EXPECT_EQ(setup_class("wan", "1:", "2:1", "htb", &options), -3011);
    EXPECT_EQ(setup_class("wan", "root", "1:1", "htb", &options), -3011);
    EXPECT_EQ(classes("wan"), "");
}

TEST_F(Tc, UnknownClassKindIsInvalid) {
    add_root();
    tc_options options = shaped(1000, 1000);
    for (const char* kind : {"hfsc", "", "HTB"}) {
        EXPECT_EQ(setup_class("wan", "1:", "1:1", kind, &options), -3004) << kind;
    }
    EXPECT_EQ(setup_class("wan", "1:", "1:1", nullptr, &options), -3004);
}

// The kind is taken without parameters; a kernel without it refuses it, which is another code than for an
// unknown kind.
TEST_F(Tc, NsshtbClassIsSentWithoutParameters) {
    add_root();
    EXPECT_EQ(setup_class("wan", "1:", "1:1", "nsshtb", nullptr), -3011);
}

TEST_F(Tc, ClassOfPriorityZeroIsTheQdiscsOwnNumber) {
    add_root();
    tc_options options = shaped(1000, 1000);
    EXPECT_EQ(setup_class("wan", "1:", "1:0", "htb", &options), 0);
    EXPECT_THAT(classes("wan"), HasSubstr("class htb 1: root"));
}

// --- Cleaning

TEST_F(Tc, CleanRemovesTheTreeUnderTheParent) {
    add_tree();
    EXPECT_EQ(clean_qdisc("wan", "root"), 0);
    EXPECT_EQ(qdiscs("wan").size(), 0U);
    EXPECT_EQ(classes("wan"), "");
}

TEST_F(Tc, CleanWithNothingThereSucceeds) {
    EXPECT_EQ(clean_qdisc("wan", "root"), 0);
    EXPECT_EQ(clean_qdisc("wan", "ingress"), 0);
    EXPECT_EQ(clean_qdisc("wan", "7:7"), 0);
}

TEST_F(Tc, CleanTouchesNoOtherParentAndNoOtherDevice) {
    add_tree();
    tc_options options = root_with_default(0);
    ASSERT_EQ(setup_qdisc("peer", "root", "1:", "htb", &options), 0);
    ASSERT_EQ(setup_qdisc_ingress("wan", "", 0), 0);
    EXPECT_EQ(clean_qdisc("wan", "ingress"), 0);
    ASSERT_EQ(qdiscs("wan").size(), 1U);
    EXPECT_EQ(qdiscs("wan")[0]["kind"], "htb");
    EXPECT_EQ(clean_qdisc("wan", "root"), 0);
    EXPECT_EQ(qdiscs("peer").size(), 1U);
}

TEST_F(Tc, CleanOfTheIngressHandleIsNotCleanOfItsParent) {
    ASSERT_EQ(setup_qdisc_ingress("wan", "", 0), 0);
    EXPECT_EQ(clean_qdisc("wan", "ffff:"), 0);
    EXPECT_EQ(qdiscs("wan").size(), 1U);
    EXPECT_EQ(clean_qdisc("wan", "ffff:fff1"), 0);
    EXPECT_EQ(qdiscs("wan").size(), 0U);
}

TEST_F(Tc, CleanRemovesALeaf) {
    add_tree();
    ASSERT_EQ(setup_qdisc("wan", "1:10", "120:", "pfifo", nullptr), 0);
    ASSERT_EQ(qdiscs("wan").size(), 2U);
    EXPECT_EQ(clean_qdisc("wan", "1:10"), 0);
    ASSERT_EQ(qdiscs("wan").size(), 1U);
    EXPECT_EQ(qdiscs("wan")[0]["kind"], "htb");
}

TEST_F(Tc, CleanWithoutParentRemovesEveryQdiscOfTheDevice) {
    add_tree();
    ASSERT_EQ(setup_qdisc_ingress("wan", "", 0), 0);
    EXPECT_EQ(clean_qdisc("wan", nullptr), 0);
    EXPECT_EQ(qdiscs("wan").size(), 0U);
}

// --- Ingress

TEST_F(Tc, IngressIgnoresItsLastTwoArguments) {
    EXPECT_EQ(setup_qdisc_ingress("wan", "no such device", 0xffff), 0);
    const Json::Value found = qdiscs("wan");
    ASSERT_EQ(found.size(), 1U);
    EXPECT_EQ(found[0]["kind"], "ingress");
    EXPECT_EQ(found[0]["handle"], "ffff:");
    EXPECT_EQ(found[0]["parent"], "ffff:fff1");
    EXPECT_EQ(setup_qdisc_ingress("wan", nullptr, 0), -3011);
}

TEST_F(TcIngress, FiltersWithoutIngressQdiscAreRefused) {
    EXPECT_EQ(setup_qdisc_ingress_filter("wan", "ifb0", 0x800), -3011);
}

TEST_F(TcIngress, EspStaysAndTheRestIsRedirected) {
    ASSERT_EQ(setup_qdisc_ingress("wan", "ifb0", 0x800), 0);
    EXPECT_EQ(setup_qdisc_ingress_filter("wan", "ifb0", 0x800), 0);
    const std::string text = filters("wan ingress");
    EXPECT_THAT(text,
                HasSubstr("protocol ip pref 1 u32 chain 0 fh 800::800 order 2048 key ht 800 bkt 0 terminal "
                          "flowid not_in_hw \n  match 00320000/00ff0000 at 8"));
    EXPECT_THAT(text,
                HasSubstr("flowid 1:1 not_in_hw \n  match 00000000/00000000 at 0\n\taction order 1: mirred "
                          "(Egress Redirect to device ifb0) stolen"));
    EXPECT_LT(text.find("pref 1 "), text.find("mirred"));
}

TEST_F(TcIngress, VlanTrafficIsRedirectedByItsOwnProtocol) {
    ASSERT_EQ(setup_qdisc_ingress("wan", "ifb0", 0x8100), 0);
    EXPECT_EQ(setup_qdisc_ingress_filter("wan", "ifb0", 0x8100), 0);
    EXPECT_THAT(filters("wan ingress"), HasSubstr("protocol 802.1Q"));
    EXPECT_THAT(filters("wan ingress"), Not(HasSubstr("protocol ip ")));
}

// A second call finds the bypass there, which is not looked at; the redirect has no priority of its own and
// so never collides.
TEST_F(TcIngress, ResultIsTheRedirectsAlone) {
    ASSERT_EQ(setup_qdisc_ingress("wan", "ifb0", 0x800), 0);
    EXPECT_EQ(setup_qdisc_ingress_filter("wan", "ifb0", 0x800), 0);
    EXPECT_EQ(setup_qdisc_ingress_filter("wan", "ifb0", 0x800), 0);
    const std::string text = filters("wan ingress");
    const auto first = text.find("mirred");
    EXPECT_NE(text.find("mirred", first + 1), std::string::npos);
}

TEST_F(TcIngress, MissingRedirectDeviceLeavesTheBypass) {
    ASSERT_EQ(setup_qdisc_ingress("wan", "ifb9", 0x800), 0);
    EXPECT_EQ(setup_qdisc_ingress_filter("wan", "ifb9", 0x800), -3011);
    EXPECT_EQ(setup_qdisc_ingress_filter("wan", nullptr, 0x800), -3011);
    EXPECT_THAT(filters("wan ingress"), HasSubstr("match 00320000/00ff0000 at 8"));
    EXPECT_THAT(filters("wan ingress"), Not(HasSubstr("mirred")));
}

// --- Filters

TEST_F(Tc, FwFilterWithUnusableHandleOrClassIsInvalid) {
    add_tree();
    EXPECT_EQ(setup_fw_filter("wan", "1:", "x:y:z", "1:10"), -3004);
    EXPECT_EQ(setup_fw_filter("wan", "1:", nullptr, "1:10"), -3004);
    EXPECT_EQ(setup_fw_filter("wan", "1:", ":3c0", "x:y:z"), -3004);
    EXPECT_EQ(setup_fw_filter("wan", "1:", ":3c0", nullptr), -3004);
    EXPECT_EQ(filters("wan"), "");
}

TEST_F(Tc, U32FilterWithUnusableClassIsInvalid) {
    add_tree();
    U32QoSObj rule{};
    rule.protocol = 0x800;
    EXPECT_EQ(setup_u32_filter("wan", "1:", "x:y:z", &rule), -3004);
    EXPECT_EQ(setup_u32_filter("wan", "1:", "1:10", nullptr), -3002);
    EXPECT_EQ(filters("wan"), "");
}

class TcU32 : public Tc {
protected:
    void SetUp() override {
        Tc::SetUp();
        REQUIRE_KERNEL_FEATURE("u32");
        add_tree();
    }
};

TEST_F(TcU32, AddressMatchShowsTheNetwork) {
    U32QoSObj rule{};
    rule.prio = 2;
    rule.protocol = 0x800;
    rule.saddr = inet_addr("10.1.2.3");
    rule.smask = inet_addr("255.255.255.0");
    EXPECT_EQ(setup_u32_filter("wan", "1:", "1:10", &rule), 0);
    EXPECT_THAT(filters("wan"), HasSubstr("protocol ip pref 2 u32"));
    EXPECT_THAT(filters("wan"), HasSubstr("fh 800::800 order 2048 key ht 800 bkt 0 *flowid 1:10 not_in_hw \n"
                                          "  match 0a010200/ffffff00 at 12"));
}

TEST_F(TcU32, EveryFieldIsMatchedWhereItStands) {
    U32QoSObj rule{};
    rule.prio = 2;
    rule.protocol = 0x8100;
    const unsigned char source[6] = {2, 0x11, 0x22, 0x33, 0x44, 0x55};
    const unsigned char target[6] = {2, 0xaa, 0xbb, 0xcc, 0xdd, 0xee};
    std::copy(source, source + 6, rule.smac);
    std::copy(target, target + 6, rule.dmac);
    rule.saddr = inet_addr("10.1.2.3");
    rule.daddr = inet_addr("10.9.9.9");
    rule.smask = rule.dmask = 0xffffffff;
    rule.sport = 53;
    rule.dport = 8080;
    EXPECT_EQ(setup_u32_filter("wan", "1:", "1:10", &rule), 0);
    EXPECT_THAT(filters("wan"), HasSubstr("protocol 802.1Q pref 2"));
    EXPECT_THAT(filters("wan"), HasSubstr("  match 44550000/ffff0000 at -4\n"
                                          "  match 02112233/ffffffff at -8\n"
                                          "  match 000002aa/0000ffff at -16\n"
                                          "  match bbccddee/ffffffff at -12\n"
                                          "  match 0a010203/ffffffff at 12\n"
                                          "  match 0a090909/ffffffff at 16\n"
                                          "  match 00350000/ffff0000 at 20\n"
                                          "  match 00001f90/0000ffff at 20"));
}

TEST_F(TcU32, EmptyRecordMatchesEveryPacketOfTheProtocol) {
    U32QoSObj rule{};
    rule.protocol = 0x800;
    EXPECT_EQ(setup_u32_filter("wan", "1:", "1:10", &rule), 0);
    EXPECT_THAT(filters("wan"), HasSubstr("flowid 1:10"));
    EXPECT_THAT(filters("wan"), Not(HasSubstr("match")));
}

TEST_F(TcU32, PriorityZeroIsLeftToTheKernel) {
    U32QoSObj rule{};
    rule.protocol = 0x800;
    EXPECT_EQ(setup_u32_filter("wan", "1:", "1:10", &rule), 0);
    EXPECT_THAT(filters("wan"), HasSubstr("pref 49152"));
}

TEST_F(TcU32, TheSameRuleTwiceIsThereTwice) {
    U32QoSObj rule{};
    rule.prio = 1;
    rule.protocol = 0x800;
    rule.sport = 53;
    EXPECT_EQ(setup_u32_filter("wan", "1:", "1:10", &rule), 0);
    EXPECT_EQ(setup_u32_filter("wan", "1:", "1:10", &rule), 0);
    EXPECT_THAT(filters("wan"), HasSubstr("fh 800::801"));
}

TEST_F(TcU32, WithoutAQdiscTheKernelRefuses) {
    ASSERT_EQ(clean_qdisc("wan", "root"), 0);
    U32QoSObj rule{};
    rule.protocol = 0x800;
    EXPECT_EQ(setup_u32_filter("wan", "1:", "1:10", &rule), -3011);
}

}  // namespace
}  // namespace corvo::test
