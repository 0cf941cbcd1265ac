// One shaped interface: from percentages to an HTB tree on its egress.

#include "corvosetup/qos.h"

#include <chrono>

#include "corvosetup/tc.h"
#include "corvosetup/utils.h"
#include "foundation/guard.h"
#include "foundation/log_line.h"
#include "foundation/worker.h"
#include "netlink/tc_session.h"
#include "qos/document_ahead.h"
#include "qos/qos_rates.h"
#include "qos/shaper.h"

using corvo::guarded;
namespace log_ = corvo::log;
namespace qos = corvo::qos;

namespace {

constexpr const char* kFile = "qos.cpp";
constexpr const char* kShapingDocument = "/etc/networkmanagement/qos.json";

constexpr unsigned long kUnratedCeiling = 125000;  // 1 Mbit/s
constexpr unsigned kManagementPriority = 1;
constexpr unsigned kManagementMark = 0x3c0;
constexpr unsigned kMarkStep = 0x40;
constexpr int kFilterAttempts = 3;
constexpr std::chrono::seconds kFilterPause{1};

// The options record of a class. Its rates are 32 bits wide: what is above 2^32 bytes per second wraps.
tc_options options_of(unsigned long rate, unsigned long ceiling, unsigned priority) {
    return {0, static_cast<uint32_t>(rate), static_cast<uint32_t>(ceiling), priority};
}

// Class k is "1:<k>0", all digits hexadecimal.
std::string class_id(std::size_t position) {
    return "1:" + qos::hex(static_cast<unsigned>(position)) + "0";
}

// The leaf of class k carries the number of class k + 1; the fleet's collectors tell leaves by it.
std::string leaf_handle(std::size_t position) {
    return "1" + qos::hex(static_cast<unsigned>(position) + 1) + "0:";
}

std::string mark_of(std::size_t position) {
    return ":" + qos::hex(position == 1 ? kManagementMark : static_cast<unsigned>(position - 1) * kMarkStep);
}

// One object of the tree; a failure names it by its position in decimal, as the log has always had it.
int object_failed(const char* what, std::size_t position, int result) {
    return qos::object_failed(what, std::to_string(position) + "0", result);
}

}  // namespace

ProcQoS::ProcQoS(std::string dev_name, unsigned long rx_rate, unsigned long tx_rate, std::string path_name)
    : dev(std::move(dev_name)),
      in_ceil(rx_rate / 8),
      out_ceil(tx_rate ? tx_rate / 8 : kUnratedCeiling),
      hidden_prio(0),
      path(std::move(path_name)),
      def_class(qos::kUsualDefaultClass) {
    const int number = qos::ifb_number(dev);
    ifb = "ifb" + std::to_string(number);
    log_::debug("dev: ", dev, ", idx: ", number, ", ifb: ", ifb);
}

int ProcQoS::check_iface() {
    return guarded([&]() -> int {
        const log_::Entry entry{kFile, "check_iface"};
        return entry.leave(qos::check_device(dev));
    });
}

bool ProcQoS::check_vlan_bridge_iface() {
    return corvo::guarded_or(false, [&] {
        const log_::Entry entry{kFile, "check_vlan_bridge_iface"};
        return entry.leave(false);
    });
}

int ProcQoS::rescan_config() {
    return guarded([&]() -> int {
        const log_::Entry entry{kFile, "rescan_config"};
        classes.push_back({out_ceil / qos::kFullPercent, kManagementPriority, 0});

        const auto document = qos::DocumentAhead::load(kShapingDocument);
        if (!document) return entry.leave(int{corvo::kNotOpened});
        auto [status, percents] = qos::read_percentages(*document);
        if (status == qos::Percentages::Status::kMissing) {
            log_::error("No QOS/RATE value.\n");
            return entry.leave(int{corvo::kMissingSection});
        }
        if (status == qos::Percentages::Status::kMalformed) {
            log_::error("Bad RATE format, RATE should be JSON array.\n");
            return entry.leave(int{corvo::kInvalidArgument});
        }

        const auto sum = qos::sum_of(percents);
        if (sum > qos::kFullPercent) {
            log_::error("QoS rate sum is larger than 100.\n");
            return entry.leave(int{corvo::kFailed});
        }
        if (sum == qos::kFullPercent) {
            // The management class needs its percent: the largest one gives it.
            const int index = qos::index_of_largest(percents);
            if (index < 0) {
                log_::error("Reserve MGMT QoS failed.\n");
                return entry.leave(int{corvo::kFailed});
            }
            unsigned& largest = percents[static_cast<std::size_t>(index)];
            log_::debug("Get reserved MGMT QoS from [", index + 1, "], rate: ", largest);
            --largest;
        } else {
            log_::debug("Get reserved MGMT QoS from remaining bandwidth, left rate: ",
                        qos::kFullPercent - sum);
        }

        unsigned position = kManagementPriority;
        for (const unsigned percent : percents) {
            if (percent == 0) break;  // an unused slot ends the list
            classes.push_back(qos::class_of(out_ceil, percent, ++position));
        }
        def_class = qos::default_class(*document, classes.size());
        log_::debug("default class: ", def_class);
        return entry.leave(int{corvo::kOk});
    });
}

int ProcQoS::check_qos() {
    return guarded([&]() -> int {
        const log_::Entry entry{kFile, "check_qos"};
        const std::int32_t remainder = qos::remainder_of(out_ceil, classes);
        if (remainder == 0) return entry.leave(int{corvo::kOk});

        unsigned long sum = 0;
        for (const QoSObj& entry_class : classes) sum += entry_class.rate;
        int result = corvo::kOk;
        if (remainder < 0) {
            log_::error("QoS rate sum is larger than ceiling rate.\n");
            result = corvo::kFailed;
        } else {
            log_::error("QoS rate sum is smaller than ceiling rate.\n");
            log_::debug("Add the remains into a hidden Priority.\n");
            hidden_prio = static_cast<int>(classes.size()) + 1;
            classes.push_back({static_cast<unsigned long>(remainder), static_cast<unsigned>(hidden_prio), 0});
        }
        log_::error("Egress Ceiling: ", out_ceil);
        log_::error("Egress Sum: ", sum);
        log_::error("Egress Diff: ", remainder);
        return entry.leave(result);
    });
}

int ProcQoS::show() {
    return guarded([&]() -> int {
        const log_::Entry entry{kFile, "show"};
        log_::debug("====================\n");
        log_::debug("Dev: [", dev, "]");
        log_::debug("Ingress Ceil: ", qos::shown_megabits(in_ceil), "mbit");
        log_::debug("Egress Ceil: ", qos::shown_megabits(out_ceil), "mbit");
        for (const QoSObj& entry_class : classes) {
            log_::debug("Prio: ", entry_class.prio, ", Rate: ", qos::shown_megabits(entry_class.rate),
                        "mbit");
        }
        log_::debug("====================\n");
        return entry.leave(int{corvo::kOk});
    });
}

int ProcQoS::setup_qos() {
    return guarded([&]() -> int {
        const log_::Entry entry{kFile, "setup_qos"};
        corvo::tc::Session tree(dev.c_str());
        const std::size_t count = classes.size();

        // Unmarked traffic goes to the last class, whatever DEFAULT_CLASS says.
        tc_options root{};
        root.defcls = static_cast<uint32_t>(16 * count);
        if (const int result = tree.add_qdisc("root", "1:", "htb", &root); result < 0) {
            log_::error("Setup Root failed, Ret: ", result);
            return entry.leave(result);
        }
        const tc_options whole = options_of(out_ceil, out_ceil, 0);
        if (const int result = tree.add_class("1:", "1:1", "htb", &whole); result < 0) {
            return entry.leave(object_failed("class", 1, result));
        }
        for (std::size_t k = 1; k <= count; ++k) {
            const QoSObj& wanted = classes[k - 1];
            const tc_options options = options_of(wanted.rate, out_ceil, wanted.prio);
            const int result = tree.add_class("1:1", class_id(k).c_str(), "htb", &options);
            if (result < 0) return entry.leave(object_failed("class", k, result));
        }
        for (std::size_t k = 1; k <= count; ++k) {
            const int result = tree.add_qdisc(class_id(k).c_str(), leaf_handle(k).c_str(), "fq", nullptr);
            if (result < 0) return entry.leave(object_failed("qdisc", k, result));
        }
        for (std::size_t k = 1; k <= count; ++k) {
            if (static_cast<int>(k) == hidden_prio) continue;
            const int result = tree.add_fw_filter("1:", mark_of(k).c_str(), class_id(k).c_str());
            if (result < 0) return entry.leave(object_failed("filter", k, result));
        }
        return entry.leave(int{corvo::kOk});
    });
}

int ProcQoS::setup_default_qos() {
    return guarded([&]() -> int {
        const log_::Entry entry{kFile, "setup_default_qos"};
        return entry.leave(int{corvo::kOk});
    });
}

int ProcQoS::start() {
    return guarded([&]() -> int {
        const log_::Entry entry{kFile, "start"};
        if (check_iface() < 0) {
            log_::warning("No iface: ", dev);
            return entry.leave(int{corvo::kOk});
        }
        if (check_vlan_bridge_iface()) {
            log_::warning("Skip vlan/bridge interface's qos setup.\n");
            return entry.leave(int{corvo::kOk});
        }
        if (const int result = rescan_config(); result < 0) {
            log_::error("Rescan config error.\n");
            return entry.leave(result);
        }
        if (const int result = check_qos(); result < 0) {
            log_::error("Check QoS error.\n");
            return entry.leave(result);
        }
        show();
        int result = setup_qos();
        if (result < 0) log_::error("Setup QoS error.\n");  // the ingress side is worth having all the same
        if (in_ceil == 0) return entry.leave(result);

        if (result = setup_qdisc_ingress(dev.c_str(), ifb.c_str(), qos::kIpv4); result < 0) {
            log_::error("Setup Root Ingress failed, Ret: ", result);
        }
        for (int attempt = 0; attempt < kFilterAttempts; ++attempt) {
            result = setup_qdisc_ingress_filter(dev.c_str(), ifb.c_str(), qos::kIpv4);
            if (result == 0) break;
            log_::error("Setup Ingress Filter failed, Ret: ", result);
            corvo::Worker::current_stop().wait_for(kFilterPause);
        }
        result = setup_ingress_limit();
        if (result != 0) log_::error("Setup ifb: ", ifb, " egress failed, Ret: ", result);
        return entry.leave(result);
    });
}

int ProcQoS::stop() {
    return guarded([&]() -> int {
        const log_::Entry entry{kFile, "stop"};
        corvo::tc::Session device(dev.c_str());
        device.clean_qdisc("root");
        device.clean_qdisc("ingress");
        return entry.leave(int{corvo::kOk});
    });
}

int ProcQoS::restart() {
    return guarded([&]() -> int {
        const log_::Entry entry{kFile, "restart"};
        std::optional<qos::DocumentAhead> ahead;
        if (get_ifindex(dev.c_str()) > 0) ahead.emplace(kShapingDocument);
        int result = stop();
        if (result == 0) result = start();
        return entry.leave(result);
    });
}
