#include "faults.h"

#include <sys/stat.h>

#include <algorithm>
#include <array>

#include "documents.h"
#include "foundation/json.h"

namespace standin {

namespace {

constexpr std::array<std::string_view, 12> kKinds = {"none",        "error", "reply", "garbage",
                                                     "wrong_types", "empty", "huge",  "half",
                                                     "close",       "hang",  "die",   "kill"};

std::optional<Fault> take_from(std::map<std::string, Fault, std::less<>>& faults, std::string_view target) {
    const auto found = faults.find(target);
    if (found == faults.end()) return {};
    Fault& fault = found->second;
    if (fault.skip > 0) {
        --fault.skip;
        return {};
    }
    if (fault.times == 0) return {};
    if (fault.times > 0) --fault.times;
    return fault;
}

}  // namespace

std::optional<Fault> Fault::parse(const Json::Value& spec) {
    Fault fault;
    fault.kind = corvo::j_str(spec, "kind", "none");
    if (!spec.isObject() || std::find(kKinds.begin(), kKinds.end(), fault.kind) == kKinds.end()) return {};
    fault.spec = spec;
    fault.delay = std::chrono::milliseconds(std::max(0, corvo::j_int(spec, "delay_ms")));
    fault.skip = std::max(0, corvo::j_int(spec, "skip"));
    fault.times = std::max(-1, corvo::j_int(spec, "times", -1));
    return fault;
}

void Faults::load(const Json::Value& document) {
    from_document_.clear();
    if (!document.isObject()) return;
    for (const std::string& target : document.getMemberNames()) {
        if (auto fault = Fault::parse(corvo::j_member(document, target))) from_document_[target] = *fault;
    }
}

void Faults::refresh(const std::string& file) {
    if (file.empty()) return;
    struct stat now {};
    if (::stat(file.c_str(), &now) != 0) now.st_size = -1;
    const bool same = size_ == now.st_size && inode_ == now.st_ino && changed_.tv_sec == now.st_mtim.tv_sec &&
                      changed_.tv_nsec == now.st_mtim.tv_nsec;
    if (same) return;
    size_ = now.st_size;
    inode_ = now.st_ino;
    changed_ = now.st_mtim;
    std::string text;
    Json::Value document;
    if (now.st_size >= 0 && read_file(file, text)) corvo::parse_json(text, document);
    load(document);
}

bool Faults::set(const std::string& target, const Json::Value& spec) {
    auto fault = Fault::parse(spec);
    if (!fault || target.empty()) return false;
    by_hand_[target] = *fault;
    return true;
}

void Faults::clear(const std::string& target) {
    if (target.empty()) {
        by_hand_.clear();
        from_document_.clear();
    } else {
        by_hand_.erase(target);
        from_document_.erase(target);
    }
}

std::optional<Fault> Faults::take(std::string_view service, std::string_view method) {
    const std::string of_service(service);
    const std::string targets[] = {of_service + "." + std::string(method), of_service + ".*", "*"};
    for (Map* faults : {&by_hand_, &from_document_}) {
        for (const std::string& target : targets) {
            if (auto fault = take_from(*faults, target)) return fault;
        }
    }
    return {};
}

}  // namespace standin
