// Many route edits over one socket.
//
// Who may include this: areas that apply lists of IPv4 routes. One session is one socket; edits travel many
// to a datagram and every one gets the result that edit_route() would have given it, in the order of
// submission.
//
//     RouteSession session;
//     if (int opened = session.open(); opened < 0) return opened;
//     for (...) session.submit(0, record);        // the record may go away at once
//     std::vector<int> results = session.finish();
//
// Meaning of the edits, for one as for many. Adding removes every route of the same table, priority and
// destination first, whatever its type, protocol and next hops; the removal travels with the addition, and
// both are repeated for as long as the kernel says that one is still there (lists on devices have been found
// with several). Where a list turns out to meet an empty table, the removal travels only after an addition
// that was refused. A route with a TOS is nobody's of ours and stays. When table, priority or destination is
// not set, what to remove is read from one dump of the table. Edits of the same route keep their order.
//
// Threading: a session belongs to one thread. Memory: what is on its way (kBatchRecords) and one int per
// edit.
#pragma once

#include <net/if.h>

#include <memory>
#include <vector>

#include "corvosetup/routing.h"
#include "netlink/raw_socket.h"
#include "netlink/route_message.h"

namespace corvo::nl {

// What an edit of a route comes to: 0, -3012 or -3013, or libnl's code for what the kernel said.
int result_of(const Answer& answer);

class RouteSession {
public:
    // What goes into one datagram. More does not make the kernel faster; less costs system calls.
    static constexpr std::size_t kBatchRecords = 100;
    static constexpr std::size_t kBatchBytes = 65536;
    // How often an addition is repeated against somebody who keeps adding the same route.
    static constexpr int kRounds = 4096;

    // -3008 or -3009.
    int open();

    // Operation 0 (add), 1 (delete) or 2 (flush) of edit_route(). Its result comes with finish().
    void submit(unsigned op, const route_conf& record);

    // Sends what is left and hands out all results since the last call.
    std::vector<int> finish();

    // Deletes every route that `key` means: 0, or -3010 when the kernel's routes cannot be read.
    int flush_matching(const RouteKey& key);

    // The kernel's routes that `key` means, TOS or not: 0 or -3010.
    int list(const RouteKey& key, std::vector<RouteEntry>& entries);

    RawSocket& socket() { return *socket_; }

private:
    // One or two messages of the batch that stand for one edit.
    struct Slot {
        RouteKey key;
        std::size_t result;  // its place in results_
        std::size_t begin;   // its bytes in batch_
        std::size_t last;    // where its last message begins
        std::size_t end;
        unsigned messages;
    };
    // What of each edit goes into a datagram.
    enum class Send {
        kWhole,
        kLast,  // the addition alone: the kernel refuses it while there is something to be removed first
    };

    void begin_slot(std::size_t result, const RouteKey& key);
    void last_message();  // of the slot begins here
    void end_slot(unsigned messages);
    void queue(unsigned op, const RouteSpec& spec, std::size_t result);
    void queue_flush(const RouteKey& key, std::size_t result);
    int add_unkeyed(const RouteSpec& spec);

    // The index of the device, asked for once per batch: the next hops of a list leave by few devices.
    unsigned index_of(const char* name);

    void send_batch();
    void run_rounds(std::vector<std::size_t> todo);
    // Sends these slots in one datagram; errors_ then holds an errno for every message. False: the result of
    // all of them is `failure`, or, when that is 0, answers were lost.
    bool exchange(const std::vector<std::size_t>& todo, Send what, int& failure);
    bool collect(std::uint32_t first, std::uint32_t count, Send what, int& failure);
    std::vector<std::size_t> settle(const std::vector<std::size_t>& todo, Send what);

    std::unique_ptr<RawSocket> socket_;
    unsigned op_ = 0;  // of everything in the batch
    bool wide_ = false;
    bool table_is_empty_ = false;  // as far as the batch before met it
    bool independent_ = true;      // no edit of the batch depends on another's route
    RouteSpec spec_;
    char device_[IFNAMSIZ] = "";
    unsigned device_index_ = 0;  // 0: none known
    MessageWriter batch_;
    std::vector<Slot> slots_;
    std::vector<std::uint8_t> outgoing_;
    std::vector<int> errors_;
    std::vector<int> results_;
};

}  // namespace corvo::nl
