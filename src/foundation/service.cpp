#include "corvosetup/service.h"

#include "foundation/guard.h"
#include "foundation/json.h"
#include "foundation/log_line.h"
#include "foundation/service_call.h"

namespace {

using corvo::ServiceCall;
using corvo::ServiceMethod;

constexpr ServiceMethod kGetDevid{"vesta", "get_devid", 5, true};
constexpr ServiceMethod kGetLocalMgmt{"vesta", "get_local_mgmt", 5, true};
constexpr ServiceMethod kWanInfo{"TarnService", "Get_available_wan_info", 5, false};
constexpr ServiceMethod kPrivateInfo{"TarnService", "Get_available_private_info", 5, false};
constexpr ServiceMethod kRglinkInfo{"TarnService", "Get_available_rglink_info", 5, false};
constexpr ServiceMethod kPrivateNexthop{"nm-halor", "Update_private_nexthop_status", 30, false};
constexpr ServiceMethod kWanNexthop{"nm-halor", "UpdateWanNexthopStatus", 30, false};
constexpr ServiceMethod kRestartMonitor{"nm-halor", "RestartMonitor", 10, false};
constexpr ServiceMethod kActiveHub{"nm-halor", "UpdateActiveHUB", 30, false};
constexpr ServiceMethod kPostLog{"nm-morin-handler", "PostLog", 3, false};
constexpr ServiceMethod kSetupCpu{"Corvo_CPU_tune", "Setup_CPU", 5, false};
constexpr ServiceMethod kPluvdExec{"pluvd", "exec", 5, false};

// The hub manager does not know the instance that it is told about.
constexpr int kUnknownInstance = -5017;
// The log forwarder's number for "hub not reachable".
constexpr long kPingFailedMessage = 190;

// The whole of a call: `write` puts the request into the buffer; the verdict of a readable reply is left in
// `error`.
template <class Write>
int run(ServiceCall& call, Write&& write, Json::Value& reply, int& error) {
    if (!call.has_buffer()) return corvo::kNoCallBuffer;
    write(call.io());
    if (const int rc = call.exchange(reply); rc != corvo::kOk) return rc;
    error = ServiceCall::error_of(reply);
    if (error != 0) call.report_error(error);
    return corvo::kOk;
}

// What a verdict other than 0 makes of the result.
enum class Verdict { kAsBadReply, kAsItIs };

template <class Write>
int command(const ServiceMethod& method, Verdict verdict, Write&& write) {
    ServiceCall call(method);
    Json::Value reply;
    int error = 0;
    if (const int rc = run(call, write, reply, error); rc != corvo::kOk) return rc;
    return error != 0 && verdict == Verdict::kAsBadReply ? +corvo::kBadReply : error;
}

// A query without a request text whose reply's "data" is a number. False on every failure, a datum of
// another type included; a missing datum is `fallback`.
bool query_number(const ServiceMethod& method, int fallback, int& number) {
    ServiceCall call(method);
    Json::Value reply;
    int error = 0;
    if (run(
            call, [](void*) {}, reply, error) != corvo::kOk ||
        error != 0)
        return false;
    const Json::Value& data = corvo::j_member(reply, "data");
    if (!data.isConvertibleTo(Json::intValue)) {
        call.report_unreadable();
        return false;
    }
    number = corvo::as_int(data, fallback);
    return true;
}

int query_interfaces(const ServiceMethod& method, Json::Value& out, const std::string& path,
                     int comprehensive) {
    ServiceCall call(method);
    Json::Value reply;
    int error = 0;
    const auto write = [&](void* io) {
        vx_io_printf(io, "{\"path\": \"%s\", \"comprehensive\": \"%d\"}", corvo::json_escape(path).c_str(),
                     comprehensive);
    };
    if (const int rc = run(call, write, reply, error); rc != corvo::kOk) return rc;
    if (error != 0) return corvo::kBadReply;
    // What came is handed over even when it is no list, as callers show it in their own messages.
    out = reply.get("data", Json::Value(Json::arrayValue));
    return out.isArray() ? corvo::kOk : corvo::kInvalidArgument;
}

int map_interfaces(const ServiceMethod& method, std::unordered_map<std::string, Json::Value>& out,
                   const std::string& path, int comprehensive) {
    Json::Value list;
    if (const int rc = query_interfaces(method, list, path, comprehensive); rc != corvo::kOk) return rc;
    out.clear();
    for (const Json::Value& element : list) {
        std::string ifname = corvo::j_str(element, "ifname");
        if (!ifname.empty()) out[std::move(ifname)] = element;
    }
    return corvo::kOk;
}

}  // namespace

int get_device_id() {
    return corvo::guarded_or(0, [] {
        int id = 0;
        if (!query_number(kGetDevid, 0, id)) return 0;
        corvo::log::debug("Get device ID: ", id);
        return id;
    });
}

bool get_local_mgmt() {
    return corvo::guarded_or(true, [] {
        int number = 0;
        if (!query_number(kGetLocalMgmt, 1, number)) return true;
        const bool local = number != 0;
        corvo::log::debug("Get local_mgmt: ", local);
        return local;
    });
}

int vxh_get_available_wan_info(Json::Value& out, std::string path, int comprehensive) {
    return corvo::guarded([&] { return query_interfaces(kWanInfo, out, path, comprehensive); });
}

int vxh_get_available_private_info(Json::Value& out, std::string path, int comprehensive) {
    return corvo::guarded([&] { return query_interfaces(kPrivateInfo, out, path, comprehensive); });
}

int vxh_get_available_rglink_info(Json::Value& out, std::string path, int comprehensive) {
    return corvo::guarded([&] { return query_interfaces(kRglinkInfo, out, path, comprehensive); });
}

int vxh_update_nexthop_status(unsigned char id, int stat, bool private_link) {
    return corvo::guarded([&]() -> int {
        ServiceCall call(private_link ? kPrivateNexthop : kWanNexthop);
        Json::Value reply;
        int error = 0;
        const auto write = [&](void* io) {
            if (private_link)
                vx_io_printf(io, "{\"portname\":\"PORT%d\",\"stat\":%d}", int{id}, stat);
            else
                vx_io_printf(io, "{\"id\":%d,\"stat\":%d}", int{id}, stat);
        };
        if (const int rc = run(call, write, reply, error); rc != corvo::kOk) return rc;
        if (error == kUnknownInstance) {
            if (stat == 0) {
                corvo::log::error("Instance is not existed; Do nm-halor.RestartMonitor.\n");
                call.follow_up(kRestartMonitor);
            } else {
                corvo::log::warning("interface has been removed.\n");
            }
        }
        return error;
    });
}

int vxh_update_next_active_hub(std::string remote_site) {
    return corvo::guarded([&] {
        return command(kActiveHub, Verdict::kAsItIs, [&](void* io) {
            vx_io_printf(io, "{\"remote_site\":\"%s\"}", corvo::json_escape(remote_site).c_str());
        });
    });
}

int vxh_post_ping_failed_log(std::string value, long timestamp) {
    return corvo::guarded([&] {
        return command(kPostLog, Verdict::kAsItIs, [&](void* io) {
            vx_io_printf(io, "{\"msg_id\":%ld,\"timestamp\":%ld,\"values\":[\"%s\"]}", kPingFailedMessage,
                         timestamp, corvo::json_escape(value).c_str());
        });
    });
}

int vxh_set_port_cpu(std::string ifname) {
    return corvo::guarded([&] {
        return command(kSetupCpu, Verdict::kAsBadReply, [&](void* io) {
            vx_io_printf(io, "{\"ifname\": \"%s\"}", corvo::json_escape(ifname).c_str());
        });
    });
}

int pluvd_exec(int flag) {
    return corvo::guarded([&] {
        return command(kPluvdExec, Verdict::kAsBadReply, [&](void* io) {
            vx_io_printf(io, "{\"flag\": \"%s\"}", std::to_string(flag).c_str());
        });
    });
}

int get_available_wan_info(std::unordered_map<std::string, Json::Value>& out, std::string path,
                           int comprehensive) {
    return corvo::guarded([&] { return map_interfaces(kWanInfo, out, path, comprehensive); });
}

int get_available_private_info(std::unordered_map<std::string, Json::Value>& out, std::string path,
                               int comprehensive) {
    return corvo::guarded([&] { return map_interfaces(kPrivateInfo, out, path, comprehensive); });
}

int get_available_rglink_info(std::unordered_map<std::string, Json::Value>& out, std::string path,
                              int comprehensive) {
    return corvo::guarded([&] { return map_interfaces(kRglinkInfo, out, path, comprehensive); });
}
