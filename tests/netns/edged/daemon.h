// corvo-edged as a process of its own, and what it and corvoctl say.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "support/process.h"
#include "support/sandbox.h"

namespace corvo::test {

class Daemon {
public:
    struct Options {
        std::vector<std::string> arguments{};         // besides --state-dir; no hub tests unless given
        std::vector<std::string> environment{};       // "NAME=VALUE", besides this process's own
        std::function<void()> before_exec = nullptr;  // in the child
    };

    Daemon() : Daemon(Options{}) {}
    explicit Daemon(const Options& options);
    ~Daemon();  // kills it when it still runs
    Daemon(const Daemon&) = delete;
    Daemon& operator=(const Daemon&) = delete;

    pid_t pid() const { return pid_; }
    void signal(int number) const;

    // Waits for its end. The exit status, 128+N when signal N ended it, -1 when it did not end in time.
    int wait(std::chrono::milliseconds limit = std::chrono::seconds(40));
    int terminate();
    void kill();  // SIGKILL

    std::string errors() const;  // its standard error
    static std::string state_dir() { return scratch_dir() + "/state"; }

private:
    pid_t pid_ = -1;
    std::string errors_;
};

// The reply of service "corvo" in this process, null when nobody answers.
Json::Value ask_daemon(const std::string& method);

// "get_state"'s data, null when nobody answers.
Json::Value daemon_state();

// The status of a link in it ("up"); empty: there is no such link.
std::string link_status(const std::string& name);

// Waits until these links have these states and the default route is the monitors' own.
bool wait_for_links(const std::string& status1, const std::string& status2,
                    std::chrono::milliseconds limit = std::chrono::seconds(40));

ToolResult corvoctl(const std::vector<std::string>& arguments);

}  // namespace corvo::test
