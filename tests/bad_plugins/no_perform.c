/* Lacks RQWorkerPerformTask. */
#include <rqworker/plugin.h>

static TaskInfo g_info;

RQ_PLUGIN_EXPORT int32_t RQWorkerAnalyseTask(RQText taskText, TaskInfo** taskInfo) {
    (void)taskText;
    g_info.size = sizeof g_info;
    *taskInfo = &g_info;
    return 0;
}

RQ_PLUGIN_EXPORT int32_t RQWorkerInit(const void* parameter) {
    (void)parameter;
    return 0;
}

RQ_PLUGIN_EXPORT int32_t RQWorkerRelease(void) {
    return 0;
}
