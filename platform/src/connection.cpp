#include "connection.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>

namespace vx {

namespace {

constexpr int kReadsPerTurn = 16;  // one client's share of a turn, so that a fast one does not starve others

constexpr std::size_t kReserve = 256U << 10U;

}  // namespace

Connection::Connection(corvo::UniqueFd fd, std::size_t listener, Clock::time_point now,
                       const ServerOptions& options)
    : fd_(std::move(fd)),
      listener_(listener),
      options_(&options),
      since_(now),
      deadline_(now + options.request_limit) {}

short Connection::wanted_events() const {
    switch (phase_) {
        case Phase::kReading:
            return POLLIN;
        case Phase::kWriting:
            return POLLOUT;
        case Phase::kWaiting:  // only the hang-up, which poll always reports
        case Phase::kOver:
            break;
    }
    return 0;
}

void Connection::finish(End end) {
    phase_ = Phase::kOver;
    end_ = end;
}

void Connection::receive(char* scratch, std::size_t scratch_size) {
    for (int turn = 0; turn < kReadsPerTurn; ++turn) {
        const ssize_t got = ::recv(fd_.get(), scratch, scratch_size, MSG_DONTWAIT);
        if (got < 0) {
            if (errno == EINTR) continue;
            if (errno != EAGAIN) finish(End::kAbandoned);
            return;
        }
        if (got == 0) return finish(End::kAbandoned);
        // The promised size is believed step by step: memory follows what has really come.
        if (request_.size > in_.capacity()) in_.reserve(std::min(request_.size, 4 * in_.size() + kReserve));
        in_.append(scratch, static_cast<std::size_t>(got));
        request_ = wire::parse_request(in_);
        if (request_.progress == wire::Progress::kBad) return finish(End::kMalformed);
        if (request_.progress == wire::Progress::kDone) return;
    }
}

void Connection::answer(wire::Status status, Clock::time_point now) {
    head_ = wire::reply_head(status, 0);
    to_send_ = head_.size();
    begin_sending(now);
}

void Connection::answer(Reply reply, Clock::time_point now) {
    const bool has_payload = reply.ending == Reply::Ending::kAnswer || reply.ending == Reply::Ending::kHalf ||
                             reply.ending == Reply::Ending::kRaw;
    if (has_payload) payload_ = std::move(reply.payload);
    if (reply.ending == Reply::Ending::kRefused) {
        head_ = wire::reply_head(wire::Status::kRefused, 0);
    } else if (reply.ending == Reply::Ending::kAnswer || reply.ending == Reply::Ending::kHalf) {
        const bool fits = payload_.size() <= wire::kMaxPayload;
        if (!fits) payload_ = {};
        head_ = wire::reply_head(fits ? wire::Status::kOk : wire::Status::kTooLarge, payload_.size());
    }
    to_send_ = head_.size() + payload_.size();
    if (reply.ending == Reply::Ending::kHalf) to_send_ /= 2;
    // The request is done with; a delayed or slowly read answer need not hold its memory.
    request_ = {};
    in_ = {};
    if (reply.ending == Reply::Ending::kHang) {
        phase_ = Phase::kWaiting;
        deadline_ = Clock::time_point::max();
    } else if (reply.delay.count() > 0) {
        phase_ = Phase::kWaiting;
        deadline_ = now + reply.delay;
    } else {
        begin_sending(now);
    }
}

void Connection::begin_sending(Clock::time_point now) {
    phase_ = Phase::kWriting;
    deadline_ = now + options_->reply_limit;
    send();
}

void Connection::send() {
    while (sent_ < to_send_) {
        const std::size_t of_head = std::min(sent_, head_.size());
        const std::size_t of_payload = sent_ - of_head;
        const std::size_t left_of_head = std::min(head_.size(), to_send_) - of_head;
        iovec parts[2] = {{head_.data() + of_head, left_of_head},
                          {payload_.data() + of_payload, to_send_ - sent_ - left_of_head}};
        msghdr message{};
        message.msg_iov = parts;
        message.msg_iovlen = 2;
        const ssize_t count = ::sendmsg(fd_.get(), &message, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (count < 0) {
            if (errno == EINTR) continue;
            if (errno == EAGAIN) return;
            return finish(End::kAbandoned);
        }
        sent_ += static_cast<std::size_t>(count);
    }
    finish(End::kServed);
}

void Connection::expire(Clock::time_point now) {
    if (phase_ == Phase::kWaiting) {
        begin_sending(now);
    } else {
        finish(End::kTimedOut);
    }
}

}  // namespace vx
