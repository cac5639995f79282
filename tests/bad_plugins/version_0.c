/* Says that it was built for contract version 0. Its other functions must never be called. */
#include <rqworker/plugin.h>
#include <stdlib.h>

RQ_PLUGIN_EXPORT int32_t RQWorkerAnalyseTask(RQText taskText, TaskInfo** taskInfo) {
    (void)taskText;
    (void)taskInfo;
    abort();
}

RQ_PLUGIN_EXPORT int32_t RQWorkerPerformTask(TaskInfo* taskInfo, const volatile uint32_t* stopFlag,
                                             RQProgressCallback progress, void* context,
                                             const RQRunningParameter* parameter) {
    (void)taskInfo;
    (void)stopFlag;
    (void)progress;
    (void)context;
    (void)parameter;
    abort();
}

RQ_PLUGIN_EXPORT int32_t RQWorkerInit(const void* parameter) {
    (void)parameter;
    abort();
}

RQ_PLUGIN_EXPORT const RQPluginDescription* RQWorkerDescribe(const RQHostServices* host) {
    static RQPluginDescription description;
    (void)host;
    description.size = sizeof description;
    description.contractVersion = 0;
    return &description;
}
