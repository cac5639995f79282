// What the supervision and the engine's orders read and change of the core.
#include <exception>
#include <string>
#include <utility>

#include "base/result.h"
#include "util/worker_util.h"
#include "worker/worker_base.h"

namespace rq {

std::int32_t CRQWorkerBase::HeartbeatInterval_s() {
    MutexLock lock(m_parameterLock);
    return m_communicationParam.heartbeatInterval_s;
}

void CRQWorkerBase::SetHeartbeatInterval_s(std::int32_t interval_s) {
    MutexLock lock(m_parameterLock);
    m_communicationParam.heartbeatInterval_s = interval_s;
}

std::uint32_t CRQWorkerBase::ProgressReportInterval_s() {
    MutexLock lock(m_parameterLock);
    return static_cast<std::uint32_t>(m_communicationParam.progressReportInterval_s);
}

std::uint32_t CRQWorkerBase::ProgressPatrolTimeout_s() {
    MutexLock lock(m_parameterLock);
    return static_cast<std::uint32_t>(m_communicationParam.progressPatrolTimeout_s);
}

tagOVLCommunicationParam CRQWorkerBase::CopyParameters() {
    MutexLock lock(m_parameterLock);
    return m_communicationParam;
}

std::string CRQWorkerBase::TaskId() {
    MutexLock lock(m_textLock);
    return m_taskId;
}

std::string CRQWorkerBase::WorkerGuid() {
    MutexLock lock(m_textLock);
    return m_workerGuid;
}

// The session ID is that of this very moment: after a loss it is kNoSession.
bool CRQWorkerBase::Send(std::uint32_t id, const void* record) {
    MutexLock lock(m_sendLock);
    return m_pEngineClient != nullptr && m_pEngineClient->SendMessage(m_sessionId, id, record);
}

// Nothing that the runner does when it is closed or asked for its result sends: the lock may be kept.
bool CRQWorkerBase::CloseAndSend(std::uint32_t mode, std::uint32_t id,
                                 const std::function<const void*()>& make) {
    MutexLock lock(m_sendLock);
    SetClose(mode);
    const void* record = make();
    return m_pEngineClient != nullptr && m_pEngineClient->SendMessage(m_sessionId, id, record);
}

void CRQWorkerBase::SetFlag(std::atomic<bool>& flag, bool value) {
    Signal::Hold hold(m_wake);
    flag = value;
    m_wake.Notify(hold);
}

void CRQWorkerBase::AddTask(std::string text) {
    Signal::Hold hold(m_wake);
    m_taskList.push_back(std::move(text));
    m_wake.Notify(hold);
}

std::int32_t CRQWorkerBase::UpdateTask(const std::string& text) {
    const auto runner = Runner();
    return runner ? runner->UpdateTask(text) : kStatusMissing;
}

std::int32_t CRQWorkerBase::SetClose(std::uint32_t mode) {
    SetFlag(m_stop, true);
    const auto runner = Runner();
    if (!runner) return kStatusMissing;
    runner->CloseTask(mode, 0);
    return kStatusOk;
}

void CRQWorkerBase::SuspendTask() {
    if (const auto runner = Runner()) runner->SuspendTask();
    SetFlag(m_paused, true);
}

void CRQWorkerBase::ResumeTask() {
    if (const auto runner = Runner()) runner->ResumeTask();
    SetFlag(m_paused, false);
}

boost::thread CRQWorkerBase::StartThread(std::uint32_t (*function)(IWorkerCore&)) {
    try {
        return m_seams.startThread([this, function] {
            try {
                function(*this);
            } catch (const std::exception& error) {
                Log(5, std::string("A supervision thread ended by an exception: ") + error.what());
            } catch (...) {
                Log(5, "A supervision thread ended by an unknown exception.");
            }
        });
    } catch (const std::exception& error) {
        Log(4, std::string("A supervision thread could not be started: ") + error.what());
        return {};
    }
}

}  // namespace rq
