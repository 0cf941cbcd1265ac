// Policy rules: records in, messages out; dumped messages in, entries out.
//
// Internal to this area (and its tests). Nothing here touches the kernel.
#pragma once

#include <string>
#include <vector>

#include "corvosetup/routing.h"
#include "netlink/address.h"
#include "netlink/message.h"

namespace corvo::nl {

struct RuleSpec {
    std::uint8_t family = 0;
    std::uint32_t prio = 0;
    std::uint32_t table = 0;
    std::uint32_t mark = 0;
    std::uint32_t mask = 0;
    bool has_src = false;
    Address src;  // size 0: the rules without a source
    std::string oif;
};

// 0, or -3007 for a source that is no address: without it the rule would be one for everybody.
int read_record(const rule_conf& record, RuleSpec& spec);
int read_record(const rule6_conf& record, RuleSpec& spec);

void build_add_rule(MessageWriter& out, const RuleSpec& spec);
void build_delete_rule(MessageWriter& out, const RuleSpec& spec);
void build_dump_rules(MessageWriter& out, int family);

// A rule as the kernel has it, with everything that tells it from others.
struct RuleEntry {
    RuleSpec spec;
    std::uint8_t action = 0;
    std::vector<std::uint8_t> body;  // the dumped header and attributes
};
bool read_rule(const MessageView& message, RuleEntry& entry);

// Whether `entry` looks up a table and has everything that `wanted` sets.
bool matches(const RuleEntry& entry, const RuleSpec& wanted);

// Deletes exactly the dumped rule, or one that comes before it and is like it.
void build_delete_entry(MessageWriter& out, const RuleEntry& entry);

// One line, with its end of line.
std::string print_rule(const RuleEntry& entry);

}  // namespace corvo::nl
