// AnalyseTask and UpdateTask: a task text becomes the plug-in's task information record.

#include <utility>

#include "base/result.h"
#include "plugin/work_runner.h"
#include "plugin/work_runner_state.h"
#include "util/utility.h"
#include "util/worker_util.h"

namespace rq {

namespace {
constexpr std::int32_t kAnalysisFailed = -5;
}

WorkRunner::State::Analysis WorkRunner::State::CallAnalyse(const std::string& text, TaskInfo* before) {
    Analysis analysis;
    if (m_workerPlugin.pAnalyseTaskFunc == nullptr || isReleased) {
        analysis.result = kStatusMissing;
        analysis.complaint = "no plug-in that could analyse it is loaded";
        return analysis;
    }
    analysis.info = before;
    analysis.result = m_workerPlugin.pAnalyseTaskFunc(RQText{text.data(), text.size()}, &analysis.info);
    if (analysis.info == nullptr) return analysis;
    if (std::optional<std::string> complaint = CheckTaskInfo(*analysis.info, pluginName)) {
        analysis.complaint = *std::move(complaint);
        analysis.info = nullptr;
    }
    return analysis;
}

std::string WorkRunner::State::ReadTaskId(const TaskInfo& info) const {
    return RepairPluginText(info.taskId, pluginName, LogSink());
}

// From here on there is no task: no reader looks at a record that the plug-in may free.
void WorkRunner::State::ForgetTask() {
    hasTask = false;
    services.ForgetTask();
    breaches.Reset();
    MutexLock lock(recordLock);
    taskInformation = {};
    inUse = {};
    kept.reset();
}

std::int32_t WorkRunner::AnalyseTask(const std::string& text, std::string& taskId) {
    State& s = *m_state;
    const WideText wide = KWOVL_UTILITY::OVLUTF8ToTString(text);
    Log(4, "AnalysTask Begin! TaskStr: " + KWOVL_UTILITY::OVLTStringToString(wide));
    MutexLock call(s.callLock);
    s.ForgetTask();
    const State::Analysis analysis = s.CallAnalyse(text, nullptr);
    TaskRecord record;
    if (analysis.info != nullptr) record = {analysis.info, s.ReadTaskId(*analysis.info)};
    if (analysis.result != kStatusOk || analysis.info == nullptr) {
        s.EndFailedAnalysis(analysis, record.taskId, taskId);
    } else {
        s.EndGoodAnalysis(*analysis.info);
        taskId = record.taskId;
    }
    MutexLock lock(s.recordLock);
    s.taskInformation = std::move(record);
    return analysis.result;
}

// A plug-in must leave a record also when it fails. One that does not is told on by name; the worker then
// goes on without task information: PerformTask fails, GetStatus gives 4 and the error fields read as zeros
// and empty texts.
void WorkRunner::State::EndFailedAnalysis(const Analysis& analysis, const std::string& recordsId,
                                          std::string& taskId) {
    Log(4, "worker Plug in Analysis Task failed...");
    if (analysis.info == nullptr) {
        Log(4, "task info is NULL!!");
        const std::string fault = "plug-in " + pluginName + " left no task information record";
        Log(4, analysis.complaint.empty() ? fault : analysis.complaint);
        return;
    }
    analysis.info->detailErrorText = keeper.Keep("Analyze Task Info Failed!");
    analysis.info->errorCode = kAnalysisFailed;
    if (!recordsId.empty()) taskId = recordsId;
}

void WorkRunner::State::EndGoodAnalysis(TaskInfo& info) {
    if (const std::optional<double> rate = SourceFrameRate(info)) frameRate = *rate;
    info.detailErrorText = RQText{nullptr, 0};
}

std::int32_t WorkRunner::UpdateTask(const std::string& text) {
    State& s = *m_state;
    MutexLock call(s.callLock);
    if (s.m_workerPlugin.pAnalyseTaskFunc == nullptr || s.isReleased) return kStatusMissing;
    return s.Update(text);
}

std::int32_t WorkRunner::State::Update(const std::string& text) {
    TaskInfo* before = nullptr;
    {
        MutexLock lock(recordLock);
        if (performing == nullptr) return UpdateBetweenCalls(text);
        before = taskInformation.info;
    }
    // The record that is being performed stays valid, so that readers need not wait for the analysis.
    const Analysis analysis = CallAnalyse(text, before);
    MutexLock lock(recordLock);
    return EndUpdate(analysis);
}

// No perform call is running: the plug-in may free any record it has, so nobody may read one until it has
// returned.
std::int32_t WorkRunner::State::UpdateBetweenCalls(const std::string& text) {
    if (inUse.info != nullptr) {
        kept = KeepTask();
        inUse = {};
    }
    return EndUpdate(CallAnalyse(text, taskInformation.info));
}

std::int32_t WorkRunner::State::EndUpdate(const Analysis& analysis) {
    if (!analysis.complaint.empty()) Log(4, analysis.complaint);
    taskInformation = {};
    if (analysis.info != nullptr) taskInformation = {analysis.info, ReadTaskId(*analysis.info)};
    return analysis.result;
}

std::unique_ptr<KeptTask> WorkRunner::State::KeepTask() {
    auto task = std::make_unique<KeptTask>();
    const TaskInfo& info = *inUse.info;
    RQStore32(&task->status, RQLoad32(&info.status));
    task->taskType = info.taskType;
    task->taskId = inUse.taskId;
    task->errors = ReadErrors(info);
    task->results = CopyTaskResults(info, pluginName, LogSink());
    return task;
}

}  // namespace rq
