// md5_bench FILE: lets the md5 plug-in compute FILE through its exported functions, and prints the seconds
// that the perform call took and the digest. bench/md5.sh compares it with another program.
#include <chrono>
#include <cstdio>
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

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: md5_bench FILE (absolute, without & and <)\n");
        return 2;
    }
    RQWorkerDescribe(nullptr);
    RQWorkerInit(nullptr);
    const std::string text = std::string("<MD5Task><ID>bench</ID><Files><File><Path>") + argv[1] +
                             "</Path></File></Files></MD5Task>";
    TaskInfo* info = nullptr;
    if (RQWorkerAnalyseTask(rq::plugin::Borrow(text), &info) != 0) {
        std::fprintf(stderr, "md5_bench: the plug-in refuses %s\n", argv[1]);
        return 1;
    }
    const volatile uint32_t stop = RQ_STOP_NONE;
    const auto progress = [](int64_t, int64_t, void*) { return 0u; };
    const auto begin = std::chrono::steady_clock::now();
    RQWorkerPerformTask(info, &stop, progress, nullptr, nullptr);
    const std::chrono::duration<double> took_s = std::chrono::steady_clock::now() - begin;
    if (RQLoad32(&info->status) != RQ_STATUS_FINISHED) {
        std::fprintf(stderr, "md5_bench: %.*s\n", static_cast<int>(info->detailErrorText.n),
                     info->detailErrorText.p);
        return 1;
    }
    const auto* data = static_cast<const RQMd5Data*>(info->typeData);
    const auto* file = static_cast<const RQMd5File*>(data->files->items[0]);
    std::printf("%.6f ", took_s.count());
    for (const std::uint8_t byte : file->computedMd5) std::printf("%02x", byte);
    std::printf("\n");
    RQWorkerRelease();
    return 0;
}
