#include "corvosetup/log.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>

#include <charconv>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <mutex>
#include <string_view>

#include "corvosetup/utils.h"
#include "foundation/command.h"
#include "foundation/fd.h"
#include "foundation/guard.h"
#include "foundation/log_line.h"
#include "foundation/no_cancel.h"

namespace {

constexpr mode_t kLogMode = 0644;

bool make_log_file(const std::string& path, int flags = 0) {
    return static_cast<bool>(
        corvo::UniqueFd(::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | flags, kLogMode)));
}

}  // namespace

// The first objects of the library to be constructed and the last to be destroyed: every other initialiser
// and every entry point may log.
__attribute__((init_priority(101))) std::string log_target = "/var/log/network/corvo.log";
// The file before the stream, which would make one that everybody can write to where the daemon's mask allows
// it.
namespace {
struct LogMade {
    LogMade() { make_log_file(log_target); }
};
__attribute__((init_priority(102))) LogMade log_made;
}  // namespace
__attribute__((init_priority(102))) std::ofstream setup_logger(log_target, std::ios::out | std::ios::app);
int max_log_size = 5242880;
unsigned int verbose = 0;

// The plain name, for programs that look it up with dlsym. Weak, so that a linker that copies the object into
// a program makes both names follow the copy.
asm(".weak log_target\n.type log_target, @object\n.size log_target, 32\n.set log_target, "
    "_Z10log_targetB5cxx11");
static_assert(sizeof(std::string) == 32);

namespace {

// A cancellation that hits a stream in the middle of a write leaves it bad.
using corvo::NoCancel;

// How long the compression of a full log may take. A file of the usual size takes the slowest device a
// second.
constexpr std::chrono::seconds kCompressLimit{10};

// Guards setup_logger, log_target and the rotation. A std::mutex is constant-initialised and trivially
// destroyed: it can be taken before the first and after the last initialiser of the library.
std::mutex log_lock;
bool rotating = false;    // a rotation writes a line itself, which must not rotate again
bool log_closed = false;  // static destruction has passed
bool log_lost = false;    // the file was closed and could not be opened again: no descriptor, no memory

// Children of the daemon do not get the log: the streams of the standard library know no O_CLOEXEC, so the
// flag is set on their descriptor, which they keep protected.
void close_on_exec(std::filebuf& buffer) {
    struct Access : std::filebuf {
        static int descriptor(std::filebuf& of) { return (of.*&Access::_M_file).fd(); }
    };
    if (buffer.is_open()) ::fcntl(Access::descriptor(buffer), F_SETFD, FD_CLOEXEC);
}

// What the log needs beside its stream, from the load of the library to its end.
struct LogLife {
    LogLife() {
        close_on_exec(*setup_logger.rdbuf());
        // The daemon may fork without an exec: the child gets the lock free, whoever of its lost siblings
        // was just writing.
        ::pthread_atfork([] { log_lock.lock(); }, [] { log_lock.unlock(); }, [] { log_lock.unlock(); });
    }
    // Lines of threads that are still running at exit are dropped rather than written to a destroyed stream.
    ~LogLife() {
        std::lock_guard hold(log_lock);
        log_closed = true;
    }
};
__attribute__((init_priority(103))) LogLife log_life;

const char* level_word(corvo::log::Level level) {
    switch (level) {
        case corvo::log::Level::kError:
            return "[ERROR] ";
        case corvo::log::Level::kWarning:
            return "[WARNING] ";
        case corvo::log::Level::kDebug:
            return "[DEBUG] ";
        case corvo::log::Level::kTrace:
            return "[TRACE] ";
    }
    return "";
}

// The size is kept as the devices keep it, 32 bits signed: a file above 2 GiB reads negative and is not
// rotated.
std::int32_t truncated_size(std::uint64_t size) {
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(size));
}

void write_locked(corvo::log::Level level, std::string_view text, bool ends_line);

void close_stream() {
    if (!setup_logger.is_open()) return;
    setup_logger.clear();
    setup_logger.flush();
    setup_logger.close();
    log_lost = true;
}

void open_stream(const std::string& path) {
    setup_logger.clear();
    make_log_file(path);
    setup_logger.open(path, std::ios::out | std::ios::app);
    log_lost = !setup_logger.is_open();
    close_on_exec(*setup_logger.rdbuf());
}

constexpr std::time_t kZonePeriod = 60;

// Takes over a change of the zone: of the variable at once, of the system's file within a minute. tzset()
// looks at the zone's file each time, which a device with a slow disk notices in the time from a dead gateway
// to the new route.
void follow_zone_locked() {
    static std::size_t zone = 0;  // a number, as the log outlives static objects
    static std::time_t next = 0;
    const char* const name = std::getenv("TZ");
    const std::size_t wanted = name != nullptr ? std::hash<std::string_view>{}(name) : 0;
    const std::time_t now = std::time(nullptr);
    if (wanted == zone && now < next && now >= next - kZonePeriod) return;
    tzset();
    zone = wanted;
    next = now + kZonePeriod;
}

void reopen_locked(const std::string& path) {
    tzset();
    open_stream(path);
    if (log_target != path) log_target = path;
    corvo::log::Message message;
    message << "Reopen setup_logger to " << path;
    write_locked(corvo::log::Level::kDebug, message.text(), false);
}

struct Rotation {
    Rotation() { rotating = true; }
    ~Rotation() { rotating = false; }
};

std::string rotate_locked(const std::string& path) {
    const Rotation nested;
    close_stream();
    // The script gets the path as a shell would pass it unquoted: cut at blanks, but nothing in it
    // interpreted. Every thread that logs waits for it, so it does not get for ever.
    corvo::run_command_within(corvo::split_words("/usr/sbin/log_compress.sh " + path), kCompressLimit);
    make_log_file(path, O_TRUNC);
    reopen_locked(path);
    return "file size reach max log size: " + std::to_string(max_log_size) + ", log rotate.\n";
}

// The text that goes ahead of the current line: a notice when the file cannot be looked at or was rotated.
std::string check_locked(const std::string& path, struct stat& info) {
    if (rotating) return {};
    if (::stat(path.c_str(), &info) != 0) return "File: " + path + "open failed.\n";
    if (truncated_size(static_cast<std::uint64_t>(info.st_size)) <= max_log_size) return {};
    return rotate_locked(path);
}

// After a write that failed (a full disk): the part of the line that got into the file is taken back, and the
// stream, which would keep the rest for later, starts afresh. One line is lost, not torn, and not the log.
void drop_failed_line(const struct stat& before) {
    if (!setup_logger.is_open()) return;  // it never got a file; reopen_setup_logger gives it one
    setup_logger.clear();
    setup_logger.close();
    struct stat now {};
    if (before.st_ino != 0 && ::stat(log_target.c_str(), &now) == 0 && S_ISREG(now.st_mode) &&
        now.st_ino == before.st_ino && now.st_size > before.st_size) [[maybe_unused]]
        const int cut = ::truncate(log_target.c_str(), before.st_size);
    open_stream(log_target);
}

// The local time in the zone that was last looked up. A line costs no look at the zone's file: a zone that
// changes is picked up when an entry point looks after the log, and when it is reopened.
std::string time_text() {
    const std::time_t now = std::time(nullptr);
    std::tm parts{};
    char buffer[64] = "";
    if (localtime_r(&now, &parts) != nullptr && asctime_r(&parts, buffer) == nullptr) buffer[0] = '\0';
    std::string text = buffer;
    const auto end = text.find('\n');
    if (end == std::string::npos) return text + " >>> ";
    return text.replace(end, 1, " >>> ");
}

void write_locked(corvo::log::Level level, std::string_view text, bool ends_line) {
    if (log_closed) return;
    struct stat info {};
    std::string line = check_locked(log_target, info);
    line.append(level_word(level)).append(time_text()).append(text);
    if (!ends_line) line.push_back('\n');
    // What kept the file from being opened may have passed. One that is missing is left to the entry points.
    if (log_lost && info.st_ino != 0) open_stream(log_target);
    if (!setup_logger.good()) setup_logger.clear();
    setup_logger.write(line.data(), static_cast<std::streamsize>(line.size()));
    setup_logger.flush();
    if (!setup_logger.good()) drop_failed_line(info);
}

}  // namespace

std::string get_cur_time() {
    return corvo::guarded_or(std::string(" >>> "), [] {
        NoCancel no_cancel;
        std::lock_guard hold(log_lock);  // the C library's own lock of the zone is hidden from race checkers
        tzset();
        return time_text();
    });
}

std::string check_file_size(std::string path) {
    return corvo::guarded_or(std::string(), [&] {
        NoCancel no_cancel;
        std::lock_guard hold(log_lock);
        if (log_closed) return std::string();
        // A file that is there but may not be read counts as one that cannot be opened.
        if (!corvo::UniqueFd(::open(path.c_str(), O_RDONLY | O_CLOEXEC)))
            return "File: " + path + "open failed.\n";
        struct stat info {};
        return check_locked(path, info);
    });
}

void reopen_setup_logger(std::string path) {
    corvo::guarded_void([&] {
        NoCancel no_cancel;
        std::lock_guard hold(log_lock);
        if (log_closed) return;
        close_stream();
        reopen_locked(path);
    });
}

// Older loaders call it with their component's tag; there is nothing to initialise any more.
void INIT_LOG(const char*) {}

namespace corvo::log {

Message& Message::append_double(double value) {
    char buffer[64];
    // Six significant digits, as a stream with default settings writes a double.
    const auto end = std::to_chars(buffer, buffer + sizeof buffer, value, std::chars_format::general, 6).ptr;
    text_.append(buffer, end);
    return *this;
}

void write(Level level, std::string_view text, bool ends_line) {
    guarded_void([&] {
        NoCancel no_cancel;
        std::lock_guard hold(log_lock);
        write_locked(level, text, ends_line);
    });
}

void ensure_file() {
    guarded_void([] {
        NoCancel no_cancel;
        std::lock_guard hold(log_lock);
        follow_zone_locked();
        if (log_closed || does_file_exist(log_target)) return;
        close_stream();
        reopen_locked(log_target);
    });
}

Entry::Entry(bool on, const char* file, const char* function, Word word, unsigned line)
    : on_(on), file_(file), function_(function) {
    if (on_) debug(word == Word::kInitEnter ? "INIT Enter " : "Enter ", file_, "::", line, "::", function_);
}

void Entry::leave_text(std::string_view result, unsigned line) const {
    if (on_) debug("Exit ", file_, "::", line, "::", function_, ": ", result);
}

}  // namespace corvo::log
