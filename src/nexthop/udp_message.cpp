#include "nexthop/udp_message.h"

#include <cmath>

#include "foundation/json.h"

namespace corvo {

namespace {

bool parse_object(std::string_view datagram, Json::Value& out) {
    return parse_json(datagram, out) && out.isObject();
}

// The writer would put null for a NaN, which peers reject.
double finite(float value) {
    return std::isfinite(value) ? static_cast<double>(value) : 0.0;
}

}  // namespace

bool parse_probe_request(std::string_view datagram, ProbeRequest& out) {
    Json::Value message;
    if (!parse_object(datagram, message)) return false;
    out.sender = j_int(message, "Sender");
    out.receiver = j_int(message, "Receiver");
    out.wan = j_int(message, "Wan");
    return true;
}

bool parse_probe_reply(std::string_view datagram, ProbeReply& out) {
    Json::Value message;
    if (!parse_object(datagram, message)) return false;
    out.sender = j_int(message, "Sender");
    out.receiver = j_int(message, "Receiver");
    out.connections = j_int(message, "Connections");
    out.cpu = j_double(message, "Cpu");
    out.memory = j_double(message, "Memory");
    out.result = j_int(message, "Result", -1);
    return true;
}

std::string build_probe_request(std::string_view message_template, int own, int receiver,
                                std::optional<int> wans) {
    Json::Value message;
    if (!parse_object(message_template, message)) message = Json::Value(Json::objectValue);
    message["Sender"] = own;
    message["Receiver"] = receiver;
    if (wans) message["Wan"] = *wans;
    message["Result"] = 0;
    return write_json(message);
}

std::string build_probe_answer(int own, int asker, const LoadFigures& load) {
    Json::Value message(Json::objectValue);
    message["Sender"] = own;
    message["Receiver"] = asker;
    message["RemoteWan"] = load.wans;
    message["Cpu"] = finite(load.cpu);
    message["Memory"] = finite(load.memory);
    message["Connections"] = load.tunnels;
    message["Result"] = 0;
    return write_json(message);
}

}  // namespace corvo
