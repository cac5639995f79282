#include "simulation/watch.h"

#include <algorithm>
#include <utility>

#include "kit/replies.h"
#include "link/codec.h"
#include "simulation/world.h"

namespace rq::sim {
namespace {

// The order in which a worker starts its threads; those after them are one for each task's progress.
enum ThreadNumber { kMain = 0, kWorld = 1, kHandler = 2, kIo = 3, kHeartbeat = 4 };

// Orders that end the work loop of a package, or of a worker that has no task yet.
bool IsStop(std::uint32_t order) {
    return order == TCP_TASK_CANCEL_ID || order == TCP_TASK_FINISH_ID || order == TCP_SERVER_DISCONNECT_ID;
}

bool IsExit(std::uint32_t order) {
    return order == TCP_WORKER_DESTROY_ID || order == TCP_SERVER_DISCONNECT_ID;
}

bool IsRetried(std::uint32_t status) {
    return status == kTaskFinished || status == kTaskError;
}

link::EngineClientOptions Options() {
    link::EngineClientOptions options;
    options.token = Engine::kToken;
    options.attempt = Engine::kAttempt;
    options.workerVersion = "1";
    return options;
}

}  // namespace

// The interface is not destroyed through itself; see DeleteClient.
class WatchedClient final : public IEngineCommunicate {
  public:
    explicit WatchedClient(Watch& watch) : m_watch(watch), m_client(Options()) {}

    void Initialize(const EngineClientSetup* setup) override {
        m_watch.m_handler = setup->handler;
        m_watch.m_context = setup->context;
        const EngineClientSetup watched{&m_watch, &Watch::OnMessage, {}};  // without a log file
        m_client.Initialize(&watched);
    }
    std::uint32_t Connect(const EngineEndpoint* endpoint) override { return m_client.Connect(endpoint); }
    void Disconnect() override {
        m_client.Disconnect();
        m_watch.m_isDisconnected = true;
    }
    void Uninitialize() override { m_client.Uninitialize(); }
    bool SendMessage(std::uint32_t session, std::uint32_t id, const void* record) override {
        const Watch::Send send = m_watch.BeginSend(session, id, record);
        const bool result = m_client.SendMessage(session, id, record);
        m_watch.EndSend(send, result);
        return result;
    }

  private:
    Watch& m_watch;
    link::EngineClient m_client;
};

IEngineCommunicate* Watch::MakeClient() {
    return new WatchedClient(*this);
}

void Watch::DeleteClient(IEngineCommunicate** client) {
    delete static_cast<WatchedClient*>(std::exchange(*client, nullptr));
}

std::int64_t Watch::Now() const {
    return m_world.scheduler.Now();
}

std::uint64_t Watch::Step() const {
    return m_world.scheduler.Step();
}

std::int64_t Watch::Busy() const {
    return m_busy + (m_busySince == kNever ? 0 : Now() - m_busySince);
}

// What stalls of single steps may add up to; without any, less than the second of a poll that was not woken.
// A stalled task's one status keeps the send lock as long as the link waits for its acknowledgement.
std::int64_t Watch::Slack() const {
    const std::int64_t stalls = m_world.scenario.strategy.stallOneIn == 0 ? 400 * kMillisecond : 3 * kSecond;
    return stalls + (m_hasStalled ? 6 * kSecond : 0);
}

void Watch::Require(bool holds, const std::string& what) const {
    if (!holds) m_world.scheduler.Fail(what);
}

// ---- the message handler ----

void Watch::OnMessage(std::uint32_t id, const void* payload, void* context) {
    Watch& watch = *static_cast<Watch*>(context);
    const std::uint32_t session = *static_cast<const std::uint32_t*>(payload);  // first in every payload
    watch.BeginOrder(id, session);
    watch.m_handler(id, payload, watch.m_context);
    watch.EndOrder(id, session);
}

void Watch::BeginOrder(std::uint32_t id, std::uint32_t session) {
    m_world.scheduler.Note("handler gets " + std::to_string(id) + " of session " + std::to_string(session));
    ++m_world.counts.orders;
    Require(!m_isDisconnected, "the handler is called after Disconnect has returned");
    Require(!m_lossBegun, "the handler is called after it was told of the loss");
    Require(m_orderInHand == 0, "the handler is called while it runs");
    m_orderInHand = id;
    m_replies = 0;
    if (id == TCP_SERVER_DISCONNECT_ID) m_lossBegun = true;
    if (id == TCP_TASK_SUSPEND_ID) m_isPaused = true;
    if (id == TCP_TASK_RESUME_ID) m_pausedAtStep = 0;
    if (IsStop(id)) m_isClosing = true;
}

void Watch::EndOrder(std::uint32_t id, std::uint32_t session) {
    Require(m_replies == (kit::ReplyTo(id) != 0 ? 1 : 0),
            "order " + std::to_string(id) + " got " + std::to_string(m_replies) + " replies");
    m_orderInHand = 0;
    if (IsStop(id)) m_stopAt = std::min(m_stopAt, Now());
    if (IsExit(id)) m_exitAt = std::min(m_exitAt, Now());
    if (id == TCP_TASK_SUSPEND_ID) m_pausedAtStep = Step();
    if (id == TCP_TASK_RESUME_ID) m_isPaused = false;
    if (id == TCP_SERVER_DISCONNECT_ID) {
        ++m_world.counts.losses;
    } else {
        ++m_handled[session];
    }
}

std::uint64_t Watch::OrdersHandled(std::uint32_t session) const {
    const auto found = m_handled.find(session);
    return found == m_handled.end() ? 0 : found->second;
}

// ---- sends ----

Watch::Send Watch::BeginSend(std::uint32_t session, std::uint32_t id, const void* record) {
    Send send{session, id, record, nullptr, false, Now()};
    ++m_world.counts.sends;
    Require(m_sendersInside++ == 0, "two threads are inside SendMessage");
    const int thread = Scheduler::Current()->number;
    std::string what = "sends " + std::to_string(id);
    if (id == TCP_WORKER_STATE_ID) {
        send.state = &static_cast<const EngineStateMessage*>(record)->entries.at(0);
        send.isFinal = link::IsFinalTaskStatus(send.state->status);
        what += " status " + std::to_string(send.state->status) + " of " + send.state->taskId;
    }
    m_world.scheduler.Note(what + " in session " + std::to_string(session));
    Require(m_lossAtStep == 0 || session == kNoSession, "a send after the loss carries a session");

    if (id == TCP_WORKER_SEND_ID) Require(++m_notices == 1, "a second notice is sent");
    if (thread == kHandler && id == kit::ReplyTo(m_orderInHand)) ++m_replies;
    if (id == TCP_WORKER_HEARTBEAT_ID) CheckHeartbeat();
    if (id == TCP_WORKER_PROGRESS_ID) CheckProgress(*static_cast<const EngineProgressMessage*>(record));
    if (id == TCP_WORKER_STATE_ID && thread == kMain) CheckReportedState(send);
    if (send.isFinal) m_busySince = Now();
    return send;
}

void Watch::EndSend(const Send& send, bool result) {
    --m_sendersInside;
    m_world.scheduler.Note("send of " + std::to_string(send.id) + (result ? " done" : " failed"));
    if (send.isFinal) m_busy += Now() - std::exchange(m_busySince, kNever);
    if (send.isFinal && result) CheckAccepted(*send.state);
    if (send.id == TCP_WORKER_HEARTBEAT_ID) {
        m_lastBeat = Now();
        m_busyAtBeat = Busy();
    }
    if (Scheduler::Current()->number != kMain) return;
    m_lastActivity = Now();
    if (send.id != TCP_WORKER_STATE_ID) return;
    m_report.tries.back().end = Now();
    m_report.isAccepted = result;
}

// A final status that the worker saw accepted survives whatever happens to the engine.
void Watch::CheckAccepted(const TaskStatusEntry& entry) {
    ++m_world.counts.finalsAccepted;
    const FinalRecord* record = m_world.engine.Finals().Durable(Engine::kAttempt, entry.taskId);
    Require(record != nullptr,
            "the final status of " + entry.taskId + " was accepted and is not on the disk");
    // The one of a stalled task comes before the task's own. Tasks without an ID cannot be told apart.
    Require(record->status == entry.status || m_hasStalled || entry.taskId.empty(),
            "another final status of " + entry.taskId + " is on the disk than was accepted");
}

// ---- status reports ----

void Watch::BeginReport(std::uint32_t status) {
    CloseReport();
    m_report = {};
    m_report.isOpen = true;
    m_report.status = status;
    m_report.begunAtStep = Step();
    if (!std::exchange(m_reportIsDue, false)) return;
    // An order to cancel may come between the plug-in's return and the report.
    Require(
        status == m_dueStatus || (status == kTaskCancelled && m_isClosing),
        "status " + std::to_string(status) + " is reported where " + std::to_string(m_dueStatus) + " is due");
}

void Watch::CheckReportedState(const Send& send) {
    Require(m_report.isOpen, "a status is sent that is no report's");
    if (m_lossAtStep != 0) {
        Require(m_report.begunAtStep < m_lossAtStep, "a status report begun after the loss sends");
        // One may have been past its look at the flag.
        Require(++m_reportsAfterLoss <= 1, "a status is sent again after the loss");
    }
    Require(!m_report.isAccepted, "a status that was accepted is sent again");
    Require(send.state->status == m_report.status ||
                (m_report.status == kTaskCancelled && send.state->status == kTaskError && m_hasStalled),
            "another status is sent than is reported");
    Require(send.state->taskId == m_task,
            "a status is sent for " + send.state->taskId + " instead of " + m_task);
    m_report.isFinal = IsRetried(send.state->status);
    if (!m_report.tries.empty()) CheckRetry(send);
    m_report.tries.push_back({Now(), Now()});
}

// The first retry follows at once, each other one a second after the one before.
void Watch::CheckRetry(const Send& send) {
    ++m_world.counts.finalsRetried;
    Require(m_report.isFinal, "status " + std::to_string(send.state->status) + " is tried again");
    const std::int64_t wait = Now() - m_report.tries.back().end;
    const std::int64_t least = m_report.tries.size() == 1 ? 0 : kSecond;
    Require(wait >= least, "a final status is sent again too soon");
    Require(wait <= least + Slack(), "a final status is sent again too late");
}

void Watch::CloseReport() {
    if (!std::exchange(m_report.isOpen, false)) return;
    const std::string status = std::to_string(m_report.status);
    Require(m_lossBegun || !m_report.tries.empty(), "the report of status " + status + " sent nothing");
    if (m_report.isFinal)
        Require(m_lossBegun || m_report.isAccepted, "the worker gave up final status " + status);
}

// ---- progress ----

void Watch::CheckProgress(const EngineProgressMessage& message) {
    ++m_world.counts.progress;
    const Scheduler::Thread& thread = *Scheduler::Current();
    const auto found = m_progress.find(thread.number);
    Require(found != m_progress.end(), "progress is sent by another thread than the progress thread");
    ++found->second.sent;
    const ProgressEntry& entry = message.entries.at(0);
    Require(entry.percent <= 100.0f, "progress above 100 percent is sent");
    Require(entry.taskId == found->second.task,
            "progress of " + entry.taskId + " is sent while " + found->second.task + " is performed");
    // A round that began before may still send.
    const auto isRoundAfter = [&](std::uint64_t step) { return step != 0 && thread.wokeAtStep > step; };
    Require(!isRoundAfter(m_pausedAtStep), "progress is sent while the task is paused");
    Require(!isRoundAfter(m_lossAtStep), "progress is sent after the loss");
    Require(!isRoundAfter(m_performedAtStep), "progress is sent after the final status");
}

bool Watch::ProgressIsDue() const {
    return m_isPerforming && !m_isPaused && !m_lossBegun && !m_isClosing;
}

void Watch::EndRound(ProgressThread& progress) {
    const bool mustSend = std::exchange(progress.mustSend, false);
    Require(!mustSend || !ProgressIsDue() || progress.sent > 0, "the first round sends no progress");
}

void Watch::OnTimedWait(Scheduler::Thread& thread) {
    if (const auto found = m_progress.find(thread.number); found != m_progress.end()) EndRound(found->second);
}

void Watch::OnTimedOut(Scheduler::Thread& thread) {
    const auto found = m_progress.find(thread.number);
    if (found == m_progress.end() || std::exchange(found->second.isFirstRoundOver, true)) return;
    found->second.mustSend = ProgressIsDue();
}

void Watch::OnThreadEnd(Scheduler::Thread& thread) {
    if (const auto found = m_progress.find(thread.number); found != m_progress.end()) EndRound(found->second);
}

std::string Watch::NameOf(int number) {
    ++m_world.counts.threads;
    switch (number) {
        case kHandler:
            return "handler";
        case kIo:
            return "io";
        case kHeartbeat:
            m_lastBeat = Now();
            m_busyAtBeat = Busy();
            return "heartbeat";
        default:
            m_progress[number].task = m_task;
            return "progress" + std::to_string(number - kHeartbeat);
    }
}

// ---- heartbeats ----

void Watch::CheckHeartbeat() {
    ++m_world.counts.heartbeats;
    Require(Scheduler::Current()->number == kHeartbeat, "another thread sends a heartbeat");
    const std::int32_t given_s = m_world.scenario.heartbeat_s;
    const std::int64_t interval = (given_s >= 60 ? 40 : given_s) * kSecond;
    const std::int64_t waited = Now() - m_lastBeat;
    Require(waited >= interval, "a heartbeat comes too soon");
    Require(waited <= interval + Slack() + Busy() - m_busyAtBeat, "a heartbeat comes too late");
}

// ---- the worker's life ----

void Watch::OnInitialised(std::int32_t result) {
    m_lastActivity = Now();
    m_world.scheduler.Note("Init gives " + std::to_string(result));
    Require((result == 0) == (m_world.scenario.pluginInitResult == 0), "Init has another result");
}

void Watch::OnAnalyse(const std::string& task, std::int32_t result) {
    CloseReport();
    Require(!m_reportIsDue, "the status of " + m_task + " was not reported");
    m_lastActivity = Now();
    m_performedAtStep = 0;
    // An order to stop that still waits to be answered will close this task.
    m_isClosing = IsStop(m_orderInHand);
    m_task = task;
    m_hasTask = true;
    m_reportIsDue = result != 0;
    m_dueStatus = kTaskError;
    for (const auto& thread : m_world.scheduler.Threads()) {
        Require(!m_progress.contains(thread->number) || thread->state == Scheduler::Thread::State::Done,
                "a task is prepared while the progress thread of the one before runs");
    }
}

void Watch::OnPerform() {
    CloseReport();
    m_isPerforming = true;
}

void Watch::OnPerformed(std::uint32_t status) {
    m_isPerforming = false;
    m_reportIsDue = true;
    m_dueStatus = status;
    m_lastActivity = Now();
    if (link::IsFinalTaskStatus(status)) m_performedAtStep = Step();
}

void Watch::OnWorkOver() {
    m_workOverAt = Now();
    m_world.scheduler.Note("the work is over");
    CloseReport();
    Require(!m_reportIsDue, "the status of " + m_task + " was not reported");
    // An order acts before its handler has returned.
    const std::int64_t stopAt = IsStop(m_orderInHand) ? std::min(m_stopAt, Now()) : m_stopAt;
    const std::int64_t exitAt = IsExit(m_orderInHand) ? std::min(m_exitAt, Now()) : m_exitAt;
    const auto endsAfter = [&](std::int64_t condition) {
        return Now() <= std::max(condition, m_lastActivity) + Slack();
    };
    if (m_world.scenario.IsPackage() || (stopAt != kNever && !m_hasTask)) {
        Require(stopAt != kNever, "the work loop ends without an order");
        Require(endsAfter(stopAt), "the work loop ends too late after it was told to stop");
    } else if (exitAt != kNever) {
        Require(endsAfter(exitAt), "the worker ends too late after it was told to");
    } else {
        const std::int64_t waited = Now() - m_lastActivity;
        Require(waited >= 61 * kSecond - kMillisecond, "the worker did not wait for its order to end");
        Require(waited <= 62 * kSecond + Slack(), "the worker waits too long for its order to end");
    }
    if (exitAt == kNever) {
        const std::int32_t given_s = m_world.scenario.heartbeat_s;
        const std::int64_t interval = (given_s >= 60 ? 40 : given_s) * kSecond;
        Require(Now() - m_lastBeat <= interval + Slack() + Busy() - m_busyAtBeat, "heartbeats have ceased");
    }
}

void Watch::OnReleased() {
    m_world.scheduler.Note("the worker is released");
    // The link waits up to a second for the engine's end of the connection.
    Require(Now() <= m_workOverAt + kSecond + Slack(), "Release takes too long");
    for (const auto& thread : m_world.scheduler.Threads()) {
        Require(thread->number <= kWorld || thread->state == Scheduler::Thread::State::Done,
                "the thread " + thread->name + " is left");
    }
    m_world.engine.CheckFinals();
}

// ---- lines ----

void Watch::Receive(const LogLine& line) {
    m_world.scheduler.Note("log " + std::to_string(line.level) + " " + line.text);
    if (line.text == "Progress is not be updated for long time") {
        ++m_world.counts.stalls;
        m_hasStalled = true;
        m_isClosing = true;
        m_stopAt = std::min(m_stopAt, Now());
    }
    // Written when the session is gone and the flag is set.
    if (line.text == "Worker will be cancel!!!! Because Socket Server is Disconnect.") m_lossAtStep = Step();
    // What follows a report; the sleep after its last try is over.
    if (line.text == "Stop progress thread begin.." || line.text.starts_with("Prepare work end.")) {
        CloseReport();
        m_lastActivity = Now();
    }
}

void Watch::Receive(const std::string& utf8) {
    m_world.scheduler.Note("console " + utf8);
    constexpr std::string_view status = "emStatus=";
    if (utf8.compare(0, status.size(), status) == 0)
        BeginReport(static_cast<std::uint32_t>(std::stoul(utf8.substr(status.size()))));
}

}  // namespace rq::sim
