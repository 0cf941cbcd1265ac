// The layer itself: functions of the executable that the libraries find before the system's own.
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netdb.h>
#include <poll.h>
#include <pthread.h>
#include <spawn.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>

#include "support/fault/plan.h"
#include "support/replaced_new.h"
#include "vx.h"

using corvo::test::fault::errno_of;
using corvo::test::fault::is_log;
using corvo::test::fault::is_target;
using corvo::test::fault::Kind;
using corvo::test::fault::ServiceFault;
using corvo::test::fault::Spared;
using corvo::test::fault::strikes;

namespace {

template <class Function>
Function next(const char* name) {
    return reinterpret_cast<Function>(::dlsym(RTLD_NEXT, name));
}

// The system's function of the name.
#define REAL(name) static const auto real = next<decltype(&(name))>(#name)

// Whether the call fails; errno is set then.
bool fails(Kind kind, const char* where) {
    int variant = 0;
    if (!strikes(kind, where, &variant)) return false;
    errno = errno_of(kind, variant);
    return true;
}

Kind file_kind(const char* path) {
    return is_target() && is_log(path) ? Kind::kLog : Kind::kFile;
}
Kind file_kind(int fd) {
    return is_target() && is_log(fd) ? Kind::kLog : Kind::kFile;
}

// An event descriptor takes and gives its number always.
bool is_file(int fd) {
    struct stat info {};
    return is_target() && ::fstat(fd, &info) == 0 && (info.st_mode & S_IFMT) != 0;
}

// The variants without an errno are the end of the stream.
ssize_t no_bytes() {
    return errno == 0 ? 0 : -1;
}

}  // namespace

bool corvo::test::new_fails() noexcept {
    return strikes(Kind::kNew, "operator new");
}

// Seen by all libraries, not by this executable alone.
#pragma GCC visibility push(default)

extern "C" {

// The library's own allocations without operator new (see replaced.symbols).
void* __real_calloc(std::size_t count, std::size_t size);
void* __wrap_calloc(std::size_t count, std::size_t size) {
    return strikes(Kind::kAllocation, "calloc") ? nullptr : __real_calloc(count, size);
}

// --- descriptors and sockets ---

int socket(int domain, int type, int protocol) noexcept {
    REAL(socket);
    return fails(Kind::kSocket, "socket") ? -1 : real(domain, type, protocol);
}
int bind(int fd, const sockaddr* address, socklen_t size) noexcept {
    REAL(bind);
    return fails(Kind::kSocket, "bind") ? -1 : real(fd, address, size);
}
int connect(int fd, const sockaddr* address, socklen_t size) {
    REAL(connect);
    return fails(Kind::kSocket, "connect") ? -1 : real(fd, address, size);
}
int setsockopt(int fd, int level, int option, const void* value, socklen_t size) noexcept {
    REAL(setsockopt);
    return fails(Kind::kSocket, "setsockopt") ? -1 : real(fd, level, option, value, size);
}
int getsockname(int fd, sockaddr* address, socklen_t* size) noexcept {
    REAL(getsockname);
    return fails(Kind::kSocket, "getsockname") ? -1 : real(fd, address, size);
}
int pipe2(int* ends, int flags) noexcept {
    REAL(pipe2);
    return fails(Kind::kSocket, "pipe2") ? -1 : real(ends, flags);
}
int eventfd(unsigned value, int flags) noexcept {
    REAL(eventfd);
    return fails(Kind::kSocket, "eventfd") ? -1 : real(value, flags);
}
long syscall(long number, ...) noexcept {
    static const auto real = next<long (*)(long, ...)>("syscall");
    va_list list;
    va_start(list, number);
    long words[6];
    for (long& word : words) word = va_arg(list, long);
    va_end(list);
    if (number == SYS_pidfd_open && fails(Kind::kSocket, "pidfd_open")) return -1;
    return real(number, words[0], words[1], words[2], words[3], words[4], words[5]);
}

// --- messages ---

ssize_t send(int fd, const void* data, std::size_t size, int flags) {
    REAL(send);
    return fails(Kind::kSend, "send") ? -1 : real(fd, data, size, flags);
}
ssize_t sendto(int fd, const void* data, std::size_t size, int flags, const sockaddr* to, socklen_t to_size) {
    REAL(sendto);
    return fails(Kind::kSend, "sendto") ? -1 : real(fd, data, size, flags, to, to_size);
}
ssize_t sendmsg(int fd, const msghdr* message, int flags) {
    REAL(sendmsg);
    return fails(Kind::kSend, "sendmsg") ? -1 : real(fd, message, flags);
}
ssize_t recv(int fd, void* data, std::size_t size, int flags) {
    REAL(recv);
    return fails(Kind::kReceive, "recv") ? no_bytes() : real(fd, data, size, flags);
}
ssize_t __recv_chk(int fd, void* data, std::size_t size, std::size_t, int flags) {
    return recv(fd, data, size, flags);
}
ssize_t recvfrom(int fd, void* data, std::size_t size, int flags, sockaddr* from, socklen_t* from_size) {
    REAL(recvfrom);
    return fails(Kind::kReceive, "recvfrom") ? no_bytes() : real(fd, data, size, flags, from, from_size);
}
ssize_t __recvfrom_chk(int fd, void* data, std::size_t size, std::size_t, int flags, sockaddr* from,
                       socklen_t* from_size) {
    return recvfrom(fd, data, size, flags, from, from_size);
}
ssize_t recvmsg(int fd, msghdr* message, int flags) {
    REAL(recvmsg);
    return fails(Kind::kReceive, "recvmsg") ? no_bytes() : real(fd, message, flags);
}
int poll(pollfd* fds, nfds_t count, int timeout) {
    REAL(poll);
    return fails(Kind::kWait, "poll") ? -1 : real(fds, count, timeout);
}
int __poll_chk(pollfd* fds, nfds_t count, int timeout, std::size_t) {
    return poll(fds, count, timeout);
}

// --- names ---

unsigned if_nametoindex(const char* name) noexcept {
    REAL(if_nametoindex);
    return fails(Kind::kLookup, "if_nametoindex") ? 0U : real(name);
}
char* if_indextoname(unsigned index, char* name) noexcept {
    REAL(if_indextoname);
    return fails(Kind::kLookup, "if_indextoname") ? nullptr : real(index, name);
}
int getifaddrs(ifaddrs** list) noexcept {
    REAL(getifaddrs);
    return fails(Kind::kLookup, "getifaddrs") ? -1 : real(list);
}
int ioctl(int fd, unsigned long request, ...) noexcept {
    static const auto real = next<int (*)(int, unsigned long, ...)>("ioctl");
    va_list list;
    va_start(list, request);
    void* argument = va_arg(list, void*);
    va_end(list);
    return fails(Kind::kLookup, "ioctl") ? -1 : real(fd, request, argument);
}
int gethostbyname_r(const char* name, hostent* entry, char* buffer, std::size_t size, hostent** result,
                    int* error) {
    REAL(gethostbyname_r);
    if (!fails(Kind::kLookup, "gethostbyname_r")) return real(name, entry, buffer, size, result, error);
    *result = nullptr;
    *error = TRY_AGAIN;
    return EAGAIN;
}

// --- files ---

int open(const char* path, int flags, ...) {
    static const auto real = next<int (*)(const char*, int, ...)>("open");
    mode_t mode = 0;
    if ((flags & (O_CREAT | O_TMPFILE)) != 0) {
        va_list list;
        va_start(list, flags);
        mode = va_arg(list, mode_t);
        va_end(list);
    }
    return fails(file_kind(path), "open") ? -1 : real(path, flags, mode);
}
FILE* fopen(const char* path, const char* mode) {
    REAL(fopen);
    return fails(file_kind(path), "fopen") ? nullptr : real(path, mode);
}
FILE* fopen64(const char* path, const char* mode) {
    REAL(fopen64);
    return fails(file_kind(path), "fopen64") ? nullptr : real(path, mode);
}
int truncate(const char* path, off_t size) noexcept {
    REAL(truncate);
    return fails(file_kind(path), "truncate") ? -1 : real(path, size);
}
DIR* opendir(const char* path) {
    REAL(opendir);
    return fails(Kind::kFile, "opendir") ? nullptr : real(path);
}
int stat(const char* path, struct stat* info) noexcept {
    static const auto real = next<int (*)(const char*, struct stat*)>("stat");
    return fails(file_kind(path), "stat") ? -1 : real(path, info);
}
// The last way of a file to fail; only where the kernel is not the writer, whose values come whole or not at
// all.
constexpr int kHalf = 5;
static bool is_document(int fd) {
    static const std::string_view kFolder = "/etc/networkmanagement/";
    char path[64];
    const auto got = ::readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), path, sizeof path);
    return got > 0 && std::string_view(path, static_cast<std::size_t>(got)).starts_with(kFolder);
}
ssize_t read(int fd, void* data, std::size_t size) {
    REAL(read);
    if (!is_file(fd)) return real(fd, data, size);
    const Kind kind = file_kind(fd);
    int variant = 0;
    if (!strikes(kind, "read", &variant)) return real(fd, data, size);
    const Spared here;
    if (kind == Kind::kFile && variant == kHalf && is_document(fd)) {
        const ssize_t got = real(fd, data, size);
        return got > 0 ? got / 2 : got;
    }
    errno = errno_of(kind, variant);
    return no_bytes();
}
ssize_t __read_chk(int fd, void* data, std::size_t size, std::size_t) {
    return read(fd, data, size);
}
ssize_t write(int fd, const void* data, std::size_t size) {
    REAL(write);
    return is_file(fd) && fails(file_kind(fd), "write") ? -1 : real(fd, data, size);
}
ssize_t writev(int fd, const iovec* pieces, int count) {
    REAL(writev);
    return is_file(fd) && fails(file_kind(fd), "writev") ? -1 : real(fd, pieces, count);
}

// --- children ---

int posix_spawnp(pid_t* pid, const char* file, const posix_spawn_file_actions_t* actions,
                 const posix_spawnattr_t* attributes, char* const* argv, char* const* environment) {
    REAL(posix_spawnp);
    corvo::test::fault::note_spawn(argv);
    int variant = 0;
    if (!strikes(Kind::kCommand, "posix_spawnp", &variant))
        return real(pid, file, actions, attributes, argv, environment);
    if (const int error = errno_of(Kind::kCommand, variant); error != 0) return error;
    static const char* const kScripts[] = {
        "exit 3",
        "printf '%%n%%s\\377\\000;\"\\n{'; head -c 100000 /dev/zero",
        "kill -9 $$",
        "sleep 0.05; exit 1",
        // (only to a reader: what is not captured ends when the child does)
        "for out in /dev/null /proc/$PPID/fd/1; do [ /proc/self/fd/1 -ef $out ] && exit 1; done; exec yes",
    };
    const char* const words[] = {"/bin/sh", "-c", kScripts[variant - 2], nullptr};
    return real(pid, words[0], actions, attributes, const_cast<char* const*>(words), environment);
}
pid_t waitpid(pid_t pid, int* status, int options) {
    REAL(waitpid);
    const pid_t got = real(pid, status, options);
    if (!strikes(Kind::kCommand, "waitpid")) return got;
    errno = ECHILD;  // the kernel took the child away, as it does where SIGCHLD is ignored
    return -1;
}

// --- threads ---

struct Start {
    void* (*body)(void*);
    void* argument;
};
static void* run_target(void* start) {
    const std::unique_ptr<Start> mine(static_cast<Start*>(start));
    corvo::test::fault::become_target();
    return mine->body(mine->argument);
}
int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*),
                   void* argument) {
    REAL(pthread_create);
    if (!is_target()) return real(thread, attributes, body, argument);
    if (fails(Kind::kThread, "pthread_create")) return errno;
    const Spared here;
    auto start = std::make_unique<Start>(Start{body, argument});
    const int result = real(thread, attributes, run_target, start.get());
    if (result == 0) static_cast<void>(start.release());
    return result;
}

// --- services ---

void* vx_io_create() {
    REAL(vx_io_create);
    return strikes(Kind::kService, "vx_io_create") ? nullptr : real();
}
int vx_call(const char* service, const char* method, void* io, int limit, int minus_one) {
    REAL(vx_call);
    int variant = 0;
    if (is_target() && corvo::test::fault::service_limit() > 0) limit = corvo::test::fault::service_limit();
    if (strikes(Kind::kService, "vx_call", &variant)) {
        if (variant == 0) service = "absent";
        corvo::test::fault::set_service_fault(static_cast<ServiceFault>(variant));
    }
    return real(service, method, io, limit, minus_one);
}

}  // extern "C"

#pragma GCC visibility pop
