// Recorded tools.

#include "support/recorder.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include "foundation/command.h"
#include "foundation/worker.h"
#include "support/sandbox.h"

namespace corvo::test {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::HasSubstr;

TEST(Recorder, NotesTheArguments) {
    Recorder modprobe("/sbin/modprobe");
    EXPECT_EQ(run_command({"/sbin/modprobe", "ifb", "two words", "\"\\\n"}), 0);
    ASSERT_EQ(modprobe.calls().size(), 1U);
    EXPECT_THAT(modprobe.calls()[0].argv, ElementsAre("/sbin/modprobe", "ifb", "two words", "\"\\\n"));
    EXPECT_EQ(modprobe.calls()[0].path, "/sbin/modprobe");
    EXPECT_THAT(modprobe.calls()[0].descriptors, ElementsAre());
    EXPECT_FALSE(modprobe.calls()[0].blocked_signals);
    modprobe.forget_calls();
    EXPECT_THAT(modprobe.commands(), ElementsAre());
}

TEST(Recorder, TakesThePlaceOfAToolThatIsMissing) {
    EXPECT_FALSE(std::filesystem::exists("/usr/sbin/no_such_tool"));
    {
        Recorder missing("/usr/sbin/no_such_tool");
        EXPECT_EQ(run_command({"/usr/sbin/no_such_tool", "x"}), 0);
        EXPECT_EQ(missing.calls().size(), 1U);
    }
    EXPECT_FALSE(std::filesystem::exists("/usr/sbin/no_such_tool"));
}

TEST(Recorder, IsReachedThroughTheSearchPathToo) {
    Recorder ip("/usr/sbin/ip");
    EXPECT_EQ(run_shell("PATH=/usr/sbin ip li set dev lo up"), 0);
    EXPECT_THAT(ip.commands(), ElementsAre("ip li set dev lo up"));
}

TEST(Recorder, LeavesTheOthersTools) {
    Recorder ip("/usr/sbin/ip");
    Recorder other_ip("/bin/ip");
    EXPECT_EQ(ip_json("link show dev lo")[0]["ifname"].asString(), "lo");
    EXPECT_THAT(Recorders::commands(), ElementsAre());
    EXPECT_EQ(run_command_quiet({"/sbin/sysctl", "-n", "kernel.ostype"}), 0);
}

TEST(Recorder, AnswersByArguments) {
    Recorder jq("/bin/jq");
    jq.prints("other\n").exits(4);
    jq.when("-r .a").prints("one\n");
    jq.when("-r").prints("two\n").exits(9);
    std::string text;
    EXPECT_TRUE(capture_command({"/bin/jq", "-r", ".a"}, text));
    EXPECT_EQ(text, "one\n");
    EXPECT_TRUE(capture_command({"/bin/jq", "-r", ".b"}, text));
    EXPECT_EQ(text, "two\n");
    EXPECT_EQ(WEXITSTATUS(run_command_quiet({"/bin/jq", "-r", ".b"})), 9);
    EXPECT_TRUE(capture_command({"/bin/jq", "."}, text));
    EXPECT_EQ(text, "other\n");
    EXPECT_EQ(WEXITSTATUS(run_command_quiet({"/bin/jq"})), 4);
}

TEST(Recorder, DiesBySignal) {
    Recorder tool("/usr/sbin/no_such_tool");
    tool.always().dies(SIGTERM);
    const int status = run_command({"/usr/sbin/no_such_tool"});
    EXPECT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(WTERMSIG(status), SIGTERM);
}

TEST(Recorder, RunsTheRealTool) {
    Recorder ip("/bin/ip");
    ip.always().runs_real();
    std::string text;
    EXPECT_TRUE(capture_command({"/bin/ip", "-br", "link", "show", "dev", "lo"}, text));
    EXPECT_THAT(text, HasSubstr("LOOPBACK"));
    EXPECT_THAT(ip.commands(), ElementsAre("/bin/ip -br link show dev lo"));
}

TEST(Recorder, HangsAndFloodsUntilEnded) {
    Recorder hang("/usr/sbin/no_such_tool");
    Recorder flood("/usr/sbin/no_such_flood");
    hang.always().hangs();
    flood.always().prints("again\n").floods();
    LeakCheck leaks;
    for (const Recorder* tool : {&hang, &flood}) {
        std::thread* worker = Worker::start([tool] {
            std::string text;
            capture_command({tool->path()}, text, 100);
        });
        EXPECT_TRUE(tool->wait_for_calls(1));
        Worker::stop(worker);
    }
    EXPECT_EQ(flood.calls().size(), 1U);
}

TEST(Recorder, Delays) {
    Recorder slow("/usr/sbin/no_such_tool");
    slow.always().delays(120ms);
    const auto start = std::chrono::steady_clock::now();
    run_command({"/usr/sbin/no_such_tool"});
    EXPECT_GE(std::chrono::steady_clock::now() - start, 120ms);
}

TEST(Recorder, KeepsTheOrderOfDifferentTools) {
    Recorder one("/usr/sbin/no_such_one");
    Recorder two("/usr/sbin/no_such_two");
    run_command({"/usr/sbin/no_such_two", "1"});
    run_command({"/usr/sbin/no_such_one", "2"});
    EXPECT_THAT(Recorders::commands(), ElementsAre("/usr/sbin/no_such_two 1", "/usr/sbin/no_such_one 2"));
    EXPECT_THROW(Recorder("/usr/sbin/no_such_one"), std::invalid_argument);
}

TEST(Recorder, ShowsInheritedDescriptors) {
    Recorder tool("/usr/sbin/no_such_tool");
    const int leaked = open("/dev/null", O_RDONLY);
    if (fork() == 0) {
        execl("/usr/sbin/no_such_tool", "/usr/sbin/no_such_tool", nullptr);
        _exit(1);
    }
    wait(nullptr);
    close(leaked);
    ASSERT_EQ(tool.calls().size(), 1U);
    EXPECT_THAT(tool.calls()[0].descriptors, testing::Contains(leaked));
}

}  // namespace
}  // namespace corvo::test
