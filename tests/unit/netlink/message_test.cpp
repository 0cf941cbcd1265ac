// Building and reading netlink messages.

#include "netlink/message.h"

#include <gtest/gtest.h>

#include "bytes.h"

namespace {

using corvo::nl::Attr;
using corvo::nl::Attrs;
using corvo::nl::Bytes;
using corvo::nl::MessageView;
using corvo::nl::MessageWriter;
using corvo::test::hex;
using corvo::test::view_of;

TEST(Message, LengthTypeFlagsAndSequenceStandInTheHeader) {
    MessageWriter out;
    out.begin(0x10, 0x605, 7);
    out.end();
    EXPECT_EQ(hex(out.bytes()), "10000000 10000506 07000000 00000000");
}

TEST(Message, AttributesArePaddedToFourBytes) {
    MessageWriter out;
    out.attr_u8(1, 0xab);
    out.attr_u16(2, 0x1234);
    out.attr_u32(3, 0x12345678);
    EXPECT_EQ(hex(out.bytes()), "05000100 ab000000 06000200 34120000 08000300 78563412");
}

TEST(Message, PortsGoOutInNetworkOrder) {
    MessageWriter out;
    out.attr_port(1, 5555);
    EXPECT_EQ(hex(out.bytes()), "06000100 15b30000");
}

TEST(Message, TextsEndInAZeroThatCounts) {
    MessageWriter out;
    out.attr_text(3, "abc");   // the zero fits the padding
    out.attr_text(3, "abcd");  // and here it takes a word of its own
    out.attr_text(3, "");
    EXPECT_EQ(hex(out.bytes()), "08000300 61626300 09000300 61626364 00000000 05000300 00000000");
}

TEST(Message, NestsCarryTheirMarkAndTheLengthOfAllInside) {
    MessageWriter out;
    const std::size_t outer = out.begin_nest(18);
    const std::size_t inner = out.begin_nest(2);
    out.attr_u8(1, 1);
    out.end_nest(inner);
    out.end_nest(outer);
    EXPECT_EQ(hex(out.bytes()), "10001280 0c000280 05000100 01000000");
}

TEST(Message, SeveralMessagesStandBehindEachOther) {
    MessageWriter out;
    for (std::uint16_t type : {20, 21}) {
        out.begin(type, 0);
        out.attr_u8(1, 9);
        out.end();
    }
    Bytes rest = out.bytes();
    MessageView message;
    ASSERT_TRUE(next_message(rest, message));
    EXPECT_EQ(message.head.nlmsg_type, 20);
    ASSERT_TRUE(next_message(rest, message));
    EXPECT_EQ(message.head.nlmsg_type, 21);
    EXPECT_FALSE(next_message(rest, message));
}

TEST(Message, ANestThatOutgrowsItsLengthIsReportedNotSent) {
    MessageWriter out;
    const std::size_t nest = out.begin_nest(1);
    for (int i = 0; i < 9000; ++i) out.attr_u32(1, 0);
    out.end_nest(nest);
    EXPECT_TRUE(out.overflow());
    out.cut(0);
    EXPECT_FALSE(out.overflow());
    const std::vector<std::uint8_t> much(70000);
    out.attr(1, much);
    EXPECT_TRUE(out.overflow());
}

TEST(Message, ReadsBackWhatItWrote) {
    MessageWriter out;
    out.begin(1, 0);
    out.attr_u32(1, 77);
    out.attr_text(2, "veth0");
    out.attr_u16(3, 5);
    out.end();
    int seen = 0;
    for (const Attr& attr : view_of(out.bytes()).attrs(0)) {
        ++seen;
        if (attr.type == 1) {
            EXPECT_EQ(attr.u32(), 77U);
        } else if (attr.type == 2) {
            EXPECT_EQ(attr.text(), "veth0");
        } else {
            EXPECT_EQ(attr.u16(), 5);
        }
    }
    EXPECT_EQ(seen, 3);
}

TEST(Message, NestedAndByteOrderMarksAreNoPartOfTheType) {
    const std::uint8_t bytes[] = {4, 0, 0x12, 0xc0};
    for (const Attr& attr : Attrs(bytes)) EXPECT_EQ(attr.type, 0x12);
}

TEST(Message, CutShortOrLyingBytesEndTheReading) {
    MessageWriter out;
    out.begin(1, 0);
    out.attr_u32(1, 1);
    out.attr_u32(2, 2);
    out.end();
    std::vector<std::uint8_t> bytes(out.bytes().begin(), out.bytes().end());
    MessageView view;
    for (std::size_t size = 0; size < bytes.size(); ++size) {
        Bytes cut(bytes.data(), size);
        EXPECT_FALSE(next_message(cut, view)) << size;
    }
    for (const std::uint8_t length : {0, 1, 3, 200}) {  // of the second attribute
        bytes[24] = length;
        int seen = 0;
        for (const Attr& attr : Attrs(Bytes(bytes).subspan(16))) seen += attr.type > 0;
        EXPECT_EQ(seen, 1) << int{length};
    }
    bytes[0] = 8;  // shorter than the header itself
    Bytes all(bytes);
    EXPECT_FALSE(next_message(all, view));
}

TEST(Message, AttributesTooShortForTheirNumberReadAsZero) {
    const std::uint8_t one[] = {0xff};
    Attr attr{1, one};
    EXPECT_EQ(attr.u8(), 0xff);
    EXPECT_EQ(attr.u16(), 0);
    EXPECT_EQ(attr.u32(), 0U);
    EXPECT_EQ(Attr{}.text(), "");
}

}  // namespace
