// Writing log lines.
//
// Who may include this: every area. Nothing else writes to setup_logger.
//
// One call writes one whole line under one lock: the rotation notice if there is one, the level word, the
// time, the message, the end of line. The message is its arguments one after the other, with nothing between
// them. A message whose last argument is a literal ending in "\n" brings its own end of line; every other one
// gets it here. Either way the line is flushed before the call returns.
//
// Threading: any thread at any time, static destruction included. Lock order: the log lock is the innermost
// of the library; nothing called under it takes another lock or logs. Errors: none are reported; a line that
// cannot be written is lost, and the stream is usable again for the next.
#pragma once

#include <concepts>
#include <string>
#include <string_view>

#include "foundation/guard.h"

namespace corvo::log {

enum class Level { kError, kWarning, kDebug, kTrace };

// The text of a message under construction; numbers in decimal, doubles as a default ostream shows them.
class Message {
public:
    Message& operator<<(std::string_view text) { return text_.append(text), *this; }
    Message& operator<<(const char* text) { return text_.append(text ? text : ""), *this; }
    Message& operator<<(const std::string& text) { return text_.append(text), *this; }
    Message& operator<<(char c) { return text_.push_back(c), *this; }
    Message& operator<<(bool b) { return text_.push_back(b ? '1' : '0'), *this; }
    Message& operator<<(std::floating_point auto value) { return append_double(value); }
    Message& operator<<(std::integral auto value) { return text_.append(std::to_string(value)), *this; }

    std::string& text() { return text_; }

private:
    Message& append_double(double value);

    std::string text_;
};

// Writes one line. `text` is the message; `ends_line` says that it brings its own line break.
void write(Level level, std::string_view text, bool ends_line);

// Called by every daemon-facing entry point before its first line: when the log file was deleted or moved
// away, the stream is reopened, which creates it again. A change of TZ is picked up here, too, one of the
// system's zone within a minute.
void ensure_file();

namespace detail {

template <class T>
constexpr bool ends_line(const T&) {
    return false;
}
template <std::size_t N>
constexpr bool ends_line(const char (&literal)[N]) {
    return N >= 2 && literal[N - 2] == '\n';
}

template <class... Parts>
void write_parts(Level level, const Parts&... parts) {
    // A line that there is no memory for is lost; what the caller was about to do or to report is not.
    guarded_void([&] {
        Message message;
        (message << ... << parts);
        bool own_end = false;
        ((own_end = ends_line(parts)), ...);
        write(level, message.text(), own_end);
    });
}

}  // namespace detail

template <class... Parts>
void error(const Parts&... parts) {
    detail::write_parts(Level::kError, parts...);
}
template <class... Parts>
void warning(const Parts&... parts) {
    detail::write_parts(Level::kWarning, parts...);
}
template <class... Parts>
void debug(const Parts&... parts) {
    detail::write_parts(Level::kDebug, parts...);
}
template <class... Parts>
void trace(const Parts&... parts) {
    detail::write_parts(Level::kTrace, parts...);
}

// The function trace: "Enter file::line::function" now and "Exit file::line::function: result" through
// leave(). Lines default to those of the calling statements; the few that the fleet's log parsers know by
// number are given. The function's name is written out: in a lambda __func__ is "operator()".
//
//     log::Entry entry{"qos.cpp", "setup_qos", log::Entry::Word::kInitEnter};
//     ...
//     return entry.leave(result);
class Entry {
public:
    enum class Word { kEnter, kInitEnter };

    Entry(const char* file, const char* function, Word word = Word::kEnter,
          unsigned line = static_cast<unsigned>(__builtin_LINE()))
        : Entry(true, file, function, word, line) {}

    // `on` false: neither line is written (traces behind a debug switch).
    Entry(bool on, const char* file, const char* function, Word word = Word::kEnter,
          unsigned line = static_cast<unsigned>(__builtin_LINE()));

    // Logs the exit line with `result` and hands `result` back.
    template <class T>
    T leave(T result, unsigned line = static_cast<unsigned>(__builtin_LINE())) const {
        if (on_) {
            guarded_void([&] {
                Message text;
                text << result;
                leave_text(text.text(), line);
            });
        }
        return result;
    }
    void leave_text(std::string_view result, unsigned line = static_cast<unsigned>(__builtin_LINE())) const;

private:
    bool on_;
    const char* file_;
    const char* function_;
};

}  // namespace corvo::log
