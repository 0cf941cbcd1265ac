// Killed at any moment and started again, the daemon ends where an undisturbed run ends.
//
// CORVO_KILLS is how often it is killed in each of the tests' phases (default 2), CORVO_SEED the choice of
// the moments (default: another one each time; the output names it).
#include <signal.h>

#include <cstdio>
#include <cstdlib>
#include <random>

#include "netns/edged/edge.h"

using namespace corvo::test;
using namespace std::chrono_literals;
using testing::ElementsAreArray;

namespace {

long setting(const char* name, long fallback) {
    const char* text = ::getenv(name);
    return text != nullptr ? std::strtol(text, nullptr, 10) : fallback;
}

class EdgedKilled : public EdgeTest {
protected:
    EdgedKilled()
        : seed_(static_cast<unsigned>(setting("CORVO_SEED", std::random_device()()))), random_(seed_) {
        std::printf("CORVO_SEED=%u\n", seed_);
        know_gateways();
    }

    std::chrono::milliseconds moment(std::chrono::milliseconds from, std::chrono::milliseconds to) {
        return std::chrono::milliseconds(
            std::uniform_int_distribution<long>(from.count(), to.count())(random_));
    }
    static void pass(std::chrono::milliseconds time) {
        wait_until([] { return false; }, time);
    }
    static int kills() { return static_cast<int>(setting("CORVO_KILLS", 2)); }

    // Brings the edge up, undisturbed, and takes what the kernel then holds.
    std::vector<std::string> undisturbed(const std::string& status1) {
        Daemon daemon;
        EXPECT_TRUE(wait_for_links(status1, "up"));
        const auto state = kernel_state();
        daemon.kill();
        return state;
    }
    void wipe() {
        Daemon daemon({.arguments = {"--clear-on-exit"}});
        EXPECT_TRUE(wait_until([] { return daemon_state()["ready"].asBool(); }, 20s));
        EXPECT_EQ(daemon.terminate(), 0);
    }

private:
    unsigned seed_;
    std::mt19937 random_;
};

TEST_F(EdgedKilled, WhileItBringsTheEdgeUp) {
    const auto wanted = undisturbed("up");
    for (int i = 0; i < kills(); ++i) {
        wipe();
        const auto when = moment(0ms, 500ms);
        SCOPED_TRACE("killed " + std::to_string(when.count()) + " ms after its start");
        {
            Daemon daemon;
            pass(when);
            daemon.kill();
        }
        Daemon again;
        ASSERT_TRUE(wait_for_links("up", "up"));
        EXPECT_THAT(kernel_state(), ElementsAreArray(wanted));
    }
}

TEST_F(EdgedKilled, WhileAGatewayIsFoundDead) {
    gateway(1, false);
    const auto wanted = undisturbed("down");
    for (int i = 0; i < kills(); ++i) {
        gateway(1, true);
        {
            Daemon daemon;
            ASSERT_TRUE(wait_for_links("up", "up"));
            gateway(1, false);
            // It is declared dead 10 to 12 s later.
            const auto when = moment(9500ms, 12500ms);
            SCOPED_TRACE("killed " + std::to_string(when.count()) + " ms after the failure");
            pass(when);
            daemon.kill();
        }
        Daemon again;
        ASSERT_TRUE(wait_for_links("down", "up"));
        EXPECT_THAT(kernel_state(), ElementsAreArray(wanted));
    }
}

TEST_F(EdgedKilled, WhileItAppliesNewDocuments) {
    gw2.ip({"addr add 198.51.100.2/24 dev gw"});
    ip_batch({"neigh replace 198.51.100.2 dev eth2 nud permanent lladdr " +
              gw2.ip_json("link show dev gw")[0]["address"].asString()});
    const Json::Value old = device_info;
    wan("eth2")["IP4_GW"] = "198.51.100.2";
    wan("eth2")["TX_RATE"] = "100000000";
    const Json::Value fresh = device_info;
    publish();
    const auto wanted = undisturbed("up");
    for (int i = 0; i < kills(); ++i) {
        device_info = old;
        publish();
        {
            Daemon daemon;
            ASSERT_TRUE(wait_for_links("up", "up"));
            device_info = fresh;
            publish();
            daemon.signal(SIGHUP);
            // A monitor that ends finishes its cycle of 2 s first.
            pass(moment(0ms, 2500ms));
            daemon.kill();
        }
        Daemon again;
        ASSERT_TRUE(wait_for_links("up", "up"));
        EXPECT_THAT(kernel_state(), ElementsAreArray(wanted));
    }
}

}  // namespace
