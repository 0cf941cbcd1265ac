// What watching costs: 16 monitors (neighbour probe, queue monitor, UDP responder each) at their real periods
// in a network namespace with 3,000 neighbours, beside a shell script that pings and reads "ip neigh" at the
// same rate.
//
//   bench_monitor [--seconds N] [--links N] [--neighbours N] [--no-shell]
//
// Needs root. Defaults: 60 s, 16 links, 3,000 neighbours; an hour (--seconds 3600 --no-shell) shows growth.
// Prints CPU seconds, wake-ups (voluntary context switches), resident memory and descriptors. Exit status 1:
// the monitors took 0.2 % of a core or more, or grew.

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "corvosetup/log.h"
#include "corvosetup/wm_obj.h"

namespace {

struct Options {
    int seconds = 60;
    int links = 16;
    int neighbours = 3000;
    bool shell = true;
};

struct Usage {
    double cpu = 0;
    long wakeups = 0;
};

Usage used(int who) {
    rusage usage{};
    getrusage(who, &usage);
    const auto seconds = [](const timeval& time) {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
    };
    return {seconds(usage.ru_utime) + seconds(usage.ru_stime), usage.ru_nvcsw};
}

long resident_kb() {
    std::ifstream file("/proc/self/statm");
    long total = 0, resident = 0;
    file >> total >> resident;
    return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

long descriptors() {
    long count = 0;
    for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) ++count;
    return count;
}

void ip_batch(const std::string& commands) {
    FILE* pipe = popen("ip -batch -", "w");
    if (pipe == nullptr) std::exit(2);
    std::fwrite(commands.data(), 1, commands.size(), pipe);
    if (pclose(pipe) != 0) std::exit(2);
}

std::string gateway(int link) {
    return "10." + std::to_string(link) + ".0.1";
}

// The devices, and their neighbours spread evenly over them.
void build_network(const Options& options) {
    std::string commands = "link set lo up\n";
    for (int link = 0; link < options.links; ++link) {
        const std::string dev = "wan" + std::to_string(link);
        commands += "link add " + dev + " type veth peer name isp" + std::to_string(link) + "\n";
        commands += "addr add 10." + std::to_string(link) + ".0.2/16 dev " + dev + "\n";
        commands += "link set " + dev + " up\nlink set isp" + std::to_string(link) + " up\n";
        commands +=
            "neigh add " + gateway(link) + " lladdr 02:00:00:00:00:01 nud permanent dev " + dev + "\n";
    }
    for (int n = 0; n < options.neighbours; ++n) {
        const int link = n % options.links;
        commands += "neigh add 10." + std::to_string(link) + "." + std::to_string(1 + n / 250) + "." +
                    std::to_string(1 + n % 250) + " lladdr 02:00:00:00:00:02 nud permanent dev wan" +
                    std::to_string(link) + "\n";
    }
    ip_batch(commands);
}

void private_namespaces() {
    if (unshare(CLONE_NEWNET | CLONE_NEWNS) != 0) {
        std::perror("bench_monitor needs root: unshare");
        std::exit(2);
    }
    mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr);
    mount("tmpfs", "/run", "tmpfs", 0, nullptr);  // no services: nobody is asked while links are steady
    std::ofstream thresholds("/proc/sys/net/ipv4/neigh/default/gc_thresh3");
    thresholds << 65536;
}

void print(const char* what, const Usage& before, const Usage& after, int seconds) {
    const double cpu = after.cpu - before.cpu;
    std::printf("%-22s %8.3f CPU s  %7.4f %% of a core  %8ld wake-ups (%.1f per s)\n", what, cpu,
                100 * cpu / seconds, after.wakeups - before.wakeups,
                static_cast<double>(after.wakeups - before.wakeups) / seconds);
}

bool watch(const Options& options) {
    std::vector<std::unique_ptr<WmObj>> monitors;
    for (int link = 0; link < options.links; ++link) {
        WmObj* made = nullptr;
        if (Create_wm_obj(&made, "wan" + std::to_string(link), gateway(link), 1000, "LAN",
                          static_cast<unsigned char>(link)) != 0)
            std::exit(2);
        monitors.emplace_back(made)->start();
    }
    std::this_thread::sleep_for(std::chrono::seconds(5));  // the first reports are through
    const long memory = resident_kb();
    const long open = descriptors();
    const Usage before = used(RUSAGE_SELF);
    std::this_thread::sleep_for(std::chrono::seconds(options.seconds));
    const Usage after = used(RUSAGE_SELF);
    print("monitors", before, after, options.seconds);
    std::printf("%-22s %ld -> %ld kB resident, %ld -> %ld descriptors\n", "", memory, resident_kb(), open,
                descriptors());
    int connected = 0;
    for (auto& monitor : monitors) {
        const Json::Value state = monitor->get_state();
        connected += state[monitor->get_dev()]["ARP"]["stat"] == Json::Value(0);
    }
    std::printf("%-22s %d of %d links reported connected\n", "", connected, options.links);
    const bool grew = resident_kb() > memory + 1024 || descriptors() > open;
    return connected == options.links && !grew && (after.cpu - before.cpu) / options.seconds < 0.002;
}

// One process per link, as the trackers of small devices do it.
void shell(const Options& options) {
    // (nobody answers the pings: the wait for them costs no CPU, and keeps the rate at one round in 2 s)
    std::string script;
    for (int link = 0; link < options.links; ++link) {
        const std::string number = std::to_string(link);
        script += "(end=$(($(date +%s)+" + std::to_string(options.seconds) +
                  ")); while [ $(date +%s) -lt $end ]; do " + "ping -c 1 -W 1 -I wan" + number + " " +
                  gateway(link) + " >/dev/null 2>&1; ip neigh | grep -q '^" + gateway(link) +
                  " '; sleep 1; done) &\n";
    }
    script += "wait\n";
    const Usage before = used(RUSAGE_CHILDREN);
    if (std::system(script.c_str()) != 0) std::exit(2);
    print("shell script", before, used(RUSAGE_CHILDREN), options.seconds);
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    for (int i = 1; i < argc; ++i) {
        const std::string word = argv[i];
        const auto number = [&] { return i + 1 < argc ? std::atoi(argv[++i]) : 0; };
        if (word == "--seconds") options.seconds = number();
        if (word == "--links") options.links = number();
        if (word == "--neighbours") options.neighbours = number();
        if (word == "--no-shell") options.shell = false;
    }
    private_namespaces();
    reopen_setup_logger("/run/bench.log");
    build_network(options);
    std::printf("%d links, %d neighbours, %d s\n", options.links, options.neighbours, options.seconds);
    const bool good = watch(options);
    if (options.shell) shell(options);
    std::printf("%s\n", good ? "within the limits" : "NOT within the limits");
    return good ? 0 : 1;
}
