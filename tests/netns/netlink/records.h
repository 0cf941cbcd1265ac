// Records for the tests of routes and rules.
#pragma once

#include <list>
#include <string>

#include "corvosetup/routing.h"
#include "foundation/text.h"

namespace corvo::test {

// An IPv4 route record that owns its next hops.
class RouteRecord {
public:
    RouteRecord(const std::string& dst, int length, int table, int priority) {
        record_.table = table;
        record_.priority = priority;
        record_.prefixlen = length;
        copy_text(record_.dst, dst);
    }
    RouteRecord(RouteRecord&& other) noexcept : record_(other.record_) { other.record_.nexthops = nullptr; }
    RouteRecord(const RouteRecord&) = delete;
    ~RouteRecord() { free_nexthop(record_.nexthops); }

    RouteRecord& hop(const std::string& gw, const std::string& dev, int weight = 0, bool onlink = true) {
        ::nexthop* added = add_nexthop(&record_.nexthops);
        copy_text(added->gw, gw);
        copy_text(added->dev, dev);
        added->weight = weight;
        added->onlink = onlink;
        return *this;
    }
    RouteRecord& metrics(int lock, int mtu, int advmss) {
        record_.lock = lock;
        record_.mtu = mtu;
        record_.advmss = advmss;
        return *this;
    }
    route_conf* operator->() { return &record_; }
    route_conf* get() { return &record_; }

private:
    route_conf record_{};
};

inline rule_conf rule(std::uint32_t prio, std::uint32_t table, std::uint32_t mark = 0, std::uint32_t mask = 0,
                      const std::string& src = {}, const std::string& oif = {}) {
    rule_conf record{prio, table, mark, mask, "", ""};
    copy_text(record.src, src);
    copy_text(record.oif, oif);
    return record;
}

inline rule6_conf rule6(std::uint32_t prio, std::uint32_t table, const std::string& src = {},
                        const std::string& oif = {}) {
    rule6_conf record{prio, table, 0, 0, "", ""};
    copy_text(record.src, src);
    copy_text(record.oif, oif);
    return record;
}

}  // namespace corvo::test
