#include "corvosetup/neigh.h"

#include <arpa/inet.h>
#include <linux/neighbour.h>
#include <netlink/addr.h>
#include <netlink/route/neighbour.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <utility>
#include <vector>

#include "corvosetup/log.h"
#include "corvosetup/service.h"
#include "corvosetup/utils.h"
#include "foundation/command.h"
#include "foundation/guard.h"
#include "foundation/log_line.h"
#include "monitor/cycle.h"
#include "monitor/hysteresis.h"
#include "monitor/link_address.h"
#include "monitor/link_report.h"
#include "monitor/neighbour.h"

using namespace corvo;

namespace {

// The states in which the kernel would send to the neighbour (its NUD_VALID).
constexpr int kUsableStates = NUD_PERMANENT | NUD_NOARP | NUD_REACHABLE | NUD_PROBE | NUD_STALE | NUD_DELAY;

// The daemon writes `verbose` while probes run.
bool tracing() {
    return __atomic_load_n(&verbose, __ATOMIC_RELAXED) != 0;
}

// Makes the kernel resolve the gateway: an entry in state PROBE with a broadcast address is one it verifies
// at once.
void add_probe_entry(const std::string& target_ip, const std::string& dev) {
    const std::vector<std::string> argv = {
        "/sbin/ip", "neigh", "add", target_ip, "nud", "probe", "lladdr", "ff:ff:ff:ff:ff:ff", "dev", dev};
    std::string text = argv[0];
    for (std::size_t i = 1; i < argv.size(); ++i) text.append(" ").append(argv[i]);
    if (run_command_quiet(argv) == 0) {
        log::debug("Exec: [", text, "].");
    } else {
        log::error("Exec: [", text, "] failed.");
    }
}

}  // namespace

namespace corvo {

void judge_neighbour(ProcNeigh& probe, const Neighbour& entry) {
    const log::Entry trace(tracing(), "neigh.cpp", "probe_mac_cb");
    if (entry.state == probe.get_neigh_state()) {
        trace.leave_text("unchanged");
        return;
    }
    if ((entry.state & kUsableStates) == 0) {
        probe.set_neigh_state(entry.state);
        probe.set_target_mac("");
    } else if (entry.dst == probe.get_target_ip()) {
        // The state last: an entry in a known state is not looked at again.
        probe.set_target_mac(entry.lladdr);
        probe.set_neigh_state(entry.state);
    }
    trace.leave(entry.state);
}

}  // namespace corvo

void probe_mac_cb(struct nl_object* obj, void* arg) {
    guarded_void([&] {
        if (obj == nullptr || arg == nullptr) return;
        auto* neighbour = reinterpret_cast<rtnl_neigh*>(obj);
        char dst[INET6_ADDRSTRLEN + 8] = {};
        char lladdr[64] = {};
        Neighbour entry;
        entry.state = rtnl_neigh_get_state(neighbour);
        entry.dst = nl_addr2str(rtnl_neigh_get_dst(neighbour), dst, sizeof dst);
        entry.lladdr = nl_addr2str(rtnl_neigh_get_lladdr(neighbour), lladdr, sizeof lladdr);
        judge_neighbour(*static_cast<ProcNeigh*>(arg), entry);
    });
}

ProcNeigh::ProcNeigh(std::string dev, std::string target_ip, unsigned long bandwidth, bool is_wan,
                     unsigned char id)
    : id(id),
      running(false),
      local_mgmt(false),
      is_wan(is_wan),
      dbg(0),
      ifindex(-1),
      status(0),
      neigh_state(0),
      dev(std::move(dev)),
      bandwidth(bandwidth),
      thread(nullptr),
      fail_count(0) {
    INIT_LOG("wmd");
    if (check_ip_correctness(target_ip) != kOk) {
        log::error(this->dev, " has wrong target ip.\n");
        throw static_cast<int>(kBadAddress);
    }
    this->target_ip = std::move(target_ip);
    ifindex = get_ifindex(this->dev.c_str());
    if (ifindex < 1) {
        log::error(this->dev, " get ifindex failed.\n");
        throw static_cast<int>(kNoInterface);
    }
    local_mgmt = get_local_mgmt();
}

ProcNeigh::~ProcNeigh() {
    end_worker(running, thread);
}

int ProcNeigh::start() {
    return guarded([&] {
        const std::lock_guard in_turn(lifecycle);
        if (thread != nullptr) {
            log::error(dev, "'s neigh thread task has been started already.\n");
            return static_cast<int>(kAlreadyStarted);
        }
        return start_worker(running, thread, [this] { thread_task(); });
    });
}

int ProcNeigh::stop() {
    return guarded([&] {
        const std::lock_guard in_turn(lifecycle);
        end_worker(running, thread);
        update_condition(1);
        if (is_wan) {
            flush_wan_routes(dev);
            remove_gateway(dev);
        } else {
            flush_private_routes(dev);
        }
        report_farewell({dev, target_ip, id, is_wan, local_mgmt});
        return static_cast<int>(kOk);
    });
}

int ProcNeigh::reset_bandwidth(unsigned long bw) {
    return guarded([&] {
        {
            std::lock_guard hold(guard);
            bandwidth = bw;
        }
        return replace_gateway({dev, target_ip, id, is_wan, local_mgmt}, bw);
    });
}

Json::Value ProcNeigh::get_state() {
    return guarded_or(Json::Value(), [&] {
        std::lock_guard hold(guard);
        return Json::Value(state);
    });
}

int ProcNeigh::reload_condition() {
    return guarded([&] {
        std::unique_lock hold(guard);
        const int last = status;
        hold.unlock();
        return update_condition(last);
    });
}

int ProcNeigh::show() {
    return guarded([&] { return print_document(get_state(), "Parse Neigh status failed, "); });
}

int ProcNeigh::get_neigh_state() {
    std::lock_guard hold(guard);
    return neigh_state;
}

void ProcNeigh::set_neigh_state(int state) {
    std::lock_guard hold(guard);
    neigh_state = state;
}

std::string ProcNeigh::get_dev() {
    return guarded_or(std::string(), [&] { return dev; });
}

std::string ProcNeigh::get_target_ip() {
    return guarded_or(std::string(), [&] { return target_ip; });
}

std::string ProcNeigh::get_target_mac() {
    return guarded_or(std::string(), [&] {
        std::lock_guard hold(guard);
        return target_mac;
    });
}

void ProcNeigh::set_target_mac(std::string mac) {
    std::lock_guard hold(guard);
    target_mac = std::move(mac);
}

void ProcNeigh::setup_dbg(int level) {
    std::lock_guard hold(guard);
    dbg = level;
}

void ProcNeigh::thread_task() {
    guarded_void([&] {
        log::debug("NEIGH: ", dev, " <", ::getpid(), ">, @", ::gettid());
        run_cycles(running, periods.neigh, [this] { probe(); });
    });
}

int ProcNeigh::prepare() {
    return guarded([&] {
        const log::Entry trace(tracing(), "neigh.cpp", "prepare");
        LinkAddresses found;
        const bool answered = find_link_addresses(dev, found);
        if (!answered) log::error(dev, " get ifaddrs failed.\n");
        std::lock_guard hold(guard);
        if (answered && found.present && found.usable) {
            mac = found.mac;
            if (found.ip) ip = *found.ip;
            return trace.leave(0);
        }
        neigh_state = 0;
        target_mac.clear();
        return trace.leave(1);
    });
}

int ProcNeigh::scan_neigh() {
    return guarded([&] {
        const log::Entry trace(tracing(), "neigh.cpp", "scan_neigh");
        in_addr target{};
        Neighbour entry;
        // Only IPv4 gateways have an entry to look for.
        if (::inet_pton(AF_INET, target_ip.c_str(), &target) != 1) return trace.leave(1);
        const int found = find_neighbour(ifindex, target, entry);
        if (found < 0) return trace.leave(1);
        if (found > 0) {
            judge_neighbour(*this, entry);
        } else if (!get_target_mac().empty()) {
            // Collected or flushed since: what was known of it holds no longer.
            set_target_mac("");
            set_neigh_state(0);
        }
        if (!get_target_mac().empty()) return trace.leave(0);
        if (get_neigh_state() == 0) add_probe_entry(target_ip, dev);
        return trace.leave(1);
    });
}

int ProcNeigh::probe() {
    return guarded([&] {
        const log::Entry trace(tracing(), "neigh.cpp", "probe");
        bool good = prepare() == 0;
        if (good && ip == target_ip) {
            log::trace(dev, "'s ip and target ip are the same, skip monitoring.");
            running = false;
        } else if (good) {
            good = scan_neigh() == 0;
        }

        std::unique_lock hold(guard);
        const int old_status = status;
        const unsigned long weight = bandwidth;
        const Verdict verdict = judge_cycle(good, !state.isNull(), old_status, fail_count);
        fail_count = verdict.fail_count;
        if (verdict.report) status = verdict.status;
        hold.unlock();

        // Without an address conntrack would take the filter for "every entry".
        if (verdict.flush_nat && !ip.empty()) conntrack_flush_wan_nat(ip);
        if (!verdict.settled) log::error(dev, " get neigh failed, count: ", verdict.fail_count);
        if (verdict.report) {
            const WatchedLink link{dev, target_ip, id, is_wan, local_mgmt};
            if (!publish_status(link, weight, old_status, verdict.status)) return trace.leave(verdict.status);
            save_state();
        }
        fail_count = count_after(fail_count);
        return trace.leave(verdict.status);
    });
}

int ProcNeigh::update_condition(int status) {
    return guarded([&] {
        const log::Entry trace(tracing(), "neigh.cpp", "update_condition");
        return trace.leave(write_condition(id, status));
    });
}

int ProcNeigh::save_state() {
    return guarded([&] {
        const log::Entry trace(tracing(), "neigh.cpp", "save_state");
        std::unique_lock hold(guard);
        Json::Value report(Json::objectValue);
        report["neigh_stat"] = neigh_state;
        report["stat"] = status;
        report["mac"] = mac;
        report["ip"] = ip;
        report["target_mac"] = target_mac;
        report["target_ip"] = target_ip;
        report["local_mgmt"] = local_mgmt;
        report["id"] = static_cast<unsigned>(id);
        report["neigh_status"] = neighbour_state_text(neigh_state);
        report["status"] = link_status_text(status);
        Json::Value next(Json::objectValue);
        next[dev] = std::move(report);
        state.swap(next);
        hold.unlock();
        return trace.leave(static_cast<int>(kOk));
    });
}
