// Rotation: when, in which order, and under load.
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <climits>
#include <csignal>
#include <map>
#include <thread>

#include "corvosetup/log.h"
#include "fake_process.h"
#include "foundation/log_line.h"
#include "log_fixture.h"

namespace {

namespace log = corvo::log;

class RotationTest : public LogFixture {
protected:
    ~RotationTest() override { fake_process::reset(); }

    void make_size(std::uintmax_t size) { std::filesystem::resize_file(log_path_, size); }
    static std::vector<fake_process::Argv> compressions() { return fake_process::started(); }
};

const std::string kNotice = "file size reach max log size: 5242880, log rotate.";

TEST_F(RotationTest, ExactlyTheLimitIsNotRotated) {
    make_size(5242880);
    EXPECT_EQ(check_file_size(log_path_), "");
    EXPECT_EQ(std::filesystem::file_size(log_path_), 5242880U);
    EXPECT_TRUE(compressions().empty());
}

TEST_F(RotationTest, OneByteMoreIsRotated) {
    make_size(5242881);
    EXPECT_EQ(check_file_size(log_path_), kNotice + "\n");
    EXPECT_EQ(lines(), Lines{"[DEBUG] Reopen setup_logger to " + log_path_});
}

TEST_F(RotationTest, FreshFileHoldsReopenLineThenNoticeThenTheLine) {
    make_size(5242881);
    log::error("the line that came too late");
    EXPECT_EQ(lines(), (Lines{"[DEBUG] Reopen setup_logger to " + log_path_, kNotice,
                              "[ERROR] the line that came too late"}));
}

TEST_F(RotationTest, ScriptGetsThePathAsItsOnlyArgument) {
    make_size(5242881);
    log::debug("x");
    EXPECT_EQ(compressions(), (std::vector<fake_process::Argv>{{"/usr/sbin/log_compress.sh", log_path_}}));
}

TEST_F(RotationTest, PathWithABlankReachesTheScriptUnquoted) {
    const std::string path = dir_ / "two words";
    reopen_setup_logger(path);
    std::filesystem::resize_file(path, 5242881);
    log::debug("x");
    EXPECT_EQ(compressions(),
              (std::vector<fake_process::Argv>{{"/usr/sbin/log_compress.sh", dir_ / "two", "words"}}));
}

TEST_F(RotationTest, PathIsNeverInterpretedByAShell) {
    const std::string path = dir_ / "a;touch${IFS}injected";
    reopen_setup_logger(path);
    std::filesystem::resize_file(path, 5242881);
    log::debug("x");
    ASSERT_EQ(compressions().size(), 1U);
    EXPECT_EQ(compressions()[0][1], path);
    EXPECT_FALSE(std::filesystem::exists("injected"));
}

TEST_F(RotationTest, ScriptSeesTheFullFileBeforeItIsEmptied) {
    fake_process::replace("/usr/sbin/log_compress.sh", "cp \"$1\" " + (dir_ / "copy"));
    log::debug("in the old file");
    make_size(5242881);
    log::debug("in the new file");
    EXPECT_EQ(std::filesystem::file_size(dir_ / "copy"), 5242881U);
    EXPECT_NE(content_of(dir_ / "copy").find("in the old file"), std::string::npos);
    EXPECT_EQ(lines().back(), "[DEBUG] in the new file");
}

TEST_F(RotationTest, FailingScriptIsIgnoredAndTheFileEmptiedAnyway) {
    fake_process::replace("/usr/sbin/log_compress.sh", "exit 3");
    make_size(5242881);
    log::debug("x");
    EXPECT_EQ(lines().size(), 3U);
}

TEST_F(RotationTest, MissingScriptIsIgnoredAndTheFileEmptiedAnyway) {
    fake_process::refuse_starts(ENOENT);
    make_size(5242881);
    log::debug("x");
    EXPECT_EQ(lines().size(), 3U);
}

TEST_F(RotationTest, LimitIsReadAtEveryLineAndStandsInTheNotice) {
    max_log_size = 100;
    make_size(101);
    log::debug("x");
    EXPECT_EQ(lines()[1], "file size reach max log size: 100, log rotate.");
}

TEST_F(RotationTest, FileAboveTwoGibReadsNegativeAndIsNotRotated) {
    make_size(2147483648ULL);
    EXPECT_EQ(check_file_size(log_path_), "");
    make_size(2147483648ULL + 5242881);
    EXPECT_EQ(check_file_size(log_path_), "");
    EXPECT_TRUE(compressions().empty());
}

TEST_F(RotationTest, FileAboveFourGibWrapsAroundAndIsRotatedAgain) {
    make_size(4294967296ULL + 5242880);
    EXPECT_EQ(check_file_size(log_path_), "");
    make_size(4294967296ULL + 5242881);
    EXPECT_EQ(check_file_size(log_path_), kNotice + "\n");
}

TEST_F(RotationTest, AnotherFileThatIsTooLargeBecomesTheLog) {
    const std::string other = dir_ / "other";
    put(other, std::string(200, 'x'));
    max_log_size = 100;
    EXPECT_EQ(check_file_size(other), "file size reach max log size: 100, log rotate.\n");
    EXPECT_EQ(log_target, other);
    EXPECT_EQ(split_lines(content_of(other)).size(), 1U);
}

TEST_F(RotationTest, NegativeLimitRotatesOncePerLineAndEnds) {
    max_log_size = -1;
    log::debug("x");
    EXPECT_EQ(compressions().size(), 1U);
    EXPECT_EQ(lines(), (Lines{"[DEBUG] Reopen setup_logger to " + log_path_,
                              "file size reach max log size: -1, log rotate.", "[DEBUG] x"}));
}

TEST_F(RotationTest, LogThatStaysTooLargeIsRotatedOncePerLine) {
    // A directory in the log's place can be neither emptied nor reopened, so the reopen line, too, finds a
    // log above the limit.
    fake_process::replace("/usr/sbin/log_compress.sh", "rm -rf \"$1\"; mkdir \"$1\"");
    max_log_size = 10;
    make_size(11);
    log::debug("x");
    EXPECT_EQ(compressions().size(), 1U);
    log::debug("y");
    EXPECT_EQ(compressions().size(), 2U);
    std::filesystem::remove_all(log_path_);
    put(log_path_, "");
}

TEST_F(RotationTest, HangingScriptIsEndedAndTheLogGoesOn) {
    fake_process::replace("/usr/sbin/log_compress.sh", "sleep 1000 & sleep 1000");
    make_size(5242881);
    const auto start = std::chrono::steady_clock::now();
    log::debug("x");
    const auto took = std::chrono::steady_clock::now() - start;
    EXPECT_GE(took, std::chrono::seconds(9));
    EXPECT_LT(took, std::chrono::seconds(20));
    EXPECT_EQ(lines().back(), "[DEBUG] x");
}

// The size limit of a process stands in for a full disk: a write stops half-way and the rest is refused.
TEST_F(RotationTest, LineThatFindsNoRoomIsLostWholeAndTheNextOneIsWritten) {
    const auto old_action = ::signal(SIGXFSZ, SIG_IGN);
    rlimit old_limit{};
    ::getrlimit(RLIMIT_FSIZE, &old_limit);
    log::debug("first");
    const auto size = std::filesystem::file_size(log_path_);
    rlimit tight = old_limit;
    tight.rlim_cur = size + 20;
    ::setrlimit(RLIMIT_FSIZE, &tight);
    const int before = open_descriptors();
    log::debug("torn");
    log::debug("torn");
    EXPECT_EQ(open_descriptors(), before);
    ::setrlimit(RLIMIT_FSIZE, &old_limit);
    ::signal(SIGXFSZ, old_action);
    EXPECT_EQ(lines(), Lines{"[DEBUG] first"});
    log::debug("second");
    EXPECT_EQ(lines(), (Lines{"[DEBUG] first", "[DEBUG] second"}));
}

TEST_F(RotationTest, CompressionWorksForADaemonThatIgnoresItsChildren) {
    const auto old = ::signal(SIGCHLD, SIG_IGN);
    fake_process::replace("/usr/sbin/log_compress.sh", "cp \"$1\" " + (dir_ / "copy"));
    make_size(5242881);
    log::debug("x");
    ::signal(SIGCHLD, old);
    EXPECT_EQ(std::filesystem::file_size(dir_ / "copy"), 5242881U);
}

TEST_F(RotationTest, RotationLeaksNoDescriptor) {
    const int before = open_descriptors();
    max_log_size = 100;
    for (int i = 0; i < 20; ++i) log::debug(std::string(101, 'x'));
    EXPECT_EQ(open_descriptors(), before);
    EXPECT_GE(compressions().size(), 10U);
}

// Eight threads write while the log rotates under them many times. The script keeps every file that it gets,
// so that all lines can be counted afterwards.
TEST_F(RotationTest, EightWritersLoseNoLineTearNoLineAndRotateOncePerThreshold) {
    constexpr int kWriters = 8;
    constexpr int kLines = 400;
    const std::string kept = dir_ / "kept";
    fake_process::replace("/usr/sbin/log_compress.sh", "cat \"$1\" >> " + kept + "; echo ==cut== >> " + kept);
    max_log_size = 20000;
    std::vector<std::thread> writers;
    for (int w = 0; w < kWriters; ++w)
        writers.emplace_back([w] {
            for (int i = 0; i < kLines; ++i) log::debug("writer ", w, " line ", i, " ", std::string(40, 'p'));
        });
    for (auto& writer : writers) writer.join();

    const auto all = split_lines(content_of(kept) + log_text());
    std::map<int, int> next;
    int reopens = 0;
    int notices = 0;
    int cuts = 0;
    const std::string notice = "file size reach max log size: 20000, log rotate.";
    for (std::size_t i = 0; i < all.size(); ++i) {
        const std::string line = without_time(all[i]);
        if (line == "[DEBUG] Reopen setup_logger to " + log_path_) {
            ++reopens;
            ASSERT_LT(i + 2, all.size());
            EXPECT_EQ(all[i + 1], notice);  // the notice follows the reopen line at once
            continue;
        }
        if (line == notice) {
            ++notices;
            continue;
        }
        if (line == "==cut==") {
            ++cuts;
            continue;
        }
        int w = -1;
        int n = -1;
        char rest[64] = "";
        ASSERT_EQ(std::sscanf(line.c_str(), "[DEBUG] writer %d line %d %63s", &w, &n, rest), 3) << line;
        EXPECT_EQ(std::string(rest), std::string(40, 'p'));
        EXPECT_EQ(n, next[w]++) << "lines of writer " << w;
    }
    for (int w = 0; w < kWriters; ++w) EXPECT_EQ(next[w], kLines);
    EXPECT_EQ(notices, cuts);
    EXPECT_EQ(reopens, cuts);
    EXPECT_EQ(static_cast<int>(compressions().size()), cuts);
    EXPECT_GE(cuts, 5);
    // Once per threshold: every file that was handed over is just above the limit.
    std::string part;
    std::istringstream parts(content_of(kept));
    std::size_t size = 0;
    for (std::string line; std::getline(parts, line);) {
        if (line == "==cut==") {
            EXPECT_GT(size, 20000U);
            EXPECT_LT(size, 20000U + 400U);
            size = 0;
        } else {
            size += line.size() + 1;
        }
    }
}

// A daemon that forks without an exec, while its other threads write: the child's lines are written.
TEST_F(RotationTest, ForkedChildMayLogWhoeverWasWriting) {
    constexpr int kChildren = 40;
    max_log_size = INT_MAX;  // what the writers write must not push the children's lines out
    std::atomic<bool> done{false};
    std::vector<std::thread> writers;
    for (int w = 0; w < 4; ++w)
        writers.emplace_back([&] {
            while (!done) log::debug("parent");
        });
    int hung = 0;
    for (int i = 0; i < kChildren; ++i) {
        const pid_t child = ::fork();
        if (child == 0) {
            ::alarm(20);
            log::debug("child");
            ::_exit(0);
        }
        int status = -1;
        ::waitpid(child, &status, 0);
        if (status != 0 && ++hung == 1) break;
    }
    done = true;
    for (auto& writer : writers) writer.join();
    EXPECT_EQ(hung, 0);
    const auto all = lines();
    EXPECT_EQ(std::count(all.begin(), all.end(), "[DEBUG] child"), kChildren);
}

TEST_F(RotationTest, ReopeningWhileOthersWriteLosesNothing) {
    std::atomic<bool> done{false};
    std::thread reopener([&] {
        while (!done) reopen_setup_logger(log_path_);
    });
    std::vector<std::thread> writers;
    for (int w = 0; w < 4; ++w)
        writers.emplace_back([] {
            for (int i = 0; i < 200; ++i) log::debug("line");
        });
    for (auto& writer : writers) writer.join();
    done = true;
    reopener.join();
    const auto all = lines();
    EXPECT_EQ(std::count(all.begin(), all.end(), "[DEBUG] line"), 800);
    EXPECT_EQ(std::count(all.begin(), all.end(), "[DEBUG] Reopen setup_logger to " + log_path_) + 800,
              static_cast<long>(all.size()));
}

}  // namespace
