#include "wire.h"

#include <gtest/gtest.h>

#include <tuple>

namespace wire = vx::wire;
using wire::Progress;

namespace {

std::string request(const std::string& service, const std::string& method, const std::string& payload) {
    return wire::request_head(service, method, payload.size()) + payload;
}

TEST(Wire, RequestHasTheDocumentedBytes) {
    EXPECT_EQ(request("vesta", "get_devid", "{}"),
              std::string("VXQ1\x00\x00\x00\x02\x00\x05\x00\x09", 12) + "vestaget_devid{}");
}

TEST(Wire, ReplyHasTheDocumentedBytes) {
    EXPECT_EQ(wire::reply_frame(wire::Status::kOk, "{\"error\":0}"),
              std::string("VXR1\x00\x00\x00\x0b\x00\x00\x00\x00", 12) + "{\"error\":0}");
    EXPECT_EQ(wire::reply_frame(wire::Status::kNoMethod, ""),
              std::string("VXR1\x00\x00\x00\x00\x00\x00\x00\x01", 12));
}

TEST(Wire, RequestIsReadBackInItsParts) {
    const std::string bytes = request("nm-halor", "UpdateActiveHUB", std::string("a\0b", 3));
    const wire::Request parsed = wire::parse_request(bytes);
    ASSERT_EQ(parsed.progress, Progress::kDone);
    EXPECT_EQ(parsed.service, "nm-halor");
    EXPECT_EQ(parsed.method, "UpdateActiveHUB");
    EXPECT_EQ(parsed.payload, std::string_view("a\0b", 3));
    EXPECT_EQ(parsed.size, bytes.size());
}

TEST(Wire, EveryBeginningOfARequestAsksForMore) {
    const std::string bytes = request("vesta", "read_json", "{\"path\": \"/x\"}");
    for (std::size_t cut = 0; cut < bytes.size(); ++cut) {
        EXPECT_EQ(wire::parse_request(std::string_view(bytes).substr(0, cut)).progress, Progress::kMore)
            << cut;
    }
}

TEST(Wire, WrongMagicIsRefusedAtItsFirstByte) {
    EXPECT_EQ(wire::parse_request("G").progress, Progress::kBad);
    EXPECT_EQ(wire::parse_request("VXQ2").progress, Progress::kBad);
    EXPECT_EQ(wire::parse_request("VXR1").progress, Progress::kBad);
    EXPECT_EQ(wire::parse_reply_head("VXQ1").progress, Progress::kBad);
}

TEST(Wire, BytesBehindARequestAreRefused) {
    EXPECT_EQ(wire::parse_request(request("a", "b", "c") + "d").progress, Progress::kBad);
}

TEST(Wire, PayloadOf16MiBIsAcceptedAndOneByteMoreIsNot) {
    EXPECT_EQ(wire::parse_request(wire::request_head("a", "b", 16U << 20U)).progress, Progress::kMore);
    EXPECT_EQ(wire::parse_request(wire::request_head("a", "b", (16U << 20U) + 1)).progress, Progress::kBad);
    EXPECT_EQ(wire::parse_reply_head(wire::reply_head(wire::Status::kOk, 16U << 20U)).progress,
              Progress::kDone);
    EXPECT_EQ(wire::parse_reply_head(wire::reply_head(wire::Status::kOk, (16U << 20U) + 1)).progress,
              Progress::kBad);
}

TEST(Wire, NamesInARequestAreJudgedBeforeThePayloadArrives) {
    for (const auto& [service, method] : {std::pair<std::string, std::string>{"../x", "m"},
                                          {"s", "a/b"},
                                          {".hidden", "m"},
                                          {"s", std::string("a\0", 2)},
                                          {"s p", "m"}}) {
        EXPECT_EQ(wire::parse_request(wire::request_head(service, method, 1000)).progress, Progress::kBad);
    }
}

TEST(Wire, EmptyAndOverlongNamesAreRefused) {
    EXPECT_EQ(wire::parse_request(request("", "m", "")).progress, Progress::kBad);
    EXPECT_EQ(wire::parse_request(request("s", "", "")).progress, Progress::kBad);
    EXPECT_EQ(wire::parse_request(request(std::string(64, 's'), "m", "")).progress, Progress::kDone);
    EXPECT_EQ(wire::parse_request(request(std::string(65, 's'), "m", "")).progress, Progress::kBad);
    EXPECT_EQ(wire::parse_request(request("s", std::string(65, 'm'), "")).progress, Progress::kBad);
}

TEST(Wire, ValidNamesAreTheServicesOwnAndNoPaths) {
    for (const char* name : {"vesta", "TarnService", "nm-morin-handler", "Corvo_CPU_tune", "a.b", "0"}) {
        EXPECT_TRUE(wire::valid_name(name)) << name;
    }
    for (const char* name :
         {"", "/", "a/b", "..", ".", ".a", "a b", "a\n", "\xc3\xa4", "a\\b", "%n", "$(x)"}) {
        EXPECT_FALSE(wire::valid_name(name)) << name;
    }
}

TEST(Wire, ReplyHeadIsCompleteWithItsTwelfthByte) {
    const std::string head = wire::reply_head(wire::Status::kRefused, 0);
    EXPECT_EQ(wire::parse_reply_head(std::string_view(head).substr(0, 11)).progress, Progress::kMore);
    const auto parsed = wire::parse_reply_head(head);
    EXPECT_EQ(parsed.progress, Progress::kDone);
    EXPECT_EQ(parsed.status, wire::Status::kRefused);
}

TEST(Wire, AFailureWithAPayloadIsNoReply) {
    EXPECT_EQ(wire::parse_reply_head(wire::reply_head(wire::Status::kRefused, 1)).progress, Progress::kBad);
}

}  // namespace
