#include "netlink/tc_message.h"

#include <arpa/inet.h>
#include <linux/gen_stats.h>
#include <linux/if_ether.h>
#include <linux/pkt_cls.h>
#include <linux/pkt_sched.h>
#include <linux/rtnetlink.h>
#include <linux/tc_act/tc_mirred.h>

#include <algorithm>
#include <limits>

#include "netlink/tc_u32_keys.h"

namespace corvo::tc {
namespace {

constexpr std::uint16_t kCreate = NLM_F_REQUEST | NLM_F_ACK | NLM_F_CREATE;
constexpr std::uint16_t kCreateExclusive = kCreate | NLM_F_EXCL;

constexpr unsigned kHtbVersion = 3;
constexpr unsigned kRateToQuantum = 10;  // what tc and every library send
constexpr unsigned kRateTableSize = 256;
constexpr std::uint16_t kIngressParent = 0xffff;
constexpr std::uint32_t kDefaultHashTable =
    0x80000000;  // "800:"; no parser of handles makes this of the text

constexpr unsigned kNanosecondsPerTick = 64;  // the kernel's PSCHED_SHIFT
constexpr unsigned kNanosecondsPerSecond = 1'000'000'000;

tcmsg header_of(const Place& place, std::uint32_t info = 0) {
    tcmsg head{};
    head.tcm_family = AF_UNSPEC;
    head.tcm_ifindex = place.device.index;
    head.tcm_handle = place.handle;
    head.tcm_parent = place.parent;
    head.tcm_info = info;
    return head;
}

void begin(nl::MessageWriter& out, std::uint16_t type, std::uint16_t flags, const tcmsg& head) {
    out.clear();
    out.begin(type, flags);
    out.header(head);
}

std::uint32_t filter_info(std::uint16_t priority, std::uint16_t protocol) {
    return TC_H_MAKE(static_cast<std::uint32_t>(priority) << 16, htons(protocol));
}

std::uint32_t saturated(std::uint64_t value) {
    return static_cast<std::uint32_t>(
        std::min<std::uint64_t>(value, std::numeric_limits<std::uint32_t>::max()));
}

// The smallest cell that lets the table reach packets of `mtu` bytes.
std::uint8_t cell_log(std::uint32_t mtu) {
    std::uint8_t log = 3;
    while ((mtu >> log) >= kRateTableSize) ++log;
    return log;
}

tc_ratespec rate_spec(std::uint32_t rate, std::uint32_t mtu) {
    tc_ratespec spec{};
    spec.cell_log = cell_log(mtu);
    spec.linklayer = TC_LINKLAYER_ETHERNET;  // named, so that the kernel need not guess it from the table
    spec.cell_align = -1;
    spec.rate = rate;
    return spec;
}

// Kernels before 3.8 read sending times out of this table; later ones want it to be there.
void rate_table(nl::MessageWriter& out, std::uint16_t type, const tc_ratespec& spec) {
    std::uint32_t table[kRateTableSize];
    for (std::uint64_t cell = 0; cell < kRateTableSize; ++cell) {
        table[cell] = spec.rate ? burst_ticks((cell + 1) << spec.cell_log, spec.rate) : 0;
    }
    out.attr(type, table, sizeof table);
}

void u32_selector(nl::MessageWriter& out, const U32Keys& keys) {
    tc_u32_sel selector{};
    selector.flags = TC_U32_TERMINAL;
    selector.nkeys = static_cast<unsigned char>(keys.size());
    std::uint8_t bytes[sizeof selector + U32Keys::kMost * sizeof(tc_u32_key)];
    std::memcpy(bytes, &selector, sizeof selector);
    std::memcpy(bytes + sizeof selector, keys.data(), keys.size() * sizeof(tc_u32_key));
    out.attr(TCA_U32_SEL, bytes, sizeof selector + keys.size() * sizeof(tc_u32_key));
}

Place ingress_place(const Device& device) {
    return {device, static_cast<std::uint32_t>(kIngressParent) << 16, 0};
}

void read_statistics(const nl::Attr& nest, Report& report) {
    for (const nl::Attr& attr : nl::Attrs(nest.data)) {
        if (attr.type == TCA_STATS_QUEUE) {
            report.queue_length = attr.u32();  // the structure's first word
        } else if (attr.type == TCA_STATS_RATE_EST) {
            report.rate_estimate = attr.u32();
        } else if (attr.type == TCA_STATS_RATE_EST64 && attr.data.size() >= sizeof report.rate_estimate_64) {
            std::memcpy(&report.rate_estimate_64, attr.data.data(), sizeof report.rate_estimate_64);
        }
    }
    report.rate_estimate_64 = std::max<std::uint64_t>(report.rate_estimate_64, report.rate_estimate);
}

void read_htb_options(const nl::Attr& nest, Report& report) {
    for (const nl::Attr& attr : nl::Attrs(nest.data)) {
        if (attr.type == TCA_HTB_PARMS && attr.data.size() >= sizeof(tc_htb_opt)) {
            tc_htb_opt options{};
            std::memcpy(&options, attr.data.data(), sizeof options);
            report.htb_rate = options.rate.rate;
            report.htb_ceil = options.ceil.rate;
        } else if (attr.type == TCA_HTB_CEIL64 && attr.data.size() >= sizeof report.htb_ceil_64) {
            std::memcpy(&report.htb_ceil_64, attr.data.data(), sizeof report.htb_ceil_64);
        }
    }
    report.htb_ceil_64 = std::max<std::uint64_t>(report.htb_ceil_64, report.htb_ceil);
}

}  // namespace

std::uint32_t burst_ticks(std::uint64_t bytes, std::uint64_t rate) {
    const auto nanoseconds = static_cast<unsigned __int128>(bytes) * kNanosecondsPerSecond / rate;
    const unsigned __int128 ticks = nanoseconds / kNanosecondsPerTick;
    if (ticks == 0)
        return 1;  // 0 would leave no credit at all: the class could never make up for a late timer
    return saturated(static_cast<std::uint64_t>(ticks));
}

void add_qdisc_message(nl::MessageWriter& out, const Place& place, const char* kind,
                       std::uint32_t default_class) {
    begin(out, RTM_NEWQDISC, kCreateExclusive, header_of(place));
    out.attr_text(TCA_KIND, kind);
    if (std::string_view(kind) == "htb") {
        tc_htb_glob options{};
        options.version = kHtbVersion;
        options.rate2quantum = kRateToQuantum;
        options.defcls = default_class;
        const std::size_t nest = out.begin_nest(TCA_OPTIONS | NLA_F_NESTED);
        out.attr(TCA_HTB_INIT, &options, sizeof options);
        out.end_nest(nest);
    }
    out.end();
}

void delete_qdisc_message(nl::MessageWriter& out, const Place& place) {
    begin(out, RTM_DELQDISC, NLM_F_REQUEST | NLM_F_ACK, header_of(place));
    out.end();
}

void add_htb_class_message(nl::MessageWriter& out, const Place& place, const tc_options& options) {
    const std::uint32_t mtu = place.device.mtu;
    tc_htb_opt parameters{};
    parameters.rate = rate_spec(options.rate, mtu);
    parameters.ceil = rate_spec(options.ceil, mtu);
    const auto burst = [&](std::uint32_t rate) {
        return rate == 0 ? 0 : burst_ticks(rate / place.device.timer_hz + mtu, rate);
    };
    parameters.buffer = burst(options.rate);
    parameters.cbuffer = burst(options.ceil);
    parameters.prio = options.prio;

    begin(out, RTM_NEWTCLASS, kCreateExclusive, header_of(place));
    out.attr_text(TCA_KIND, "htb");
    const std::size_t nest = out.begin_nest(TCA_OPTIONS | NLA_F_NESTED);
    out.attr(TCA_HTB_PARMS, &parameters, sizeof parameters);
    rate_table(out, TCA_HTB_RTAB, parameters.rate);
    rate_table(out, TCA_HTB_CTAB, parameters.ceil);
    out.end_nest(nest);
    out.end();
}

void add_plain_class_message(nl::MessageWriter& out, const Place& place, const char* kind) {
    begin(out, RTM_NEWTCLASS, kCreateExclusive, header_of(place));
    out.attr_text(TCA_KIND, kind);
    out.end();
}

void add_fw_message(nl::MessageWriter& out, const Place& place, std::uint32_t class_id, std::uint32_t mask,
                    std::uint16_t priority) {
    begin(out, RTM_NEWTFILTER, kCreateExclusive, header_of(place, filter_info(priority, ETH_P_ALL)));
    out.attr_text(TCA_KIND, "fw");
    const std::size_t nest = out.begin_nest(TCA_OPTIONS | NLA_F_NESTED);
    out.attr_u32(TCA_FW_CLASSID, class_id);
    out.attr_u32(TCA_FW_MASK, mask);
    out.end_nest(nest);
    out.end();
}

void add_u32_message(nl::MessageWriter& out, const Place& place, const std::uint32_t* class_id,
                     const U32QoSObj& match) {
    const auto priority = static_cast<std::uint16_t>(match.prio);
    begin(out, RTM_NEWTFILTER, kCreate, header_of(place, filter_info(priority, match.protocol)));
    out.attr_text(TCA_KIND, "u32");
    const std::size_t nest = out.begin_nest(TCA_OPTIONS | NLA_F_NESTED);
    out.attr_u32(TCA_U32_HASH, kDefaultHashTable);
    if (class_id) out.attr_u32(TCA_U32_CLASSID, *class_id);
    u32_selector(out, keys_of(match));
    out.end_nest(nest);
    out.end();
}

void add_bypass_message(nl::MessageWriter& out, const Device& device, std::uint16_t protocol) {
    begin(out, RTM_NEWTFILTER, kCreateExclusive, header_of(ingress_place(device), filter_info(1, protocol)));
    out.attr_text(TCA_KIND, "u32");
    const std::size_t nest = out.begin_nest(TCA_OPTIONS | NLA_F_NESTED);
    out.attr_u32(TCA_U32_CLASSID, TC_H_UNSPEC);
    U32Keys keys;
    keys.add_16(IPPROTO_ESP, 0x00ff, 8);  // time to live and protocol
    u32_selector(out, keys);
    out.end_nest(nest);
    out.end();
}

void add_redirect_message(nl::MessageWriter& out, const Device& device, std::uint16_t protocol,
                          int redirect_index) {
    begin(out, RTM_NEWTFILTER, kCreateExclusive, header_of(ingress_place(device), filter_info(0, protocol)));
    out.attr_text(TCA_KIND, "u32");
    const std::size_t nest = out.begin_nest(TCA_OPTIONS | NLA_F_NESTED);
    out.attr_u32(TCA_U32_CLASSID, 0x00010001);
    U32Keys keys;
    keys.add_32(0, 0, 0);
    u32_selector(out, keys);

    tc_mirred redirect{};
    redirect.action = TC_ACT_STOLEN;
    redirect.eaction = TCA_EGRESS_REDIR;
    redirect.ifindex = static_cast<std::uint32_t>(redirect_index);
    const std::size_t actions = out.begin_nest(TCA_U32_ACT | NLA_F_NESTED);
    const std::size_t first = out.begin_nest(1 | NLA_F_NESTED);
    out.attr_text(TCA_ACT_KIND, "mirred");
    const std::size_t parameters = out.begin_nest(TCA_ACT_OPTIONS | NLA_F_NESTED);
    out.attr(TCA_MIRRED_PARMS, &redirect, sizeof redirect);
    out.end_nest(parameters);
    out.end_nest(first);
    out.end_nest(actions);
    out.end_nest(nest);
    out.end();
}

void dump_qdiscs_message(nl::MessageWriter& out) {
    begin(out, RTM_GETQDISC, NLM_F_REQUEST | NLM_F_DUMP, tcmsg{});
    out.end();
}

void dump_classes_message(nl::MessageWriter& out, int device_index) {
    begin(out, RTM_GETTCLASS, NLM_F_REQUEST | NLM_F_DUMP, header_of({Device{device_index}, 0, 0}));
    out.end();
}

bool read_report(const nl::MessageView& message, Report& report) {
    tcmsg head{};
    if (message.head.nlmsg_type != RTM_NEWQDISC && message.head.nlmsg_type != RTM_NEWTCLASS) return false;
    if (!message.read_header(head)) return false;
    report = {};
    report.device_index = head.tcm_ifindex;
    report.handle = head.tcm_handle;
    report.parent = head.tcm_parent;
    nl::Attr options;
    for (const nl::Attr& attr : message.attrs(sizeof head)) {
        if (attr.type == TCA_KIND) report.kind = attr.text();
        if (attr.type == TCA_STATS2) read_statistics(attr, report);
        if (attr.type == TCA_OPTIONS) options = attr;
    }
    if (message.head.nlmsg_type == RTM_NEWTCLASS && report.kind == "htb") read_htb_options(options, report);
    return true;
}

}  // namespace corvo::tc
