#include "corvosetup/tun_base.h"

#include <sys/sysinfo.h>

#include "corvosetup/service.h"
#include "foundation/guard.h"
#include "foundation/json.h"
#include "foundation/log_line.h"
#include "foundation/text.h"
#include "tunnel/device.h"

using corvo::guarded;

TunBase::TunBase(std::string prefix, std::string slave, Json::Value& info, unsigned int queue)
    : dev{}, local{}, remote{}, queue(0), ttl(0), id(0), ifindex(0), device_id(0), prio(0), slave(slave) {
    std::string tun_addr = corvo::j_str(info, "tun_addr");
    if (slave.empty()) return;
    device_id = get_device_id();
    if (device_id == 0) return;

    id = corvo::j_int(info, "id");
    corvo::copy_text(dev, prefix + std::to_string(id));
    // The text stays even when it is no address: assigning it later fails and leaves the device down.
    corvo::copy_text(local, tun_addr);
    corvo::copy_text(remote, "0.0.0.0");
    prio = corvo::j_int(info, "prio");
    set_local(tun_addr);

    if (queue != 0) {
        this->queue = queue;
        corvo::log::debug("Assigned queue num: ", queue);
    } else {
        this->queue = static_cast<unsigned>(::get_nprocs());
    }
    corvo::log::debug("SLAVE: ", slave, ", DEV: ", dev, ", ID: ", id, ", DEV_IDX: ", device_id,
                      ", PRIO: ", prio, ", LOCAL: ", local, ", QUEUE: ", this->queue);
}

std::string TunBase::get_dev() {
    return corvo::guarded_or(std::string(), [&] { return std::string(dev); });
}

int TunBase::set_local(std::string& ip) {
    return guarded([&] { return corvo::tunnel::copy_address(local, ip); });
}

int TunBase::obtain_ifindex() {
    return corvo::tunnel::cached_ifindex(ifindex, dev);
}

int TunBase::get_tun_flag(unsigned int& flags) {
    return corvo::tunnel::get_flags(obtain_ifindex(), flags);
}

int TunBase::set_tun_flag(unsigned int flags) {
    return corvo::tunnel::set_flags(obtain_ifindex(), flags);
}

int TunBase::unset_tun_flag(unsigned int flags) {
    return corvo::tunnel::unset_flags(obtain_ifindex(), flags);
}
