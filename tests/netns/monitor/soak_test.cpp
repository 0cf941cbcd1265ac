// A device at work for as long as one likes: eight WAN links that go and come at random, site documents that
// change, services that refuse and die, monitors that are replaced. A model that knows nothing of the library
// says after each step what the default route, the condition files, the reports and the hub have to be, and
// what the process holds is the same all along.
//
// Short by default; bench/soak runs it for hours. CORVO_SOAK_SECONDS is how long, CORVO_SOAK_SEED which run.

#include <gmock/gmock.h>

#include <atomic>
#include <cstdlib>
#include <fstream>
#include <map>
#include <numeric>
#include <random>
#include <set>
#include <sstream>
#include <thread>

#include "corvosetup/log.h"
#include "corvosetup/ping_test.h"
#include "corvosetup/wm_obj.h"
#include "nexthop/udp_message.h"
#include "support/sanitized.h"
#include "wan.h"

namespace corvo::test {
namespace {

using namespace std::chrono_literals;

constexpr int kFirst = 2;
constexpr int kLinks = 8;
constexpr int kHubs = 4;

unsigned long setting(const char* name, unsigned long by_default) {
    const char* chosen = std::getenv(name);
    return chosen != nullptr ? std::strtoul(chosen, nullptr, 10) : by_default;
}

unsigned long bandwidth_of(int link) {
    return 1000UL * static_cast<unsigned long>(1 + link % 4);
}

// What has to be, from the events alone.
class Model {
public:
    void up(int link) {
        up_.insert(link);
        gateways_.insert(link);
        ++reports_[{link, 0}];
    }
    // The last gateway stays, dead or not: the device keeps a way out.
    void down(int link) {
        up_.erase(link);
        if (gateways_.size() > 1) gateways_.erase(link);
        ++reports_[{link, 1}];
    }
    void stop(int link) {
        up_.erase(link);
        gateways_.erase(link);
        ++reports_[{link, 1}];
    }
    bool is_up(int link) const { return up_.contains(link); }
    const std::set<int>& up_links() const { return up_; }

    // Gateway -> weight, as the kernel has to have them.
    std::map<std::string, unsigned long> route() const {
        unsigned long gcd = 0;
        for (const int link : gateways_) gcd = std::gcd(gcd, bandwidth_of(link));
        std::map<std::string, unsigned long> hops;
        for (const int link : gateways_) {
            hops["192.0." + std::to_string(link) + ".1"] =
                gateways_.size() > 1 ? bandwidth_of(link) / gcd : 0;
        }
        return hops;
    }

    int reports(int link, int status) const {
        const auto found = reports_.find({link, status});
        return found != reports_.end() ? found->second * times_ : 0;
    }
    // How often each report of this step is made: three attempts when it is refused, none arrives at a dead
    // service.
    void begin_step(int times) {
        reports_.clear();
        times_ = times;
    }

private:
    std::set<int> up_, gateways_;
    std::map<std::pair<int, int>, int> reports_;
    int times_ = 1;
};

std::map<std::string, unsigned long> kernel_route() {
    std::map<std::string, unsigned long> hops;
    for (const auto& route : ip_json("route show table all")) {
        if (route["table"].asString() != "default") continue;
        if (route.isMember("gateway")) hops[route["gateway"].asString()] = 0;
        for (const auto& hop : route["nexthops"]) hops[hop["gateway"].asString()] = hop["weight"].asUInt();
    }
    return hops;
}

long resident_kilobytes() {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with("VmRSS:")) return std::strtol(line.c_str() + 6, nullptr, 10);
    }
    return 0;
}

int netlink_sockets() {
    std::ifstream list("/proc/thread-self/net/netlink");
    int lines = -1;  // the heading
    for (std::string line; std::getline(list, line);) ++lines;
    return lines;
}

class Soak : public MonitorTest {
protected:
    struct Link {
        explicit Link(int number) : wan(number) { wan.neighbour("permanent"); }
        Wan wan;
        std::unique_ptr<WmObj> object;
    };

    Soak() {
        // Full every now and then, so that the log is rotated under way.
        max_log_size = 256 << 10;
        ip_batch({"route add unreachable 10.77.0.0/24"});
        for (int number = kFirst; number < kFirst + kLinks; ++number)
            links_.emplace(number, std::make_unique<Link>(number));
    }
    ~Soak() override {
        links_.clear();
        if (services == nullptr) services = std::make_unique<InProcessServices>();
    }

    int any(int below) { return std::uniform_int_distribution<int>(0, below - 1)(random_); }
    int any_link() { return kFirst + any(kLinks); }

    void begin(int number) {
        Link& link = *links_.at(number);
        WmObj* made = nullptr;
        ASSERT_EQ(Create_wm_obj(&made, link.wan.dev, link.wan.gateway, bandwidth_of(number), "WAN",
                                static_cast<unsigned char>(number)),
                  0);
        link.object.reset(made);
        ASSERT_EQ(link.object->start(), 0);
    }

    // The steps. Each ends when the monitors have seen it through.
    void flap(int number) {
        Link& link = *links_.at(number);
        const bool up = !model_.is_up(number);
        link.wan.carrier(up);
        if (up) {
            model_.up(number);
        } else {
            model_.down(number);
        }
        expect_settled(number);
    }

    // Several at once; one that is up stays, so that their order makes no difference.
    void flap_many() {
        if (model_.up_links().empty()) flap(any_link());
        const int stays =
            *std::next(model_.up_links().begin(), any(static_cast<int>(model_.up_links().size())));
        std::vector<int> chosen;
        for (const auto& [number, link] : links_) {
            if (number != stays && any(2) == 0) chosen.push_back(number);
        }
        std::vector<std::thread> threads;
        for (const int number : chosen) {
            threads.emplace_back(
                [this, number, up = !model_.is_up(number)] { links_.at(number)->wan.carrier(up); });
        }
        for (auto& thread : threads) thread.join();
        for (const int number : chosen) {
            if (model_.is_up(number)) {
                model_.down(number);
            } else {
                model_.up(number);
            }
        }
        for (const int number : chosen) expect_settled(number);
    }

    // Every link goes, one after the other: the last gateway stays. Then all come back.
    void black_out() {
        for (const auto& [number, link] : links_) {
            if (model_.is_up(number)) flap(number);
        }
        expect_world("all links down");
        model_.begin_step(1);
        services->forget();
        for (const auto& [number, link] : links_) flap(number);
    }

    void replace_monitor(int number) {
        Link& link = *links_.at(number);
        const bool carrier = model_.is_up(number);
        ASSERT_EQ(link.object->stop(), 0);
        model_.stop(number);
        EXPECT_EQ(condition(link.wan.port), "0") << link.wan.dev << " was stopped";
        begin(number);
        if (carrier) {
            model_.up(number);
        } else {
            model_.down(number);  // its first report says so
        }
        expect_settled(number);
    }

    void refusing_hub_manager() {
        model_.begin_step(3);
        services->fail("nm-halor.UpdateWanNexthopStatus", -9);
        flap(any_link());
        services->recover("nm-halor.UpdateWanNexthopStatus");
    }

    void dead_services() {
        services.reset();
        flap(any_link());
        flap(any_link());
        revive_services();
        model_.begin_step(1);
    }

    // A child that a monitor starts has the old sockets until its exec: they count as served for that long.
    void revive_services() {
        EXPECT_TRUE(wait_until([this] {
            try {
                services = std::make_unique<InProcessServices>();
                return true;
            } catch (const std::exception&) {
                return false;
            }
        })) << "the services do not come back";
        ASSERT_TRUE(services != nullptr);
    }

    // A site document with hubs in random order, of which some answer; the ping test has to find the one.
    void hub_test() {
        std::vector<bool> answers(kHubs);
        for (int hub = 0; hub < kHubs; ++hub) {
            answers[static_cast<std::size_t>(hub)] = any(2) == 0;
            const std::string address = "10.77.0." + std::to_string(hub + 1) + "/32 dev lo";
            run_line("ip addr del " + address);
            if (answers[static_cast<std::size_t>(hub)]) must_run("ip addr add " + address);
        }
        std::vector<int> order(kHubs);
        std::iota(order.begin(), order.end(), 0);
        std::shuffle(order.begin(), order.end(), random_);
        const int current = any(kHubs);
        write_document("site.json", site(order, current));

        std::string expected;
        if (!answers[static_cast<std::size_t>(current)]) {
            for (const int hub : order) {
                if (hub == current || !answers[static_cast<std::size_t>(hub)]) continue;
                expected = "nm-halor.UpdateActiveHUB {\"remote_site\":\"HUB" + std::to_string(hub) + "\"}";
                break;
            }
        }
        services->answer("vesta.read_json", R"({"error":1})");  // so it is the file that is read
        clear_log();
        ASSERT_EQ(Start_nexthop_ping_test(), 0);
        // The run has ended when it says what it found.
        const auto ended = [] {
            for (const auto& text : log_texts()) {
                if (text.find("Ping current hub: ") != std::string::npos ||
                    text.find("Update active hub to ") != std::string::npos ||
                    text.find("Can't find next active hop") != std::string::npos)
                    return true;
            }
            return false;
        };
        EXPECT_TRUE(wait_until(ended, 30s)) << "the hub test does not end";
        if (!expected.empty()) wait_until([&] { return services->count(expected) == 1; });
        EXPECT_EQ(Stop_nexthop_ping_test(), 0);
        int updates = 0;
        for (const auto& text : services->texts()) updates += text.starts_with("nm-halor.UpdateActiveHUB");
        EXPECT_EQ(updates, expected.empty() ? 0 : 1);
        if (!expected.empty()) {
            EXPECT_EQ(services->count(expected), 1) << expected;
        }
    }

    static Json::Value site(const std::vector<int>& order, int current) {
        Json::Value document;
        Json::Value& edge = document["SITE_INFO"]["11"];
        edge["ROLE"] = "EDGE";
        edge["GROUP_ID"] = "1";
        edge["DOMAIN"] = "1";
        edge["HUB"] = "HUB" + std::to_string(current);
        for (const int hub : order) {
            const std::string name = "HUB" + std::to_string(hub);
            edge["HUBS"].append(name);
            Json::Value& entry = document["SITE_INFO"][name];
            entry["ROLE"] = "HUB";
            entry["GROUP_ID"] = "1";
            entry["DOMAIN"] = "1";
            entry["PORT1"]["WAN_ADDR4"] = "10.77.0." + std::to_string(hub + 1);
            entry["PORT1"]["REAL_WAN_ADDR4"] = "10.77.0." + std::to_string(hub + 1);
        }
        return document;
    }

    int reported(int number) {
        const Json::Value state = links_.at(number)->object->get_state();
        const Json::Value& report = state[links_.at(number)->wan.dev]["ARP"];
        return report.isNull() ? -1 : report["stat"].asInt();
    }

    void expect_settled(int number) {
        const int status = model_.is_up(number) ? 0 : 1;
        EXPECT_TRUE(wait_until([&] { return reported(number) == status; }, 60s))
            << "eth" << number << " should have status " << status;
    }

    // Everything that the model says, against the kernel, the files and what the services were told.
    void expect_world(const std::string& step) {
        SCOPED_TRACE(step + ", seed " + std::to_string(seed_) + ", step " + std::to_string(steps_));
        EXPECT_EQ(kernel_route(), model_.route());
        for (const auto& [number, link] : links_) {
            EXPECT_EQ(condition(link->wan.port), model_.is_up(number) ? "1" : "0") << link->wan.port;
            for (const int status : {0, 1}) {
                const std::string report =
                    "nm-halor.UpdateWanNexthopStatus {\"id\":" + std::to_string(number) +
                    ",\"stat\":" + std::to_string(status) + "}";
                EXPECT_EQ(services->count(report), model_.reports(number, status)) << report;
            }
        }
    }

    struct Holdings {
        Held held;
        int sockets = 0;
        long memory = 0;
    };

    static Holdings holdings() { return {Held::now(), netlink_sockets(), resident_kilobytes()}; }

    // Responders that answer, by their port. One whose port a child that is just starting still holds tries
    // again later.
    static int responders() {
        std::istringstream table(read_file("/proc/net/udp"));
        char port[8];
        std::snprintf(port, sizeof(port), ":%04X", kProbePort);
        int count = 0;
        for (std::string line; std::getline(table, line);) {
            std::istringstream words(line);
            std::string number, local;
            words >> number >> local;
            count += local.ends_with(port) ? 1 : 0;
        }
        return count;
    }

    // Every link up and every monitor new: a responder that was started on a dead link has ended, for one.
    void come_to_rest() {
        services->forget();
        model_.begin_step(1);
        for (const auto& [number, link] : links_) {
            if (!model_.is_up(number)) flap(number);
            replace_monitor(number);
        }
        expect_world("all links up");
        EXPECT_TRUE(wait_until([] { return responders() == kLinks; }, 20s)) << responders() << " responders";
        set_period(500ms);
        std::this_thread::sleep_for(period_ * 4);
    }

    // The monitors go on with their cycles, in which they hold a descriptor for a moment: hence the waiting.
    void expect_no_more_than(const Holdings& first) {
        come_to_rest();
        const auto as_before = [&] {
            const Holdings now = holdings();
            return now.held.descriptors == first.held.descriptors && now.held.threads == first.held.threads &&
                   now.held.children == first.held.children && now.sockets == first.sockets;
        };
        const bool flat = wait_until(as_before, 20s);
        const Holdings now = holdings();
        EXPECT_TRUE(flat) << "seed " << seed_ << ", step " << steps_ << ": " << first.held.descriptors.size()
                          << " descriptors became " << now.held.descriptors.size() << ", "
                          << first.held.threads << " threads " << now.held.threads << ", " << first.sockets
                          << " netlink sockets " << now.sockets;
        if (!kSanitized) {
            EXPECT_LE(now.memory, first.memory + 4096)
                << "kB of memory, seed " << seed_ << ", step " << steps_;
        }
        set_period(period_);
    }

    static void set_period(std::chrono::milliseconds period) {
        periods.neigh = period;
        periods.queue = period;
    }

    void step() {
        ++steps_;
        services->forget();
        conntrack.forget_calls();
        model_.begin_step(1);
        static const char* const kNames[] = {"a flap",        "several flaps",      "a hub test",
                                             "a new monitor", "a refusing manager", "dead services",
                                             "a black-out"};
        const int drawn = any(20);
        const int kind = drawn < 6    ? 0
                         : drawn < 11 ? 1
                         : drawn < 14 ? 2
                         : drawn < 16 ? 3
                         : drawn < 18 ? 4
                         : drawn < 19 ? 5
                                      : 6;
        ++done_[kNames[kind]];
        switch (kind) {
            case 0:
                flap(any_link());
                break;
            case 1:
                flap_many();
                break;
            case 2:
                hub_test();
                break;
            case 3:
                replace_monitor(any_link());
                break;
            case 4:
                refusing_hub_manager();
                break;
            case 5:
                dead_services();
                break;
            default:
                black_out();
        }
        expect_world(kNames[kind]);
    }

    const std::chrono::milliseconds period_{in_device_tier() ? 60 : 5};
    const ShortPeriods shorter_{period_};
    const unsigned long seed_ = setting("CORVO_SOAK_SEED", std::random_device{}());
    std::mt19937_64 random_{seed_};
    std::map<int, std::unique_ptr<Link>> links_;
    Model model_;
    int steps_ = 0;
    std::map<std::string, int> done_;
};

TEST_F(Soak, EightLinksFollowTheModelAndNothingGrows) {
    const auto begun = std::chrono::steady_clock::now();
    const std::chrono::seconds length(setting("CORVO_SOAK_SECONDS", in_device_tier() ? 5
                                                                    : kSanitized     ? 12
                                                                                     : 60));
    for (const auto& [number, link] : links_) {
        begin(number);
        model_.up(number);
        expect_settled(number);
    }
    expect_world("the start");
    // What is allocated once only is there after a while.
    while (std::chrono::steady_clock::now() - begun < length / 4 && !HasFailure()) step();
    come_to_rest();
    Holdings first = holdings();
    for (int look = 0; look < 20; ++look) {  // the fewest, since a cycle may be under way
        std::this_thread::sleep_for(20ms);
        const Holdings now = holdings();
        if (now.held.descriptors.size() <= first.held.descriptors.size() && now.sockets <= first.sockets)
            first = now;
    }
    set_period(period_);
    int unseen = 0;
    while (std::chrono::steady_clock::now() - begun < length && !HasFailure()) {
        step();
        if (++unseen < 100) continue;
        unseen = 0;
        expect_no_more_than(first);
    }
    expect_no_more_than(first);
    std::string kinds;
    for (const auto& [name, count] : done_) kinds += ", " + std::to_string(count) + " of " + name;
    RecordProperty("steps", steps_);
    std::printf("seed %lu, %d steps%s\n", seed_, steps_, kinds.c_str());
    for (const auto& [number, link] : links_) link->object->stop();
    EXPECT_TRUE(kernel_route().empty());
}

}  // namespace
}  // namespace corvo::test
