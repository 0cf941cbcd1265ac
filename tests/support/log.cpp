#include "support/log.h"

#include <unistd.h>

#include <algorithm>
#include <array>

#include "support/files.h"
#include "support/wait.h"

namespace corvo::test {

namespace {

constexpr std::string_view kTimeEnd = " >>> ";
// "Sun Nov 15 08:50:37 2026" and the end
constexpr std::size_t kTimeSize = 24 + kTimeEnd.size();

}  // namespace

LogLine parse_log_line(std::string_view line) {
    static constexpr std::array<std::string_view, 4> kLevels{"[ERROR] ", "[WARNING] ", "[DEBUG] ",
                                                             "[TRACE] "};
    for (const auto level : kLevels) {
        if (!line.starts_with(level)) continue;
        const auto rest = line.substr(level.size());
        if (rest.size() < kTimeSize || rest.substr(24, kTimeEnd.size()) != kTimeEnd) break;
        return {std::string(level), std::string(rest.substr(0, kTimeSize)),
                std::string(rest.substr(kTimeSize))};
    }
    return {"", "", std::string(line)};
}

std::vector<LogLine> log_lines(const std::string& path) {
    std::vector<LogLine> lines;
    if (::access(path.c_str(), R_OK) != 0) return lines;
    const std::string text = read_file(path);
    for (std::size_t at = 0; at < text.size();) {
        const auto end = std::min(text.find('\n', at), text.size());
        lines.push_back(parse_log_line(std::string_view(text).substr(at, end - at)));
        at = end + 1;
    }
    return lines;
}

std::vector<std::string> log_texts(const std::string& path) {
    std::vector<std::string> texts;
    for (const auto& line : log_lines(path)) texts.push_back(line.text());
    return texts;
}

void clear_log(const std::string& path) {
    if (::truncate(path.c_str(), 0) != 0) write_file(path, "");
}

int count_log(const std::string& text, const std::string& path) {
    const auto texts = log_texts(path);
    return static_cast<int>(std::count(texts.begin(), texts.end(), text));
}

bool wait_for_log(const std::string& text, std::chrono::milliseconds limit, const std::string& path) {
    return wait_until([&] { return count_log(text, path) > 0; }, limit);
}

}  // namespace corvo::test
