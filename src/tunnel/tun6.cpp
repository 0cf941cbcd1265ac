#include "corvosetup/tun6.h"

#include "corvosetup/cfg_file.h"
#include "corvosetup/service.h"
#include "foundation/guard.h"
#include "foundation/json.h"
#include "foundation/log_line.h"
#include "tunnel/device.h"
#include "tunnel/entries.h"
#include "tunnel/numbering.h"
#include "tunnel/route_list.h"
#include "tunnel/rules.h"

using namespace corvo::tunnel;
using corvo::guarded;
using corvo::j_member;
using corvo::j_str;
using corvo::log::Entry;

namespace {

constexpr const char* kFile = "tun6.cpp";
constexpr const char* kMapName = "available_wan_info";
constexpr const char* kPrefix = "ip6tun";
constexpr int kMtu = 1360;
constexpr int kAdvMss = 1260;

constexpr RuleSpec kTun6Rules[] = {
    {kS2sBase, kS2sBase, Selects::kMark, "setup ipv6 site-to-site fwmark rule failed.\n",
     "delete ipv6 site-to-site fwmark rule failed.\n"},
    {kMptcpBase, kMptcpBase, Selects::kSource, "setup ipv6 mptcp source first rule failed.\n",
     "delete ipv6 mptcp first rule failed.\n"},
    {kMptcpBase, kMptcpBase, Selects::kDevice, "setup ipv6 mptcp second rule failed.\n",
     "delete ipv6 mptcp second rule failed.\n"},
    {kDefaultBase, kDefaultBase, Selects::kAll, "setup ipv6 mptcp default rule failed.\n",
     "delete ipv6 mptcp defult rule failed.\n"},
};

// Route types of the IPv6 family have bits of their own.
struct Route6Type {
    int bit;
    std::string_view name;
    int (V6TunRo::*apply)(Json::Value& list, int op);
};
constexpr Route6Type kRoute6Types[] = {
    {1, "s2s6", &V6TunRo::setup_ipv6_s2s_route},
    {2, "mptcp6", &V6TunRo::setup_ipv6_mptcp_route},
    {4, "default6", &V6TunRo::setup_ipv6_mptcp_default},
};

Tun6 tunnel_of(Json::Value& entry, unsigned queue = 0) {
    return Tun6(j_str(entry, "slave"), entry, queue);
}

int fetch_wans(EntryMap& wans, const std::string& source) {
    return fetch_entries(&get_available_wan_info, "get_available_wan_info", source, 1, wans);
}

// Every element goes to every tunnel: one route per WAN entry.
int apply_to_all(const EntryMap& wans, int table_base, const Json::Value& list, int op) {
    std::vector<const Json::Value*> entries;
    for (const auto& [key, wan] : wans) entries.push_back(&wan);
    return apply_route_list<Ipv6Routes>(
        op, RouteList(list), entries.size(),
        [&](const Json::Value& element, std::size_t variant, RouteDraft<Ipv6Routes>& route) {
            const Json::Value& wan = *entries[variant];
            if (op != kRouteFlush && j_str(wan, "ip6_addr").empty()) return Fate::kSkip;
            const int id = corvo::j_int(wan, "id");
            route.begin(element, number_of(table_base, id));
            if (!route.read_site(element)) return Fate::kSkip;
            if (!route.read_destination(j_member(element, "DEST"))) return Fate::kSkip;
            if (op == kRouteFlush) return Fate::kSend;
            if (!route.weights_agree(element)) return Fate::kSkip;
            route.read_hops(element, kPrefix + std::to_string(id));
            route.set_metrics(kMtu, kAdvMss);
            return Fate::kSend;
        });
}

}  // namespace

Tun6::Tun6(std::string slave, Json::Value& info, unsigned int queue) : TunBase(kPrefix, slave, info, queue) {}

int Tun6::setup_tun_ipv6() {
    return guarded([&] {
        const std::string address = std::string("::") + local + "/96";
        return set_ipv6_addr(obtain_ifindex(), address.c_str());
    });
}

int Tun6::dump2struct(sit_conf* conf) {
    return guarded([&]() -> int {
        if (conf == nullptr) return corvo::kFailed;
        corvo::copy_text(conf->name, dev);
        corvo::copy_text(conf->local, local);
        corvo::copy_text(conf->remote, remote);
        corvo::copy_text(conf->addr6, std::string("::") + local);
        conf->queues = static_cast<int>(queue);
        conf->ttl = ttl;
        corvo::log::debug("[", dev, "] local: ", local, ", remote: ", remote, ", ip: ", local, ", ttl: ", ttl,
                          ", queue: ", queue);
        return corvo::kOk;
    });
}

int Tun6::setup_tun(int op) {
    return guarded([&] {
        sit_conf conf{};
        const DeviceSetup link{
            .dev = dev,
            .ifindex = [&] { return obtain_ifindex(); },
            .before_delete =
                [&] {
                    // The routes go with the device.
                    if (destroy_tun_rule() != corvo::kOk) {
                        corvo::log::error("destroy_tun_rule(): ", dev, " failed.\n");
                    }
                },
            .fill_record = [&] { return dump2struct(&conf); },
            .edit_name = "edit_sit_tunnel()",
            .edit = [&](int what) { return edit_sit_tunnel(what, &conf); },
            .pin_queues = true,
            .address = {"setup_tun_ipv6()", [&] { return setup_tun_ipv6(); }},
            .set_flag = [&](unsigned flags) { return set_tun_flag(flags); },
            .no_multipath = true,
            .add_rules = [&] { return setup_tun_rule(); },
        };
        return link.run(op);
    });
}

int Tun6::setup_tun_rule() {
    return guarded([&]() -> int {
        // An IPv4 text is no source of an IPv6 rule; the tunnel's own address is its compatible form.
        const std::string source = local[0] != '\0' ? std::string("::") + local : std::string();
        if (obtain_ifindex() > 0) add_rules(Family::kIpv6, kTun6Rules, {id, id, source, dev});
        return corvo::kOk;
    });
}

int Tun6::destroy_tun_rule() {
    return guarded([&]() -> int {
        if (obtain_ifindex() > 0) delete_rules(Family::kIpv6, kTun6Rules, {id, id, {}, dev});
        return corvo::kOk;
    });
}

int Tun6::setup_mptcp_default_rule(int op) {
    return guarded([&]() -> int {
        if (obtain_ifindex() < 1) return corvo::kOk;
        return edit_default_rule(Family::kIpv6, op, number_of(kDefaultBase, id));
    });
}

V6TunRo::V6TunRo(Json::Value& root, std::unordered_map<std::string, Json::Value>& wans)
    : root(root), wans(wans) {}

int V6TunRo::setup_route6(int type_bit) {
    return guarded([&]() -> int {
        for (const Route6Type& type : kRoute6Types) {
            if (type.bit != type_bit) continue;
            // The lists of the document that this object holds, found without inserting them.
            const Json::Value& to_delete = corvo::j_arr(root, "del");
            const Json::Value& to_add = corvo::j_arr(root, "add");
            return apply_route_lists(RouteList(to_delete), RouteList(to_add), [&](int op, const RouteList&) {
                return (this->*type.apply)(const_cast<Json::Value&>(op == kRouteAdd ? to_add : to_delete),
                                           op);
            });
        }
        return corvo::kInvalidArgument;
    });
}

int V6TunRo::setup_ipv6_s2s_route(Json::Value& list, int op) {
    return guarded([&] { return apply_to_all(wans, kS2sBase, list, op); });
}

int V6TunRo::setup_ipv6_mptcp_route(Json::Value& list, int op) {
    return guarded([&] { return apply_to_all(wans, kMptcpBase, list, op); });
}

int V6TunRo::setup_ipv6_mptcp_default(Json::Value& list, int op) {
    return guarded([&] { return apply_to_all(wans, kDefaultBase, list, op); });
}

int setup_tun6(int op, std::string ifname, std::string& source, unsigned int queue) {
    corvo::log::ensure_file();
    return guarded([&] {
        const Entry entry{kFile, "setup_tun6", Entry::Word::kInitEnter};
        if (static_cast<unsigned>(op) >= 2) return entry.leave<int>(corvo::kInvalidArgument);
        EntryMap wans;
        const int fetched = fetch_wans(wans, source);
        if (fetched != corvo::kOk) return entry.leave(fetched);
        // What a tunnel did is in the log; the call itself succeeded.
        run_entries(wans, ifname,
                    {.map_name = kMapName,
                     .match = Match::kNameThenSlave,
                     .run = [&](const std::string& name, Json::Value& wan) -> int {
                         if (j_str(wan, "ip6_addr").empty()) {
                             corvo::log::warning("Dev [", name, "]'s ipv6 is not ready...\n");
                             return corvo::kOk;
                         }
                         return tunnel_of(wan, queue).setup_tun(op);
                     }});
        return entry.leave(fetched);
    });
}

int setup_tun_route6(std::string& type, std::string& conf) {
    corvo::log::ensure_file();
    return guarded([&] {
        const Entry entry{kFile, "setup_tun_route6", Entry::Word::kInitEnter};
        int bit = 0;
        for (const Route6Type& known : kRoute6Types) {
            if (known.name == type) bit = known.bit;
        }
        if (bit == 0) {
            corvo::log::error("Wrong route type.\n");
            return entry.leave<int>(corvo::kInvalidArgument);
        }
        Json::Value document;
        {
            CfgFile file(conf);
            if (!file.good()) {
                corvo::log::error("Can't open conf: ", conf);
                return entry.leave<int>(corvo::kNotOpened);
            }
            file >> document;
        }
        EntryMap wans;
        const int fetched = fetch_wans(wans, kDeviceInfo);
        if (fetched != corvo::kOk) return entry.leave(fetched);
        corvo::log::debug("Route6 type: ", bit, ", conf: ", conf);
        return entry.leave(V6TunRo(document, wans).setup_route6(bit));
    });
}

int setup_tuni6_mptcp_default_rule(int op, std::string ifname) {
    corvo::log::ensure_file();
    return guarded([&] {
        const Entry entry{kFile, "setup_tuni6_mptcp_default_rule", Entry::Word::kInitEnter};
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
