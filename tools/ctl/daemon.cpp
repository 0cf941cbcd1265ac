#include "ctl/daemon.h"

#include <json/reader.h>
#include <vx.h>

#include <chrono>
#include <cstdint>
#include <ctime>
#include <memory>
#include <thread>

#include "ctl/app.h"

namespace corvoctl {

namespace {

constexpr int kLimitSeconds = 5;
constexpr std::chrono::seconds kReloadLimit{120};
constexpr std::chrono::milliseconds kReloadPause{100};
const Json::Value kNull;

std::string since(const Json::Value& object, const char* key, long now) {
    return age_text(now - std::strtol(text_at(object, key).c_str(), nullptr, 10));
}

std::string link_line(const Json::Value& link, long now) {
    const Json::Value& neighbour = member_at(link, "neighbour");
    std::string line = text_at(link, "ifname") + " " + text_at(link, "status") + " for " +
                       since(link, "since", now) + ", gateway " + text_at(link, "gateway");
    if (!neighbour.isObject()) return line;
    const std::string mac = text_at(neighbour, "mac");
    return line + " (" + text_at(neighbour, "state") + (mac.empty() ? "" : " " + mac) + ")";
}

std::vector<std::string> failed_lines(const Json::Value& state) {
    std::vector<std::string> lines;
    const Json::Value& failed = member_at(state, "failed_steps");
    if (!failed.isObject()) return lines;
    for (const auto& key : failed.getMemberNames()) {
        const std::string code = text_at(failed, key.c_str());
        lines.push_back("FAILED " + key + ": " + code + " (corvoctl explain " + code + ")");
    }
    return lines;
}

Outcome status() {
    Outcome outcome;
    const DaemonReply reply = ask_daemon("get_state");
    outcome.failure = reply.failure;
    outcome.data = reply.data;
    if (outcome.ok()) outcome.lines = status_lines(reply.data, std::time(nullptr));
    return outcome;
}

Outcome links() {
    Outcome outcome;
    const DaemonReply reply = ask_daemon("links");
    outcome.failure = reply.failure;
    if (!outcome.ok()) return outcome;
    outcome.data["links"] = reply.data;
    for (const auto& link : reply.data) outcome.lines.push_back(link_line(link, std::time(nullptr)));
    if (outcome.lines.empty()) outcome.lines.emplace_back("no link is monitored");
    return outcome;
}

// Waits until the daemon has worked the request off, and tells what became of it.
Outcome reload() {
    Outcome outcome;
    const auto attempts = [&](const DaemonReply& reply) {
        outcome.failure = reply.failure;
        return text_at(member_at(reply.data, "last_apply"), "attempts");
    };
    const std::string before = attempts(ask_daemon("get_state"));
    if (outcome.ok()) outcome.failure = ask_daemon("reload").failure;
    const auto end = std::chrono::steady_clock::now() + kReloadLimit;
    while (outcome.ok()) {
        const DaemonReply reply = ask_daemon("get_state");
        if (attempts(reply) != before && outcome.ok()) {
            const Json::Value& last = member_at(reply.data, "last_apply");
            outcome.data["last_apply"] = last;
            outcome.data["failed_steps"] = member_at(reply.data, "failed_steps");
            if (text_at(last, "good") != "true") {
                outcome.failure = "the documents were refused, the edge keeps what it has:";
                for (const auto& problem : member_at(last, "problems"))
                    outcome.failure += "\n  " + problem.asString();
                return outcome;
            }
            outcome.lines.emplace_back("documents applied");
            const auto failed = failed_lines(reply.data);
            outcome.lines.insert(outcome.lines.end(), failed.begin(), failed.end());
            return outcome;
        }
        if (std::chrono::steady_clock::now() >= end)
            outcome.failure =
                "corvo-edged has not worked the reload off yet; \"corvoctl status\" shows when it has";
        std::this_thread::sleep_for(kReloadPause);
    }
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
    std::vector<std::string> lines;
    lines.push_back("device " + text_at(state, "device_id") + ", running for " +
                    since(state, "started", now) +
                    (text_at(state, "ready") == "true" ? "" : ", NOT brought up yet"));
    if (!text_at(state, "hub").empty()) lines.push_back("hub " + text_at(state, "hub"));
    const Json::Value& last = member_at(state, "last_apply");
    lines.push_back("documents " + std::string(text_at(last, "good") == "true" ? "applied " : "REFUSED ") +
                    since(last, "time", now) + " ago");
    for (const auto& problem : member_at(last, "problems")) lines.push_back("  " + problem.asString());
    for (const auto& line : failed_lines(state)) lines.push_back(line);
    for (const auto& link : member_at(state, "links")) lines.push_back(link_line(link, now));
    return lines;
}

void add_daemon_verbs(CLI::App& app, Context& context) {
    context.on(app.add_subcommand("status", "What corvo-edged says of the edge and its links"), status);
    context.on(app.add_subcommand("links", "The monitored links alone"), links);
    context.on(
        app.add_subcommand("reload", "Let corvo-edged read its documents again, and tell what came of it"),
        reload);
    auto options = std::make_shared<WatchOptions>();
    auto* view = app.add_subcommand("watch", "Live view of links, rates, hub and events; q ends it");
    view->add_option("--interval", options->interval, "Seconds between two looks")
        ->check(CLI::Range(1, 60))
        ->capture_default_str();
    view->add_option("--count", options->count, "End after so many looks (default: go on)");
    view->add_flag("--plain", options->plain, "Lines instead of a full screen");
    context.on(view, [options, &context] {
        options->json = context.json;
        Outcome outcome;
        outcome.failure = watch(*options);
        outcome.reported = context.json && outcome.ok();
        return outcome;
    });
}

}  // namespace corvoctl
