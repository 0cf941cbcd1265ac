// Which lines of the library's log each test brings about, for scripts/report-messages.
//
// With CORVO_TEST_REACHED set to a directory, every line that goes to the log is noted there with the name of
// the running test, once per test and text (digits apart, since times, ids and counts differ). The stream's
// write() is wrapped by the linker for this: nothing of it is in the library. The shared library as the
// programs load it is not seen.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdlib>
#include <ostream>
#include <string>
#include <string_view>
#include <unordered_set>

#include "corvosetup/log.h"
#include "support/log.h"

namespace {

// Opened before main(), so that tests that count descriptors or have none left do not notice. Kernel calls
// are made directly, so that tests that replace the functions around them do not either.
class Reached {
public:
    Reached() {
        const char* directory = std::getenv("CORVO_TEST_REACHED");
        if (directory == nullptr) return;
        const std::string path = std::string(directory) + "/" + program_invocation_short_name + ".lines";
        fd_ = static_cast<int>(
            ::syscall(SYS_openat, AT_FDCWD, path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644));
    }

    // Called under the log's lock.
    void note(std::string_view text) {
        if (fd_ < 0) return;
        const auto* test = testing::UnitTest::GetInstance()->current_test_info();
        if (test == nullptr) return;
        if (test != test_) seen_.clear();
        test_ = test;
        while (!text.empty()) {
            const auto end = std::min(text.find('\n'), text.size());
            note_line(corvo::test::parse_log_line(text.substr(0, end)).text());
            text.remove_prefix(std::min(end + 1, text.size()));
        }
    }

private:
    void note_line(const std::string& line) {
        if (!seen_.insert(without_digits(line)).second) return;
        const std::string record =
            std::string(test_->test_suite_name()) + "." + test_->name() + "\t" + line + "\n";
        // One call per line: processes that share the file do not mix theirs.
        [[maybe_unused]] const auto written = ::syscall(SYS_write, fd_, record.data(), record.size());
    }

    // Codes are kept: "ret: -3011" and "ret: -3005" are two lines.
    static std::string without_digits(std::string_view line) {
        std::string text;
        for (std::size_t i = 0; i < line.size(); ++i) {
            const bool code = line.substr(i).starts_with("-30");
            if (code) {
                text += line.substr(i, 5);
                i += 4;
            } else if (line[i] < '0' || line[i] > '9') {
                text += line[i];
            }
        }
        return text;
    }

    int fd_ = -1;
    const testing::TestInfo* test_ = nullptr;
    std::unordered_set<std::string> seen_;
};

// Never destroyed: threads may log until the very end.
Reached& reached() {
    static auto* const one = new Reached;
    return *one;
}

[[maybe_unused]] const Reached& opened_early = reached();

}  // namespace

// std::ostream::write(const char*, std::streamsize)
extern "C" std::ostream* __real__ZNSo5writeEPKcl(std::ostream* stream, const char* text,
                                                 std::streamsize size);
extern "C" std::ostream* __wrap__ZNSo5writeEPKcl(std::ostream* stream, const char* text,
                                                 std::streamsize size) {
    if (stream == &setup_logger && size > 0) reached().note({text, static_cast<std::size_t>(size)});
    return __real__ZNSo5writeEPKcl(stream, text, size);
}
