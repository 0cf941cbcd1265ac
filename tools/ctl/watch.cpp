// corvoctl watch: the live view.
//
// The screen is composed as plain lines of a given width first (compose()), which is what the tests look at;
// ncurses only puts them up. 80 columns by 24 lines are enough: what does not fit is cut, links first come
// first.
#include "ctl/watch.h"

#include <corvosetup/routing.h>
#include <json/writer.h>
#include <ncurses.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <iostream>

#include "ctl/app.h"
#include "ctl/daemon.h"

namespace corvoctl {

namespace {

volatile std::sig_atomic_t ended = 0;

double number_at(const Json::Value& object, const char* key) {
    return std::strtod(text_at(object, key).c_str(), nullptr);
}

std::string padded(std::string text, std::size_t width) {
    text.resize(width, ' ');
    return text;
}

// "12.3M"
std::string rate_text(double bits) {
    const char* const units[] = {"", "k", "M", "G"};
    int unit = 0;
    while (bits >= 1000 && unit < 3) {
        bits /= 1000;
        ++unit;
    }
    char text[32];
    std::snprintf(text, sizeof text, bits < 10 && unit > 0 ? "%.1f%s" : "%.0f%s", bits, units[unit]);
    return text;
}

std::string bar(double part, std::size_t width) {
    const auto full =
        static_cast<std::size_t>(std::lround(std::clamp(part, 0.0, 1.0) * static_cast<double>(width)));
    return "[" + std::string(full, '#') + std::string(width - full, '.') + "]";
}

std::string usage(const Json::Value& figures, std::size_t width) {
    const double rate = number_at(figures, "RATE");
    const double ceil = number_at(figures, "CEIL");
    return bar(ceil > 0 ? rate / ceil : 0, width) + " " + rate_text(rate) + "/" + rate_text(ceil);
}

// The weight of a device in the route lines that the kernel gave: "... dev wan1 weight 5 ...".
std::string weight_of(const std::vector<std::string>& routes, const std::string& dev) {
    for (const auto& line : routes) {
        const auto at = line.find("dev " + dev + " ");
        if (at == std::string::npos) continue;
        const auto weight = line.find("weight ", at);
        const auto next = line.find("nexthop", at);
        if (weight == std::string::npos || weight > next) return "1";
        return line.substr(weight + 7, line.find(' ', weight + 7) - weight - 7);
    }
    return "-";
}

void add_classes(std::vector<std::string>& lines, const Json::Value& link, std::size_t room) {
    const Json::Value& classes = member_at(member_at(member_at(link, "report"), "QDM"), "COS");
    if (!classes.isArray()) return;
    std::vector<std::pair<std::string, const Json::Value*>> sorted;
    for (const auto& entry : classes)
        if (entry.isObject())
            for (const auto& name : entry.getMemberNames()) sorted.emplace_back(name, &entry[name]);
    std::sort(sorted.begin(), sorted.end(), [](const auto& a, const auto& b) {
        return a.first.size() != b.first.size() ? a.first.size() < b.first.size() : a.first < b.first;
    });
    // What has no room is at least counted.
    const std::size_t shown = sorted.size() <= room ? sorted.size() : room > 0 ? room - 1 : 0;
    for (std::size_t i = 0; i < shown; ++i)
        lines.push_back("    " + padded(sorted[i].first, 7) + usage(*sorted[i].second, 20));
    if (shown < sorted.size() && room > 0)
        lines.push_back("    and " + std::to_string(sorted.size() - shown) + " more classes");
}

// Alarms, and how many more there are: they must not push the links out of the view.
void add_alarms(std::vector<std::string>& lines, const std::vector<std::string>& alarms, std::size_t room) {
    const std::size_t shown = alarms.size() <= room ? alarms.size() : room - 1;
    for (std::size_t i = 0; i < shown; ++i) lines.push_back("! " + alarms[i]);
    if (shown < alarms.size())
        lines.push_back("! and " + std::to_string(alarms.size() - shown) + " more (corvoctl status)");
}

std::vector<std::string> problems_of(const Json::Value& last) {
    std::vector<std::string> out;
    for (const auto& problem : member_at(last, "problems")) out.push_back("  " + problem.asString());
    return out;
}

std::vector<std::string> failed_steps_of(const Json::Value& failed) {
    std::vector<std::string> out;
    if (!failed.isObject()) return out;
    for (const auto& key : failed.getMemberNames())
        out.push_back(key + " failed: " + text_at(failed, key.c_str()));
    return out;
}

std::vector<std::string> kernel_routes() {
    route_conf all{};
    all.table = 253;
    return captured_stdout([&] { edit_route(3, &all); });
}

void show(const std::vector<std::string>& lines) {
    erase();
    for (std::size_t i = 0; i < lines.size() && static_cast<int>(i) < LINES; ++i) {
        const bool alarm = lines[i].find(" down ") != std::string::npos || lines[i].rfind("!", 0) == 0;
        if (i == 0) attron(A_REVERSE);
        if (alarm) attron(A_BOLD);
        mvaddnstr(static_cast<int>(i), 0, lines[i].c_str(), COLS);
        if (alarm) attroff(A_BOLD);
        if (i == 0) attroff(A_REVERSE);
    }
    const char help[] = " q: end ";
    const int column = COLS - static_cast<int>(sizeof help) + 1;
    if (column > 60) {
        attron(A_REVERSE);
        mvaddstr(0, column, help);
        attroff(A_REVERSE);
    }
    refresh();
}

// Whether another look follows, after the pause before it.
bool another(const WatchOptions& options, unsigned looks) {
    if (ended != 0 || !std::cout || (options.count != 0 && looks >= options.count)) return false;
    ::sleep(options.interval);
    return ended == 0;
}

std::string watch_lines(const WatchOptions& options) {
    unsigned looks = 0;
    do {
        const DaemonReply reply = ask_daemon("get_state");
        if (!reply.failure.empty()) return reply.failure;
        if (options.json) {
            Outcome outcome;
            outcome.data = reply.data;
            Json::StreamWriterBuilder builder;
            builder["indentation"] = "";
            std::cout << Json::writeString(builder, to_json(outcome, "watch")) << std::endl;
        } else {
            for (const auto& line : compose(reply.data, kernel_routes(), std::time(nullptr), {120, 60}))
                std::cout << line << '\n';
            std::cout << std::endl;
        }
    } while (another(options, ++looks));
    return {};
}

}  // namespace

std::vector<std::string> compose(const Json::Value& state, const std::vector<std::string>& routes, long now,
                                 Screen screen) {
    std::vector<std::string> lines;
    const auto age = [now](const Json::Value& object, const char* key) {
        return age_text(now - std::strtol(text_at(object, key).c_str(), nullptr, 10));
    };
    char clock[16] = "";
    const std::time_t seconds = now;
    std::tm parts{};
    if (localtime_r(&seconds, &parts) != nullptr) std::strftime(clock, sizeof clock, "%H:%M:%S", &parts);
    const std::string hub = text_at(state, "hub");
    lines.push_back(padded("corvo edge " + text_at(state, "device_id") + "  hub " +
                               (hub.empty() ? "-" : hub) + "  up " + age(state, "started") + "  " + clock,
                           screen.columns));
    const std::size_t alarm_room = std::max<std::size_t>(3, screen.rows / 6);
    const Json::Value& last = member_at(state, "last_apply");
    if (text_at(last, "good") != "true") {
        lines.push_back("! documents refused " + age(last, "time") + " ago:");
        add_alarms(lines, problems_of(last), alarm_room);
    }
    add_alarms(lines, failed_steps_of(member_at(state, "failed_steps")), alarm_room);

    lines.push_back(padded("LINK", 11) + padded("STATE", 9) + padded("SINCE", 8) + padded("NEIGHBOUR", 12) +
                    padded("WEIGHT", 7) + "EGRESS");
    const Json::Value& links = member_at(state, "links");
    const std::size_t events_room = 6;  // with their heading
    const std::size_t used = lines.size() + links.size() + events_room;
    std::size_t spare = screen.rows > used ? screen.rows - used : 0;
    std::size_t left = links.size();
    for (const auto& link : links) {
        const Json::Value& report = member_at(link, "report");
        const std::string neighbour = text_at(member_at(link, "neighbour"), "state");
        const std::string name = text_at(link, "ifname");
        lines.push_back(padded(name, 10) + " " + padded(text_at(link, "status"), 8) + " " +
                        padded(age(link, "since"), 8) + padded(neighbour.empty() ? "-" : neighbour, 12) +
                        padded(weight_of(routes, name), 7) + usage(member_at(report, "QDM"), 16));
        const std::size_t before = lines.size();
        add_classes(lines, link, spare / left--);
        spare -= lines.size() - before;
    }
    lines.emplace_back("EVENTS");
    const Json::Value& events = member_at(state, "events");
    const Json::ArrayIndex count = events.isArray() ? events.size() : 0;
    for (Json::ArrayIndex i = 0; i < count && i < events_room - 1; ++i) {
        const Json::Value& entry = events[count - 1 - i];
        lines.push_back("  " + padded(age(entry, "time") + " ago", 12) + text_at(entry, "text"));
    }
    if (lines.size() > screen.rows) lines.resize(screen.rows);
    for (auto& line : lines)
        if (line.size() > screen.columns) line.resize(screen.columns);
    return lines;
}

std::string watch(const WatchOptions& options) {
    std::signal(SIGINT, [](int) { ended = 1; });
    std::signal(SIGTERM, [](int) { ended = 1; });
    if (options.plain || options.json || ::isatty(1) == 0) return watch_lines(options);
    if (const DaemonReply reply = ask_daemon("get_state"); !reply.failure.empty()) return reply.failure;
    initscr();
    cbreak();
    noecho();
    curs_set(0);
    timeout(static_cast<int>(options.interval) * 1000);
    for (unsigned looks = 0; ended == 0 && (options.count == 0 || looks < options.count); ++looks) {
        const DaemonReply reply = ask_daemon("get_state");
        const Screen screen{static_cast<std::size_t>(COLS), static_cast<std::size_t>(LINES)};
        show(reply.failure.empty() ? compose(reply.data, kernel_routes(), std::time(nullptr), screen)
                                   : std::vector<std::string>{"! " + reply.failure});
        const int key = getch();
        if (key == 'q' || key == 'Q') break;
    }
    endwin();
    return {};
}

}  // namespace corvoctl
