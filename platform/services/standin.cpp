#include "standin.h"

#include <time.h>

#include <algorithm>

#include "foundation/json.h"
#include "foundation/result.h"
#include "wire.h"

namespace standin {

namespace {

using corvo::compact_json;
using corvo::j_has;
using corvo::j_int;
using corvo::j_str;

constexpr std::size_t kJournalledReply = 64U << 10U;  // a longer reply is recorded by its size

std::int64_t microseconds(clockid_t clock) {
    timespec now{};
    ::clock_gettime(clock, &now);
    return std::int64_t{now.tv_sec} * 1000000 + now.tv_nsec / 1000;
}

Json::Value error(int code) {
    Json::Value out(Json::objectValue);
    out["error"] = code;
    return out;
}

Json::Value success(Json::Value data) {
    Json::Value out = error(0);
    out["data"] = std::move(data);
    return out;
}

bool whole_number(const Json::Value& request, const char* key, long low, long high) {
    const Json::Value& value = corvo::j_member(request, key);
    return value.isInt() && value.asInt() >= low && value.asInt() <= high;
}

// Some callers send their numbers as quoted texts.
bool quoted_number(const Json::Value& request, const char* key, int& out) {
    const Json::Value& value = corvo::j_member(request, key);
    if (!value.isString() && !value.isInt()) return false;
    const std::string text = value.asString();
    out = corvo::text_to_int(text);
    return std::to_string(out) == text;
}

std::string huge_frame(std::size_t size) {
    std::string frame = vx::wire::reply_head(vx::wire::Status::kOk, size);
    frame.append(size, 'x');
    return frame;
}

std::string json_of_size(std::size_t size) {
    const std::string front = R"({"error":0,"data":")";
    const std::string back = R"("})";
    return front + std::string(size - std::min(size, front.size() + back.size()), 'x') + back;
}

}  // namespace

Standin::Standin(Options options) : options_(std::move(options)), documents_(options_.documents) {
    if (options_.replies.empty()) options_.replies = options_.documents + "/replies";
    if (!options_.journal.empty()) journal_.open(options_.journal);
}

const std::map<std::string, std::vector<std::string>>& Standin::catalogue() {
    static const std::map<std::string, std::vector<std::string>> services = {
        {"vesta", {"read_json", "get_devid", "get_local_mgmt"}},
        {"TarnService",
         {"Get_available_wan_info", "Get_available_private_info", "Get_available_rglink_info"}},
        {"nm-halor",
         {"UpdateWanNexthopStatus", "Update_private_nexthop_status", "UpdateActiveHUB", "RestartMonitor"}},
        {"nm-morin-handler", {"PostLog"}},
        {"pluvd", {"exec"}},
        {"Corvo_CPU_tune", {"Setup_CPU"}},
    };
    return services;
}

Json::Value Standin::read_json(const Json::Value& request, std::string& text) {
    if (!corvo::j_member(request, "path").isString()) return error(corvo::kInvalidArgument);
    int code = 0;
    const auto document = documents_.load(documents_.locate(j_str(request, "path"), false), code);
    if (!document) return error(code);
    // The document may be large; it is passed on as the text that it already is.
    text = R"({"data":)" + document->text + R"(,"error":0})";
    return {};
}

Json::Value Standin::device_query(bool id) {
    int code = 0;
    const auto document = documents_.load(documents_.directory() + "/device_info.json", code);
    if (!document) return error(code);
    return success(id ? device_id(document->root) : int{local_management(document->root)});
}

Json::Value Standin::links(LinkKind kind, const Json::Value& request) {
    int comprehensive = 0;
    if (!corvo::j_member(request, "path").isString() ||
        !quoted_number(request, "comprehensive", comprehensive)) {
        return error(corvo::kInvalidArgument);
    }
    int code = 0;
    const auto document = documents_.load(documents_.locate(j_str(request, "path"), true), code);
    if (!document) return error(code);
    const LiveLookup live = options_.live ? LiveLookup(kernel_addresses) : LiveLookup();
    return success(link_elements(document->root, kind, comprehensive != 0, live));
}

Json::Value Standin::hub_status(const char* table, const std::string& key, const Json::Value& request) {
    Json::Value& link = state_["hub"][table][key];
    link["stat"] = j_int(request, "stat");
    link["reports"] = link.get("reports", 0).asInt() + 1;
    return error(0);
}

Json::Value Standin::proper(const vx::Call& call, const Json::Value& request, std::string& text) {
    const std::string_view method = call.method;
    if (call.service == "vesta") {
        if (method == "read_json") return read_json(request, text);
        return device_query(method == "get_devid");
    }
    if (call.service == "TarnService") {
        if (method == "Get_available_wan_info") return links(LinkKind::kWan, request);
        if (method == "Get_available_private_info") return links(LinkKind::kPrivate, request);
        return links(LinkKind::kRegional, request);
    }
    const Json::Value refused = error(corvo::kInvalidArgument);
    if (call.service == "nm-halor") {
        if (method == "UpdateWanNexthopStatus") {
            if (!whole_number(request, "id", 0, 255) || !whole_number(request, "stat", -1000, 1000)) {
                return refused;
            }
            return hub_status("wan", j_str(request, "id"), request);
        }
        if (method == "Update_private_nexthop_status") {
            const std::string port = j_str(request, "portname");
            if (!port.starts_with("PORT") || !whole_number(request, "stat", -1000, 1000)) return refused;
            return hub_status("private", port, request);
        }
        if (method == "UpdateActiveHUB") {
            if (!corvo::j_member(request, "remote_site").isString()) return refused;
            state_["hub"]["active"] = j_str(request, "remote_site");
            return error(0);
        }
        state_["hub"]["restarts"] = state_["hub"].get("restarts", 0).asInt() + 1;
        return error(0);
    }
    if (call.service == "nm-morin-handler") {
        const bool good = corvo::j_member(request, "msg_id").isInt64() &&
                          corvo::j_member(request, "timestamp").isInt64() &&
                          corvo::j_member(request, "values").isArray();
        if (!good) return refused;
        state_["log"]["last"] = request;
        state_["log"]["posts"] = state_["log"].get("posts", 0).asInt() + 1;
        return error(0);
    }
    if (call.service == "pluvd") {
        int flag = 0;
        if (!quoted_number(request, "flag", flag)) return refused;
        state_["pluvd"]["last"] = flag;
        return error(0);
    }
    if (!corvo::j_member(request, "ifname").isString()) return refused;
    state_["cpu"][j_str(request, "ifname")] = state_["cpu"].get(j_str(request, "ifname"), 0).asInt() + 1;
    return error(0);
}

bool Standin::verbatim(const vx::Call& call, std::string& text) {
    const std::string target = std::string(call.service) + "." + std::string(call.method);
    if (const auto set = set_replies_.find(target); set != set_replies_.end()) {
        text = set->second;
        return true;
    }
    return read_file(options_.replies + "/" + target + ".json", text);
}

vx::Reply Standin::call(const vx::Call& call) {
    const std::int64_t begun = microseconds(CLOCK_MONOTONIC);
    Json::Value request;
    const bool parsed = corvo::parse_json(call.payload, request);
    faults_.refresh(options_.faults);
    const auto fault = faults_.take(call.service, call.method);

    std::string text;
    if (!verbatim(call, text)) {
        const Json::Value reply = proper(call, request, text);
        if (text.empty()) text = compact_json(reply);
    }
    vx::Reply reply = fault ? misbehave(*fault, call, std::move(text)) : vx::Reply::text(std::move(text));
    record(call, request, parsed, reply.payload, fault ? fault->kind : std::string(), begun,
           microseconds(CLOCK_MONOTONIC) - begun);
    if (fault && fault->kind == "kill" && on_kill) on_kill();
    if (fault && fault->kind == "die" && on_crash) on_crash(std::string(call.service));
    return reply;
}

vx::Reply Standin::misbehave(const Fault& fault, const vx::Call&, std::string text) {
    using Ending = vx::Reply::Ending;
    vx::Reply reply = vx::Reply::text(std::move(text));
    reply.delay = fault.delay;
    const std::string& kind = fault.kind;
    if (kind == "error") reply.payload = compact_json(error(j_int(fault.spec, "value", corvo::kFailed)));
    if (kind == "reply") {
        reply.payload = j_has(fault.spec, "text") ? j_str(fault.spec, "text")
                                                  : compact_json(corvo::j_member(fault.spec, "reply"));
    }
    if (kind == "garbage") reply.payload = std::string("\x01\xff{{]not json\0,", 15);
    if (kind == "wrong_types") reply.payload = R"({"data":{"unexpected":[1,"two",null]},"error":0})";
    if (kind == "empty") reply.payload.clear();
    if (kind == "huge") {
        const auto size = static_cast<std::size_t>(std::max(0, j_int(fault.spec, "size")));
        const bool fits = size != 0 && size <= vx::wire::kMaxPayload;
        reply.payload = fits ? json_of_size(size) : huge_frame(vx::wire::kMaxPayload + 1);
        if (!fits) reply.ending = Ending::kRaw;
    }
    if (kind == "half") reply.ending = Ending::kHalf;
    if (kind == "close" || kind == "die" || kind == "kill") reply.ending = Ending::kClose;
    if (kind == "hang") reply.ending = Ending::kHang;
    return reply;
}

void Standin::record(const vx::Call& call, const Json::Value& request, bool parsed, const std::string& reply,
                     const std::string& fault, std::int64_t mono_us, std::int64_t duration_us) {
    Json::Value entry(Json::objectValue);
    entry["time"] = static_cast<double>(microseconds(CLOCK_REALTIME)) / 1e6;
    entry["mono_us"] = Json::Int64(mono_us);
    entry["duration_us"] = Json::Int64(duration_us);
    entry["service"] = std::string(call.service);
    entry["method"] = std::string(call.method);
    entry["request"] = request;
    if (!parsed && !call.payload.empty()) entry["request_text"] = std::string(call.payload);
    Json::Value answered;
    if (reply.size() > kJournalledReply) {
        entry["reply_size"] = Json::UInt64(reply.size());
    } else if (corvo::parse_json(reply, answered)) {
        entry["reply"] = std::move(answered);
    } else {
        entry["reply_text"] = reply;
    }
    if (!fault.empty()) entry["fault"] = fault;
    journal_.add(std::move(entry));
}

vx::Reply Standin::control(const vx::Call& call) {
    Json::Value request;
    corvo::parse_json(call.payload, request);
    const std::string_view method = call.method;
    const std::string target = j_str(request, "target");
    Json::Value out = error(0);
    const auto checked = [&out](bool good) {
        if (!good) out = error(corvo::kInvalidArgument);
    };
    if (method == "set_fault") {
        checked(faults_.set(target, request));
    } else if (method == "clear_faults") {
        faults_.clear(target);
    } else if (method == "set") {
        checked(!target.empty() && (j_has(request, "reply") || j_has(request, "text")));
        if (out["error"] == 0) {
            set_replies_[target] = j_has(request, "text") ? j_str(request, "text")
                                                          : compact_json(corvo::j_member(request, "reply"));
        }
    } else if (method == "unset") {
        target.empty() ? set_replies_.clear() : static_cast<void>(set_replies_.erase(target));
    } else if (method == "journal") {
        out = success(journal_.after(corvo::j_uint64(request, "since")));
    } else if (method == "clear_journal") {
        journal_.clear();
    } else if (method == "state") {
        out = success(state_);
    } else if (method == "crash") {
        checked(on_crash && on_crash(j_str(request, "service")));
    } else if (method == "revive") {
        checked(on_revive && on_revive(j_str(request, "service")));
    } else if (method != "ping") {
        return vx::Reply::refused();
    }
    return vx::Reply::text(compact_json(out));
}

void Standin::serve(vx::Server& server, const std::vector<std::string>& names, bool with_control) {
    for (const auto& [service, methods] : catalogue()) {
        if (!names.empty() && std::find(names.begin(), names.end(), service) == names.end()) continue;
        for (const std::string& method : methods) {
            server.handle(service, method, [this](const vx::Call& request) { return call(request); });
        }
    }
    if (with_control) {
        server.handle("control", "*", [this](const vx::Call& request) { return control(request); });
    }
    on_crash = [&server](const std::string& service) { return server.crash(service); };
    on_revive = [&server](const std::string& service) { return server.revive(service); };
}

}  // namespace standin
