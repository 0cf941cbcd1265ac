// Everything at once: eight threads call all families of exported functions at random while links flap,
// services fail, the log is rotated and taken away, and monitors and tests start and stop.
// CORVO_CHAOS_SECONDS says for how long (default: 3); CORVO_CHAOS_SEED repeats a run.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <random>

#include "corvosetup/cfg_file.h"
#include "corvosetup/lan_qos.h"
#include "corvosetup/link.h"
#include "corvosetup/log.h"
#include "corvosetup/ping_test.h"
#include "corvosetup/presetup.h"
#include "corvosetup/privatelink.h"
#include "corvosetup/qos.h"
#include "corvosetup/rglink.h"
#include "corvosetup/route.h"
#include "corvosetup/routing.h"
#include "corvosetup/service.h"
#include "corvosetup/tc.h"
#include "corvosetup/tun.h"
#include "corvosetup/tun6.h"
#include "corvosetup/udp.h"
#include "corvosetup/utils.h"
#include "corvosetup/wm_obj.h"
#include "foundation/result.h"
#include "foundation/text.h"
#include "machine.h"
#include "monitor/cycle.h"
#include "support/fault/fault.h"
#include "support/recorder.h"

namespace corvo::test {
namespace {

using Random = std::mt19937;

int pick(Random& random, int count) {
    return std::uniform_int_distribution<int>(0, count - 1)(random);
}

int number(const char* name, int fallback) {
    const char* text = std::getenv(name);
    return text != nullptr ? std::atoi(text) : fallback;
}

// A monitor is started and stopped by one thread at a time; the rest is for everybody.
struct Monitor {
    explicit Monitor(const std::string& dev, const char* gateway, unsigned char id) {
        if (Create_wm_obj(&object, dev, gateway, 100, "WAN", id) != 0) throw std::runtime_error("no monitor");
    }
    ~Monitor() {
        object->stop();
        delete object;
    }
    WmObj* object = nullptr;
    std::mutex turn;
};

using Step = std::function<int(Random&)>;

int edit_something(Random& random) {
    nexthop hop{};
    copy_text(hop.dev, "eth1");
    route_conf route{};
    route.table = 1000 + pick(random, 3);
    route.priority = 7;
    copy_text(route.dst, "10.9.0.0/16");
    route.nexthops = &hop;
    rule_conf rule{};
    rule.prio = 12000;
    rule.table = 1000;
    return pick(random, 2) == 0 ? edit_route(pick(random, 3), &route) : edit_rule(pick(random, 3), &rule);
}

int shape_something(Random& random) {
    std::string dev = "eth2";
    std::string lan = "eth5";
    std::string path;
    std::string conf;
    return pick(random, 2) == 0 ? setup_qos(pick(random, 3), dev, path, false)
                                : setup_lan_qos(pick(random, 3), lan, conf, path);
}

int route_something(Random& random) {
    std::string all = "all";
    std::string type;
    std::string path = kDocumentDir;
    switch (pick(random, 4)) {
        case 0:
            return setup_tun_route(all, type = "s2s", path += "routes.json");
        case 1:
            return setup_private_route(all, type = "private_s2s", path += "private.json");
        case 2:
            return setup_regional_route(type = "regional", path += "regional.json");
        default:
            return setup_tun_route6(type = "s2s6", path += "routes6.json");
    }
}

int tunnel_something(Random& random) {
    std::string source = std::string(kDocumentDir) + "device_info.json";
    const int op = pick(random, 2);
    switch (pick(random, 6)) {
        case 0:
            return setup_tun(op, "eth2", source, 2);
        case 1:
            return setup_tun6(op, "eth2", source, 2);
        case 2:
            return setup_private(op, "swdev5", source);
        case 3:
            return setup_rglink(op, "swdev6", source);
        case 4:
            return setup_tun_mptcp_default_rule(op, "all");
        default:
            return setup_tun_mptcp_default_route(2, "all");
    }
}

int move_gateways(Random& random) {
    Json::Value ids(Json::arrayValue);
    ids.append(1);
    switch (pick(random, 3)) {
        case 0:
            return add_default_gateway("eth2", "198.51.100.1", 50);
        case 1:
            return del_default_gateway("eth2", pick(random, 2) == 0);
        default:
            return setup_def(ids);
    }
}

int ask_something(Random& random) {
    std::unordered_map<std::string, Json::Value> links;
    Json::Value document;
    switch (pick(random, 6)) {
        case 0:
            get_device_id();
            return 0;
        case 1:
            get_local_mgmt();
            return 0;
        case 2:
            return get_available_wan_info(links, std::string(kDocumentDir) + "device_info.json", 1);
        case 3:
            CfgFile(std::string(kDocumentDir) + "qos.json") >> document;
            return 0;
        case 4:
            return setup_cpus("eth1");
        default:
            free_tqs_head(get_tx_queue_status("eth1"));
            return 0;
    }
}

int test_something(Random& random) {
    switch (pick(random, 5)) {
        case 0:
            return Start_nexthop_udp_test(pick(random, 2) == 0);
        case 1:
            return Stop_nexthop_udp_test();
        case 2:
            return Start_nexthop_ping_test();
        case 3:
            return Stop_nexthop_ping_test();
        default:
            return Start_rglink_ping_test(4);
    }
}

int disturb_log(Random& random) {
    switch (pick(random, 3)) {
        case 0:
            ::unlink(kLogFile);
            return 0;
        case 1:
            reopen_setup_logger(kLogFile);
            return 0;
        default:
            check_file_size(kLogFile);
            return 0;
    }
}

int move_monitor(Monitor& monitor, Random& random) {
    switch (pick(random, 6)) {
        case 0: {
            const std::lock_guard hold(monitor.turn);
            return monitor.object->start();
        }
        case 1: {
            const std::lock_guard hold(monitor.turn);
            return monitor.object->stop();
        }
        case 2:
            return monitor.object->reset_bandwidth(static_cast<unsigned long>(1 + pick(random, 100)));
        case 3:
            return monitor.object->reload_nf_condition();
        case 4:
            monitor.object->setup_dbg(pick(random, 2));
            return 0;
        default:
            monitor.object->get_state();
            return 0;
    }
}

int flap(Random& random) {
    const std::string dev = pick(random, 2) == 0 ? "p-eth1" : "p-eth2";
    run_tool({"ip", "link", "set", dev, pick(random, 2) == 0 ? "up" : "down"});
    return 0;
}

int prepare_something(Random& random) {
    switch (pick(random, 3)) {
        case 0:
            return presetup_ipv4();
        case 1:
            return presetup_rps_xps();
        default:
            module_probing();
            return 0;
    }
}

TEST(Chaos, EightThreadsCallEverythingWhileTheMachineIsDisturbed) {
    const Recorder ipsec("/sbin/ipsec");
    const Recorder conntrack("/usr/sbin/conntrack");
    const Recorder modprobe("/sbin/modprobe");
    const Recorder ifconfig("/sbin/ifconfig");
    periods.neigh = periods.ping = periods.queue = std::chrono::milliseconds(10);
    Machine machine;
    fault::set_service_limit(1);
    max_log_size = 50000;
    const int seconds = number("CORVO_CHAOS_SECONDS", 3);
    const auto seed =
        static_cast<unsigned>(number("CORVO_CHAOS_SEED", static_cast<int>(std::random_device()() >> 1U)));
    std::printf("CORVO_CHAOS_SEED=%u for %d seconds\n", seed, seconds);
    std::atomic<int> calls{0};
    // The turn of the pings keeps its descriptor for ever.
    EXPECT_EQ(Start_rglink_ping_test(4), 0);
    {
        const LeakCheck leaks;
        Monitor first("eth1", "203.0.113.1", 1);
        Monitor second("eth2", "198.51.100.1", 2);
        const std::vector<Step> steps = {
            edit_something,
            shape_something,
            route_something,
            tunnel_something,
            move_gateways,
            ask_something,
            test_something,
            disturb_log,
            flap,
            prepare_something,
            [&](Random& random) { return move_monitor(first, random); },
            [&](Random& random) { return move_monitor(second, random); },
            [&](Random& random) { return machine.answer_error(pick(random, 4) == 0 ? -5017 : 0), 0; }};
        std::vector<std::thread> threads;
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
        for (unsigned thread = 0; thread < 8; ++thread) {
            threads.emplace_back([&, thread] {
                Random random(seed + thread);
                while (std::chrono::steady_clock::now() < end) {
                    const int step = pick(random, static_cast<int>(steps.size()));
                    const int result = steps[static_cast<std::size_t>(step)](random);
                    // Above 0: the wait status of a tc command.
                    EXPECT_TRUE(result > 0 || find_result(result) != nullptr)
                        << "step " << step << " gave " << result;
                    ++calls;
                }
            });
        }
        for (auto& thread : threads) thread.join();
        Stop_nexthop_udp_test();
        Stop_nexthop_ping_test();
    }
    gws.flush_gws();
    tmp_gws.flush_gws();
    machine.answer_error(0);
    EXPECT_EQ(get_device_id(), 11);
    EXPECT_GT(calls, 50);
    std::printf("%d calls\n", calls.load());
    fault::set_service_limit(0);
}

}  // namespace
}  // namespace corvo::test
