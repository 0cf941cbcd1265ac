#include "tunnel/site_routes.h"

#include "corvosetup/cfg_file.h"
#include "foundation/json.h"
#include "foundation/log_line.h"
#include "foundation/result.h"

namespace corvo::tunnel {

namespace {

constexpr const char* kSiteConf = "/etc/networkmanagement/site.json";
constexpr const char* kGlobalDomain = "global";

// A site document with a value of the wrong type is refused as a whole, with jsoncpp's own words about what
// it found. So it is read through the const accessors that throw, not through the total ones of other
// documents; like those they never insert what they look for.
std::string text(const Json::Value& object, const char* key, const char* fallback = "") {
    return object.get(key, fallback).asString();
}

// The member of `site` that the private link reaches it by, or null. The first one in key order that has the
// group and an address decides.
const Json::Value* peer_of(const Json::Value& site, const std::string& group_id) {
    for (auto member = site.begin(); member != site.end(); ++member) {
        if (member.name().find("PRIVATE") == std::string::npos) continue;
        if (text(*member, "PRIVATE_GROUP_ID") != group_id) continue;
        if (!text(*member, "PRIVATE_ADDR4").empty()) return &*member;
    }
    return nullptr;
}

Json::Value one_of(Json::Value item) {
    Json::Value list(Json::arrayValue);
    list.append(std::move(item));
    return list;
}

void append_site(const std::string& key, const Json::Value& site, const std::string& own_domain,
                 const SiteRequest& request, SiteRoutes& routes) {
    const bool cross_domain = text(site, "DOMAIN", kGlobalDomain) != own_domain;
    const Json::Value* peer = peer_of(site, request.group_id);
    if (peer == nullptr) return;

    Json::Value route(Json::objectValue);
    route["SITE"] = key;
    route["WEIGHT"] = one_of("1");
    route["RTA_GATEWAY"] = one_of(text(*peer, "PRIVATE_ADDR4"));
    route["LOCAL_PORT"] = one_of("PRIVATE" + std::to_string(request.port));
    route["CROSS_DOMAIN"] = cross_domain;

    const auto append = [&](Json::Value& list, Json::Value dest) {
        route["DEST"] = std::move(dest);
        list.append(route);
    };
    for (const Json::Value& lan : site.get("LAN", Json::Value())) append(routes.site_to_site, lan);
    for (const Json::Value& dest : site.get("STATIC_ROUTE", Json::Value())) append(routes.fixed, dest);
    // The peer's two tunnel addresses; peers give these two as lists.
    const std::string tunnels[] = {text(*peer, "PRIVATE_TUN_ADDR4"),
                                   text(site.get("PORT1", Json::Value()), "TUN_ADDR4")};
    for (const std::string& address : tunnels) {
        append(routes.mptcp, one_of(address));
        append(routes.defaults, one_of(address));
    }
}

}  // namespace

SiteRoutes site_routes(const Json::Value& document, const SiteRequest& request) {
    SiteRoutes routes;
    const Json::Value sites = document.get("SITE_INFO", Json::Value());
    const std::string own_key = std::to_string(request.device_id);
    const std::string own_domain = text(sites.get(own_key, Json::Value()), "DOMAIN", kGlobalDomain);
    for (auto site = sites.begin(); site != sites.end(); ++site) {
        if (site.name() != own_key) append_site(site.name(), *site, own_domain, request, routes);
    }
    return routes;
}

int read_site_routes(const SiteRequest& request, SiteRoutes& routes) {
    CfgFile file(kSiteConf);
    if (!file.good()) {
        log::error("Fail to open SITE_CONF.");
        return kNotOpened;
    }
    try {
        Json::Value document;
        file >> document;
        routes = site_routes(document, request);
        return kOk;
    } catch (const std::exception& failure) {
        log::error("presetup_tun_routing failed: ", failure.what());
        return kFailed;
    }
}

}  // namespace corvo::tunnel
