#include "netlink/rule_message.h"

#include <linux/fib_rules.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include "foundation/result.h"
#include "foundation/text.h"

namespace corvo::nl {

namespace {

constexpr std::uint16_t kDo = NLM_F_REQUEST | NLM_F_ACK;

template <class Record>
int read_any(const Record& record, int family, RuleSpec& spec) {
    spec = {};
    spec.family = static_cast<std::uint8_t>(family);
    spec.prio = record.prio;
    spec.table = record.table;
    spec.mark = record.mark;
    spec.mask = record.mask;
    spec.oif = array_text(record.oif);
    const std::string_view src = array_text(record.src);
    if (src.empty()) return kOk;
    const std::optional<Address> address = parse_address(src, family);
    if (!address) return kBadAddress;
    spec.has_src = true;
    if (address->prefix != 0) spec.src = *address;
    return kOk;
}

void build_rule(MessageWriter& out, std::uint16_t type, std::uint16_t flags, const RuleSpec& spec) {
    out.begin(type, flags);
    fib_rule_hdr& head = out.header(fib_rule_hdr{});
    head.family = spec.family;
    head.src_len = spec.src.prefix;
    head.table = static_cast<std::uint8_t>(spec.table < 256 ? spec.table : 0);
    head.action = FR_ACT_TO_TBL;
    out.attr_u32(FRA_TABLE, spec.table);
    if (spec.src.size != 0) out.attr(FRA_SRC, spec.src.data());
    if (!spec.oif.empty()) out.attr_text(FRA_OIFNAME, spec.oif);
    if (spec.prio != 0) out.attr_u32(FRA_PRIORITY, spec.prio);
    if (spec.mark != 0) out.attr_u32(FRA_FWMARK, spec.mark);
    if (spec.mask != 0) out.attr_u32(FRA_FWMASK, spec.mask);
    out.end();
}

}  // namespace

int read_record(const rule_conf& record, RuleSpec& spec) {
    return read_any(record, AF_INET, spec);
}
int read_record(const rule6_conf& record, RuleSpec& spec) {
    return read_any(record, AF_INET6, spec);
}

void build_add_rule(MessageWriter& out, const RuleSpec& spec) {
    build_rule(out, RTM_NEWRULE, kDo | NLM_F_CREATE | NLM_F_EXCL, spec);
}

void build_delete_rule(MessageWriter& out, const RuleSpec& spec) {
    build_rule(out, RTM_DELRULE, kDo, spec);
}

void build_dump_rules(MessageWriter& out, int family) {
    out.begin(RTM_GETRULE, NLM_F_REQUEST | NLM_F_DUMP);
    out.header(fib_rule_hdr{}).family = static_cast<std::uint8_t>(family);
    out.end();
}

bool read_rule(const MessageView& message, RuleEntry& entry) {
    fib_rule_hdr head{};
    if (message.head.nlmsg_type != RTM_NEWRULE || !message.read_header(head)) return false;
    entry = {};
    entry.action = head.action;
    entry.spec.family = head.family;
    entry.spec.table = head.table;
    entry.spec.has_src = true;
    entry.body.assign(message.payload.begin(), message.payload.end());
    for (const Attr& attr : message.attrs(sizeof head)) {
        switch (attr.type) {
            case FRA_TABLE:
                entry.spec.table = attr.u32();
                break;
            case FRA_PRIORITY:
                entry.spec.prio = attr.u32();
                break;
            case FRA_FWMARK:
                entry.spec.mark = attr.u32();
                break;
            case FRA_FWMASK:
                entry.spec.mask = attr.u32();
                break;
            case FRA_SRC:
                if (const auto src = read_address(attr.data, head.family, head.src_len))
                    entry.spec.src = *src;
                break;
            case FRA_OIFNAME:
                entry.spec.oif = attr.text();
                break;
            default:
                break;
        }
    }
    return true;
}

bool matches(const RuleEntry& entry, const RuleSpec& wanted) {
    const RuleSpec& rule = entry.spec;
    return entry.action == FR_ACT_TO_TBL && rule.family == wanted.family &&
           (wanted.prio == 0 || rule.prio == wanted.prio) &&
           (wanted.table == 0 || rule.table == wanted.table) &&
           (wanted.mark == 0 || rule.mark == wanted.mark) && (wanted.mask == 0 || rule.mask == wanted.mask) &&
           (!wanted.has_src || rule.src == wanted.src) && (wanted.oif.empty() || rule.oif == wanted.oif);
}

void build_delete_entry(MessageWriter& out, const RuleEntry& entry) {
    out.begin(RTM_DELRULE, kDo);
    out.append(entry.body.data(), entry.body.size());
    out.end();
}

std::string print_rule(const RuleEntry& entry) {
    const RuleSpec& rule = entry.spec;
    std::string line;
    if (rule.prio != 0) line += std::to_string(static_cast<int>(rule.prio)) + ": ";
    line += "from ";
    line += rule.src.size == 0 ? "all " : rule.src.text() + " ";
    if (!rule.oif.empty()) line += "oif " + rule.oif + " ";
    if (rule.table != 0) line += "lookup " + std::to_string(static_cast<int>(rule.table)) + " ";
    return line + "\n";
}

}  // namespace corvo::nl
