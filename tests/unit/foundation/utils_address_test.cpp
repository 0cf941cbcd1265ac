// Addresses, masks and hardware addresses.
#include <arpa/inet.h>

#include <array>
#include <bit>
#include <climits>
#include <cstring>

#include <gtest/gtest.h>

#include "corvosetup/utils.h"

namespace {

std::string tun_addr(int a, int b) {
    std::string out = "stale";
    gen_tun_addr4(a, b, out);
    return out;
}

TEST(TunnelAddress, FirstPairsOfTheRange) {
    EXPECT_EQ(tun_addr(1, 1), "198.19.0.0");
    EXPECT_EQ(tun_addr(1, 2), "198.19.0.1");
    EXPECT_EQ(tun_addr(2, 1), "198.19.0.8");
}

TEST(TunnelAddress, EachFirstNumberOwnsEightAddresses) {
    for (int a = 1; a < 8192; a += 7)
        for (int b = 1; b <= 8; ++b) {
            const int n = 8 * a + b - 9;
            EXPECT_EQ(tun_addr(a, b), "198.19." + std::to_string(n / 256) + "." + std::to_string(n % 256));
        }
}

TEST(TunnelAddress, EndOfTheRange) {
    EXPECT_EQ(tun_addr(8192, 8), "198.19.255.255");
}

// Beyond the range only the arithmetic on the word counts: the carry runs from the first octet to the second.
TEST(TunnelAddress, BeyondTheRangeKeepsTheWordArithmetic) {
    for (const auto& [a, b] : {std::pair{8193, 1},
                               {0, 0},
                               {-1, 3},
                               {INT_MAX, INT_MAX},
                               {INT_MIN, INT_MIN},
                               {536870912, 9},
                               {123456789, -5}}) {
        const std::uint32_t n = 8U * static_cast<std::uint32_t>(a) + static_cast<std::uint32_t>(b) - 9U;
        std::uint32_t word = htonl(n);
        if (std::endian::native == std::endian::little) word += 0x13C6;
        char text[INET_ADDRSTRLEN];
        in_addr address{word};
        EXPECT_EQ(tun_addr(a, b), inet_ntop(AF_INET, &address, text, sizeof text));
    }
}

TEST(TunnelAddress, CarryGoesFromTheFirstOctetIntoTheSecond) {
    EXPECT_EQ(tun_addr(0x3a000000 / 8, 9), "0.20.0.0");  // 58 + 198 = 256
    EXPECT_EQ(tun_addr(0, 0), "197.19.0.248");           // n = -9: ff.ff.ff.f7 plus the carries
}

int checked(std::string ip) {
    return check_ip_correctness(ip);
}

TEST(AddressCheck, AcceptsBothFamilies) {
    EXPECT_EQ(checked("10.0.0.1"), 0);
    EXPECT_EQ(checked("fe80::1"), 0);
    EXPECT_EQ(checked("::"), 0);
}

TEST(AddressCheck, DotDecidesBeforeColon) {
    EXPECT_EQ(checked("::ffff:10.0.0.1"), -3007);
}

TEST(AddressCheck, MalformedAddressIs3007) {
    for (const char* ip : {"10.1", "1.2.3.4.5", "256.1.1.1", "1.2.3.4 ", "fe80::1%eth0", "1::2::3", ".", ":",
                           "1.2.3.4;id", "0x7f.0.0.1"})
        EXPECT_EQ(checked(ip), -3007) << ip;
}

TEST(AddressCheck, NeitherFormIs3004) {
    for (const char* ip : {"abc", "", "10", "localhost"}) EXPECT_EQ(checked(ip), -3004) << ip;
}

TEST(AddressCheck, TextWithANulInsideIsNoAddress) {
    EXPECT_EQ(checked(std::string("10.0.0.1\0;id", 12)), -3007);
    EXPECT_EQ(str2uint32_t(std::string("10.0.0.1\0x", 10)), 0U);
}

TEST(AddressValue, IsInHostOrder) {
    EXPECT_EQ(str2uint32_t("1.2.3.4"), 0x01020304U);
    EXPECT_EQ(str2uint32_t("255.255.255.255"), 0xffffffffU);
}

TEST(AddressValue, IsZeroWhenItDoesNotParse) {
    for (const char* ip : {"", "abc", "1.2.3", "fe80::1", "1.2.3.4/24"})
        EXPECT_EQ(str2uint32_t(ip), 0U) << ip;
}

TEST(PrefixText, OrdinaryLengths) {
    EXPECT_EQ(prefix2uint32_t("1"), 0x80000000U);
    EXPECT_EQ(prefix2uint32_t("24"), 0xffffff00U);
    EXPECT_EQ(prefix2uint32_t("31"), 0xfffffffeU);
    EXPECT_EQ(prefix2uint32_t("32"), 0xffffffffU);
}

TEST(PrefixText, ZeroGivesAllOnes) {
    EXPECT_EQ(prefix2uint32_t("0"), 0xffffffffU);
    EXPECT_EQ(prefix2uint32_t(""), 0xffffffffU);
    EXPECT_EQ(prefix2uint32_t("abc"), 0xffffffffU);
}

TEST(PrefixText, OnlyTheLowEightBitsCountAndTheShiftIsModulo32) {
    EXPECT_EQ(prefix2uint32_t("280"), prefix2uint32_t("24"));  // 256 + 24
    EXPECT_EQ(prefix2uint32_t("33"), 0x80000000U);             // shift 31
    EXPECT_EQ(prefix2uint32_t("64"), 0xffffffffU);
    EXPECT_EQ(prefix2uint32_t("-1"), prefix2uint32_t("255"));
    EXPECT_EQ(prefix2uint32_t("255"), 0xfffffffeU);  // (32 - 255) modulo 32 is 1
    EXPECT_EQ(prefix2uint32_t(" 24x"), 0xffffff00U);
    prefix2uint32_t("99999999999999999999");  // defined for every text
}

std::array<int, 4> bytes(std::uint32_t mask) {
    unsigned char b[4];
    std::memcpy(b, &mask, 4);
    return {b[0], b[1], b[2], b[3]};
}

TEST(PrefixMask, IsInNetworkOrder) {
    EXPECT_EQ(bytes(prefix_to_network(24)), (std::array<int, 4>{255, 255, 255, 0}));
    EXPECT_EQ(bytes(prefix_to_network(1)), (std::array<int, 4>{128, 0, 0, 0}));
    EXPECT_EQ(bytes(prefix_to_network(32)), (std::array<int, 4>{255, 255, 255, 255}));
}

TEST(PrefixMask, AnyOtherValueGivesAllOnes) {
    for (const unsigned prefix : {0U, 33U, 64U, UINT_MAX}) EXPECT_EQ(prefix_to_network(prefix), UINT_MAX);
}

TEST(NetworkAddress, HostBitsAreCleared) {
    std::string ip = "10.1.2.3";
    EXPECT_EQ(network_addr(ip, 24), 0);
    EXPECT_EQ(ip, "10.1.2.0");
    EXPECT_EQ(network_addr(ip, 24), 0);
    EXPECT_EQ(ip, "10.1.2.0");
    EXPECT_EQ(network_addr(ip, 1), 0);
    EXPECT_EQ(ip, "0.0.0.0");
    ip = "1.2.3.4";
    EXPECT_EQ(network_addr(ip, 32), 0);
    EXPECT_EQ(ip, "1.2.3.4");
}

TEST(NetworkAddress, EmptyTextIs3003BeforeThePrefixIsLookedAt) {
    std::string ip;
    EXPECT_EQ(network_addr(ip, 24), -3003);
    EXPECT_EQ(network_addr(ip, 0), -3003);
}

TEST(NetworkAddress, PrefixOutsideTheRangeIs3004AndLeavesTheText) {
    for (const unsigned prefix : {0U, 33U, UINT_MAX}) {
        std::string ip = "10.1.2.3";
        EXPECT_EQ(network_addr(ip, prefix), -3004);
        EXPECT_EQ(ip, "10.1.2.3");
    }
}

TEST(NetworkAddress, UnparsableTextIs3007AndStays) {
    for (const char* text : {"abc", "10.1", "fe80::1", "10.1.2.3/24"}) {
        std::string ip = text;
        EXPECT_EQ(network_addr(ip, 24), -3007) << text;
        EXPECT_EQ(ip, text);
    }
}

std::array<int, 6> mac_of(const std::string& text, int expected) {
    char out[7] = {'x', 'x', 'x', 'x', 'x', 'x', 'x'};
    EXPECT_EQ(str2mac(text, out), expected) << text;
    EXPECT_EQ(out[6], 'x');  // six bytes and no more
    std::array<int, 6> octets{};
    for (std::size_t i = 0; i < 6; ++i) octets[i] = static_cast<unsigned char>(out[i]);
    return octets;
}

TEST(HardwareAddress, SixHexOctets) {
    EXPECT_EQ(mac_of("00:11:22:aA:Ff:1", 0), (std::array<int, 6>{0, 0x11, 0x22, 0xaa, 0xff, 1}));
}

TEST(HardwareAddress, FewerThanSixAreZeroedAnd3004) {
    for (const char* text :
         {"00:11:22:33:44", "", "zz:11:22:33:44:55", "11-22-33-44-55-66", "11:22:33:44:55:"})
        EXPECT_EQ(mac_of(text, -3004), (std::array<int, 6>{})) << text;
}

TEST(HardwareAddress, WhatFollowsIsIgnored) {
    EXPECT_EQ(mac_of("01:02:03:04:05:06:07", 0), (std::array<int, 6>{1, 2, 3, 4, 5, 6}));
}

TEST(HardwareAddress, NullOutputIs3002) {
    EXPECT_EQ(str2mac("01:02:03:04:05:06", nullptr), -3002);
}

}  // namespace
