#include "edged/ledger.h"

#include <fcntl.h>
#include <json/reader.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <vector>

#include "edged/desired.h"

namespace edged {

namespace {

// Devices and routes belong to one boot and one network namespace.
std::string kernel_identity() {
    std::string boot;
    std::ifstream("/proc/sys/kernel/random/boot_id") >> boot;
    struct stat info {};
    if (::stat("/proc/self/ns/net", &info) == 0) boot += ":" + std::to_string(info.st_ino);
    return boot;
}

const Json::Value kNull;

}  // namespace

Ledger::Ledger(std::string path) : path_(std::move(path)), root_(Json::objectValue) {
    std::ifstream in(path_);
    Json::Value found;
    Json::CharReaderBuilder builder;
    std::string errors;
    if (in && Json::parseFromStream(builder, in, &found, &errors) &&
        text_of(found, "kernel") == kernel_identity() && found["steps"].isObject()) {
        for (const auto& key : found["steps"].getMemberNames())
            if (found["steps"][key].isObject()) root_[key] = found["steps"][key];
    }
}

const Json::Value& Ledger::record(const std::string& key) const {
    const Json::Value* found = root_.find(key.data(), key.data() + key.size());
    return found != nullptr ? *found : kNull;
}

bool Ledger::fits(const std::string& key, const Json::Value& applied, int ifindex) const {
    const Json::Value& found = record(key);
    return found.isObject() && !found.isMember("begun") && found["ifindex"] == ifindex &&
           compact(found["applied"]) == compact(applied);  // a number read back may have another type
}

void Ledger::begin(const std::string& key, const Json::Value& next) {
    if (record(key).isObject() && record(key).isMember("begun") && record(key)["begun"] == next) return;
    root_[key]["begun"] = next;
    save();
}

void Ledger::doubt(const std::string& prefix, const std::string& suffix) {
    bool changed = false;
    for (const auto& key : keys(prefix)) {
        if (!key.ends_with(suffix) || root_[key].isMember("begun")) continue;
        root_[key]["begun"] = root_[key]["applied"];
        changed = true;
    }
    if (changed) save();
}

void Ledger::put(const std::string& key, const Json::Value& applied, int ifindex) {
    Json::Value fresh(Json::objectValue);
    fresh["applied"] = applied;
    fresh["ifindex"] = ifindex;
    root_[key] = fresh;
    save();
}

void Ledger::drop(const std::string& key) {
    if (!root_.isMember(key)) return;
    root_.removeMember(key);
    save();
}

std::vector<std::string> Ledger::keys(const std::string& prefix) const {
    std::vector<std::string> out;
    for (const auto& key : root_.getMemberNames())
        if (key.rfind(prefix, 0) == 0) out.push_back(key);
    return out;
}

// Written beside and renamed over, so that a kill leaves the old or the new ledger and never half of one.
void Ledger::save() const {
    Json::Value whole(Json::objectValue);
    whole["kernel"] = kernel_identity();
    whole["steps"] = root_;
    const std::string text = compact(whole);
    const std::string fresh = path_ + ".new";
    {
        std::ofstream out(fresh, std::ios::trunc | std::ios::binary);
        out << text;
        if (!out.flush()) return;
    }
    ::rename(fresh.c_str(), path_.c_str());
}

}  // namespace edged
