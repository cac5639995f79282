// md5_bench [THREADS] FILE...: lets the md5 plug-in compute the files through its exported functions, and
// prints the digests. bench/md5.sh compares it with other programs.
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
    if (argc < 2) {
        std::fprintf(stderr, "usage: md5_bench [THREADS] FILE... (absolute, without & and <)\n");
        return 2;
    }
    const bool hasThreads = argv[1][0] != '/';
    RQWorkerDescribe(nullptr);
    RQWorkerInit(nullptr);
    std::string text = "<MD5Task><ID>bench</ID><Files>";
    for (int i = hasThreads ? 2 : 1; i < argc; ++i)
        text += std::string("<File><Path>") + argv[i] + "</Path></File>";
    text += "</Files>";
    if (hasThreads) text += std::string("<Threads>") + argv[1] + "</Threads>";
    text += "</MD5Task>";
    TaskInfo* info = nullptr;
    if (RQWorkerAnalyseTask(rq::plugin::Borrow(text), &info) != 0) {
        std::fprintf(stderr, "md5_bench: the plug-in refuses %s\n", text.c_str());
        return 1;
    }
    const volatile uint32_t stop = RQ_STOP_NONE;
    const auto progress = [](int64_t, int64_t, void*) { return 0u; };
    RQWorkerPerformTask(info, &stop, progress, nullptr, nullptr);
    if (RQLoad32(&info->status) != RQ_STATUS_FINISHED) {
        std::fprintf(stderr, "md5_bench: %.*s\n", static_cast<int>(info->detailErrorText.n),
                     info->detailErrorText.p);
        return 1;
    }
    const auto* data = static_cast<const RQMd5Data*>(info->typeData);
    for (std::uint32_t i = 0; i < RQLoad32(&data->files->count); ++i) {
        for (const std::uint8_t byte : static_cast<const RQMd5File*>(data->files->items[i])->computedMd5)
            std::printf("%02x", byte);
        std::printf("\n");
    }
    RQWorkerRelease();
    return 0;
}
