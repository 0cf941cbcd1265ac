#include "tunnel/rules.h"

#include "corvosetup/routing.h"
#include "foundation/log_line.h"
#include "foundation/result.h"
#include "foundation/text.h"
#include "tunnel/numbering.h"

namespace corvo::tunnel {

namespace {

constexpr std::uint32_t kMarkMask = 0xf;  // selection marks use the low four bits

int edit(int op, rule_conf& record) {
    return edit_rule(op, &record);
}
int edit(int op, rule6_conf& record) {
    return edit_rule6(op, &record);
}

// The kernel reads unset fields as "any": a record without both numbers could match the system's own rules.
template <class Record>
int edit_numbered(int op, Record& record, int prio, int table) {
    if (prio < kOwnedFrom) return kInvalidArgument;
    record.prio = static_cast<std::uint32_t>(prio);
    record.table = static_cast<std::uint32_t>(table);
    return edit(op, record);
}

template <class Record>
int add_rule(const RuleSpec& rule, const RuleOwner& owner) {
    Record record{};
    switch (rule.selects) {
        case Selects::kMark:
            record.mark = static_cast<std::uint32_t>(owner.mark);
            record.mask = kMarkMask;
            break;
        case Selects::kSource:
            if (owner.source.empty() || !copy_text(record.src, owner.source)) return kBadAddress;
            break;
        case Selects::kDevice:
            if (owner.dev.empty() || !copy_text(record.oif, owner.dev)) return kNoInterface;
            break;
        case Selects::kAll:
            break;
    }
    const int table = number_of(rule.table_base, owner.number);
    if (table == 0) return kInvalidArgument;
    return edit_numbered(kCreate, record, number_of(rule.prio_base, owner.number), table);
}

template <class Record>
int delete_rule(const RuleSpec& rule, const RuleOwner& owner) {
    Record record{};
    return edit_numbered(kDelete, record, number_of(rule.prio_base, owner.number), 0);
}

template <class Record>
int edit_default(int op, int number) {
    Record record{};
    return edit_numbered(op == kCreate ? kCreate : kDelete, record, number, number);
}

// A message without its line break, which write() adds.
void log_failure(std::string_view message) {
    if (message.ends_with('\n')) message.remove_suffix(1);
    log::error(message);
}

}  // namespace

void add_rules(Family family, std::span<const RuleSpec> rules, const RuleOwner& owner) {
    for (const RuleSpec& rule : rules) {
        const int result =
            family == Family::kIpv4 ? add_rule<rule_conf>(rule, owner) : add_rule<rule6_conf>(rule, owner);
        if (result != kOk) log_failure(rule.add_failed);
    }
}

void delete_rules(Family family, std::span<const RuleSpec> rules, const RuleOwner& owner) {
    for (const RuleSpec& rule : rules) {
        const int result = family == Family::kIpv4 ? delete_rule<rule_conf>(rule, owner)
                                                   : delete_rule<rule6_conf>(rule, owner);
        if (result != kOk) log_failure(rule.delete_failed);
    }
}

int edit_default_rule(Family family, int op, int number) {
    const int result =
        family == Family::kIpv4 ? edit_default<rule_conf>(op, number) : edit_default<rule6_conf>(op, number);
    if (result != kOk) log::error(" op: ", op, " mptcp default rule failed.\n");
    return result;
}

}  // namespace corvo::tunnel
