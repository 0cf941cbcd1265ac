// Route documents, rules and default gateways, side by side with "ip -batch" doing the same to the same
// kernel.
//
// Every measurement is a process of its own in a network namespace of its own, so that its peak memory is its
// own too. The time is that of the call alone: reading and parsing the document included, making namespace
// and devices not. Counters: us_per_item and peak_mb of the library, ip_us_per_item and ip_peak_mb of "ip
// -batch", and their ratio. Needs root.
//
// Documents are read from files (no configuration service answers here); the list of WAN links and the
// device's id, which services give, are given here.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <json/value.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <unordered_map>

#include "corvosetup/log.h"
#include "corvosetup/route.h"
#include "corvosetup/tun.h"

using EntryMap = std::unordered_map<std::string, Json::Value>;

#define STRING_ABI "NSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE"
int bench_device_id() asm("__wrap__Z13get_device_idv");
int bench_device_id() {
    return 7;
}
int bench_wans(EntryMap& out, std::string path,
               int comprehensive) asm("__wrap__Z22get_available_wan_infoRSt13unordered_mapI" STRING_ABI
                                      "N4Json5ValueESt4hashIS5_ESt8equal_toIS5_ESaISt4pairIKS5_S7_EEES5_i");
int bench_wans(EntryMap& out, std::string, int) {
    Json::Value& wan = out["wan0"];
    wan["ifname"] = "wan0";
    wan["slave"] = "eth0";
    wan["id"] = 5;
    wan["tun_addr"] = "198.19.0.50";
    return 0;
}

namespace {

using Clock = std::chrono::steady_clock;

struct Measured {
    double seconds = 0;
    double cpu = 0;  // of user and kernel
    double peak_mb = 0;
    bool ok = false;
};

void must(const std::string& command) {
    if (std::system(command.c_str()) != 0) {
        std::fprintf(stderr, "failed: %s\n", command.c_str());
        std::_Exit(1);
    }
}

double cpu_seconds(const rusage& usage) {
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) * 1e-6;
}

double cpu_now() {
    rusage own{}, children{};
    ::getrusage(RUSAGE_SELF, &own);
    ::getrusage(RUSAGE_CHILDREN, &children);
    return cpu_seconds(own) + cpu_seconds(children);
}

struct Time {
    double seconds = -1;  // negative: the work failed
    double cpu = 0;
};

Time timed(const std::function<bool()>& work) {
    const double cpu = cpu_now();
    const auto start = Clock::now();
    const bool ok = work();
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    return {ok ? seconds : -1, cpu_now() - cpu};
}

// Runs `work` in a child with a namespace of its own after `prepare`.
Measured in_child(const std::function<void()>& prepare, const std::function<Time()>& work) {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) std::abort();
    const pid_t pid = ::fork();
    if (pid == 0) {
        if (::unshare(CLONE_NEWNET) != 0) std::_Exit(1);
        prepare();
        const Time time = work();
        if (::write(ends[1], &time, sizeof time) != sizeof time) std::_Exit(1);
        std::_Exit(0);
    }
    ::close(ends[1]);
    Measured measured;
    Time time;
    measured.ok = ::read(ends[0], &time, sizeof time) == sizeof time && time.seconds >= 0;
    measured.seconds = time.seconds;
    measured.cpu = time.cpu;
    ::close(ends[0]);
    int status = 0;
    rusage usage{};
    ::wait4(pid, &status, 0, &usage);
    measured.peak_mb = static_cast<double>(usage.ru_maxrss) / 1024;
    return measured;
}

// "ip -batch FILE": its time, and its own peak memory instead of the child's.
Measured ip_batch(const std::function<void()>& prepare, const std::string& file) {
    Measured result;
    double peak = 0;
    const std::string note = file + ".peak";
    result = in_child(prepare, [&] {
        return timed([&] {
            const pid_t pid = ::fork();
            if (pid == 0) {
                ::execlp("ip", "ip", "-batch", file.c_str(), static_cast<char*>(nullptr));
                std::_Exit(127);
            }
            int status = 0;
            rusage usage{};
            ::wait4(pid, &status, 0, &usage);
            std::ofstream(note) << static_cast<double>(usage.ru_maxrss) / 1024;
            return status == 0;
        });
    });
    std::ifstream(note) >> peak;
    result.peak_mb = peak;
    return result;
}

std::string work_dir() {
    static const std::string dir = [] {
        char name[] = "/tmp/tunnel_bench.XXXXXX";
        const char* made = ::mkdtemp(name);
        if (made == nullptr) std::abort();
        std::atexit([] { must("rm -rf /tmp/tunnel_bench." + work_dir().substr(work_dir().find('.') + 1)); });
        return std::string(made);
    }();
    return dir;
}

std::string dest(int i) {
    return "10." + std::to_string(i / 65536 % 256) + "." + std::to_string(i / 256 % 256) + "." +
           std::to_string(i % 256) + "/32";
}

std::string hops(int count, int generation, bool json) {
    std::string text;
    for (int i = 0; i < count; ++i) {
        const std::string gateway = "198.19." + std::to_string(generation) + "." + std::to_string(i + 1);
        if (json) {
            text += std::string(i > 0 ? ", \"" : "\"") + gateway + "\"";
        } else if (count == 1) {
            text += " via " + gateway + " dev tun5 onlink";
        } else {
            text += " nexthop via " + gateway + " dev tun5 weight " + std::to_string(i + 1) + " onlink";
        }
    }
    return text;
}

std::string write_document(int routes, int hop_count, int generation) {
    const std::string path = work_dir() + "/document.json";
    std::ofstream out(path);
    out << "{\"del\": [], \"add\": [\n";
    for (int i = 0; i < routes; ++i) {
        out << (i > 0 ? ",\n" : "") << R"({"SITE": "2", "DEST": ")" << dest(i) << R"(", "RTA_GATEWAY": [)"
            << hops(hop_count, generation, true) << R"(], "WEIGHT": [)"
            << (hop_count == 2 ? R"("1", "2")" : R"("1")") << "]}";
    }
    out << "\n]}\n";
    return path;
}

std::string write_batch(int routes, int hop_count, int generation) {
    const std::string path = work_dir() + "/batch" + std::to_string(generation);
    std::ofstream out(path);
    for (int i = 0; i < routes; ++i) {
        out << "route replace " << dest(i)
            << " table 10005 metric 2 proto static mtu lock 1342 advmss lock 1290"
            << hops(hop_count, generation, false) << "\n";
    }
    return path;
}

void add_tunnel() {
    must(
        "ip link add tun5 type veth peer name far5 && ip link set tun5 up && ip link set far5 up && "
        "ip addr add 198.19.0.50/32 dev tun5");
}

void report(benchmark::State& state, const Measured& ours, const Measured& ip, double items) {
    if (!ours.ok || !ip.ok) {
        state.SkipWithError(ours.ok ? "ip -batch failed" : "the call failed");
        return;
    }
    state.SetIterationTime(ours.seconds);
    state.counters["us_per_item"] = ours.seconds * 1e6 / items;
    state.counters["ip_us_per_item"] = ip.seconds * 1e6 / items;
    state.counters["ratio"] = ours.seconds / ip.seconds;
    state.counters["cpu_us_per_item"] = ours.cpu * 1e6 / items;
    state.counters["ip_cpu_us_per_item"] = ip.cpu * 1e6 / items;
    state.counters["cpu_ratio"] = ours.cpu / ip.cpu;
    state.counters["peak_mb"] = ours.peak_mb;
    state.counters["ip_peak_mb"] = ip.peak_mb;
}

// Arguments: routes, next hops of each, whether all of them are there already with other next hops.
void RouteDocument(benchmark::State& state) {
    const int routes = static_cast<int>(state.range(0));
    const int hop_count = static_cast<int>(state.range(1));
    const bool changed = state.range(2) != 0;
    const std::string old = write_batch(routes, hop_count, 0);
    const std::string batch = write_batch(routes, hop_count, 1);
    const std::string document = write_document(routes, hop_count, 1);
    const auto prepare = [&] {
        add_tunnel();
        if (changed) must("ip -batch " + old);
    };
    for (auto _ : state) {
        const Measured ip = ip_batch(prepare, batch);
        const Measured ours = in_child(prepare, [&] {
            return timed([&] {
                std::string ifname = "wan0", type = "s2s", conf = document;
                return setup_tun_route(ifname, type, conf) == 0;
            });
        });
        report(state, ours, ip, routes);
    }
}
BENCHMARK(RouteDocument)
    ->ArgNames({"routes", "hops", "changed"})
    ->ArgsProduct({{100, 1000, 10000, 100000}, {1, 2}, {0, 1}})
    ->UseManualTime()
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond);

// One more gateway for the default route of 15, which rebuilds it.
void DefaultRouteOf16Gateways(benchmark::State& state) {
    constexpr int kGateways = 16;
    const std::string batch = work_dir() + "/default";
    {
        std::ofstream out(batch);
        out << "route flush table 253 metric 100\nroute add default table 253 metric 100";
        for (int i = 0; i < kGateways; ++i) {
            out << " nexthop via 192.0." << i << ".1 dev wan" << i << " weight " << i + 1;
        }
        out << "\n";
    }
    const auto add = [](int i) {
        const std::string n = std::to_string(i);
        return add_default_gateway("wan" + n, "192.0." + n + ".1", static_cast<unsigned long>(i + 1)) == 0;
    };
    const auto prepare = [&] {
        for (int i = 0; i < kGateways; ++i) {
            const std::string n = std::to_string(i);
            must("ip link add wan" + n + " type veth peer name far" + n + " && ip link set far" + n +
                 " up && ip link set wan" + n + " up && ip addr add 192.0." + n + ".2/24 dev wan" + n);
        }
        for (int i = 0; i < kGateways - 1; ++i) add(i);
    };
    for (auto _ : state) {
        const Measured ip = ip_batch(prepare, batch);
        const Measured ours = in_child(prepare, [&] { return timed([&] { return add(kGateways - 1); }); });
        report(state, ours, ip, 1);
    }
}
BENCHMARK(DefaultRouteOf16Gateways)->UseManualTime()->Iterations(5)->Unit(benchmark::kMillisecond);

// The rules of 16 tunnels. `devices`: creating the tunnels too, which needs a kernel with ipip.
void SixteenTunnels(benchmark::State& state) {
    const bool devices = state.range(0) != 0;
    if (devices && std::system("unshare -n ip link add probe type ipip local 127.0.0.9 2>/dev/null") != 0) {
        state.SkipWithError("this kernel has no ipip");
        return;
    }
    const std::string batch = work_dir() + "/rules";
    {
        std::ofstream out(batch);
        for (int i = 1; i <= 16; ++i) {
            const std::string dev = "tun" + std::to_string(i);
            const std::string address = "198.19.0." + std::to_string(i);
            if (devices) {
                out << "link add " << dev << " mtu 1300 numtxqueues 1 numrxqueues 1 type ipip local "
                    << address << " remote any ttl inherit nopmtudisc encap gue encap-dport 5555\naddr add "
                    << address << "/32 dev " << dev << "\nlink set " << dev << " up\n";
            }
            out << "rule add prio " << 10000 + i << " fwmark " << i << "/0xf table " << 10000 + i
                << "\nrule add prio " << 10000 + i << " fwmark " << i << "/0xf table " << 15000 + i
                << "\nrule add prio " << 20000 + i << " from " << address << " table " << 20000 + i
                << "\nrule add prio " << 20000 + i << " oif " << dev << " table " << 20000 + i
                << "\nrule add prio " << 30000 + i << " table " << 30000 + i << "\n";
        }
    }
    const auto prepare = [&] {
        for (int i = 1; !devices && i <= 16; ++i) {
            must("ip link add tun" + std::to_string(i) + " type veth peer name far" + std::to_string(i));
        }
    };
    for (auto _ : state) {
        const Measured ip = ip_batch(prepare, batch);
        const Measured ours = in_child(prepare, [&] {
            return timed([&] {
                for (int i = 1; i <= 16; ++i) {
                    Json::Value wan;
                    wan["id"] = i;
                    wan["tun_addr"] = "198.19.0." + std::to_string(i);
                    Tun tunnel("eth0", wan, 1);
                    if ((devices ? tunnel.setup_tun(0) : tunnel.setup_tun_rule()) != 0) return false;
                }
                return true;
            });
        });
        report(state, ours, ip, 16);
    }
}
BENCHMARK(SixteenTunnels)
    ->ArgName("devices")
    ->Arg(0)
    ->Arg(1)
    ->UseManualTime()
    ->Iterations(5)
    ->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
    reopen_setup_logger("/dev/null");
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
