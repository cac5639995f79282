/* Its description ends before the contract version. */
#include <rqworker/plugin.h>

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

RQ_PLUGIN_EXPORT const RQPluginDescription* RQWorkerDescribe(const RQHostServices* host) {
    static RQPluginDescription description;
    (void)host;
    description.size = 4;
    return &description;
}
