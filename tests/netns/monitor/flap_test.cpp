// Links that flap while others stay up. The numbers are small by default; CORVO_FLAPS=1000 makes it the full
// run.

#include <gmock/gmock.h>

#include <cstdlib>
#include <thread>

#include "corvosetup/wm_obj.h"
#include "wan.h"

namespace corvo::test {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::UnorderedElementsAreArray;

int flaps(int by_default) {
    const char* chosen = std::getenv("CORVO_FLAPS");
    return chosen != nullptr ? std::atoi(chosen) : by_default;
}

class Flaps : public MonitorTest {
protected:
    struct Watched {
        explicit Watched(int number) : wan(number) {
            wan.neighbour("permanent");
            WmObj* made = nullptr;
            Create_wm_obj(&made, wan.dev, wan.gateway, 1000, "WAN", static_cast<unsigned char>(number));
            object.reset(made);
        }
        bool wait_for(int stat) {
            return wait_until(
                [&] {
                    const Json::Value state = object->get_state();
                    return state[wan.dev]["ARP"]["stat"] == Json::Value(stat);
                },
                20s);
        }
        // One flap, borne through to both reports.
        bool flap() {
            wan.carrier(false);
            if (!wait_for(1)) return false;
            wan.carrier(true);
            return wait_for(0);
        }
        std::string call(int stat) const {
            return "nm-halor.UpdateWanNexthopStatus {\"id\":" + std::to_string(wan.number) +
                   ",\"stat\":" + std::to_string(stat) + "}";
        }

        Wan wan;
        std::unique_ptr<WmObj> object;
    };

    // Rare cycles, so that none holds a descriptor while descriptors are counted, and frequent ones again.
    static void rest() {
        periods.neigh = 400ms;
        periods.queue = 400ms;
        std::this_thread::sleep_for(50ms);
    }
    static void hurry() {
        periods.neigh = 2ms;
        periods.queue = 2ms;
    }

    const ShortPeriods shorter{2ms};
};

TEST_F(Flaps, OneLinkFlapsWhileAnotherStaysUp) {
    const int count = flaps(40);
    Watched steady(2), flapping(3);
    ASSERT_EQ(steady.object->start(), 0);
    ASSERT_TRUE(steady.wait_for(0));
    ASSERT_EQ(flapping.object->start(), 0);
    ASSERT_TRUE(flapping.wait_for(0));
    {
        rest();
        LeakCheck leaks;
        hurry();
        for (int flap = 0; flap < count; ++flap) ASSERT_TRUE(flapping.flap()) << "flap " << flap;
        rest();
    }
    EXPECT_THAT(default_gateways(), ElementsAre("192.0.2.1", "192.0.3.1"));
    EXPECT_EQ(condition("PORT2"), "1");
    EXPECT_EQ(condition("PORT3"), "1");
    EXPECT_EQ(services->count(steady.call(0)), 1) << "the steady link is reported once";
    EXPECT_EQ(services->count(steady.call(1)), 0);
    EXPECT_EQ(services->count(flapping.call(0)), count + 1);
    EXPECT_EQ(services->count(flapping.call(1)), count);
    EXPECT_EQ(services->count("pluvd.exec {\"flag\": \"2\"}"), count);
    flapping.object->stop();
    steady.object->stop();
    EXPECT_THAT(default_gateways(), ElementsAre());
    EXPECT_EQ(condition("PORT3"), "0");
}

TEST_F(Flaps, EightLinksFlapAtOnceWhileOneStaysUp) {
    const int count = flaps(10);
    Watched steady(20);
    std::vector<std::unique_ptr<Watched>> links;
    for (int number = 2; number < 10; ++number) links.push_back(std::make_unique<Watched>(number));
    ASSERT_EQ(steady.object->start(), 0);
    ASSERT_TRUE(steady.wait_for(0));
    for (auto& link : links) {
        ASSERT_EQ(link->object->start(), 0);
        ASSERT_TRUE(link->wait_for(0));
    }
    {
        rest();
        LeakCheck leaks;
        hurry();
        std::atomic<int> failed{0};
        std::vector<std::thread> threads;
        for (auto& link : links) {
            threads.emplace_back([&failed, &link, count] {
                for (int flap = 0; flap < count; ++flap) {
                    if (!link->flap()) ++failed;
                }
            });
        }
        for (auto& thread : threads) thread.join();
        EXPECT_EQ(failed, 0);
        rest();
    }
    std::vector<std::string> expected{"192.0.20.1"};
    for (auto& link : links) {
        expected.push_back(link->wan.gateway);
        EXPECT_EQ(condition(link->wan.port), "1");
        EXPECT_EQ(services->count(link->call(0)), count + 1);
        EXPECT_EQ(services->count(link->call(1)), count);
    }
    EXPECT_THAT(default_gateways(), UnorderedElementsAreArray(expected));
    for (auto& link : links) link->object->stop();
    EXPECT_THAT(default_gateways(), ElementsAre("192.0.20.1"));
    steady.object->stop();
}

TEST_F(Flaps, FlapsShorterThanSixCyclesAreBorne) {
    Watched link(2);
    periods.neigh = 200ms;
    ASSERT_EQ(link.object->start(), 0);
    ASSERT_TRUE(link.wait_for(0));
    services->forget();
    for (int flap = 0; flap < 5; ++flap) {
        link.wan.carrier(false);
        std::this_thread::sleep_for(250ms);
        link.wan.carrier(true);
        std::this_thread::sleep_for(250ms);
    }
    EXPECT_THAT(services->texts(), ElementsAre());
    link.object->stop();
}

}  // namespace
}  // namespace corvo::test
