#include "edged/desired.h"

#include <corvosetup/cfg_file.h>
#include <corvosetup/service.h>
#include <corvosetup/utils.h>
#include <json/writer.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <set>
#include <unordered_map>

#include "check/check.h"

namespace edged {

namespace {

namespace fs = std::filesystem;

const std::set<std::string> kRouteTypes = {
    "s2s",         "static",         "mptcp",         "default",         "s2s6",    "mptcp6", "default6",
    "private_s2s", "private_static", "private_mptcp", "private_default", "regional"};

using Query = int (*)(std::unordered_map<std::string, Json::Value>&, std::string, int);

bool load_links(Query query, const char* what, const std::string& path,
                std::map<std::string, Json::Value>& out, std::vector<std::string>& problems) {
    std::unordered_map<std::string, Json::Value> elements;
    if (const int code = query(elements, path, 1); code != 0) {
        problems.push_back(std::string("the network information service does not report the ") + what +
                           " links (" + std::to_string(code) + ")");
        return false;
    }
    out.insert(elements.begin(), elements.end());
    return true;
}

// The library's own questions name the documents at their usual place. The service must answer those as it
// answers for `directory`, or half of the edge would be that of other documents.
bool check_service(const Desired& desired, std::vector<std::string>& problems) {
    std::unordered_map<std::string, Json::Value> elements;
    const std::string usual = std::string(kDocumentPlace) + "/device_info.json";
    if (desired.device_info_path() == usual) return true;
    if (get_available_wan_info(elements, usual, 1) == 0 &&
        std::map<std::string, Json::Value>(elements.begin(), elements.end()) == desired.wans)
        return true;
    problems.push_back("the network information service reports other WAN links for " + usual + " than for " +
                       desired.device_info_path() + ": start the services with the same documents");
    return false;
}

// A document that need not exist. False: it is there and cannot be read.
bool load_optional(const std::string& path, Json::Value& out, std::vector<std::string>& problems) {
    std::error_code ignored;
    CfgFile file(path);
    if (file.good()) {
        file >> out;
        if (out.isObject()) return true;
        problems.push_back(path + ": not a JSON object");
        return false;
    }
    if (!fs::exists(path, ignored)) return true;
    problems.push_back(path + ": not readable as JSON");
    return false;
}

// routes/TYPE.json is for every link, routes/TYPE.IFNAME.json for one.
bool load_routes(const std::string& directory, std::vector<RouteDocument>& out,
                 std::vector<std::string>& problems) {
    bool good = true;
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(directory + "/routes", error)) {
        if (entry.path().extension() != ".json") continue;
        RouteDocument document;
        const std::string stem = entry.path().stem().string();
        const auto dot = stem.find('.');
        document.type = stem.substr(0, dot);
        if (dot != std::string::npos) document.ifname = stem.substr(dot + 1);
        document.path = entry.path().string();
        if (!kRouteTypes.count(document.type)) {
            problems.push_back(document.path + ": \"" + document.type + "\" is no route type");
            good = false;
            continue;
        }
        if (load_optional(document.path, document.root, problems)) {
            out.push_back(std::move(document));
        } else {
            good = false;
        }
    }
    std::sort(out.begin(), out.end(), [](const auto& a, const auto& b) { return a.path < b.path; });
    return good;
}

// The rules that "corvoctl check" knows, on the documents as they were loaded, whoever supplied them.
bool check_documents(const Desired& desired, std::vector<std::string>& problems) {
    check::Options options;
    options.kernel_interfaces.clear();  // a WAN device may appear later
    check::Checker checker(options);
    const auto add = [&](check::Kind kind, const std::string& file, const Json::Value& root) {
        if (!root.isNull()) checker.add_document(kind, file, root);
    };
    add(check::Kind::kDeviceInfo, desired.device_info_path(), desired.device_info);
    add(check::Kind::kSite, desired.directory + "/site.json", desired.site);
    add(check::Kind::kQos, desired.directory + "/qos.json", desired.qos);
    add(check::Kind::kLanQos, desired.directory + "/lan_qos.json", desired.lan_qos);
    for (const auto& route : desired.routes) {
        check::Kind kind{};
        if (check::kind_of_file(route.type, kind)) add(kind, route.path, route.root);
    }
    bool good = true;
    for (const auto& finding : checker.run()) {
        if (finding.severity != check::Severity::kError) continue;
        problems.push_back(finding.file + (finding.pointer.empty() ? "" : "#" + finding.pointer) + ": " +
                           finding.text);
        good = false;
    }
    return good;
}

// What would make two links fight over one device or one set of rules.
bool check_ids(const Desired& desired, std::vector<std::string>& problems) {
    std::map<long, std::string> owners;
    bool good = true;
    for (const auto& [name, element] : desired.wans) {
        const long id = number_of(element, "id");
        if (id <= 0) {
            problems.push_back("WAN link " + name + " has no id");
            good = false;
        } else if (const auto [at, fresh] = owners.emplace(id, name); !fresh) {
            problems.push_back("WAN links " + at->second + " and " + name + " share the id " +
                               std::to_string(id));
            good = false;
        }
    }
    return good;
}

}  // namespace

std::string text_of(const Json::Value& object, const char* key, const std::string& fallback) {
    if (!object.isObject() || !object.isMember(key)) return fallback;
    const Json::Value& value = object[key];
    return !value.isNull() && value.isConvertibleTo(Json::stringValue) ? value.asString() : fallback;
}

long number_of(const Json::Value& object, const char* key, long fallback) {
    const std::string text = text_of(object, key);
    return text.empty() ? fallback : std::strtol(text.c_str(), nullptr, 10);
}

Json::Value member(const Json::Value& object, const char* key) {
    return object.isObject() ? object.get(key, Json::Value()) : Json::Value();
}

std::string active_hub(const std::string& site_path, int device_id) {
    CfgFile file(site_path);
    Json::Value site;
    file >> site;
    for (const std::string& step : {std::string("SITE_INFO"), std::to_string(device_id)})
        site = site.isObject() ? site.get(step, Json::Value()) : Json::Value();
    return text_of(site, "HUB");
}

std::string compact(const Json::Value& value) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Json::writeString(builder, value);
}

std::optional<Desired> load_desired(const std::string& directory, std::vector<std::string>& problems) {
    Desired out;
    out.directory = directory;
    out.device_id = get_device_id();
    if (out.device_id == 0) problems.emplace_back("the configuration service gives no device id");
    const std::string path = out.device_info_path();
    bool good = out.device_id != 0;
    good = load_links(get_available_wan_info, "WAN", path, out.wans, problems) && good;
    good = load_links(get_available_private_info, "private", path, out.privates, problems) && good;
    good = load_links(get_available_rglink_info, "regional", path, out.regionals, problems) && good;
    good = load_optional(path, out.device_info, problems) && good;
    good = load_optional(directory + "/qos.json", out.qos, problems) && good;
    good = load_optional(directory + "/lan_qos.json", out.lan_qos, problems) && good;
    good = load_optional(directory + "/site.json", out.site, problems) && good;
    good = load_routes(directory, out.routes, problems) && good;
    good = good && check_service(out, problems);
    good = check_ids(out, problems) && good;
    good = check_documents(out, problems) && good;
    if (!good) return std::nullopt;
    return out;
}

}  // namespace edged
