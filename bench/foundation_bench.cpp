// The cost of the log: one line of the library beside one flushed line of a bare stream of the same text,
// alone and with other threads writing too. Both go to files in a directory of their own. How many system
// calls a line makes is a test (LogCost in the unit tier).
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "corvosetup/log.h"
#include "corvosetup/utils.h"
#include "foundation/json.h"
#include "foundation/log_line.h"

namespace {

const std::string& directory() {
    static const std::string path = [] {
        std::string form = (std::filesystem::temp_directory_path() / "corvo-bench.XXXXXX").string();
        if (::mkdtemp(form.data()) == nullptr) std::abort();
        return form;
    }();
    return path;
}

const std::string kText = "Setup CPU pinning: eth0, mask: ";

void prepare_log() {
    if (log_target.starts_with(directory())) return;
    max_log_size = INT_MAX;
    reopen_setup_logger(directory() + "/corvo.log");
}

void LogLine(benchmark::State& state) {
    if (state.thread_index() == 0) prepare_log();
    for (auto _ : state) corvo::log::debug(kText, 15);
    state.SetItemsProcessed(state.iterations());
    if (state.thread_index() == 0) std::filesystem::resize_file(log_target, 0);
}
BENCHMARK(LogLine)->UseRealTime()->ThreadRange(1, 8);

// What a line costs when nothing looks at the file's size and nobody else may write.
void BareStreamLine(benchmark::State& state) {
    std::ofstream out(directory() + "/bare.log", std::ios::out | std::ios::app);
    for (auto _ : state) out << "[DEBUG] " << get_cur_time() << kText << 15 << std::endl;
    state.SetItemsProcessed(state.iterations());
    std::filesystem::resize_file(directory() + "/bare.log", 0);
}
BENCHMARK(BareStreamLine)->UseRealTime();

void TimeText(benchmark::State& state) {
    for (auto _ : state) benchmark::DoNotOptimize(get_cur_time());
}
BENCHMARK(TimeText);

void ReadValue(benchmark::State& state) {
    std::string value;
    for (auto _ : state) read_value("/proc/sys/net/ipv4/ip_forward", value);
}
BENCHMARK(ReadValue);

void ParseReply(benchmark::State& state) {
    Json::Value list(Json::arrayValue);
    for (int i = 0; i < state.range(0); ++i) {
        Json::Value element;
        element["ifname"] = "eth" + std::to_string(i);
        element["id"] = i;
        element["ip4_addr"] = "192.0.2.1";
        list.append(element);
    }
    Json::Value reply;
    reply["error"] = 0;
    reply["data"] = list;
    const std::string text = corvo::compact_json(reply);
    Json::Value parsed;
    for (auto _ : state) benchmark::DoNotOptimize(corvo::parse_json(text, parsed));
    state.SetBytesProcessed(state.iterations() * static_cast<long>(text.size()));
}
BENCHMARK(ParseReply)->Arg(2)->Arg(64);

void RunTool(benchmark::State& state) {
    std::string command = "true";
    for (auto _ : state) benchmark::DoNotOptimize(exec(command));
}
BENCHMARK(RunTool)->Unit(benchmark::kMicrosecond);

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    setup_logger.close();
    std::filesystem::remove_all(directory());
    return 0;
}
