// What the daemon remembers of what it applied.
#include "edged/ledger.h"

#include <gmock/gmock.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>

namespace {

using edged::Ledger;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class LedgerTest : public ::testing::Test {
protected:
    LedgerTest() {
        char name[] = "/tmp/ledger-XXXXXX";
        directory_ = ::mkdtemp(name);
    }
    ~LedgerTest() override { std::filesystem::remove_all(directory_); }
    std::string path() const { return directory_ + "/applied.json"; }

    std::string directory_;
};

TEST_F(LedgerTest, RemembersAcrossARestart) {
    { Ledger(path()).put("tun:wan1", Json::Value("made from this"), 7); }
    const Ledger again(path());
    EXPECT_TRUE(again.fits("tun:wan1", Json::Value("made from this"), 7));
    EXPECT_FALSE(again.fits("tun:wan1", Json::Value("made from that"), 7));
    EXPECT_FALSE(again.fits("tun:wan1", Json::Value("made from this"), 8));
    EXPECT_FALSE(again.fits("tun:wan2", Json::Value("made from this"), 7));
}

TEST_F(LedgerTest, ForgetsWhatIsDropped) {
    Ledger ledger(path());
    ledger.put("route:s2s::wan1", Json::Value(1));
    ledger.put("route:s2s::wan2", Json::Value(2));
    ledger.drop("route:s2s::wan1");
    EXPECT_THAT(Ledger(path()).keys("route:"), ElementsAre("route:s2s::wan2"));
}

TEST_F(LedgerTest, FitsNothingOnceAStepHasBegun) {
    {
        Ledger ledger(path());
        ledger.put("tun:wan1", Json::Value("old"), 7);
        ledger.begin("tun:wan1", Json::Value("new"));
        ledger.begin("tun:wan2", Json::Value("first"));
    }
    Ledger again(path());
    EXPECT_FALSE(again.fits("tun:wan1", Json::Value("old"), 7));
    EXPECT_FALSE(again.fits("tun:wan1", Json::Value("new"), 7));
    EXPECT_EQ(again.record("tun:wan1")["applied"], "old");
    EXPECT_EQ(again.record("tun:wan1")["begun"], "new");
    EXPECT_TRUE(again.record("tun:wan2").isObject());
    again.put("tun:wan1", Json::Value("new"), 8);
    EXPECT_TRUE(again.fits("tun:wan1", Json::Value("new"), 8));
}

TEST_F(LedgerTest, DoubtsWhatRestsOnSomethingThatGoes) {
    Ledger ledger(path());
    ledger.put("route:default::eth1", Json::Value(1), 7);
    ledger.put("route:default::eth2", Json::Value(1), 8);
    ledger.put("route:s2s::eth1", Json::Value(1), 7);
    ledger.doubt("route:default:", ":eth1");
    EXPECT_FALSE(ledger.fits("route:default::eth1", Json::Value(1), 7));
    EXPECT_TRUE(ledger.fits("route:default::eth2", Json::Value(1), 8));
    EXPECT_TRUE(ledger.fits("route:s2s::eth1", Json::Value(1), 7));
}

TEST_F(LedgerTest, KnowsANumberThatWasWrittenAsAnotherType) {
    { Ledger(path()).put("stand-in", Json::Value(Json::UInt64(50000000)), 0); }
    EXPECT_TRUE(Ledger(path()).fits("stand-in", Json::Value(Json::UInt64(50000000)), 0));
}

TEST_F(LedgerTest, OfAnotherBootIsEmpty) {
    { Ledger(path()).put("tun:wan1", Json::Value(1), 7); }
    std::ifstream in(path());
    std::string text((std::istreambuf_iterator<char>(in)), {});
    const auto at = text.find("\"kernel\":\"") + 10;
    text[at] = text[at] == '0' ? '1' : '0';
    std::ofstream(path()) << text;
    EXPECT_THAT(Ledger(path()).keys(""), IsEmpty());
}

TEST_F(LedgerTest, ThatIsNoJsonIsEmpty) {
    for (const char* text : {"", "{", "[]", "5", R"({"kernel": 5, "steps": []})"}) {
        std::ofstream(path()) << text;
        EXPECT_THAT(Ledger(path()).keys(""), IsEmpty()) << text;
    }
}

TEST_F(LedgerTest, ThatCannotBeWrittenStillServesThisRun) {
    Ledger ledger("/nonesuch/applied.json");
    ledger.put("tun:wan1", Json::Value(1), 7);
    EXPECT_TRUE(ledger.fits("tun:wan1", Json::Value(1), 7));
}

}  // namespace
