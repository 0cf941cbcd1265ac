#include "ctl/daemon.h"

#include <json/reader.h>
#include <vx.h>

#include <cstdint>
#include <ctime>
#include <memory>

#include "ctl/app.h"

namespace corvoctl {

namespace {

constexpr int kLimitSeconds = 5;
const Json::Value kNull;

Outcome status() {
    Outcome outcome;
    const DaemonReply reply = ask_daemon("get_state");
    outcome.failure = reply.failure;
    outcome.data = reply.data;
    if (outcome.ok()) outcome.lines = status_lines(reply.data, std::time(nullptr));
    return outcome;
}

// Waits until the daemon has worked the request off, and tells what became of it.
Outcome reload() {
    Outcome outcome;
    const DaemonReply before = ask_daemon("get_state");
    outcome.failure = before.failure;
    if (!outcome.ok()) return outcome;
    outcome.failure = ask_daemon("reload").failure;
    if (outcome.ok()) outcome.lines.emplace_back("asked; \"corvoctl status\" shows what became of it");
    return outcome;
}

}  // namespace

DaemonReply ask_daemon(const char* method) {
    DaemonReply reply;
    const std::unique_ptr<void, void (*)(void*)> io(vx_io_create(), vx_io_free);
    if (!io) {
        reply.failure = "no memory for the call";
        return reply;
    }
    vx_io_printf(io.get(), "%s", "{}");
    if (vx_call("corvo", method, io.get(), kLimitSeconds, -1) != 0) {
        reply.failure = "corvo-edged does not answer; is it running? (systemctl status corvo-edged)";
        return reply;
    }
    std::uint64_t length = 0;
    const char* text = vx_io_read(io.get(), &length);
    Json::CharReaderBuilder builder;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value root;
    std::string errors;
    if (text == nullptr || length == 0 || !reader->parse(text, text + length, &root, &errors) ||
        !root.isObject()) {
        reply.failure = "corvo-edged answered something that is no JSON object";
        return reply;
    }
    if (text_at(root, "error") != "0") reply.failure = "corvo-edged refused: error " + text_at(root, "error");
    reply.data = member_at(root, "data");
    return reply;
}

std::string text_at(const Json::Value& object, const char* key) {
    const Json::Value& value = member_at(object, key);
    return !value.isNull() && value.isConvertibleTo(Json::stringValue) ? value.asString() : std::string();
}

const Json::Value& member_at(const Json::Value& object, const char* key) {
    if (!object.isObject()) return kNull;
    const Json::Value* found = object.find(key, key + std::char_traits<char>::length(key));
    return found != nullptr ? *found : kNull;
}

std::string age_text(long seconds) {
    if (seconds < 120) return std::to_string(seconds) + " s";
    if (seconds < 7200) return std::to_string(seconds / 60) + " min";
    if (seconds < 172800) return std::to_string(seconds / 3600) + " h";
    return std::to_string(seconds / 86400) + " d";
}

std::vector<std::string> status_lines(const Json::Value& state, long now) {
    const auto since = [now](const Json::Value& object, const char* key) {
        return age_text(now - std::strtol(text_at(object, key).c_str(), nullptr, 10));
    };
    std::vector<std::string> lines;
    lines.push_back("device " + text_at(state, "device_id") + ", running for " + since(state, "started") +
                    (text_at(state, "ready") == "true" ? "" : ", NOT brought up yet"));
    if (!text_at(state, "hub").empty()) lines.push_back("hub " + text_at(state, "hub"));
    const Json::Value& last = member_at(state, "last_apply");
    lines.push_back("documents " + std::string(text_at(last, "good") == "true" ? "applied " : "REFUSED ") +
                    since(last, "time") + " ago");
    for (const auto& problem : member_at(last, "problems")) lines.push_back("  " + problem.asString());
    const Json::Value& failed = member_at(state, "failed_steps");
    if (failed.isObject())
        for (const auto& key : failed.getMemberNames())
            lines.push_back("FAILED " + key + ": " + failed[key].asString() + " (corvoctl explain " +
                            failed[key].asString() + ")");
    for (const auto& link : member_at(state, "links")) {
        const Json::Value& report = member_at(link, "report");
        const Json::Value& arp = member_at(report, "ARP");
        lines.push_back(text_at(link, "ifname") + " " + text_at(link, "status") + " for " +
                        since(link, "since") + ", gateway " + text_at(link, "gateway") +
                        (arp.isObject()
                             ? " (" + text_at(arp, "neigh_status") + " " + text_at(arp, "target_mac") + ")"
                             : std::string()));
    }
    return lines;
}

void add_daemon_verbs(CLI::App& app, Context& context) {
    context.on(app.add_subcommand("status", "What corvo-edged says of the edge and its links"), status);
    context.on(app.add_subcommand("reload", "Let corvo-edged read its documents again"), reload);
    auto interval = std::make_shared<unsigned>(2);
    auto plain = std::make_shared<bool>(false);
    auto* view = app.add_subcommand("watch", "Live view of links, rates, hub and events; q ends it");
    view->add_option("--interval", *interval, "Seconds between two looks")
        ->check(CLI::Range(1, 60))
        ->capture_default_str();
    view->add_flag("--plain", *plain, "Lines instead of a full screen");
    context.on(view, [interval, plain] {
        Outcome outcome;
        if (watch(*interval, *plain) != kExitOk) outcome.failure = "corvo-edged does not answer";
        return outcome;
    });
}

}  // namespace corvoctl
