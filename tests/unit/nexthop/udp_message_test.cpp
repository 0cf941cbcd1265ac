// The datagrams of the UDP probe.
#include "nexthop/udp_message.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <limits>
#include <random>
#include <set>

#include "corvosetup/udp.h"
#include "site_documents.h"

namespace {

using corvo::LoadFigures;
using corvo::ProbeReply;
using corvo::ProbeRequest;
using corvo::test::parsed;

ProbeRequest request_of(std::string_view datagram) {
    ProbeRequest request;
    EXPECT_TRUE(corvo::parse_probe_request(datagram, request)) << datagram;
    return request;
}

bool parses(std::string_view datagram) {
    ProbeRequest request;
    ProbeReply reply;
    const bool as_request = corvo::parse_probe_request(datagram, request);
    EXPECT_EQ(corvo::parse_probe_reply(datagram, reply), as_request);
    return as_request;
}

TEST(ProbeTemplate, HasTheEightMembersInTheirOrder) {
    EXPECT_EQ(udp_msg,
              "{\"Sender\": 0, \"Receiver\": 0, \"Wan\": 0, \"RemoteWan\": 0, \"Cpu\": 0, \"Memory\": 0, "
              "\"Connections\": 0, \"Result\": 0}");
}

TEST(ProbeRequestText, IsOneLineFromTheTemplate) {
    EXPECT_EQ(corvo::build_probe_request(udp_msg, 5, 7, std::nullopt),
              "{\"Connections\":0,\"Cpu\":0,\"Memory\":0,\"Receiver\":7,\"RemoteWan\":0,\"Result\":0,"
              "\"Sender\":5,\"Wan\":0}\n");
}

TEST(ProbeRequestText, TellsTheWansWhenGiven) {
    EXPECT_EQ(parsed(corvo::build_probe_request(udp_msg, 5, 7, 3))["Wan"], 3);
}

TEST(ProbeRequestText, KeepsWhatElseTheTemplateSays) {
    const auto text = corvo::build_probe_request("{\"Wan\": 9, \"Result\": 4, \"Site\": \"x\"}", 5, 7, {});
    EXPECT_EQ(text, "{\"Receiver\":7,\"Result\":0,\"Sender\":5,\"Site\":\"x\",\"Wan\":9}\n");
}

TEST(ProbeRequestText, SurvivesATemplateThatIsNone) {
    for (const char* text : {"", "[]", "5", "{"})
        EXPECT_EQ(corvo::build_probe_request(text, 5, 7, {}), "{\"Receiver\":7,\"Result\":0,\"Sender\":5}\n");
}

TEST(ProbeAnswerText, HasExactlySevenMembers) {
    const auto answer = parsed(corvo::build_probe_answer(7, 5, {2, 3, 12.5F, 50.25F}));
    const auto names = answer.getMemberNames();
    EXPECT_EQ(
        std::set<std::string>(names.begin(), names.end()),
        (std::set<std::string>{"Sender", "Receiver", "RemoteWan", "Cpu", "Memory", "Connections", "Result"}));
    EXPECT_EQ(answer["Sender"], 7);
    EXPECT_EQ(answer["Receiver"], 5);
    EXPECT_EQ(answer["RemoteWan"], 3);
    EXPECT_DOUBLE_EQ(answer["Cpu"].asDouble(), 12.5);
    EXPECT_DOUBLE_EQ(answer["Memory"].asDouble(), 50.25);
    EXPECT_EQ(answer["Connections"], 2);
    EXPECT_EQ(answer["Result"], 0);
}

TEST(ProbeAnswerText, FiguresThatAreNotFiniteAreZero) {
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const float infinite = std::numeric_limits<float>::infinity();
    const auto answer = parsed(corvo::build_probe_answer(7, 5, {0, 0, nan, -infinite}));
    EXPECT_EQ(answer["Cpu"].asDouble(), 0);
    EXPECT_EQ(answer["Memory"].asDouble(), 0);
}

TEST(ProbeAnswerText, FitsOneDatagramWhateverTheFigures) {
    const int low = std::numeric_limits<int>::min();
    const float tiny = std::numeric_limits<float>::denorm_min();
    EXPECT_LE(
        corvo::build_probe_answer(low, low, {low, low, -tiny, -std::numeric_limits<float>::max()}).size(),
        corvo::kProbeDatagramSize);
}

TEST(ProbeRequestParser, ReadsSenderReceiverAndWan) {
    const auto request = request_of(corvo::build_probe_request(udp_msg, 5, 7, 3));
    EXPECT_EQ(request.sender, 5);
    EXPECT_EQ(request.receiver, 7);
    EXPECT_EQ(request.wan, 3);
}

TEST(ProbeRequestParser, WhatIsNoObjectDoesNotParse) {
    for (const char* text : {"", " ", "[]", "5", "\"x\"", "null", "true", "{",
                             "{\"Sender\":", "{\"Sender\":1,}x", "\xff\xfe", "{]", "[{\"Sender\":1}]"})
        EXPECT_FALSE(parses(text)) << text;
}

TEST(ProbeRequestParser, IdsOfAnotherTypeAreZero) {
    for (const char* value :
         {"\"x\"", "\"5\"", "[]", "[5]", "{}", "null", "1e12", "-1e300", "9999999999999"}) {
        const auto request = request_of(std::string("{\"Sender\":") + value + ",\"Receiver\":" + value + "}");
        EXPECT_EQ(request.sender, 0) << value;
        EXPECT_EQ(request.receiver, 0) << value;
    }
    const auto absent = request_of("{}");
    EXPECT_EQ(absent.sender, 0);
    EXPECT_EQ(absent.receiver, 0);
}

TEST(ProbeRequestParser, TakesExactlyTheBytesReceived) {
    const std::string text = "{\"Sender\":1,\"Receiver\":2}";
    EXPECT_TRUE(parses(std::string_view(text)));
    EXPECT_FALSE(parses(std::string_view(text).substr(0, text.size() - 1)));
    // A datagram that fills the buffer has no terminator behind it.
    std::string full = "{\"Sender\":1,\"Receiver\":2,\"Pad\":\"";
    full.append(256 - full.size() - 2, 'x').append("\"}");
    ASSERT_EQ(full.size(), 256U);
    EXPECT_EQ(request_of(full).receiver, 2);
}

TEST(ProbeRequestParser, DeepNestingIsNoDocument) {
    EXPECT_FALSE(parses(std::string(256, '[')));
    EXPECT_FALSE(parses(std::string(100'000, '[')));
    std::string objects;
    for (int n = 0; n < 60; ++n) objects += "{\"\":";
    EXPECT_FALSE(parses(objects));
}

TEST(ProbeReplyParser, ReadsTheAnswer) {
    ProbeReply reply;
    ASSERT_TRUE(corvo::parse_probe_reply(corvo::build_probe_answer(7, 5, {2, 3, 12.5F, 50.25F}), reply));
    EXPECT_EQ(reply.sender, 7);
    EXPECT_EQ(reply.receiver, 5);
    EXPECT_EQ(reply.connections, 2);
    EXPECT_DOUBLE_EQ(reply.cpu, 12.5);
    EXPECT_DOUBLE_EQ(reply.memory, 50.25);
    EXPECT_EQ(reply.result, 0);
}

TEST(ProbeReplyParser, ResultIsMinusOneUnlessItIsANumber) {
    for (const char* text :
         {"{}", "{\"Result\":null}", "{\"Result\":\"0\"}", "{\"Result\":[]}", "{\"Result\":1e12}"}) {
        ProbeReply reply;
        ASSERT_TRUE(corvo::parse_probe_reply(text, reply)) << text;
        EXPECT_EQ(reply.result, -1) << text;
    }
}

// A stream of bad datagrams of every kind, with what has to come of each.
class BadDatagrams {
public:
    enum class Kind { kMalformed, kTruncated, kOversized, kWrongType, kWrongId };
    struct Sample {
        Kind kind;
        std::string bytes;  // as received: at most 256
    };

    explicit BadDatagrams(unsigned seed) : random_(seed) {}

    Sample next() {
        const auto kind = static_cast<Kind>(random_() % 5);
        switch (kind) {
            case Kind::kMalformed:
                return {kind, garbage()};
            case Kind::kTruncated: {
                const auto text = valid();
                return {kind, text.substr(0, random_() % (text.size() - 1))};
            }
            case Kind::kOversized:
                return {kind,
                        ("{\"Pad\":\"" + std::string(300, 'x') + "\"," + valid().substr(1)).substr(0, 256)};
            case Kind::kWrongType:
                return {kind, "{\"Sender\":" + odd_value() + ",\"Receiver\":" + odd_value() + "}"};
            case Kind::kWrongId:
                break;
        }
        return {kind, "{\"Sender\":5,\"Receiver\":" +
                          std::to_string(static_cast<int>(random_() % 1000) - 500) + "}"};
    }

private:
    std::string garbage() {
        std::string bytes(random_() % 257, '\0');
        for (auto& byte : bytes) byte = static_cast<char>(random_());
        if (!bytes.empty() && random_() % 2 == 0) bytes[0] = '{';
        return bytes;
    }
    std::string valid() {
        return "{\"Sender\":" + std::to_string(random_() % 1000) +
               ",\"Receiver\":" + std::to_string(random_() % 1000) + "}";
    }
    std::string odd_value() {
        static const char* const kValues[] = {"\"x\"",  "[]",   "{}",     "1e12",
                                              "-1e300", "null", "[[[]]]", "\"\\u0000\""};
        return kValues[random_() % std::size(kValues)];
    }

    std::mt19937 random_;
};

TEST(ProbeRequestParser, StreamOfBadDatagramsDoesNoHarm) {
    const char* asked = std::getenv("CORVO_DATAGRAMS");
    const long count = asked != nullptr ? std::atol(asked) : 50'000;
    BadDatagrams source(7);
    long refused = 0;
    for (long n = 0; n < count; ++n) {
        const auto sample = source.next();
        ProbeRequest request;
        const bool is_object = corvo::parse_probe_request(sample.bytes, request);
        refused += is_object ? 0 : 1;
        switch (sample.kind) {
            case BadDatagrams::Kind::kTruncated:
            case BadDatagrams::Kind::kOversized:
                ASSERT_FALSE(is_object) << sample.bytes;
                break;
            case BadDatagrams::Kind::kWrongType:
                ASSERT_TRUE(is_object) << sample.bytes;
                ASSERT_EQ(request.sender, 0) << sample.bytes;
                ASSERT_EQ(request.receiver, 0) << sample.bytes;
                break;
            case BadDatagrams::Kind::kWrongId:
                ASSERT_TRUE(is_object) << sample.bytes;
                ASSERT_EQ(request.sender, 5) << sample.bytes;
                break;
            case BadDatagrams::Kind::kMalformed:
                break;
        }
    }
    EXPECT_GT(refused, count / 3);
    EXPECT_EQ(request_of(corvo::build_probe_request(udp_msg, 5, 7, 3)).receiver, 7);
}

}  // namespace
