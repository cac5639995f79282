// transcode_bench TASKFILE: does the transcode task whose text is in TASKFILE through the plug-in's exported
// functions, and prints the seconds that the perform call took, those of the processor in it, and the frames
// that it wrote. bench/transcode.sh compares it with another program.
#include <sys/resource.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

#include "rqworker/plugin.hpp"

extern "C" {
const RQPluginDescription* RQWorkerDescribe(const RQHostServices* host);
int32_t RQWorkerInit(const void* parameter);
int32_t RQWorkerAnalyseTask(RQText taskText, TaskInfo** taskInfo);
int32_t RQWorkerPerformTask(TaskInfo* taskInfo, const volatile uint32_t* stopFlag,
                            RQProgressCallback progress, void* context, const RQRunningParameter* parameter);
int32_t RQWorkerRelease(void);
}

// Of all threads, also those that have ended.
static double ProcessorSeconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    const auto seconds = [](const timeval& time) {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) * 1e-6;
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: transcode_bench TASKFILE\n");
        return 2;
    }
    std::ostringstream text;
    text << std::ifstream(argv[1], std::ios::binary).rdbuf();
    const std::string task = text.str();

    RQHostServices host{};
    host.size = sizeof host;
    host.contractVersion = RQ_CONTRACT_VERSION;
    host.log = [](void*, int32_t level, RQText line) {
        if (level >= 3) std::fprintf(stderr, "%.*s\n", static_cast<int>(line.n), line.p);
    };
    RQWorkerDescribe(&host);
    RQWorkerInit(nullptr);
    TaskInfo* info = nullptr;
    if (RQWorkerAnalyseTask(rq::plugin::Borrow(task), &info) != 0) return 1;
    const volatile uint32_t stop = RQ_STOP_NONE;
    const auto progress = [](int64_t, int64_t, void*) { return 0u; };
    const double begin_s = ProcessorSeconds();
    const auto begin = std::chrono::steady_clock::now();
    RQWorkerPerformTask(info, &stop, progress, nullptr, nullptr);
    const std::chrono::duration<double> took_s = std::chrono::steady_clock::now() - begin;
    const double processor_s = ProcessorSeconds() - begin_s;
    if (RQLoad32(&info->status) != RQ_STATUS_FINISHED) {
        std::fprintf(stderr, "transcode_bench: 0x%08X 0x%08X %.*s\n", static_cast<unsigned>(info->errorCode),
                     info->detailErrorCode, static_cast<int>(info->detailErrorText.n),
                     info->detailErrorText.p);
        return 1;
    }
    const auto* data = static_cast<const RQTranscodeData*>(info->typeData);
    const auto* output = static_cast<const RQTranscodeOutput*>(data->outputs->items[0]);
    std::printf("%.6f %.6f %u\n", took_s.count(), processor_s, output->frames);
    RQWorkerRelease();
    return 0;
}
