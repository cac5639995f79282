// The core's work loop: one task after the other, then the wait for the engine's order to end.
#include <chrono>

#include "base/result.h"
#include "records/task_codes.h"
#include "supervision/progress_thread.h"
#include "util/utility.h"
#include "util/worker_util.h"
#include "worker/worker_base.h"

namespace rq {

namespace {

constexpr std::chrono::milliseconds kPollInterval{1000};
// More than this many whole seconds after its task a worker ends without an order.
constexpr std::chrono::seconds kExitWait{60};

}  // namespace

void CRQWorkerBase::SleepUnless(const std::function<bool()>& over) {
    const SteadyTime deadline = m_clock.Steady() + kPollInterval;
    Signal::Hold hold(m_wake);
    while (!over() && m_wake.WaitUntil(hold, deadline)) {
    }
}

bool CRQWorkerBase::WaitForTask(std::string* text) {
    while (!m_stop) {
        {
            Signal::Hold hold(m_wake);
            if (!m_taskList.empty() && !m_paused) {
                *text = m_taskList.front();
                return true;
            }
        }
        SleepUnless([this]() RQ_REQUIRES(m_wake) { return m_stop || (!m_taskList.empty() && !m_paused); });
    }
    return false;
}

void CRQWorkerBase::EraseFrontTask() {
    Signal::Hold hold(m_wake);
    m_taskList.pop_front();
}

void CRQWorkerBase::WaitForExit() {
    const SteadyTime begin = m_clock.Steady();
    while (!m_exit) {
        SleepUnless([this] { return m_exit.load(); });
        const auto waited = std::chrono::duration_cast<std::chrono::seconds>(m_clock.Steady() - begin);
        if (waited > kExitWait) m_exit = true;
    }
}

void CRQWorkerBase::JoinProgressThread() {
    if (m_progressThread.joinable()) m_progressThread.join();
}

std::int32_t CRQWorkerBase::DoWork(const std::string& text, std::int32_t type) {
    AddTask(text);
    std::int32_t result = kStatusOk;
    std::string task;
    while (WaitForTask(&task)) {
        // The earlier task's thread was told to end when that task ended; it could not be waited for under
        // its mutex.
        JoinProgressThread();
        result = PrepareWork(task);
        if (result == 0) result = DoWorkOne();
        EraseFrontTask();
        if (IsPackageType(type)) continue;
        WaitForExit();
        break;
    }

    // Seen by a heartbeat thread that is between two beats and would take the mutex again before this thread
    // gets it.
    m_heartbeatStop = true;
    Signal::Hold hold(m_heartbeatSignal);
    m_heartbeatSignal.Notify(hold);
    if (result != 0) Log(4, "WorkRunner DoWork False!");
    return result;
}

std::int32_t CRQWorkerBase::DoWorkOne() {
    JoinProgressThread();  // for callers other than DoWork, which has done so
    Log(1, "Start do work..");
    {
        // A notification that the earlier task's thread never waited for would cut this one's first wait
        // short.
        Signal::Hold hold(m_progressSignal);
        m_progressSignal.Reset(hold);
    }
    m_working = true;
    m_progressThread = StartThread(ProgressThread);
    thread_get_status(kTaskRunning);

    const auto runner = Runner();
    const std::int32_t result = runner ? runner->PerformTask(CopyParameters()) : kStatusMissing;
    const auto status = [&runner] { return runner ? runner->GetStatus() : std::uint32_t{kTaskError}; };
    thread_get_status(status());

    Log(1, "Stop progress thread begin..");
    m_working = false;
    Signal::Hold hold(m_progressSignal);
    m_progressSignal.Notify(hold);
    const auto statusText = KWOVL_UTILITY::OVLIntegerToString(static_cast<std::int32_t>(status()));
    Log(1, "End do work. Status=[" + statusText + "].");
    return result;
}

}  // namespace rq
