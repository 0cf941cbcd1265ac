// corvo-services: serves the device's services from a directory of documents.

#include <getopt.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>
#include <vector>

#include "foundation/fd.h"
#include "standin.h"
#include "vx_serve.h"

namespace {

constexpr char kHelp[] =
    "Usage: corvo-services [OPTION]...\n"
    "Serves the device's services (vesta, TarnService, nm-halor, nm-morin-handler, pluvd, Corvo_CPU_tune)\n"
    "from a directory of documents, and \"control\" to steer it while it runs.\n"
    "\n"
    "  -d, --documents DIR    the documents (default /etc/networkmanagement); names under\n"
    "                         /etc/networkmanagement/ in requests are looked up here\n"
    "  -R, --replies DIR      verbatim replies, one SERVICE.METHOD.json each (default DIR/replies)\n"
    "  -j, --journal FILE     append one line of JSON per call\n"
    "  -f, --faults FILE      faults by target; read again when it changes\n"
    "  -o, --only NAME        serve only this service; may be repeated\n"
    "  -C, --no-control       do not serve \"control\"\n"
    "  -L, --no-live          take no addresses from the kernel\n"
    "  -r, --runtime-dir DIR  the sockets (default $VX_RUNTIME_DIR or /run/vx)\n"
    "      --ready-fd N       write a line to descriptor N and close it when calls are answered\n"
    "                         (default: the line goes to standard output)\n"
    "  -h, --help             this text\n";

struct Arguments {
    standin::Options standin;
    vx::ServerOptions server;
    std::vector<std::string> only;
    bool control = true;
    int ready_fd = -1;
};

[[noreturn]] void usage_error(const std::string& what) {
    std::fprintf(stderr, "corvo-services: %s\nTry 'corvo-services --help'.\n", what.c_str());
    std::exit(2);
}

int descriptor(const char* text) {
    char* end = nullptr;
    const long value = std::strtol(text, &end, 10);
    if (end == text || *end != '\0' || value < 0 || value > 65535) {
        usage_error("--ready-fd: not a descriptor: " + std::string(text));
    }
    return static_cast<int>(value);
}

std::string known_service(const std::string& name) {
    if (standin::Standin::catalogue().contains(name)) return name;
    std::string known;
    for (const auto& [service, methods] : standin::Standin::catalogue()) known += " " + service;
    usage_error("--only: no service " + name + "; there are:" + known);
}

Arguments parse(int argc, char** argv) {
    enum { kReadyFd = 256 };
    const option options[] = {{"documents", required_argument, nullptr, 'd'},
                              {"replies", required_argument, nullptr, 'R'},
                              {"journal", required_argument, nullptr, 'j'},
                              {"faults", required_argument, nullptr, 'f'},
                              {"only", required_argument, nullptr, 'o'},
                              {"no-control", no_argument, nullptr, 'C'},
                              {"no-live", no_argument, nullptr, 'L'},
                              {"runtime-dir", required_argument, nullptr, 'r'},
                              {"ready-fd", required_argument, nullptr, kReadyFd},
                              {"help", no_argument, nullptr, 'h'},
                              {}};
    Arguments out;
    for (;;) {
        const int found = ::getopt_long(argc, argv, "d:R:j:f:o:CLr:h", options, nullptr);
        if (found == -1) break;
        switch (found) {
            case 'd':
                out.standin.documents = optarg;
                break;
            case 'R':
                out.standin.replies = optarg;
                break;
            case 'j':
                out.standin.journal = optarg;
                break;
            case 'f':
                out.standin.faults = optarg;
                break;
            case 'o':
                out.only.push_back(known_service(optarg));
                break;
            case 'C':
                out.control = false;
                break;
            case 'L':
                out.standin.live = false;
                break;
            case 'r':
                out.server.directory = optarg;
                break;
            case kReadyFd:
                out.ready_fd = descriptor(optarg);
                break;
            case 'h':
                std::fputs(kHelp, stdout);
                std::exit(0);
            default:
                std::exit(2);  // getopt has said what is wrong
        }
    }
    if (optind < argc) usage_error("unexpected argument: " + std::string(argv[optind]));
    return out;
}

void announce(int ready_fd) {
    const std::string line = "corvo-services: ready\n";
    const int fd = ready_fd >= 0 ? ready_fd : STDOUT_FILENO;
    // Nobody may be listening any more; the services run all the same.
    [[maybe_unused]] const auto written = ::write(fd, line.data(), line.size());
    if (ready_fd >= 0) ::close(ready_fd);
}

}  // namespace

int main(int argc, char** argv) {
    const Arguments arguments = parse(argc, argv);
    std::signal(SIGPIPE, SIG_IGN);
    sigset_t stop_signals;
    sigemptyset(&stop_signals);
    sigaddset(&stop_signals, SIGTERM);
    sigaddset(&stop_signals, SIGINT);
    sigprocmask(SIG_BLOCK, &stop_signals, nullptr);
    const corvo::UniqueFd stop(::signalfd(-1, &stop_signals, SFD_CLOEXEC));
    try {
        standin::Standin services(arguments.standin);
        services.on_kill = [] { ::kill(::getpid(), SIGKILL); };
        vx::Server server(arguments.server);
        services.serve(server, arguments.only, arguments.control);
        server.open();
        announce(arguments.ready_fd);
        server.run(stop.get());
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "corvo-services: %s\n", failure.what());
        return 1;
    }
    return 0;
}
