#include "ctl/app.h"

#include <corvosetup/log.h>
#include <fcntl.h>
#include <json/writer.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <iostream>
#include <sstream>

#include "foundation/result.h"

namespace corvoctl {

namespace {

// The lines that the library logs while a verb runs.
class LogWindow {
public:
    LogWindow() : path_(log_target), start_(size()) {}

    std::vector<std::string> lines() const {
        std::ifstream in(path_, std::ios::binary);
        if (size() >= start_)
            in.seekg(static_cast<std::streamoff>(start_));  // else it was rotated: all is new
        std::vector<std::string> out;
        for (std::string line; std::getline(in, line);) out.push_back(line);
        return out;
    }

private:
    std::size_t size() const {
        std::ifstream in(path_, std::ios::binary | std::ios::ate);
        return in ? static_cast<std::size_t>(in.tellg()) : 0;
    }

    std::string path_;
    std::size_t start_;
};

std::string to_text(const Json::Value& value) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "  ";
    return Json::writeString(builder, value);
}

Json::Value explain_json(int code) {
    Json::Value out(Json::objectValue);
    if (const corvo::ResultInfo* info = corvo::find_result(code)) {
        out["name"] = info->name;
        out["meaning"] = info->meaning;
        out["cause"] = info->cause;
        out["remedy"] = info->remedy;
    }
    return out;
}

// An exception is a failure to report like any other; wrong usage is the caller's to report.
Outcome run(const std::function<Outcome()>& action) {
    try {
        return action();
    } catch (const CLI::ParseError&) {
        throw;
    } catch (const std::exception& error) {
        Outcome outcome;
        outcome.failure = error.what();
        return outcome;
    }
}

void print_failure(const Outcome& outcome, const std::vector<std::string>& log) {
    if (!outcome.failure.empty()) std::cerr << "corvoctl: " << outcome.failure << '\n';
    if (outcome.code != 0) {
        std::cerr << "corvoctl: failed with " << outcome.code;
        if (const corvo::ResultInfo* info = corvo::find_result(outcome.code)) {
            std::cerr << " (" << info->name << ")\n  meaning: " << info->meaning
                      << "\n  likely cause: " << info->cause << "\n  what to do: " << info->remedy;
        }
        std::cerr << '\n';
    }
    bool heading = false;
    for (const auto& line : log) {
        if (line.rfind("[ERROR]", 0) != 0 && line.rfind("[WARNING]", 0) != 0) continue;
        if (!heading) std::cerr << "  logged meanwhile:\n";
        heading = true;
        std::cerr << "    " << line << '\n';
    }
}

}  // namespace

void Context::on(CLI::App* command, std::function<Outcome()> run) {
    command->callback([this, command, run = std::move(run)] {
        verb.clear();
        for (const CLI::App* at = command; at->get_parent() != nullptr; at = at->get_parent())
            verb = at->get_name() + (verb.empty() ? "" : " ") + verb;
        action = run;
    });
}

int report(Context& context) {
    const LogWindow window;
    const Outcome outcome = run(context.action);
    const auto log = window.lines();

    if (context.json && outcome.reported) {
        // Nothing to add.
    } else if (context.json) {
        Json::Value out = to_json(outcome, context.verb);
        for (const auto& line : log) out["log"].append(line);
        std::cout << to_text(out) << '\n';
    } else {
        for (const auto& line : outcome.lines) std::cout << line << '\n';
        if (context.show_log)
            for (const auto& line : log) std::cout << line << '\n';
        std::cout.flush();
        if (!outcome.ok()) print_failure(outcome, log);
    }
    return outcome.ok() ? kExitOk : kExitFailed;
}

void report_usage(const std::string& why) {
    Outcome outcome;
    outcome.failure = "wrong usage: " + why;
    std::cout << to_text(to_json(outcome, "")) << '\n';
}

Json::Value to_json(const Outcome& outcome, const std::string& verb) {
    Json::Value out(Json::objectValue);
    out["schema"] = kSchemaVersion;
    out["command"] = verb;
    out["ok"] = outcome.ok();
    out["code"] = outcome.code;
    if (outcome.code != 0) out["explanation"] = explain_json(outcome.code);
    if (!outcome.failure.empty()) out["failure"] = outcome.failure;
    out["data"] = outcome.data;
    out["log"] = Json::Value(Json::arrayValue);
    return out;
}

Outcome from_code(int code) {
    Outcome outcome;
    outcome.code = code;
    return outcome;
}

std::vector<std::string> captured_stdout(const std::function<void()>& call) {
    std::cout.flush();
    std::fflush(stdout);
    const int saved = ::fcntl(1, F_DUPFD_CLOEXEC, 3);
    const int memory = ::memfd_create("stdout", MFD_CLOEXEC);
    std::string text;
    if (saved < 0 || memory < 0 || ::dup2(memory, 1) < 0) {
        call();
    } else {
        call();
        std::cout.flush();
        std::fflush(stdout);
        ::dup2(saved, 1);
        ::lseek(memory, 0, SEEK_SET);
        char piece[4096];
        for (ssize_t got; (got = ::read(memory, piece, sizeof piece)) > 0;)
            text.append(piece, static_cast<std::size_t>(got));
    }
    if (saved >= 0) ::close(saved);
    if (memory >= 0) ::close(memory);
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

}  // namespace corvoctl
