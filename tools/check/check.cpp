#include "check/check.h"

#include <json/reader.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "check/rules.h"
#include "check/schema.h"

namespace check {

namespace {

namespace fs = std::filesystem;

const std::map<std::string, Kind> kByName = {{"device_info", Kind::kDeviceInfo},
                                             {"site", Kind::kSite},
                                             {"qos", Kind::kQos},
                                             {"lan_qos", Kind::kLanQos},
                                             {"s2s", Kind::kRoute},
                                             {"static", Kind::kRoute},
                                             {"mptcp", Kind::kRoute},
                                             {"default", Kind::kRoute},
                                             {"s2s6", Kind::kRoute6},
                                             {"mptcp6", Kind::kRoute6},
                                             {"default6", Kind::kRoute6},
                                             {"private_s2s", Kind::kRoutePrivate},
                                             {"private_static", Kind::kRoutePrivate},
                                             {"private_mptcp", Kind::kRoutePrivate},
                                             {"private_default", Kind::kRoutePrivate},
                                             {"regional", Kind::kRouteRegional}};

std::string default_schema_directory() {
#ifdef CORVO_SOURCE_SCHEMAS
    if (std::error_code ignored;
        !fs::exists(CORVO_INSTALLED_SCHEMAS, ignored) && fs::exists(CORVO_SOURCE_SCHEMAS, ignored))
        return CORVO_SOURCE_SCHEMAS;
#endif
    return CORVO_INSTALLED_SCHEMAS;
}

}  // namespace

const char* schema_name(Kind kind) {
    switch (kind) {
        case Kind::kDeviceInfo:
            return "device_info";
        case Kind::kSite:
            return "site";
        case Kind::kQos:
            return "qos";
        case Kind::kLanQos:
            return "lan_qos";
        case Kind::kRoute:
            return "route";
        case Kind::kRoute6:
            return "route6";
        case Kind::kRoutePrivate:
            return "route_private";
        case Kind::kRouteRegional:
            return "route_regional";
    }
    return "";
}

bool kind_of_file(const std::string& path, Kind& out) {
    std::string stem = fs::path(path).stem().string();
    stem = stem.substr(0, stem.find('.'));  // "s2s.wan1": for one link
    if (stem.rfind("route_", 0) == 0) stem = stem.substr(6);
    if (stem == "private") stem = "private_s2s";
    const auto found = kByName.find(stem);
    if (found == kByName.end()) return false;
    out = found->second;
    return true;
}

Checker::Checker(Options options) : options_(std::move(options)) {
    if (options_.schema_directory.empty()) options_.schema_directory = default_schema_directory();
}

void Checker::add_document(Kind kind, const std::string& file, const Json::Value& root) {
    documents_.push_back({kind, file, root});
}

void Checker::add_file(const std::string& path) {
    Kind kind{};
    if (!kind_of_file(path, kind)) {
        unreadable_.push_back(
            {Severity::kWarning, path, "", "not checked: its name says no kind of document",
             "Documents are device_info, site, qos, lan_qos and routes/TYPE[.IFNAME].json."});
        return;
    }
    std::ifstream in(path);
    Json::CharReaderBuilder builder;
    Json::Value root;
    std::string errors;
    try {
        if (!in || !Json::parseFromStream(builder, in, &root, &errors)) {
            std::replace(errors.begin(), errors.end(), '\n', ' ');
            unreadable_.push_back({Severity::kError, path, "", "not readable as JSON: " + errors,
                                   "Mend the text at that place."});
            return;
        }
    } catch (const Json::Exception& error) {
        unreadable_.push_back({Severity::kError, path, "",
                               std::string("not readable as JSON: ") + error.what(), "Mend the text."});
        return;
    }
    add_document(kind, path, root);
}

bool Checker::add(const std::string& path) {
    std::error_code error;
    if (!fs::is_directory(path, error)) {
        if (!fs::exists(path, error)) return false;
        add_file(path);
        return true;
    }
    std::vector<std::string> files;
    for (const auto& entry : fs::recursive_directory_iterator(path, error))
        if (entry.path().extension() == ".json" && entry.is_regular_file())
            files.push_back(entry.path().string());
    std::sort(files.begin(), files.end());
    for (const auto& file : files) add_file(file);
    return true;
}

std::vector<Finding> Checker::run() {
    std::vector<Finding> out = unreadable_;
    std::string own;
    for (const auto& document : documents_)
        if (document.kind == Kind::kDeviceInfo) own = text_of(document.root, "DEVICE_ID");
    for (const auto& document : documents_) {
        check_schema(options_.schema_directory + "/" + schema_name(document.kind) + ".schema.json",
                     document.file, document.root, out);
        Notes notes(document.file, out);
        switch (document.kind) {
            case Kind::kDeviceInfo:
                check_device_info(document.root, options_, notes);
                break;
            case Kind::kSite:
                check_site(document.root, own, notes);
                break;
            case Kind::kQos:
                check_qos(document.root, notes);
                break;
            case Kind::kLanQos:
                check_lan_qos(document.root, notes);
                break;
            default:
                check_routes(document.kind, document.root, notes);
        }
    }
    std::stable_sort(out.begin(), out.end(),
                     [](const Finding& a, const Finding& b) { return a.file < b.file; });
    return out;
}

bool has_errors(const std::vector<Finding>& findings) {
    return std::any_of(findings.begin(), findings.end(),
                       [](const Finding& f) { return f.severity == Severity::kError; });
}

}  // namespace check
