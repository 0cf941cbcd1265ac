// The bytes of an echo exchange.
#include "nexthop/icmp_echo.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <vector>

#include "corvosetup/ping_test.h"

namespace {

using corvo::EchoVerdict;

std::uint16_t host_u16(const unsigned char* at) {
    std::uint16_t value;
    std::memcpy(&value, at, sizeof value);
    return value;
}

// A packet as a raw socket delivers it: a 20-byte IP header and an echo reply.
std::vector<unsigned char> reply_packet(std::uint16_t id, std::uint16_t sequence = 12345, int type = 0) {
    std::vector<unsigned char> packet(84);
    packet[0] = 0x45;
    packet[20] = static_cast<unsigned char>(type);
    std::memcpy(&packet[24], &id, 2);
    std::memcpy(&packet[26], &sequence, 2);
    return packet;
}

EchoVerdict judge(const std::vector<unsigned char>& packet, pid_t process) {
    return corvo::judge_echo_reply(packet.data(), packet.size(), process);
}

TEST(Checksum, MatchesTheExampleOfTheRfc) {
    const unsigned char bytes[] = {0x00, 0x01, 0xf2, 0x03, 0xf4, 0xf5, 0xf6, 0xf7};
    const std::uint16_t sum = corvo::internet_checksum(bytes, sizeof bytes);
    unsigned char as_sent[2];
    std::memcpy(as_sent, &sum, 2);
    EXPECT_EQ(as_sent[0], 0x22);
    EXPECT_EQ(as_sent[1], 0x0d);
}

TEST(Checksum, OddLastByteIsTheFirstOfItsWord) {
    const unsigned char odd[] = {0x12, 0x34, 0x56};
    const unsigned char padded[] = {0x12, 0x34, 0x56, 0x00};
    EXPECT_EQ(corvo::internet_checksum(odd, 3), corvo::internet_checksum(padded, 4));
}

TEST(Checksum, OfNothingIsAllOnes) {
    EXPECT_EQ(corvo::internet_checksum(nullptr, 0), 0xffff);
}

TEST(Checksum, CarriesAreFoldedForEveryLength) {
    const std::vector<unsigned char> ones(200'001, 0xff);
    EXPECT_EQ(corvo::internet_checksum(ones.data(), 200'000), 0);
    EXPECT_EQ(corvo::internet_checksum(ones.data() + 1, 200'000), 0);  // unaligned
}

TEST(Checksum, MemberFunctionIsTheSameAndTakesNull) {
    ProcPingTest test;
    unsigned short words[] = {0x1234, 0xabcd, 0x00ff};
    EXPECT_EQ(test.checksum(words, 6), corvo::internet_checksum(words, 6));
    EXPECT_EQ(test.checksum(words, 5), corvo::internet_checksum(words, 5));
    EXPECT_EQ(test.checksum(nullptr, 6), 0xffff);
}

TEST(EchoRequest, IsAnEchoOf64BytesWithZeroPayload) {
    const auto request = corvo::build_echo_request(4711);
    ASSERT_EQ(request.size(), 64U);
    EXPECT_EQ(request[0], 8);
    EXPECT_EQ(request[1], 0);
    for (std::size_t at = 8; at < 64; ++at) EXPECT_EQ(request[at], 0) << at;
}

TEST(EchoRequest, IdentifierAndSequenceAreInHostByteOrder) {
    const auto request = corvo::build_echo_request(0x1234);
    EXPECT_EQ(host_u16(&request[4]), 0x1234);
    EXPECT_EQ(host_u16(&request[6]), 12345);
    EXPECT_EQ(request[6], 0x39);  // not network order
    EXPECT_EQ(request[7], 0x30);
}

TEST(EchoRequest, IdentifierIsTheLow16BitsOfTheProcessId) {
    EXPECT_EQ(host_u16(&corvo::build_echo_request(0x3abcd)[4]), 0xabcd);
}

TEST(EchoRequest, ChecksumCoversAll64Bytes) {
    for (const pid_t process : {1, 2, 255, 256, 4711, 65535, 70000}) {
        const auto request = corvo::build_echo_request(process);
        EXPECT_EQ(corvo::internet_checksum(request.data(), request.size()), 0) << process;
    }
}

TEST(EchoReply, OfThisProcessMatches) {
    EXPECT_EQ(judge(reply_packet(4711), 4711), EchoVerdict::kMatch);
    EXPECT_EQ(judge(reply_packet(65535), 65535), EchoVerdict::kMatch);
}

TEST(EchoReply, ForAnotherProcessIsPassedOver) {
    EXPECT_EQ(judge(reply_packet(4712), 4711), EchoVerdict::kOther);
}

TEST(EchoReply, WithAnotherSequenceIsPassedOver) {
    EXPECT_EQ(judge(reply_packet(4711, 12346), 4711), EchoVerdict::kOther);
    EXPECT_EQ(judge(reply_packet(4711, 0x3930), 4711), EchoVerdict::kOther);  // network order
}

TEST(EchoReply, OurOwnRequestIsNoReply) {
    EXPECT_EQ(judge(reply_packet(4711, 12345, 8), 4711), EchoVerdict::kOther);
    EXPECT_EQ(judge(reply_packet(4711, 12345, 3), 4711), EchoVerdict::kOther);
}

TEST(EchoReply, CodeAndAddressAreNotLookedAt) {
    auto packet = reply_packet(4711);
    packet[21] = 9;
    packet[12] = 203;
    EXPECT_EQ(judge(packet, 4711), EchoVerdict::kMatch);
}

TEST(EchoReply, ProcessIdAbove65535NeverMatches) {
    EXPECT_EQ(judge(reply_packet(5), 65536 + 5), EchoVerdict::kOther);
    EXPECT_EQ(judge(reply_packet(0), 65536), EchoVerdict::kOther);
}

TEST(EchoReply, IpHeaderWithOptionsIsNotAllowedFor) {
    auto packet = reply_packet(4711);
    packet[0] = 0x46;
    packet.insert(packet.begin() + 20, 4, 1);
    EXPECT_EQ(judge(packet, 4711), EchoVerdict::kOther);
}

TEST(EchoReply, Below28BytesIsShort) {
    auto packet = reply_packet(4711);
    packet.resize(27);
    EXPECT_EQ(judge(packet, 4711), EchoVerdict::kShort);
    packet = reply_packet(4711);
    packet.resize(28);
    EXPECT_EQ(judge(packet, 4711), EchoVerdict::kMatch);
    EXPECT_EQ(corvo::judge_echo_reply(nullptr, 0, 4711), EchoVerdict::kShort);
}

TEST(EchoReply, RandomPacketsAreNeverOurs) {
    std::mt19937 random(1);
    std::vector<unsigned char> packet(192);
    for (int n = 0; n < 20'000; ++n) {
        for (auto& byte : packet) byte = static_cast<unsigned char>(random());
        packet[24] = static_cast<unsigned char>(~4711 & 0xff);
        const auto length = random() % (packet.size() + 1);
        EXPECT_NE(corvo::judge_echo_reply(packet.data(), length, 4711), EchoVerdict::kMatch);
    }
}

}  // namespace
