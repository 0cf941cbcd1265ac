// Policy rules: the exported edits.

#include <sys/socket.h>

#include <cerrno>
#include <cstdio>

#include "corvosetup/routing.h"
#include "foundation/guard.h"
#include "netlink/raw_socket.h"
#include "netlink/rule_message.h"

namespace {

using corvo::guarded;
using corvo::nl::Answer;
using corvo::nl::MessageView;
using corvo::nl::MessageWriter;
using corvo::nl::RawSocket;
using corvo::nl::RuleEntry;
using corvo::nl::RuleSpec;

enum : unsigned { kAdd = 0, kDelete = 1, kFlush = 2, kPrint = 3 };

// The matching rules in the kernel's order; -3010 when they cannot be read.
int list_rules(RawSocket& socket, const RuleSpec& wanted, std::vector<RuleEntry>& entries) {
    MessageWriter message;
    corvo::nl::build_dump_rules(message, wanted.family);
    const Answer answer = corvo::nl::consistent_dump(
        socket, message, [&] { entries.clear(); },
        [&](const MessageView& reply) {
            RuleEntry entry;
            if (corvo::nl::read_rule(reply, entry) && corvo::nl::matches(entry, wanted)) {
                entries.push_back(std::move(entry));
            }
        });
    return answer.done() ? corvo::kOk : corvo::kAllocFailed;
}

// In the kernel's order, so that each request meets its own rule: those like it that stood before are gone.
int flush_rules(RawSocket& socket, const RuleSpec& wanted) {
    std::vector<RuleEntry> entries;
    if (const int listed = list_rules(socket, wanted, entries); listed < 0) return listed;
    for (const RuleEntry& entry : entries) {
        MessageWriter message;
        corvo::nl::build_delete_entry(message, entry);
        socket.transact(message);
    }
    return corvo::kOk;
}

int print_rules(RawSocket& socket, const RuleSpec& wanted) {
    std::vector<RuleEntry> entries;
    if (const int listed = list_rules(socket, wanted, entries); listed < 0) return listed;
    std::string text;
    for (const RuleEntry& entry : entries) text += corvo::nl::print_rule(entry);
    std::fwrite(text.data(), 1, text.size(), stdout);
    std::fflush(stdout);
    return corvo::kOk;
}

template <class Record>
int edit(int op, const Record* record) {
    if (!record) return corvo::kNullArgument;
    const auto operation = static_cast<unsigned>(op);
    if (operation > kPrint) return corvo::kInvalidArgument;
    std::unique_ptr<RawSocket> socket;
    if (const int opened = RawSocket::open_as_result(socket); opened < 0) return opened;
    RuleSpec spec;
    if (const int read = corvo::nl::read_record(*record, spec); read < 0) return read;
    if (operation == kFlush) return flush_rules(*socket, spec);
    if (operation == kPrint) return print_rules(*socket, spec);
    MessageWriter message;
    if (operation == kAdd) {
        corvo::nl::build_add_rule(message, spec);
    } else {
        corvo::nl::build_delete_rule(message, spec);
    }
    const Answer answer = socket->transact(message);
    if (answer.done()) return corvo::kOk;
    // A rule that is there already is what the caller wanted.
    return operation == kAdd && answer.refused() && answer.error == EEXIST ? corvo::kOk : corvo::kRefused;
}

}  // namespace

extern "C" {

int edit_rule(int op, struct rule_conf* rec) {
    return guarded([&] { return edit(op, rec); });
}

int edit_rule6(int op, struct rule6_conf* rec) {
    return guarded([&] { return edit(op, rec); });
}

}  // extern "C"
