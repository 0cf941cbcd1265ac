// The signals that steer the daemon, as data: nothing runs in a handler.
#pragma once

#include <chrono>
#include <mutex>
#include <thread>

namespace edged {

// Blocks SIGTERM, SIGINT and SIGHUP for the calling thread and all that it starts afterwards; a thread of its
// own takes them. Whatever the daemon is in when it is told to end, it has ended after `limit`: the thread
// ends the process then, with status 1. That is as good as any other moment to be killed at.
class Signals {
public:
    explicit Signals(std::chrono::seconds limit);  // throws std::system_error
    ~Signals();
    Signals(const Signals&) = delete;
    Signals& operator=(const Signals&) = delete;

    int fd() const { return asked_fd_; }  // readable: something was asked for

    struct Asked {
        bool stop = false;
        bool reload = false;
    };
    Asked take();   // since the last call; the wish to stop stays
    void reload();  // as SIGHUP; any thread

private:
    void follow();

    std::chrono::seconds limit_;
    int signal_fd_;
    int asked_fd_;
    int end_fd_;
    std::mutex lock_;
    Asked asked_;
    std::thread thread_;
};

}  // namespace edged
