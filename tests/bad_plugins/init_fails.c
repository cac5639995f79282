/* RQWorkerInit returns 77. RQWorkerRelease counts its calls, for whoever looks the counter up. */
#include <rqworker/plugin.h>

RQ_PLUGIN_EXPORT int32_t g_releaseCalls = 0;

RQ_PLUGIN_EXPORT int32_t RQWorkerAnalyseTask(RQText taskText, TaskInfo** taskInfo) {
    (void)taskText;
    *taskInfo = NULL;
    return -1;
}

RQ_PLUGIN_EXPORT int32_t RQWorkerPerformTask(TaskInfo* taskInfo, const volatile uint32_t* stopFlag,
                                             RQProgressCallback progress, void* context,
                                             const RQRunningParameter* parameter) {
    (void)taskInfo;
    (void)stopFlag;
    (void)progress;
    (void)context;
    (void)parameter;
    return -1;
}

RQ_PLUGIN_EXPORT int32_t RQWorkerInit(const void* parameter) {
    (void)parameter;
    return 77;
}

RQ_PLUGIN_EXPORT int32_t RQWorkerRelease(void) {
    ++g_releaseCalls;
    return 0;
}
