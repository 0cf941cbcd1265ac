#include "corvosetup/tc.h"

#include <cstddef>
#include <memory>
#include <new>

#include "foundation/guard.h"
#include "foundation/text.h"
#include "netlink/tc_handle.h"
#include "netlink/tc_session.h"

using corvo::guarded;
using corvo::tc::Session;

namespace {

tqs_entry* entry_of(tqs_link* link) {
    return reinterpret_cast<tqs_entry*>(reinterpret_cast<char*>(link) - offsetof(tqs_entry, links));
}

void append(tqs_link* head, tqs_entry* entry) {
    entry->links.next = head;
    entry->links.prev = head->prev;
    head->prev->next = &entry->links;
    head->prev = &entry->links;
}

// The devices' consumers know these figures as 32-bit products and wrap with them above 4.29 Gbit/s.
std::uint64_t bits(std::uint32_t bytes) {
    return static_cast<std::uint32_t>(bytes * 8U);
}

void fill_class(tqs_entry& entry, const corvo::tc::Report& report) {
    entry.rate = bits(report.rate_estimate);
    if (report.kind != "htb") return;
    entry.ceil = bits(report.htb_ceil);
    entry.htb_rate = bits(report.htb_rate);
    if (report.htb_ceil_64 == 0) return;
    entry.utilisation =
        static_cast<double>(report.rate_estimate_64) * 100 / static_cast<double>(report.htb_ceil_64);
}

void add_node(tqs_link* head, const corvo::tc::Report& report, bool is_class) {
    if (is_class && report.kind != "htb" && report.kind != "nsshtb") return;
    auto entry = std::make_unique<tqs_entry>();  // zero-filled
    corvo::copy_text(entry->handle, corvo::tc::format_handle(report.handle));
    entry->qlen = report.queue_length;
    if (is_class) fill_class(*entry, report);
    append(head, entry.release());
}

}  // namespace

int setup_qdisc(const char* dev, const char* parent, const char* handle, const char* kind,
                struct tc_options* opts) {
    return guarded([&] { return Session(dev).add_qdisc(parent, handle, kind, opts); });
}

int clean_qdisc(const char* dev, const char* parent) {
    return guarded([&] { return Session(dev).clean_qdisc(parent); });
}

int setup_qdisc_ingress(const char* dev, const char* /*redirect*/, unsigned short /*protocol*/) {
    return guarded([&] { return Session(dev).add_ingress(); });
}

int setup_qdisc_ingress_filter(const char* dev, const char* redirect, unsigned short protocol) {
    return guarded([&] { return Session(dev).add_ingress_filters(redirect, protocol); });
}

int setup_class(const char* dev, const char* parent, const char* classid, const char* kind,
                struct tc_options* opts) {
    return guarded([&] { return Session(dev).add_class(parent, classid, kind, opts); });
}

int setup_fw_filter(const char* dev, const char* parent, const char* handle, const char* classid) {
    return guarded([&] { return Session(dev).add_fw_filter(parent, handle, classid); });
}

int setup_u32_filter(const char* dev, const char* parent, const char* classid, struct U32QoSObj* match) {
    return guarded([&] { return Session(dev).add_u32_filter(parent, classid, match); });
}

struct tqs_link* get_tx_queue_status(const char* dev) {
    if (!dev || !*dev) return nullptr;
    auto* head = new (std::nothrow) tqs_link;
    if (!head) return nullptr;
    head->next = head->prev = head;
    corvo::guarded_void([&] {
        Session(dev).for_each_status(
            [&](const corvo::tc::Report& report, bool is_class) { add_node(head, report, is_class); });
    });
    return head;
}

void free_tqs_head(struct tqs_link* head) {
    if (!head) return;
    for (tqs_link* link = head->next; link != head;) {
        tqs_entry* entry = entry_of(link);
        link = link->next;
        delete entry;
    }
    delete head;
}
