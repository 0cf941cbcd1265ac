// What a service call costs, beside a plain echo over a Unix socket in the same run.
//
// Three exchanges for each message size, all with one caller and one server thread:
//   call      vx_io_create ... vx_call ... vx_io_free against vx::Server
//   connect   a bare blocking echo that connects for each message, as a call does
//   kept      a bare blocking echo over one connection that is kept, the least that two processes can pay
// Each reports calls per second and the 50th and 99th percentile in microseconds. "vx_ratio" at the end runs
// the first two by turns, so that both see the same machine, and reports the ratio of their means and of
// their p99.

#include <benchmark/benchmark.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "foundation/fd.h"
#include "vx.h"
#include "vx_serve.h"

namespace {

using Clock = std::chrono::steady_clock;
using corvo::UniqueFd;

void require(bool condition, const char* what) {
    if (condition) return;
    std::perror(what);
    std::exit(1);
}

// The directory of all sockets of the run.
const std::string& directory() {
    static const std::string made = [] {
        char name[] = "/tmp/vx_bench.XXXXXX";
        require(::mkdtemp(name) != nullptr, "mkdtemp");
        ::setenv("VX_RUNTIME_DIR", name, 1);
        return std::string(name);
    }();
    return made;
}

bool send_all(int fd, const char* data, std::size_t size) {
    while (size > 0) {
        const ssize_t sent = ::send(fd, data, size, MSG_NOSIGNAL);
        if (sent <= 0) return false;
        data += sent;
        size -= static_cast<std::size_t>(sent);
    }
    return true;
}

bool receive_all(int fd, char* data, std::size_t size) {
    while (size > 0) {
        const ssize_t got = ::recv(fd, data, size, 0);
        if (got <= 0) return false;
        data += got;
        size -= static_cast<std::size_t>(got);
    }
    return true;
}

// Echoes messages of one size; a new connection for each, or as many as come on one.
class PlainEcho {
public:
    explicit PlainEcho(std::size_t size)
        : size_(size), listener_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        address_.sun_family = AF_UNIX;
        const std::string path =
            directory() + "/plain" + std::to_string(size) + "." + std::to_string(count_++);
        std::strncpy(address_.sun_path, path.c_str(), sizeof address_.sun_path - 1);
        require(::bind(listener_.get(), reinterpret_cast<sockaddr*>(&address_), sizeof address_) == 0,
                "bind");
        require(::listen(listener_.get(), 16) == 0, "listen");
        thread_ = std::thread([this] { serve(); });
    }
    ~PlainEcho() {
        ::shutdown(listener_.get(), SHUT_RDWR);
        thread_.join();
        ::unlink(address_.sun_path);
    }

    UniqueFd connect() const {
        UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        require(::connect(fd.get(), reinterpret_cast<const sockaddr*>(&address_), sizeof address_) == 0,
                "connect");
        return fd;
    }

private:
    void serve() {
        std::vector<char> buffer(size_);
        for (;;) {
            const UniqueFd client(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
            if (!client) return;
            while (receive_all(client.get(), buffer.data(), size_) &&
                   send_all(client.get(), buffer.data(), size_)) {
            }
        }
    }

    static inline int count_ = 0;
    std::size_t size_;
    sockaddr_un address_{};
    UniqueFd listener_;
    std::thread thread_;
};

void serve_echo(vx::Server& server) {
    server.handle("echo", "echo",
                  [](const vx::Call& call) { return vx::Reply::text(std::string(call.payload)); });
}

double vx_exchange(const std::string& text) {
    const auto begun = Clock::now();
    void* io = vx_io_create();
    vx_io_printf(io, "%s", text.c_str());
    require(vx_call("echo", "echo", io, 5, -1) == 0, "vx_call");
    std::uint64_t length = 0;
    benchmark::DoNotOptimize(vx_io_read(io, &length));
    vx_io_free(io);
    require(length == text.size(), "length");
    return std::chrono::duration<double, std::micro>(Clock::now() - begun).count();
}

double plain_exchange(const PlainEcho& echo, const std::string& text, std::vector<char>& buffer) {
    const auto begun = Clock::now();
    const UniqueFd fd = echo.connect();
    require(send_all(fd.get(), text.data(), text.size()), "send");
    require(receive_all(fd.get(), buffer.data(), buffer.size()), "receive");
    return std::chrono::duration<double, std::micro>(Clock::now() - begun).count();
}

double percentile(std::vector<double>& times, double share) {
    if (times.empty()) return 0;
    const auto at = static_cast<std::size_t>(share * static_cast<double>(times.size() - 1));
    std::nth_element(times.begin(), times.begin() + static_cast<std::ptrdiff_t>(at), times.end());
    return times[at];
}

double mean(const std::vector<double>& times) {
    double sum = 0;
    for (const double time : times) sum += time;
    return times.empty() ? 0 : sum / static_cast<double>(times.size());
}

void report(benchmark::State& state, std::vector<double>& times) {
    state.counters["calls_per_s"] = 1e6 / mean(times);
    state.counters["p50_us"] = percentile(times, 0.5);
    state.counters["p99_us"] = percentile(times, 0.99);
}

std::string message(const benchmark::State& state) {
    return std::string(static_cast<std::size_t>(state.range(0)), 'x');
}

void vx_calls(benchmark::State& state) {
    directory();
    const vx::ServerThread server(serve_echo);
    const std::string text = message(state);
    std::vector<double> times;
    for (auto _ : state) times.push_back(vx_exchange(text));
    report(state, times);
}

void plain_connect(benchmark::State& state) {
    const std::string text = message(state);
    const PlainEcho echo(text.size());
    std::vector<char> buffer(text.size());
    std::vector<double> times;
    for (auto _ : state) times.push_back(plain_exchange(echo, text, buffer));
    report(state, times);
}

void plain_kept(benchmark::State& state) {
    const std::string text = message(state);
    const PlainEcho echo(text.size());
    const UniqueFd fd = echo.connect();
    std::vector<char> buffer(text.size());
    std::vector<double> times;
    for (auto _ : state) {
        const auto begun = Clock::now();
        require(send_all(fd.get(), text.data(), text.size()), "send");
        require(receive_all(fd.get(), buffer.data(), buffer.size()), "receive");
        times.push_back(std::chrono::duration<double, std::micro>(Clock::now() - begun).count());
    }
    report(state, times);
}

void vx_ratio(benchmark::State& state) {
    directory();
    const vx::ServerThread server(serve_echo);
    const std::string text = message(state);
    const PlainEcho echo(text.size());
    std::vector<char> buffer(text.size());
    std::vector<double> ours;
    std::vector<double> plain;
    for (auto _ : state) {
        ours.push_back(vx_exchange(text));
        plain.push_back(plain_exchange(echo, text, buffer));
    }
    state.counters["mean_ratio"] = mean(ours) / mean(plain);
    state.counters["p50_ratio"] = percentile(ours, 0.5) / percentile(plain, 0.5);
    state.counters["p99_ratio"] = percentile(ours, 0.99) / percentile(plain, 0.99);
}

void sizes(benchmark::internal::Benchmark* benchmark) {
    for (const long size : {64L, 1024L, 65536L, 1048576L}) benchmark->Arg(size);
    benchmark->UseRealTime();
}

BENCHMARK(vx_calls)->Apply(sizes);
BENCHMARK(plain_connect)->Apply(sizes);
BENCHMARK(plain_kept)->Apply(sizes);
BENCHMARK(vx_ratio)->Apply(sizes);

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    std::filesystem::remove_all(directory());
    return 0;
}
