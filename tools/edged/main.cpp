// corvo-edged: brings an edge up from its documents, watches its links, and answers for it.
#include <corvosetup/log.h>
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>
#include <vx_serve.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <stdexcept>
#include <system_error>

#include "edged/edge.h"
#include "edged/signals.h"

namespace {

using namespace std::chrono_literals;

std::string answer(int error, const Json::Value& data = Json::Value()) {
    Json::Value reply(Json::objectValue);
    reply["error"] = error;
    if (!data.isNull()) reply["data"] = data;
    return edged::compact(reply);
}

void serve(vx::Server& server, const edged::Edge& edge, edged::Signals& signals) {
    server.handle("corvo", "get_state",
                  [&edge](const vx::Call&) { return vx::Reply::text(answer(0, edge.state())); });
    server.handle("corvo", "links",
                  [&edge](const vx::Call&) { return vx::Reply::text(answer(0, edge.links())); });
    server.handle("corvo", "reload", [&signals](const vx::Call&) {
        signals.reload();
        return vx::Reply::text(answer(0));
    });
}

// The library reads documents where a device has them, whoever calls it. Documents of another place are laid
// over that one, for this process and its children alone. Before the first thread starts.
void lay_over(const std::string& directory) {
    namespace fs = std::filesystem;
    std::error_code missing;
    if (fs::equivalent(directory, edged::kDocumentPlace, missing)) return;
    fs::create_directories(edged::kDocumentPlace);
    if (::unshare(CLONE_NEWNS) != 0 || ::mount("none", "/", nullptr, MS_REC | MS_SLAVE, nullptr) != 0 ||
        ::mount(directory.c_str(), edged::kDocumentPlace, nullptr, MS_BIND, nullptr) != 0)
        throw std::system_error(errno, std::generic_category(),
                                "cannot lay " + directory + " over " + edged::kDocumentPlace +
                                    " (start it as root, or put the documents there)");
}

// Two daemons would undo each other's work. The lock goes with the process, however it ends.
int lock_state(const std::string& directory) {
    const int fd = ::open((directory + "/lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) throw std::system_error(errno, std::generic_category(), directory + "/lock");
    if (::flock(fd, LOCK_EX | LOCK_NB) != 0)
        throw std::runtime_error("another corvo-edged works with " + directory +
                                 "; end it first, or name another --state-dir");
    return fd;
}

void notify(const std::string& state, const edged::Edge& edge) {
    sd_notify(0, (state + "STATUS=" + edge.summary()).c_str());
}

// Returns when the daemon was asked to end.
void run(edged::Edge& edge, edged::Signals& signals) {
    std::uint64_t watchdog_us = 0;
    const bool watchdog = sd_watchdog_enabled(0, &watchdog_us) > 0;
    pollfd wait{signals.fd(), POLLIN, 0};
    std::string said;
    for (;;) {
        if (watchdog) sd_notify(0, "WATCHDOG=1");
        ::poll(&wait, 1, 500);
        const edged::Signals::Asked asked = signals.take();
        if (asked.stop) return;
        if (asked.reload) {
            sd_notify(0, "RELOADING=1");
            edge.apply();
            notify("READY=1\n", edge);
        }
        edge.tick();
        if (said != edge.summary()) notify("", edge);
        said = edge.summary();
    }
}

}  // namespace

int main(int argc, char** argv) {
    edged::Options options;
    std::string runtime_dir;
    std::string log_file;
    unsigned hub_interval = 60;
    unsigned stop_limit = 140;
    CLI::App app{
        "Brings an SD-WAN edge up from its documents and watches its links.\n"
        "SIGHUP reads the documents again and changes what changed; SIGTERM ends the monitors and leaves the "
        "data "
        "plane as it is configured."};
    app.name("corvo-edged");
    app.set_version_flag("--version", "corvo-edged " CORVO_VERSION, "Print the version and end");
    app.add_option("--documents", options.documents,
                   "Directory of the documents; another one than the default is laid over that, for the "
                   "daemon alone, which takes CAP_SYS_ADMIN, and the services must serve the same one")
        ->check(CLI::ExistingDirectory)
        ->capture_default_str();
    app.add_option("--state-dir", options.state_directory, "Where the daemon keeps what it has applied")
        ->capture_default_str();
    app.add_option("--runtime-dir", runtime_dir, "Where the services' sockets are (default /run/vx)");
    app.add_option("--log-file", log_file, "Log here instead of /var/log/network/corvo.log");
    app.add_option("--hub-test", options.hub_test, "How the active hub is tested")
        ->transform(
            CLI::CheckedTransformer(std::map<std::string, edged::HubTest>{{"none", edged::HubTest::kNone},
                                                                          {"udp", edged::HubTest::kUdp},
                                                                          {"ping", edged::HubTest::kPing}}));
    app.add_option("--hub-interval", hub_interval,
                   "Seconds from one hub test to the next, which begins later while one runs or a link is in "
                   "doubt")
        ->check(CLI::Range(1U, 86400U))
        ->capture_default_str();
    app.add_option("--stop-limit", stop_limit,
                   "Seconds after which a daemon that was told to end gives up what it is in, with status 1")
        ->check(CLI::Range(1U, 86400U))
        ->capture_default_str();
    app.add_flag("--clear-on-exit", options.clear_on_exit, "Remove the data plane when ending");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : 2;
    }
    options.hub_interval = std::chrono::seconds(hub_interval);

    if (!runtime_dir.empty()) ::setenv("VX_RUNTIME_DIR", runtime_dir.c_str(), 1);
    ::umask(022);  // whoever starts the daemon: others may read what it keeps, and no more
    try {
        lay_over(options.documents);
        edged::Signals signals{std::chrono::seconds(stop_limit)};
        std::filesystem::create_directories(options.state_directory);
        const int lock = lock_state(options.state_directory);
        if (log_file.empty())
            std::filesystem::create_directories(std::filesystem::path(log_target).parent_path());
        reopen_setup_logger(log_file.empty() ? log_target : log_file);
        edged::Edge edge(options);
        const vx::ServerThread service([&](vx::Server& server) { serve(server, edge, signals); });
        edge.apply();
        // Ready to answer and to follow the documents, also when they cannot be applied yet: the status says
        // so.
        notify("READY=1\n", edge);
        run(edge, signals);
        sd_notify(0, "STOPPING=1");
        edge.take_down();
        ::close(lock);
    } catch (const std::exception& error) {
        std::cerr << "corvo-edged: " << error.what() << '\n';
        return 1;
    }
    return 0;
}
