// A monitored link whose gateway really lives and dies, and the times at which what happens then happens.
#pragma once

#include <gmock/gmock.h>

#include <chrono>
#include <fstream>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "corvosetup/wm_obj.h"
#include "foundation/fd.h"
#include "foundation/worker.h"
#include "netns/monitor/wan.h"

namespace corvo::test {

// Watches the log and the kernel's routes, and notes when what happened.
class Timeline {
public:
    using Clock = std::chrono::steady_clock;
    struct Event {
        std::string what;
        Clock::time_point time;
    };

    Timeline();
    ~Timeline();

    // Notes it after everything that was logged or changed before, however late the watching thread is.
    void add(const std::string& what);
    // Notes it and reads nothing: what was before has the time at which the watching thread saw it.
    void note(const std::string& what);
    Clock::time_point when(const std::string& what);  // when it happened last; the epoch: never
    void print();

private:
    void run();
    void catch_up();
    void read_log();
    void read_routes();

    std::mutex reading_;  // of the log and the routes; taken before lock_
    std::mutex lock_;
    std::vector<Event> events_;
    std::ifstream log_;
    UniqueFd watch_, routes_;
    StopSignal stop_;
    std::thread thread_;
};

// What the world looks like at the moment in which a service is asked.
struct Snapshot {
    std::string call;
    std::vector<std::string> gateways;
    std::string condition;
    int stat;
};

class Road : public MonitorTest {
protected:
    using Clock = Timeline::Clock;

    Road() {
        add_veth("eth8", isp_, "isp0", {.address = "192.0.8.2/24", .peer_address = "192.0.8.1/24"});
        wait_for_carrier("eth8");
        // The kernel asks and believes as fast as our cycles come, which are shorter than a device's.
        write_file("/proc/sys/net/ipv4/neigh/eth8/retrans_time_ms", "20");
        write_file("/proc/sys/net/ipv4/neigh/eth8/locktime", "0");
        write_file("/proc/sys/net/ipv4/neigh/eth8/ucast_solicit", "50");
        make_condition("PORT8", "0");
        WmObj* made = nullptr;
        EXPECT_EQ(Create_wm_obj(&made, "eth8", "192.0.8.1", 1000, "WAN", 8), 0);
        monitor_.reset(made);
        // The other link of the device, which carries on.
        EXPECT_EQ(add_default_gateway(wan.dev, wan.gateway, 1000), 0);
    }
    ~Road() override { monitor_.reset(); }

    int stat() {
        const Json::Value state = monitor_->get_state();
        const Json::Value& report = state["eth8"]["ARP"];
        return report.isNull() ? -1 : report["stat"].asInt();
    }
    bool wait_for(int status) {
        return wait_until([&] { return stat() == status; }, std::chrono::seconds(60));
    }
    // From now on each call of a service is noted together with the state of the world.
    void take_snapshots() {
        for (const char* target : {"pluvd.exec", "nm-halor.UpdateWanNexthopStatus"}) {
            services->answer(target, [this, target] {
                timeline_.add(target);
                snapshots_.push_back({target, default_gateways(), condition("PORT8").value_or(""), stat()});
                return vx::Reply::text("{\"error\":0}");
            });
        }
    }
    // From now on the services answer at once, for measuring.
    void only_note_calls() {
        for (const char* target : {"pluvd.exec", "nm-halor.UpdateWanNexthopStatus"}) {
            services->answer(target, [this, target] {
                timeline_.note(target);
                return vx::Reply::text("{\"error\":0}");
            });
        }
    }
    void expect_order(const std::vector<std::string>& stages) {
        for (std::size_t i = 1; i < stages.size(); ++i) {
            EXPECT_NE(timeline_.when(stages[i]), Clock::time_point{}) << stages[i];
            EXPECT_LE(timeline_.when(stages[i - 1]), timeline_.when(stages[i]))
                << stages[i - 1] << ", " << stages[i];
        }
    }

    void start() {
        ASSERT_EQ(monitor_->start(), 0);
        ASSERT_TRUE(wait_for(0));
        ASSERT_THAT(default_gateways(), testing::ElementsAre("192.0.1.1", "192.0.8.1"));
    }
    void gateway(bool lives) const { isp_.ip({std::string("link set isp0 ") + (lives ? "up" : "down")}); }

    const ShortPeriods shorter_{std::chrono::milliseconds(50)};
    Netns isp_{"isp"};
    std::vector<Snapshot> snapshots_;
    Timeline timeline_;
    std::unique_ptr<WmObj> monitor_;
};

}  // namespace corvo::test
