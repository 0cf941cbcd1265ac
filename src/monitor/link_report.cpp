#include "monitor/link_report.h"

#include <exception>
#include <iostream>

#include "corvosetup/privatelink.h"
#include "corvosetup/route.h"
#include "corvosetup/service.h"
#include "corvosetup/tun.h"
#include "corvosetup/utils.h"
#include "foundation/json.h"
#include "foundation/log_line.h"
#include "foundation/result.h"

namespace corvo {

namespace {

constexpr int kFlush = 2;  // operation code of the route families
constexpr int kInterfaceDown = 2;
constexpr int kInterfaceUp = 4;
constexpr int kStatusAttempts = 3;

void raise_link(const WatchedLink& link, unsigned long bandwidth) {
    if (add_default_gateway(link.dev, link.target_ip, bandwidth) != kOk)
        log::error("Add default gateway failed, dev: ", link.dev);
    if (pluvd_exec(kInterfaceUp) != kOk) log::error("PLUVD.exec IFUP failed.");
}

void lower_link(const WatchedLink& link) {
    // Not forced: a device whose only link flaps keeps its default route.
    if (del_default_gateway(link.dev, false) != kOk)
        log::error("Delete default gateway failed, dev: ", link.dev);
    if (pluvd_exec(kInterfaceDown) != kOk) log::error("PLUVD.exec IFDOWN failed.");
}

void tell_hub_manager(const WatchedLink& link, bool failed) {
    for (int attempt = 0; attempt < kStatusAttempts; ++attempt) {
        const int result = vxh_update_nexthop_status(link.id, failed, !link.is_wan);
        if (result == kOk) return;
        log::error("update_nexthop_status, ret: ", result);
    }
}

}  // namespace

bool publish_status(const WatchedLink& link, unsigned long bandwidth, int old_status, int status) {
    log::warning("status changed: ", old_status, " to ", status);
    if (!link.is_wan) {
        log::debug("Skip default gateway setup ...");
    } else if (status == 0) {
        raise_link(link, bandwidth);
    } else {
        lower_link(link);
    }
    tell_hub_manager(link, status != 0);
    if (link.local_mgmt || write_condition(link.id, status) == kOk) return true;
    log::error("local_mgmt enabled: ", link.local_mgmt, " , is fail?:  ", status);
    return false;
}

int write_condition(unsigned char id, int status) {
    const std::string path = "/proc/net/nf_condition/PORT" + std::to_string(id);
    const char* value = status == 0 ? "1" : "0";
    if (write_value(path, std::string(value)) != kOk) {
        log::error("Open file: ", path, " failed\n");
        return kNotOpened;
    }
    log::debug("Update condition:  ", value);
    return kOk;
}

void flush_wan_routes(const std::string& dev) {
    if (setup_tun_mptcp_default_route(kFlush, dev) != kOk)
        log::error("Flush mptcp default route failed, dev: ", dev);
}

void flush_private_routes(const std::string& dev) {
    if (setup_private_mptcp_default_route(kFlush, dev) != kOk)
        log::error("Flush private mptcp default route failed, dev: ", dev);
}

void remove_gateway(const std::string& dev) {
    if (del_default_gateway(dev, true) != kOk) log::error("Delete default gateway failed, dev: ", dev);
}

void report_farewell(const WatchedLink& link) {
    vxh_update_nexthop_status(link.id, true, !link.is_wan);
}

int replace_gateway(const WatchedLink& link, unsigned long bandwidth) {
    remove_gateway(link.dev);
    const int result = add_default_gateway(link.dev, link.target_ip, bandwidth);
    if (result != kOk) log::error("Add default gateway failed, dev: ", link.dev);
    return result;
}

int print_document(const Json::Value& document, const char* failure) {
    try {
        std::cout << write_json(document) << std::flush;
    } catch (const std::exception& error) {
        std::cout.clear();  // a stream that has failed takes no text
        std::cout << failure << error.what() << std::endl;
    }
    return kOk;
}

}  // namespace corvo
