#include "support/process.h"

#include <fcntl.h>
#include <json/reader.h>
#include <poll.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <memory>
#include <sstream>
#include <stdexcept>

#include "foundation/fd.h"
#include "support/real_root.h"

extern char** environ;

namespace corvo::test {

namespace {

namespace fs = std::filesystem;

struct Pipe {
    UniqueFd read;
    UniqueFd write;
};

Pipe make_pipe() {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
    return {UniqueFd(ends[0]), UniqueFd(ends[1])};
}

// The standard input of the tool: a file without a name, so that no write of ours can block.
UniqueFd input_file(const std::string& text) {
    if (text.empty()) return UniqueFd(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    UniqueFd file(::memfd_create("tool input", MFD_CLOEXEC));
    if (!file || ::write(file.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size()))
        throw std::runtime_error("cannot store the input of a tool");
    ::lseek(file.get(), 0, SEEK_SET);
    return file;
}

// Reads both pipes to their ends.
void collect(const Pipe& out, const Pipe& err, ToolResult& result) {
    pollfd ends[2] = {{out.read.get(), POLLIN, 0}, {err.read.get(), POLLIN, 0}};
    std::string* texts[2] = {&result.out, &result.err};
    char piece[65536];
    while (ends[0].fd >= 0 || ends[1].fd >= 0) {
        if (::poll(ends, 2, -1) < 0) continue;
        for (int i = 0; i < 2; ++i) {
            if (ends[i].fd < 0 || ends[i].revents == 0) continue;
            const ssize_t got = ::read(ends[i].fd, piece, sizeof piece);
            if (got > 0) texts[i]->append(piece, static_cast<std::size_t>(got));
            if (got == 0 || (got < 0 && errno != EINTR)) ends[i].fd = -1;
        }
    }
}

std::vector<std::string> words_of(const std::string& line) {
    std::istringstream stream(line);
    std::vector<std::string> words;
    for (std::string word; stream >> word;) words.push_back(word);
    return words;
}

// Follows links inside the untouched view of the system's tools.
fs::path resolve(fs::path path) {
    for (int depth = 0; depth < 8; ++depth) {
        std::error_code error;
        const auto target = fs::read_symlink(path, error);
        if (error) return path;
        path = target.is_absolute() ? fs::path(untouched(target.string())) : path.parent_path() / target;
    }
    return path;
}

Json::Value parse_array(const std::string& line, const std::string& text) {
    if (text.find_first_not_of(" \n\t") == std::string::npos) return Json::Value(Json::arrayValue);
    Json::Value value;
    std::string errors;
    const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
    if (!reader->parse(text.data(), text.data() + text.size(), &value, &errors))
        throw std::runtime_error("\"" + line + "\" printed no JSON: " + errors + "\n" + text);
    return value;
}

}  // namespace

std::string real_tool(const std::string& name) {
    if (name.find('/') != std::string::npos) return name;
    for (const char* folder : {"/usr/sbin/", "/usr/bin/", "/usr/local/bin/"}) {
        const auto path = resolve(untouched(folder + name));
        if (::access(path.c_str(), X_OK) == 0) return path.string();
    }
    return {};
}

ToolResult run_tool(const std::vector<std::string>& argv, const std::string& input) {
    ToolResult result;
    const std::string file = real_tool(argv.at(0));
    if (file.empty()) {
        result.status = 127;
        result.err = argv[0] + ": not installed";
        return result;
    }
    const UniqueFd in = input_file(input);
    Pipe out = make_pipe();
    Pipe err = make_pipe();

    std::vector<char*> words;
    for (const auto& word : argv) words.push_back(const_cast<char*>(word.c_str()));
    words.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in.get(), 0);
    posix_spawn_file_actions_adddup2(&actions, out.write.get(), 1);
    posix_spawn_file_actions_adddup2(&actions, err.write.get(), 2);
    pid_t pid = -1;
    const int error = ::posix_spawn(&pid, file.c_str(), &actions, nullptr, words.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    out.write.reset();
    err.write.reset();
    if (error != 0) {
        result.status = 127;
        result.err = file + ": cannot be started";
        return result;
    }
    collect(out, err, result);
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return result;
}

ToolResult run_line(const std::string& line) {
    return run_tool(words_of(line));
}

std::string must_run(const std::string& line) {
    auto result = run_line(line);
    if (!result.ok())
        throw std::runtime_error("\"" + line + "\" gave " + std::to_string(result.status) + ": " +
                                 result.err + result.out);
    return result.out;
}

Json::Value ip_json(const std::string& words, const std::string& flags) {
    const std::string line = "ip -j " + flags + " " + words;
    return parse_array(line, must_run(line));
}

Json::Value tc_json(const std::string& words, const std::string& flags) {
    const std::string line = "tc -j " + flags + " " + words;
    return parse_array(line, must_run(line));
}

void ip_batch(const std::vector<std::string>& commands) {
    std::string text;
    for (const auto& command : commands) text += command + "\n";
    const auto result = run_tool({"ip", "-batch", "-"}, text);
    if (!result.ok()) throw std::runtime_error("ip -batch: " + result.err + "in:\n" + text);
}

}  // namespace corvo::test
