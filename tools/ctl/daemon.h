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

// The live view; returns the exit status. Plain lines when standard output is no terminal.
int watch(unsigned interval_seconds, bool plain);

}  // namespace corvoctl
