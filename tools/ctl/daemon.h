// Talking to corvo-edged over the device's service-call interface.
#pragma once

#include <json/value.h>

#include <string>
#include <vector>

namespace corvoctl {

// Calls a method of the daemon. An empty `failure` is success; then `data` is the reply's.
struct DaemonReply {
    std::string failure;
    Json::Value data;
};
DaemonReply ask_daemon(const char* method);

// Reading a status document without trusting it.
std::string text_at(const Json::Value& object, const char* key);
const Json::Value& member_at(const Json::Value& object, const char* key);

// "3 s", "12 min", "4 h", "9 d"
std::string age_text(long seconds);

// The status document as lines of plain text.
std::vector<std::string> status_lines(const Json::Value& state, long now);

struct WatchOptions {
    unsigned interval = 2;  // seconds
    unsigned count = 0;     // looks; 0: until it is ended
    bool plain = false;
    bool json = false;  // one report per line
};

// The live view; plain lines when standard output is no terminal. What went wrong, empty: nothing.
std::string watch(const WatchOptions& options);

}  // namespace corvoctl
