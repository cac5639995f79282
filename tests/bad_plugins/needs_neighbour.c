/* Loads only where librqneighbour is found beside it. */
#include <rqworker/plugin.h>

int32_t RQNeighbourCode(void);

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
    return RQNeighbourCode();
}
