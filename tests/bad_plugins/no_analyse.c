/* Lacks RQWorkerAnalyseTask. */
#include <rqworker/plugin.h>

RQ_PLUGIN_EXPORT int32_t RQWorkerPerformTask(TaskInfo* taskInfo, const volatile uint32_t* stopFlag,
                                             RQProgressCallback progress, void* context,
                                             const RQRunningParameter* parameter) {
    (void)taskInfo;
    (void)stopFlag;
    (void)progress;
    (void)context;
    (void)parameter;
    return 0;
}

RQ_PLUGIN_EXPORT int32_t RQWorkerInit(const void* parameter) {
    (void)parameter;
    return 0;
}
