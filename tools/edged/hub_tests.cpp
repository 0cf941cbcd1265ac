#include "edged/hub_tests.h"

#include <corvosetup/ping_test.h>
#include <corvosetup/udp.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

namespace edged {

namespace {

using Clock = std::chrono::steady_clock;

constexpr const char* kThreadName = "hub-test";

// The name of the calling thread, and of every thread that it starts meanwhile.
class ThreadName {
public:
    explicit ThreadName(const char* name) {
        ::prctl(PR_GET_NAME, old_);
        ::prctl(PR_SET_NAME, name);
    }
    ~ThreadName() { ::prctl(PR_SET_NAME, old_); }
    ThreadName(const ThreadName&) = delete;
    ThreadName& operator=(const ThreadName&) = delete;

private:
    char old_[16] = {};
};

// The library does not say when a test has ended; its thread, known by the name it was born with, does.
bool test_runs() {
    std::error_code error;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task", error)) {
        std::string name;
        std::getline(std::ifstream(task.path() / "comm"), name);
        if (name == kThreadName) return true;
    }
    return false;
}

}  // namespace

HubTests::HubTests(HubTest how, std::chrono::seconds interval)
    : how_(how), interval_(interval), next_(Clock::now() + interval) {}

HubTests::Event HubTests::follow(LinkTrust trust, int& code) {
    if (how_ == HubTest::kNone) return Event::kNothing;
    running_ = running_ && test_runs();
    if (running_ && trust == LinkTrust::kDoubtful) {
        stop();
        next_ = Clock::now();
        return Event::kEnded;
    }
    if (running_ || trust != LinkTrust::kSure || Clock::now() < next_) return Event::kNothing;
    next_ = Clock::now() + interval_;
    {
        const ThreadName name(kThreadName);
        code = how_ == HubTest::kUdp ? Start_nexthop_udp_test(false) : Start_nexthop_ping_test();
    }
    running_ = code == 0;
    return Event::kStarted;
}

void HubTests::stop() {
    if (how_ == HubTest::kUdp) Stop_nexthop_udp_test();
    if (how_ == HubTest::kPing) Stop_nexthop_ping_test();
    running_ = false;
}

}  // namespace edged
