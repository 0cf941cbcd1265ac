// The library's log, as a test looks at it.
//
// Usable in every tier. Assertions are written on texts without the time:
//
//     EXPECT_THAT(log_texts(), ElementsAre("[DEBUG] Load config from VESTA: /x", "[ERROR] ..."));
#pragma once

#include <chrono>
#include <string>
#include <string_view>
#include <vector>

namespace corvo::test {

inline constexpr const char* kLogFile = "/var/log/network/corvo.log";

struct LogLine {
    std::string level;    // "[ERROR] ", with its blank; empty for a rotation notice
    std::string time;     // "Sun Nov 15 08:50:37 2026 >>> ", empty for a rotation notice
    std::string message;  // without the line break

    std::string text() const { return level + message; }
    bool operator==(const LogLine&) const = default;
};

// Cuts one line into its parts; a line that does not have the layout is all message.
LogLine parse_log_line(std::string_view line);

std::vector<LogLine> log_lines(const std::string& path = kLogFile);
std::vector<std::string> log_texts(const std::string& path = kLogFile);

// Empties the file; the library goes on appending to it.
void clear_log(const std::string& path = kLogFile);

// Waits until a line is exactly `text` ("[ERROR] message").
bool wait_for_log(const std::string& text, std::chrono::milliseconds limit = std::chrono::seconds(10),
                  const std::string& path = kLogFile);

// How many lines are exactly `text`.
int count_log(const std::string& text, const std::string& path = kLogFile);

}  // namespace corvo::test
