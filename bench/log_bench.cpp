// What a log line costs: OVLWriteLog beside the logging library's own synchronous file sink with the same
// columns, both buffered, on the same disk. bench/log.sh runs it and prints the ratio. Arguments are those of
// Google Benchmark.
#include <benchmark/benchmark.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "base/text.h"
#include "util/utility.h"

namespace {

const std::string kText = "Efficiency: Percent:41.53 % , AverageSpeed:62.34 frame/s, TimeSpeed:2.49.";

std::string Folder() {
    const char* folder = std::getenv("RQ_BENCH_DIR");
    return folder == nullptr ? std::filesystem::temp_directory_path().string() : folder;
}

// Both are made once, before any thread of a benchmark runs.
struct Logs {
    Logs() {
        KWOVL_UTILITY::OVLInitWriteLog("ACT", rq::WidenUtf8(Folder() + "/ours.log"), true);
        auto sink = std::make_shared<spdlog::sinks::basic_file_sink_mt>(Folder() + "/library.log", true);
        library = std::make_shared<spdlog::logger>("library", sink);
        library->set_pattern("%Y-%m-%d %H:%M:%S.%f [%l] [ACT] [MAIN] [%P/%t] %v");
        library->set_level(spdlog::level::trace);
        library->flush_on(spdlog::level::warn);
    }
    std::shared_ptr<spdlog::logger> library;
};

Logs& TheLogs() {
    static Logs logs;
    return logs;
}

void Ours(benchmark::State& state) {
    TheLogs();
    for (auto _ : state) KWOVL_UTILITY::OVLWriteLog("ACT", 2, kText, "PROG");
    state.SetItemsProcessed(state.iterations());
}

void Library(benchmark::State& state) {
    auto& library = *TheLogs().library;
    for (auto _ : state) library.log(spdlog::level::info, kText);
    state.SetItemsProcessed(state.iterations());
}

}  // namespace

BENCHMARK(Ours)->Threads(1)->UseRealTime();
BENCHMARK(Library)->Threads(1)->UseRealTime();
BENCHMARK(Ours)->Threads(4)->UseRealTime();
BENCHMARK(Library)->Threads(4)->UseRealTime();

int main(int argc, char** argv) {
    TheLogs();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
