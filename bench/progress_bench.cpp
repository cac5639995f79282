// What a progress call costs a plug-in, beside its limit in the same run: two local time stamps and one lock
// that nobody else wants. Once with nobody reading the progress, once with a reader a thousand times a
// second. bench/progress.sh runs it and prints the ratios. Arguments are those of Google Benchmark.
#include <benchmark/benchmark.h>

#include <atomic>
#include <boost/date_time/posix_time/posix_time.hpp>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <thread>

#include "base/paths.h"
#include "base/sync.h"
#include "plugin/work_runner.h"
#include "plugin/work_runner_seams.h"
#include "rqworker/plugin.h"

namespace {

using Loop = std::function<void(RQProgressCallback, void*)>;

// What the plug-in's perform call does; one at a time.
Loop g_loop;
TaskInfo g_info;

std::int32_t Analyse(RQText, TaskInfo** info) {
    g_info = {};
    g_info.size = sizeof g_info;
    g_info.contractVersion = RQ_CONTRACT_VERSION;
    g_info.taskType = RQ_TYPE_MD5_COMPUTE;
    *info = &g_info;
    return 0;
}

std::int32_t Perform(TaskInfo* info, const volatile std::uint32_t*, RQProgressCallback progress,
                     void* context, const RQRunningParameter*) {
    g_loop(progress, context);
    RQStore32(&info->status, RQ_STATUS_FINISHED);
    return 0;
}

// A runner over the two functions above, with a task analysed.
class Bench {
  public:
    Bench() : m_folder(std::filesystem::temp_directory_path() / "rqworker-bench-progress") {
        std::filesystem::create_directories(m_folder / "p");
        std::ofstream(m_folder / "RQWorkerConfig.xml")
            << "<c><WORKER><TYPE>3</TYPE><PATH>p/p.so</PATH></WORKER></c>";
        rq::WorkRunnerSeams seams;
        seams.moduleDirectory = rq::WideFromPath(m_folder) + rq::PathSeparator();
        seams.loadLibrary = [this](rq::WorkerPlugin& plugin, rq::platform::OsError*) {
            plugin.hModule = this;
            return true;
        };
        seams.findEntryPoints = [](rq::WorkerPlugin& plugin) {
            plugin.pAnalyseTaskFunc = &Analyse;
            plugin.pPerformTaskFunc = &Perform;
            return true;
        };
        m_runner = std::make_unique<rq::WorkRunner>(std::move(seams));
        rq::WorkRunnerStart start;
        start.workerType = 3;
        std::string id;
        m_isReady = m_runner->Init(start) == 0 && m_runner->AnalyseTask("x", id) == 0;
    }
    ~Bench() {
        m_runner.reset();
        std::error_code ignored;
        std::filesystem::remove_all(m_folder, ignored);
    }
    Bench(const Bench&) = delete;
    Bench& operator=(const Bench&) = delete;

    bool IsReady() const { return m_isReady; }
    rq::WorkRunner& Runner() { return *m_runner; }
    void Run(Loop loop) {
        g_loop = std::move(loop);
        m_runner->PerformTask({});
    }

  private:
    const std::filesystem::path m_folder;
    std::unique_ptr<rq::WorkRunner> m_runner;
    bool m_isReady = false;
};

void Calls(benchmark::State& state, Bench& bench) {
    bench.Run([&](RQProgressCallback progress, void* context) {
        std::int64_t done = 0;
        for (auto _ : state) progress(1'000'000'000, ++done, context);
    });
}

void Alone(benchmark::State& state) {
    Bench bench;
    if (!bench.IsReady()) return state.SkipWithError("the runner is not ready");
    Calls(state, bench);
}

void WithReader(benchmark::State& state) {
    Bench bench;
    if (!bench.IsReady()) return state.SkipWithError("the runner is not ready");
    std::atomic<bool> stop{false};
    std::thread reader([&] {
        while (!stop) {
            benchmark::DoNotOptimize(bench.Runner().GetProgress());
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    });
    Calls(state, bench);
    stop = true;
    reader.join();
}

void Limit(benchmark::State& state) {
    rq::Mutex mutex;
    for (auto _ : state) {
        benchmark::DoNotOptimize(boost::posix_time::microsec_clock::local_time());
        rq::MutexLock lock(mutex);
        benchmark::DoNotOptimize(boost::posix_time::microsec_clock::local_time());
    }
}

}  // namespace

BENCHMARK(Alone);
BENCHMARK(WithReader);
BENCHMARK(Limit);
BENCHMARK_MAIN();
