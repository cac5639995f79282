// What workers say: the handshake, their records, the end of their sessions.
#include <algorithm>
#include <boost/asio/post.hpp>
#include <cmath>

#include "base/text.h"
#include "engine/json.h"
#include "engine/scheduler.h"
#include "platform/codepage.h"
#include "platform/found_process.h"
#include "platform/identity.h"
#include "records/task_codes.h"

namespace rq::engine {

namespace {

// In time that does not depend on where the two differ.
bool SameSecret(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) return false;
    unsigned char difference = 0;
    for (std::size_t i = 0; i < a.size(); ++i) difference |= static_cast<unsigned char>(a[i] ^ b[i]);
    return difference == 0;
}

// Reply texts are GBK, except one in ASCII.
std::string ReplyText(const std::string& bytes) {
    if (IsValidUtf8(bytes)) return bytes;
    return platform::GbkToUtf8(bytes).value_or(RepairUtf8(bytes));
}

// What the store and JSON can hold; three digits are plenty.
double Shown(float value) {
    return std::isfinite(value) ? std::round(static_cast<double>(value) * 1000) / 1000 : 0.0;
}

}  // namespace

FinalStatus Scheduler::FinalOf(const TaskStatusEntry& entry) {
    FinalStatus final;
    final.status = entry.status;
    final.detailErrorCode = entry.detailErrorCode;
    final.detailErrorText = RepairUtf8(entry.detailErrorText);
    final.errorCode = entry.errorCode;
    final.errorText = RepairUtf8(entry.errorText);
    final.furtherText = RepairUtf8(entry.furtherText);
    final.result = ResultJson(entry.result.get());
    final.stalled = entry.stalled;
    return final;
}

std::uint32_t Scheduler::NewSessionId() {
    do {
        ++m_lastSession;
    } while (m_lastSession == 0 || m_lastSession == kNoSession || m_sessions.contains(m_lastSession) ||
             m_twins.contains(m_lastSession));
    return m_lastSession;
}

std::variant<link::Welcome, link::Refuse> Scheduler::Admit(const link::Hello& hello,
                                                           const std::shared_ptr<Session>& session) {
    using link::Refuse;
    if (hello.protocolVersion != link::kProtocolVersion)
        return Refuse{link::kRefuseVersion, "this engine speaks version 1"};
    if (!SameSecret(hello.token, m_linkToken))
        return Refuse{
            link::kRefuseToken,
            "wrong token; RQ_ENGINE_TOKEN is to be what stands in engine.token in the engine's data "
            "folder"};
    if (m_left) return Refuse{link::kRefuseEnding, "the engine is ending"};
    if (hello.resumeSessionId != 0) return AdmitResumed(hello, session);
    Run* run = hello.attempt.empty() ? nullptr : Find(hello.attempt);
    if (!hello.attempt.empty() && run == nullptr) return AdmitTwin(hello, session);
    // A worker that never got its WELCOME knows of no session that it could resume.
    const bool isUnheard = run != nullptr && run->away && run->away->has == 0;
    if (run != nullptr && ((run->connected && !isUnheard) || run->exit))
        return Refuse{link::kRefuseAttempt, "the attempt has ended or is connected"};
    if (m_ending) return Refuse{link::kRefuseEnding, "the engine is ending"};
    if (run == nullptr) {
        auto claim = m_store.AdoptExternal("process " + std::to_string(hello.processId));
        if (!claim) return Refuse{link::kRefuseEnding, "the store refused: " + claim.error().message};
        auto& made = m_runs[claim->token] = std::make_unique<Run>(m_io);
        made->claim = std::move(*claim);
        made->worker = made->claim.token;
        made->external = true;
        run = made.get();
    }
    return Welcome(*run, hello, session);
}

// Its attempt has ended: it was lost, and is back. Refused, it would try again for ever, and its task may be
// in other hands meanwhile.
std::variant<link::Welcome, link::Refuse> Scheduler::AdmitTwin(const link::Hello& hello,
                                                               const std::shared_ptr<Session>& session) {
    const auto noted = m_store.Note(hello.attempt, "late-worker", ProcessEventJson(hello.processId));
    if (!noted) return link::Refuse{link::kRefuseAttempt, "the attempt is unknown"};
    link::Welcome welcome;
    welcome.sessionId = NewSessionId();
    welcome.attempt = hello.attempt;
    welcome.pingInterval_ms = static_cast<std::uint32_t>(m_settings.pingInterval.count());
    welcome.silenceLimit_ms = static_cast<std::uint32_t>(m_settings.silenceLimit.count());
    m_twins[welcome.sessionId] = {hello.attempt, session, hello.processId,
                                  std::make_unique<boost::asio::steady_timer>(m_io)};
    m_log.Warn("process " + std::to_string(hello.processId) +
               " came with an attempt that has ended; it is told to stop");
    boost::asio::post(m_io, [this, id = welcome.sessionId] { StopTwin(id); });
    return welcome;
}

void Scheduler::StopTwin(std::uint32_t session) {
    const auto found = m_twins.find(session);
    if (found == m_twins.end()) return;
    Twin& twin = found->second;
    TaskCommand command;
    platform::RandomBytes(command.uuid.data(), command.uuid.size());
    command.text = "cancel";
    // The second ends one whose task is over already.
    twin.session->SendOrder(TCP_TASK_CANCEL_ID, command);
    twin.session->SendOrder(TCP_WORKER_DESTROY_ID, link::DestroyOrder{});
    twin.timer->expires_after(m_settings.cancelGrace);
    twin.timer->async_wait([this, session](const boost::system::error_code& error) {
        if (!error) EndTwin(session);
    });
}

// Only a process that an engine started is the engine's to end.
void Scheduler::EndTwin(std::uint32_t session) {
    const auto found = m_twins.find(session);
    if (found == m_twins.end()) return;
    const Twin& twin = found->second;
    const std::string reason = "the worker of an ended attempt did not end within " +
                               DurationText(m_settings.cancelGrace) + " of the order to stop";
    m_log.Warn("process " + std::to_string(twin.processId) + ": " + reason);
    Report(m_store.Note(twin.token, "killed", VerdictEventJson("ignored-cancel", reason)), "an end");
    const auto process = m_store.ProcessOf(twin.token);
    if (process && *process && (*process)->id == twin.processId)
        m_launcher.EndStray(twin.token, twin.processId, (*process)->mark);
    const auto connection = twin.session;
    connection->End(reason);
}

// What it reports changes nothing; a final status is kept as an event.
bool Scheduler::TakeTwinRecord(const std::string& token, const link::WorkerRecord& record) {
    const auto* state = std::get_if<EngineStateMessage>(&record);
    if (state == nullptr) return true;
    bool taken = true;
    for (const auto& entry : state->entries) {
        if (!link::IsFinalTaskStatus(entry.status)) continue;
        // Of a worker that several attempts shared nobody knows any more whose it is.
        const auto shared = m_store.IsShared(token);
        if (shared && *shared)
            m_log.Warn("a late final status may be of any task that the worker of attempt " + token + " had");
        else
            taken = shared && m_store.Finish(token, FinalOf(entry)) && taken;
    }
    return taken;
}

std::variant<link::Welcome, link::Refuse> Scheduler::Welcome(Run& run, const link::Hello& hello,
                                                             const std::shared_ptr<Session>& session) {
    const std::uint32_t sessionId = NewSessionId();
    const std::string mark = platform::ProcessMark(hello.processId);
    if (const auto kept = m_store.Connected(run.claim.token, sessionId, hello.processId,
                                            RepairUtf8(hello.workerVersion), mark);
        !kept) {
        Report(kept, "a connection");
        // Made for this connection alone.
        if (run.external && !run.connected) Settle(run);
        return link::Refuse{link::kRefuseEnding, "the store refused: " + kept.error().message};
    }
    if (run.away) {
        m_sessions.erase(run.sessionId);
        run.awayTimer.cancel();
        SessionMemory fresh{.orders = std::move(run.away->orders)};
        fresh.ContinueFrom(0);
        session->Continue(std::move(fresh));
        run.away.reset();
    }
    run.sessionId = sessionId;
    run.resumable = m_settings.resumeWindow.count() != 0;
    const link::Welcome welcome = WelcomeFor(run);
    m_sessions[welcome.sessionId] = run.worker;
    run.session = session;
    run.connected = true;
    // A worker that is being ended keeps that deadline, and so does one that has an order to end.
    if (run.killReason.empty() && session->Memory().orders.empty()) Disarm(run);
    m_log.Info(run.claim.id + ": session " + std::to_string(welcome.sessionId) + ", process " +
               std::to_string(hello.processId));
    run.processId = hello.processId;
    run.processMark = mark;
    // One whose start the last engine did not live to record.
    if (!run.external && !m_launcher.Has(run.worker)) {
        m_launcher.TakeOver(run.worker, run.life.name, run.processId, run.processMark);
        NoteFound(run);
    }
    run.lastRecord = SystemClock().Steady();
    WatchHeartbeat(run);
    return welcome;
}

bool Scheduler::OnRecord(Session& session, std::uint32_t id, const link::WorkerRecord& record) {
    if (const auto twin = m_twins.find(session.Id()); twin != m_twins.end())
        return TakeTwinRecord(twin->second.token, record);
    Run* run = FindSession(session.Id());
    if (run == nullptr) return true;
    run->lastRecord = SystemClock().Steady();
    // Of several entries the first must not keep the number for one that cannot be committed.
    const auto* state = std::get_if<EngineStateMessage>(&record);
    const bool isOne = state == nullptr || state->entries.size() == 1;
    m_store.BeginRecord(run->worker, isOne ? session.Taking() : 0);
    const bool taken = TakeRecord(*run, id, record, session.IsRepeat());
    if (!isOne) m_store.BeginRecord(run->worker, session.Taking());
    // A final status that could not be committed is not here.
    if (!taken) m_store.BeginRecord({}, 0);
    Report(m_store.EndRecord(), "a record's number");
    return taken;
}

void Scheduler::OnOtherFrame(Session& session) {
    const Run* run = FindSession(session.Id());
    if (run == nullptr) return;
    m_store.BeginRecord(run->worker, session.Taking());
    Report(m_store.EndRecord(), "a frame's number");
}

bool Scheduler::TakeRecord(Run& run, std::uint32_t id, const link::WorkerRecord& record, bool repeated) {
    const std::string& token = run.claim.token;
    if (std::holds_alternative<HeartbeatRecord>(record)) {
        Report(m_store.Seen(token), "a heartbeat");
    } else if (const auto* notice = std::get_if<TaskNotice>(&record)) {
        run.reportedTask = notice->taskId;
        Hear(run);
        Report(m_store.Notice(token, RepairUtf8(notice->taskId), RepairUtf8(notice->workerGuid)), "a notice");
    } else if (const auto* reply = std::get_if<TaskCommandReply>(&record)) {
        TakeReply(run, id, *reply);
    } else if (const auto* progress = std::get_if<EngineProgressMessage>(&record)) {
        TakeProgress(run, *progress);
    } else if (const auto* state = std::get_if<EngineStateMessage>(&record)) {
        return TakeState(run, *state, repeated);
    }
    return true;
}

void Scheduler::TakeReply(Run& run, std::uint32_t id, const TaskCommandReply& reply) {
    std::string token = run.claim.token;
    const auto asked = std::find_if(run.asked.begin(), run.asked.end(),
                                    [id](const Run::Asked& one) { return one.replyId == id; });
    if (asked != run.asked.end()) {
        token = asked->token;
        run.asked.erase(run.asked.begin(), asked + 1);
    }
    // It may take one more into its list now.
    if (IsPackage(run)) boost::asio::post(m_io, [this] { Pump(); });
    if (token == run.claim.token && id == TCP_TASK_SUSPEND_REPLY_ID) run.pauseSent = false;
    if (token == run.claim.token && id == TCP_TASK_RESUME_REPLY_ID) run.resumeSent = false;
    Report(m_store.Reply(token, id, ReplyEventJson(id, reply.resultCode, ReplyText(reply.message))),
           "a reply");
}

void Scheduler::TakeProgress(Run& run, const EngineProgressMessage& message) {
    // The thread that reports it is joined before the next task begins.
    if (message.entries.empty() || run.turn.IsAwaited()) return;
    const auto& latest = message.entries.back();
    const ProgressFigures figures{std::clamp(Shown(latest.percent), 0.0, 100.0), Shown(latest.speed),
                                  Shown(latest.averageSpeed)};
    Report(m_store.Progress(run.claim.token, figures), "progress");
}

bool Scheduler::TakeState(Run& run, const EngineStateMessage& message, bool repeated) {
    bool taken = true;
    for (const auto& entry : message.entries) {
        if (IsPackage(run)) {
            taken = TakePackageState(run, entry, repeated) && taken;
            continue;
        }
        if (run.external) {
            run.claim.type = static_cast<std::int32_t>(entry.taskType);
            Report(m_store.TypeSeen(run.claim.token, run.claim.type), "a type");
        }
        if (link::IsFinalTaskStatus(entry.status)) {
            taken = TakeFinal(run, entry) && taken;
            continue;
        }
        // Between status 3, which comes before the perform call, and its return a worker says nothing: what
        // comes then is of a plug-in that returned without a final status. Such a worker would wait a minute
        // for its order to exit.
        if (run.performs && !IsPackageType(static_cast<std::int32_t>(entry.taskType))) SendEnd(run);
        run.performs = run.performs || entry.status == kTaskRunning;
        run.lastStatus = entry.status;
        Report(m_store.Status(run.claim.token, entry.status), "a status");
    }
    return taken;
}

bool Scheduler::TakeFinal(Run& run, const TaskStatusEntry& entry) {
    const auto outcome = m_store.Finish(run.claim.token, FinalOf(entry));
    if (!outcome) {
        m_log.Warn(run.claim.id + ": a final status could not be committed: " + outcome.error().message);
        return false;
    }
    if (*outcome == FinishOutcome::Late)
        m_log.Warn(run.claim.id + ": a second final status " + std::to_string(entry.status) +
                   " changes nothing");
    if (run.final) return true;
    run.final = true;
    m_log.Info(run.claim.id + ": final status " + std::to_string(entry.status));
    // After the acknowledgement has gone out.
    boost::asio::post(m_io, [this, token = run.worker] {
        if (Run* ended = Find(token)) SendEnd(*ended);
    });
    return true;
}

void Scheduler::OnSessionEnd(Session& session, const std::string& why) {
    m_twins.erase(session.Id());
    Run* run = FindSession(session.Id());
    if (run == nullptr) return;
    const bool kept = IsKept(*run);
    run->session = nullptr;
    run->has = session.Memory().has;
    run->saidBye = session.SaidBye();
    if (run->resumable && !run->saidBye && !run->exit && run->killReason.empty()) {
        Interrupt(*run, session.Memory(), why, session.IsAtFault());
        return;
    }
    run->told = true;
    m_sessions.erase(session.Id());
    Report(m_store.Disconnected(run->claim.token, run->worker, RepairUtf8(why), run->saidBye), "a loss");
    if (run->external || run->exit) {
        Settle(*run);
        return;
    }
    if ((run->final && !kept) || !run->killReason.empty()) return;
    m_log.Warn(run->claim.id + ": session " + std::to_string(session.Id()) + " ended: " + why);
    AwaitEnd(*run, why);
}

void Scheduler::OnLinkTrouble(const std::string& what) {
    m_log.Warn(what);
}

}  // namespace rq::engine
