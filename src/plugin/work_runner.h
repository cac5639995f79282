// WorkRunner: owns the loaded plug-in and drives it. One for each worker process, owned by the worker core.
//
// Threads: Init, AnalyseTask and Release on the main thread; PerformTask on the work loop's (also the main)
// thread; GetProgress on the progress thread; CloseTask, SuspendTask, ResumeTask and UpdateTask on the link's
// handler thread, CloseTask also on the progress thread; the readers and GetTaskResult on any. A reader waits
// while an update is analysed between two perform calls; it never waits for a perform call.
//
// The task information record is the plug-in's. The one that a perform call was given stays "the task" for
// every reader, also when an update replaces it meanwhile, until the next AnalyseTask: its status is the
// task's outcome.
//
// The current directory of the process moves to the plug-in's folder in Init and stays there.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "base/clock.h"
#include "base/text.h"
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

// What the worker core needs of a runner; tests put a scripted one in its place.
class IWorkRunner {
  public:
    virtual ~IWorkRunner() = default;

    // 0; kStatusFail when the library could not be loaded or lacks an entry point; else the plug-in's own
    // code.
    virtual std::int32_t Init(const WorkRunnerStart& start) = 0;
    // 0, else the plug-in's code; also when the plug-in left no record, which PerformTask and GetStatus then
    // show; -1 when no analyse function is loaded, or after Release. `taskId` is left alone when there is no
    // record, or the analysis failed before it had an ID.
    virtual std::int32_t AnalyseTask(const std::string& text, std::string& taskId) = 0;
    // The plug-in's code; -1 when no analyse function is loaded.
    virtual std::int32_t UpdateTask(const std::string& text) = 0;
    // 0, or kStatusFail when there is no task. The outcome is in GetStatus. Blocks until the plug-in returns.
    virtual std::int32_t PerformTask(tagOVLCommunicationParam parameters) = 0;
    // 0 when done, ignored or left to the plug-in; -1 when a timed wait ran out.
    virtual std::int32_t CloseTask(std::uint32_t mode, std::int32_t wait_s) = 0;
    virtual std::int32_t SuspendTask() = 0;
    virtual std::int32_t ResumeTask() = 0;
    virtual TaskProgress GetProgress() const = 0;
    // Local time now, by the clock that made the stamps of GetProgress: compare those with this and nothing
    // else.
    virtual LocalTime StampNow() const = 0;
    // kTaskError when there is no task.
    virtual std::uint32_t GetStatus() const = 0;
    virtual std::string GetTaskId() const = 0;
    // Frames per second truncated toward zero; 25 when it is not greater than 0.
    virtual std::int32_t GetFrameRate() const = 0;
    virtual std::uint32_t GetCloseMode() const = 0;
    virtual TaskErrorInfo GetErrorInfo() const = 0;
    // A new record for the task type, null for types that have none and without a task; replaces the record
    // of the call before. Holders of the older one keep it alive: the progress thread and the status report
    // may ask at the same time.
    virtual std::shared_ptr<const stTaskResultBase> GetTaskResult(std::int32_t taskType) = 0;
    virtual void Release() = 0;
};

struct WorkRunnerSeams;  // work_runner_seams.h; for tests

class WorkRunner final : public IWorkRunner {
  public:
    explicit WorkRunner(Clock& clock = SystemClock());
    explicit WorkRunner(WorkRunnerSeams seams);
    ~WorkRunner() override;  // calls Release
    WorkRunner(const WorkRunner&) = delete;
    WorkRunner& operator=(const WorkRunner&) = delete;

    std::int32_t Init(const WorkRunnerStart& start) override;
    std::int32_t AnalyseTask(const std::string& text, std::string& taskId) override;
    std::int32_t UpdateTask(const std::string& text) override;
    std::int32_t PerformTask(tagOVLCommunicationParam parameters) override;
    std::int32_t CloseTask(std::uint32_t mode, std::int32_t wait_s) override;
    std::int32_t SuspendTask() override;
    std::int32_t ResumeTask() override;
    TaskProgress GetProgress() const override;
    LocalTime StampNow() const override;
    std::uint32_t GetStatus() const override;
    std::string GetTaskId() const override;
    std::int32_t GetFrameRate() const override;
    std::uint32_t GetCloseMode() const override;
    TaskErrorInfo GetErrorInfo() const override;
    std::shared_ptr<const stTaskResultBase> GetTaskResult(std::int32_t taskType) override;
    // Calls the plug-in's release function, once: a second call (the destructor's) finds nothing to do.
    void Release() override;

    // 0, 1 or 2, as the plug-in sees it. Nobody clears it between tasks: a stop that lands during an analysis
    // is not lost.
    std::uint32_t GetStopFlag() const;
    // The runner's last change of the task's status gave it another value, or a perform call has returned.
    bool IsStatusChanged() const;
    // No perform call is running.
    bool IsIdle() const;

  private:
    struct State;  // work_runner_state.h
    std::unique_ptr<State> m_state;
};

}  // namespace rq
