#include "corvosetup/ping.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

#include "corvosetup/service.h"
#include "corvosetup/utils.h"
#include "foundation/guard.h"
#include "foundation/json.h"
#include "foundation/log_line.h"
#include "monitor/cycle.h"
#include "monitor/device_name.h"
#include "monitor/link_address.h"
#include "monitor/link_report.h"
#include "nexthop/icmp_echo.h"

using namespace corvo;

ProcPing::ProcPing(std::string dev, std::string target_ip, unsigned long bandwidth, bool is_wan,
                   unsigned char id)
    : id(id),
      running(false),
      dbg(0),
      local_mgmt(false),
      is_wan(is_wan),
      status(0),
      dev(std::move(dev)),
      vlan(0),
      bandwidth(bandwidth),
      thread(nullptr),
      fail_count(0) {
    if (check_ip_correctness(target_ip) != kOk) {
        log::error(this->dev, " has wrong target ip.\n");
        throw static_cast<int>(kBadAddress);
    }
    this->target_ip = std::move(target_ip);
    slave = underlying_device(this->dev);
    // Read with its dot, so it is 0 for every name; the management plane expects the member and that value.
    if (const auto dot = this->dev.find('.'); dot != std::string::npos)
        vlan = static_cast<unsigned short>(text_to_int(this->dev.substr(dot)));
    slave.resize(std::min(slave.find('.'), slave.size()));
    local_mgmt = get_local_mgmt();
}

ProcPing::~ProcPing() {
    end_worker(running, thread);
}

int ProcPing::start() {
    return guarded([&] {
        const std::lock_guard in_turn(lifecycle);
        if (thread != nullptr) {
            log::error(dev, "'s ping thread task has been started already.\n");
            return static_cast<int>(kAlreadyStarted);
        }
        return start_worker(running, thread, [this] { thread_task(); });
    });
}

int ProcPing::stop() {
    return guarded([&] {
        const std::lock_guard in_turn(lifecycle);
        end_worker(running, thread);
        update_condition(1);
        // Point-to-point links leave nothing behind even when they are no WAN.
        flush_wan_routes(dev);
        remove_gateway(dev);
        report_farewell({dev, target_ip, id, is_wan, local_mgmt});
        return static_cast<int>(kOk);
    });
}

int ProcPing::reset_bandwidth(unsigned long bw) {
    return guarded([&] {
        {
            std::lock_guard hold(guard);
            bandwidth = bw;
        }
        return replace_gateway({dev, target_ip, id, is_wan, local_mgmt}, bw);
    });
}

int ProcPing::update_condition(int status) {
    return guarded([&] { return write_condition(id, status); });
}

int ProcPing::reload_condition() {
    return guarded([&] {
        std::unique_lock hold(guard);
        const int last = status;
        hold.unlock();
        return update_condition(last);
    });
}

Json::Value ProcPing::get_state() {
    return guarded_or(Json::Value(), [&] {
        std::lock_guard hold(guard);
        return Json::Value(state);
    });
}

int ProcPing::show() {
    return guarded([&] { return print_document(get_state(), "Parse Ping status failed, "); });
}

void ProcPing::setup_dbg(int level) {
    std::lock_guard hold(guard);
    dbg = level;
}

int ProcPing::prepare() {
    return guarded([&] {
        LinkAddresses found;
        const bool listed = find_link_addresses(dev, found);
        if (found.ip) {
            std::lock_guard hold(guard);
            ip = *found.ip;
        }
        if (listed) return static_cast<int>(kOk);
        log::error(dev, " get ifaddrs failed.\n");
        return static_cast<int>(kFailed);
    });
}

int ProcPing::ping() {
    return guarded([&] {
        std::unique_lock hold(guard);
        const bool tracing = dbg != 0;
        hold.unlock();
        const log::Entry trace(tracing, "ping.cpp", "ping");
        return trace.leave(exchange_echo(target_ip, dev, kLinkProbeEcho));
    });
}

unsigned short ProcPing::checksum(unsigned short* buf, unsigned int len) {
    return internet_checksum(buf, buf != nullptr ? len : 0);
}

void ProcPing::thread_task() {
    guarded_void([&] {
        log::debug("PING Test: ", dev, " <", ::getpid(), ">, @", ::gettid());
        run_cycles(running, periods.ping, [this] { probe(); });
    });
}

int ProcPing::probe() {
    return guarded([&] {
        std::unique_lock hold(guard);
        fail_count = 0;
        const int old_status = status;
        const unsigned long weight = bandwidth;
        if (!state.isNull() && old_status == 0) return static_cast<int>(kOk);
        status = 0;
        hold.unlock();

        const WatchedLink link{dev, target_ip, id, is_wan, local_mgmt};
        if (!publish_status(link, weight, old_status, 0)) return static_cast<int>(kOk);
        save_state();
        // Said once: the link counts as up until stop() says otherwise.
        running = false;
        return static_cast<int>(kOk);
    });
}

int ProcPing::save_state() {
    return guarded([&] {
        std::lock_guard hold(guard);
        Json::Value report(Json::objectValue);
        report["stat"] = status;
        report["ip"] = ip;
        report["target_ip"] = target_ip;
        report["vlan"] = static_cast<int>(vlan);
        report["id"] = static_cast<unsigned>(id);
        Json::Value next(Json::objectValue);
        next[dev] = std::move(report);
        state.swap(next);
        return static_cast<int>(kOk);
    });
}
