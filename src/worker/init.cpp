// The core's construction, initialisation and preparation of tasks.
#include <new>
#include <utility>

#include "base/result.h"
#include "base/text.h"
#include "platform/identity.h"
#include "platform/process.h"
#include "records/task_codes.h"
#include "supervision/heartbeat_thread.h"
#include "supervision/status_report.h"
#include "util/utility.h"
#include "util/worker_util.h"
#include "worker/worker_base.h"

namespace rq {

CommandLineValues& ProcessCommandLine() {
    static CommandLineValues values;
    return values;
}

void WorkerCoreSeams::FillIn() {
    if (!createEngineClient) createEngineClient = CreateEngineClient;
    if (!deleteEngineClient) deleteEngineClient = DeleteEngineClient;
    if (!createRunner) createRunner = [this] { return std::make_unique<WorkRunner>(*clock); };
    if (!readRunningParameter) readRunningParameter = KWOVL_UTILITY::OVLReadRunningParameter;
    if (!writeRunningParameter) writeRunningParameter = KWOVL_UTILITY::OVLRunningParamToXml;
    if (!startThread) startThread = [](std::function<void()> body) { return boost::thread(std::move(body)); };
}

CRQWorkerBase::CRQWorkerBase(WorkerCoreSeams seams)
    : m_seams(std::move(seams)),
      m_clock(*m_seams.clock),
      m_wake(m_clock),
      m_heartbeatSignal(m_clock),
      m_progressSignal(m_clock) {
    m_seams.FillIn();
    CreateRunner();
}

// Leaves the core without one when memory is short; Init tries again.
void CRQWorkerBase::CreateRunner() {
    try {
        m_pWorker.Put(m_seams.createRunner());
    } catch (const std::bad_alloc&) {
    }
}

std::uint32_t CRQWorkerBase::ReadRunningParameter() {
    const WideText path = GetModuleDirectory() + L"actor.xml";
    MutexLock lock(m_parameterLock);
    if (m_seams.readRunningParameter(NarrowUtf8(path), &m_communicationParam) != 0) {
        m_seams.writeRunningParameter(&m_communicationParam, path);
    }
    return 0;
}

std::int32_t CRQWorkerBase::InitRunner(const WorkRunnerStart& start) {
    const auto runner = Runner();
    return runner ? runner->Init(start) : kStatusMissing;
}

std::int32_t CRQWorkerBase::Init(const WorkerStartRecord* start) {
    Log(1, "==>Worker Begin init..");
    if (start == nullptr) {
        Log(4, "Worker init failed. the param is null");
        return kStatusFail;
    }
    m_disconnected = false;
    m_supervisionCallback = start->supervisionCallback;
    m_processIdText = std::to_string(platform::CurrentProcessId());
    ReadRunningParameter();
    if (!Runner()) CreateRunner();
    const WorkRunnerStart runnerStart{start->parameterText, CopyParameters(), start->taskType};
    m_taskType = start->taskType;

    // A package's plug-in must be ready before the engine may send its tasks.
    const bool package = IsPackageType(start->taskType);
    if (package) {
        if (const std::int32_t result = InitRunner(runnerStart); result != 0) {
            Log(4, "RQ_TASK_PACKAGE WorkRunner Init False!");
            SetFlag(m_exit, true);
            return result;
        }
    }
    if (const std::int32_t result = ConnectEngine(); result != 0) {
        SetFlag(m_exit, true);
        return result;
    }
    m_heartbeatThread = StartThread(HeartbeatThread);
    if (!package) {
        if (const std::int32_t result = InitRunner(runnerStart); result != 0) {
            Log(4, "WorkRunner Init False!");
            SetFlag(m_exit, true);
            m_heartbeatStop = true;
            m_heartbeatSignal.Notify();
            return result;
        }
    }
    Log(2, "Worker Init. PID:" + m_processIdText);
    return kStatusOk;
}

std::int32_t CRQWorkerBase::PrepareWork(const std::string& text) {
    auto runner = Runner();
    if (!runner) return kStatusMissing;
    Log(1, "Prepare work begin..");
    std::string taskId;
    const std::int32_t result = runner->AnalyseTask(text, taskId);
    runner.reset();
    if (result != 0) Log(2, "AnalyseTask failed. taskInfo:" + text);
    if (!taskId.empty() && !m_noticeSent) AnnounceTask(taskId);
    {
        MutexLock lock(m_textLock);
        m_taskId = taskId;
    }
    if (result != 0) thread_get_status(kTaskError);
    Log(2, "Prepare work end. TaskID:[" + taskId + "]");
    return result;
}

// Once in the life of the process, for the first task that has an ID. The GUID made here stays the worker's.
void CRQWorkerBase::AnnounceTask(const std::string& taskId) {
    const platform::Guid guid = platform::CreateGuid();
    const TaskNotice notice{"1.0", GuidToString(&guid), taskId};
    {
        MutexLock lock(m_textLock);
        m_workerGuid = notice.workerGuid;
    }
    {
        MutexLock lock(m_sendLock);
        Log(2, "SendMSG: TCP_WORKER_SEND_ID. TaskID:[" + taskId + "]");
        if (m_pEngineClient != nullptr)
            m_pEngineClient->SendMessage(m_sessionId, TCP_WORKER_SEND_ID, &notice);
    }
    m_noticeSent = true;
}

std::int32_t CRQWorkerBase::thread_get_status(std::uint32_t status) {
    return ReportStatus(*this, status);
}

}  // namespace rq
