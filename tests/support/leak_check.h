// Nothing left behind: descriptors, threads and children counted before and after.
#pragma once

#include <string>
#include <vector>

namespace corvo::test {

// What the process holds right now. Descriptors are counted by what they are ("socket", "/dev/null", ...).
struct Held {
    std::vector<std::string> descriptors;  // the targets of /proc/self/fd, sorted, numbers of inodes cut off
    int threads = 0;
    int children = 0;  // zombies included

    static Held now();
};

// Fails the test (without ending it) when, at the end of its scope, the process holds more descriptors,
// threads or children than at its beginning. What ends a moment later (a detached thread) gets a second's
// grace.
//
//     LeakCheck leaks;
//     EXPECT_EQ(edit_route(...), 0);
class LeakCheck {
public:
    LeakCheck() : before_(Held::now()) {}
    ~LeakCheck();
    LeakCheck(const LeakCheck&) = delete;
    LeakCheck& operator=(const LeakCheck&) = delete;

private:
    Held before_;
};

}  // namespace corvo::test
