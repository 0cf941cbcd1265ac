// Routes into the kernel: edit_route, the route session, "ip -batch" and the raw limit, side by side.
//
// Wall time and processor time per route (all the kernel's work is done inside the caller's system calls); on
// a machine that others use, the ratios of processor time are the ones to look at. Every measurement runs in
// network namespaces of its own (needs root), all means one after the other for each size and kind, several
// rounds in turn, of which the best counts: the machine may be busy, and only ratios of one run mean
// something. Kinds: a fresh table, and all routes changed; one and two next hops. Prints a table on standard
// error and a JSON report on standard output.
//
//     bench_routes [ROUNDS [SIZE...]]        default: 3 rounds, 100 1000 10000 100000

#include <sched.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <map>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "corvosetup/routing.h"
#include "foundation/text.h"
#include "netlink/route_session.h"

namespace {

using namespace corvo::nl;

constexpr int kTable = 10005;
constexpr int kPriority = 7;
constexpr int kMtu = 1342;
constexpr const char* kBatchFile = "/tmp/corvo-routes-bench";

struct Kind {
    int size;
    int hops;
    bool changed;
};

std::string destination(int i) {
    return "10." + std::to_string(i >> 16) + "." + std::to_string((i >> 8) & 255) + "." +
           std::to_string(i & 255);
}

void run(const std::string& command) {
    if (std::system(command.c_str()) != 0) throw std::runtime_error(command);
}

// A record and its next hops on the stack.
struct Record {
    Record(int i, int hops, int mtu) {
        record.table = kTable;
        record.priority = kPriority;
        record.lock = 0x104;
        record.mtu = mtu;
        record.advmss = 1290;
        corvo::copy_text(record.dst, destination(i));
        for (int h = 0; h < hops; ++h) {
            corvo::copy_text(hop[h].gw, h == 0 ? "192.0.2.2" : "192.0.2.3");
            corvo::copy_text(hop[h].dev, "v0");
            hop[h].onlink = 1;
            if (hops > 1) hop[h].weight = h + 1;
            hop[h].next = h + 1 < hops ? &hop[h + 1] : nullptr;
        }
        record.nexthops = hop;
    }
    route_conf record{};
    nexthop hop[2]{};
};

void by_edit_route(const Kind& kind, int mtu) {
    for (int i = 0; i < kind.size; ++i) {
        Record record(i, kind.hops, mtu);
        if (edit_route(0, &record.record) != 0) throw std::runtime_error("edit_route");
    }
}

void by_session(const Kind& kind, int mtu) {
    RouteSession session;
    if (session.open() != 0) throw std::runtime_error("open");
    for (int i = 0; i < kind.size; ++i) {
        Record record(i, kind.hops, mtu);
        session.submit(0, record.record);
    }
    for (const int result : session.finish()) {
        if (result != 0) throw std::runtime_error("session");
    }
}

void write_batch(const Kind& kind, int mtu) {
    std::ofstream out(kBatchFile);
    for (int i = 0; i < kind.size; ++i) {
        out << "route replace table " << kTable << " " << destination(i) << "/32 proto static metric "
            << kPriority << " mtu lock " << mtu << " advmss lock 1290";
        if (kind.hops == 1) {
            out << " via 192.0.2.2 dev v0 onlink\n";
        } else {
            out << " nexthop via 192.0.2.2 dev v0 weight 1 onlink nexthop via 192.0.2.3 dev v0 weight 2 "
                   "onlink\n";
        }
    }
}

void by_ip_batch(const Kind&, int) {
    run(std::string("ip -batch ") + kBatchFile);
}

// What the kernel needs when everything is prepared: messages built beforehand, a hundred pairs of removal
// and addition to a datagram. (Into an empty table the session can do with less: there it leaves the removals
// out.)
struct Prepared {
    std::vector<std::vector<std::uint8_t>> datagrams;
    std::vector<std::uint32_t> last;
};

Prepared prepare(const Kind& kind, int mtu) {
    Prepared out;
    RouteSession session;
    if (session.open() != 0) throw std::runtime_error("open");
    const auto index = [&](const char* name) { return session.socket().link_index(name); };
    MessageWriter batch;
    RouteSpec spec;
    for (int i = 0; i < kind.size; ++i) {
        Record record(i, kind.hops, mtu);
        if (read_record(record.record, 0, index, spec) != 0) throw std::runtime_error("record");
        const bool last = i % 100 == 99 || i + 1 == kind.size;
        build_delete_any(batch, spec.key);
        const std::size_t at = batch.size();
        build_add_route(batch, spec, last ? NLM_F_ACK : 0);
        if (!last) continue;
        const std::uint32_t sequence = static_cast<std::uint32_t>(i) + 1;
        std::memcpy(batch.data() + at + 8, &sequence, sizeof sequence);
        out.datagrams.emplace_back(batch.bytes().begin(), batch.bytes().end());
        out.last.push_back(sequence);
        batch.clear();
    }
    return out;
}

void by_raw_limit(const Prepared& prepared) {
    std::unique_ptr<RawSocket> socket;
    if (RawSocket::open(socket) != RawSocket::Opened::kYes) throw std::runtime_error("open");
    socket->prepare_for_many(1 << 20);
    for (std::size_t i = 0; i < prepared.datagrams.size(); ++i) {
        if (!socket->send(prepared.datagrams[i])) throw std::runtime_error("send");
        for (bool done = false; !done;) {
            int error = 0;
            Bytes answer = socket->receive(error);
            if (error != 0) throw std::runtime_error("receive");
            MessageView message;
            while (next_message(answer, message)) done = done || message.head.nlmsg_seq == prepared.last[i];
        }
    }
}

struct Measured {
    double seconds = 0;
    double cpu = 0;    // seconds of processor time, tools that were run included
    long peak_kb = 0;  // more resident memory at the end of the run than before it
};

double timed(const std::function<void()>& body) {
    const auto start = std::chrono::steady_clock::now();
    body();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

double cpu_seconds() {
    double sum = 0;
    for (const int who : {RUSAGE_SELF, RUSAGE_CHILDREN}) {
        rusage usage{};
        ::getrusage(who, &usage);
        for (const timeval& time : {usage.ru_utime, usage.ru_stime}) {
            sum += static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) * 1e-6;
        }
    }
    return sum;
}

long peak_memory() {
    rusage self{};
    rusage children{};
    ::getrusage(RUSAGE_SELF, &self);
    ::getrusage(RUSAGE_CHILDREN, &children);
    return std::max(self.ru_maxrss, children.ru_maxrss);
}

int count_routes() {
    FILE* out =
        ::popen(("ip -4 route show table " + std::to_string(kTable) + " | grep -c '^[0-9]'").c_str(), "r");
    int count = -1;
    if (!out || std::fscanf(out, "%d", &count) != 1) count = -1;
    if (out) ::pclose(out);
    return count;
}

// One measurement, in a child with a namespace of its own.
Measured measure(const std::string& means, const Kind& kind) {
    int ends[2];
    if (::pipe(ends) != 0) throw std::runtime_error("pipe");
    const pid_t child = ::fork();
    if (child == 0) {
        try {
            if (::unshare(CLONE_NEWNET) != 0) throw std::runtime_error("unshare");
            run("ip link set lo up && ip link add v0 type veth peer name v1 && ip link set v0 up && "
                "ip link set v1 up && ip addr add 192.0.2.1/24 dev v0");
            auto apply = [&](int mtu) {
                Measured result;
                Prepared prepared;
                if (means == "ip_batch") write_batch(kind, mtu);
                if (means == "raw_limit") prepared = prepare(kind, mtu);
                const long before = peak_memory();
                const double cpu = cpu_seconds();
                result.seconds = timed([&] {
                    if (means == "edit_route") by_edit_route(kind, mtu);
                    if (means == "session") by_session(kind, mtu);
                    if (means == "ip_batch") by_ip_batch(kind, mtu);
                    if (means == "raw_limit") by_raw_limit(prepared);
                });
                result.cpu = cpu_seconds() - cpu;
                result.peak_kb = peak_memory() - before;
                return result;
            };
            Measured result = apply(kMtu);
            if (kind.changed) result = apply(kMtu + 32);
            if (count_routes() != kind.size) throw std::runtime_error("the table is not as expected");
            if (::write(ends[1], &result, sizeof result) != sizeof result) throw std::runtime_error("write");
            ::_exit(0);
        } catch (const std::exception& error) {
            std::fprintf(stderr, "%s: %s\n", means.c_str(), error.what());
            ::_exit(1);
        }
    }
    ::close(ends[1]);
    Measured result;
    const bool good = ::read(ends[0], &result, sizeof result) == sizeof result;
    ::close(ends[0]);
    int status = 0;
    ::waitpid(child, &status, 0);
    if (!good) throw std::runtime_error(means + " failed");
    return result;
}

}  // namespace

int main(int argc, char** argv) {
    const int rounds = argc > 1 ? std::atoi(argv[1]) : 3;
    std::vector<int> sizes;
    for (int i = 2; i < argc; ++i) sizes.push_back(std::atoi(argv[i]));
    if (sizes.empty()) sizes = {100, 1000, 10000, 100000};
    const std::vector<std::string> all = {"ip_batch", "edit_route", "session", "raw_limit"};

    std::string json;
    std::map<std::string, double> first;  // processor time per route at the first size, for the growth
    std::fprintf(stderr, "%21s |", "");
    for (const std::string& means : all) std::fprintf(stderr, " %-41s |", means.c_str());
    std::fprintf(stderr, "\n%7s %4s %8s |", "routes", "hops", "table");
    for (std::size_t i = 0; i < all.size(); ++i) {
        std::fprintf(stderr, " %7s %7s %5s %5s %5s %6s |", "wall us", "cpu us", "ratio", "(cpu)", "grown",
                     "peakkB");
    }
    std::fprintf(stderr, "\n");
    try {
        for (const int hops : {1, 2}) {
            for (const bool changed : {false, true}) {
                for (const int size : sizes) {
                    const Kind kind{size, hops, changed};
                    std::map<std::string, Measured> best;
                    for (int round = 0; round < rounds; ++round) {
                        for (const std::string& means : all) {
                            const Measured now = measure(means, kind);
                            Measured& kept = best[means];
                            if (round == 0) kept = now;
                            kept.seconds = std::min(kept.seconds, now.seconds);
                            kept.cpu = std::min(kept.cpu, now.cpu);
                            kept.peak_kb = std::max(kept.peak_kb, now.peak_kb);
                        }
                    }
                    auto wall = [&](const std::string& means) { return best[means].seconds * 1e6 / size; };
                    auto cpu = [&](const std::string& means) { return best[means].cpu * 1e6 / size; };
                    auto growth = [&](const std::string& means) {
                        const std::string key = means + std::to_string(hops) + std::to_string(changed);
                        return cpu(means) / first.emplace(key, cpu(means)).first->second;
                    };
                    std::ostringstream entry;
                    entry << (json.empty() ? "" : ",\n") << "  {\"routes\": " << size
                          << ", \"hops\": " << hops << ", \"changed\": " << (changed ? "true" : "false");
                    std::fprintf(stderr, "%7d %4d %7s |", size, hops, changed ? "changed" : "fresh");
                    for (const std::string& means : all) {
                        const double wall_ratio = wall(means) / wall("ip_batch");
                        const double cpu_ratio = cpu(means) / cpu("ip_batch");
                        const double grown = growth(means);
                        std::fprintf(stderr, " %7.2f %7.2f %5.2f %5.2f %5.2f %6ld |", wall(means), cpu(means),
                                     wall_ratio, cpu_ratio, grown, best[means].peak_kb);
                        entry << ",\n   \"" << means << "\": {\"wall_us\": " << wall(means)
                              << ", \"cpu_us\": " << cpu(means) << ", \"wall_ratio\": " << wall_ratio
                              << ", \"cpu_ratio\": " << cpu_ratio << ", \"cpu_growth\": " << grown
                              << ", \"peak_kb\": " << best[means].peak_kb << "}";
                    }
                    std::fprintf(stderr, "\n");
                    entry << "}";
                    json += entry.str();
                }
            }
        }
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s\n", error.what());
        ::unlink(kBatchFile);
        return 1;
    }
    ::unlink(kBatchFile);
    std::printf("[\n%s\n]\n", json.c_str());
    return 0;
}
