// JSON from outside: no value makes an accessor throw, and reading changes nothing.
#include "foundation/json.h"

#include <climits>
#include <limits>

#include <gtest/gtest.h>

namespace {

using namespace corvo;

Json::Value parsed(const std::string& text) {
    Json::Value value;
    EXPECT_TRUE(parse_json(text, value)) << text;
    return value;
}

const std::vector<std::string>& oddities() {
    static const std::vector<std::string> all{
        "null",     "true",  "5",  "-5", "1e300", "99999999999", "18446744073709551615",
        "\"text\"", "\"5\"", "[]", "{}", "[1]",   "{\"a\":1}"};
    return all;
}

TEST(JsonAccess, NoParentAndNoValueThrows) {
    for (const auto& text : oddities()) {
        const Json::Value parent = parsed(text);
        EXPECT_NO_THROW({
            j_int(parent, "k");
            j_uint(parent, "k");
            j_uint64(parent, "k");
            j_double(parent, "k");
            j_str(parent, "k");
            j_obj(parent, "k");
            j_arr(parent, "k");
            j_member(parent, "k");
            j_has(parent, "k");
        });
        const Json::Value object = parsed("{\"k\":" + text + "}");
        EXPECT_NO_THROW({
            j_int(object, "k");
            j_uint(object, "k");
            j_uint64(object, "k");
            j_double(object, "k");
            j_str(object, "k");
            EXPECT_TRUE(j_obj(object, "k").isObject());
            EXPECT_TRUE(j_arr(object, "k").isArray());
        });
    }
}

TEST(JsonAccess, ReadingInsertsNothing) {
    const Json::Value object = parsed("{\"a\":1}");
    j_int(object, "missing");
    j_obj(object, "missing");
    EXPECT_EQ(object.size(), 1U);
}

TEST(JsonAccess, TakenMemberIsGoneFromItsParent) {
    Json::Value parent;
    ASSERT_TRUE(parse_json(R"({"a": [1], "b": 2})", parent));
    EXPECT_EQ(compact_json(j_take(parent, "a")), "[1]");
    EXPECT_EQ(compact_json(parent), R"({"b":2})");
    EXPECT_TRUE(j_take(parent, "a").isNull());
    for (Json::Value other : {Json::Value(), Json::Value("a"), Json::Value(Json::arrayValue)}) {
        EXPECT_TRUE(j_take(other, "a").isNull());
    }
}

TEST(JsonAccess, MissingNullAndForeignGiveTheDefault) {
    const Json::Value object = parsed(R"({"n":null,"s":"5","a":[],"big":99999999999,"neg":-1})");
    EXPECT_EQ(j_int(object, "none", 7), 7);
    EXPECT_EQ(j_int(object, "n", 7), 7);
    EXPECT_EQ(j_int(object, "s", 7), 7);
    EXPECT_EQ(j_int(object, "a", 7), 7);
    EXPECT_EQ(j_int(object, "big", 7), 7);
    EXPECT_EQ(j_uint(object, "neg", 7), 7U);
    EXPECT_EQ(j_uint64(object, "big", 7), 99999999999U);
    EXPECT_EQ(j_str(object, "a", "d"), "d");
    EXPECT_EQ(j_str(object, "n", "d"), "d");
    EXPECT_EQ(j_double(object, "s", 1.5), 1.5);
}

TEST(JsonAccess, ConvertibleValuesAreConverted) {
    const Json::Value object = parsed(R"({"i":5,"d":2.75,"b":true,"s":"x"})");
    EXPECT_EQ(j_int(object, "d"), 2);
    EXPECT_EQ(j_int(object, "b"), 1);
    EXPECT_EQ(j_str(object, "i"), "5");
    EXPECT_EQ(j_str(object, "b"), "true");
    EXPECT_EQ(j_double(object, "i"), 5.0);
    EXPECT_EQ(j_str(object, "s"), "x");
}

TEST(JsonAccess, WorksBeforeAndAfterStaticLifetimes) {
    // The empty values are the same object for the life of the process.
    const Json::Value object = parsed("{}");
    EXPECT_EQ(&j_obj(object, "a"), &j_obj(object, "b"));
    EXPECT_EQ(&j_member(object, "a"), &j_member(object, "b"));
}

TEST(JsonNumbers, TextIsReadAsAtoiDoesButDefined) {
    EXPECT_EQ(text_to_int(" 12x"), 12);
    EXPECT_EQ(text_to_int("-3"), -3);
    EXPECT_EQ(text_to_int(""), 0);
    EXPECT_EQ(text_to_int("x"), 0);
    EXPECT_EQ(text_to_int("99999999999999999999"), static_cast<int>(LONG_MAX));
    EXPECT_EQ(text_to_ulong("18446744073709551615"), ULONG_MAX);
    EXPECT_EQ(text_to_ulong("-1"), ULONG_MAX);
    EXPECT_EQ(text_to_ulong("99999999999999999999999"), ULONG_MAX);
}

TEST(JsonParse, RefusesWhatIsNoDocumentAndLeavesNull) {
    for (const std::string& text :
         {std::string(), std::string("{"), std::string("x"), std::string(5000, '[')}) {
        Json::Value value = "old";
        EXPECT_FALSE(parse_json(text, value));
        EXPECT_TRUE(value.isNull());
    }
}

TEST(JsonParse, AcceptsCommentsAndScalars) {
    EXPECT_EQ(parsed("// c\n5"), 5);
    EXPECT_EQ(parsed("{\"a\":/* c */1}")["a"], 1);
}

TEST(JsonWrite, IsCompactWithAndWithoutALineBreak) {
    const Json::Value value = parsed(R"({ "b" : [ 1, 2 ], "a" : "x" })");
    EXPECT_EQ(write_json(value), "{\"a\":\"x\",\"b\":[1,2]}\n");
    EXPECT_EQ(compact_json(value), "{\"a\":\"x\",\"b\":[1,2]}");
}

TEST(JsonWrite, EscapedTextReadsBackAsItself) {
    std::string all;
    for (int c = 0; c < 128; ++c) all.push_back(static_cast<char>(c));
    const Json::Value value = parsed("\"" + json_escape(all) + "\"");
    EXPECT_EQ(value.asString(), all);
    EXPECT_EQ(json_escape("plain/text-1.json"), "plain/text-1.json");
    EXPECT_EQ(json_escape("a\"b\\c\n"), "a\\\"b\\\\c\\u000a");
}

}  // namespace
