#include "netns/monitor/road.h"

#include <linux/rtnetlink.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/socket.h>

#include <iostream>

namespace corvo::test {

Timeline::Timeline() {
    log_.open(kLogFile);
    log_.seekg(0, std::ios::end);
    watch_.reset(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    ::inotify_add_watch(watch_.get(), kLogFile, IN_MODIFY);
    routes_.reset(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
    sockaddr_nl local{};
    local.nl_family = AF_NETLINK;
    local.nl_groups = RTMGRP_IPV4_ROUTE;
    ::bind(routes_.get(), reinterpret_cast<sockaddr*>(&local), sizeof local);
    thread_ = std::thread([this] { run(); });
}

Timeline::~Timeline() {
    stop_.request();
    thread_.join();
}

void Timeline::add(const std::string& what) {
    catch_up();
    note(what);
}

void Timeline::catch_up() {
    std::lock_guard hold(reading_);
    read_log();
    read_routes();
}

void Timeline::note(const std::string& what) {
    std::lock_guard hold(lock_);
    events_.push_back({what, Clock::now()});
}

Timeline::Clock::time_point Timeline::when(const std::string& what) {
    std::lock_guard hold(lock_);
    Clock::time_point time{};
    for (const auto& event : events_) {
        if (event.what == what) time = event.time;
    }
    return time;
}

void Timeline::print() {
    std::lock_guard hold(lock_);
    for (const auto& event : events_) {
        const auto us = std::chrono::duration_cast<std::chrono::microseconds>(event.time - events_[0].time);
        std::cout << "    " << us.count() << " us  " << event.what << "\n";
    }
}

void Timeline::run() {
    pollfd wait[] = {{stop_.fd(), POLLIN, 0}, {watch_.get(), POLLIN, 0}, {routes_.get(), POLLIN, 0}};
    for (;;) {
        ::poll(wait, 3, -1);
        catch_up();
        if (wait[0].revents != 0) return;
    }
}

void Timeline::read_log() {
    alignas(inotify_event) char noise[4096];
    while (::read(watch_.get(), noise, sizeof noise) > 0) {
    }
    std::string line;
    while (std::getline(log_, line)) {
        const LogLine parsed = parse_log_line(line);
        if (parsed.message.starts_with("status changed") || parsed.message.starts_with("Update condition"))
            note(parsed.message);
    }
    log_.clear();
}

void Timeline::read_routes() {
    alignas(nlmsghdr) char buffer[8192];
    ssize_t size;
    while ((size = ::recv(routes_.get(), buffer, sizeof buffer, MSG_DONTWAIT)) > 0) {
        auto* head = reinterpret_cast<nlmsghdr*>(buffer);
        for (auto left = static_cast<int>(size); NLMSG_OK(head, left); head = NLMSG_NEXT(head, left)) {
            const auto* route = static_cast<const rtmsg*>(NLMSG_DATA(head));
            if (route->rtm_table != 253) continue;
            if (head->nlmsg_type == RTM_NEWROUTE) note("kernel: new default route");
            if (head->nlmsg_type == RTM_DELROUTE) note("kernel: old default route gone");
        }
    }
}

}  // namespace corvo::test
