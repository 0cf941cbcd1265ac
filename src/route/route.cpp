#include "corvosetup/route.h"

#include <algorithm>
#include <charconv>
#include <numeric>
#include <unordered_map>

#include "corvosetup/routing.h"
#include "corvosetup/service.h"
#include "foundation/guard.h"
#include "foundation/json.h"
#include "foundation/log_line.h"
#include "foundation/text.h"

using corvo::guarded;
using corvo::log::Entry;

namespace {

constexpr unsigned kTable = 253;  // "default", which the system's own rules look up last
constexpr unsigned kMetric = 100;
constexpr unsigned kTmpMetric = 99;  // wins over kMetric while both routes are there

constexpr const char* kFile = "route.cpp";
constexpr const char* kDeviceInfo = "/etc/networkmanagement/device_info.json";

enum RouteOp { kAdd = 0, kFlush = 2 };

}  // namespace

// After the log (101 to 103), before every object without a priority.
__attribute__((init_priority(110))) DefaultGws gws(kTable, kMetric);
__attribute__((init_priority(110))) DefaultGws tmp_gws(kTable, kTmpMetric);

namespace {

route_conf default_route(unsigned table, unsigned metric) {
    route_conf record{};
    record.table = static_cast<int>(table);
    record.priority = static_cast<int>(metric);
    corvo::copy_text(record.dst, "default");
    return record;
}

struct NexthopList {
    nexthop* head = nullptr;
    NexthopList() = default;
    NexthopList(const NexthopList&) = delete;
    NexthopList& operator=(const NexthopList&) = delete;
    ~NexthopList() { free_nexthop(head); }
};

// One next hop per gateway. A text that does not fit its field is no address and no device: it fails the
// route rather than becoming another address by being cut.
int append_nexthops(const std::vector<DefaultGw>& gateways, NexthopList& list) {
    for (const DefaultGw& gateway : gateways) {
        corvo::log::debug("DEV [", gateway.dev, "], GW [", gateway.gw, "], WEIGHT [", gateway.weight, "].\n");
        nexthop* hop = add_nexthop(&list.head);
        if (hop == nullptr) return corvo::kAllocFailed;
        if (!corvo::copy_text(hop->gw, gateway.gw)) return corvo::kBadAddress;
        if (!corvo::copy_text(hop->dev, gateway.dev)) return corvo::kNoInterface;
        // The kernel keeps a weight in 8 bits. Reduced weights above that are cut, not scaled: peers and
        // dashboards compute with the same low byte.
        hop->weight = static_cast<int>(gateway.weight & 0xff);
    }
    return corvo::kOk;
}

// A WAN id as documents write it: a number, or the same in decimal digits.
bool read_id(const Json::Value& value, std::uint64_t& id) {
    if (value.isUInt64()) {
        id = value.asUInt64();
        return true;
    }
    if (!value.isString()) return false;
    const std::string text = value.asString();
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), id);
    return error == std::errc() && end == text.data() + text.size();
}

}  // namespace

DefaultGws::DefaultGws(unsigned int table, unsigned int metric) : table(table), metric(metric) {}

int DefaultGws::add_gw(std::string dev, std::string gw, unsigned long bandwidth) {
    return guarded([&] {
        std::lock_guard hold(lock);
        const Entry entry{kFile, "add_gw"};
        const bool known = std::any_of(gateways.begin(), gateways.end(),
                                       [&](const DefaultGw& gateway) { return gateway.dev == dev; });
        if (known) {
            corvo::log::error("Duplicate dev: ", dev, ", gateway: ", gw);
            return entry.leave<int>(corvo::kDuplicate);
        }
        gateways.push_back({dev, gw, bandwidth, 1});
        corvo::log::debug("Add gateway: ", gw, ", dev: ", dev, ", bandwidth: ", bandwidth);
        return entry.leave(setup_default_gateways());
    });
}

int DefaultGws::del_gw(std::string dev, bool force) {
    return guarded([&] {
        std::lock_guard hold(lock);
        const Entry entry{kFile, "del_gw"};
        if (!force && gateways.size() < 2) {
            // A device whose only link flaps keeps its default route.
            corvo::log::warning("Skip Gateway deletion, gws: ", gateways.size());
            return entry.leave<int>(corvo::kOk);
        }
        const auto found = std::find_if(gateways.begin(), gateways.end(),
                                        [&](const DefaultGw& gateway) { return gateway.dev == dev; });
        if (found == gateways.end()) {
            corvo::log::debug("Gateway has no iface: ", dev);
            return entry.leave<int>(corvo::kOk);
        }
        const std::string gw = found->gw;
        gateways.erase(found);
        corvo::log::debug("Delete gateway: ", gw, ", dev: ", dev);
        return entry.leave(setup_default_gateways());
    });
}

int DefaultGws::flush_gws() {
    return guarded([&] {
        std::lock_guard hold(lock);
        const Entry entry{kFile, "flush_gws"};
        gateways.clear();
        return entry.leave(flush_default_route_table());
    });
}

int DefaultGws::setup_default_gateways() {
    return guarded([&] {
        const Entry entry{kFile, "setup_default_gateways"};
        // A failed flush is in the log; going on keeps the device connected, and adding the route removes
        // what it replaces once more.
        flush_default_route_table();
        if (gateways.empty()) return entry.leave<int>(corvo::kEmptyInput);
        const int reduced = weight_reduction(find_gcd());
        if (reduced != corvo::kOk) {
            corvo::log::error("Weight reduciton failed.\n");
            return entry.leave(reduced);
        }
        return entry.leave(set_default_gateways());
    });
}

unsigned long DefaultGws::find_gcd() {
    return corvo::guarded_or(1UL, [&] {
        const Entry entry{kFile, "find_gcd"};
        if (gateways.empty()) return entry.leave(1UL);
        unsigned long gcd = 0;
        for (const DefaultGw& gateway : gateways) gcd = std::gcd(gcd, gateway.bandwidth);
        return entry.leave(gcd);
    });
}

int DefaultGws::weight_reduction(unsigned long gcd) {
    return guarded([&] {
        const Entry entry{kFile, "weight_reduction"};
        corvo::log::debug("GCD: ", gcd);
        if (gcd == 0) return entry.leave<int>(corvo::kInvalidArgument);
        for (DefaultGw& gateway : gateways) gateway.weight = gateway.bandwidth / gcd;
        return entry.leave<int>(corvo::kOk);
    });
}

int DefaultGws::set_default_gateways() {
    return guarded([&] {
        const Entry entry{kFile, "set_default_gateways"};
        route_conf record = default_route(table, metric);
        NexthopList hops;
        int result = append_nexthops(gateways, hops);
        record.nexthops = hops.head;
        if (result == corvo::kOk) result = edit_route(kAdd, &record);
        if (result != corvo::kOk) {
            corvo::log::error("Add default route failed. table: ", table, ", metric: ", metric,
                              ", ret: ", result);
        }
        return entry.leave(result);
    });
}

int DefaultGws::flush_default_route_table() {
    return guarded([&] {
        const Entry entry{kFile, "flush_default_route_table", Entry::Word::kInitEnter};
        route_conf record = default_route(table, metric);
        corvo::log::debug("Flush default route table: ", table, ", metric: ", metric);
        const int result = edit_route(kFlush, &record);
        if (result != corvo::kOk) {
            corvo::log::error("Flush default route table: ", table, ", metric: ", metric, " failed.\n");
        }
        return entry.leave(result);
    });
}

int add_default_gateway(std::string dev, std::string gw, unsigned long bandwidth) {
    corvo::log::ensure_file();
    return guarded([&] {
        const Entry entry{kFile, "add_default_gateway"};
        return entry.leave(gws.add_gw(dev, gw, bandwidth));
    });
}

int del_default_gateway(std::string dev, bool force) {
    corvo::log::ensure_file();
    return guarded([&] {
        const Entry entry{kFile, "del_default_gateway"};
        return entry.leave(gws.del_gw(dev, force));
    });
}

int setup_def(Json::Value ids) {
    corvo::log::ensure_file();
    return guarded([&] {
        const Entry entry{kFile, "setup_def"};
        if (!ids.isArray()) return entry.leave<int>(corvo::kInvalidArgument);

        std::unordered_map<std::string, Json::Value> wans;
        const int fetched = get_available_wan_info(wans, kDeviceInfo, 0);
        if (fetched != corvo::kOk) {
            corvo::log::error("Get_available_wan_info failed.");
            return entry.leave(fetched);
        }

        // Position in `ids` by id, so that the gateways are added in the caller's order.
        std::unordered_map<std::uint64_t, Json::ArrayIndex> wanted;
        for (Json::ArrayIndex i = 0; i < ids.size(); ++i) {
            std::uint64_t id = 0;
            if (read_id(ids[i], id)) wanted.emplace(id, i);
        }
        std::vector<std::pair<Json::ArrayIndex, const Json::Value*>> kept;
        for (const auto& [ifname, wan] : wans) {
            std::uint64_t id = 0;
            if (!read_id(corvo::j_member(wan, "id"), id)) continue;
            const auto position = wanted.find(id);
            if (position != wanted.end()) kept.emplace_back(position->second, &wan);
        }
        corvo::log::trace("Gateway IDs: ", corvo::compact_json(ids));
        if (kept.size() != ids.size()) {
            corvo::log::error("IDs: ", ids.size(), " is not matched with WANs: ", kept.size());
            return entry.leave<int>(corvo::kInvalidArgument);
        }

        std::sort(kept.begin(), kept.end());
        tmp_gws.flush_gws();
        for (const auto& [position, wan] : kept) {
            // Each add rebuilds the route, so the last one decides; a refused gateway is in the log.
            tmp_gws.add_gw(corvo::j_str(*wan, "ifname"), corvo::j_str(*wan, "ip4_gw"),
                           corvo::j_uint64(*wan, "tx_rate"));
        }
        return entry.leave<int>(corvo::kOk);
    });
}
