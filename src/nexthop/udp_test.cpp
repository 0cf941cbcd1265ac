// The UDP next-hop test.
#include <unistd.h>

#include <ctime>
#include <exception>
#include <memory>
#include <mutex>

#include "corvosetup/service.h"
#include "corvosetup/udp.h"
#include "foundation/guard.h"
#include "foundation/json.h"
#include "foundation/log_line.h"
#include "foundation/result.h"
#include "foundation/worker.h"
#include "nexthop/object_lock.h"
#include "nexthop/site.h"

using corvo::Guards;
using corvo::object_lock;
using corvo::Worker;
namespace log = corvo::log;

// After the log and the request template, before anything of the daemon's.
__attribute__((init_priority(110))) ProcUdpTest udp_test;

namespace corvo {

namespace {

constexpr PortNames kPortNames = PortNames::kContaining;
constexpr PortAddress kPortAddress = PortAddress::kRealOrWan;

}  // namespace

// What the exported members do, behind their guards and locks.
struct UdpTestRun {
    ProcUdpTest& test;

    int start(bool check_connections) {
        if (test.thread != nullptr) return kAlreadyStarted;
        test.check_connections = check_connections;
        test.thread = Worker::start([&test = test] { test.thread_task(); });
        return kOk;
    }

    int stop() {
        Worker::stop(test.thread);
        return 0;
    }

    bool ask(const std::string& hub, SitePort& port) {
        result = test.udp_request(text_to_int(hub), port.address, test.check_connections);
        return result == kOk;
    }

    // Whether the current hub answers at one of its ports.
    bool keeps_hub(const Json::Value& sites, const EdgeSite& edge) {
        const std::string group = j_str(site_member(sites, edge.hub), "GROUP_ID");
        if (group != edge.group) {
            log::error("GROUP_ID is not same! self: ", edge.group, "; hub: ", group);
            return false;
        }
        for (auto& port : hub_ports(sites, edge.hub, kPortNames, kPortAddress)) {
            const bool answered = ask(edge.hub, port);
            if (stopped()) return false;
            if (answered) {
                log::debug("Udp requesting current hub: ", edge.hub, "'s ", port.name, "@", port.address,
                           " success.");
                return true;
            }
            log::error("Udp requesting current hub: ", edge.hub, "'s ", port.name, "@", port.address,
                       " failed.");
        }
        return false;
    }

    void take_hub(const std::string& hub, const SitePort& port) {
        log::debug("Udp requesting site: ", hub, "'s ", port.name, "@", port.address, " success.");
        log::debug("Update active hub to ", hub);
        const int updated = vxh_update_next_active_hub(hub);
        if (updated != kOk) log::error("vxh nm-halor.UpdateActiveHUB failed, ret: ", updated);
    }

    void report_failure(const std::string& hub, const SitePort& port) {
        const std::string text = "ProcUdpTest udp request site: " + hub + "'s ip: " + port.address +
                                 " failed, ret: " + std::to_string(result);
        log::error(text);
        vxh_post_ping_failed_log(text, std::time(nullptr));
    }

    // Whether one of the candidate's ports answers; it is the active hub then.
    bool takes(const Json::Value& sites, const std::string& hub) {
        for (auto& port : hub_ports(sites, hub, kPortNames, kPortAddress)) {
            const bool answered = ask(hub, port);
            if (stopped()) return false;
            if (answered) {
                take_hub(hub, port);
                return true;
            }
            report_failure(hub, port);
            if (stopped()) return false;
        }
        return false;
    }

    int probe() {
        Json::Value sites;
        EdgeSite edge;
        if (const int loaded = load_site(sites); loaded != kOk) return loaded;
        if (const int read = read_edge_site(sites, own_id(), edge); read != kOk) {
            if (edge.is_edge && edge.hub.empty()) log::error("HUB is empty!");
            return read;
        }
        if (keeps_hub(sites, edge)) return kOk;
        for (const auto& hub : rank_hubs(sites, edge, kPortNames, !test.check_connections)) {
            if (stopped()) return result;
            if (takes(sites, hub)) return kOk;
        }
        if (!stopped()) log::error("Can't find next active hop for ", edge.id);
        return result;
    }

    void run() {
        const std::string id = std::to_string(get_device_id());
        {
            std::lock_guard hold(object_lock(&test, Guards::kData));
            test.dev_id = id;
        }
        if (id == "0") return;
        log::debug("UDP TEST dev_id: ", id, " <", ::getpid(), ">, @", ::gettid());
        test.probe_nexthop();
    }

    int guarded_probe() {
        try {
            return probe();
        } catch (const std::exception& failure) {
            log::error("ProcUdpTest probe_hub failed: ", failure.what());
            return kFailed;
        }
    }

    std::string own_id() {
        std::lock_guard hold(object_lock(&test, Guards::kData));
        return test.dev_id;
    }

    // A run that is being ended reports nothing any more.
    static bool stopped() { return Worker::current_stop().requested(); }

    int result = kFailed;
};

}  // namespace corvo

using corvo::UdpTestRun;

ProcUdpTest::ProcUdpTest() : check_connections(false), thread(nullptr) {}

ProcUdpTest::~ProcUdpTest() {
    Worker::stop(thread);
}

int ProcUdpTest::start_nexthop_utest(bool check_connections) {
    return corvo::guarded([&] {
        std::lock_guard hold(object_lock(this, Guards::kLifecycle));
        return UdpTestRun{*this}.start(check_connections);
    });
}

int ProcUdpTest::stop_nexthop_utest() {
    return corvo::guarded([&] {
        std::lock_guard hold(object_lock(this, Guards::kLifecycle));
        return UdpTestRun{*this}.stop();
    });
}

void ProcUdpTest::thread_task() {
    corvo::guarded_void([&] { UdpTestRun{*this}.run(); });
}

int ProcUdpTest::probe_nexthop() {
    return corvo::guarded([&] { return UdpTestRun{*this}.guarded_probe(); });
}

int Start_nexthop_udp_test(bool check_connections) {
    return corvo::guarded([&] {
        log::ensure_file();
        const log::Entry entry{"udp.cpp", "Start_nexthop_udp_test"};
        std::lock_guard hold(object_lock(&udp_test, Guards::kLifecycle));
        UdpTestRun run{udp_test};
        run.stop();
        return entry.leave(corvo::guarded([&] { return run.start(check_connections); }));
    });
}

int Stop_nexthop_udp_test() {
    return corvo::guarded([&] {
        log::ensure_file();
        const log::Entry entry{"udp.cpp", "Stop_nexthop_udp_test"};
        return entry.leave(udp_test.stop_nexthop_utest());
    });
}
