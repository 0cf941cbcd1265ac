#include "support/services.h"

#include <fcntl.h>
#include <json/writer.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vx.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <stdexcept>

#include "foundation/json.h"
#include "support/real_root.h"
#include "support/wait.h"

namespace corvo::test {

namespace {

constexpr const char* kRuntimeVariable = "VX_RUNTIME_DIR";

Json::Value parsed(const std::string& text) {
    Json::Value value;
    if (!parse_json(text, value)) throw std::invalid_argument("not JSON: " + text);
    return value;
}

ServiceCall to_call(const Json::Value& entry) {
    ServiceCall call;
    call.service = j_str(entry, "service");
    call.method = j_str(entry, "method");
    call.request = entry["request"];
    call.request_text = j_str(entry, "request_text");
    call.reply = entry["reply"];
    call.fault = j_str(entry, "fault");
    call.time = std::chrono::microseconds(j_uint64(entry, "mono_us"));
    return call;
}

bool fits(const ServiceCall& call, const std::string& target) {
    return target.empty() || target == call.target() || target == call.service + ".*";
}

// The child's side: nothing but calls that are safe after fork().
[[noreturn]] void become_services(std::vector<char*>& words, int output) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    ::dup2(output, STDOUT_FILENO);
    ::execv(words[0], words.data());
    ::_exit(127);
}

void wait_until_ready(int output) {
    std::string said;
    char piece[256];
    pollfd end{output, POLLIN, 0};
    while (said.find('\n') == std::string::npos) {
        if (::poll(&end, 1, 30000) <= 0) throw std::runtime_error("the services did not come up in time");
        const ssize_t got = ::read(output, piece, sizeof piece);
        if (got <= 0) throw std::runtime_error("the services ended right away");
        said.append(piece, static_cast<std::size_t>(got));
    }
}

}  // namespace

Services::Services(Options options) : options_(std::move(options)) {
    const bool sandboxed = !detail::real_usr.empty();
    documents_ = !options_.documents.empty() ? options_.documents
                 : sandboxed                 ? "/etc/networkmanagement"
                                             : own_ / "documents";
    sockets_ = own_ / "vx";
    std::filesystem::create_directories(documents_);
    std::filesystem::create_directories(sockets_);
    if (const char* old = ::getenv(kRuntimeVariable); old != nullptr) {
        had_runtime_dir_ = true;
        old_runtime_dir_ = old;
    }
    ::setenv(kRuntimeVariable, sockets_.c_str(), 1);
    start();
}

Services::~Services() {
    kill();
    had_runtime_dir_ ? ::setenv(kRuntimeVariable, old_runtime_dir_.c_str(), 1) : ::unsetenv(kRuntimeVariable);
}

void Services::start() {
    if (pid_ > 0) return;
    std::vector<std::string> argv{
        CORVO_SERVICES_PROGRAM, "--documents", documents_, "--runtime-dir", sockets_, "--journal", journal()};
    if (!options_.live) argv.emplace_back("--no-live");
    for (const auto& name : options_.only) argv.insert(argv.end(), {"--only", name});
    std::vector<char*> words;
    for (auto& word : argv) words.push_back(word.data());
    words.push_back(nullptr);
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
    output_.reset(ends[0]);
    UniqueFd write_end(ends[1]);
    pid_ = ::fork();
    if (pid_ < 0) throw std::runtime_error("no process");
    if (pid_ == 0) become_services(words, write_end.get());
    write_end.reset();
    wait_until_ready(output_.get());
}

void Services::kill() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGKILL);
    while (::waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
    }
    pid_ = -1;
    output_.reset();
}

void Services::document(const std::string& name, std::string_view text) {
    // Moved into place: the services never read half a document.
    write_file(documents_ + "/" + name + ".new", text);
    std::filesystem::rename(documents_ + "/" + name + ".new", documents_ + "/" + name);
}

void Services::document(const std::string& name, const Json::Value& value) {
    document(name, std::string_view(Json::writeString(Json::StreamWriterBuilder(), value)));
}

void Services::fault(const std::string& target, const std::string& spec) {
    Json::Value request = parsed(spec);
    request["target"] = target;
    control("set_fault", request);
}

void Services::clear_faults(const std::string& target) {
    Json::Value request(Json::objectValue);
    request["target"] = target;
    control("clear_faults", request);
}

void Services::answer(const std::string& target, const Json::Value& reply) {
    Json::Value request(Json::objectValue);
    request["target"] = target;
    request["reply"] = reply;
    control("set", request);
}

void Services::answer_text(const std::string& target, const std::string& text) {
    Json::Value request(Json::objectValue);
    request["target"] = target;
    request["text"] = text;
    control("set", request);
}

void Services::clear_answers() {
    control("unset", Json::Value(Json::objectValue));
}

std::vector<ServiceCall> Services::calls(const std::string& target) const {
    std::vector<ServiceCall> all;
    std::istringstream lines(::access(journal().c_str(), R_OK) == 0 ? read_file(journal()).substr(forgotten_)
                                                                    : "");
    for (std::string line; std::getline(lines, line);) {
        const ServiceCall call = to_call(parsed(line));
        if (fits(call, target)) all.push_back(call);
    }
    return all;
}

bool Services::wait_for_calls(const std::string& target, std::size_t count,
                              std::chrono::milliseconds limit) const {
    return wait_until([&] { return calls(target).size() >= count; }, limit);
}

void Services::forget_calls() {
    forgotten_ = ::access(journal().c_str(), R_OK) == 0 ? read_file(journal()).size() : 0;
}

void Services::crash(const std::string& service) {
    Json::Value request(Json::objectValue);
    request["service"] = service;
    control("crash", request);
}

void Services::revive(const std::string& service) {
    Json::Value request(Json::objectValue);
    request["service"] = service;
    control("revive", request);
}

Json::Value Services::control(const std::string& method, const Json::Value& request) {
    const std::unique_ptr<void, decltype(&vx_io_free)> io(vx_io_create(), &vx_io_free);
    const std::string text = compact_json(request);
    if (!io || vx_io_printf(io.get(), "%s", text.c_str()) != 0 ||
        vx_call("control", method.c_str(), io.get(), 10, -1) != 0)
        throw std::runtime_error("the stand-in does not answer control." + method);
    std::int64_t length = 0;
    const char* reply = vx_io_read(io.get(), &length);
    const Json::Value value =
        parsed(reply != nullptr ? std::string(reply, static_cast<std::size_t>(length)) : "");
    if (j_int(value, "error", -1) != 0)
        throw std::runtime_error("the stand-in refuses control." + method + " " + text);
    return value["data"];
}

}  // namespace corvo::test
