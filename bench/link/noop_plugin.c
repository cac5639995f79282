/* A package plug-in whose tasks do nothing. A task's ID stands in its text: <Task><ID>...</ID></Task>. */
#include <rqworker/plugin.h>
#include <string.h>

/* The record that is performed must outlive the next analysis. */
static TaskInfo g_infos[2];
static char g_ids[2][64];
static unsigned g_next;

RQ_PLUGIN_EXPORT int32_t RQWorkerAnalyseTask(RQText taskText, TaskInfo** taskInfo) {
    static const size_t before = sizeof "<Task><ID>" - 1;
    const unsigned slot = g_next++ % 2;
    TaskInfo* info = &g_infos[slot];
    size_t size = 0;
    while (before + size < taskText.n && size < sizeof g_ids[slot] && taskText.p[before + size] != '<')
        ++size;
    memset(info, 0, sizeof *info);
    if (size > 0) memcpy(g_ids[slot], taskText.p + before, size);
    info->size = sizeof *info;
    info->contractVersion = RQ_CONTRACT_VERSION;
    info->taskId.p = g_ids[slot];
    info->taskId.n = size;
    info->taskType = 14;
    *taskInfo = info;
    return 0;
}

RQ_PLUGIN_EXPORT int32_t RQWorkerPerformTask(TaskInfo* taskInfo, const volatile uint32_t* stopFlag,
                                             RQProgressCallback progress, void* context,
                                             const RQRunningParameter* parameter) {
    (void)stopFlag;
    (void)progress;
    (void)context;
    (void)parameter;
    RQStore32(&taskInfo->status, RQ_STATUS_FINISHED);
    return 0;
}
