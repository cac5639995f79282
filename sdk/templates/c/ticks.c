/* A complete plug-in in plain C: lets tenths of a second go by. Its task text is their number, "50". */
#include <rqworker/plugin.h>
#include <stdio.h>

#define TYPE 51
#define BAD_TASK_TEXT 1 /* codes of this plug-in's own */
#define NO_UPDATE 2

typedef struct Record {
    TaskInfo info;
    uint32_t ticks;
    char words[64];
} Record;

/* The record of the last perform call must outlive the next analysis: so there are two, by turns. */
static Record g_records[2];
static int g_performed = 1;
static const RQHostServices* g_host;

static RQText Text(const char* p, int n) {
    RQText text;
    text.p = p;
    text.n = (size_t)n;
    return text;
}

RQ_PLUGIN_EXPORT const RQPluginDescription* RQWorkerDescribe(const RQHostServices* host) {
    static const int32_t types[] = {TYPE};
    static RQPluginDescription description;
    description.size = sizeof description;
    description.contractVersion = RQ_CONTRACT_VERSION;
    description.name = Text("ticks", 5);
    description.version = Text("1.0.0", 5);
    description.types = types;
    description.typeCount = 1;
    description.abilities = RQ_ABILITY_PAUSE | RQ_ABILITY_FINISH;
    g_host = host;
    return &description;
}

RQ_PLUGIN_EXPORT int32_t RQWorkerAnalyseTask(RQText taskText, TaskInfo** taskInfo) {
    static const Record empty;
    Record* record = &g_records[1 - g_performed];
    size_t i;
    if (*taskInfo != NULL) return NO_UPDATE; /* of a task that waits or runs: it goes on as it is */
    *record = empty;
    record->info.size = sizeof record->info;
    record->info.contractVersion = RQ_CONTRACT_VERSION;
    record->info.taskType = TYPE;
    *taskInfo = &record->info;
    /* No zero stands behind the text. A line end is let pass. */
    for (i = 0; i < taskText.n && taskText.p[i] >= '0' && taskText.p[i] <= '9' && record->ticks < 100000; ++i)
        record->ticks = record->ticks * 10 + (uint32_t)(taskText.p[i] - '0');
    if (i != 0 && (i == taskText.n || taskText.p[i] == '\n' || taskText.p[i] == '\r')) return 0;
    record->info.furtherText = Text("the task text must be a number below 1000000", 44);
    return BAD_TASK_TEXT;
}

RQ_PLUGIN_EXPORT int32_t RQWorkerPerformTask(TaskInfo* taskInfo, const volatile uint32_t* stopFlag,
                                             RQProgressCallback progress, void* context,
                                             const RQRunningParameter* parameter) {
    Record* record = taskInfo == &g_records[0].info ? &g_records[0] : &g_records[1];
    uint32_t done = 0;
    (void)parameter;
    g_performed = record == &g_records[1];
    for (; done < record->ticks && RQLoad32(stopFlag) == RQ_STOP_NONE; ++done) {
        progress(record->ticks, done, context); /* does not return while the task is suspended */
        g_host->waitForStop(g_host->context, 100);
    }
    if (RQLoad32(stopFlag) == RQ_STOP_NONE && done > 0) progress(done, done, context);
    if (RQLoad32(stopFlag) == RQ_STOP_CANCEL) {
        RQStore32(&taskInfo->status, RQ_STATUS_CANCELLED);
        return 0;
    }
    taskInfo->furtherText =
        Text(record->words, snprintf(record->words, sizeof record->words, "%u ticks", done));
    RQStore32(&taskInfo->status, RQ_STATUS_FINISHED);
    return 0;
}
