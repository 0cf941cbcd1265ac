#include "corvosetup/wm_obj.h"

#include <exception>
#include <memory>
#include <utility>

#include "foundation/guard.h"
#include "foundation/json.h"
#include "foundation/log_line.h"
#include "monitor/device_name.h"

using namespace corvo;

namespace {

// Runs `call` of a member if there is one. Every member gets its turn, and `result` is the last one's.
template <class Member, class Call>
void hand_on(Member* member, const std::string& dev, const char* what, int& result, Call&& call) {
    if (member == nullptr) return;
    result = call(*member);
    if (result != kOk) log::error("Dev: ", dev, what, result);
}

}  // namespace

WmObj::WmObj(std::string dev, std::string target_ip, unsigned long bandwidth, std::string type,
             unsigned char id)
    : is_ppp(is_point_to_point(dev)),
      dev(std::move(dev)),
      slave(underlying_device(this->dev)),
      type(std::move(type)),
      neigh(nullptr),
      ping(nullptr),
      qdm(nullptr),
      udp(nullptr) {
    // The destructor does not run when a member's constructor throws.
    const bool is_wan = this->type == "WAN";
    std::unique_ptr<ProcNeigh> new_neigh;
    std::unique_ptr<ProcPing> new_ping;
    if (is_ppp) {
        new_ping = std::make_unique<ProcPing>(this->dev, target_ip, bandwidth, is_wan, id);
    } else {
        new_neigh = std::make_unique<ProcNeigh>(this->dev, target_ip, bandwidth, is_wan, id);
    }
    auto new_qdm = std::make_unique<ProcQdm>(slave);
    auto new_udp = std::make_unique<ProcUdp>(this->dev);
    neigh = new_neigh.release();
    ping = new_ping.release();
    qdm = new_qdm.release();
    udp = new_udp.release();
}

WmObj::~WmObj() {
    delete neigh;
    delete ping;
    delete qdm;
    delete udp;
}

std::string WmObj::get_dev() {
    return guarded_or(std::string(), [&] { return dev; });
}

std::string WmObj::get_slave() {
    return guarded_or(std::string(), [&] { return slave; });
}

std::string WmObj::get_type() {
    return guarded_or(std::string(), [&] { return type; });
}

int WmObj::start() {
    return guarded([&] {
        const auto call = [](auto& member) { return member.start(); };
        int result = kOk;
        // "arp" is what the neighbour probe is called in the fleet's log watchers.
        hand_on(neigh, dev, "'s arp start failed, Ret: ", result, call);
        hand_on(ping, dev, "'s ping start failed, Ret: ", result, call);
        hand_on(qdm, dev, "'s qdm start failed, Ret: ", result, call);
        hand_on(udp, dev, "'s udp start failed, Ret: ", result, call);
        return result;
    });
}

int WmObj::stop() {
    return guarded([&] {
        const auto call = [](auto& member) { return member.stop(); };
        int result = kOk;
        hand_on(neigh, dev, "'s arp stop failed, Ret: ", result, call);
        hand_on(ping, dev, "'s ping stop failed, Ret: ", result, call);
        hand_on(qdm, dev, "'s qdm stop failed, Ret: ", result, call);
        hand_on(udp, dev, "'s udp stop failed, Ret: ", result, call);
        return result;
    });
}

void WmObj::setup_dbg(int level) {
    if (neigh != nullptr) neigh->setup_dbg(level);
    if (ping != nullptr) ping->setup_dbg(level);
    if (qdm != nullptr) qdm->setup_dbg(level);
    if (udp != nullptr) udp->setup_dbg(level);
}

int WmObj::reset_bandwidth(unsigned long bw) {
    int result = kOk;
    if (neigh != nullptr) result = neigh->reset_bandwidth(bw);
    if (ping != nullptr) result = ping->reset_bandwidth(bw);
    return result;
}

int WmObj::show() {
    if (neigh != nullptr) neigh->show();
    if (ping != nullptr) ping->show();
    if (qdm != nullptr) qdm->show(true);
    return kOk;
}

Json::Value WmObj::get_state() {
    return guarded_or(Json::Value(), [&] {
        Json::Value report(Json::objectValue);
        report["TYPE"] = type;
        if (neigh != nullptr) report["ARP"] = j_member(neigh->get_state(), dev);
        if (ping != nullptr) report["PING"] = j_member(ping->get_state(), dev);
        if (qdm != nullptr) report["QDM"] = j_member(qdm->get_state(), slave);
        Json::Value state(Json::objectValue);
        state[dev] = std::move(report);
        return state;
    });
}

int WmObj::reload_nf_condition() {
    if (neigh != nullptr) return neigh->reload_condition();
    if (ping != nullptr) return ping->reload_condition();
    return kOk;
}

int Create_wm_obj(WmObj** out, std::string dev, std::string target_ip, unsigned long bandwidth,
                  std::string type, unsigned char id) {
    return guarded_with(
        [&] {
            log::ensure_file();
            const log::Entry trace("wm_obj.cpp", "Create_wm_obj");
            if (out == nullptr) return trace.leave(static_cast<int>(kNullArgument));
            if (*out != nullptr) {
                log::error("PTR is not null\n");
                return trace.leave(static_cast<int>(kInvalidArgument));
            }
            try {
                auto made = std::make_unique<WmObj>(std::move(dev), std::move(target_ip), bandwidth,
                                                    std::move(type), id);
                trace.leave(static_cast<int>(kOk));
                *out = made.release();  // last: who is told of a failure gets no object
                return static_cast<int>(kOk);
            } catch (int code) {
                log::error("New WmObj failed, ", code, "\n");
            } catch (const std::exception& error) {
                log::error("New WmObj failed, ", error.what(), "\n");
            }
            return trace.leave(static_cast<int>(kAllocFailed));
        },
        [](int) { return static_cast<int>(kAllocFailed); });
}
