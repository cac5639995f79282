/* The contract's header as a C plug-in author's compiler sees it. */
#include "layout.h"

/* The entry points have the types that the header gives them. */
RQ_PLUGIN_EXPORT int32_t RQWorkerAnalyseTask(RQText taskText, TaskInfo** taskInfo);
RQ_PLUGIN_EXPORT int32_t RQWorkerPerformTask(TaskInfo* taskInfo, const volatile uint32_t* stopFlag,
                                             RQProgressCallback progress, void* context,
                                             const RQRunningParameter* parameter);

uint32_t RQSdkTestWord(volatile uint32_t* word);

uint32_t RQSdkTestWord(volatile uint32_t* word) {
    const RQWorkerAnalyseTaskFunc analyse = RQWorkerAnalyseTask;
    const RQWorkerPerformTaskFunc perform = RQWorkerPerformTask;
    RQStore32(word, analyse != NULL && perform != NULL ? RQ_STOP_FINISH : RQ_STOP_NONE);
    return RQLoad32(word);
}
