// The test of the active hub, on a timer.
//
// The library ends a test that is under way when the next one is started, and a test asks over whatever link
// the kernel's routes choose. So a test is started only when none runs, and only while no link is in doubt:
// a link that died a moment ago would make a living hub look dead.
#pragma once

#include <chrono>

namespace edged {

enum class HubTest { kNone, kUdp, kPing };

// What is known of the links that a test may go out by.
enum class LinkTrust {
    kSure,      // every link in use reaches its gateway
    kAsking,    // the kernel is about to ask for a gateway that it has not heard from: not the time to begin
    kDoubtful,  // a link in use does not reach its gateway, or nothing is in use: what a test finds is void
};

class HubTests {
public:
    HubTests(HubTest how, std::chrono::seconds interval);

    enum class Event { kNothing, kStarted, kEnded };

    // Starts a test when one is due, ends the running one when a link came into doubt; that one is due again
    // then. `code`: of the start.
    Event follow(LinkTrust trust, int& code);

    void stop();

private:
    HubTest how_;
    std::chrono::seconds interval_;
    std::chrono::steady_clock::time_point next_;
    bool running_ = false;  // when it was last looked at
};

}  // namespace edged
