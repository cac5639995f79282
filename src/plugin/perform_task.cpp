// PerformTask: the call that does the work, and the one place where an exception of a plug-in ends.

#include <exception>
#include <utility>

#include "base/result.h"
#include "plugin/work_runner.h"
#include "plugin/work_runner_state.h"
#include "util/worker_util.h"

namespace rq {

namespace {
constexpr int kLevelInformation = 2;
constexpr int kLevelNever = 5;
}  // namespace

std::int32_t WorkRunner::PerformTask(tagOVLCommunicationParam given) {
    State& s = *m_state;
    TaskInfo* info = s.BeginPerform();
    if (info == nullptr) return kStatusFail;
    s.parameters = std::move(given);
    s.BeginProgress(s.parameters);
    s.closeMode = 0;  // the stop flag stays: a stop that came during the analysis must not be lost
    {
        MutexLock lock(s.recordLock);
        s.SetStatus(info->status, kTaskRunning);
    }
    s.RunPerformCall(*info);
    return kStatusOk;
}

// Makes the newest record the one in use. Null when there is none, or nothing that could perform it.
TaskInfo* WorkRunner::State::BeginPerform() {
    MutexLock lock(recordLock);
    TaskInfo* info = taskInformation.info;
    if (info == nullptr || m_workerPlugin.pPerformTaskFunc == nullptr) return nullptr;
    inUse = taskInformation;
    kept.reset();
    taskType = info->taskType;
    isTwoPass = IsTwoPass(*info);
    performThread = std::this_thread::get_id();
    hasTask = true;
    performing = info;
    return info;
}

// The stamps of the patrol are set only when there is a patrol. Speed, processed count and the paused time of
// the task before stay until the plug-in tells something new.
void WorkRunner::State::BeginProgress(const tagOVLCommunicationParam& given) {
    taskClock.Anchor();
    MutexLock lock(progressLock);
    const LocalTime now = taskClock.Now();
    progress.percent = 0;
    progress.lastUpdate = now;
    if (given.progressPatrolTimeout_s <= 0) return;
    progress.expectedNextUpdate = now;
    progress.start = now;
}

void WorkRunner::State::RunPerformCall(TaskInfo& info) {
    idle = false;
    services.BeginPerform();
    const std::optional<std::string> thrown = CallPerform(info);
    const std::optional<PublishedError> error = services.EndPerform();
    {
        // An update that comes now finds the record in use until its outcome is whole. A cancel at this
        // moment is not overwritten either.
        MutexLock lock(recordLock);
        if (error) ApplyPublishedError(info, *error);
        if (thrown) ApplyException(info, *thrown);
        performing = nullptr;
    }
    idle = true;
}

std::optional<std::string> WorkRunner::State::CallPerform(TaskInfo& info) {
    const ParameterView view(parameters);
    try {
        Log(kLevelInformation, "m_workerPlugin.pPerformTaskFunc begin..");
        m_workerPlugin.pPerformTaskFunc(&info, stopFlag, &State::ProgressCallback, this, view.Plain());
        Log(kLevelInformation, "m_workerPlugin.pPerformTaskFunc end..");
        statusChanged = true;
    } catch (const std::exception& exception) {
        const char* what = exception.what();
        const std::string text = RepairUtf8(what != nullptr ? what : "");
        Log(kLevelNever, "perform got std::exception.");
        Log(kLevelNever, text);
        return text;
    } catch (...) {
        Log(kLevelNever, "perform got unknown exception.");
        return "unknown exception";
    }
    if (RQLoad32(&info.status) == kTaskRunning) {
        breaches.Tell(Breach::ReturnedRunning, pluginName, "returned from its perform call in status 3");
    }
    return std::nullopt;
}

void WorkRunner::State::ApplyPublishedError(TaskInfo& info, const PublishedError& error) {
    info.detailErrorCode = error.detailErrorCode;
    info.errorCode = error.errorCode;
    info.detailErrorText = keeper.Keep(error.detailErrorText);
    info.furtherText = keeper.Keep(error.furtherText);
}

// A task that the plug-in left running has failed; a status that it set itself before it threw is kept.
void WorkRunner::State::ApplyException(TaskInfo& info, const std::string& text) {
    if (RQLoad32(&info.status) != kTaskRunning) return;
    if (!text.empty()) info.detailErrorText = keeper.Keep(text);
    info.furtherText = info.detailErrorText;
    SetStatus(info.status, kTaskError);
}

}  // namespace rq
