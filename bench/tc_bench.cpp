// What building traffic-control trees costs, beside "tc -batch" and beside the kernel alone, in one run.
//
//   trees    one HTB tree of 17 requests on one device, with 9, 99 and 999 links present, built
//              calls    by the exported functions, each with a socket of its own
//              session  by one session, as setup_qos builds it
//              batch    by one "tc -batch" process
//              raw      by the bytes of the session's requests in one datagram: what the kernel needs
//   shaping  setup_qos start, restart and stop on 16 interfaces, documents, log and all, beside the
//            same trees by "tc -batch"; and with receive rates, where the stated tc commands of ingress
//            limiting come on top. Needs fq and cls_fw (the device testbed).
//   gap      what a restart under traffic leaves an interface without: from the end of the old root to
//            the new one, and to the last filter, as the kernel announces them.
//
// The contestants take turns, so that all see the same machine; figures are medians in microseconds, of wall
// time and (shaping) of processor time, which is the one to look at on a machine that others use. Prints a
// table, and JSON to the file given as first argument. Needs root; works in namespaces of its own.

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/rtnetlink.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <functional>
#include <map>
#include <thread>

#include "corvosetup/qos.h"
#include "corvosetup/tc.h"
#include "foundation/json.h"
#include "netlink/raw_socket.h"
#include "netlink/tc_message.h"
#include "netlink/tc_session.h"
#include "support/isolation.h"
#include "support/kernel_feature.h"
#include "support/sandbox.h"

namespace {

using namespace corvo;
using Clock = std::chrono::steady_clock;
using Micros = std::chrono::duration<double, std::micro>;

constexpr int kClasses = 5;
constexpr uint32_t kRate = 1250000;

double timed(const std::function<void()>& body) {
    const auto begin = Clock::now();
    body();
    return Micros(Clock::now() - begin).count();
}

// Of this process and of the tools that it has waited for.
double cpu_micros() {
    double sum = 0;
    for (const int who : {RUSAGE_SELF, RUSAGE_CHILDREN}) {
        rusage usage{};
        ::getrusage(who, &usage);
        for (const timeval& time : {usage.ru_utime, usage.ru_stime})
            sum += static_cast<double>(time.tv_sec) * 1e6 + static_cast<double>(time.tv_usec);
    }
    return sum;
}

double median(std::vector<double> values) {
    std::nth_element(values.begin(), values.begin() + static_cast<long>(values.size() / 2), values.end());
    return values[values.size() / 2];
}

void must(int result, const char* what) {
    if (result == 0) return;
    std::fprintf(stderr, "%s: %d\n", what, result);
    std::exit(1);
}

// One "tc -batch" over a file. What it complains about (nothing to delete) goes nowhere: writing it would
// cost more than the work.
void batch(const std::string& file) {
    static const std::string tc = test::real_tool("tc");
    static const int nowhere = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    const pid_t pid = ::vfork();
    if (pid == 0) {
        ::dup2(nowhere, STDERR_FILENO);
        ::execl(tc.c_str(), "tc", "-force", "-batch", file.c_str(), nullptr);
        ::_exit(127);
    }
    int status = 0;
    ::waitpid(pid, &status, 0);
}

// --- One tree. Leaves and filters are of kinds that every kernel has.

std::string class_id(int k) {
    return "1:" + std::to_string(k) + "0";
}

U32QoSObj rule(int k) {
    U32QoSObj match{};
    match.prio = 1;
    match.protocol = 0x800;
    match.dport = static_cast<uint32_t>(5000 + k);
    return match;
}

template <class Qdisc, class Class, class Filter>
void build(Qdisc&& qdisc, Class&& add_class, Filter&& filter) {
    tc_options root{0x50, 0, 0, 0};
    must(qdisc("root", "1:", "htb", &root), "root");
    tc_options whole{0, kRate, kRate, 0};
    must(add_class("1:", "1:1", &whole), "root class");
    for (int k = 1; k <= kClasses; ++k) {
        tc_options options{0, kRate / 10, kRate, static_cast<uint32_t>(k)};
        must(add_class("1:1", class_id(k).c_str(), &options), "class");
    }
    for (int k = 1; k <= kClasses; ++k) {
        const std::string handle = "1" + std::to_string(k + 1) + "0:";
        must(qdisc(class_id(k).c_str(), handle.c_str(), "pfifo", nullptr), "leaf");
    }
    for (int k = 1; k <= kClasses; ++k) must(filter(class_id(k).c_str(), rule(k)), "filter");
}

void build_by_calls(const char* dev) {
    build([&](const char* parent, const char* handle, const char* kind,
              tc_options* options) { return setup_qdisc(dev, parent, handle, kind, options); },
          [&](const char* parent, const char* id, tc_options* options) {
              return setup_class(dev, parent, id, "htb", options);
          },
          [&](const char* id, U32QoSObj match) { return setup_u32_filter(dev, "1:", id, &match); });
}

void build_by_session(const char* dev) {
    tc::Session session(dev);
    build([&](const char* parent, const char* handle, const char* kind,
              tc_options* options) { return session.add_qdisc(parent, handle, kind, options); },
          [&](const char* parent, const char* id, tc_options* options) {
              return session.add_class(parent, id, "htb", options);
          },
          [&](const char* id, const U32QoSObj& match) { return session.add_u32_filter("1:", id, &match); });
}

std::vector<std::string> tree_commands(const std::string& dev) {
    std::vector<std::string> lines{
        "qdisc add dev " + dev + " root handle 1: htb default 50",
        "class add dev " + dev + " parent 1: classid 1:1 htb rate 10mbit ceil 10mbit"};
    const auto each = [&](const std::function<std::string(int)>& line) {
        for (int k = 1; k <= kClasses; ++k) lines.push_back(line(k));
    };
    each([&](int k) {
        return "class add dev " + dev + " parent 1:1 classid " + class_id(k) +
               " htb rate 1mbit ceil 10mbit prio " + std::to_string(k);
    });
    each([&](int k) {
        return "qdisc add dev " + dev + " parent " + class_id(k) + " handle 1" + std::to_string(k + 1) +
               "0: pfifo";
    });
    each([&](int k) {
        return "filter add dev " + dev + " parent 1: protocol ip prio 1 u32 match ip dport " +
               std::to_string(5000 + k) + " 0xffff classid " + class_id(k);
    });
    return lines;
}

// The session's requests behind one another.
std::vector<std::uint8_t> tree_bytes(int index) {
    std::vector<std::uint8_t> all;
    nl::MessageWriter message;
    const auto keep = [&] { all.insert(all.end(), message.bytes().begin(), message.bytes().end()); };
    const tc::Device device{index, 1500, 1'000'000'000};
    const auto id = [](int k) { return 0x10000U + 16U * static_cast<unsigned>(k); };
    tc::add_qdisc_message(message, {device, 0xffffffff, 0x10000}, "htb", 0x50);
    keep();
    tc::add_htb_class_message(message, {device, 0x10000, 0x10001}, {0, kRate, kRate, 0});
    keep();
    for (int k = 1; k <= kClasses; ++k) {
        tc::add_htb_class_message(message, {device, 0x10001, id(k)},
                                  {0, kRate / 10, kRate, static_cast<uint32_t>(k)});
        keep();
    }
    for (int k = 1; k <= kClasses; ++k) {
        tc::add_qdisc_message(message, {device, id(k), (0x110U + 16U * static_cast<unsigned>(k)) << 16},
                              "pfifo", 0);
        keep();
    }
    for (int k = 1; k <= kClasses; ++k) {
        const std::uint32_t target = id(k);
        tc::add_u32_message(message, {device, 0x10000, 0}, &target, rule(k));
        keep();
    }
    return all;
}

std::string lines_file(const std::string& name, const std::vector<std::string>& lines) {
    std::string text;
    for (const std::string& line : lines) text += line + "\n";
    const std::string path = test::scratch_dir() + "/" + name;
    test::write_file(path, text);
    return path;
}

long peak_kilobytes(int who) {
    rusage usage{};
    ::getrusage(who, &usage);
    return usage.ru_maxrss;
}

Json::Value measure_trees(int rounds) {
    Json::Value report(Json::arrayValue);
    std::printf("%-8s %10s %10s %10s %10s %9s %9s\n", "links", "calls", "session", "tc -batch", "raw",
                "calls/tc", "sess./tc");
    test::ip_batch({"link add eth1 type ifb", "link set eth1 up"});
    const auto bytes = tree_bytes(test::index_of("eth1"));
    const std::string file = lines_file("tree", tree_commands("eth1"));
    int present = 2;  // lo and eth1
    for (const int links : {9, 99, 999}) {
        std::vector<std::string> more;
        for (; present < links; ++present)
            more.push_back("link add l" + std::to_string(present) + " type ifb");
        test::ip_batch(more);
        std::map<std::string, std::vector<double>> times;
        std::unique_ptr<nl::RawSocket> raw;
        must(nl::RawSocket::open_as_result(raw), "socket");
        const std::vector<std::pair<std::string, std::function<void()>>> contestants{
            {"calls", [] { build_by_calls("eth1"); }},
            {"session", [] { build_by_session("eth1"); }},
            {"batch", [&] { batch(file); }},
            {"raw", [&] {
                 raw->send(bytes);
                 raw->drain();
             }}};
        for (int round = 0; round < rounds; ++round) {
            for (const auto& [name, body] : contestants) {
                times[name].push_back(timed(body));
                must(clean_qdisc("eth1", "root"), "clean");
            }
        }
        Json::Value row;
        row["links"] = links;
        for (const auto& [name, values] : times) row[name + "_us"] = median(values);
        row["calls_ratio"] = row["calls_us"].asDouble() / row["batch_us"].asDouble();
        row["session_ratio"] = row["session_us"].asDouble() / row["batch_us"].asDouble();
        std::printf("%-8d %10.0f %10.0f %10.0f %10.0f %9.2f %9.2f\n", links, row["calls_us"].asDouble(),
                    row["session_us"].asDouble(), row["batch_us"].asDouble(), row["raw_us"].asDouble(),
                    row["calls_ratio"].asDouble(), row["session_ratio"].asDouble());
        report.append(row);
    }
    return report;
}

// --- Sixteen interfaces

constexpr int kInterfaces = 16;

void write_device_document(const char* rx_rate) {
    Json::Value document;
    for (int i = 1; i <= kInterfaces; ++i) {
        Json::Value& wan = document["WAN_IFACE_INFO"]["eth" + std::to_string(i)];
        wan["ID"] = std::to_string(i);
        wan["RX_RATE"] = rx_rate;
        wan["TX_RATE"] = "10000000";
    }
    test::write_document("device_info.json", document);
}

std::vector<std::string> shaped_commands(const std::string& dev, bool ingress) {
    std::vector<std::string> lines;
    const char* rates[] = {"100kbit", "3mbit", "2mbit", "1mbit", "3900kbit"};
    const char* marks[] = {"0x3c0", "0x40", "0x80", "0xc0"};
    lines.push_back("qdisc add dev " + dev + " root handle 1: htb default 50");
    lines.push_back("class add dev " + dev + " parent 1: classid 1:1 htb rate 10mbit ceil 10mbit");
    for (int k = 1; k <= kClasses; ++k) {
        lines.push_back("class add dev " + dev + " parent 1:1 classid " + class_id(k) + " htb rate " +
                        rates[k - 1] + " ceil 10mbit prio " + std::to_string(k));
    }
    for (int k = 1; k <= kClasses; ++k) {
        lines.push_back("qdisc add dev " + dev + " parent " + class_id(k) + " handle 1" +
                        std::to_string(k + 1) + "0: fq");
    }
    for (int k = 1; k < kClasses; ++k) {
        lines.push_back("filter add dev " + dev + " parent 1: protocol all prio 100 handle " + marks[k - 1] +
                        "/0x3c0 fw classid " + class_id(k));
    }
    if (!ingress) return lines;
    const std::string ifb = "ifb" + std::to_string(std::stoi(dev.substr(3)) - 1);
    lines.push_back("qdisc add dev " + dev + " handle ffff: ingress");
    lines.push_back("filter add dev " + dev +
                    " parent ffff: protocol ip prio 1 u32 match u16 0x32 0xff at 8 flowid 0:0");
    lines.push_back("filter add dev " + dev +
                    " parent ffff: protocol ip u32 match u32 0 0 flowid 1:1 action "
                    "mirred egress redirect dev " +
                    ifb);
    lines.push_back("qdisc add dev " + ifb + " root handle 1: htb default 1");
    lines.push_back("class add dev " + ifb + " parent 1: classid 1:1 htb rate 20mbit ceil 20mbit");
    lines.push_back("qdisc add dev " + ifb + " parent 1:1 handle 10: fq");
    return lines;
}

std::vector<std::string> for_all(const std::function<std::vector<std::string>(const std::string&)>& lines) {
    std::vector<std::string> all;
    for (int i = 1; i <= kInterfaces; ++i) {
        const auto one = lines("eth" + std::to_string(i));
        all.insert(all.end(), one.begin(), one.end());
    }
    return all;
}

int shape(int op) {
    std::string dev = "all";
    std::string path;
    return setup_qos(op, dev, path, false);
}

Json::Value measure_shaping(int rounds, bool ingress) {
    write_device_document(ingress ? "20000000" : "0");
    const auto stop = [&](const std::string& dev) {
        return std::vector<std::string>{"qdisc del dev " + dev + " root",
                                        "qdisc del dev " + dev + " ingress"};
    };
    const auto start = [&](const std::string& dev) { return shaped_commands(dev, ingress); };
    const auto restart = [&](const std::string& dev) {
        auto lines = stop(dev);
        if (ingress)
            lines.push_back("qdisc del dev ifb" + std::to_string(std::stoi(dev.substr(3)) - 1) + " root");
        const auto rest = start(dev);
        lines.insert(lines.end(), rest.begin(), rest.end());
        return lines;
    };
    const std::string files[] = {lines_file("start", for_all(start)), lines_file("stop", for_all(stop)),
                                 lines_file("restart", for_all(restart))};
    const char* names[] = {"start", "stop", "restart"};
    struct Times {
        std::vector<double> wall;
        std::vector<double> cpu;
        void add(const std::function<void()>& body) {
            const double before = cpu_micros();
            wall.push_back(timed(body));
            cpu.push_back(cpu_micros() - before);
        }
    };
    Times ours[3];
    Times theirs[3];
    const auto clean = [&] {
        shape(1);
        for (int i = 0; i < kInterfaces; ++i) clean_qdisc(("ifb" + std::to_string(i)).c_str(), "root");
    };
    for (int round = 0; round < rounds; ++round) {
        clean();
        for (const int op : {0, 2, 1}) {
            int result = 0;
            ours[op].add([&] { result = shape(op); });
            must(result, names[op]);
        }
        clean();
        for (const int op : {0, 2, 1}) theirs[op].add([&] { batch(files[op]); });
    }
    Json::Value report;
    for (const int op : {0, 2, 1}) {
        const double us = median(ours[op].wall);
        const double tc = median(theirs[op].wall);
        const double cpu = median(ours[op].cpu);
        const double tc_cpu = median(theirs[op].cpu);
        Json::Value& row = report[names[op]];
        row["setup_qos_us"] = us;
        row["batch_us"] = tc;
        row["ratio"] = us / tc;
        row["setup_qos_cpu_us"] = cpu;
        row["batch_cpu_us"] = tc_cpu;
        row["cpu_ratio"] = cpu / tc_cpu;
        std::printf("%-9s %-8s %12.0f %12.0f %8.2f %12.0f %12.0f %8.2f\n", ingress ? "ingress" : "egress",
                    names[op], us, tc, us / tc, cpu, tc_cpu, cpu / tc_cpu);
    }
    clean();
    return report;
}

// --- The gap

// Notes when the kernel announces the end of the root, a new root, and the last filter.
class Watch {
public:
    explicit Watch(int index) : index_(index) {
        must(nl::RawSocket::open_as_result(socket_), "socket");
        sockaddr_nl any{};  // what is announced passes by a socket without an address
        any.nl_family = AF_NETLINK;
        must(::bind(socket_->fd(), reinterpret_cast<sockaddr*>(&any), sizeof any), "bind");
        const int group = RTNLGRP_TC;
        must(::setsockopt(socket_->fd(), SOL_NETLINK, NETLINK_ADD_MEMBERSHIP, &group, sizeof group), "join");
        const int room = 4 << 20;
        ::setsockopt(socket_->fd(), SOL_SOCKET, SO_RCVBUFFORCE, &room, sizeof room);
        thread_ = std::thread([this] { run(); });
    }
    ~Watch() { end(); }
    void end() {
        if (!thread_.joinable()) return;
        // The last thing to receive; what is on its way before it is still noted.
        setup_qdisc("lo", "root", "9:", "htb", nullptr);
        clean_qdisc("lo", "root");
        thread_.join();
    }
    double root_gap() const { return Micros(new_root_ - old_root_).count(); }
    double rebuild() const { return Micros(last_filter_ - old_root_).count(); }

private:
    void run() {
        while (!done_) {  // note() sees the end
            int error = 0;
            nl::Bytes datagram = socket_->receive(error);
            const auto now = Clock::now();
            nl::MessageView message;
            while (nl::next_message(datagram, message)) note(message, now);
        }
    }
    void note(const nl::MessageView& message, Clock::time_point now) {
        tcmsg head{};
        if (!message.read_header(head)) return;
        if (head.tcm_handle == 0x90000) done_ = true;
        if (head.tcm_ifindex != index_) return;
        const bool root = head.tcm_parent == 0xffffffff;
        // A new root ends the default one too, which has no handle.
        if (message.head.nlmsg_type == RTM_DELQDISC && root && head.tcm_handle == 0x10000) old_root_ = now;
        if (message.head.nlmsg_type == RTM_NEWQDISC && root && head.tcm_handle == 0x10000) new_root_ = now;
        if (message.head.nlmsg_type == RTM_NEWTFILTER) last_filter_ = now;
    }

    int index_;
    std::unique_ptr<nl::RawSocket> socket_;
    std::atomic<bool> done_{false};
    Clock::time_point old_root_, new_root_, last_filter_;
    std::thread thread_;
};

Json::Value measure_gap(int rounds) {
    write_device_document("0");
    must(shape(0), "start");
    std::atomic<bool> stop{false};
    std::thread traffic([&] {
        const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_in to{};
        to.sin_family = AF_INET;
        to.sin_port = htons(9);
        to.sin_addr.s_addr = htonl(0xc0000202);  // 192.0.2.2, through eth1
        const char packet[1000]{};
        while (!stop) {
            ::sendto(fd, packet, sizeof packet, 0, reinterpret_cast<sockaddr*>(&to), sizeof to);
            std::this_thread::sleep_for(std::chrono::microseconds(500));
        }
        ::close(fd);
    });
    std::vector<double> gaps;
    std::vector<double> rebuilds;
    std::string dev = "eth1";
    std::string path;
    for (int round = 0; round < rounds; ++round) {
        Watch watch(test::index_of("eth1"));
        must(setup_qos(2, dev, path, false), "restart");
        watch.end();
        gaps.push_back(watch.root_gap());
        rebuilds.push_back(watch.rebuild());
    }
    stop = true;
    traffic.join();
    shape(1);
    Json::Value report;
    report["without_root_ms"] = median(gaps) / 1000;
    report["without_root_worst_ms"] = *std::max_element(gaps.begin(), gaps.end()) / 1000;
    report["rebuild_ms"] = median(rebuilds) / 1000;
    std::printf("restart under traffic: %.2f ms without a root (worst %.2f), whole tree after %.2f ms\n",
                report["without_root_ms"].asDouble(), report["without_root_worst_ms"].asDouble(),
                report["rebuild_ms"].asDouble());
    return report;
}

Json::Value measure_wan(int rounds) {
    Json::Value report;
    for (const char* feature : {"fq", "fw", "ingress", "u32", "mirred"}) {
        std::string why;
        if (test::has_kernel_feature(feature, &why)) continue;
        std::printf("shaping and gap not measured: this kernel lacks %s\n", feature);
        report["not_measured"] = std::string("this kernel lacks ") + feature;
        return report;
    }
    std::vector<std::string> links;
    for (int i = 1; i <= kInterfaces; ++i) {
        const std::string number = std::to_string(i);
        links.push_back("link add eth" + number + " type veth peer name p" + number);
        links.push_back("link add ifb" + std::to_string(i - 1) + " type ifb");
        for (const std::string& name : {"eth" + number, "p" + number, "ifb" + std::to_string(i - 1)})
            links.push_back("link set " + name + " up");
    }
    links.push_back("addr add 192.0.2.1/24 dev eth1");
    links.push_back("neigh add 192.0.2.2 lladdr 02:00:00:00:00:02 dev eth1");
    test::ip_batch(links);
    test::write_document("qos.json", R"({"QOS":{"RATE":[30,20,10]}})");
    std::printf("%-9s %-8s %12s %12s %8s %12s %12s %8s   (us, %d interfaces)\n", "", "", "setup_qos",
                "tc -batch", "ratio", "its cpu", "tc's cpu", "ratio", kInterfaces);
    report["egress"] = measure_shaping(rounds, false);
    report["with_ingress"] = measure_shaping(std::max(1, rounds / 3), true);
    report["gap"] = measure_gap(std::max(20, rounds));
    return report;
}

}  // namespace

int main(int argc, char** argv) {
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    const int rounds = argc > 2 ? std::atoi(argv[2]) : 50;
    test::isolation::enter();
    test::isolation::build_view();
    test::isolation::renew();
    Json::Value report;
    report["trees"] = measure_trees(rounds);
    test::isolation::renew();
    report["wan"] = measure_wan(std::max(3, rounds / 5));
    report["peak_kb"] = Json::Int64(peak_kilobytes(RUSAGE_SELF));
    report["peak_kb_children"] = Json::Int64(peak_kilobytes(RUSAGE_CHILDREN));
    std::printf("peak memory: %ld KB, of tc %ld KB\n", peak_kilobytes(RUSAGE_SELF),
                peak_kilobytes(RUSAGE_CHILDREN));
    if (argc > 1) test::write_file(argv[1], write_json(report));
    return 0;
}
