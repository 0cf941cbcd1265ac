#include "netlink/route_session.h"

#include <linux/rtnetlink.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <numeric>
#include <utility>

#include "foundation/result.h"
#include "netlink/nl.h"

namespace corvo::nl {

namespace {

enum : unsigned { kAdd = 0, kDelete = 1, kFlush = 2 };

constexpr int kReceiveBuffer = 1 << 20;  // the answers of a whole batch of refusals
constexpr int kRepeats = 8;              // of an addition whose old routes had to be searched
constexpr std::size_t kFewMet = 4;       // fewer than one in so many is few

void patch_head(std::uint8_t* message, std::uint32_t sequence, bool ack) {
    nlmsghdr head{};
    std::memcpy(&head, message, sizeof head);
    head.nlmsg_seq = sequence;
    if (ack) {
        head.nlmsg_flags |= NLM_F_ACK;
    } else {
        head.nlmsg_flags &= static_cast<std::uint16_t>(~NLM_F_ACK);
    }
    std::memcpy(message, &head, sizeof head);
}

std::uint32_t length_of(const std::uint8_t* message) {
    std::uint32_t length;
    std::memcpy(&length, message, sizeof length);
    return NLMSG_ALIGN(length);
}

// Whether the kernel accepts the route without looking at others: it looks up a gateway that it is not told
// to take as being on the link.
bool needs_no_route(const RouteSpec& spec) {
    return std::all_of(spec.hops.begin(), spec.hops.end(), [](const RouteHop& hop) {
        return hop.gateway.size == 0 || (hop.flags & RTNH_F_ONLINK) != 0;
    });
}

}  // namespace

int result_of(const Answer& answer) {
    switch (answer.outcome) {
        case Answer::Outcome::kSendFailed:
            return kSendFailed;
        case Answer::Outcome::kReceiveFailed:
            return kReceiveFailed;
        default:
            return libnl_error(answer.error);
    }
}

int RouteSession::open() {
    const int opened = RawSocket::open_as_result(socket_);
    if (opened == kOk && trace_refusals) socket_->ask_for_words();
    return opened;
}

void RouteSession::submit(unsigned op, const route_conf& record) {
    const std::size_t result = results_.size();
    results_.push_back(kOk);
    const int read = read_record(
        record, op, [this](const char* name) { return index_of(name); }, spec_);
    if (read < 0) {
        results_[result] = read;
        return;
    }
    if (op != op_ || slots_.size() >= kBatchRecords || batch_.size() >= kBatchBytes) send_batch();
    op_ = op;
    if (op == kDelete || spec_.key.complete()) {
        queue(op, spec_, result);
        return;
    }
    send_batch();
    const int outcome = op == kFlush ? flush_matching(spec_.key) : add_unkeyed(spec_);
    results_[result] = outcome;
}

std::vector<int> RouteSession::finish() {
    send_batch();
    return std::exchange(results_, {});
}

unsigned RouteSession::index_of(const char* name) {
    if (device_index_ != 0 && std::strcmp(name, device_) == 0) return device_index_;
    device_index_ = socket_->link_index(name);
    if (device_index_ != 0) std::strcpy(device_, name);  // the name of a device fits
    return device_index_;
}

void RouteSession::begin_slot(std::size_t result, const RouteKey& key) {
    slots_.push_back({key, result, batch_.size(), batch_.size(), batch_.size(), 0});
}

void RouteSession::last_message() {
    slots_.back().last = batch_.size();
}

void RouteSession::end_slot(unsigned messages) {
    Slot& slot = slots_.back();
    slot.end = batch_.size();
    slot.messages = messages;
    if (batch_.overflow()) {  // more next hops than a message can hold
        batch_.cut(slot.begin);
        results_[slot.result] = -NLE_MSGSIZE;
        slots_.pop_back();
    }
}

void RouteSession::queue(unsigned op, const RouteSpec& spec, std::size_t result) {
    if (op == kFlush) {
        queue_flush(spec.key, result);
        return;
    }
    begin_slot(result, spec.key);
    if (op == kAdd) {
        build_delete_any(batch_, spec.key);
        last_message();
        build_add_route(batch_, spec);
        end_slot(2);
        independent_ = independent_ && needs_no_route(spec);
    } else {
        build_delete_route(batch_, spec);
        end_slot(1);
    }
}

// The second request finds out whether the first one took the last route.
void RouteSession::queue_flush(const RouteKey& key, std::size_t result) {
    begin_slot(result, key);
    build_delete_any(batch_, key);
    build_delete_any(batch_, key);
    end_slot(2);
}

// Nothing names what has to go: it is searched for, removed and searched for again while the kernel says that
// there is more.
int RouteSession::add_unkeyed(const RouteSpec& spec) {
    int outcome = -NLE_EXIST;
    for (int repeat = 0; outcome == -NLE_EXIST && repeat < kRepeats; ++repeat) {
        if (const int flushed = flush_matching(spec.key); flushed < 0) return flushed;
        MessageWriter message;
        build_add_route(message, spec, NLM_F_ACK);
        outcome = message.overflow() ? -NLE_MSGSIZE : result_of(socket_->transact(message));
    }
    return outcome;
}

int RouteSession::list(const RouteKey& key, std::vector<RouteEntry>& entries) {
    MessageWriter message;
    build_dump_routes(message, key.family, key.table);
    const Answer answer = consistent_dump(
        *socket_, message, [&] { entries.clear(); },
        [&](const MessageView& reply) {
            RouteEntry entry;
            if (read_route(reply, entry) && matches(entry, key)) entries.push_back(std::move(entry));
        });
    // A table that nobody has used yet.
    if (answer.done() || (answer.refused() && answer.error == ENOENT)) return kOk;
    return kAllocFailed;
}

int RouteSession::flush_matching(const RouteKey& key) {
    std::vector<RouteKey> keys;
    {
        std::vector<RouteEntry> entries;
        if (const int listed = list(key, entries); listed < 0) return listed;
        for (const RouteEntry& entry : entries) {
            if (entry.tos == 0) keys.push_back(entry.key);
        }
    }
    std::sort(keys.begin(), keys.end(), [](const auto& a, const auto& b) { return a.order() < b.order(); });
    keys.erase(std::unique(keys.begin(), keys.end()), keys.end());

    // What the deletions come to is nobody's concern, so they share one result that is taken back again.
    const std::size_t scratch = results_.size();
    results_.push_back(kOk);
    op_ = kFlush;
    for (const RouteKey& each : keys) {
        if (slots_.size() >= kBatchRecords) send_batch();
        queue_flush(each, scratch);
    }
    send_batch();
    const int result = results_[scratch];
    results_.pop_back();
    return result;
}

void RouteSession::send_batch() {
    device_index_ = 0;
    if (slots_.empty()) return;
    if (!wide_ && slots_.size() > 1) {
        socket_->prepare_for_many(kReceiveBuffer);
        wide_ = true;
    }
    std::vector<std::size_t> all(slots_.size());
    std::iota(all.begin(), all.end(), std::size_t{0});
    run_rounds(std::move(all));
    slots_.clear();
    batch_.clear();
    independent_ = true;
}

void RouteSession::run_rounds(std::vector<std::size_t> todo) {
    Send what =
        op_ == kAdd && table_is_empty_ && independent_ && todo.size() > 1 ? Send::kLast : Send::kWhole;
    for (int round = 0; !todo.empty() && round < kRounds; ++round) {
        int failure = 0;
        if (exchange(todo, what, failure)) {
            todo = settle(todo, what);
            what = Send::kWhole;
            continue;
        }
        if (failure == 0 && todo.size() > 1) {
            // Answers were lost. Every edit may be done again, so each is, on its own.
            for (const std::size_t slot : todo) run_rounds({slot});
            return;
        }
        if (failure == 0) failure = kReceiveFailed;
        if (op_ == kFlush) failure = kAllocFailed;  // the kernel's routes could not be gone through
        for (const std::size_t slot : todo) results_[slots_[slot].result] = failure;
        return;
    }
}

bool RouteSession::exchange(const std::vector<std::size_t>& todo, Send what, int& failure) {
    std::uint8_t* bytes = batch_.data();
    std::size_t size = batch_.size();
    if (todo.size() != slots_.size() || what == Send::kLast) {
        outgoing_.clear();
        for (const std::size_t index : todo) {
            const Slot& slot = slots_[index];
            outgoing_.insert(outgoing_.end(), batch_.data() + (what == Send::kLast ? slot.last : slot.begin),
                             batch_.data() + slot.end);
        }
        bytes = outgoing_.data();
        size = outgoing_.size();
    }
    std::uint32_t count = 0;
    for (const std::size_t slot : todo) count += what == Send::kLast ? 1 : slots_[slot].messages;
    const std::uint32_t first = socket_->next_sequence(count);
    std::uint8_t* message = bytes;
    for (std::uint32_t i = 0; i < count; ++i) {
        patch_head(message, first + i, i + 1 == count);
        message += length_of(message);
    }
    errors_.assign(count, 0);
    if (!socket_->send({bytes, size})) {
        failure = kSendFailed;
        return false;
    }
    return collect(first, count, what, failure);
}

// Refusals come in the order of the requests; the last request is answered in any case.
bool RouteSession::collect(std::uint32_t first, std::uint32_t count, Send what, int& failure) {
    for (;;) {
        int error = 0;
        Bytes datagram = socket_->receive(error);
        if (error == ENOBUFS) {
            socket_->drain();
            failure = 0;
            return false;
        }
        if (error != 0) {
            failure = kReceiveFailed;
            return false;
        }
        MessageView message;
        while (next_message(datagram, message)) {
            const std::uint32_t at = message.head.nlmsg_seq - first;
            if (at >= count || message.head.nlmsg_type != NLMSG_ERROR) continue;
            std::string words;
            const int error = read_error(message, &words);
            // Nothing to delete is what a deletion ahead of an addition usually finds, and an addition that
            // is refused alone comes again with its deletion.
            if (error != 0 && error != ESRCH && what == Send::kWhole) trace_refusal(message, error, words);
            errors_[at] = error;
            if (at + 1 == count) return true;
        }
    }
}

// Takes the results of what is settled and returns what must be done again, in order.
std::vector<std::size_t> RouteSession::settle(const std::vector<std::size_t>& todo, Send what) {
    std::vector<std::size_t> again;
    std::size_t at = 0;
    std::size_t met = 0;  // additions that found a former route
    for (const std::size_t index : todo) {
        const Slot& slot = slots_[index];
        const int before = errors_[at];
        at += what == Send::kLast ? 1 : slot.messages;
        const int last = errors_[at - 1];
        int& result = results_[slot.result];
        bool repeat = false;
        if (op_ == kFlush) {
            repeat = last == 0;  // there was a second one, so there may be a third
        } else {
            result = libnl_error(last);
            repeat = op_ == kAdd && (last == EEXIST || (last != 0 && what == Send::kLast));
            if (what == Send::kLast ? last != 0 : before != ESRCH) ++met;
        }
        // A later edit of the same route comes after an earlier one, also when that is repeated.
        repeat = repeat || std::any_of(again.begin(), again.end(), [&](std::size_t other) {
                     return op_ == kAdd && slots_[other].key == slot.key;
                 });
        if (repeat) again.push_back(index);
    }
    if (op_ == kAdd && todo.size() == slots_.size()) table_is_empty_ = met * kFewMet < todo.size();
    return again;
}

}  // namespace corvo::nl
