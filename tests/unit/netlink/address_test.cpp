// Addresses and prefixes as text.

#include "netlink/address.h"

#include <gtest/gtest.h>
#include <netlink/addr.h>
#include <sys/socket.h>

namespace {

using corvo::nl::Address;
using corvo::nl::parse_address;
using corvo::nl::read_address;

std::string text_of(const char* text, int family = AF_INET) {
    const auto address = parse_address(text, family);
    return address ? address->text() : "-";
}

TEST(Address, BareAddressesAreHosts) {
    const auto address = parse_address("10.1.2.3", AF_INET);
    ASSERT_TRUE(address);
    EXPECT_EQ(address->prefix, 32);
    EXPECT_EQ(address->text(), "10.1.2.3");
    EXPECT_EQ(parse_address("fd00::1", AF_INET6)->prefix, 128);
}

TEST(Address, ALengthFollowsASlash) {
    EXPECT_EQ(text_of("10.1.0.0/16"), "10.1.0.0/16");
    EXPECT_EQ(text_of("10.1.0.0/32"), "10.1.0.0");
    EXPECT_EQ(text_of("fd00::/64", AF_INET6), "fd00::/64");
    EXPECT_EQ(text_of("10.1.0.0/0x10"), "10.1.0.0/16");
}

TEST(Address, HostTextNeverHasALength) {
    EXPECT_EQ(parse_address("10.1.0.7/16", AF_INET)->host_text(), "10.1.0.7");
}

TEST(Address, WordsAreTheDestinationOfLengthZero) {
    for (const char* word : {"default", "any", "all", "none", "Default", "ANY"}) {
        for (const int family : {AF_INET, AF_INET6}) {
            const auto address = parse_address(word, family);
            ASSERT_TRUE(address) << word;
            EXPECT_EQ(address->size, 0) << word;
            EXPECT_EQ(address->prefix, 0) << word;
            EXPECT_EQ(address->family, family) << word;
        }
    }
}

TEST(Address, RefusesWhatIsNoAddressOfTheFamily) {
    for (const char* text : {"", "10.1", "300.1.1.1", "fd00::1", "10.0.0.1/", "10.0.0.1/x", "10.0.0.1/24x",
                             "10.0.0.1/-1", "10.0.0.1/256", " 10.0.0.1", "10.0.0.1;id", "/24", "default/x"}) {
        EXPECT_FALSE(parse_address(text, AF_INET)) << text;
    }
    for (const char* text : {"", "10.0.0.1", "fd00::g", "fd00::1/", "::/999"}) {
        EXPECT_FALSE(parse_address(text, AF_INET6)) << text;
    }
    EXPECT_FALSE(parse_address(std::string(500, '1'), AF_INET));
}

// A length that the kernel will refuse is the kernel's to refuse.
TEST(Address, KeepsLengthsThatNoPrefixHas) {
    EXPECT_EQ(parse_address("10.0.0.1/33", AF_INET)->prefix, 33);
}

// The documents were written for libnl's reading.
TEST(Address, AgreesWithLibnlOnEveryWellFormedText) {
    for (const char* text :
         {"10.1.2.3", "0.0.0.0", "255.255.255.255", "10.1.2.3/0", "10.1.2.3/31", "10.1.2.3/010",
          "10.1.2.3/0x1f", "fd00::/64", "::", "::1/128", "2001:DB8::1/0"}) {
        const int family = std::strchr(text, ':') ? AF_INET6 : AF_INET;
        nl_addr* theirs = nullptr;
        ASSERT_EQ(nl_addr_parse(text, family, &theirs), 0) << text;
        char buffer[80];
        EXPECT_EQ(text_of(text, family), nl_addr2str(theirs, buffer, sizeof buffer)) << text;
        nl_addr_put(theirs);
    }
}

TEST(Address, AttributesOfAnotherLengthAreNoAddress) {
    const std::uint8_t bytes[16] = {10, 0, 0, 1};
    EXPECT_EQ(read_address({bytes, 4}, AF_INET, 24)->text(), "10.0.0.1/24");
    EXPECT_FALSE(read_address({bytes, 3}, AF_INET, 24));
    EXPECT_FALSE(read_address({bytes, 16}, AF_INET, 24));
    EXPECT_TRUE(read_address({bytes, 16}, AF_INET6, 24));
}

}  // namespace
