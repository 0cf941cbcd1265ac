#include "corvosetup/privatelink.h"

#include <utility>

#include "corvosetup/service.h"
#include "corvosetup/utils.h"
#include "foundation/guard.h"
#include "foundation/json.h"
#include "foundation/log_line.h"
#include "tunnel/device.h"
#include "tunnel/entries.h"
#include "tunnel/link_routes.h"
#include "tunnel/numbering.h"
#include "tunnel/port_link.h"
#include "tunnel/route_list.h"
#include "tunnel/site_routes.h"
#include "tunnel/tun_rules.h"

using namespace corvo::tunnel;
using corvo::guarded;
using corvo::j_member;
using corvo::j_str;
using corvo::log::Entry;

namespace {

constexpr const char* kFile = "privatelink.cpp";
constexpr const char* kRouteMapName = "available_private_info";
constexpr int kMtu = 1460;
constexpr int kAdvMss = 1380;
// A name that no device can have: the next hop of a link whose device is not there. Should the device come up
// in this moment, its routes must not get into the tables of an index that is not its own.
constexpr const char* kNoDevice = "/";

// The port number in a local port's name ("PRIVATE1").
int port_number(const Json::Value& name) {
    const std::string text = text_of(name);
    const std::size_t digits = text.find_first_of("0123456789");
    return digits == std::string::npos ? 0 : corvo::text_to_int(text.substr(digits));
}

int fetch_links(EntryMap& links, const std::string& source, int comprehensive) {
    return fetch_entries(&get_available_private_info, "get_available_private_info", source, comprehensive,
                         links);
}

PrivateLink link_of(Json::Value& entry) {
    return PrivateLink(j_str(entry, "slave"), entry);
}

// The routes of a list that are a link's own, for the tables of one base.
struct OwnRoutes {
    int table_base;
    int index;  // of the device, below 1 when it is not there
    int port;
    int prio;
    std::string dev;

    Fate fill(int op, const Json::Value& element, RouteDraft<Ipv4Routes>& route) const;
    int apply(int op, const RouteList& list) const {
        return apply_route_list<Ipv4Routes>(op, list,
                                            [&](const Json::Value& element, RouteDraft<Ipv4Routes>& route) {
                                                return fill(op, element, route);
                                            });
    }
};

Fate OwnRoutes::fill(int op, const Json::Value& element, RouteDraft<Ipv4Routes>& route) const {
    route.begin(element, number_of(table_base, index));
    const Json::Value& gateways = list_of(j_member(element, "RTA_GATEWAY"));
    const Json::Value& ports = list_of(j_member(element, "LOCAL_PORT"));
    const Json::Value& weights = list_of(j_member(element, "WEIGHT"));
    if (gateways.size() != ports.size() || gateways.size() != weights.size()) {
        route.note = "Gateway, Weight and Local Port are not equal.";
        return Fate::kSkip;
    }
    Json::ArrayIndex j = 0;
    for (; j < ports.size(); ++j) {
        const int number = port_number(ports[j]);
        if (number != 0 && number == port) break;
    }
    if (j == ports.size()) return Fate::kSkip;  // other links' route

    if (!route.read_site(element)) return Fate::kSkip;
    const Json::Value& dest = j_member(element, "DEST");
    if (!route.read_destination(dest.isArray() ? item_of(dest, j) : dest)) return Fate::kSkip;
    if (truth_of(j_member(element, "CROSS_DOMAIN"))) {
        if (table_base != kMptcpBase) route.record.table = kSharedTable;
    } else if (table_base == kDefaultBase) {
        route.record.table = kDefaultBase;
        route.record.priority = prio;
    }
    if (op == kRouteFlush) return Fate::kSend;
    route.add_hop(gateways[j], index > 0 ? dev : kNoDevice, 0);
    route.set_metrics(kMtu, kAdvMss);
    return Fate::kSend;
}

}  // namespace

PrivateLink::PrivateLink(std::string slave, Json::Value& info)
    : dev{},
      local{},
      remote{},
      tun_addr{},
      ttl(0),
      fou_sport(kFouPort),
      fou_dport(kFouPort),
      ifindex(0),
      port(0),
      device_id(0),
      prio(0),
      slave(slave) {
    if (slave.empty()) return;
    device_id = get_device_id();
    if (device_id == 0) return;

    const PortName name = read_port_name(slave);
    port = name.port;
    std::string address;
    gen_tun_addr4(device_id, port, address);
    std::string outer = j_str(info, "ip4_addr");
    set_local(outer);
    prio = corvo::j_int(info, "prio");
    group_id = j_str(info, "private_group_id");
    if (port == 0) return;
    corvo::copy_text(dev, name.dev);
    corvo::copy_text(tun_addr, address);
    corvo::copy_text(remote, "0.0.0.0");
}

std::string PrivateLink::get_dev() {
    return corvo::guarded_or(std::string(), [&] { return std::string(dev); });
}

int PrivateLink::set_local(std::string& ip) {
    return guarded([&] { return copy_address(local, ip); });
}

int PrivateLink::obtain_ifindex() {
    return cached_ifindex(ifindex, dev);
}

int PrivateLink::parse_tun_local_ip() {
    return guarded([&] { return local_of_port(slave, local); });
}

int PrivateLink::setup_tun_ipv4() {
    return guarded([&] { return assign_ipv4(obtain_ifindex(), tun_addr); });
}

int PrivateLink::get_tun_flag(unsigned int& flags) {
    return get_flags(obtain_ifindex(), flags);
}

int PrivateLink::set_tun_flag(unsigned int flags) {
    return set_flags(obtain_ifindex(), flags);
}

int PrivateLink::unset_tun_flag(unsigned int flags) {
    return unset_flags(obtain_ifindex(), flags);
}

int PrivateLink::dump2struct(ipip_conf* conf) {
    return guarded([&]() -> int {
        if (conf == nullptr) return corvo::kFailed;
        fill_port_link(*conf, dev, local, remote, ttl, fou_sport, fou_dport);
        return corvo::kOk;
    });
}

int PrivateLink::setup_tun(int op) {
    return guarded([&] {
        ipip_conf conf{};
        const DeviceSetup link{
            .dev = dev,
            .ifindex = [&] { return obtain_ifindex(); },
            .before_delete =
                [&] {
                    if (destroy_tun_rule() != corvo::kOk) {
                        corvo::log::error("destroy_tun_rule(): ", dev, " failed.\n");
                    }
                    if (destroy_tun_route(kAllTypes) != corvo::kOk) {
                        corvo::log::error("destroy_tun_route(): ", dev, " failed.\n");
                    }
                },
            .find_local = [&] { return is_any_address(local) ? parse_tun_local_ip() : corvo::kOk; },
            .fill_record = [&] { return dump2struct(&conf); },
            .edit_name = "edit_ipip_tunnel()",
            .edit = [&](int what) { return edit_ipip_tunnel(what, &conf); },
            .address = {"setup_tun_ipv4()", [&] { return setup_tun_ipv4(); }},
            .set_flag = [&](unsigned flags) { return set_tun_flag(flags); },
            .add_rules = [&] { return setup_tun_rule(); },
            .add_routes = [&] { return presetup_tun_routing(); },
        };
        return link.run(op);
    });
}

// Numbered from the device's index, marked with the port number.
int PrivateLink::setup_tun_rule() {
    return guarded([&]() -> int {
        const int index = obtain_ifindex();
        if (index > 0) add_rules(Family::kIpv4, kPrivateRules, {index, port, tun_addr, dev});
        return corvo::kOk;
    });
}

int PrivateLink::destroy_tun_rule() {
    return guarded([&]() -> int {
        const int index = obtain_ifindex();
        if (index > 0) delete_rules(Family::kIpv4, kPrivateRules, {index, port, tun_addr, dev});
        return corvo::kOk;
    });
}

int PrivateLink::destroy_tun_route(int mask) {
    return guarded([&]() -> int {
        const int index = obtain_ifindex();
        if (index < 1) return corvo::kOk;
        flush_route_tables(dev, mask, [&](const RouteType& type) {
            // All private links share one default table.
            return type.bit == kDefault ? static_cast<int>(kDefaultBase) : number_of(type.base, index);
        });
        return corvo::kOk;
    });
}

int PrivateLink::setup_mptcp_default_route(int op) {
    return guarded([&] { return edit_default_table(op, kDefaultBase, dev); });
}

int PrivateLink::setup_route(int type_bit, std::string& conf) {
    return guarded([&] {
        return setup_link_routes({dev, obtain_ifindex(), local, slave}, type_bit, conf,
                                 [&](int table_base) { return setup_tun_routing(table_base, conf); });
    });
}

int PrivateLink::setup_tun_routing(int table_base, std::string& conf) {
    return guarded([&] {
        const OwnRoutes own{table_base, obtain_ifindex(), port, prio, dev};
        return route_from_document(table_base, conf,
                                   [&](int op, const RouteList& list) { return own.apply(op, list); });
    });
}

int PrivateLink::edit_routing(int table_base, int op, Json::Value& list) {
    return guarded([&] {
        // Callers in the field use both orders of the two numbers.
        if (table_base < 10 && op >= kS2sBase) std::swap(table_base, op);
        return OwnRoutes{table_base, obtain_ifindex(), port, prio, dev}.apply(op, RouteList(list));
    });
}

int PrivateLink::presetup_tun_routing() {
    return guarded([&]() -> int {
        SiteRoutes routes;
        const int read = read_site_routes({device_id, port, group_id}, routes);
        if (read != corvo::kOk) return read;
        // What could not be installed is in the log.
        edit_routing(kS2sBase, kRouteAdd, routes.site_to_site);
        edit_routing(kStaticBase, kRouteAdd, routes.fixed);
        edit_routing(kMptcpBase, kRouteAdd, routes.mptcp);
        edit_routing(kDefaultBase, kRouteAdd, routes.defaults);
        return corvo::kOk;
    });
}

int setup_private(int op, std::string ifname, std::string& source) {
    corvo::log::ensure_file();
    return guarded([&] {
        const Entry entry{kFile, "setup_private", Entry::Word::kInitEnter};
        if (static_cast<unsigned>(op) >= 2) return entry.leave<int>(corvo::kInvalidArgument);
        EntryMap links;
        const int fetched = fetch_links(links, source, op);
        if (fetched != corvo::kOk) return entry.leave(fetched);
        run_entries(links, ifname,
                    {.map_name = "private_info", .run = [&](const std::string&, Json::Value& link) {
                         return link_of(link).setup_tun(op);
                     }});
        return entry.leave(fetched);
    });
}

int setup_private_route(std::string& ifname, std::string& type, std::string& conf) {
    corvo::log::ensure_file();
    return guarded([&] {
        const Entry entry{kFile, "setup_private_route", Entry::Word::kInitEnter};
        const RouteType* wanted = type_of_name(type, "private_");
        if (wanted == nullptr) {
            corvo::log::error("Wrong route type.\n");
            return entry.leave<int>(corvo::kInvalidArgument);
        }
        EntryMap links;
        const int fetched = fetch_links(links, kDeviceInfo, 1);
        if (fetched != corvo::kOk) return entry.leave(fetched);
        corvo::log::debug("Route type: ", static_cast<int>(wanted->bit));
        return entry.leave(run_entries(
            links, ifname,
            {.map_name = kRouteMapName,
             .run = [&](const std::string&,
                        Json::Value& link) { return link_of(link).setup_route(wanted->bit, conf); },
             .failed =
                 [&](const std::string& key, int result) {
                     corvo::log::error("Iface: ", key, " setup_private_route: ", type,
                                       " failed. ret=", result);
                 },
             .report_single = false}));
    });
}

int setup_private_mptcp_default_route(int op, std::string ifname) {
    corvo::log::ensure_file();
    return guarded([&] {
        const Entry entry{kFile, "setup_private_mptcp_default_route", Entry::Word::kInitEnter};
        EntryMap links;
        const int fetched = fetch_links(links, kDeviceInfo, 1);
        if (fetched != corvo::kOk) return entry.leave(fetched);
        return entry.leave(run_entries(
            links, ifname,
            {.map_name = kRouteMapName,
             .missing_as_empty = true,
             .run = [&](const std::string&,
                        Json::Value& link) { return link_of(link).setup_mptcp_default_route(op); },
             .failed =
                 [](const std::string& key, int result) {
                     corvo::log::error("Iface: ", key,
                                       " setup_private_mptcp_default_route failed. ret=", result);
                 }}));
    });
}
