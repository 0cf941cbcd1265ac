#include "netns/monitor/in_process_services.h"

#include <algorithm>

namespace corvo::test {

namespace {

const std::vector<std::pair<std::string, std::vector<std::string>>> kCatalogue = {
    {"vesta", {"read_json", "get_devid", "get_local_mgmt"}},
    {"TarnService", {"Get_available_wan_info", "Get_available_private_info", "Get_available_rglink_info"}},
    {"nm-halor",
     {"UpdateWanNexthopStatus", "Update_private_nexthop_status", "UpdateActiveHUB", "RestartMonitor"}},
    {"pluvd", {"exec"}},
};

std::string healthy(const std::string& target) {
    if (target == "vesta.get_devid") return R"({"error":0,"data":11})";
    if (target == "vesta.get_local_mgmt") return R"({"error":0,"data":0})";
    if (target.starts_with("TarnService.")) return R"({"error":0,"data":[]})";
    return R"({"error":0})";
}

}  // namespace

InProcessServices::InProcessServices() {
    for (const auto& [service, methods] : kCatalogue) {
        for (const auto& method : methods)
            server_.handle(service, method, [this](const vx::Call& call) { return serve(call); });
    }
    server_.open();
    thread_ = std::thread([this] { server_.run(stop_.fd()); });
}

InProcessServices::~InProcessServices() {
    stop_.request();
    thread_.join();
}

vx::Reply InProcessServices::serve(const vx::Call& call) {
    const std::string target = std::string(call.service) + "." + std::string(call.method);
    Answer answer;
    {
        std::lock_guard hold(lock_);
        calls_.push_back({target, std::string(call.payload), std::chrono::steady_clock::now()});
        if (const auto found = answers_.find(target); found != answers_.end()) answer = found->second;
    }
    return answer ? answer() : vx::Reply::text(healthy(target));
}

void InProcessServices::answer(const std::string& target, Answer answer) {
    std::lock_guard hold(lock_);
    answers_[target] = std::move(answer);
}

void InProcessServices::answer(const std::string& target, const std::string& text) {
    answer(target, [text] { return vx::Reply::text(text); });
}

void InProcessServices::fail(const std::string& target, int error) {
    answer(target, "{\"error\":" + std::to_string(error) + "}");
}

void InProcessServices::recover(const std::string& target) {
    std::lock_guard hold(lock_);
    answers_.erase(target);
}

void InProcessServices::set_local_mgmt(bool on) {
    answer("vesta.get_local_mgmt", on ? R"({"error":0,"data":1})" : R"({"error":0,"data":0})");
}

std::vector<InProcessCall> InProcessServices::calls() const {
    std::lock_guard hold(lock_);
    return calls_;
}

std::vector<std::string> InProcessServices::texts() const {
    std::vector<std::string> texts;
    for (const auto& call : calls()) {
        if (!call.target.starts_with("vesta.") && !call.target.starts_with("TarnService."))
            texts.push_back(call.text());
    }
    return texts;
}

int InProcessServices::count(const std::string& text) const {
    const auto all = texts();
    return static_cast<int>(std::count(all.begin(), all.end(), text));
}

void InProcessServices::forget() {
    std::lock_guard hold(lock_);
    calls_.clear();
}

}  // namespace corvo::test
