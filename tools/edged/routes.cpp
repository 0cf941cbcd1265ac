#include "edged/routes.h"

#include <corvosetup/privatelink.h>
#include <corvosetup/rglink.h>
#include <corvosetup/routing.h>
#include <corvosetup/tun.h>
#include <corvosetup/tun6.h>
#include <corvosetup/utils.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <set>

namespace edged {

namespace {

constexpr int kAllTables = -1;

PrivateLink private_link(const Json::Value& element) {
    Json::Value copy = element;
    return PrivateLink(text_of(element, "slave"), copy);
}

// What of the site document the routes of private links are made from. The active hub is not among it.
Json::Value private_view(const Json::Value& site, int device_id) {
    Json::Value out(Json::objectValue);
    const Json::Value sites = site.isObject() ? site.get("SITE_INFO", Json::Value()) : Json::Value();
    if (!sites.isObject()) return out;
    const std::string own = std::to_string(device_id);
    for (const auto& name : sites.getMemberNames()) {
        const Json::Value& from = sites[name];
        if (!from.isObject()) continue;
        for (const auto& member : from.getMemberNames()) {
            const bool used = name == own ? member == "DOMAIN"
                                          : member == "DOMAIN" || member == "LAN" || member == "PORT1" ||
                                                member == "STATIC_ROUTE" ||
                                                member.find("PRIVATE") != std::string::npos;
            if (used) out[name][member] = from[member];
        }
    }
    return out;
}

std::vector<std::string> list_of_text(const Json::Value& object, const char* key) {
    std::vector<std::string> out;
    const Json::Value list = object.get(key, Json::Value());
    if (!list.isArray()) return out;
    for (const auto& entry : list)
        if (entry.isString()) out.push_back(entry.asString());
    return out;
}

constexpr int kSharedTable = 25000;

std::string domain_of(const Json::Value& view, const std::string& site) {
    return text_of(view[site], "DOMAIN", "global");
}

void flush_shared_route(const std::string& network, const std::string& site) {
    const auto slash = network.find('/');
    std::string address = network.substr(0, slash);
    route_conf route{};
    route.table = kSharedTable;
    route.priority = std::atoi(site.c_str());
    if (slash != std::string::npos) {
        route.prefixlen = std::atoi(network.c_str() + slash + 1);
        if (network_addr(address, static_cast<unsigned>(route.prefixlen)) != 0) return;
    }
    // A record that names nothing would match everything.
    if (address.empty() || address.size() >= sizeof route.dst || route.priority == 0) return;
    address.copy(route.dst, sizeof route.dst - 1);
    edit_route(2, &route);
}

// What private links took from sites of other domains lies in the table of the regional links, which nothing
// empties.
void flush_cross_domain_routes(const Json::Value& view, int device_id) {
    if (!view.isObject()) return;
    const std::string own = std::to_string(device_id);
    for (const auto& site : view.getMemberNames()) {
        if (site == own || domain_of(view, site) == domain_of(view, own)) continue;
        const Json::Value& from = view[site];
        for (const char* list : {"LAN", "STATIC_ROUTE"})
            for (const auto& network : list_of_text(from, list)) flush_shared_route(network, site);
        flush_shared_route(text_of(from.get("PORT1", Json::Value()), "TUN_ADDR4"), site);
        for (const auto& member : from.getMemberNames())
            if (member.find("PRIVATE") != std::string::npos)
                flush_shared_route(text_of(from[member], "PRIVATE_TUN_ADDR4"), site);
    }
}

// A document applied to one link, or (IPv6 and regional routes) to all of them at once.
struct Target {
    std::string key;
    std::string ifname;
    int fingerprint = 0;  // changes when a device that the routes leave by is another one
};

bool is_private(const std::string& type) {
    return type.rfind("private_", 0) == 0;
}
bool is_per_link(const std::string& type) {
    return type.back() != '6' && type != "regional";
}

int index_of(const LinkKind& kind, const Json::Value& element) {
    return get_ifindex(kind.device(element).c_str());
}

std::vector<Target> targets_of(const RouteDocument& document, const Desired& desired) {
    std::vector<Target> out;
    const std::string key = "route:" + document.type + ":" + document.ifname + ":";
    const LinkKind& kind = is_private(document.type) ? kPrivate : kTunnel;
    const auto& links = is_private(document.type) ? desired.privates : desired.wans;
    if (is_per_link(document.type)) {
        for (const auto& [name, element] : links)
            if (document.ifname.empty() || document.ifname == name)
                out.push_back({key + name, name, index_of(kind, element)});
        return out;
    }
    const bool regional = document.type == "regional";
    Target all{key, "", 0};
    for (const auto& [name, element] : regional ? desired.regionals : desired.wans)
        all.fingerprint = all.fingerprint * 31 + index_of(regional ? kRegional : kTunnel6, element);
    out.push_back(all);
    return out;
}

int call_library(const RouteDocument& document, const Target& target, std::string path) {
    std::string type = document.type;
    std::string ifname = target.ifname;
    if (type == "regional") return setup_regional_route(type, path);
    if (type.back() == '6') return setup_tun_route6(type, path);
    return is_private(type) ? setup_private_route(ifname, type, path) : setup_tun_route(ifname, type, path);
}

Json::Value list_of(const Json::Value& document, const char* name) {
    const Json::Value found = document.isObject() ? document.get(name, Json::arrayValue) : Json::Value();
    return found.isArray() ? found : Json::Value(Json::arrayValue);
}

// What a record says is in the kernel, and what a step that was cut short may have put there.
struct Recorded {
    Json::Value sure = Json::Value();
    Json::Value maybe = Json::Value();
};

Recorded recorded_of(const Json::Value& record) {
    if (record.isMember("begun")) return {Json::Value(), record};
    return {record["applied"], Json::Value()};
}

// The document that leads from what is recorded to `fresh`: routes that are gone are deleted, new and changed
// ones added, all others not touched, so that traffic over them is not disturbed. A changed route is one of
// equal site and destination; adding it replaces it.
Json::Value difference(const Recorded& old, const Json::Value& fresh) {
    Json::Value out(Json::objectValue);
    out["del"] = list_of(fresh, "del");
    out["add"] = Json::Value(Json::arrayValue);
    std::set<std::string> sure;
    for (const auto& element : list_of(old.sure, "add")) sure.insert(compact(element));
    std::set<std::string> kept_keys;
    const auto key = [](const Json::Value& element) {
        return text_of(element, "SITE") + " " +
               compact(element.isObject() ? element.get("DEST", "") : Json::Value());
    };
    for (const auto& element : list_of(fresh, "add")) {
        kept_keys.insert(key(element));
        if (!sure.count(compact(element))) out["add"].append(element);
    }
    for (const auto& document : {old.sure, old.maybe["applied"], old.maybe["begun"]})
        for (const auto& element : list_of(document, "add"))
            if (!kept_keys.count(key(element))) out["del"].append(element);
    return out;
}

int apply_difference(const RouteDocument& document, const Target& target, const Json::Value& record,
                     const std::string& work_directory) {
    const std::string path = work_directory + "/route-change.json";
    {
        std::ofstream out(path, std::ios::trunc);
        out << compact(difference(recorded_of(record), document.root)) << '\n';
        if (!out.flush()) return -3016;
    }
    return call_library(document, target, path);
}

void apply_target(const RouteDocument& document, const Target& target, const std::string& work_directory,
                  Ledger& ledger, Report& report) {
    if (ledger.fits(target.key, document.root, target.fingerprint)) {
        report.change(target.key, Change::kAdopted, 0);
        return;
    }
    const Json::Value recorded = ledger.record(target.key);
    // Of another device only the numbers are the same: its routes went with it.
    const bool same_devices =
        recorded.isObject() && (recorded["ifindex"].isNull() || recorded["ifindex"] == target.fingerprint);
    ledger.begin(target.key, document.root);
    const int code = same_devices ? apply_difference(document, target, recorded, work_directory)
                                  : call_library(document, target, document.path);
    if (code == 0) ledger.put(target.key, document.root, target.fingerprint);
    report.change(target.key,
                  code != 0      ? Change::kFailed
                  : same_devices ? Change::kReplaced
                                 : Change::kCreated,
                  code);
}

// Documents that are gone: their routes are deleted.
void remove_vanished(const Desired& desired, const std::set<std::string>& wanted,
                     const std::string& work_directory, Ledger& ledger, Report& report) {
    for (const auto& key : ledger.keys("route:")) {
        if (wanted.count(key)) continue;
        RouteDocument gone;
        const auto first = key.find(':');
        const auto second = key.find(':', first + 1);
        const auto third = key.find(':', second + 1);
        gone.type = key.substr(first + 1, second - first - 1);
        gone.ifname = key.substr(second + 1, third - second - 1);
        gone.root = Json::Value(Json::objectValue);
        const Target target{key, key.substr(third + 1), 0};
        const auto& links = is_private(gone.type) ? desired.privates : desired.wans;
        int code = 0;
        // With its link the routes went too.
        if (!is_per_link(gone.type) || links.count(target.ifname)) {
            const Json::Value recorded = ledger.record(key);
            ledger.begin(key);
            code = apply_difference(gone, target, recorded, work_directory);
        }
        ledger.drop(key);
        report.change(key, code == 0 ? Change::kRemoved : Change::kFailed, code);
    }
}

}  // namespace

void apply_routes(const Desired& desired, const std::string& work_directory, Ledger& ledger, Report& report) {
    std::set<std::string> wanted;
    for (const auto& document : desired.routes)
        for (const auto& target : targets_of(document, desired)) wanted.insert(target.key);
    remove_vanished(desired, wanted, work_directory, ledger, report);
    for (const auto& document : desired.routes)
        for (const auto& target : targets_of(document, desired))
            apply_target(document, target, work_directory, ledger, report);
}

void doubt_default_table(const std::string& link, bool private_link, Ledger& ledger) {
    if (!private_link) {
        ledger.doubt("route:default:", ":" + link);
        return;
    }
    ledger.doubt("route:private_default:");  // all private links share one
    ledger.doubt("private-routes:");
}

void apply_private_routes(const Desired& desired, Ledger& ledger, Report& report) {
    const Json::Value view = private_view(desired.site, desired.device_id);
    const auto same = [&](const Json::Value& made_from) { return compact(made_from) == compact(view); };
    const auto key_of = [](const std::string& name) { return "private-routes:" + name; };
    // Another site document makes the routes of the links that stay stale, those of route documents in the
    // same tables with them.
    for (const auto& [name, element] : desired.privates) {
        const Json::Value recorded = ledger.record(key_of(name));
        if (!recorded.isObject() || recorded["ifindex"] != index_of(kPrivate, element)) continue;
        if (same(recorded["applied"]) && (!recorded.isMember("begun") || same(recorded["begun"]))) continue;
        ledger.begin(key_of(name), view);
        ledger.doubt("private-routes:");
        ledger.doubt("route:private_");
        ledger.doubt("route:regional:");
        private_link(element).destroy_tun_route(kAllTables);
        flush_cross_domain_routes(recorded["applied"], desired.device_id);
    }
    for (const auto& [name, element] : desired.privates) {
        const int index = index_of(kPrivate, element);
        if (index <= 0 || ledger.fits(key_of(name), view, index)) continue;
        const Json::Value recorded = ledger.record(key_of(name));
        // Without a record, bringing the link up has just installed them.
        int code = 0;
        if (recorded.isObject()) {
            ledger.begin(key_of(name), view);
            code = private_link(element).presetup_tun_routing();
            report.change(key_of(name), code == 0 ? Change::kReplaced : Change::kFailed, code);
        }
        if (code == 0) ledger.put(key_of(name), view, index);
    }
}

}  // namespace edged
