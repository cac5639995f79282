#include "supervision/progress_thread.h"

#include <chrono>
#include <string>

#include "errors/error_text.h"
#include "records/engine_messages.h"
#include "supervision/efficiency.h"
#include "supervision/status_report.h"
#include "util/utility.h"
#include "util/worker_util.h"

namespace rq {

namespace {

constexpr double kFullPercent = 100.0;
// What a stalled task is reported with: the codec family's unknown error, and "Task Not Response !".
constexpr std::uint32_t kStallDetailError = 0x80000001u;
constexpr std::uint32_t kStallTaskError = 6;

class ProgressWatch {
  public:
    explicit ProgressWatch(IWorkerCore& core) : m_core(core) {}

    // One round; false when the thread is to end.
    bool Round();

  private:
    void Measure();
    void Print() const;
    EngineProgressMessage MakeMessage() const;
    void SendProgress();
    bool Patrol();
    bool IsStalled() const;
    void HandleStall();

    std::uint32_t RunnerStatus() const;

    IWorkerCore& m_core;
    double m_percent = 0.0;
    double m_speed = 0.0;
    double m_averageSpeed = 0.0;
    double m_previousPercent = -1.0;      // so that the first round always counts as a change
    std::uint32_t m_unchangedRounds = 0;  // kept for a debugger's eye; decides nothing
};

bool ProgressWatch::Round() {
    Signal& signal = m_core.ProgressSignal();
    Signal::Hold hold(signal);
    if (signal.WaitFor(hold, std::chrono::seconds(m_core.ProgressReportInterval_s()))) return true;
    Measure();
    Print();
    SendProgress();
    return Patrol();
}

void ProgressWatch::Measure() {
    const auto runner = m_core.Runner();
    const TaskProgress progress = runner ? runner->GetProgress() : TaskProgress{};
    m_percent = progress.percent;
    m_speed = progress.speed;
    m_averageSpeed = 0.0;
    const std::int32_t type = m_core.TaskType();
    if (!runner || !IsSpeedComputed(type)) return;

    // A start stamp that holds no time counts as a task of no length.
    const auto elapsed_ms =
        progress.start.is_special() ? 0 : (runner->StampNow() - progress.start).total_milliseconds();
    const std::int32_t frameRate = IsSpeedPerFrame(type) ? runner->GetFrameRate() : 0;
    const Efficiency efficiency =
        ComputeEfficiency(type, m_percent, progress.processed, m_speed, elapsed_ms, frameRate);
    m_speed = efficiency.speed;
    m_averageSpeed = efficiency.averageSpeed;
    if (!efficiency.logLine.empty()) Log(2, efficiency.logLine, "PROG");
}

void ProgressWatch::Print() const {
    if (!(m_percent > 0.0 && m_percent <= kFullPercent)) return;
    // "AverateSpeed" is what readers of the console look for.
    ConsoleWrite("Process=" + StreamText(m_percent) + "\nAverateSpeed=" + StreamText(m_speed) + "\n");
}

EngineProgressMessage ProgressWatch::MakeMessage() const {
    auto message = MakeReport<EngineProgressMessage>("process");
    ProgressEntry entry;
    entry.taskId = m_core.TaskId();
    entry.percent = static_cast<float>(m_percent);
    entry.speed = static_cast<float>(m_speed);
    entry.averageSpeed = static_cast<float>(m_averageSpeed);
    if (m_percent > kFullPercent) {
        const auto runner = m_core.Runner();
        const std::string id = runner ? runner->GetTaskId() : std::string();
        KWOVL_UTILITY::OVLWriteLog(
            LogChannelTag, 3,
            L" task( " + KWOVL_UTILITY::OVLStringToTString(id) + L" ) process is more then 100.0.",
            KWOVL_UTILITY::OVLStringToTString(kModuleMain));
        entry.percent = static_cast<float>(kFullPercent);
    }
    message.entries.push_back(entry);
    return message;
}

void ProgressWatch::SendProgress() {
    const EngineProgressMessage message = MakeMessage();
    if (m_core.IsDisconnected() || m_core.IsPaused() || m_percent == m_previousPercent) return;
    const std::uint32_t status = RunnerStatus();
    if (status == kTaskFinished || status == kTaskError || status == kTaskCancelled) return;
    // A lost report is made good by the next changed percent.
    m_core.Send(TCP_WORKER_PROGRESS_ID, &message);
}

bool ProgressWatch::Patrol() {
    if (m_percent != m_previousPercent) {
        m_previousPercent = m_percent;
        m_unchangedRounds = 0;
        return true;
    }
    ++m_unchangedRounds;
    if (!IsStalled()) return true;
    HandleStall();
    return false;
}

bool ProgressWatch::IsStalled() const {
    const std::uint32_t status = RunnerStatus();
    const auto runner = m_core.Runner();
    if (!runner) return false;
    return IsOverdue(runner->StampNow(), runner->GetProgress().expectedNextUpdate,
                     m_core.ProgressPatrolTimeout_s()) &&
           status != kTaskPaused && m_core.IsWorking() && m_previousPercent < kFullPercent;
}

void ProgressWatch::HandleStall() {
    auto message = MakeReport<EngineStateMessage>("state");
    TaskStatusEntry entry;
    entry.status = kTaskError;
    entry.taskType = static_cast<std::uint32_t>(m_core.TaskType());
    entry.detailErrorCode = kStallDetailError;
    entry.detailErrorText = ReportedErrorText(kStallDetailError, kFamilyCodec);
    entry.errorCode = kStallTaskError;
    entry.errorText = ReportedErrorText(kStallTaskError, kFamilyTask);
    entry.stalled = true;

    Log(4, "Progress is not be updated for long time", "BASE");
    // Once: the work loop reports the task's own final status with retries, as soon as the plug-in gives up,
    // and that must come behind this one.
    m_core.CloseAndSend(kClosePatrol, TCP_WORKER_STATE_ID, [&] {
        if (const auto runner = m_core.Runner()) entry.result = runner->GetTaskResult(m_core.TaskType());
        entry.taskId = m_core.TaskId();
        message.entries.push_back(entry);
        return &message;
    });
}

std::uint32_t ProgressWatch::RunnerStatus() const {
    const auto runner = m_core.Runner();
    return runner ? runner->GetStatus() : static_cast<std::uint32_t>(kTaskError);
}

}  // namespace

bool IsOverdue(LocalTime now, LocalTime expected, std::uint32_t timeout_s) {
    if (now.is_special() || expected.is_special()) return false;
    return now > expected && now - expected >= boost::posix_time::seconds(timeout_s);
}

std::uint32_t ProgressThread(IWorkerCore& core) {
    ProgressWatch watch(core);
    while (core.IsWorking() && watch.Round()) {
    }
    Log(2, "Worker process thread has stopped. PID:" + core.ProcessIdText() + ", TaskID:[" + core.TaskId() +
               "]");
    return 0;
}

}  // namespace rq
