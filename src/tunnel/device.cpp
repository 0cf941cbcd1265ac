#include "tunnel/device.h"

#include <net/if.h>

#include "corvosetup/link.h"
#include "corvosetup/utils.h"
#include "foundation/log_line.h"
#include "foundation/result.h"
#include "tunnel/numbering.h"

namespace corvo::tunnel {

namespace {

// All of the device that comes after it exists.
int bring_up(const DeviceSetup& link) {
    const std::string& dev = link.dev;
    if (link.pin_queues) {
        const int result = setup_cpus(dev);
        if (result != kOk) {
            log::error(dev, "setup rps/xps failed, Ret: ", result);
            return result;
        }
    }
    // The tunnel has no link-layer neighbours; it must not look for any.
    int result = write_value("/proc/sys/net/ipv4/neigh/" + dev + "/mcast_solicit", 0);
    if (result != kOk) {
        log::error(dev, "Write mcast_solicit to 0 failed, Ret: ", result);
        return result;
    }
    result = link.address.run();
    if (result != kOk) {
        log::error(link.address.name, ": ", dev, " failed, Ret: ", result);
        return result;
    }
    result = link.set_flag(IFF_UP);
    if (result != kOk) {
        log::error("set_tun_flag() IFF_UP: ", dev, " failed.\n");
        return result;
    }
    if (link.no_multipath) {
        result = link.set_flag(kNoMultipath);
        if (result != kOk) {
            log::error("set_tun_flag() IFF_NOMULTIPATH: ", dev, " failed.\n");
            return result;
        }
    }
    if (link.add_rules) {
        result = link.add_rules();
        if (result != kOk) {
            log::error("setup_tun_rule(): ", dev, " failed.\n");
            return result;
        }
    }
    if (link.add_routes && link.add_routes() != kOk) {
        log::error("presetup_tun_routing(): ", dev, " failed.\n");
    }
    return kOk;
}

}  // namespace

int DeviceSetup::run(int op) const {
    if (op == kDelete) {
        if (ifindex() < 1) {
            log::warning("Tunnel ", dev, " does not exist.\n");
            return kOk;
        }
        if (before_delete) before_delete();
    }
    if (find_local) {
        const int result = find_local();
        if (result != kOk) {
            log::error("Parse local ip failed, Ret: ", result);
            return result;
        }
    }
    int result = fill_record();
    if (result != kOk) {
        log::error("dump2struct(): ", dev, " failed.\n");
        return result;
    }
    result = edit(op);
    if (result != kOk) {
        log::error(edit_name, ": ", dev, " failed.\n");
        return result;
    }
    if (op == kDelete) {
        log::debug("Del tun: ", dev, " done\n");
        return kOk;
    }
    return bring_up(*this);
}

int cached_ifindex(int& cache, const char* dev) {
    if (cache < 1) cache = get_ifindex(dev);
    return cache;
}

int get_flags(int ifindex, unsigned& flags) {
    return ifindex > 0 ? get_dev_flags(ifindex, &flags) : static_cast<int>(kNoInterface);
}
int set_flags(int ifindex, unsigned flags) {
    return ifindex > 0 ? set_dev_flags(ifindex, flags) : static_cast<int>(kNoInterface);
}
int unset_flags(int ifindex, unsigned flags) {
    return ifindex > 0 ? unset_dev_flags(ifindex, flags) : static_cast<int>(kNoInterface);
}

int copy_address(char (&to)[16], std::string& ip) {
    if (check_ip_correctness(ip) != kOk) return kBadAddress;
    copy_text(to, ip);
    return kOk;
}

int assign_ipv4(int ifindex, const char* address) {
    if (ifindex < 1) return kNoInterface;
    std::string text = address;
    if (check_ip_correctness(text) != kOk) return kBadAddress;
    return set_ipv4_addr(ifindex, address);
}

}  // namespace corvo::tunnel
