// CloseTask, SuspendTask and ResumeTask: how other threads end or hold a running task. What ends it is the
// stop flag that the plug-in polls; the task thread that is waited for here was never started, and every wait
// for it ends at once.

#include <chrono>

#include "base/result.h"
#include "plugin/work_runner.h"
#include "plugin/work_runner_state.h"
#include "util/worker_util.h"

namespace rq {
namespace {

constexpr std::chrono::milliseconds kPatrolGrace(3000);
constexpr int kMilestone = 1;
constexpr int kInformation = 2;
constexpr int kWarning = 3;

// The test looks for status 23, not for type 23, which is waited for like any other. Kept so.
constexpr std::uint32_t kPackageStatus = 23;

std::string CloseLine(const std::string& taskId, std::uint32_t mode, std::int32_t wait_s) {
    return "close task:" + taskId + ", mode=" + std::to_string(static_cast<std::int32_t>(mode)) +
           ", wait:" + std::to_string(wait_s) + "...";
}

}  // namespace

std::int32_t WorkRunner::CloseTask(std::uint32_t mode, std::int32_t wait_s) {
    State& s = *m_state;
    s.LogClose(mode, wait_s);
    if (mode == s.closeMode) return kStatusOk;
    if (mode == kCloseCancel) s.MarkCancelled();
    s.RequestStop(mode);
    if (s.IsPackageTask()) {
        // The close mode is not stored, so that a repeated close of a package is carried out again.
        if (mode == kClosePatrol) Log(kInformation, "Force Cancel the current task. task type: PACKAGE");
        return kStatusOk;
    }
    s.closeMode = mode;
    return mode == kClosePatrol ? s.CloseByPatrol() : s.CloseOrderly(wait_s);
}

void WorkRunner::State::LogClose(std::uint32_t mode, std::int32_t wait_s) {
    std::string line;
    {
        MutexLock lock(recordLock);
        if (!HasTask()) return;
        line = CloseLine(CurrentTaskId(), mode, wait_s);
    }
    Log(kInformation, line);
}

void WorkRunner::State::MarkCancelled() {
    MutexLock lock(recordLock);
    if (volatile std::uint32_t* status = StatusWord()) SetStatus(*status, kTaskCancelled);
}

// A finish goes straight to 2: a plug-in that polled a 1 in between would throw away what it is asked to
// keep.
void WorkRunner::State::RequestStop(std::uint32_t mode) {
    if (mode == kCloseFinish) {
        Log(kInformation, "WB=====>Stop Mode Is Finish");
        RQStore32(stopFlag, RQ_STOP_FINISH);
    } else {
        RQStore32(stopFlag, RQ_STOP_CANCEL);
    }
    services.NotifyStop();
}

bool WorkRunner::State::IsPackageTask() {
    MutexLock lock(recordLock);
    const volatile std::uint32_t* status = StatusWord();
    if (status == nullptr) return false;
    const std::int32_t type = kept != nullptr ? kept->taskType : CurrentRecord().info->taskType;
    return type == RQ_TASK_PACKAGE || RQLoad32(status) == kPackageStatus;
}

std::int32_t WorkRunner::State::CloseOrderly(std::int32_t wait_s) {
    Log(kInformation, "apparitor::close: waiting for thread...");
    if (wait_s <= 0) {
        taskThread->Join();
    } else if (taskThread->TimedJoin(std::chrono::seconds(wait_s))) {
        Log(kInformation, "apparitor::close: waiting for thread ok.");
    } else {
        Log(kWarning, "apparitor::close: waiting for thread failed.");
        return -1;
    }
    Log(kInformation, "task impl closed.");
    return kStatusOk;
}

std::int32_t WorkRunner::State::CloseByPatrol() {
    Log(kMilestone, "apparitor::close: thread will be interrupted after 3 seconds...");
    if (!taskThread->TimedJoin(kPatrolGrace)) {
        taskThread->Interrupt();
        taskThread->Detach();
        Log(kMilestone, "apparitor::close: thread interrupted...");
    }
    Log(kInformation, "apparitor::close: task interrupted by progress patrol.");
    return kStatusOk;
}

std::int32_t WorkRunner::SuspendTask() {
    m_state->pauseFlag = true;
    return kStatusOk;
}

std::int32_t WorkRunner::ResumeTask() {
    m_state->pauseFlag = false;
    return kStatusOk;
}

}  // namespace rq
