// One client of a server: what it has sent, what it gets, and when it has had enough time.
#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <string_view>

#include "foundation/fd.h"
#include "vx_serve.h"
#include "wire.h"

namespace vx {

class Connection {
public:
    using Clock = std::chrono::steady_clock;

    enum class Phase { kReading, kWaiting, kWriting, kOver };
    enum class End { kNone, kServed, kAbandoned, kMalformed, kTimedOut };

    Connection(corvo::UniqueFd fd, std::size_t listener, Clock::time_point now, const ServerOptions& options);

    int fd() const { return fd_.get(); }
    std::size_t listener() const { return listener_; }
    Phase phase() const { return phase_; }
    End end() const { return end_; }
    Clock::time_point since() const { return since_; }        // when the connection was accepted
    Clock::time_point deadline() const { return deadline_; }  // when expire() is due
    short wanted_events() const;
    std::size_t held() const { return in_.capacity() + payload_.capacity(); }

    // Reads what is there, up to a fair share; a whole request is set then. kOver ends the connection.
    void receive(char* scratch, std::size_t scratch_size);
    bool has_request() const { return request_.progress == wire::Progress::kDone; }
    const wire::Request& request() const { return request_; }

    // Takes the answer to the request; sends at once what the socket takes, unless it is delayed.
    void answer(Reply reply, Clock::time_point now);
    void answer(wire::Status status, Clock::time_point now);

    void send();
    void expire(Clock::time_point now);  // the deadline has passed
    void finish(End end);

private:
    void begin_sending(Clock::time_point now);

    corvo::UniqueFd fd_;
    std::size_t listener_;
    const ServerOptions* options_;
    Phase phase_ = Phase::kReading;
    End end_ = End::kNone;
    Clock::time_point since_;
    Clock::time_point deadline_;
    std::string in_;
    wire::Request request_;
    std::string head_;      // of the reply
    std::string payload_;   // of the reply, sent from where the handler put it
    std::size_t sent_ = 0;  // of both together
    std::size_t to_send_ = 0;
};

}  // namespace vx
