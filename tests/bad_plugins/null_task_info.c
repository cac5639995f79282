/* Leaves no task information record, whatever its analysis returns. */
#include <rqworker/plugin.h>
#include <string.h>

RQ_PLUGIN_EXPORT int32_t RQWorkerAnalyseTask(RQText taskText, TaskInfo** taskInfo) {
    *taskInfo = NULL;
    return taskText.n >= 4 && memcmp(taskText.p, "fail", 4) == 0 ? 12 : 0;
}

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
