/* Does not describe itself; its task information record shows contract version 0. It must never perform. */
#include <rqworker/plugin.h>
#include <stdlib.h>

static TaskInfo g_info;

RQ_PLUGIN_EXPORT int32_t RQWorkerAnalyseTask(RQText taskText, TaskInfo** taskInfo) {
    (void)taskText;
    g_info.size = sizeof g_info;
    g_info.contractVersion = 0;
    g_info.taskType = RQ_TYPE_MD5_COMPUTE;
    *taskInfo = &g_info;
    return 0;
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
