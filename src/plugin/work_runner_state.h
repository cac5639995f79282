// The runner's members. Private to the runner's own files (work_runner.cpp, analyse_task.cpp,
// perform_task.cpp, progress_callback.cpp, close_task.cpp, task_results.cpp).
//
// Locks, in the order in which they are taken:
//
//   callLock      one call of the plug-in's init, analyse or release function at a time; held while it runs.
//
//   resultLock    the last task result.
//
//   recordLock    which record is "the task", and every access to it from outside the perform call's thread.
//                 Held while an update is analysed with no perform call running, since the plug-in may then
//                 free any record.
//
//   progressLock  the progress record.
//
// The perform call and the progress callback take progressLock only (and recordLock before and after the
// call), so that neither an update nor a reader can hold up the work.
#pragma once

#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <thread>

#include "base/sync.h"
#include "plughost/host_services.h"
#include "plughost/parameter_view.h"
#include "plughost/plugin_library.h"
#include "plughost/plugin_text.h"
#include "plugin/breaches.h"
#include "plugin/task_clock.h"
#include "plugin/task_record.h"
#include "plugin/task_thread.h"
#include "plugin/work_runner.h"
#include "plugin/work_runner_seams.h"

namespace rq {

struct WorkRunner::State {
    explicit State(WorkRunnerSeams given);
    // Takes the members of a runner that is gone. They live until the process ends, as what the plug-in has
    // of them does: the stop flag, and the context of the progress callback, which a thread that outlived its
    // perform call may still use.
    static void Keep(std::unique_ptr<State> state);

    WorkRunnerSeams seams;
    Clock& clock;

    Mutex callLock;
    Mutex recordLock;
    Mutex resultLock;
    mutable Mutex progressLock;

    WorkerPlugin m_workerPlugin;  // written by Init under callLock
    std::string pluginName;       // written by Init, before there is any record
    bool isReleased RQ_GUARDED_BY(callLock) = false;

    // The newest record; replaced by an update also while another one is being performed.
    TaskRecord taskInformation RQ_GUARDED_BY(recordLock);
    // The record that was given to the perform call, from then until the next AnalyseTask.
    TaskRecord inUse RQ_GUARDED_BY(recordLock);
    // What the performed task left behind, once an update made its record unsafe to read.
    std::unique_ptr<KeptTask> kept RQ_GUARDED_BY(recordLock);

    std::atomic<bool> statusChanged{false};
    TaskProgress progress RQ_GUARDED_BY(progressLock);
    std::atomic<double> frameRate{25.0};
    std::unique_ptr<TaskThread> taskThread;
    // 0, 1 or 2; the plug-in holds its address. Access with RQLoad32 and RQStore32.
    volatile std::uint32_t stopWord = RQ_STOP_NONE;
    volatile std::uint32_t* const stopFlag = &stopWord;
    std::atomic<bool> pauseFlag{false};
    std::atomic<float> pausedTime_ms{0.0f};  // of all tasks: nothing sets it back
    std::atomic<bool> idle{true};
    std::atomic<std::uint32_t> closeMode{0};
    tagOVLCommunicationParam parameters;  // of the last perform call; main thread
    std::shared_ptr<const stTaskResultBase> taskResult RQ_GUARDED_BY(resultLock);
    WideText moduleDirectory;  // ends with a separator
    WideText savedDirectory;   // the current directory before the plug-in was loaded

    // What the progress callback needs of the record that is being performed. Set before the perform call
    // begins.
    std::atomic<TaskInfo*> performing{nullptr};  // null when no perform call is running
    // Atomic, since a plug-in in breach reads it on a thread that outlived its perform call while the next
    // one begins.
    std::atomic<std::thread::id> performThread;
    std::atomic<bool> hasTask{false};
    std::atomic<std::int32_t> taskType{0};
    std::atomic<bool> isTwoPass{false};

    TaskClock taskClock;
    Breaches breaches;
    TextKeeper keeper;  // texts of ours that records point to
    std::unique_ptr<ParameterView>
        initParameters;  // the plug-in may read it until its release function returns
    HostServices services;

    // ---- the task's status ----

    // Null when there is no task.
    volatile std::uint32_t* StatusWord() RQ_REQUIRES(recordLock);
    bool HasTask() RQ_REQUIRES(recordLock) { return kept != nullptr || CurrentRecord().info != nullptr; }
    const TaskRecord& CurrentRecord() RQ_REQUIRES(recordLock) {
        return inUse.info != nullptr ? inUse : taskInformation;
    }
    const std::string& CurrentTaskId() RQ_REQUIRES(recordLock) {
        return kept != nullptr ? kept->taskId : CurrentRecord().taskId;
    }
    // Notes whether the value is another one, then stores it.
    void SetStatus(volatile std::uint32_t& word, std::uint32_t status);
    TaskErrorInfo ReadErrors(const TaskInfo& info) const;

    // ---- steps of Init ----
    // The library's path for the operating system: `dllPath` with the table's separators as this platform
    // writes them.
    WideText NativePath(WideText path) const;
    std::int32_t LoadPlugin(const WorkRunnerStart& start) RQ_REQUIRES(callLock);
    void ChangeToPluginDirectory();
    bool LoadFromPluginDirectory();
    bool FindFunctions();
    bool ReadDescription();
    std::int32_t CallInit(const WorkRunnerStart& start);

    // ---- steps of AnalyseTask and UpdateTask ----
    struct Analysis {
        std::int32_t result = 0;
        TaskInfo* info = nullptr;  // null when the plug-in left none that can be used
        std::string complaint;     // the line that names the plug-in, when it left one that cannot
    };
    Analysis CallAnalyse(const std::string& text, TaskInfo* before) RQ_REQUIRES(callLock);
    std::string ReadTaskId(const TaskInfo& info) const;
    void EndFailedAnalysis(const Analysis& analysis, const std::string& recordsId, std::string& taskId);
    void EndGoodAnalysis(TaskInfo& info);
    void ForgetTask();
    std::int32_t Update(const std::string& text) RQ_REQUIRES(callLock);
    std::int32_t UpdateBetweenCalls(const std::string& text) RQ_REQUIRES(callLock, recordLock);
    std::int32_t EndUpdate(const Analysis& analysis) RQ_REQUIRES(recordLock);
    std::unique_ptr<KeptTask> KeepTask() RQ_REQUIRES(recordLock);

    // ---- steps of PerformTask ----
    void BeginProgress(const tagOVLCommunicationParam& given);
    TaskInfo* BeginPerform();
    void RunPerformCall(TaskInfo& info);
    // What the perform call threw: its text; nothing when it returned.
    std::optional<std::string> CallPerform(TaskInfo& info);
    void ApplyPublishedError(TaskInfo& info, const PublishedError& error) RQ_REQUIRES(recordLock);
    void ApplyException(TaskInfo& info, const std::string& text) RQ_REQUIRES(recordLock);

    // ---- progress ----
    static std::uint32_t ProgressCallback(std::int64_t total, std::int64_t done, void* context);
    std::uint32_t OnProgress(std::int64_t total, std::int64_t done);
    void HoldWhilePaused(TaskInfo& info);
    void CheckFigures(std::int64_t total, std::int64_t done);
    void TakeProgress(std::int64_t total, std::int64_t done, LocalTime entry) RQ_REQUIRES(progressLock);
    void TakeSignOfLife(std::int64_t seconds) RQ_REQUIRES(progressLock);

    // ---- steps of CloseTask ----
    void LogClose(std::uint32_t mode, std::int32_t wait_s);
    void MarkCancelled();
    void RequestStop(std::uint32_t mode);
    bool IsPackageTask();
    std::int32_t CloseOrderly(std::int32_t wait_s);
    std::int32_t CloseByPatrol();

    // ---- results ----
    // What the task has so far: its record's lists, then what it published. Nothing when there is no task.
    std::optional<TaskResultCopy> CollectResults();

    PluginLog LogSink() const;
};

}  // namespace rq
