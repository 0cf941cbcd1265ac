// The quick reader of plain JSON: what it takes it reads as jsoncpp does, the rest it leaves alone.
#include "foundation/plain_json.h"

#include <gtest/gtest.h>

#include <optional>
#include <random>

#include "foundation/json.h"

namespace {

using corvo::PlainJson;

std::optional<Json::Value> plain(std::string_view text) {
    PlainJson json(text);
    Json::Value value = "what was there before";
    const bool made = json.value(&value) && json.at_end();
    PlainJson again(text);
    EXPECT_EQ(again.value(nullptr) && again.at_end(), made) << text;  // looking only finds the same
    return made ? std::optional(value) : std::nullopt;
}

// Whether it is plain; what is, must be what jsoncpp makes of it.
bool agrees(const std::string& text) {
    const std::optional<Json::Value> quick = plain(text);
    if (!quick) return false;
    Json::Value slow;
    EXPECT_TRUE(corvo::parse_json(text, slow)) << text;
    EXPECT_EQ(*quick, slow) << text;
    EXPECT_EQ(corvo::compact_json(*quick), corvo::compact_json(slow)) << text;
    return true;
}

std::string nested(int depth) {
    const auto n = static_cast<std::size_t>(depth);
    return std::string(n, '[') + std::string(n, ']');
}

TEST(PlainJson, ReadsEveryKindOfValueAsJsoncppDoes) {
    for (const char* text : {"null",
                             "true",
                             "false",
                             "0",
                             "7",
                             "-7",
                             "-0",
                             "123456789",
                             "-999999999",
                             R"("")",
                             R"("text")",
                             "\"\t\x01 bytes \xc3\xa4 \xff\"",
                             "{}",
                             "[]",
                             " { } ",
                             "[ ]",
                             "\r\n\t [1 ,\n2]\n",
                             R"({"a":1,"b":2})",
                             R"({"b":{"c":[{"d":null}]},"a":[true,"x",-3,[]]})",
                             R"({"":0})",
                             R"({"a/*b":"//c"})"}) {
        EXPECT_TRUE(agrees(text)) << text;
    }
    EXPECT_TRUE(agrees(nested(10)));
    EXPECT_TRUE(agrees(std::string("[\"a\0b\"]", 7)));
}

TEST(PlainJson, LastOfAMembersValuesCounts) {
    EXPECT_TRUE(agrees(R"({"a":1,"a":"2"})"));
    EXPECT_TRUE(agrees(R"({"a":{"b":1},"a":{"c":2}})"));
    EXPECT_TRUE(agrees(R"({"a":[1,2],"a":[3]})"));
}

TEST(PlainJson, LeavesToJsoncppWhatMayReadDifferently) {
    for (const char* text : {R"("a\"b")",
                             R"("\u00e4")",
                             R"({"a\tb":1})",
                             "1.5",
                             "1e3",
                             "1234567890",
                             "-1234567890",
                             "007",
                             "00",
                             "+1",
                             "-",
                             "/* c */ 1",
                             "1 // c",
                             "[1,]",
                             R"({"a":1,})",
                             "[1] x",
                             "[1] [2]",
                             "\xef\xbb\xbf{}",
                             "NaN",
                             "Infinity",
                             "'a'",
                             R"({a:1})",
                             "nul",
                             "truex",
                             "tru",
                             "falsey",
                             "[1 2]",
                             "[,]",
                             "[",
                             "]",
                             "{",
                             R"({"a")",
                             R"({"a":)",
                             R"({"a":1)",
                             R"({"a" 1})",
                             R"({"a":1 "b":2})",
                             R"("open)",
                             R"(")",
                             "",
                             " "}) {
        EXPECT_FALSE(plain(text)) << text;
    }
    EXPECT_FALSE(plain(nested(100)));
    EXPECT_FALSE(plain(nested(100000)));
}

// Texts that differ from a plain one in a few bytes: whatever is taken is what jsoncpp reads.
TEST(PlainJson, AgreesWithJsoncppOnDamagedTexts) {
    const std::string whole =
        R"({"del":[],"add":[{"SITE":"2","DEST":"10.0.0.1/32","RTA_GATEWAY":["1.2.3.4"],"N":-12,"T":true}]})";
    std::mt19937 random(1);
    const std::string bytes = "\"\\{}[],: \n/*-+.0123456789eEtrufalsn\x01\xff";
    int taken = 0;
    for (int i = 0; i < 20000; ++i) {
        std::string text = whole;
        for (unsigned n = random() % 3 + 1; n > 0; --n) {
            const std::size_t at = random() % text.size();
            switch (random() % 3) {
                case 0:
                    text[at] = bytes[random() % bytes.size()];
                    break;
                case 1:
                    text.erase(at, 1);
                    break;
                default:
                    text.insert(at, 1, bytes[random() % bytes.size()]);
            }
        }
        taken += agrees(text);
    }
    EXPECT_GT(taken, 1000);
}

TEST(PlainJson, GivesThePlacesOfTheValuesOfAnObject) {
    const std::string text = R"( {"a": [1, 2] , "b":"x"} )";
    PlainJson json(text);
    std::vector<std::string> values;
    EXPECT_TRUE(json.object([&](std::string_view key) {
        const char* const begin = json.place();
        const bool read = json.value(nullptr);
        values.push_back(std::string(key) + "=" + std::string(begin, json.place()));
        return read;
    }));
    EXPECT_TRUE(json.at_end());
    EXPECT_EQ(values, (std::vector<std::string>{"a=[1, 2] ", R"(b="x")"}));
}

TEST(PlainJson, StopsWhereItsReaderStops) {
    PlainJson json("[1,2,3]");
    int count = 0;
    EXPECT_FALSE(json.array([&] { return json.value(nullptr) && ++count < 2; }));
    EXPECT_EQ(count, 2);
}

}  // namespace
