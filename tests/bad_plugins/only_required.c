/* The smallest plug-in that works: no init, no release, no description. */
#include <rqworker/plugin.h>

static TaskInfo g_info;

RQ_PLUGIN_EXPORT int32_t RQWorkerAnalyseTask(RQText taskText, TaskInfo** taskInfo) {
    static const char id[] = "only-required";
    (void)taskText;
    g_info.size = sizeof g_info;
    g_info.contractVersion = RQ_CONTRACT_VERSION;
    g_info.taskId.p = id;
    g_info.taskId.n = sizeof id - 1;
    g_info.taskType = RQ_TYPE_MD5_COMPUTE;
    *taskInfo = &g_info;
    return 0;
}

RQ_PLUGIN_EXPORT int32_t RQWorkerPerformTask(TaskInfo* taskInfo, const volatile uint32_t* stopFlag,
                                             RQProgressCallback progress, void* context,
                                             const RQRunningParameter* parameter) {
    (void)parameter;
    progress(1, 1, context);
    RQStore32(&taskInfo->status,
              RQLoad32(stopFlag) == RQ_STOP_CANCEL ? RQ_STATUS_CANCELLED : RQ_STATUS_FINISHED);
    return 0;
}
