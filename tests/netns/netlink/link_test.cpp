// Link flags, tunnel and dummy devices on a kernel that has none of their drivers, and refused arguments.

#include "corvosetup/link.h"

#include <gtest/gtest.h>
#include <net/if.h>

#include <climits>

#include "foundation/text.h"
#include "support/kernel_feature.h"
#include "support/sandbox.h"

namespace {

using namespace corvo::test;

class Links : public testing::Test {
protected:
    void SetUp() override { add_veth("v0", "v1", {.up = false}); }
    LeakCheck leaks_;
};

unsigned flags_of(const std::string& name) {
    const Json::Value link = ip_json("link show dev " + name)[0];
    unsigned flags = 0;
    for (const Json::Value& flag : link["flags"]) {
        if (flag.asString() == "UP") flags |= IFF_UP;
        if (flag.asString() == "PROMISC") flags |= IFF_PROMISC;
        if (flag.asString() == "NOARP") flags |= IFF_NOARP;
    }
    return flags;
}

TEST_F(Links, SetsAndClearsExactlyTheGivenFlags) {
    const int index = index_of("v0");
    EXPECT_EQ(set_dev_flags(index, IFF_UP | IFF_NOARP), 0);
    EXPECT_EQ(flags_of("v0"), unsigned{IFF_UP | IFF_NOARP});
    EXPECT_EQ(unset_dev_flags(index, IFF_UP), 0);
    EXPECT_EQ(flags_of("v0"), unsigned{IFF_NOARP});
    EXPECT_EQ(set_dev_flags(index, IFF_PROMISC), 0);
    EXPECT_EQ(flags_of("v0"), unsigned{IFF_NOARP | IFF_PROMISC});
    EXPECT_EQ(unset_dev_flags(index, IFF_PROMISC | IFF_NOARP), 0);
    EXPECT_EQ(flags_of("v0"), 0U);
}

TEST_F(Links, SettingAFlagTwiceIsNoFailure) {
    EXPECT_EQ(set_dev_flags(index_of("v0"), IFF_UP), 0);
    EXPECT_EQ(set_dev_flags(index_of("v0"), IFF_UP), 0);
    EXPECT_EQ(unset_dev_flags(index_of("v1"), IFF_UP), 0);
}

TEST_F(Links, ReadsTheFlags) {
    unsigned flags = 0;
    ASSERT_EQ(get_dev_flags(index_of("v0"), &flags), 0);
    EXPECT_EQ(flags & IFF_UP, 0U);
    set_dev_flags(index_of("v0"), IFF_UP);
    ASSERT_EQ(get_dev_flags(index_of("v0"), &flags), 0);
    EXPECT_NE(flags & IFF_UP, 0U);
    EXPECT_NE(flags & IFF_BROADCAST, 0U);
    ASSERT_EQ(get_dev_flags(index_of("lo"), &flags), 0);
    EXPECT_NE(flags & IFF_LOOPBACK, 0U);
}

TEST_F(Links, RefusesBadIndexesAndPointers) {
    unsigned flags = 77;
    for (const int index : {0, -1, INT_MIN}) {
        EXPECT_EQ(get_dev_flags(index, &flags), -3004) << index;
        EXPECT_EQ(get_dev_flags(index, nullptr), -3004) << index;
        EXPECT_EQ(set_dev_flags(index, IFF_UP), -3004) << index;
        EXPECT_EQ(unset_dev_flags(index, IFF_UP), -3004) << index;
    }
    EXPECT_EQ(get_dev_flags(1, nullptr), -3002);
    EXPECT_EQ(set_dev_flags(1, 0), -3003);
    EXPECT_EQ(unset_dev_flags(1, 0), -3003);
    EXPECT_EQ(flags, 77U);
}

TEST_F(Links, UnknownLinkIsMinus3002WhenReadAndMinus3011WhenChanged) {
    unsigned flags = 77;
    EXPECT_EQ(get_dev_flags(99999, &flags), -3002);
    EXPECT_EQ(flags, 77U);
    EXPECT_EQ(set_dev_flags(99999, IFF_UP), -3011);
    EXPECT_EQ(unset_dev_flags(INT_MAX, IFF_UP), -3011);
}

// Kernels without the patch take the flag and forget it.
TEST_F(Links, FlagThatTheKernelDoesNotKnowIsNoFailure) {
    EXPECT_EQ(set_dev_flags(index_of("v0"), 0x80000), 0);
    EXPECT_EQ(flags_of("v0"), 0U);
}

TEST_F(Links, TunnelsRefuseBadArguments) {
    ipip_conf ipip{};
    sit_conf sit{};
    EXPECT_EQ(edit_ipip_tunnel(0, nullptr), -3002);
    EXPECT_EQ(edit_sit_tunnel(1, nullptr), -3002);
    for (const int op : {2, 3, -1, INT_MIN, INT_MAX}) {
        corvo::copy_text(ipip.name, "tun1");
        corvo::copy_text(sit.name, "sit1");
        EXPECT_EQ(edit_ipip_tunnel(op, &ipip), -3004) << op;
        EXPECT_EQ(edit_sit_tunnel(op, &sit), -3004) << op;
    }
}

// The kernel would choose a name and leave a stray device behind.
TEST_F(Links, TunnelsRefuseAnEmptyName) {
    ipip_conf ipip{};
    sit_conf sit{};
    for (const int op : {0, 1}) {
        EXPECT_EQ(edit_ipip_tunnel(op, &ipip), -3004);
        EXPECT_EQ(edit_sit_tunnel(op, &sit), -3004);
    }
    EXPECT_EQ(ip_json("link show").size(), 3U);  // lo and the pair
}

TEST_F(Links, TunnelsReportTheKernelsRefusal) {
    ipip_conf ipip{};
    corvo::copy_text(ipip.name, "v0");  // a device of another kind
    corvo::copy_text(ipip.local, "192.0.2.1");
    corvo::copy_text(ipip.remote, "192.0.2.2");
    EXPECT_EQ(edit_ipip_tunnel(0, &ipip), -3011);
    sit_conf sit{};
    corvo::copy_text(sit.name, "missing");
    EXPECT_EQ(edit_sit_tunnel(1, &sit), -3011);
    std::memset(sit.name, 'n', sizeof sit.name);
    EXPECT_EQ(edit_sit_tunnel(0, &sit), -3011);
}

TEST_F(Links, TunnelDeletionIsByNameWhateverTheKind) {
    ipip_conf conf{};
    corvo::copy_text(conf.name, "v0");
    EXPECT_EQ(edit_ipip_tunnel(1, &conf), 0);
    EXPECT_EQ(index_of("v0"), 0);
}

TEST_F(Links, DummyRefusesBadArguments) {
    EXPECT_EQ(edit_dummy(0, nullptr, 0), -3002);
    EXPECT_EQ(edit_dummy(2, nullptr, 0), -3002);
    for (const int op : {2, -1, INT_MAX}) EXPECT_EQ(edit_dummy(op, "dum0", 0), -3004) << op;
    EXPECT_EQ(edit_dummy(0, "", 0), -3004);
    EXPECT_EQ(edit_dummy(0, "a-name-that-is-too-long", 0), -3011);
    EXPECT_EQ(edit_dummy(1, "missing", 0), -3011);
}

// Creation is not exclusive: the name is there afterwards, which is what was asked for.
TEST_F(Links, DummyOverADeviceThatIsThereLeavesItAsItIs) {
    const int index = index_of("v0");
    EXPECT_EQ(edit_dummy(0, "v0", 4), 0);
    EXPECT_EQ(index_of("v0"), index);
    EXPECT_EQ(ip_json("link show dev v0", "-d")[0]["linkinfo"]["info_kind"].asString(), "veth");
}

TEST_F(Links, DummyIsCreatedAndDeleted) {
    REQUIRE_KERNEL_FEATURE("dummy");
    ASSERT_EQ(edit_dummy(0, "dum0", 3), 0);
    const Json::Value link = ip_json("link show dev dum0", "-d")[0];
    EXPECT_EQ(link["linkinfo"]["info_kind"].asString(), "dummy");
    EXPECT_EQ(link["num_tx_queues"].asInt(), 3);
    EXPECT_EQ(edit_dummy(1, "dum0", 0), 0);
    EXPECT_EQ(index_of("dum0"), 0);
}

TEST_F(Links, FouAlwaysAnswersZero) {
    for (const int op : {0, 1, 2, 3, -1, INT_MIN}) EXPECT_EQ(edit_fou(op), 0) << op;
}

}  // namespace
