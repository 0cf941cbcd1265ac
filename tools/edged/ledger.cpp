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
        root_ = found["steps"];
    }
}

const Json::Value& Ledger::record(const std::string& key) const {
    const Json::Value* found = root_.find(key.data(), key.data() + key.size());
    return found != nullptr ? *found : kNull;
}

bool Ledger::fits(const std::string& key, const Json::Value& applied, int ifindex) const {
    const Json::Value& found = record(key);
    return found.isObject() && found["ifindex"] == ifindex && found["applied"] == applied;
}

void Ledger::put(const std::string& key, const Json::Value& applied, int ifindex) {
    root_[key]["applied"] = applied;
    root_[key]["ifindex"] = ifindex;
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
