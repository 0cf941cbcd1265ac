// Hubs to be tested against, each in a network namespace of its own.
#pragma once

#include <netinet/in.h>
#include <sys/types.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "foundation/fd.h"
#include "support/sandbox.h"

namespace corvo::test {

// The namespace of site `id`, reached over a veth pair "w<id>" / "eth0" at 10.0.<id>.2 from 10.0.<id>.1. Its
// kernel answers pings.
class Site {
public:
    explicit Site(int id);

    const std::string& address() const { return address_; }
    const Netns& netns() const { return netns_; }
    void ignore_pings() const;

private:
    Netns netns_;
    std::string address_;
};

// The library's own responder for a site's eth0, in a process of its own with a device id of its own.
class HubProcess {
public:
    HubProcess(const Site& site, int id);  // returns when it serves
    ~HubProcess();
    HubProcess(const HubProcess&) = delete;
    HubProcess& operator=(const HubProcess&) = delete;

    void kill();  // without any farewell

private:
    pid_t pid_ = -1;
    UniqueFd life_;
};

// A made-up peer at port 7788 of a site: gives for each datagram what to send back, and may take its time.
class FakeHub {
public:
    using Answer = std::function<std::vector<std::string>(const std::string& request)>;

    FakeHub(const Site& site, Answer answer);
    ~FakeHub();
    FakeHub(const FakeHub&) = delete;
    FakeHub& operator=(const FakeHub&) = delete;

    int seen() const { return seen_; }

private:
    UniqueFd fd_;
    std::atomic<bool> over_{false};
    std::atomic<int> seen_{0};
    std::thread thread_;
};

// Whether somebody has UDP port 7788 in the namespace of the calling thread.
bool port_is_taken();

}  // namespace corvo::test
