// The layout of the log, line by line.
#include "corvosetup/log.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <optional>
#include <regex>
#include <thread>

#include "foundation/log_line.h"
#include "log_fixture.h"

namespace {

using LogTest = LogFixture;
namespace log = corvo::log;

TEST_F(LogTest, LineIsLevelTimeMessageWithNothingBetween) {
    log::error("Config file: [", std::string("/etc/networkmanagement/qos.json"), "] does not exist.\n");
    const std::regex whole(
        R"(\[ERROR\] (Sun|Mon|Tue|Wed|Thu|Fri|Sat) [A-Z][a-z]{2} [ 123]\d \d\d:\d\d:\d\d \d{4} >>> )"
        R"(Config file: \[/etc/networkmanagement/qos\.json\] does not exist\.\n)");
    EXPECT_TRUE(std::regex_match(log_text(), whole)) << log_text();
}

TEST_F(LogTest, EachLevelHasItsWordWithOneBlank) {
    log::error("a");
    log::warning("b");
    log::debug("c");
    log::trace("d");
    EXPECT_EQ(lines(), (Lines{"[ERROR] a", "[WARNING] b", "[DEBUG] c", "[TRACE] d"}));
}

TEST_F(LogTest, MessageWithItsOwnLineBreakGetsNoSecondOne) {
    log::error("own\n");
    log::error("none");
    EXPECT_EQ(lines(), (Lines{"[ERROR] own", "[ERROR] none"}));
}

TEST_F(LogTest, LineBreakAtTheEndOfAValueIsNotTheLinesEnd) {
    log::error("output: ", std::string("x\n"));
    EXPECT_EQ(log_text().substr(log_text().size() - 3), "x\n\n");
}

TEST_F(LogTest, ValuesAreWrittenAsAStreamWritesThem) {
    log::debug(-1, " ", 4294967295U, " ", 18446744073709551615ULL, " ", true, " ", 'c', " ", 2.5, " ", 1e10,
               " ", 0.1F, " ", static_cast<unsigned char>(7) + 0);
    std::ostringstream expected;
    expected << -1 << " " << 4294967295U << " " << 18446744073709551615ULL << " " << true << " " << 'c' << " "
             << 2.5 << " " << 1e10 << " " << 0.1F << " " << 7;
    EXPECT_EQ(lines(), Lines{"[DEBUG] " + expected.str()});
}

TEST_F(LogTest, NothingIsFilteredWhateverVerboseSays) {
    for (const unsigned level : {0U, 1U, 99U}) {
        verbose = level;
        log::trace("t");
    }
    verbose = 0;
    EXPECT_EQ(lines().size(), 3U);
}

TEST_F(LogTest, FunctionTraceCarriesTheLevelWordDebug) {
    const log::Entry entry("neigh.cpp", "scan_neigh", log::Entry::Word::kEnter, 12);
    EXPECT_EQ(entry.leave(-3001, 34), -3001);
    EXPECT_EQ(lines(), (Lines{"[DEBUG] Enter neigh.cpp::12::scan_neigh",
                              "[DEBUG] Exit neigh.cpp::34::scan_neigh: -3001"}));
}

TEST_F(LogTest, InitTraceSaysInitEnter) {
    const log::Entry entry("presetup.cpp", "presetup_ipv4", log::Entry::Word::kInitEnter, 117);
    EXPECT_EQ(lines(), Lines{"[DEBUG] INIT Enter presetup.cpp::117::presetup_ipv4"});
}

TEST_F(LogTest, TraceThatIsSwitchedOffWritesNothing) {
    const log::Entry entry(false, "ping.cpp", "ping");
    EXPECT_EQ(entry.leave(0), 0);
    EXPECT_EQ(lines(), Lines{});
}

TEST_F(LogTest, TraceLinesDefaultToThoseOfTheCaller) {
    const unsigned here = __LINE__ + 1;
    const log::Entry entry("x.cpp", "f");
    EXPECT_EQ(lines(), Lines{"[DEBUG] Enter x.cpp::" + std::to_string(here) + "::f"});
}

TEST_F(LogTest, TimeIsTheLocalTimeTextWithItsLineBreakReplaced) {
    const std::time_t before = std::time(nullptr);
    const std::string text = get_cur_time();
    const std::time_t after = std::time(nullptr);
    bool matches = false;
    for (std::time_t at = before; at <= after; ++at) {
        std::string expected = std::asctime(std::localtime(&at));
        expected.replace(expected.find('\n'), 1, " >>> ");
        matches = matches || text == expected;
    }
    EXPECT_TRUE(matches) << text;
}

TEST_F(LogTest, TimeNeverContainsALineBreakAndEndsInTheArrow) {
    const std::string text = get_cur_time();
    EXPECT_EQ(text.find('\n'), std::string::npos);
    EXPECT_TRUE(text.ends_with(" >>> ")) << text;
    EXPECT_EQ(text.size(), 29U);  // the day is padded with a blank, so the width is fixed
}

// The process is in another time zone while the object lives; nobody has called tzset for it.
class OtherZone {
public:
    explicit OtherZone(const char* name) {
        if (const char* old = std::getenv("TZ")) old_ = old;
        ::setenv("TZ", name, 1);
    }
    ~OtherZone() {
        old_ ? ::setenv("TZ", old_->c_str(), 1) : ::unsetenv("TZ");
        ::tzset();
    }
    OtherZone(const OtherZone&) = delete;
    OtherZone& operator=(const OtherZone&) = delete;

private:
    std::optional<std::string> old_;
};

// The hour, which a minute's change cannot spoil, as it stands in a zone east of Greenwich.
std::string hour_east(int hours) {
    const std::time_t there = std::time(nullptr) + std::time_t{hours} * 3600;
    std::tm parts{};
    ::gmtime_r(&there, &parts);
    char text[8];
    std::strftime(text, sizeof text, "%H", &parts);
    return text;
}

constexpr std::size_t kHourAt = 11;  // "Sun Nov 15 08:50:37 2026"

TEST_F(LogTest, TimeFollowsAChangeOfTheZone) {
    for (const int hours : {3, 7}) {
        const OtherZone zone(("ABC-" + std::to_string(hours)).c_str());
        const std::string before = hour_east(hours);
        const std::string text = get_cur_time();
        EXPECT_THAT(text.substr(kHourAt, 2), testing::AnyOf(before, hour_east(hours)));
    }
}

TEST_F(LogTest, LinesFollowAChangeOfTheZoneFromTheNextEntryPointOn) {
    for (const int hours : {4, 9}) {
        const OtherZone zone(("ABC-" + std::to_string(hours)).c_str());
        forget_lines();
        log::ensure_file();
        const std::string before = hour_east(hours);
        log::debug("x");
        EXPECT_THAT(log_text().substr(std::strlen("[DEBUG] ") + kHourAt, 2),
                    testing::AnyOf(before, hour_east(hours)));
    }
}

TEST_F(LogTest, ReopenWritesItsLineAndChangesTheTarget) {
    const std::string other = dir_ / "other.log";
    reopen_setup_logger(other);
    EXPECT_EQ(log_target, other);
    const std::string text = content_of(other);
    EXPECT_EQ(without_time(text), "[DEBUG] Reopen setup_logger to " + other + "\n");
    log::debug("goes to the other");
    EXPECT_EQ(lines(), Lines{});
    EXPECT_EQ(split_lines(content_of(other)).size(), 2U);
}

TEST_F(LogTest, ReopenAppends) {
    log::debug("first");
    reopen_setup_logger(log_path_);
    EXPECT_EQ(lines(), (Lines{"[DEBUG] first", "[DEBUG] Reopen setup_logger to " + log_path_}));
}

TEST_F(LogTest, DeletedLogIsRecreatedByTheEntryPointsCheck) {
    std::filesystem::remove(log_path_);
    log::ensure_file();
    log::debug("after");
    EXPECT_EQ(lines(), (Lines{"[DEBUG] Reopen setup_logger to " + log_path_, "[DEBUG] after"}));
}

TEST_F(LogTest, MovedLogIsRecreatedAndTheMovedOneLeftAlone) {
    log::debug("before");
    std::filesystem::rename(log_path_, dir_ / "moved");
    log::ensure_file();
    log::debug("after");
    EXPECT_EQ(lines(), (Lines{"[DEBUG] Reopen setup_logger to " + log_path_, "[DEBUG] after"}));
    EXPECT_EQ(split_lines(content_of(dir_ / "moved")).size(), 1U);
}

TEST_F(LogTest, CheckOfAPresentLogWritesNothing) {
    log::ensure_file();
    EXPECT_EQ(lines(), Lines{});
}

TEST_F(LogTest, LineAfterADeletionIsPrecededByTheNoticeAndLost) {
    std::filesystem::remove(log_path_);
    log::debug("into the void");
    EXPECT_FALSE(std::filesystem::exists(log_path_));
}

TEST_F(LogTest, MissingFileGivesTheNoticeWithoutABlank) {
    const std::string none = dir_ / "none";
    EXPECT_EQ(check_file_size(none), "File: " + none + "open failed.\n");
    EXPECT_FALSE(std::filesystem::exists(none));
    EXPECT_EQ(log_target, log_path_);
}

TEST_F(LogTest, NoticeStandsAheadOfTheLevelWord) {
    // The stream stays on the file that it opened while the path it is checked by is gone.
    std::filesystem::create_hard_link(log_path_, dir_ / "kept");
    std::filesystem::remove(log_path_);
    log::debug("x");
    const auto kept = split_lines(content_of(dir_ / "kept"));
    ASSERT_EQ(kept.size(), 2U);
    EXPECT_EQ(kept[0], "File: " + log_path_ + "open failed.");
    EXPECT_EQ(without_time(kept[1]), "[DEBUG] x");
}

TEST_F(LogTest, WriteToAClosedStreamIsLostSilently) {
    setup_logger.close();
    log::debug("lost");
    EXPECT_EQ(lines(), Lines{});
    reopen_setup_logger(log_path_);
    log::debug("kept");
    EXPECT_EQ(lines().back(), "[DEBUG] kept");
}

TEST_F(LogTest, UnopenableLogSilencesNothingLater) {
    reopen_setup_logger(dir_ / "no/such/dir/corvo.log");
    EXPECT_EQ(log_target, dir_ / "no/such/dir/corvo.log");
    log::debug("lost");
    reopen_setup_logger(log_path_);
    log::debug("kept");
    EXPECT_EQ(lines().back(), "[DEBUG] kept");
}

TEST_F(LogTest, BadStreamStateDoesNotSilenceTheLog) {
    setup_logger.setstate(std::ios::badbit);
    log::debug("still here");
    EXPECT_EQ(lines(), Lines{"[DEBUG] still here"});
}

TEST_F(LogTest, DirectoryAsLogIsSurvived) {
    reopen_setup_logger(dir_.path());
    log::debug("lost");
    EXPECT_EQ(check_file_size(dir_.path()), "");
    reopen_setup_logger(log_path_);
    EXPECT_EQ(lines(), Lines{"[DEBUG] Reopen setup_logger to " + log_path_});
}

TEST_F(LogTest, FullDeviceLosesLinesButNotTheLog) {
    reopen_setup_logger("/dev/full");
    log::debug("lost");
    EXPECT_TRUE(setup_logger.is_open());
    reopen_setup_logger(log_path_);
    log::debug("kept");
    // Nothing of the lost line turns up later.
    EXPECT_EQ(lines(), (Lines{"[DEBUG] Reopen setup_logger to " + log_path_, "[DEBUG] kept"}));
}

TEST_F(LogTest, InitLogDoesNothing) {
    INIT_LOG("wmd");
    INIT_LOG(nullptr);
    EXPECT_EQ(lines(), Lines{});
    EXPECT_EQ(log_target, log_path_);
}

TEST_F(LogTest, LogIsNotInheritedByChildren) {
    int found = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code error;
        if (std::filesystem::read_symlink(entry.path(), error) != log_path_) continue;
        ++found;
        const int fd = std::stoi(entry.path().filename());
        EXPECT_TRUE((::fcntl(fd, F_GETFD) & FD_CLOEXEC) != 0);
    }
    EXPECT_EQ(found, 1);
}

TEST_F(LogTest, ManyReopensLeaveOneDescriptor) {
    const int before = open_descriptors();
    for (int i = 0; i < 50; ++i) reopen_setup_logger(i % 2 ? log_path_ : dir_ / "b.log");
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(LogTest, DefaultsAreThoseOfTheDevice) {
    EXPECT_EQ(max_log_size, 5242880);
    EXPECT_EQ(verbose, 0U);
}

}  // namespace
