#include "netlink/tc_session.h"

#include <linux/pkt_sched.h>
#include <net/if.h>
#include <netlink/utils.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <cstring>

#include "foundation/result.h"
#include "netlink/tc_handle.h"

namespace corvo::tc {
namespace {

constexpr std::uint32_t kMarkMask = 0x3c0;
constexpr std::uint16_t kMarkPriority = 100;
constexpr std::uint32_t kIngressHandle = 0xffff0000;
constexpr std::size_t kLargestRequest = 2304;  // an HTB class with its two tables

// The index-only parents that can hold a qdisc. Anything else under ffff: is no parent, though the kernel
// would take it for the ingress one.
bool can_hold_qdisc(std::uint32_t parent) {
    return TC_H_MAJ(parent) != kIngressHandle || parent == TC_H_ROOT || parent == TC_H_INGRESS;
}

bool fits_kind(const char* kind) {
    return kind && *kind && std::strlen(kind) < IFNAMSIZ;
}

}  // namespace

Session::Session(const char* device) : has_name_(device != nullptr), name_(device ? device : "") {
    message_.reserve(kLargestRequest);
}

bool Session::look_up(const char* name, Device& device) const {
    // The kernel cuts a name at a colon before it looks it up.
    if (!name || std::strchr(name, ':')) return false;
    device.index = static_cast<int>(socket_->link_index(name));
    if (device.index == 0) return false;
    ifreq request{};
    std::strcpy(request.ifr_name, name);  // shorter than IFNAMSIZ, or it had no index
    if (::ioctl(socket_->fd(), SIOCGIFMTU, &request) == 0 && request.ifr_mtu > 0) {
        device.mtu = static_cast<std::uint32_t>(request.ifr_mtu);
    }
    device.timer_hz = static_cast<std::uint32_t>(std::max(1, nl_get_psched_hz()));
    return true;
}

int Session::prepare() {
    if (!socket_) {
        const int result = nl::RawSocket::open_as_result(socket_);
        if (result < 0) return result;
    }
    if (has_name_ && place_.device.index == 0) {
        Device device;
        if (!look_up(name_.c_str(), device)) return kRefused;
        if (device.index < 1) return kNoInterface;
        place_.device = device;
    }
    place_.parent = 0;
    place_.handle = 0;
    return kOk;
}

int Session::prepare(const char* parent) {
    const int result = prepare();
    if (result < 0 || !parent) return result;
    if (parse_handle(parent, place_.parent) != HandleStatus::kOk) return kRefused;
    return place_.parent == 0 ? kInvalidArgument : kOk;
}

int Session::send() {
    // Index 0 is "any device" in some requests.
    if (place_.device.index == 0 || message_.overflow()) return kRefused;
    return socket_->transact(message_).done() ? kOk : kRefused;
}

int Session::add_qdisc(const char* parent, const char* handle, const char* kind, const tc_options* options) {
    if (const int result = prepare(parent); result < 0) return result;
    // Callers rely on a handle that cannot be read being passed over.
    if (handle && !parse_or_generate(handle, place_.parent, place_.handle)) return kOk;
    if (!fits_kind(kind)) return kRefused;
    add_qdisc_message(message_, place_, kind, options ? options->defcls : 0);
    return send();
}

int Session::clean_qdisc(const char* parent) {
    if (!has_name_) return kNullArgument;  // it would be every device's
    if (const int result = prepare(parent); result < 0) return result;
    const auto remove = [&](std::uint32_t from) {
        place_.parent = from;
        delete_qdisc_message(message_, place_);
        send();
    };
    if (!parent) {
        remove(TC_H_INGRESS);
        remove(TC_H_ROOT);
    } else if (can_hold_qdisc(place_.parent)) {
        remove(place_.parent);  // a parent holds one qdisc at most
    }
    return kOk;
}

int Session::add_class(const char* parent, const char* class_id, const char* kind,
                       const tc_options* options) {
    if (const int result = prepare(parent); result < 0) return result;
    if (class_id && !parse_or_generate(class_id, place_.parent, place_.handle)) return kOk;
    const std::string_view name = kind ? kind : "";
    if (name == "htb") {
        if (!options) return kRefused;  // a class without a rate
        add_htb_class_message(message_, place_, *options);
    } else if (name == "nsshtb") {
        add_plain_class_message(message_, place_, kind);
    } else {
        return kInvalidArgument;
    }
    const std::uint32_t parent_major = TC_H_MAJ(place_.parent);
    const std::uint32_t own_major = TC_H_MAJ(place_.handle);
    if (parent_major && own_major && parent_major != own_major) return kRefused;
    return send();
}

int Session::add_fw_filter(const char* parent, const char* handle, const char* class_id) {
    if (const int result = prepare(parent); result < 0) return result;
    std::uint32_t target = 0;
    if (!handle || !parse_or_generate(handle, place_.parent, place_.handle)) return kInvalidArgument;
    if (!class_id || !parse_or_generate(class_id, place_.parent, target)) return kInvalidArgument;
    add_fw_message(message_, place_, target, kMarkMask, kMarkPriority);
    return send();
}

int Session::add_u32_filter(const char* parent, const char* class_id, const U32QoSObj* match) {
    if (!match) return kNullArgument;
    if (const int result = prepare(parent); result < 0) return result;
    std::uint32_t target = 0;
    if (class_id && !parse_or_generate(class_id, place_.parent, target)) return kInvalidArgument;
    add_u32_message(message_, place_, class_id ? &target : nullptr, *match);
    return send();
}

int Session::add_ingress() {
    if (const int result = prepare(); result < 0) return result;
    place_.parent = TC_H_INGRESS;
    place_.handle = kIngressHandle;
    add_qdisc_message(message_, place_, "ingress", 0);
    return send();
}

int Session::add_ingress_filters(const char* redirect, unsigned short protocol) {
    if (const int result = prepare(); result < 0) return result;
    add_bypass_message(message_, place_.device, protocol);
    send();  // tunnels that are encrypted pass unredirected where this works
    Device target;
    if (!look_up(redirect, target)) return kRefused;
    add_redirect_message(message_, place_.device, protocol, target.index);
    return send();
}

bool Session::for_each_status(const std::function<void(const Report&, bool)>& add) {
    if (prepare() < 0) return false;
    const int index = place_.device.index;
    std::vector<Report> reports;
    const auto collect = [&](const nl::MessageView& message) {
        Report report;
        if (read_report(message, report) && report.device_index == index)
            reports.push_back(std::move(report));
    };
    const auto dump = [&] {
        return nl::consistent_dump(
                   *socket_, message_, [&] { reports.clear(); }, collect)
            .done();
    };
    dump_qdiscs_message(message_);
    if (!dump()) return false;
    for (const Report& report : reports) {
        if (report.parent == TC_H_ROOT) add(report, false);
    }
    dump_classes_message(message_, index);
    if (!dump()) return false;
    for (const Report& report : reports) add(report, true);
    return true;
}

}  // namespace corvo::tc
