// The routes of a private link as the site document implies them.
//
// Who may include this: this area.
#pragma once

#include <json/value.h>

#include <string>

namespace corvo::tunnel {

// Who asks: the site document describes all sites, the own one included.
struct SiteRequest {
    int device_id;         // its decimal text is the own site's key
    int port;              // the own local port is "PRIVATE" and this number
    std::string group_id;  // only members of other sites in the same group are peers
};

// Route lists in the form of route documents, one per table.
struct SiteRoutes {
    Json::Value site_to_site{Json::arrayValue};
    Json::Value fixed{Json::arrayValue};  // "static"
    Json::Value mptcp{Json::arrayValue};
    Json::Value defaults{Json::arrayValue};
};

// Builds the lists from a site document. Throws jsoncpp's exceptions on a value of the wrong type.
SiteRoutes site_routes(const Json::Value& document, const SiteRequest& request);

// The same with the device's site document: -3016 when it cannot be read, -3001 when a value in it has the
// wrong type (both logged).
int read_site_routes(const SiteRequest& request, SiteRoutes& routes);

}  // namespace corvo::tunnel
