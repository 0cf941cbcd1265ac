// Traffic-control functions against the kernel.

#include "corvosetup/tc.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <thread>

#include "support/failing_new.h"
#include "support/kernel_feature.h"
#include "support/sandbox.h"

namespace corvo::test {
namespace {

using testing::HasSubstr;
using testing::Not;

tc_options root_with_default(uint32_t minor) {
    return {minor, 0, 0, 0};
}
tc_options shaped(uint32_t rate, uint32_t ceil, uint32_t prio = 0) {
    return {0, rate, ceil, prio};
}

// The qdiscs of a device, without the one that every device has.
Json::Value qdiscs(const std::string& device) {
    Json::Value found(Json::arrayValue);
    for (const Json::Value& qdisc : tc_json("qdisc show dev " + device)) {
        if (qdisc["kind"] != "noqueue" && qdisc["kind"] != "pfifo_fast") found.append(qdisc);
    }
    return found;
}
std::string classes(const std::string& device) {
    return must_run("tc -d class show dev " + device);
}
std::string filters(const std::string& words) {
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

// --- Status

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

TEST_F(Tc, StatusOfADefaultQdiscIsOneNode) {
    must_run("tc qdisc replace dev wan root pfifo_fast");
    must_run("tc qdisc del dev wan root");
    const Status plain("lo");  // noqueue
    ASSERT_EQ(plain.entries.size(), 1U);
    EXPECT_STREQ(plain.entries[0].handle, "none");
    EXPECT_EQ(plain.entries[0].ceil, 0U);
    EXPECT_EQ(plain.entries[0].rate, 0U);
    EXPECT_EQ(plain.entries[0].utilisation, 0);
}

TEST_F(Tc, StatusOfAnUnknownDeviceIsAnEmptyList) {
    const Status status("nosuch");
    ASSERT_NE(status.head, nullptr);
    EXPECT_EQ(status.head->next, status.head);
    EXPECT_EQ(status.head->prev, status.head);
}

TEST_F(Tc, StatusHasQdiscsBeforeClasses) {
    add_tree();
    ASSERT_EQ(setup_qdisc("wan", "1:10", "120:", "pfifo", nullptr), 0);
    ASSERT_EQ(setup_qdisc_ingress("wan", "", 0), 0);
    const Status status("wan");
    ASSERT_EQ(status.entries.size(), 3U);  // neither the leaf nor ingress hang at the root
    EXPECT_STREQ(status.entries[0].handle, "1:");
    EXPECT_EQ(status.entries[0].ceil, 0U);
    for (const tqs_entry& entry : {status.entries[1], status.entries[2]}) {
        EXPECT_EQ(entry.ceil, 10000000U) << entry.handle;
        EXPECT_EQ(entry.rate, 0U);
        EXPECT_EQ(entry.utilisation, 0);
    }
    std::vector<std::string> names{status.entries[1].handle, status.entries[2].handle};
    EXPECT_THAT(names, testing::UnorderedElementsAre("1:1", "1:10"));
    EXPECT_EQ(status.entries[names[0] == "1:10" ? 1 : 2].htb_rate, 1000000U);
}

TEST_F(Tc, StatusWrapsAbove32Bits) {
    add_root();
    tc_options options = shaped(536870911, 536870912);
    ASSERT_EQ(setup_class("wan", "1:", "1:1", "htb", &options), 0);
    const Status status("wan");
    ASSERT_EQ(status.entries.size(), 2U);
    EXPECT_EQ(status.entries[1].htb_rate, 4294967288U);
    EXPECT_EQ(status.entries[1].ceil, 0U);
}

TEST_F(Tc, StatusLeavesClassesOfOtherKindsOut) {
    must_run("tc qdisc add dev wan root handle 1: tbf rate 1mbit burst 10k latency 10ms");
    ASSERT_THAT(classes("wan"), HasSubstr("class tbf 1:1"));
    const Status status("wan");
    ASSERT_EQ(status.entries.size(), 1U);
    EXPECT_STREQ(status.entries[0].handle, "1:");
}

TEST_F(Tc, StatusCountsWhatWaits) {
    add_root(0x10);
    tc_options options = shaped(125, 125);  // a packet in eight seconds
    ASSERT_EQ(setup_class("wan", "1:", "1:10", "htb", &options), 0);
    ip_batch({"addr add 192.0.2.1/24 dev wan", "neigh add 192.0.2.2 lladdr 02:00:00:00:00:02 dev wan"});
    wait_for_carrier("wan");
    run_line("ping -c 8 -i 0.01 -W 1 -s 1000 192.0.2.2");
    const Status status("wan");
    ASSERT_EQ(status.entries.size(), 2U);
    EXPECT_GT(status.entries[0].qlen, 0U);
    EXPECT_GT(status.entries[1].qlen, 0U);
}

// The kernel estimates rates where a class was made with an estimator.
TEST_F(Tc, StatusHasTheEstimatedRateAndItsShareOfTheCeiling) {
    add_root(0x10);
    must_run("tc class add dev wan parent 1: classid 1:10 estimator 250ms 500ms htb rate 1mbit ceil 8mbit");
    ip_batch({"addr add 192.0.2.1/24 dev wan", "neigh add 192.0.2.2 lladdr 02:00:00:00:00:02 dev wan"});
    wait_for_carrier("wan");
    run_line("ping -c 100 -i 0.01 -W 1 -s 1000 192.0.2.2");
    const Status status("wan");
    ASSERT_EQ(status.entries.size(), 2U);
    const tqs_entry& entry = status.entries[1];
    EXPECT_EQ(status.entries[0].rate, 0U);
    EXPECT_GT(entry.rate, 10000U);
    EXPECT_EQ(entry.rate % 8, 0U);
    EXPECT_EQ(entry.ceil, 8000000U);
    EXPECT_EQ(entry.htb_rate, 1000000U);
    EXPECT_DOUBLE_EQ(entry.utilisation, static_cast<double>(entry.rate / 8) * 100 / 1000000);
}

// --- Failures of the process itself

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
