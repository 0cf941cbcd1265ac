// Every exported function with every fault: the n-th thing of each kind fails, for n = 1, 2, 3 ... until the
// call needs no more of them.
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <optional>
#include <set>
#include <vector>

#include "foundation/result.h"
#include "monitor/cycle.h"
#include "rows.h"
#include "support/kernel_feature.h"

namespace corvo::test {
namespace {

using fault::Armed;
using fault::Kind;
using fault::Plan;

char step_text[256];

// A call that does not come back ends the process, with the fault's name.
void give_up(int) {
    static_cast<void>(!::write(2, step_text, std::strlen(step_text)));
    ::abort();
}

struct ThreadState {
    int cancel_state = -1;
    int cancel_type = -1;
    bool signals_blocked = false;

    static ThreadState now() {
        ThreadState state;
        ::pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &state.cancel_state);
        ::pthread_setcancelstate(state.cancel_state, nullptr);
        ::pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, &state.cancel_type);
        ::pthread_setcanceltype(state.cancel_type, nullptr);
        sigset_t mask;
        ::pthread_sigmask(SIG_BLOCK, nullptr, &mask);
        for (int signal = 1; signal < 32; ++signal) state.signals_blocked |= sigismember(&mask, signal) == 1;
        return state;
    }
    bool operator==(const ThreadState&) const = default;
};

bool complained() {
    for (const auto& line : log_lines())
        if (line.level == "[ERROR] " || line.level == "[WARNING] " ||
            line.message.find("open failed.") != std::string::npos)
            return true;
    return false;
}

bool all_points() {
    const char* wish = std::getenv("CORVO_FAULT_ALL");
    return wish != nullptr && *wish != '\0';
}

// The n after this one: all of them up to a number, then fewer and fewer, so that a call with thousands of
// allocations ends. CORVO_FAULT_ALL=1 tries every one.
int next_point(int n, bool slow) {
    const int dense = slow ? 8 : 24;
    return all_points() || n < dense ? n + 1 : n + 1 + n / (slow ? 3 : 8);
}

// How long one function is walked. CORVO_FAULT_SECONDS gives another time; CORVO_FAULT_ALL has no limit.
std::chrono::seconds time_to_walk() {
    if (all_points()) return std::chrono::hours(24);
    const char* wish = std::getenv("CORVO_FAULT_SECONDS");
    return std::chrono::seconds(wish != nullptr ? std::atoi(wish) : 12);
}

// One way of failing on its way along the call.
struct Walker {
    Plan plan;
    bool ended = false;  // the call has fewer points than plan.nth
};

// The first way of every kind, then the second of every kind ...: where the time is up, the breadth is there.
std::vector<Walker> all_walkers() {
    std::vector<Walker> all;
    std::size_t most = 0;
    std::vector<std::vector<Walker>> by_kind;
    for (int k = 0; k < fault::kKinds; ++k) {
        const auto kind = static_cast<Kind>(k);
        auto& ways = by_kind.emplace_back();
        for (int variant = 0; variant < fault::variants(kind); ++variant) {
            ways.push_back({{kind, 1, variant, false}});
            if (fault::can_last(kind, variant)) ways.push_back({{kind, 1, variant, true}});
        }
        most = std::max(most, ways.size());
    }
    for (std::size_t way = 0; way < most; ++way)
        for (const auto& ways : by_kind)
            if (way < ways.size()) all.push_back(ways[way]);
    return all;
}

// On the testbed: the kernel loads no modules while one lives. It starts modprobe whenever it is asked for a
// device that is not there, and that takes longer there than all else in a step.
class NoModuleLoading {
public:
    NoModuleLoading() : before_(read_file(kPath)) { write_file(kPath, "\n"); }
    ~NoModuleLoading() { write_file(kPath, before_); }
    NoModuleLoading(const NoModuleLoading&) = delete;
    NoModuleLoading& operator=(const NoModuleLoading&) = delete;

private:
    static constexpr const char* kPath = "/proc/sys/kernel/modprobe";
    std::string before_;
};

class Walk : public testing::TestWithParam<std::size_t> {
protected:
    const Row& row() const { return all_rows()[GetParam()]; }

    void SetUp() override {
        for (const auto& feature : row().features) REQUIRE_KERNEL_FEATURE(feature);
        machine.emplace();
        periods.neigh = periods.ping = periods.queue = std::chrono::milliseconds(5);
        fault::set_service_limit(1);
        ::signal(SIGALRM, give_up);
    }
    void TearDown() override { fault::set_service_limit(0); }

    // The undisturbed call; its result and the kernel's state are what every second attempt must come to.
    void learn() {
        const Call call = row().make(*machine);
        clear_log();
        expected = call();
        if (!row().expected_is_learned) {
            ASSERT_EQ(expected, row().expected);
        }
        if (row().touches_kernel) good = KernelState::now();
        if (in_device_tier()) no_modules.emplace();  // what the call needs is there now
    }

    int guarded_call(const Call& call, const char* which) const {
        ::alarm(60);
        int result = 0;
        try {
            result = call();
        } catch (const abi::__forced_unwind&) {
            throw;
        } catch (const std::exception& error) {
            ADD_FAILURE() << "an exception left the " << which << " call: " << error.what();
        } catch (...) {
            ADD_FAILURE() << "an exception left the " << which << " call";
        }
        ::alarm(0);
        return result;
    }

    // After a fault without a line in the log.
    void expect_nothing_lost(const Plan& plan, int result) const {
        // Without memory there may be no line either, and without the log there is none.
        if (plan.kind == Kind::kNew || plan.kind == Kind::kLog) return;
        // No answer in time is no failure of a step.
        if (plan.kind == Kind::kReceive && plan.variant == 1) return;
        EXPECT_EQ(result, expected) << "failed without a line in the log";
        // A device that is not there and a document without content are no failures for many a function.
        if (plan.kind == Kind::kLookup || plan.kind == Kind::kService || !row().touches_kernel) return;
        const KernelState now = KernelState::now();
        EXPECT_TRUE(now == good) << "left something undone without a line in the log:\n"
                                 << good.difference(now);
    }

    // One disturbed call and the next one. False: the plan did not strike.
    bool step(const Plan& plan) {
        const std::string what = row().name + ", " + plan.text();
        SCOPED_TRACE(what);
        std::snprintf(step_text, sizeof step_text, "the call does not come back: %s\n", what.c_str());
        if (row().touches_kernel) machine->reset();
        Call call = row().make(*machine);
        clear_log();
        const ThreadState before = ThreadState::now();
        int result = 0;
        bool struck = false;
        std::string where;
        const LeakCheck leaks;
        {
            Armed armed(plan);
            result = guarded_call(call, "disturbed");
            struck = armed.disarm();
            where = armed.where();
        }
        const testing::ScopedTrace trace(__FILE__, __LINE__, "in " + where);
        EXPECT_EQ(ThreadState::now(), before);
        if (row().is_code) {
            EXPECT_TRUE(find_result(result) != nullptr || (result > 0 && result == expected))
                << "no code of the table: " << result;
        }
        if (struck && row().must_log && !complained()) expect_nothing_lost(plan, result);
        if (row().undo) row().undo();
        EXPECT_EQ(guarded_call(call, "second"), expected) << "the second call";
        if (row().touches_kernel) {
            const KernelState now = KernelState::now();
            EXPECT_TRUE(now == good) << "after the second call:\n" << good.difference(now);
        }
        return struck;
    }

    std::optional<Machine> machine;
    int expected = 0;
    KernelState good;
    std::optional<NoModuleLoading> no_modules;
};

TEST_P(Walk, EveryFaultIsACodeALineAndNothingElse) {
    learn();
    int points = 0;
    std::size_t ways = 0;
    // Every way takes its first step before any takes its second.
    auto walkers = all_walkers();
    std::set<Kind> unused;
    const auto until = std::chrono::steady_clock::now() + time_to_walk() * (row().has_tools ? 3 : 1);
    bool in_time = true;
    for (bool walking = true; walking && in_time;) {
        walking = false;
        for (Walker& walker : walkers) {
            // Where the call does not come to a first thing of a kind, it does not matter how that would
            // fail.
            if (unused.count(walker.plan.kind) != 0) walker.ended = true;
            if (walker.ended) continue;
            in_time = std::chrono::steady_clock::now() < until;
            if (!in_time || HasFatalFailure()) break;
            walker.ended = !step(walker.plan);
            if (walker.plan.nth == 1) {
                if (walker.ended)
                    unused.insert(walker.plan.kind);
                else
                    ++ways;
            }
            if (walker.ended) continue;
            walking = true;
            ++points;
            if (testing::Test::HasFailure() && !all_points()) return;
            // What lasts is tried from fewer places.
            int& n = walker.plan.nth;
            n = walker.plan.lasting ? n * 3 : next_point(n, row().is_slow);
        }
    }
    const auto untried = std::count_if(walkers.begin(), walkers.end(), [](const Walker& walker) {
        return walker.plan.nth == 1 && !walker.ended;
    });
    if (!in_time) std::printf("the time for this walk is up\n");
    RecordProperty("faults", points);
    RecordProperty("untried", static_cast<int>(untried));
    std::printf("%d faults, %zu ways of failing; untried ways: %td\n", points, ways, untried);
}

std::vector<std::size_t> indexes() {
    std::vector<std::size_t> all(all_rows().size());
    for (std::size_t i = 0; i < all.size(); ++i) all[i] = i;
    return all;
}

INSTANTIATE_TEST_SUITE_P(Exported, Walk, testing::ValuesIn(indexes()), [](const auto& info) {
    std::string name = all_rows()[info.param].name;
    int same = 0;
    for (std::size_t i = 0; i < info.param; ++i) same += all_rows()[i].name == name ? 1 : 0;
    return same == 0 ? name : name + "_" + std::to_string(same + 1);
});

// What is no function: variables, tables of virtual functions, type information.
bool is_function(const std::string& symbol) {
    static const std::set<std::string> kVariables = {"_Z10log_targetB5cxx11",
                                                     "log_target",
                                                     "max_log_size",
                                                     "setup_logger",
                                                     "verbose",
                                                     "_Z15neigh_state_strB5cxx11",
                                                     "_Z18neigh_stat_mappingB5cxx11",
                                                     "neigh_stat_mapping",
                                                     "neigh_state_str",
                                                     "_Z7udp_msgB5cxx11",
                                                     "udp_msg",
                                                     "udp_test",
                                                     "ping_test",
                                                     "_Z7tcp_mapB5cxx11",
                                                     "_Z8conf_mapB5cxx11",
                                                     "_Z9conf6_mapB5cxx11",
                                                     "conf6_map",
                                                     "conf_map",
                                                     "tcp_map",
                                                     "gws",
                                                     "tmp_gws"};
    return kVariables.count(symbol) == 0 && !symbol.starts_with("_ZT");
}

TEST(FaultTable, HasARowForEveryExportedFunction) {
    std::set<std::string> with_row;
    for (const Row& row : all_rows()) with_row.insert(row.symbols.begin(), row.symbols.end());
    std::set<std::string> exported;
    for (const auto& file : std::filesystem::directory_iterator(CORVO_ABI_DIR)) {
        if (file.path().extension() != ".symbols") continue;
        std::ifstream in(file.path());
        for (std::string line; std::getline(in, line);)
            if (!line.empty() && line[0] != '#' && is_function(line)) exported.insert(line);
    }
    EXPECT_GT(exported.size(), 200U);
    for (const auto& symbol : exported) EXPECT_EQ(with_row.count(symbol), 1U) << "no row for " << symbol;
    for (const auto& symbol : with_row) EXPECT_EQ(exported.count(symbol), 1U) << "not exported: " << symbol;
}

}  // namespace
}  // namespace corvo::test
