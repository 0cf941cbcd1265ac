// The bytes of the messages for links, addresses and the FOU port.

#include "netlink/link_message.h"

#include <gtest/gtest.h>
#include <linux/rtnetlink.h>
#include <netlink/route/addr.h>

#include "bytes.h"
#include "foundation/text.h"

namespace {

using corvo::copy_text;
using corvo::nl::MessageWriter;
using corvo::test::head_of;
using corvo::test::hex;
using corvo::test::hex_payload;
using corvo::test::view_of;
using testing::Test;
using namespace corvo::nl;

constexpr std::uint16_t kDo = NLM_F_REQUEST | NLM_F_ACK;

ipip_conf ipip() {
    ipip_conf conf{};
    copy_text(conf.name, "tun5");
    copy_text(conf.local, "192.0.2.1");
    copy_text(conf.remote, "192.0.2.2");
    conf.dport = 5555;
    conf.sport = 7777;
    return conf;
}

sit_conf sit() {
    sit_conf conf{};
    copy_text(conf.name, "sit5");
    copy_text(conf.local, "192.0.2.1");
    copy_text(conf.remote, "192.0.2.2");
    conf.ttl = 64;
    return conf;
}

std::string bytes_of(const ipip_conf& conf) {
    MessageWriter out;
    build_new_ipip(out, conf);
    return hex_payload(out.bytes());
}

const std::string kZeroLink = "00000000 00000000 00000000 00000000 ";

TEST(TunnelMessage, IpipWithInheritedTtl) {
    EXPECT_EQ(bytes_of(ipip()), kZeroLink +
                                    "09000300 74756e35 00000000 "  // the name
                                    "08000400 14050000 "           // MTU 1300
                                    "4c001280 09000100 69706970 00000000 "
                                    "3c000280 "
                                    "08000200 c0000201 08000300 c0000202 "
                                    "05000400 00000000 "  // TTL 0
                                    "05000a00 00000000 "  // path MTU discovery off
                                    "05000900 00000000 "  // protocol 0
                                    "06000f00 02000000 "  // encapsulation GUE
                                    "06001200 15b30000"   // port 5555 in network order
    );
}

TEST(TunnelMessage, IpipWithTtlSaysNothingAboutPathMtuDiscovery) {
    ipip_conf conf = ipip();
    conf.ttl = 64;
    EXPECT_EQ(bytes_of(conf), kZeroLink +
                                  "09000300 74756e35 00000000 08000400 14050000 "
                                  "44001280 09000100 69706970 00000000 34000280 "
                                  "08000200 c0000201 08000300 c0000202 05000400 40000000 05000900 00000000 "
                                  "06000f00 02000000 06001200 15b30000");
}

TEST(TunnelMessage, QueuesStandBetweenMtuAndKind) {
    ipip_conf conf = ipip();
    conf.queues = 4;
    EXPECT_NE(bytes_of(conf).find("08000400 14050000 08001f00 04000000 08002000 04000000 4c001280"),
              std::string::npos);
}

TEST(TunnelMessage, CreationIsExclusive) {
    MessageWriter out;
    build_new_ipip(out, ipip());
    EXPECT_EQ(head_of(out.bytes()).nlmsg_type, RTM_NEWLINK);
    EXPECT_EQ(head_of(out.bytes()).nlmsg_flags, kDo | NLM_F_CREATE | NLM_F_EXCL);
    EXPECT_EQ(head_of(out.bytes()).nlmsg_len, out.size());
}

TEST(TunnelMessage, MtuIsFixedWhateverTheRecordSays) {
    ipip_conf conf = ipip();
    conf.queues = 1400;
    conf.sport = 1400;
    EXPECT_NE(bytes_of(conf).find("08000400 14050000"), std::string::npos);
}

TEST(TunnelMessage, SourcePortIsNeverSent) {
    ipip_conf conf = ipip();
    const std::string with = bytes_of(conf);
    conf.sport = 0;
    EXPECT_EQ(bytes_of(conf), with);
}

TEST(TunnelMessage, PortIsSixteenBitsOfTheRecord) {
    ipip_conf conf = ipip();
    conf.dport = 0x12345;
    EXPECT_NE(bytes_of(conf).find("06001200 23450000"), std::string::npos);
}

// 0.0.0.0 would be the driver's own fallback device.
TEST(TunnelMessage, UnreadableAddressesBecomeAllOnes) {
    ipip_conf conf = ipip();
    copy_text(conf.local, "");
    copy_text(conf.remote, "nowhere");
    EXPECT_NE(bytes_of(conf).find("08000200 ffffffff 08000300 ffffffff"), std::string::npos);
}

TEST(TunnelMessage, UnterminatedTextsEndWithTheirField) {
    ipip_conf conf = ipip();
    std::memset(conf.name, 'n', sizeof conf.name);
    std::memset(conf.local, '1', sizeof conf.local);
    const std::string bytes = bytes_of(conf);
    EXPECT_NE(bytes.find("15000300 6e6e6e6e 6e6e6e6e 6e6e6e6e 6e6e6e6e 00000000"), std::string::npos);
    EXPECT_NE(bytes.find("08000200 ffffffff"), std::string::npos);
}

TEST(TunnelMessage, SitHasNoEncapsulation) {
    MessageWriter out;
    build_new_sit(out, sit());
    EXPECT_EQ(hex_payload(out.bytes()), kZeroLink +
                                            "09000300 73697435 00000000 08000400 14050000 "
                                            "30001280 08000100 73697400 24000280 "
                                            "08000200 c0000201 08000300 c0000202 05000400 40000000 "
                                            "05000900 00000000");
}

TEST(TunnelMessage, LargestFitsTheTunnelLayersBuffer) {
    ipip_conf conf = ipip();
    std::memset(conf.name, 'n', sizeof conf.name);
    conf.queues = 8;
    MessageWriter out;
    build_new_ipip(out, conf);
    EXPECT_LE(out.size(), 1024U);
}

TEST(LinkMessage, DeletionIsByName) {
    MessageWriter out;
    build_delete_link(out, "tun5");
    EXPECT_EQ(head_of(out.bytes()).nlmsg_type, RTM_DELLINK);
    EXPECT_EQ(head_of(out.bytes()).nlmsg_flags, kDo);
    EXPECT_EQ(hex_payload(out.bytes()), kZeroLink + "09000300 74756e35 00000000");
}

TEST(LinkMessage, DummyIsCreatedUnlessItIsThere) {
    MessageWriter out;
    build_new_dummy(out, "dum0", 2);
    EXPECT_EQ(head_of(out.bytes()).nlmsg_flags, kDo | NLM_F_CREATE);
    EXPECT_EQ(hex_payload(out.bytes()), kZeroLink +
                                            "09000300 64756d30 00000000 08001f00 02000000 08002000 02000000 "
                                            "10001280 0a000100 64756d6d 79000000");
}

TEST(LinkMessage, DummyWithoutQueuesLeavesThemToTheKernel) {
    MessageWriter out;
    build_new_dummy(out, "dum0", 0);
    EXPECT_EQ(hex_payload(out.bytes()),
              kZeroLink + "09000300 64756d30 00000000 10001280 0a000100 64756d6d 79000000");
}

TEST(LinkMessage, FlagsChangeUnderTheirMask) {
    MessageWriter out;
    build_change_flags(out, 7, 1, 1);
    EXPECT_EQ(hex_payload(out.bytes()), "00000000 07000000 01000000 01000000");
    out.clear();
    build_change_flags(out, 7, 0, 0x1001);
    EXPECT_EQ(hex_payload(out.bytes()), "00000000 07000000 00000000 01100000");
}

// libnl's own message for the same address.
std::string libnl_address(const char* text, int family, int ifindex) {
    rtnl_addr* address = rtnl_addr_alloc();
    nl_addr* local = nullptr;
    nl_addr_parse(text, family, &local);
    rtnl_addr_set_ifindex(address, ifindex);
    rtnl_addr_set_local(address, local);
    nl_msg* message = nullptr;
    rtnl_addr_build_add_request(address, NLM_F_REPLACE, &message);
    nl_addr_put(local);
    rtnl_addr_put(address);
    return hex_payload(message);
}

TEST(AddressMessage, SameBytesAsLibnl) {
    for (const char* text : {"10.0.0.1/24", "10.0.0.1", "127.0.0.5/8", "fd00::1/64", "::1"}) {
        const int family = std::strchr(text, ':') ? AF_INET6 : AF_INET;
        MessageWriter out;
        build_set_address(out, 3, *parse_address(text, family));
        EXPECT_EQ(hex_payload(out.bytes()), libnl_address(text, family, 3)) << text;
    }
}

TEST(AddressMessage, ReplacesWhatIsThere) {
    MessageWriter out;
    build_set_address(out, 3, *parse_address("10.0.0.1/24", AF_INET));
    EXPECT_EQ(head_of(out.bytes()).nlmsg_type, RTM_NEWADDR);
    EXPECT_EQ(head_of(out.bytes()).nlmsg_flags, kDo | NLM_F_CREATE | NLM_F_REPLACE);
}

TEST(AddressMessage, DeletionNamesLocalAndPeer) {
    InterfaceAddress address;
    address.ifindex = 3;
    address.local = *parse_address("10.0.0.1/24", AF_INET);
    address.peer = *parse_address("10.0.0.9/24", AF_INET);
    MessageWriter out;
    build_delete_address(out, address);
    EXPECT_EQ(head_of(out.bytes()).nlmsg_type, RTM_DELADDR);
    EXPECT_EQ(hex_payload(out.bytes()), "02180000 03000000 08000200 0a000001 08000100 0a000009");
}

TEST(AddressMessage, ReadsADumpedAddress) {
    MessageWriter out;
    out.begin(RTM_NEWADDR, 0);
    ifaddrmsg head{};
    head.ifa_family = AF_INET;
    head.ifa_prefixlen = 24;
    head.ifa_index = 3;
    out.header(head);
    out.attr_u32(IFA_ADDRESS, 0x0900000a);
    out.attr_u32(IFA_LOCAL, 0x0100000a);
    out.end();
    InterfaceAddress address;
    ASSERT_TRUE(read_interface_address(view_of(out.bytes()), address));
    EXPECT_EQ(address.local.text(), "10.0.0.1/24");
    EXPECT_EQ(address.peer.text(), "10.0.0.9/24");
    EXPECT_EQ(address.ifindex, 3);
}

TEST(AddressMessage, AnAddressWithoutAnyIsNone) {
    MessageWriter out;
    out.begin(RTM_NEWADDR, 0);
    out.header(ifaddrmsg{});
    out.end();
    InterfaceAddress address;
    EXPECT_FALSE(read_interface_address(view_of(out.bytes()), address));
}

TEST(FouMessage, AsksTheControlFamilyByName) {
    MessageWriter out;
    build_get_family(out, "fou");
    EXPECT_EQ(head_of(out.bytes()).nlmsg_type, 16);
    EXPECT_EQ(hex_payload(out.bytes()), "03010000 08000200 666f7500");
}

TEST(FouMessage, AddAndDeleteNameThePort) {
    const std::string attributes = "06000100 15b30000 05000200 02000000 05000300 00000000 05000400 02000000";
    MessageWriter out;
    build_fou(out, 0x1f, 0);
    EXPECT_EQ(head_of(out.bytes()).nlmsg_type, 0x1f);
    EXPECT_EQ(head_of(out.bytes()).nlmsg_flags, kDo);
    EXPECT_EQ(hex_payload(out.bytes()), "01010000 " + attributes);
    out.clear();
    build_fou(out, 0x1f, 1);
    EXPECT_EQ(hex_payload(out.bytes()), "02010000 " + attributes);
}

TEST(FouMessage, ListIsADumpWithoutAttributes) {
    MessageWriter out;
    build_fou(out, 0x1f, 2);
    EXPECT_EQ(head_of(out.bytes()).nlmsg_flags, NLM_F_REQUEST | NLM_F_DUMP);
    EXPECT_EQ(hex_payload(out.bytes()), "03010000");
}

TEST(FouMessage, ReadsTheFamilyId) {
    MessageWriter out;
    out.begin(16, 0);
    const std::uint32_t generic = 0x0201;
    out.header(generic);
    out.attr_text(2, "fou");
    out.attr_u16(1, 31);
    out.end();
    EXPECT_EQ(read_family_id(view_of(out.bytes())), 31);
    MessageWriter other;
    other.begin(17, 0);
    other.end();
    EXPECT_EQ(read_family_id(view_of(other.bytes())), 0);
}

TEST(LinkRecords, FieldsStandWhereTheDaemonPutsThem) {
    EXPECT_EQ(sizeof(ipip_conf), 76U);
    EXPECT_EQ(offsetof(ipip_conf, sport), 70U);
    EXPECT_EQ(offsetof(ipip_conf, dport), 72U);
    EXPECT_EQ(sizeof(sit_conf), 104U);
    EXPECT_EQ(offsetof(sit_conf, queues), 96U);
    EXPECT_EQ(offsetof(sit_conf, ttl), 100U);
}

}  // namespace
