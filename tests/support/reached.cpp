// Which lines of the library's log each test brings about, for scripts/report-messages.
//
// With CORVO_TEST_REACHED set to a directory, every line that goes to the log is noted there with the name of
// the running test, once per test and text (digits apart, since times, ids and counts differ). The stream's
// write() is wrapped by the linker for this: nothing of it is in the library. The shared library as the
// programs load it is not seen.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ostream>
#include <string_view>

#include "corvosetup/log.h"

namespace {

// Tests count descriptors, let memory run out and replace the functions around the kernel's calls. So the
// file is opened before main(), nothing is allocated, and the kernel is called directly.
class Reached {
public:
    Reached() {
        const char* directory = std::getenv("CORVO_TEST_REACHED");
        if (directory == nullptr) return;
        char path[4096];
        std::snprintf(path, sizeof path, "%s/%s.lines", directory, program_invocation_short_name);
        fd_ = static_cast<int>(
            ::syscall(SYS_openat, AT_FDCWD, path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644));
    }

    // Called under the log's lock.
    void note(std::string_view text) {
        if (fd_ < 0) return;
        const auto* test = testing::UnitTest::GetInstance()->current_test_info();
        if (test == nullptr) return;
        if (test != test_) seen_.fill(0);
        test_ = test;
        while (!text.empty()) {
            const auto end = std::min(text.find('\n'), text.size());
            note_line(text.substr(0, end));
            text.remove_prefix(std::min(end + 1, text.size()));
        }
    }

private:
    void note_line(std::string_view line) {
        // "[ERROR] Sun Nov 15 08:50:37 2026 >>> message": without the time
        static constexpr std::string_view kTimeEnd = " >>> ";
        static constexpr std::size_t kTimeSize = 24;
        std::string_view level;
        const auto end = line.find(kTimeEnd);
        if (line.starts_with('[') && end != std::string_view::npos && end >= kTimeSize) {
            level = line.substr(0, end - kTimeSize);
            line.remove_prefix(end + kTimeEnd.size());
        }
        if (is_known(level, line)) return;
        const auto piece = [](std::string_view text) {
            return iovec{const_cast<char*>(text.data()), text.size()};
        };
        const std::array<iovec, 7> record{piece(test_->test_suite_name()),
                                          piece("."),
                                          piece(test_->name()),
                                          piece("\t"),
                                          piece(level),
                                          piece(line),
                                          piece("\n")};
        // One call per line: processes that share the file do not mix theirs.
        const int saved = errno;
        ::syscall(SYS_writev, fd_, record.data(), record.size());
        errno = saved;
    }

    // Negative numbers are kept: "ret: -3011" and "ret: -3005" are two lines. A full table only notes lines
    // again.
    bool is_known(std::string_view level, std::string_view line) {
        std::uint64_t hash = 14695981039346656037U;
        const auto add = [&](char c) { hash = (hash ^ static_cast<unsigned char>(c)) * 1099511628211U; };
        for (const char c : level) add(c);
        bool negative = false;
        for (const char c : line) {
            const bool digit = c >= '0' && c <= '9';
            negative = c == '-' || (negative && digit);
            if (!digit || negative) add(c);
        }
        hash |= 1;
        for (std::size_t probe = 0; probe < 8; ++probe) {
            std::uint64_t& slot = seen_[(hash / 2 + probe) % seen_.size()];
            if (slot == hash) return true;
            if (slot != 0) continue;
            slot = hash;
            return false;
        }
        return false;
    }

    int fd_ = -1;
    const testing::TestInfo* test_ = nullptr;
    std::array<std::uint64_t, 4096> seen_{};
};

Reached& reached() {
    static Reached one;
    return one;
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
