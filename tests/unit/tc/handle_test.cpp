// Handles and class ids, as text and as number.

#include "netlink/tc_handle.h"

#include <gtest/gtest.h>
#include <netlink/errno.h>
#include <netlink/route/tc.h>
#include <stdlib.h>

#include <random>
#include <thread>
#include <vector>

#include "support/files.h"

namespace corvo::tc {
namespace {

// A directory in the place of libnl's own, for the file with the names of classes. It is read once in the
// life of a process: libnl 3.7 does not survive its reading it again.
class Names : public testing::Test {
protected:
    static void SetUpTestSuite() {
        ::setenv("NLSYSCONFDIR", directory().path().c_str(), 1);
        test::write_file(file(), "1:55 silver\n2:7 bronze\n3: lan\n");
        ASSERT_EQ(rtnl_tc_read_classid_file(), 0);
    }
    static void TearDownTestSuite() { ::unsetenv("NLSYSCONFDIR"); }
    static const test::TempDir& directory() {
        static const test::TempDir made;
        return made;
    }
    static std::string file() { return directory() / "classid"; }
};

TEST_F(Names, OfTheClassFileAreHandles) {
    std::uint32_t handle = 0;
    EXPECT_EQ(parse_handle("silver", handle), HandleStatus::kOk);
    EXPECT_EQ(handle, 0x10055U);
    EXPECT_TRUE(parse_or_generate("bronze", 0x10000, handle));
    EXPECT_EQ(handle, 0x20007U);
}

TEST_F(Names, OfAClassWithAMinorNumberIsThatClassOfItsQdisc) {
    std::uint32_t handle = 0;
    EXPECT_EQ(parse_handle("silver:10", handle), HandleStatus::kInvalid) << "silver is no qdisc";
    EXPECT_EQ(parse_handle("lan:10", handle), HandleStatus::kOk);
    EXPECT_EQ(handle, 0x30010U);
}

TEST_F(Names, OfNobodyAreGeneratedUnderTheParentAndRemembered) {
    std::uint32_t generated = 0;
    ASSERT_TRUE(parse_or_generate("gold", 0x10000, generated));
    EXPECT_EQ(TC_H_MAJ(generated), 0x10000U);
    std::uint32_t again = 0;
    EXPECT_TRUE(parse_or_generate("gold", 0x50000, again));
    EXPECT_EQ(again, generated);
    EXPECT_NE(test::read_file(file()).find("gold"), std::string::npos) << test::read_file(file());
}

TEST_F(Names, CannotBeGeneratedWithoutADirectoryForThem) {
    ::setenv("NLSYSCONFDIR", "/nonexistent", 1);
    std::uint32_t handle = 0xdeadbeef;
    EXPECT_FALSE(parse_or_generate("platinum", 0x10000, handle));
    ::setenv("NLSYSCONFDIR", directory().path().c_str(), 1);
    EXPECT_EQ(handle, 0xdeadbeefU);
}

struct Number {
    const char* text;
    std::uint32_t handle;
};
void PrintTo(const Number& number, std::ostream* out) {
    *out << '"' << number.text << '"';
}

class Numbers : public testing::TestWithParam<Number> {};

TEST_P(Numbers, AreRead) {
    std::uint32_t handle = 0xdeadbeef;
    EXPECT_EQ(parse_number(GetParam().text, handle), HandleStatus::kOk);
    EXPECT_EQ(handle, GetParam().handle);
}

INSTANTIATE_TEST_SUITE_P(
    Forms, Numbers,
    testing::Values(Number{"root", 0xffffffff}, Number{"ROOT", 0xffffffff}, Number{"none", 0},
                    Number{"ingress", 0xfffffff1}, Number{"1:", 0x10000}, Number{"1:1", 0x10001},
                    Number{"1:10", 0x10010}, Number{"1:a0", 0x100a0}, Number{"1:A0", 0x100a0},
                    Number{"1:100", 0x10100}, Number{":3c0", 0x3c0}, Number{"ffff:", 0xffff0000},
                    Number{"ffff:fff1", 0xfffffff1}, Number{"800:", 0x8000000}, Number{"120:", 0x1200000},
                    Number{"10010", 0x10010}, Number{"bad", 0xbad}, Number{"0x10:0x20", 0x100020},
                    Number{" 1:2", 0x10002}, Number{"0:0", 0}, Number{":", 0}, Number{"1:0", 0x10000}));

class Refused : public testing::TestWithParam<const char*> {};

TEST_P(Refused, IsNoNumber) {
    std::uint32_t handle = 0xdeadbeef;
    EXPECT_NE(parse_number(GetParam(), handle), HandleStatus::kOk);
    EXPECT_EQ(handle, 0xdeadbeefU);
}

INSTANTIATE_TEST_SUITE_P(Texts, Refused,
                         testing::Values("", "x:y:z", "foo", "1:2:3", "1:x", "10000:", "1:10000",
                                         "x:", "1:1 ", "-1:", "wan:10"));

// Every text that the two read differently would build a tree somewhere else than expected.
TEST(Handle, ReadsNumbersAsTheLibraryDoes) {
    std::mt19937 random(7);
    const std::string alphabet = "0123abfFxX:: -rot\t";
    std::uniform_int_distribution<std::size_t> letter(0, alphabet.size() - 1);
    std::uniform_int_distribution<int> length(0, 9);
    int read = 0;
    for (int i = 0; i < 200000; ++i) {
        std::string text;
        for (int n = length(random); n > 0; --n) text += alphabet[letter(random)];
        std::uint32_t ours = 0;
        std::uint32_t theirs = 0;
        const bool we_can = parse_number(text.c_str(), ours) == HandleStatus::kOk;
        const bool they_can = rtnl_tc_str2handle(text.c_str(), &theirs) == 0;
        ASSERT_EQ(we_can, they_can) << '"' << text << '"';
        if (!we_can) continue;
        ASSERT_EQ(ours, theirs) << '"' << text << '"';
        ++read;
    }
    EXPECT_GT(read, 10000);
}

TEST(Handle, UnknownNameIsNotFound) {
    std::uint32_t handle = 0;
    EXPECT_EQ(parse_handle("nosuchclass", handle), HandleStatus::kNotFound);
    EXPECT_EQ(parse_handle("nosuchclass:10", handle), HandleStatus::kNotFound);
}

TEST(Handle, TextThatCannotStandInTheClassFileIsInvalid) {
    std::uint32_t handle = 0;
    for (const char* text : {"", "two words", "line\nbreak", "tab\there", "semi;colon", "#comment", "a/b"}) {
        EXPECT_EQ(parse_handle(text, handle), HandleStatus::kInvalid) << text;
    }
    EXPECT_EQ(parse_handle(std::string(64, 'q').c_str(), handle), HandleStatus::kInvalid);
}

TEST(Handle, NothingIsGeneratedForATextWithAColon) {
    std::uint32_t handle = 0xdeadbeef;
    EXPECT_FALSE(parse_or_generate("x:y:z", 0xffffffff, handle));
    EXPECT_FALSE(parse_or_generate("wan:10", 0x10000, handle));
    EXPECT_EQ(handle, 0xdeadbeefU);
}

TEST(Handle, NumbersNeedNoParentAndNoFile) {
    std::uint32_t handle = 0;
    EXPECT_TRUE(parse_or_generate("1:20", 0, handle));
    EXPECT_EQ(handle, 0x10020U);
}

TEST(Handle, FormatsAsTheLibraryDoes) {
    std::mt19937 random(11);
    std::vector<std::uint32_t> handles{0, 0xffffffff, 0xfffffff1, 0x10000, 0x10010, 0xffff0000, 0x3c0, 1};
    for (int i = 0; i < 1000; ++i) handles.push_back(static_cast<std::uint32_t>(random()));
    for (const std::uint32_t handle : handles) {
        char text[32];
        EXPECT_EQ(format_handle(handle), rtnl_tc_handle2str(handle, text, sizeof text));
    }
}

TEST(Handle, FormatsWhatItReads) {
    EXPECT_EQ(format_handle(0x10000), "1:");
    EXPECT_EQ(format_handle(0x10010), "1:10");
    EXPECT_EQ(format_handle(0x3c0), ":3c0");
    EXPECT_EQ(format_handle(0xffffffff), "root");
    EXPECT_EQ(format_handle(0xfffffff1), "ingress");
    EXPECT_EQ(format_handle(0), "none");
}

TEST(Handle, NamesAreLookedUpFromManyThreads) {
    std::vector<std::thread> threads;
    for (int i = 0; i < 16; ++i) {
        threads.emplace_back([] {
            std::uint32_t handle = 0;
            for (int n = 0; n < 200; ++n) {
                EXPECT_EQ(parse_handle("nosuchclass", handle), HandleStatus::kNotFound);
                EXPECT_EQ(parse_handle("1:30", handle), HandleStatus::kOk);
            }
        });
    }
    for (auto& thread : threads) thread.join();
}

}  // namespace
}  // namespace corvo::tc
