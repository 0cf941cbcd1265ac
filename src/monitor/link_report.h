// What a change of a watched link sets in motion, once for both kinds of probe.
//
// Who may include this: src/monitor only. Nothing here takes a lock of the probe's; all of it runs on the
// calling thread and can take as long as the services' limits. Errors are logged here.
#pragma once

#include <json/value.h>

#include <string>

namespace corvo {

struct WatchedLink {
    std::string dev;
    std::string target_ip;
    unsigned char id;
    bool is_wan;
    bool local_mgmt;
};

// Tells everybody the link's new status (0 up, 1 down): gateway and interface of a WAN link, hub manager,
// condition file unless in local management. False: the condition file could not be written, and the report
// counts as not made.
bool publish_status(const WatchedLink& link, unsigned long bandwidth, int old_status, int status);

// The condition file of WAN `id`: "1" for status 0, "0" otherwise. 0 or -3016.
int write_condition(unsigned char id, int status);

// The parts of a link's farewell.
void flush_wan_routes(const std::string& dev);
void flush_private_routes(const std::string& dev);
void remove_gateway(const std::string& dev);
void report_farewell(const WatchedLink& link);

// Removes the gateway and adds it with the new weight; the code of the adding.
int replace_gateway(const WatchedLink& link, unsigned long bandwidth);

// Writes `document` to standard output; `failure` and the reason if that throws. 0.
int print_document(const Json::Value& document, const char* failure);

}  // namespace corvo
