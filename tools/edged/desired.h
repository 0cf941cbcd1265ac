// What the documents and the network information service ask for, at one moment.
#pragma once

#include <json/value.h>

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace edged {

// Where the library itself looks for documents.
inline constexpr const char* kDocumentPlace = "/etc/networkmanagement";

// A route document that is there, and the type its file name says.
struct RouteDocument {
    std::string type;    // "s2s", "private_mptcp", "regional", ...
    std::string ifname;  // of one link only; empty: every link of the type's kind
    std::string path;
    Json::Value root;
};

struct Desired {
    int device_id = 0;
    std::string directory;  // of the documents
    std::map<std::string, Json::Value> wans;
    std::map<std::string, Json::Value> privates;
    std::map<std::string, Json::Value> regionals;
    std::vector<RouteDocument> routes;
    Json::Value device_info;
    Json::Value qos;      // null: no such document
    Json::Value lan_qos;  // null: no such document
    Json::Value site;     // null: no such document

    std::string device_info_path() const { return directory + "/device_info.json"; }
};

// Loads everything below `directory`. Nothing, and the reasons in `problems`, when what is there cannot be
// right: then the edge keeps what it has.
std::optional<Desired> load_desired(const std::string& directory, std::vector<std::string>& problems);

// The hub that the site document names for this device; empty: none.
std::string active_hub(const std::string& site_path, int device_id);

// Reading elements and documents whose types nobody vouches for.
std::string text_of(const Json::Value& object, const char* key, const std::string& fallback = {});
long number_of(const Json::Value& object, const char* key, long fallback = 0);
Json::Value member(const Json::Value& object, const char* key);  // null when it is not there

// One line, members in key order: equal texts are equal values.
std::string compact(const Json::Value& value);

}  // namespace edged
