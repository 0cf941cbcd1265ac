#include "netns/edged/daemon.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vx.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <memory>
#include <stdexcept>

#include "foundation/json.h"
#include "support/wait.h"

namespace corvo::test {

Daemon::Daemon(const Options& options) : errors_(scratch_dir() + "/edged.err") {
    std::vector<std::string> words{EDGED, "--state-dir", state_dir()};
    const auto& given = options.arguments;
    if (std::find(given.begin(), given.end(), "--hub-test") == given.end())
        words.insert(words.end(), {"--hub-test", "none"});
    words.insert(words.end(), options.arguments.begin(), options.arguments.end());
    std::vector<char*> argv;
    for (auto& word : words) argv.push_back(word.data());
    argv.push_back(nullptr);
    write_file(errors_, "");
    const pid_t parent = ::getpid();
    pid_ = ::fork();
    if (pid_ < 0) throw std::runtime_error("no process");
    if (pid_ > 0) return;
    try {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        const int err = ::open(errors_.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
        ::dup2(err, STDERR_FILENO);
        for (const auto& entry : options.environment) {
            const auto cut = entry.find('=');
            ::setenv(entry.substr(0, cut).c_str(), entry.substr(cut + 1).c_str(), 1);
        }
        share_conditions(parent);
        if (options.before_exec) options.before_exec();
        ::execv(argv[0], argv.data());
    } catch (const std::exception& error) {
        ::dprintf(STDERR_FILENO, "before exec: %s\n", error.what());
    }
    ::_exit(127);
}

Daemon::~Daemon() {
    if (pid_ > 0) kill();
}

void Daemon::signal(int number) const {
    if (pid_ > 0) ::kill(pid_, number);
}

int Daemon::wait(std::chrono::milliseconds limit) {
    int status = 0;
    const bool ended = wait_until([&] { return ::waitpid(pid_, &status, WNOHANG) == pid_; }, limit);
    if (!ended) return -1;
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

int Daemon::terminate() {
    signal(SIGTERM);
    return wait();
}

void Daemon::kill() {
    signal(SIGKILL);
    while (::waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
    }
    pid_ = -1;
}

std::string Daemon::errors() const {
    return read_file(errors_);
}

Json::Value ask_daemon(const std::string& method) {
    const std::unique_ptr<void, decltype(&vx_io_free)> io(vx_io_create(), &vx_io_free);
    vx_io_printf(io.get(), "%s", "{}");
    Json::Value reply;
    if (vx_call("corvo", method.c_str(), io.get(), 5, -1) != 0) return reply;
    std::uint64_t length = 0;
    const char* text = vx_io_read(io.get(), &length);
    if (text != nullptr) parse_json(std::string(text, length), reply);
    return reply;
}

Json::Value daemon_state() {
    const Json::Value reply = ask_daemon("get_state");
    return reply.isObject() ? reply["data"] : Json::Value();
}

namespace {

std::string status_of(const Json::Value& state, const std::string& name) {
    if (!state.isObject()) return {};
    for (const auto& link : state["links"])
        if (link["ifname"] == name) return link["status"].asString();
    return {};
}

}  // namespace

std::string link_status(const std::string& name) {
    return status_of(daemon_state(), name);
}

bool wait_for_links(const std::string& status1, const std::string& status2, std::chrono::milliseconds limit) {
    return wait_until(
        [&] {
            const Json::Value state = daemon_state();
            return state.isObject() && state["ready"].asBool() && !state["stand_in_route"].asBool() &&
                   status_of(state, "eth1") == status1 && status_of(state, "eth2") == status2;
        },
        limit,
        std::chrono::milliseconds(50));  // the answer costs the daemon the time that it is to become ready in
}

ToolResult corvoctl(const std::vector<std::string>& arguments) {
    std::vector<std::string> words{CORVOCTL};
    words.insert(words.end(), arguments.begin(), arguments.end());
    return run_tool(words);
}

}  // namespace corvo::test
