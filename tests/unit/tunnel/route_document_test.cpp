// Route documents: the same whether they are read from their text or as jsoncpp's values.
#include "tunnel/route_document.h"

#include "corvosetup/tun.h"
#include "fake_device.h"
#include "support/failing_new.h"

using corvo::test::FakeDevice;
using corvo::test::json;
using corvo::tunnel::RouteDocument;
using corvo::tunnel::RouteList;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

class RouteDocuments : public FakeDevice {
protected:
    RouteDocuments() {
        entry("wan0", R"({"slave": "eth0", "id": 5, "tun_addr": "198.19.0.50"})");
        devices["tun5"] = 12;
    }

    struct Outcome {
        int result;
        std::vector<std::string> calls;
        std::vector<std::string> log;
        bool operator==(const Outcome&) const = default;
    };
    Outcome apply(const std::string& text) {
        std::string conf = document(text);
        Tun link("eth0", entries["wan0"], 1);
        clear();
        const int result = link.setup_tun_routing(10000, conf);
        return {result, calls, log()};
    }
};

std::vector<Json::Value> elements_of(const RouteList& list) {
    std::vector<Json::Value> elements;
    list.each([&](const Json::Value& element) { elements.push_back(element); });
    return elements;
}

constexpr const char* kGoodElement = R"({"SITE": "9", "DEST": "10.9.0.0/16", "RTA_GATEWAY": ["198.19.0.9"]})";

// A comment ahead of it is all that takes a document from the quick reader to jsoncpp.
TEST_F(RouteDocuments, CommentAheadOfADocumentChangesNothing) {
    const std::string good = kGoodElement;
    const std::string elements[] = {
        "",
        good,
        good + "," + good,
        good + R"(, 5, null, true, "text", [], {}, -3, )" + good,
        R"({"SITE": 9, "DEST": "10.9.0.0/16", "RTA_GATEWAY": ["1.1.1.1", 7], "WEIGHT": ["1", 2]})",
        R"({"SITE": "9", "SITE": "8", "DEST": "10.9.0.0/16"})",
        R"({"SITE": "9", "DEST": ["10.9.0.0/16"]}, {"SITE": [], "DEST": ""}, {"DEST": "x"})",
        R"({"SITE": "9", "DEST": "10.9.0.0/16", "RTA_GATEWAY": {"a": 1}, "WEIGHT": 4})",
        R"({"SITE": "9", "DEST": "a destination that is too long for any record", "RTA_GATEWAY": []})",
        "[[[[[[[[[[[[[[[[[[[[[[[[[1]]]]]]]]]]]]]]]]]]]]]]]]]," + good,
        R"({"SITE": "9", "DEST": "10.9.0.0/16", "N": 1.5}, {"SITE": "9", "DEST": "10.9\u002e0.0/16"})",
    };
    for (const std::string& list : elements) {
        for (const std::string& text :
             {R"({"add": [)" + list + "]}", R"({"del": [)" + list + R"(], "add": [)" + good + "]}",
              R"({"add": [)" + good + R"(], "other": {"add": [)" + list + R"(]}, "del": [)" + list + "]}",
              R"({"add": [)" + good + R"(], "add": [)" + list + "]}", R"([{"add": [)" + list + "]}]"}) {
            const Outcome quick = apply(text);
            EXPECT_TRUE(quick == apply("/* a comment */ " + text)) << text;
        }
    }
    EXPECT_THAT(apply(R"({"add": [)" + good + "]}").calls, SizeIs(1));
}

TEST_F(RouteDocuments, ElementThatThereIsNoMemoryForIsNullAndTheOthersAreRead) {
    const std::string element =
        R"({"SITE": "9", "DEST": "a text that is too long to be kept inside a string"})";
    const std::string text = "[" + element + "," + element + "," + element + "]";
    int refused = 0;
    for (int n = 0;; ++n) {
        int whole = 0;
        int null = 0;
        corvo::test::FailingNew failing(n, corvo::test::FailingNew::Then::kRecovers);
        RouteList(std::string_view(text)).each([&](const Json::Value& read) {
            if (read.isNull()) ++null;
            if (read.isObject() && read.size() == 2) ++whole;
        });
        if (!failing.struck()) break;
        ++refused;
        EXPECT_EQ(null, 1) << n;
        EXPECT_EQ(whole, 2) << n;
    }
    EXPECT_GE(refused, 6);
}

TEST_F(RouteDocuments, DocumentThatIsBadAtItsEndIsNotApplied) {
    const std::string lists =
        std::string(R"({"del": [)") + kGoodElement + R"(], "add": [)" + kGoodElement + "]";
    for (const std::string& text : {lists, lists + "]", lists + R"(, "x": nul})", lists + R"(, "x" 1})"}) {
        EXPECT_EQ(apply(text).result, -3016) << text;
        EXPECT_THAT(calls, IsEmpty()) << text;
        EXPECT_THAT(errors(), Contains(HasSubstr("File loaded Json ERROR: * Line 1, Column "))) << text;
    }
}

TEST_F(RouteDocuments, ListsAreThoseOfTheText) {
    RouteDocument document_;
    ASSERT_TRUE(document_.load(document(R"({"add": [1, {"a": [2]}, "x"], "del": "none", "more": [4]})")));
    EXPECT_THAT(elements_of(document_.to_add()), ElementsAre(1, json(R"({"a": [2]})"), "x"));
    EXPECT_FALSE(document_.to_add().empty());
    EXPECT_THAT(elements_of(document_.to_delete()), IsEmpty());
    EXPECT_TRUE(document_.to_delete().empty());
}

TEST_F(RouteDocuments, ListOfValuesIsGoneThroughInPlace) {
    const Json::Value values = json("[1, [2], null]"), object = json(R"({"a": 1})");
    EXPECT_THAT(elements_of(RouteList(values)), ElementsAre(1, json("[2]"), Json::Value()));
    EXPECT_TRUE(RouteList(object).empty());
    EXPECT_THAT(elements_of(RouteList(object)), IsEmpty());
    EXPECT_TRUE(RouteList().empty());
    EXPECT_THAT(elements_of(RouteList()), IsEmpty());
}

TEST_F(RouteDocuments, MissingDocumentIsNotLoaded) {
    RouteDocument document_;
    EXPECT_FALSE(document_.load("/nowhere/routes.json"));
    EXPECT_TRUE(document_.to_add().empty());
}

}  // namespace
