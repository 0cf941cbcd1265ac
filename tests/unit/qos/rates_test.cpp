// Percentages into class rates.

#include "qos/qos_rates.h"

#include <gtest/gtest.h>

#include "foundation/json.h"

namespace corvo::qos {
namespace {

Json::Value json(const char* text) {
    Json::Value value;
    EXPECT_TRUE(parse_json(text, value)) << text;
    return value;
}

using Status = Percentages::Status;

struct Document {
    const char* text;
    Status status;
    std::vector<unsigned> values;
};
void PrintTo(const Document& document, std::ostream* out) {
    *out << document.text;
}

class Documents : public testing::TestWithParam<Document> {};

TEST_P(Documents, GiveTheirPercentages) {
    const Percentages found = read_percentages(json(GetParam().text));
    EXPECT_EQ(found.status, GetParam().status);
    if (found.status == Status::kOk) {
        EXPECT_EQ(found.values, GetParam().values);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Rate, Documents,
    testing::Values(Document{R"({"QOS":{"RATE":[50,30]}})", Status::kOk, {50, 30}},
                    Document{R"({"QOS":{"RATE":[]}})", Status::kOk, {}},
                    Document{R"({"QOS":{}})", Status::kOk, {}}, Document{R"({})", Status::kOk, {}},
                    Document{R"({"QOS":null})", Status::kOk, {}},
                    Document{R"({"QOS":{"RATE":[50.9,true,null]}})", Status::kOk, {50, 1, 0}},
                    Document{R"({"QOS":{"RATE":[4294967295,1]}})", Status::kOk, {4294967295U, 1}},
                    Document{R"({"QOS":{"RATE":null}})", Status::kMissing, {}},
                    Document{R"({"QOS":[1]})", Status::kMissing, {}},
                    Document{R"({"QOS":"x"})", Status::kMissing, {}}, Document{R"([])", Status::kMissing, {}},
                    Document{R"({"QOS":{"RATE":{}}})", Status::kMalformed, {}},
                    Document{R"({"QOS":{"RATE":"50"}})", Status::kMalformed, {}},
                    Document{R"({"QOS":{"RATE":50}})", Status::kMalformed, {}},
                    Document{R"({"QOS":{"RATE":[50,-1]}})", Status::kMalformed, {}},
                    Document{R"({"QOS":{"RATE":["50"]}})", Status::kMalformed, {}},
                    Document{R"({"QOS":{"RATE":[[1]]}})", Status::kMalformed, {}},
                    Document{R"({"QOS":{"RATE":[4294967296]}})", Status::kMalformed, {}},
                    Document{R"({"QOS":{"RATE":[1e30]}})", Status::kMalformed, {}}));

TEST(Rates, SumDoesNotWrap) {
    EXPECT_EQ(sum_of({4294967295U, 2}), 4294967297U);
}

TEST(Rates, LaterOfEqualLargestWins) {
    EXPECT_EQ(index_of_largest({50, 50}), 1);
    EXPECT_EQ(index_of_largest({60, 0, 30}), 0);
    EXPECT_EQ(index_of_largest({10, 30, 20, 30, 5}), 3);
    EXPECT_EQ(index_of_largest({0, 0}), 1);
    EXPECT_EQ(index_of_largest({}), -1);
}

TEST(Rates, ClassRateIsTheProductBeforeTheDivision) {
    EXPECT_EQ(class_of(1250000, 33, 2).rate, 412500U);
    EXPECT_EQ(class_of(199, 50, 2).rate, 99U);
    EXPECT_EQ(class_of(99, 1, 2).rate, 0U);
    EXPECT_EQ(class_of(12500000000, 49, 2).rate, 6125000000U);
    EXPECT_EQ(class_of(1250000, 33, 7).prio, 7U);
    EXPECT_EQ(class_of(1250000, 33, 7).reserved, 0U);
}

struct Default {
    const char* text;
    std::size_t classes;
    unsigned expected;
};
void PrintTo(const Default& document, std::ostream* out) {
    *out << document.text;
}

class DefaultClass : public testing::TestWithParam<Default> {};

TEST_P(DefaultClass, IsReadAndCorrected) {
    EXPECT_EQ(default_class(json(GetParam().text), GetParam().classes), GetParam().expected)
        << GetParam().text;
}

INSTANTIATE_TEST_SUITE_P(Forms, DefaultClass,
                         testing::Values(Default{R"({"QOS":{}})", 5, 3}, Default{R"({"QOS":{}})", 3, 2},
                                         Default{R"({"QOS":{"DEFAULT_CLASS":2}})", 5, 2},
                                         Default{R"({"QOS":{"DEFAULT_CLASS":"2"}})", 5, 2},
                                         Default{R"({"QOS":{"DEFAULT_CLASS":"x"}})", 5, 4},
                                         Default{R"({"QOS":{"DEFAULT_CLASS":0}})", 5, 4},
                                         Default{R"({"QOS":{"DEFAULT_CLASS":4}})", 5, 4},
                                         Default{R"({"QOS":{"DEFAULT_CLASS":5}})", 5, 4},
                                         Default{R"({"QOS":{"DEFAULT_CLASS":-1}})", 5, 3},
                                         Default{R"({"QOS":{"DEFAULT_CLASS":"-1"}})", 5, 4},
                                         Default{R"({"QOS":{"DEFAULT_CLASS":[2]}})", 5, 3},
                                         Default{R"({"QOS":{"DEFAULT_CLASS":null}})", 5, 3},
                                         Default{R"({"QOS":{"RATE":[]}})", 1, 0}));

TEST(Rates, RemainderIsASigned32BitFigure) {
    EXPECT_EQ(remainder_of(1000, {{10, 1, 0}, {990, 2, 0}}), 0);
    EXPECT_EQ(remainder_of(1000, {{10, 1, 0}, {500, 2, 0}}), 490);
    EXPECT_EQ(remainder_of(1000, {{10, 1, 0}, {1000, 2, 0}}), -10);
    EXPECT_EQ(remainder_of(3000000000, {{30000000, 1, 0}}), static_cast<std::int32_t>(2970000000U));
    EXPECT_LT(remainder_of(3000000000, {{30000000, 1, 0}}), 0);
    EXPECT_EQ(remainder_of(0x100000000, {{0, 1, 0}}), 0);
}

struct Ifb {
    const char* dev;
    int number;
};
void PrintTo(const Ifb& ifb, std::ostream* out) {
    *out << '"' << ifb.dev << '"';
}

class IfbNumber : public testing::TestWithParam<Ifb> {};

TEST_P(IfbNumber, FollowsTheName) {
    EXPECT_EQ(ifb_number(GetParam().dev), GetParam().number) << GetParam().dev;
}

INSTANTIATE_TEST_SUITE_P(Names, IfbNumber,
                         testing::Values(Ifb{"eth1", 0}, Ifb{"eth0", -1}, Ifb{"eth12", 11}, Ifb{"eth", -1},
                                         Ifb{"eth1.100", 0}, Ifb{"swdev1", 0}, Ifb{"swdev3", 2},
                                         Ifb{"swdev12", 0}, Ifb{"swdev", -1}, Ifb{"swdevx", -1},
                                         Ifb{"veth5", -1}, Ifb{"xeth5", -1}, Ifb{"abceth7", -1},
                                         Ifb{"wan0", 0}, Ifb{"tun3", 0}, Ifb{"ppp-wan1", 0}, Ifb{"", 0},
                                         Ifb{"myswdev2eth9", 1}));

TEST(IfbNumberOf, NumbersBeyondTheTypeAreHarmless) {
    ifb_number("eth-9223372036854775808");
    ifb_number("eth99999999999999999999");
    EXPECT_EQ(ifb_number("eth-2147483648"), 2147483647);
}

TEST(Rates, ShownMegabitsWrapAt32Bits) {
    EXPECT_EQ(shown_megabits(12500000), 100U);
    EXPECT_EQ(shown_megabits(536870911), 4294U);
    EXPECT_EQ(shown_megabits(536870912), 0U);
    EXPECT_EQ(shown_megabits(124999), 0U);
}

TEST(Rates, HexadecimalIsLowerCase) {
    EXPECT_EQ(hex(1), "1");
    EXPECT_EQ(hex(10), "a");
    EXPECT_EQ(hex(16), "10");
    EXPECT_EQ(hex(0x3c0), "3c0");
}

}  // namespace
}  // namespace corvo::qos
