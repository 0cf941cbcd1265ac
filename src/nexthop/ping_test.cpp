// The ping next-hop test and the regional link test.
#include "corvosetup/ping_test.h"

#include <unistd.h>

#include <exception>
#include <mutex>

#include "corvosetup/service.h"
#include "foundation/guard.h"
#include "foundation/json.h"
#include "foundation/log_line.h"
#include "foundation/result.h"
#include "foundation/worker.h"
#include "nexthop/icmp_echo.h"
#include "nexthop/object_lock.h"
#include "nexthop/site.h"

using corvo::Guards;
using corvo::object_lock;
using corvo::Worker;
namespace log = corvo::log;

// After the log, before anything of the daemon's.
__attribute__((init_priority(111))) ProcPingTest ping_test;

namespace corvo {

namespace {

constexpr PortNames kPortNames = PortNames::kBeginning;
constexpr PortAddress kPortAddress = PortAddress::kUntranslated;

int traced_ping(const std::string& target, const std::string& device) {
    const log::Entry entry{"ping_test.cpp", "ping"};
    return entry.leave(exchange_echo(target, device, kHubTestEcho));
}

// The two ends of a regional link as the site document has them.
struct RegionalLink {
    std::string name;
    std::string device;
    std::string remote_site;
    std::string target;
};

int fail(int code, const char* text) {
    log::error(text);
    return code;
}

// Fills `link` from the entry of `id`; the code says which piece is missing.
int read_link(const Json::Value& sites, const std::string& id, RegionalLink& link) {
    const Json::Value& own = site_member(sites, id);
    if (!j_has(own, link.name.c_str())) {
        log::error("No regional link: ", link.name, ".");
        return kNoInterface;
    }
    const Json::Value& near = site_member(own, link.name);
    link.remote_site = j_str(near, "REMOTE_SITE");
    if (link.remote_site.empty()) return fail(kEmptyInput, "Empty remote site.");
    const std::string far = j_str(near, "REMOTE_RGLINK");
    if (far.empty()) return fail(kEmptyRemoteLink, "Empty remote rglink.");
    if (j_str(near, "RGLINK_ADDR4").empty()) return fail(kBadAddress, "Empty source ip.");
    link.target = j_str(site_member(site_member(sites, link.remote_site), far), "RGLINK_ADDR4");
    if (link.target.empty()) return fail(kEmptyTarget, "Empty target ip.");
    return kOk;
}

}  // namespace

// What the exported members do, behind their guards and locks.
struct PingTestRun {
    ProcPingTest& test;

    int start() {
        if (test.thread != nullptr) {
            log::error("ProcPingTest thread task has been started already.\n");
            return kAlreadyStarted;
        }
        test.thread = Worker::start([&test = test] { test.thread_task(); });
        return kOk;
    }

    int stop() {
        Worker::stop(test.thread);
        return 0;
    }

    bool ping(const SitePort& port) {
        result = traced_ping(port.address, "");
        return result == kOk;
    }

    // Whether the current hub answers at one of its ports.
    bool keeps_hub(const Json::Value& sites, const EdgeSite& edge) {
        for (const auto& port : hub_ports(sites, edge.hub, kPortNames, kPortAddress)) {
            const bool answered = ping(port);
            if (stopped()) return false;
            if (!answered) continue;
            log::debug("Ping current hub: ", edge.hub, "'s ", port.name, " @", port.address, " success.");
            return true;
        }
        return false;
    }

    void take_hub(const std::string& hub, const SitePort& port) {
        log::debug("Ping site: ", hub, "'s ", port.name, " @", port.address, " success.");
        log::debug("Update active hub to ", hub);
        const int updated = vxh_update_next_active_hub(hub);
        if (updated != kOk) log::error("vxh nm-halor.UpdateActiveHUB failed, ret: ", updated);
    }

    // Whether one of the candidate's ports answers; it is the active hub then.
    bool takes(const Json::Value& sites, const std::string& hub) {
        for (const auto& port : hub_ports(sites, hub, kPortNames, kPortAddress)) {
            const bool answered = ping(port);
            if (stopped()) return false;
            if (answered) {
                take_hub(hub, port);
                return true;
            }
            log::error("ProcPingTest ping site: ", hub, "'s ip: ", port.address, " failed, ret: ", result);
        }
        return false;
    }

    int probe() {
        Json::Value sites;
        EdgeSite edge;
        if (const int loaded = load_site(sites); loaded != kOk) return loaded;
        if (const int read = read_edge_site(sites, test.dev_id, edge); read != kOk) return read;
        if (keeps_hub(sites, edge)) return kOk;
        for (const auto& hub : rank_hubs(sites, edge, kPortNames, true)) {
            if (stopped()) return result;
            if (takes(sites, hub)) return kOk;
        }
        if (!stopped()) log::error("Can't find next active hop for ", edge.id);
        return result;
    }

    void run() {
        test.dev_id = std::to_string(get_device_id());
        if (test.dev_id == "0") {
            log::error("Local Management Mode ...");
            return;
        }
        log::debug("PING TEST dev_id: ", test.dev_id, " <", ::getpid(), ">, @", ::gettid());
        probe();
    }

    int probe_link(int n) {
        RegionalLink link;
        link.name = "RGLINK" + std::to_string(n);
        link.device = "swdev" + std::to_string(n);
        test.dev_id = std::to_string(get_device_id());
        Json::Value sites;
        if (const int loaded = load_site(sites); loaded != kOk) return loaded;
        if (const int read = read_link(sites, test.dev_id, link); read != kOk) return read;
        result = traced_ping(link.target, link.device);
        if (result == kOk) {
            log::debug("RGLINK: ", link.name, " ping remote site: ", link.remote_site, "'s ", link.target,
                       " success.");
        } else {
            log::error("RGLINK: ", link.name, " dev: ", link.device, " ping remote site: ", link.remote_site,
                       "'s ", link.target, " failed.");
        }
        return result;
    }

    // A run that is being ended reports nothing any more.
    static bool stopped() { return Worker::current_stop().requested(); }

    int result = kFailed;
};

}  // namespace corvo

using corvo::PingTestRun;

ProcPingTest::ProcPingTest() : thread(nullptr) {}

ProcPingTest::~ProcPingTest() {
    Worker::stop(thread);
}

int ProcPingTest::start_nexthop_ptest() {
    return corvo::guarded([&] {
        std::lock_guard hold(object_lock(this, Guards::kLifecycle));
        return PingTestRun{*this}.start();
    });
}

int ProcPingTest::stop_nexthop_ptest() {
    return corvo::guarded([&] {
        std::lock_guard hold(object_lock(this, Guards::kLifecycle));
        return PingTestRun{*this}.stop();
    });
}

int ProcPingTest::ping(std::string& ip, std::string dev) {
    return corvo::guarded([&] { return corvo::traced_ping(ip, dev); });
}

unsigned short ProcPingTest::checksum(unsigned short* buf, unsigned int len) {
    return corvo::internet_checksum(buf, buf != nullptr ? len : 0);
}

void ProcPingTest::thread_task() {
    corvo::guarded_void([&] {
        try {
            PingTestRun{*this}.run();
        } catch (const std::exception& failure) {
            log::error("ProcPingTest probe_nexthop failed, ", failure.what());
        }
    });
}

int ProcPingTest::probe_nexthop() {
    return corvo::guarded([&] { return PingTestRun{*this}.probe(); });
}

int ProcPingTest::probe_rglink(int n) {
    return corvo::guarded([&] { return PingTestRun{*this}.probe_link(n); });
}

int Start_nexthop_ping_test() {
    return corvo::guarded([&] {
        log::ensure_file();
        const log::Entry entry{"ping_test.cpp", "Start_nexthop_ping_test"};
        std::lock_guard hold(object_lock(&ping_test, Guards::kLifecycle));
        PingTestRun run{ping_test};
        try {
            run.stop();
            return entry.leave(run.start());
        } catch (const std::exception& failure) {
            log::error("ProcPingTest start failed, ", failure.what());
            return entry.leave(int{corvo::kFailed});
        }
    });
}

int Stop_nexthop_ping_test() {
    return corvo::guarded([&] {
        log::ensure_file();
        const log::Entry entry{"ping_test.cpp", "Stop_nexthop_ping_test"};
        return entry.leave(ping_test.stop_nexthop_ptest());
    });
}

int Start_rglink_ping_test(int n) {
    return corvo::guarded([&] {
        log::ensure_file();
        const log::Entry entry{"ping_test.cpp", "Start_rglink_ping_test"};
        try {
            // An object of its own: the global's device id belongs to its run.
            ProcPingTest test;
            return entry.leave(PingTestRun{test}.probe_link(n));
        } catch (const std::exception& failure) {
            log::error("ProcPingTest rglink ping test failed, ", failure.what());
            return entry.leave(int{corvo::kFailed});
        }
    });
}
