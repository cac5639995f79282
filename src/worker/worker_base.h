// CRQWorkerBase: the worker core, one for each process. The run driver calls Init, DoWork (only after a
// successful Init) and Release (always), in this order on the main thread, and deletes it.
//
// Threads: Init, PrepareWork, DoWork, DoWorkOne, thread_get_status and Release on the main thread; AddTask,
// UpdateTask, SetClose, SuspendTask and ResumeTask on the engine link's handler thread (SetClose also on the
// progress thread); the functions of IWorkerCore on any. docs/threads.md has the whole table. Owner: the core
// owns the runner, the engine client and its two threads.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <string>

#include <boost/thread/thread.hpp>

#include "base/clock.h"
#include "base/sync.h"
#include "link/engine_communicate.h"
#include "plugin/work_runner.h"
#include "records/running_parameter.h"
#include "supervision/worker_core.h"
#include "worker/runner_slot.h"
#include "worker/worker_seams.h"

namespace rq {

using SupervisionCallback = std::uint64_t (*)(std::uint32_t event, std::uint64_t a, std::uint64_t b);

// What the run driver gives to Init. The address and the port are kept for callers that read them; the engine
// that is used is chosen by the running parameters and the command line's port.
struct WorkerStartRecord {
    const char* serverAddress = nullptr;
    std::uint32_t serverPort = 8089;
    std::uint64_t reserved = 0;
    SupervisionCallback supervisionCallback = nullptr;
    std::string parameterText;  // UTF-8
    std::int32_t taskType = 0;
};

// Values of the command line that the core reads; set by app/ before the core exists.
struct CommandLineValues {
    std::wstring LogFilePrefix;
    std::uint32_t ServerPortOverride = 0;
    std::wstring CommandText;
};
CommandLineValues& ProcessCommandLine();

// The text up to and including the first ">" after the last "</"; texts that have no such place are returned
// unchanged.
std::string TrimAfterLastClosingTag(std::string text);

// The handler of the engine link (EngineMessageHandler): `context` is the worker core.
void OnEngineMessage(std::uint32_t id, const void* payload, void* context);

class CRQWorkerBase final : public IWorkerCore {
  public:
    explicit CRQWorkerBase(WorkerCoreSeams seams = {});
    // Release must have run: nothing is joined or released here.
    ~CRQWorkerBase();
    CRQWorkerBase(const CRQWorkerBase&) = delete;
    CRQWorkerBase& operator=(const CRQWorkerBase&) = delete;

    // 0; kStatusFail for null; the runner's code when it could not be initialised. Blocks until an engine is
    // there.
    std::int32_t Init(const WorkerStartRecord* start);
    // 0, else the code of the last task run. Blocks until the worker is to end.
    std::int32_t DoWork(const std::string& text, std::int32_t type);
    // Joins the threads, then lets go of the runner and of the engine link, in this order.
    void Release();

    // Performs the task that was prepared last; the runner's perform result.
    std::int32_t DoWorkOne();
    // The plug-in's analysis of a task text and the one announcement of a task to the engine. -1 without a
    // runner.
    std::int32_t PrepareWork(const std::string& text);
    // The running parameters from "actor.xml" in the work path. Always 0.
    std::uint32_t ReadRunningParameter();
    // Reports a TaskStatus to the engine: 0, or -1 without a runner (supervision/status_report.h).
    std::int32_t thread_get_status(std::uint32_t status);

    // The start record's callback: kept, and never called by the worker itself. Null before Init.
    SupervisionCallback Supervision() const { return m_supervisionCallback; }

    void AddTask(std::string text);
    std::int32_t UpdateTask(const std::string& text);
    std::int32_t SetClose(std::uint32_t mode) override;
    void SuspendTask();
    void ResumeTask();

    // ---- IWorkerCore ----
    Clock& GetClock() override { return m_clock; }
    std::shared_ptr<IWorkRunner> Runner() override { return m_pWorker.Borrow(); }
    std::int32_t HeartbeatInterval_s() override;
    void SetHeartbeatInterval_s(std::int32_t interval_s) override;
    std::uint32_t ProgressReportInterval_s() override;
    std::uint32_t ProgressPatrolTimeout_s() override;
    std::int32_t TaskType() override { return m_taskType; }
    std::string TaskId() override;
    std::string WorkerGuid() override;
    std::string ProcessIdText() override { return m_processIdText; }
    bool IsDisconnected() override { return m_disconnected; }
    bool IsPaused() override { return m_paused; }
    bool IsWorking() override { return m_working; }
    bool HeartbeatShouldStop() override { return m_exit || m_heartbeatStop; }
    Signal& ProgressSignal() override { return m_progressSignal; }
    Signal& HeartbeatSignal() override { return m_heartbeatSignal; }
    bool CloseAndSend(std::uint32_t mode, std::uint32_t id,
                      const std::function<const void*()>& make) override;
    bool Send(std::uint32_t id, const void* record) override;

  private:
    friend class EngineOrders;

    struct Endpoint {
        std::string address;
        std::uint16_t port = 0;
    };

    void CreateRunner();
    std::int32_t InitRunner(const WorkRunnerStart& start);
    Endpoint ChooseServer();
    std::int32_t ConnectEngine();
    void DeleteEngine();
    // Does nothing once the server was lost: no later message may carry a session again.
    void StoreSession(std::uint32_t sessionId);
    void LoseSession();
    void AnnounceTask(const std::string& taskId);
    tagOVLCommunicationParam CopyParameters();

    // Stores a flag that a wait of the work loop tests, and lets that wait look at it.
    void SetFlag(std::atomic<bool>& flag, bool value);
    // Sleeps for a second of the work loop, or until `over` says that the loop has nothing to sleep for.
    // `over` is called with m_wake held.
    void SleepUnless(const std::function<bool()>& over);
    // Returns when a task may be taken (true, its text in *text) or the worker is to stop (false).
    bool WaitForTask(std::string* text);
    void EraseFrontTask();
    void WaitForExit();
    void JoinProgressThread();
    boost::thread StartThread(std::uint32_t (*function)(IWorkerCore&));

    WorkerCoreSeams m_seams;
    Clock& m_clock;
    Signal m_wake;          // stop, exit and paused flag and the task list: what the work loop waits for
    Mutex m_parameterLock;  // the heartbeat thread writes one field
    Mutex m_textLock;       // worker GUID and task ID
    Mutex m_sessionLock;    // orders the end of Connect and the loss of the server
    std::atomic<bool> m_heartbeatStop = false;  // the heartbeat thread has been, or is about to be, notified

    std::list<std::string> m_taskList RQ_GUARDED_BY(m_wake);
    tagOVLCommunicationParam m_communicationParam RQ_GUARDED_BY(m_parameterLock);
    RunnerSlot m_pWorker;
    IEngineCommunicate* m_pEngineClient RQ_GUARDED_BY(m_sendLock) = nullptr;
    std::atomic<std::uint32_t> m_sessionId = kNoSession;
    boost::thread m_progressThread;
    boost::thread m_heartbeatThread;
    Signal m_heartbeatSignal;  // mutex and condition of the heartbeat thread
    Signal m_progressSignal;   // mutex and condition of the progress thread
    std::atomic<bool> m_disconnected = true;
    Mutex m_sendLock;
    std::atomic<bool> m_exit = false;
    bool m_noticeSent = false;
    SupervisionCallback m_supervisionCallback = nullptr;  // see Supervision()
    std::string m_workerGuid RQ_GUARDED_BY(m_textLock);
    std::string m_taskId RQ_GUARDED_BY(m_textLock);
    std::atomic<bool> m_working = false;
    std::atomic<bool> m_paused = false;
    std::atomic<bool> m_stop = false;
    std::atomic<std::int32_t> m_taskType = 0;
    std::string m_processIdText;
};

}  // namespace rq
