// One shaped LAN device: classes per host group, sorted into by u32 matches.

#include "corvosetup/lan_qos.h"

#include "foundation/guard.h"
#include "foundation/log_line.h"
#include "netlink/tc_session.h"
#include "qos/qos_rates.h"
#include "qos/shaper.h"

using corvo::guarded;
namespace log_ = corvo::log;

namespace {

constexpr const char* kFile = "lan_qos.cpp";

}  // namespace

ProcLanQoS::ProcLanQoS(std::string& dev_name, std::vector<LanQosCls>& class_list,
                       std::vector<U32QoSObj>& rule_list, std::string& redirect_dev,
                       unsigned short link_protocol)
    : dev(dev_name), classes(class_list), rules(rule_list), redirect(redirect_dev), protocol(link_protocol) {}

int ProcLanQoS::check_iface() {
    return guarded([&]() -> int {
        const log_::Entry entry{kFile, "check_iface"};
        return entry.leave(corvo::qos::check_device(dev));
    });
}

int ProcLanQoS::setup_qos() {
    return guarded([&]() -> int {
        const log_::Entry entry{kFile, "setup_qos"};
        corvo::tc::Session tree(dev.c_str());
        const tc_options root{};  // default class 0: what no rule names is not shaped
        if (const int result = tree.add_qdisc("root", "1:", "htb", &root); result < 0) {
            log_::error("Setup Root failed, Ret: ", result);
            return entry.leave(result);
        }
        for (const LanQosCls& group : classes) {
            const std::string number = corvo::qos::hex(group.prio);
            const auto rate = static_cast<uint32_t>(group.rate);
            const tc_options options{0, rate, rate, group.prio};
            const int result = tree.add_class("1:", ("1:" + number).c_str(), "htb", &options);
            if (result < 0) return entry.leave(corvo::qos::object_failed("class", number, result));
        }
        for (const LanQosCls& group : classes) {
            const std::string number = corvo::qos::hex(group.prio);
            const int result =
                tree.add_qdisc(("1:" + number).c_str(), (number + "0:").c_str(), "fq", nullptr);
            if (result < 0) return entry.leave(corvo::qos::object_failed("qdisc", number, result));
        }
        for (const U32QoSObj& rule : rules) {
            const std::string number = corvo::qos::hex(rule.prio);
            const int result = tree.add_u32_filter("1:", ("1:" + number).c_str(), &rule);
            if (result < 0) return entry.leave(corvo::qos::object_failed("filter", number, result));
        }
        if (redirect.empty()) return entry.leave(int{corvo::kOk});

        if (const int result = tree.add_ingress(); result < 0) {
            log_::error("Setup Root Ingress failed, Ret: ", result);
            return entry.leave(result);
        }
        // What comes from the LAN leaves through the redirect device, where the uplink classes are.
        const int result = tree.add_ingress_filters(redirect.c_str(), protocol);
        if (result < 0) log_::error("Setup Ingress Filter failed, Ret: ", result);
        return entry.leave(result);
    });
}

int ProcLanQoS::setup_default_qos() {
    return guarded([&]() -> int {
        const log_::Entry entry{kFile, "setup_default_qos"};
        return entry.leave(int{corvo::kOk});
    });
}

int ProcLanQoS::start() {
    return guarded([&]() -> int {
        const log_::Entry entry{kFile, "start"};
        if (const int result = check_iface(); result < 0) {
            log_::error("No iface: ", dev);
            return entry.leave(result);
        }
        if ((classes.empty() || rules.empty()) && redirect.empty()) {
            log_::error("No QoS object or Redirection to set.\n");
            return entry.leave(setup_default_qos());
        }
        const int result = setup_qos();
        if (result < 0) log_::error("Setup QoS error.\n");
        return entry.leave(result);
    });
}

int ProcLanQoS::stop() {
    return guarded([&]() -> int {
        const log_::Entry entry{kFile, "stop"};
        log_::debug("Clean ", dev, "'s Qdisc.\n");
        corvo::tc::Session device(dev.c_str());
        device.clean_qdisc("root");
        device.clean_qdisc("ingress");
        return entry.leave(int{corvo::kOk});
    });
}

int ProcLanQoS::restart() {
    return guarded([&]() -> int {
        const log_::Entry entry{kFile, "restart"};
        stop();
        return entry.leave(start());
    });
}
