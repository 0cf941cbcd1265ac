// Policy rules of a link, as data.
//
// Who may include this: this area. Each kind of link states its rules as a table of RuleSpec; here they are
// added and deleted. A failing rule is logged with its own text and the others still run.
#pragma once

#include <span>
#include <string>

namespace corvo::tunnel {

enum class Selects {
    kMark,    // packets whose mark equals the owner's in its low four bits
    kSource,  // packets from the owner's address
    kDevice,  // packets bound to the owner's device
    kAll,
};

struct RuleSpec {
    int prio_base;
    int table_base;
    Selects selects;
    const char* add_failed;  // whole log messages
    const char* delete_failed;
};

struct RuleOwner {
    int number;  // added to the bases
    int mark;
    std::string source;  // address text; no rule "from all" is ever made of an empty one
    std::string dev;
};

enum class Family { kIpv4, kIpv6 };

void add_rules(Family family, std::span<const RuleSpec> rules, const RuleOwner& owner);

// Deletes by priority alone, once per rule, so a priority that two rules share is deleted twice.
void delete_rules(Family family, std::span<const RuleSpec> rules, const RuleOwner& owner);

// Adds (op 0) or deletes (any other op) the rule of priority and table `number`; logs a failure and returns
// its code.
int edit_default_rule(Family family, int op, int number);

}  // namespace corvo::tunnel
