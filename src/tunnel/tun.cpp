#include "corvosetup/tun.h"

#include "corvosetup/service.h"
#include "foundation/guard.h"
#include "foundation/json.h"
#include "foundation/log_line.h"
#include "tunnel/device.h"
#include "tunnel/entries.h"
#include "tunnel/link_routes.h"
#include "tunnel/numbering.h"
#include "tunnel/route_list.h"
#include "tunnel/rules.h"
#include "tunnel/tun_rules.h"

using namespace corvo::tunnel;
using corvo::guarded;
using corvo::j_member;
using corvo::j_str;
using corvo::log::Entry;

namespace {

constexpr const char* kFile = "tun.cpp";
constexpr const char* kMapName = "available_wan_info";

// What fits through the tunnel, by the traffic that the table is for.
struct PathMetrics {
    int mtu;
    int advmss;
};
PathMetrics metrics_of(int table_base) {
    const bool mptcp = table_base == kMptcpBase || table_base == kDefaultBase;
    return mptcp ? PathMetrics{1374, 1302} : PathMetrics{1342, 1290};
}

Tun tunnel_of(Json::Value& entry, unsigned queue = 0) {
    return Tun(j_str(entry, "slave"), entry, queue);
}

int fetch_wans(EntryMap& wans, const std::string& source) {
    return fetch_entries(&get_available_wan_info, "get_available_wan_info", source, 1, wans);
}

}  // namespace

Tun::Tun(std::string slave, Json::Value& info, unsigned int queue)
    : TunBase("tun", slave, info, queue), fou_sport(kFouPort), fou_dport(kFouPort) {}

int Tun::setup_tun_ipv4() {
    return guarded([&] { return assign_ipv4(obtain_ifindex(), local); });
}

int Tun::dump2struct(ipip_conf* conf) {
    return guarded([&]() -> int {
        if (conf == nullptr) return corvo::kFailed;
        corvo::copy_text(conf->name, dev);
        corvo::copy_text(conf->local, local);
        corvo::copy_text(conf->remote, remote);
        corvo::copy_text(conf->addr, local);
        conf->queues = static_cast<int>(queue);
        conf->ttl = ttl;
        conf->sport = fou_sport;
        conf->dport = fou_dport;
        corvo::log::debug("[", dev, "] local: ", local, ", remote: ", remote, ", ip: ", local, ", ttl: ", ttl,
                          ", sport: ", fou_sport, ", dport: ", fou_dport, ", queue: ", queue);
        return corvo::kOk;
    });
}

int Tun::setup_tun(int op) {
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
            .fill_record = [&] { return dump2struct(&conf); },
            .edit_name = "edit_ipip_tunnel()",
            .edit = [&](int what) { return edit_ipip_tunnel(what, &conf); },
            .pin_queues = true,
            .address = {"setup_tun_ipv4()", [&] { return setup_tun_ipv4(); }},
            .set_flag = [&](unsigned flags) { return set_tun_flag(flags); },
            .add_rules = [&] { return setup_tun_rule(); },
        };
        return link.run(op);
    });
}

int Tun::setup_tun_rule() {
    return guarded([&]() -> int {
        if (obtain_ifindex() > 0) add_rules(Family::kIpv4, kTunRules, {id, id, local, dev});
        return corvo::kOk;
    });
}

int Tun::destroy_tun_rule() {
    return guarded([&]() -> int {
        if (obtain_ifindex() > 0) delete_rules(Family::kIpv4, kTunRules, {id, id, local, dev});
        return corvo::kOk;
    });
}

int Tun::setup_mptcp_default_rule(int op) {
    return guarded([&]() -> int {
        if (obtain_ifindex() < 1) return corvo::kOk;
        return edit_default_rule(Family::kIpv4, op, number_of(kDefaultBase, id));
    });
}

int Tun::destroy_tun_route(int mask) {
    return guarded([&]() -> int {
        if (obtain_ifindex() < 1) return corvo::kOk;
        flush_route_tables(dev, mask, [&](const RouteType& type) { return number_of(type.base, id); });
        return corvo::kOk;
    });
}

int Tun::setup_mptcp_default_route(int op) {
    return guarded([&] { return edit_default_table(op, number_of(kDefaultBase, id), dev); });
}

int Tun::setup_route(int type_bit, std::string& conf) {
    return guarded([&] {
        return setup_link_routes({dev, obtain_ifindex(), local, slave}, type_bit, conf,
                                 [&](int table_base) { return setup_tun_routing(table_base, conf); });
    });
}

int Tun::setup_tun_routing(int table_base, std::string& conf) {
    return guarded([&] {
        const PathMetrics metrics = metrics_of(table_base);
        return route_from_document(table_base, conf, [&](int op, const RouteList& list) {
            return apply_route_list<Ipv4Routes>(
                op, list, [&](const Json::Value& element, RouteDraft<Ipv4Routes>& route) {
                    route.begin(element, number_of(table_base, id));
                    if (!route.read_site(element)) return Fate::kSkip;
                    if (!route.read_destination(j_member(element, "DEST"))) return Fate::kSkip;
                    if (op == kRouteFlush) return Fate::kSend;
                    if (!route.weights_agree(element)) return Fate::kSkip;
                    route.read_hops(element, dev);
                    route.set_metrics(metrics.mtu, metrics.advmss);
                    return Fate::kSend;
                });
        });
    });
}

int setup_tun(int op, std::string ifname, std::string& source, unsigned int queue) {
    corvo::log::ensure_file();
    return guarded([&] {
        const Entry entry{kFile, "setup_tun", Entry::Word::kInitEnter};
        if (static_cast<unsigned>(op) >= 2) return entry.leave<int>(corvo::kInvalidArgument);
        EntryMap wans;
        const int fetched = fetch_wans(wans, source);
        if (fetched != corvo::kOk) return entry.leave(fetched);
        // What a tunnel did is in the log; the call itself succeeded.
        run_entries(wans, ifname,
                    {.map_name = kMapName,
                     .match = Match::kNameThenSlave,
                     .run = [&](const std::string&, Json::Value& wan) {
                         return tunnel_of(wan, queue).setup_tun(op);
                     }});
        return entry.leave(fetched);
    });
}

int setup_tun_route(std::string& ifname, std::string& type, std::string& conf) {
    corvo::log::ensure_file();
    return guarded([&] {
        const Entry entry{kFile, "setup_tun_route", Entry::Word::kInitEnter};
        const RouteType* wanted = type_of_name(type);
        if (wanted == nullptr) {
            corvo::log::error("Wrong route type.\n");
            return entry.leave<int>(corvo::kInvalidArgument);
        }
        EntryMap wans;
        const int fetched = fetch_wans(wans, kDeviceInfo);
        if (fetched != corvo::kOk) return entry.leave(fetched);
        corvo::log::debug("Route type: ", static_cast<int>(wanted->bit));
        return entry.leave(run_entries(
            wans, ifname,
            {.map_name = kMapName,
             .run = [&](const std::string&,
                        Json::Value& wan) { return tunnel_of(wan).setup_route(wanted->bit, conf); },
             .failed =
                 [&](const std::string& key, int result) {
                     corvo::log::error("Iface: ", key, " setup_tun_route: ", type, " failed. ret=", result);
                 },
             .report_single = false}));
    });
}

int setup_tun_mptcp_default_rule(int op, std::string ifname) {
    corvo::log::ensure_file();
    return guarded([&] {
        const Entry entry{kFile, "setup_tun_mptcp_default_rule", Entry::Word::kInitEnter};
        EntryMap wans;
        const int fetched = fetch_wans(wans, kDeviceInfo);
        if (fetched != corvo::kOk) return entry.leave(fetched);
        return entry.leave(run_entries(
            wans, ifname,
            {.map_name = kMapName,
             .missing_as_empty = true,
             .run = [&](const std::string&,
                        Json::Value& wan) { return tunnel_of(wan).setup_mptcp_default_rule(op); },
             .failed =
                 [](const std::string& key, int result) {
                     corvo::log::error("Iface: ", key, " setup_mptcp_default_rule failed. ret=", result);
                 }}));
    });
}

int setup_tun_mptcp_default_route(int op, std::string ifname) {
    corvo::log::ensure_file();
    return guarded([&] {
        const Entry entry{kFile, "setup_tun_mptcp_default_route", Entry::Word::kInitEnter};
        EntryMap wans;
        const int fetched = fetch_wans(wans, kDeviceInfo);
        if (fetched != corvo::kOk) return entry.leave(fetched);
        return entry.leave(run_entries(
            wans, ifname,
            {.map_name = kMapName,
             .missing_as_empty = true,
             .run = [&](const std::string&,
                        Json::Value& wan) { return tunnel_of(wan).setup_mptcp_default_route(op); },
             .failed =
                 [](const std::string& key, int result) {
                     corvo::log::error("Iface: ", key, " setup_tun_mptcp_default_route failed. ret=", result);
                 }}));
    });
}
