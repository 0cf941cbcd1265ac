// The device's services for a test: the stand-in program, its faults and the record of what was asked.
//
// Usable in every tier. Service calls of this process reach the stand-in while the object lives (it sets
// VX_RUNTIME_DIR); the program ends with the object, or with the test process.
//
//     Services services;
//     services.document("device_info.json", info);
//     services.fault("nm-halor.UpdateActiveHUB", R"({"kind": "error", "value": -5017, "times": 2})");
//     EXPECT_EQ(vxh_update_next_active_hub(hub), 0);
//     EXPECT_EQ(services.calls("nm-halor.RestartMonitor").size(), 2U);
#pragma once

#include <json/value.h>
#include <sys/types.h>

#include <chrono>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/fd.h"
#include "support/files.h"

namespace corvo::test {

// One call that the stand-in got, from its journal.
struct ServiceCall {
    std::string service;
    std::string method;
    Json::Value request;  // null when it was no JSON; the text is in `request_text` then
    std::string request_text;
    Json::Value reply;
    std::string fault;                 // the kind of the fault that hit the call, else empty
    std::chrono::microseconds time{};  // of the monotonic clock, when the call came in

    std::string target() const { return service + "." + method; }
};

class Services {
public:
    struct Options {
        std::string documents{};  // default: /etc/networkmanagement in a sandbox, else a directory of its own
        std::vector<std::string> only{};  // serve these alone; default: all
        bool live = false;                // fill in addresses that the kernel has
    };

    Services() : Services(Options{}) {}
    explicit Services(Options options);  // returns when the services answer; throws when they do not come up
    ~Services();
    Services(const Services&) = delete;
    Services& operator=(const Services&) = delete;

    const std::string& documents() const { return documents_; }
    const std::string& runtime_dir() const { return sockets_; }

    // Writes a document that the services read ("device_info.json", "site.json", ...).
    void document(const std::string& name, const Json::Value& value);
    void document(const std::string& name, std::string_view text);
    void document(const std::string& name, const std::string& text) {
        document(name, std::string_view(text));
    }
    void document(const std::string& name, const char* text) { document(name, std::string_view(text)); }

    // Makes a method misbehave. `target`: "service.method", "service.*" or "*"; `spec`: JSON with "kind" one
    // of error, reply, garbage, wrong_types, empty, huge, half, close, hang, die, kill, none, and optionally
    // "value", "reply", "text", "size", "delay_ms", "skip", "times".
    void fault(const std::string& target, const std::string& spec);
    void clear_faults(const std::string& target = {});

    // Answers with exactly this from now on, in place of what follows from the documents.
    void answer(const std::string& target, const Json::Value& reply);
    void answer_text(const std::string& target, const std::string& text);
    void clear_answers();

    // What was asked, oldest first; with a target ("service.method" or "service.*") only that.
    std::vector<ServiceCall> calls(const std::string& target = {}) const;
    bool wait_for_calls(const std::string& target, std::size_t count,
                        std::chrono::milliseconds limit = std::chrono::seconds(10)) const;
    void forget_calls();

    // The end of one service as after a crash (its socket file stays), and its return.
    void crash(const std::string& service);
    void revive(const std::string& service);

    // The whole program: ended at once, and started again with what it had (faults and answers are gone).
    void kill();
    void start();

    // A call to the stand-in's own "control" service; throws when it refuses.
    Json::Value control(const std::string& method, const Json::Value& request);

private:
    std::string journal() const { return own_ / "journal"; }

    Options options_;
    TempDir own_;
    std::string documents_;
    std::string sockets_;
    std::string old_runtime_dir_;
    bool had_runtime_dir_ = false;
    std::size_t forgotten_ = 0;  // bytes of the journal
    pid_t pid_ = -1;
    UniqueFd output_;
};

}  // namespace corvo::test
