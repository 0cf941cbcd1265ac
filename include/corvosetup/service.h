// libcorvosetup: calls to the other services of the device.
//
// All go over the device's service-call interface (vx.h): a JSON text to a method of a service, and a JSON
// object back whose "error" is 0 for success. Texts given here (paths, names) are escaped for JSON.
//
// Results, where nothing else is said: 0, or -3022 the call buffer could not be made, -3023 the call failed
// (no such service, time over), -3024 the reply is empty, -3019 the reply is no JSON object. A reply without
// a number in "error" counts as error -3001. What another error gives is said at each function.
//
// Threading: any thread; nothing is shared between calls. A call blocks up to the seconds named with it and
// is not interruptible; the calling thread's cancellation is off meanwhile and then as it was before.
#pragma once

#include <json/value.h>
#include <string>
#include <unordered_map>

#include "corvosetup/export.h"

// "vesta", 5 s. The device's number (0 when the service has none), and whether the device is managed locally
// (true when the service does not say). Every failed step writes an ERROR line and gives 0 and true.
CORVO_API int get_device_id();
CORVO_API bool get_local_mgmt();

// "TarnService", 5 s. The interfaces of one kind as a JSON array; `path` names the document to take them
// from, `comprehensive` is passed through. `out` is replaced as soon as the service answers with success:
// -3004 when that is no array. Another error of the service: -3019, `out` untouched.
CORVO_API int vxh_get_available_wan_info(Json::Value& out, std::string path, int comprehensive);
CORVO_API int vxh_get_available_private_info(Json::Value& out, std::string path, int comprehensive);
CORVO_API int vxh_get_available_rglink_info(Json::Value& out, std::string path, int comprehensive);

// "nm-halor", 30 s. Reports that the next hop of WAN `id` (or of private link "PORT<id>") is in state `stat`.
// An error of the hub manager is returned as it is. -5017 (it does not know the instance): with `stat` 0 the
// manager's monitor is restarted first, which can take 10 s more.
CORVO_API int vxh_update_nexthop_status(unsigned char id, int stat, bool private_link);

// "nm-halor", 30 s. Reports the hub that is used from now on. An error is returned as it is.
CORVO_API int vxh_update_next_active_hub(std::string remote_site);

// "nm-morin-handler", 3 s. Logs message 190 with `value`; `timestamp` in seconds since 1970. An error is
// returned as it is.
CORVO_API int vxh_post_ping_failed_log(std::string value, long timestamp);

// "Corvo_CPU_tune", 5 s. Steers the interrupts of an interface. Any error is -3019.
CORVO_API int vxh_set_port_cpu(std::string ifname);

// "pluvd", 5 s. Passes `flag` to the system services. Any error is -3019.
CORVO_API int pluvd_exec(int flag);

// The lists above as a map from each element's "ifname" to the element. Elements without one are dropped; the
// last one of a name counts. On failure (-3004 included) `out` is left as it is.
CORVO_API int get_available_wan_info(std::unordered_map<std::string, Json::Value>& out, std::string path,
                                     int comprehensive);
CORVO_API int get_available_private_info(std::unordered_map<std::string, Json::Value>& out, std::string path,
                                         int comprehensive);
CORVO_API int get_available_rglink_info(std::unordered_map<std::string, Json::Value>& out, std::string path,
                                        int comprehensive);
