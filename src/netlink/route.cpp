// Routes: the exported edits and the next-hop lists.

#include <net/if.h>
#include <sys/socket.h>

#include <cstdio>
#include <cstdlib>

#include "corvosetup/routing.h"
#include "foundation/command.h"
#include "foundation/guard.h"
#include "netlink/nl.h"
#include "netlink/route_session.h"

namespace {

using corvo::guarded;
using corvo::nl::MessageWriter;
using corvo::nl::RouteEntry;
using corvo::nl::RouteSession;
using corvo::nl::RouteSpec;

enum : unsigned { kAdd = 0, kDelete = 1, kFlush = 2, kPrint = 3 };

std::string interface_name(std::uint32_t index) {
    char name[IF_NAMESIZE] = "";
    return ::if_indextoname(index, name) ? name : std::to_string(index);
}

int print_routes(RouteSession& session, const corvo::nl::RouteKey& key) {
    std::vector<RouteEntry> entries;
    if (const int listed = session.list(key, entries); listed < 0) return listed;
    std::string text;
    for (const RouteEntry& entry : entries) text += corvo::nl::print_route(entry, interface_name);
    std::fwrite(text.data(), 1, text.size(), stdout);
    std::fflush(stdout);
    return corvo::kOk;
}

int edit6(unsigned op, const route6_conf& record) {
    RouteSession session;
    if (const int opened = session.open(); opened < 0) return opened;
    RouteSpec spec;
    const auto index = [&](const char* name) { return session.socket().link_index(name); };
    if (const int read = corvo::nl::read_record(record, op, index, spec); read < 0) return read;
    if (op == kPrint) return print_routes(session, spec.key);
    if (op == kAdd || op == kFlush) {
        const std::string command = corvo::nl::flush_command(record);
        if (command.empty()) return corvo::kBadAddress;
        corvo::run_command_quiet(
            corvo::split_words(command));  // nothing to remove is a failure of the tool, not ours
        if (op == kFlush) return corvo::kOk;
    }
    MessageWriter message;
    if (op == kAdd) {
        corvo::nl::build_add_route(message, spec, NLM_F_ACK);
    } else {
        corvo::nl::build_delete_route(message, spec, NLM_F_ACK);
    }
    if (message.overflow()) return -NLE_MSGSIZE;
    return corvo::nl::result_of(session.socket().transact(message));
}

template <class Hop>
Hop* append_hop(Hop** head) {
    if (!head) return nullptr;
    auto* hop = static_cast<Hop*>(std::calloc(1, sizeof(Hop)));
    if (!hop) return nullptr;
    Hop** place = head;
    while (*place) place = &(*place)->next;
    *place = hop;
    return hop;
}

template <class Hop>
void free_hops(Hop* first) {
    while (first) {
        Hop* next = first->next;
        std::free(first);
        first = next;
    }
}

}  // namespace

extern "C" {

int edit_route(int op, struct route_conf* rec) {
    return guarded([&]() -> int {
        if (!rec) return corvo::kNullArgument;
        const auto operation = static_cast<unsigned>(op);
        if (operation > kPrint) return corvo::kInvalidArgument;
        RouteSession session;
        if (const int opened = session.open(); opened < 0) return opened;
        if (operation == kPrint) {
            RouteSpec spec;
            const auto index = [&](const char* name) { return session.socket().link_index(name); };
            const int read = corvo::nl::read_record(*rec, operation, index, spec);
            return read < 0 ? read : print_routes(session, spec.key);
        }
        session.submit(operation, *rec);
        return session.finish().front();
    });
}

int edit_route6(int op, struct route6_conf* rec) {
    return guarded([&]() -> int {
        if (!rec) return corvo::kNullArgument;
        const auto operation = static_cast<unsigned>(op);
        if (operation > kPrint) return corvo::kInvalidArgument;
        return edit6(operation, *rec);
    });
}

struct nexthop* add_nexthop(struct nexthop** head) {
    return append_hop(head);
}
struct nexthop6* add_nexthop6(struct nexthop6** head) {
    return append_hop(head);
}
void free_nexthop(struct nexthop* first) {
    free_hops(first);
}
void free_nexthop6(struct nexthop6* first) {
    free_hops(first);
}

}  // extern "C"
