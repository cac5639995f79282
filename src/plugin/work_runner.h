// WorkRunner: owns the loaded plug-in and drives it. One for each worker process, owned by the worker core.
//
// Threads: Init, AnalyseTask and Release on the main thread; PerformTask on the work loop's (also the main) thread;
// GetProgress on the progress thread; CloseTask, SuspendTask, ResumeTask and UpdateTask on the link's handler thread,
// CloseTask also on the progress thread; GetTaskResult on any.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "base/clock.h"
#include "records/engine_messages.h"
#include "records/running_parameter.h"
#include "records/task_progress.h"
#include "records/task_results.h"

namespace rq {

// What WorkRunner::Init receives.
struct WorkRunnerStart {
    std::string parameterText;
    tagOVLCommunicationParam parameters;
    std::int32_t workerType = 0;
};

// A copy of the error fields of the task information record; zeros and empty texts when there is none.
struct TaskErrorInfo {
    std::uint32_t detailErrorCode = 0;
    std::int32_t errorCode = 0;
    WideText detailErrorText;
    WideText furtherText;
};

class WorkRunner {
  public:
    explicit WorkRunner(Clock& clock = SystemClock());
    ~WorkRunner();  // calls Release
    WorkRunner(const WorkRunner&) = delete;
    WorkRunner& operator=(const WorkRunner&) = delete;

    // 0; kStatusFail when the library could not be loaded or lacks an entry point; else the plug-in's own code.
    std::int32_t Init(const WorkRunnerStart& start);
    // 0, else the plug-in's code. `taskId` is left alone when there is none.
    std::int32_t AnalyseTask(const std::string& text, std::string& taskId);
    // The plug-in's code; -1 when no analyse function is loaded.
    std::int32_t UpdateTask(const std::string& text);
    // 0, or kStatusFail when there is no task. The outcome is in GetStatus. Blocks until the plug-in returns.
    std::int32_t PerformTask(tagOVLCommunicationParam parameters);
    // 0 when done, ignored or left to the plug-in; -1 when a timed wait ran out.
    std::int32_t CloseTask(std::uint32_t mode, std::int32_t wait_s);
    std::int32_t SuspendTask();
    std::int32_t ResumeTask();
    TaskProgress GetProgress() const;
    // The time that the stamps of GetProgress are to be compared with: local time as it was when the task began, moved on
    // by a steady clock, so that no step of the wall clock looks like a stall. The local time before any task.
    LocalTime TaskNow() const;
    // kTaskError when there is no task.
    std::uint32_t GetStatus() const;
    std::string GetTaskId() const;
    // Frames per second truncated toward zero; 25 when it is not greater than 0.
    std::int32_t GetFrameRate() const;
    std::uint32_t GetCloseMode() const;
    TaskErrorInfo GetErrorInfo() const;
    // A new record for the task type, null for types that have none; replaces the record of the call before. Holders of
    // the older one keep it alive: the progress thread and the status report may ask at the same time.
    std::shared_ptr<const stTaskResultBase> GetTaskResult(std::int32_t taskType);
    void Release();

  private:
    struct State;  // work_runner_state.h
    std::unique_ptr<State> m_state;
};

}  // namespace rq
