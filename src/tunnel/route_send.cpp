#include "tunnel/route_send.h"

#include <netlink/errno.h>
#include <netlink/netlink.h>

#include "foundation/log_line.h"
#include "foundation/result.h"
#include "foundation/text.h"
#include "tunnel/numbering.h"

namespace corvo::tunnel {

namespace {

// An unset table matches every table: such a record must never reach a flush.
template <class Record>
bool is_ours(const Record& record) {
    return record.table >= kOwnedFrom;
}

}  // namespace

std::vector<int> RouteSender<Ipv4Routes>::send(int op, std::span<route_conf* const> records) {
    std::vector<int> results(records.size(), kInvalidArgument);
    if (op != kRouteAdd && op != kRouteFlush) {  // a caller's own operation, which the session may not know
        for (std::size_t i = 0; i < records.size(); ++i) {
            if (is_ours(*records[i])) results[i] = edit_route(op, records[i]);
        }
        return results;
    }
    std::vector<std::size_t> sent;
    sent.reserve(records.size());
    for (std::size_t i = 0; i < records.size(); ++i) {
        if (!is_ours(*records[i])) continue;
        if (!open_) {
            results[i] = session_.open();
            if (results[i] != kOk) continue;
            open_ = true;
        }
        session_.submit(static_cast<unsigned>(op), *records[i]);
        sent.push_back(i);
    }
    if (sent.empty()) return results;
    const std::vector<int> answers = session_.finish();
    for (std::size_t i = 0; i < sent.size(); ++i) results[sent[i]] = answers[i];
    return results;
}

std::vector<int> RouteSender<Ipv6Routes>::send(int op, std::span<route6_conf* const> records) {
    std::vector<int> results(records.size(), kInvalidArgument);
    for (std::size_t i = 0; i < records.size(); ++i) {
        if (is_ours(*records[i])) results[i] = edit_route6(op, records[i]);
    }
    return results;
}

template <class Routes>
int report_route(int op, const typename Routes::Record& record, int result) {
    if (result == kOk) return kOk;
    const std::string_view dst = array_text(record.dst);
    if (op == kRouteAdd && result == -NLE_EXIST) {
        log::warning(Routes::kNoun, " Exist. dst: ", dst, "/", record.prefixlen, ", table: ", record.table,
                     ", prio: ", record.priority);
        return kOk;
    }
    log::error("Edit ", Routes::kNoun, " failed, ret: ", result, ", result: ", nl_geterror(result),
               "op: ", op, " dst: ", dst, "/", record.prefixlen, ", table: ", record.table,
               ", prio: ", record.priority);
    return result;
}

template int report_route<Ipv4Routes>(int, const route_conf&, int);
template int report_route<Ipv6Routes>(int, const route6_conf&, int);

int send_route(int op, route_conf& record) {
    const int result = is_ours(record) ? edit_route(op, &record) : static_cast<int>(kInvalidArgument);
    return report_route<Ipv4Routes>(op, record, result);
}

}  // namespace corvo::tunnel
