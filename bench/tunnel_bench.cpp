// Route documents, bringing tunnels up, the default route: side by side with "ip -batch" doing the same.
//
//     bench_tunnel [ROUNDS [SIZE...]]        default: 5 rounds, 100 1000 10000 100000 routes; 0: none
//
// Prints a table on standard error and a JSON report on standard output. Needs root; the rows that create
// tunnels need a kernel with ipip and GUE and are left out, saying so, where there is none. On the testbed:
//
//     tests/device/run-in-vm -- build/release/bench/bench_tunnel 5 0
//
// Measured is one call of the library, from reading and parsing the document to the last answer of the
// kernel, against one process "ip -batch FILE", from its start to its end: wall time and the processor time
// of user and kernel, per route (tunnel, change), and the peak of resident memory. Every measurement is a
// process of its own in a network namespace of its own; making that, the devices and the former routes is not
// measured. The two take turns, and of the rounds the medians count. On a machine that others use, the ratios
// of processor time are the ones to look at. "growth" is processor time per route against that of the first
// size. Afterwards both must have left the same routes and rules, as ip prints them.
//
// Documents are read from files (no configuration service answers here). What other services give is given
// here: the list of WAN links, the device's id, and the CPUs of a tunnel's queues, which stay as they are.
#include <fcntl.h>
#include <json/value.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <sstream>
#include <stdexcept>
#include <unordered_map>
#include <vector>

#include "corvosetup/log.h"
#include "corvosetup/route.h"
#include "corvosetup/tun.h"

using EntryMap = std::unordered_map<std::string, Json::Value>;

#define STRING_ABI "NSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE"
int bench_device_id() asm("__wrap__Z13get_device_idv");
int bench_device_id() {
    return 7;
}
int bench_cpus(std::string dev) asm("__wrap__Z10setup_cpus" STRING_ABI);
int bench_cpus(std::string) {
    return 0;
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

constexpr int kTunnels = 16;
constexpr int kGateways = 16;

void run(const std::string& command) {
    if (std::system(command.c_str()) != 0) throw std::runtime_error("failed: " + command);
}

// A directory that goes with the object.
class WorkDir {
public:
    WorkDir() {
        if (::mkdtemp(name_) == nullptr) throw std::runtime_error("no directory");
    }
    ~WorkDir() {
        std::error_code ignored;
        std::filesystem::remove_all(name_, ignored);
    }
    WorkDir(const WorkDir&) = delete;
    WorkDir& operator=(const WorkDir&) = delete;
    std::string operator/(const char* file) const { return std::string(name_) + "/" + file; }

private:
    char name_[32] = "/tmp/tunnel_bench.XXXXXX";
};

// What is done, by the library and by ip.
struct Work {
    std::string name;
    int items = 1;
    std::function<void()> prepare;  // devices and what was there before
    std::string batch;              // file for ip
    std::function<bool()> call;     // of the library
    std::string show;               // prints what must be the same afterwards
};

struct Measured {
    double wall = 0;  // seconds
    double cpu = 0;
    long peak_kb = 0;
    unsigned long left = 0;  // a sum over what is there afterwards
};

double cpu_of(const rusage& usage) {
    const auto seconds = [](const timeval& time) {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) * 1e-6;
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

void by_library(const Work& work, Measured& measured) {
    rusage before{}, after{};
    ::getrusage(RUSAGE_SELF, &before);
    if (!work.call()) throw std::runtime_error("the library's call failed");
    ::getrusage(RUSAGE_SELF, &after);
    measured.cpu = cpu_of(after) - cpu_of(before);
    measured.peak_kb = after.ru_maxrss;
}

void by_ip(const Work& work, Measured& measured) {
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::execlp("ip", "ip", "-batch", work.batch.c_str(), static_cast<char*>(nullptr));
        ::_exit(127);
    }
    int status = 0;
    rusage usage{};
    if (::wait4(pid, &status, 0, &usage) != pid || status != 0) throw std::runtime_error("ip failed");
    measured.cpu = cpu_of(usage);
    measured.peak_kb = usage.ru_maxrss;
}

unsigned long sum_of_output(const std::string& command) {
    FILE* out = ::popen((command + " | cksum").c_str(), "r");
    unsigned long sum = 0;
    const bool read = out != nullptr && std::fscanf(out, "%lu", &sum) == 1;
    if (out != nullptr) ::pclose(out);
    if (!read) throw std::runtime_error("failed: " + command);
    return sum;
}

// Runs in a child with a network namespace of its own.
Measured measure(const Work& work, bool library) {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("pipe");
    const pid_t pid = ::fork();
    if (pid == 0) {
        try {
            if (::unshare(CLONE_NEWNET) != 0) throw std::runtime_error("no namespace (not root?)");
            work.prepare();
            Measured measured;
            const auto start = std::chrono::steady_clock::now();
            (library ? by_library : by_ip)(work, measured);
            measured.wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
            measured.left = sum_of_output(work.show);
            if (::write(ends[1], &measured, sizeof measured) != sizeof measured) ::_exit(1);
            ::_exit(0);
        } catch (const std::exception& error) {
            std::fprintf(stderr, "%s: %s\n", work.name.c_str(), error.what());
            ::_exit(1);
        }
    }
    ::close(ends[1]);
    Measured measured;
    const bool good = ::read(ends[0], &measured, sizeof measured) == sizeof measured;
    ::close(ends[0]);
    int status = 0;
    ::waitpid(pid, &status, 0);
    if (!good) throw std::runtime_error(work.name + ": not measured");
    return measured;
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    const std::size_t middle = values.size() / 2;
    return values.size() % 2 == 1 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

// The rounds of one side.
struct Rounds {
    std::vector<double> wall, cpu, peak_mb;
    void add(const Measured& measured, int items) {
        wall.push_back(measured.wall * 1e6 / items);
        cpu.push_back(measured.cpu * 1e6 / items);
        peak_mb.push_back(static_cast<double>(measured.peak_kb) / 1024);
    }
    std::string json() const {
        std::ostringstream out;
        out << "{\"wall_us\": " << median(wall) << ", \"cpu_us\": " << median(cpu)
            << ", \"peak_mb\": " << median(peak_mb) << "}";
        return out.str();
    }
};

class Report {
public:
    explicit Report(int rounds) : rounds_(rounds) {
        std::fprintf(stderr, "%-40s %31s | %23s | %11s |\n%-40s %7s %7s %6s %8s | %7s %7s %7s | %5s %5s |\n",
                     "", "library", "ip -batch", "ratio", "", "wall us", "cpu us", "growth", "peak MB",
                     "wall us", "cpu us", "peak MB", "wall", "cpu");
    }

    // `family`: rows whose growth is told from the first of them.
    void add(const Work& work, const std::string& family) {
        Rounds library, ip;
        for (int round = 0; round < rounds_; ++round) {
            const Measured theirs = measure(work, false), ours = measure(work, true);
            if (ours.left != theirs.left) throw std::runtime_error(work.name + ": the outcomes differ");
            library.add(ours, work.items);
            ip.add(theirs, work.items);
        }
        const double wall = median(library.wall), cpu = median(library.cpu);
        const double growth = cpu / first_.emplace(family, cpu).first->second;
        const double wall_ratio = wall / median(ip.wall), cpu_ratio = cpu / median(ip.cpu);
        std::fprintf(stderr, "%-40s %7.2f %7.2f %6.2f %8.1f | %7.2f %7.2f %7.1f | %5.2f %5.2f |\n",
                     work.name.c_str(), wall, cpu, growth, median(library.peak_mb), median(ip.wall),
                     median(ip.cpu), median(ip.peak_mb), wall_ratio, cpu_ratio);
        std::ostringstream row;
        row << (json_.empty() ? "" : ",\n") << "  {\"what\": \"" << work.name
            << "\", \"items\": " << work.items << ",\n   \"library\": " << library.json()
            << ",\n   \"ip_batch\": " << ip.json() << ",\n   \"growth\": " << growth
            << ", \"wall_ratio\": " << wall_ratio << ", \"cpu_ratio\": " << cpu_ratio << "}";
        json_ += row.str();
    }

    void print() const { std::printf("[\n%s\n]\n", json_.c_str()); }

private:
    int rounds_;
    std::map<std::string, double> first_;
    std::string json_;
};

std::string destination(int i) {
    return "10." + std::to_string(i / 65536 % 256) + "." + std::to_string(i / 256 % 256) + "." +
           std::to_string(i % 256) + "/32";
}

std::string gateway(int generation, int hop) {
    return "198.19." + std::to_string(generation) + "." + std::to_string(hop + 1);
}

void write_document(const std::string& path, int routes, int hops, int generation) {
    std::ofstream out(path);
    out << "{\"del\": [], \"add\": [\n";
    for (int i = 0; i < routes; ++i) {
        out << (i > 0 ? ",\n" : "") << R"({"SITE": "2", "DEST": ")" << destination(i)
            << R"(", "RTA_GATEWAY": [)";
        for (int hop = 0; hop < hops; ++hop)
            out << (hop > 0 ? ", \"" : "\"") << gateway(generation, hop) << '"';
        out << R"(], "WEIGHT": [)" << (hops == 2 ? R"("1", "2")" : R"("1")") << "]}";
    }
    out << "\n]}\n";
}

void write_batch(const std::string& path, int routes, int hops, int generation) {
    std::ofstream out(path);
    for (int i = 0; i < routes; ++i) {
        out << "route replace " << destination(i)
            << " table 10005 metric 2 proto static mtu lock 1342 advmss lock 1290";
        for (int hop = 0; hop < hops; ++hop) {
            if (hops > 1) out << " nexthop";
            out << " via " << gateway(generation, hop) << " dev tun5";
            if (hops > 1) out << " weight " << hop + 1;
            out << " onlink";
        }
        out << "\n";
    }
}

Work route_document(const WorkDir& dir, int routes, int hops, bool changed) {
    const std::string former = dir / "former", batch = dir / "batch", document = dir / "document.json";
    write_batch(former, routes, hops, 0);
    write_batch(batch, routes, hops, 1);
    write_document(document, routes, hops, 1);
    std::string name =
        std::to_string(routes) + (hops == 1 ? " routes, 1 next hop, " : " routes, 2 next hops, ");
    name += changed ? "changed" : "fresh";
    return {name,
            routes,
            [=] {
                run("ip link add tun5 type veth peer name far5 && ip link set tun5 up && "
                    "ip link set far5 up && ip addr add 198.19.0.50/32 dev tun5");
                if (changed) run("ip -batch " + former);
            },
            batch,
            [=] {
                std::string ifname = "wan0", type = "s2s", conf = document;
                return setup_tun_route(ifname, type, conf) == 0;
            },
            "ip -4 route show table 10005"};
}

// The default route of 16 gateways after one more came to 15.
Work default_route(const WorkDir& dir) {
    const std::string batch = dir / "default";
    std::ofstream out(batch);
    out << "route flush table 253 metric 100\nroute add default table 253 metric 100 proto static";
    for (int i = 0; i < kGateways; ++i) {
        out << " nexthop via 192.0." << i << ".1 dev wan" << i << " weight " << i + 1;
    }
    out << "\n";
    const auto add = [](int i) {
        const std::string n = std::to_string(i);
        return add_default_gateway("wan" + n, "192.0." + n + ".1", static_cast<unsigned long>(i + 1)) == 0;
    };
    return {"default route, gateway 16 comes",
            1,
            [=] {
                for (int i = 0; i < kGateways; ++i) {
                    const std::string n = std::to_string(i);
                    run("ip link add wan" + n + " type veth peer name far" + n + " && ip link set far" + n +
                        " up && ip link set wan" + n + " up && ip addr add 192.0." + n + ".2/24 dev wan" + n);
                }
                for (int i = 0; i < kGateways - 1; ++i) add(i);
            },
            batch,
            [=] { return add(kGateways - 1); },
            "ip -4 route show table 253"};
}

// The rules of 16 tunnels, with or without the tunnels themselves.
Work tunnels(const WorkDir& dir, bool devices) {
    const std::string batch = dir / "rules";
    std::ofstream out(batch);
    for (int i = 1; i <= kTunnels; ++i) {
        const std::string dev = "tun" + std::to_string(i), address = "198.19.0." + std::to_string(i);
        if (devices) {
            out << "link add " << dev << " mtu 1300 numtxqueues 1 numrxqueues 1 type ipip local " << address
                << " remote any ttl inherit nopmtudisc encap gue encap-dport 5555\naddr add " << address
                << "/32 dev " << dev << "\nlink set " << dev << " up\n";
        }
        out << "rule add prio " << 10000 + i << " fwmark " << i << "/0xf table " << 10000 + i
            << "\nrule add prio " << 10000 + i << " fwmark " << i << "/0xf table " << 15000 + i
            << "\nrule add prio " << 20000 + i << " from " << address << " table " << 20000 + i
            << "\nrule add prio " << 20000 + i << " oif " << dev << " table " << 20000 + i
            << "\nrule add prio " << 30000 + i << " table " << 30000 + i << "\n";
    }
    return {
        devices ? "16 tunnels with their rules" : "rules of 16 tunnels",
        kTunnels,
        [=] {
            for (int i = 1; !devices && i <= kTunnels; ++i) {
                run("ip link add tun" + std::to_string(i) + " type veth peer name far" + std::to_string(i));
            }
        },
        batch,
        [=] {
            for (int i = 1; i <= kTunnels; ++i) {
                Json::Value wan;
                wan["id"] = i;
                wan["tun_addr"] = "198.19.0." + std::to_string(i);
                Tun tunnel("eth0", wan, 1);
                if ((devices ? tunnel.setup_tun(0) : tunnel.setup_tun_rule()) != 0) return false;
            }
            return true;
        },
        devices ? "(ip rule; ip -br -4 addr)" : "ip rule"};
}

// What the start of ip alone takes, to be thought off the small rows.
Work nothing(const WorkDir& dir) {
    std::ofstream(dir / "nothing");
    return {"nothing", 1, [] {}, dir / "nothing", [] { return true; }, "ip rule"};
}

}  // namespace

int main(int argc, char** argv) {
    reopen_setup_logger("/dev/null");
    const int rounds = argc > 1 ? std::max(1, std::atoi(argv[1])) : 5;
    std::vector<int> sizes;
    for (int i = 2; i < argc; ++i) sizes.push_back(std::atoi(argv[i]));
    if (sizes.empty()) sizes = {100, 1000, 10000, 100000};
    std::erase(sizes, 0);
    try {
        const WorkDir dir;
        Report report(rounds);
        for (const int hops : {1, 2}) {
            for (const bool changed : {false, true}) {
                const std::string family = std::to_string(hops) + (changed ? "changed" : "fresh");
                for (const int size : sizes) report.add(route_document(dir, size, hops, changed), family);
            }
        }
        report.add(default_route(dir), "default");
        report.add(tunnels(dir, false), "rules");
        if (std::system("modprobe -q ipip; modprobe -q fou; unshare -n ip link add probe type ipip local "
                        "127.0.0.9 encap gue encap-dport 5555 2>/dev/null") == 0) {
            report.add(tunnels(dir, true), "tunnels");
        } else {
            std::fprintf(stderr,
                         "16 tunnels with their rules: not here, this kernel has no ipip or no GUE\n");
        }
        report.add(nothing(dir), "nothing");
        report.print();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s\n", error.what());
        return 1;
    }
    return 0;
}
