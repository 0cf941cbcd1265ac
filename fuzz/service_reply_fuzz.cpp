// Any bytes as the reply of a service: every call gives one of its codes, keeps its promises about the output
// and leaves no buffer.
#include <cstdint>
#include <cstdlib>
#include <set>
#include <string_view>

#include "corvosetup/log.h"
#include "corvosetup/service.h"
#include "fake_vx.h"
#include "foundation/json.h"

namespace {

void must(bool holds) {
    if (!holds) std::abort();
}

int expected_error(bool& object) {
    Json::Value parsed;
    object = corvo::parse_json(fake_vx::reply, parsed) && parsed.isObject();
    return corvo::j_int(parsed, "error", -3001);
}

int as_command(bool object, int error, bool as_is) {
    if (fake_vx::no_buffer) return -3022;
    if (fake_vx::call_rc != 0) return -3023;
    if (fake_vx::reply.empty()) return -3024;
    if (!object) return -3019;
    return as_is || error == 0 ? error : -3019;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    reopen_setup_logger("/dev/null");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    fake_vx::no_buffer = (data[0] & 0xf) == 1;
    fake_vx::call_rc = (data[0] & 0xf) == 2 ? -1 : 0;
    fake_vx::reply.assign(reinterpret_cast<const char*>(data + 1), size - 1);

    bool object = false;
    const int error = expected_error(object);
    const int as_is = as_command(object, error, true);
    const int strict = as_command(object, error, false);
    must(vxh_update_nexthop_status(1, 0, false) == as_is);
    must(vxh_update_nexthop_status(1, 1, true) == as_is);
    must(vxh_update_next_active_hub("site") == as_is);
    must(vxh_post_ping_failed_log("value", 1) == as_is);
    must(vxh_set_port_cpu("eth0") == strict);
    must(pluvd_exec(1) == strict);

    Json::Value list = "untouched";
    const int listed = vxh_get_available_wan_info(list, "path", 1);
    must(listed == strict || (strict == 0 && listed == -3004));
    must(listed != 0 || list.isArray());
    must(strict == 0 || list == "untouched");

    std::unordered_map<std::string, Json::Value> map{{"old", 1}};
    const int mapped = get_available_private_info(map, "path", 1);
    must(mapped == listed);
    must(mapped == 0 || (map.size() == 1 && map.count("old") == 1));
    if (mapped == 0) must(map.count("") == 0);

    get_device_id();
    get_local_mgmt();
    must(fake_vx::buffers == 0);
    return 0;
}
