// What the tiers share, tested without root.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>

#include "support/files.h"
#include "support/leak_check.h"
#include "support/log.h"
#include "support/process.h"
#include "support/services.h"
#include "support/wait.h"

#include "corvosetup/service.h"

namespace corvo::test {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;

TEST(LogLines, AreCutIntoTheirParts) {
    const auto line = parse_log_line("[WARNING] Sun Nov  5 08:50:37 2026 >>> a message >>> with more");
    EXPECT_EQ(line.level, "[WARNING] ");
    EXPECT_EQ(line.time, "Sun Nov  5 08:50:37 2026 >>> ");
    EXPECT_EQ(line.message, "a message >>> with more");
    EXPECT_EQ(line.text(), "[WARNING] a message >>> with more");
}

TEST(LogLines, OfAnotherLayoutAreAllMessage) {
    for (const char* text :
         {"", "file size reach max log size: 1, log rotate.", "[ERROR] no time", "[INFO] x"})
        EXPECT_EQ(parse_log_line(text), (LogLine{"", "", text}));
}

TEST(TempDirs, VanishWithAllTheyHold) {
    std::string path;
    {
        const TempDir dir;
        path = dir.path();
        write_file(dir / "a/b", "text");
        EXPECT_EQ(read_file(dir / "a/b"), "text");
    }
    EXPECT_FALSE(std::filesystem::exists(path));
    EXPECT_THROW(read_file(path + "/a"), std::runtime_error);
}

TEST(Tools, GiveOutputAndStatus) {
    const auto result = run_tool({"sh", "-c", "cat; echo bad >&2; exit 3"}, "input");
    EXPECT_EQ(result.out, "input");
    EXPECT_EQ(result.err, "bad\n");
    EXPECT_EQ(result.status, 3);
    EXPECT_EQ(run_tool({"sh", "-c", "kill -TERM $$"}).status, 128 + 15);
    EXPECT_EQ(run_tool({"no-such-tool"}).status, 127);
    EXPECT_THROW(must_run("false"), std::runtime_error);
}

TEST(Waiting, EndsAtItsLimit) {
    EXPECT_FALSE(wait_until([] { return false; }, 20ms));
    int asked = 0;
    EXPECT_TRUE(wait_until([&] { return ++asked == 3; }));
}

TEST(ServicesTest, AnswerFromDocumentsAndKeepAJournal) {
    Services services;
    services.document("device_info.json", R"({"device_id": 7})");
    EXPECT_TRUE(services.calls().empty());
    services.answer_text("vesta.get_devid", R"({"error": 0, "data": 42})");
    EXPECT_EQ(get_device_id(), 42);
    ASSERT_EQ(services.calls().size(), 1U);
    EXPECT_EQ(services.calls("vesta.*")[0].target(), "vesta.get_devid");
    EXPECT_EQ(services.calls()[0].reply["data"], 42);
    services.forget_calls();
    EXPECT_TRUE(services.calls().empty());
}

TEST(ServicesTest, MisbehaveAsTold) {
    Services services;
    services.answer_text("vesta.get_devid", R"({"error": 0, "data": 42})");
    services.fault("vesta.get_devid", R"({"kind": "garbage", "times": 1})");
    EXPECT_EQ(get_device_id(), 0);
    EXPECT_EQ(get_device_id(), 42);
    EXPECT_EQ(services.calls("vesta.get_devid")[0].fault, "garbage");
    EXPECT_TRUE(services.wait_for_calls("vesta.get_devid", 2));
    EXPECT_FALSE(services.wait_for_calls("vesta.get_devid", 3, 10ms));
    EXPECT_THROW(services.fault("x", R"({"kind": "sing"})"), std::runtime_error);
}

TEST(ServicesTest, CanBeKilledAndStartedAgain) {
    Services services;
    services.answer_text("vesta.get_devid", R"({"error": 0, "data": 42})");
    services.kill();
    EXPECT_EQ(get_device_id(), 0);
    services.start();
    services.answer_text("vesta.get_devid", R"({"error": 0, "data": 42})");
    services.crash("vesta");
    EXPECT_EQ(get_device_id(), 0);
    services.revive("vesta");
    EXPECT_EQ(get_device_id(), 42);
}

TEST(ServicesTest, LeaveNothingBehind) {
    const LeakCheck leaks;
    {
        Services services;
        get_device_id();
    }
    EXPECT_EQ(std::getenv("VX_RUNTIME_DIR"), nullptr);
}

}  // namespace
}  // namespace corvo::test
