#include "tunnel/link_routes.h"

#include "foundation/log_line.h"
#include "foundation/result.h"
#include "foundation/text.h"
#include "tunnel/route_list.h"

namespace corvo::tunnel {

void flush_route_tables(const std::string& dev, int mask,
                        const std::function<int(const RouteType&)>& table_of) {
    for (const RouteType& type : kRouteTypes) {
        if ((mask & type.bit) == 0) continue;
        route_conf record{};
        record.table = table_of(type);
        if (send_route(kRouteFlush, record) != kOk) {
            log::error(dev, " flush route failed. table [", record.table, "]\n");
        }
    }
}

int edit_default_table(int op, int table, const std::string& dev) {
    if (static_cast<unsigned>(op) >= 5) {
        log::error("Bad route operation.\n");
        return kInvalidArgument;
    }
    RouteDraft<Ipv4Routes> route;
    route.record.table = table;
    nexthop* hop = add_nexthop(&route.record.nexthops);
    if (hop == nullptr) {
        log::error("Allocate nexthop failed.\n");
        return kAllocFailed;
    }
    copy_text(hop->dev, dev);
    if (op != kRouteFlush) return kOk;
    if (send_route(kRouteFlush, route.record) != kOk) {
        log::error("flush route 30000 failed, dev: ", dev);
        return kFailed;
    }
    return kOk;
}

int setup_link_routes(const RouteTarget& link, int type_bit, const std::string& conf,
                      const std::function<int(int table_base)>& install) {
    if (conf.empty()) {
        log::error(link.dev, "'s route configuration isn't assigned.\n");
        return kEmptyInput;
    }
    const RouteType* type = type_of_bit(type_bit);
    if (type == nullptr) {
        log::error(link.dev, " has unknown route type.\n");
        return kInvalidArgument;
    }
    if (link.ifindex < 1) {
        log::trace(link.dev, " get ifindex failed.\n");
        return kOk;
    }
    if (link.local.empty()) {
        log::trace("Slave: ", link.slave, " has no ip.");
        return kOk;
    }
    return install(type->base);
}

int route_from_document(int table_base, const std::string& conf,
                        const std::function<int(int op, const RouteList& list)>& apply) {
    RouteDocument document;
    const bool loaded = document.load(conf);
    if (type_of_base(table_base) == nullptr) {
        log::error("Unkown route table id.\n");
        return kInvalidArgument;
    }
    if (!loaded) return kNotOpened;
    return apply_route_lists(document.to_delete(), document.to_add(), apply);
}

}  // namespace corvo::tunnel
