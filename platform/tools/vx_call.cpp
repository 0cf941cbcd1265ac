// vx-call: one service call from the shell.

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "vx.h"

namespace {

constexpr char kHelp[] =
    "Usage: vx-call [-t SECONDS] SERVICE METHOD [JSON]\n"
    "Calls a method of a service and prints the reply. JSON \"-\" reads the request from standard input.\n"
    "\n"
    "  -t SECONDS  limit for the whole call (default 5)\n"
    "  -h          this text\n"
    "\n"
    "Exit status: 0 the service answered, 1 the call failed (reason on standard error), 2 usage.\n"
    "The sockets are looked for in $VX_RUNTIME_DIR, else in /run/vx.\n";

int usage_error(const char* what) {
    std::fprintf(stderr, "vx-call: %s\nTry 'vx-call -h'.\n", what);
    return 2;
}

using Buffer = std::unique_ptr<void, decltype(&vx_io_free)>;

bool read_input(void* io) {
    std::unique_ptr<char[]> text(new char[(16U << 20U) + 2]);
    const std::size_t size = std::fread(text.get(), 1, (16U << 20U) + 1, stdin);
    text[size] = '\0';
    return vx_io_printf(io, "%s", text.get()) == 0;
}

// The reference library reports errno numbers; a vendor's may use its own.
void report(const char* service, const char* method, int result) {
    const char* reason = std::strerror(result < 0 ? -result : result);
    if (result == -ENOENT || result == -ECONNREFUSED) reason = "the service is not running";
    if (result == -ENOSYS) reason = "the service has no such method";
    if (result == -EREMOTEIO) reason = "the service refused the request";
    if (result == -EPROTO) reason = "the service answered with something that is no reply";
    if (result == -EINVAL) reason = "not a valid service name, method name or limit";
    std::fprintf(stderr, "vx-call: %s.%s: %s (%d)\n", service, method, reason, result);
}

}  // namespace

int main(int argc, char** argv) {
    int limit = 5;
    int at = 1;
    for (; at < argc && argv[at][0] == '-' && argv[at][1] != '\0'; ++at) {
        if (std::strcmp(argv[at], "-h") == 0 || std::strcmp(argv[at], "--help") == 0) {
            std::fputs(kHelp, stdout);
            return 0;
        }
        if (std::strcmp(argv[at], "-t") != 0 || at + 1 >= argc) return usage_error("unknown option");
        char* end = nullptr;
        const long value = std::strtol(argv[++at], &end, 10);
        if (*end != '\0' || value < 1 || value > 86400) return usage_error("-t needs 1 to 86400 seconds");
        limit = static_cast<int>(value);
    }
    if (argc - at < 2 || argc - at > 3) return usage_error("SERVICE METHOD [JSON] expected");
    const char* service = argv[at];
    const char* method = argv[at + 1];
    const char* request = argc - at == 3 ? argv[at + 2] : "";

    const Buffer io(vx_io_create(), vx_io_free);
    if (!io) return usage_error("out of memory");
    const bool written =
        std::strcmp(request, "-") == 0 ? read_input(io.get()) : vx_io_printf(io.get(), "%s", request) == 0;
    if (!written) return usage_error("the request is larger than 16 MiB");
    if (const int result = vx_call(service, method, io.get(), limit, -1); result != 0) {
        report(service, method, result);
        return 1;
    }
    std::uint64_t length = 0;
    const char* reply = vx_io_read(io.get(), &length);
    if (reply == nullptr) return 0;
    std::fwrite(reply, 1, static_cast<std::size_t>(length), stdout);
    if (length == 0 || reply[length - 1] != '\n') std::fputc('\n', stdout);
    return std::fflush(stdout) == 0 ? 0 : 1;
}
