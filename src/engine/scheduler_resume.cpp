// Sessions that outlive their connection, and attempts that outlive the engine.
#include <boost/asio/post.hpp>
#include <filesystem>

#include "base/paths.h"
#include "engine/json.h"
#include "engine/scheduler.h"
#include "platform/found_process.h"
#include "records/task_codes.h"

namespace rq::engine {

namespace {

// An interrupted session with so many orders takes no more.
constexpr std::size_t kMaxKept = 1000;
// Once a second: as long as another program may hold a file, or the system be out of descriptors.
constexpr int kMaxSpoolTries = 60;
// A process that the last engine was about to start has begun by then.
constexpr std::chrono::seconds kStarting(2);
// A connection that lasts for so long is no repetition of one that broke.
constexpr std::chrono::seconds kSettled(1);

std::string NameOfOutput(const std::string& output) {
    return output.empty() ? "" : Utf8FromPath(PathFromUtf8(output).stem());
}

}  // namespace

// ---- the handshake ----

link::Welcome Scheduler::WelcomeFor(const Run& run) const {
    link::Welcome welcome;
    welcome.sessionId = run.sessionId;
    welcome.attempt = run.worker;
    welcome.spoolFolder = m_spool.Folder();
    if (run.resumable) welcome.resumeWindow_ms = static_cast<std::uint32_t>(m_settings.resumeWindow.count());
    welcome.pingInterval_ms = static_cast<std::uint32_t>(m_settings.pingInterval.count());
    welcome.silenceLimit_ms = static_cast<std::uint32_t>(m_settings.silenceLimit.count());
    return welcome;
}

std::variant<link::Welcome, link::Refuse> Scheduler::AdmitResumed(const link::Hello& hello,
                                                                  const std::shared_ptr<Session>& session) {
    const auto refuse = [](const std::string& why) {
        return link::Refuse{link::kRefuseSession, "the session cannot be continued: " + why};
    };
    Run* run = Find(hello.attempt);
    if (run == nullptr || run->exit || !run->killReason.empty()) return refuse("its attempt has ended");
    if (run->sessionId != hello.resumeSessionId || !run->resumable)
        return refuse("the engine does not know it");
    if (!run->session && !run->away) return refuse("it has ended");
    SessionMemory memory = run->session ? run->session->Memory() : *run->away;
    if (memory.CatchUp(hello))
        m_log.Warn(run->claim.id + ": the store has less of session " + std::to_string(run->sessionId) +
                   " than was acknowledged; it goes on from frame " +
                   std::to_string(hello.resumeAcknowledged));
    if (const auto why = memory.Contradiction(hello)) return refuse(*why);
    if (run->session) {
        // The worker noticed first that this connection is none any more.
        const std::string why = "the worker came with a new connection";
        run->session->Abandon();
        run->session = nullptr;
        Report(m_store.Interrupted(run->claim.token, why), "a loss");
        NoteLoss(*run, memory, false);
        if (SystemClock().Steady() >= run->lostAt + m_settings.resumeWindow + m_settings.linkGrace) {
            GiveUp(*run, why);
            return refuse("nothing gets through");
        }
    }
    if (!memory.knowsSent) {
        if (auto done = AddAgain(*run, memory, hello.resumeReceived); !done)
            return link::Refuse{link::kRefuseEnding, "not now: " + done.error().message};
    }
    run->away.reset();
    run->awayTimer.cancel();
    memory.ContinueFrom(hello.resumeReceived);
    run->resumedAt = SystemClock().Steady();
    run->resumedHas = memory.has;
    run->resumedAcked = memory.acknowledged;
    session->Continue(std::move(memory));
    run->session = session;
    run->resumable = m_settings.resumeWindow.count() != 0;
    m_log.Info(run->claim.id + ": session " + std::to_string(run->sessionId) + " goes on");
    Report(m_store.Resumed(run->claim.token, hello.processId), "a resumption");
    if (!run->isInVain) run->lastRecord = SystemClock().Steady();
    if (!run->final || IsKept(*run)) WatchHeartbeat(*run);
    if (IsPackage(*run)) boost::asio::post(m_io, [this] { Pump(); });
    return WelcomeFor(*run);
}

// ---- between two connections ----

bool Scheduler::IsReachable(const Run& run, bool toEnd) {
    return run.session || (run.away && (toEnd || run.away->orders.size() < kMaxKept));
}

void Scheduler::Give(Run& run, std::uint32_t id, const link::Order& order) {
    if (run.session)
        run.session->SendOrder(id, order);
    else if (run.away)
        Report(run.away->Keep(id, order), "an order");
    else
        return;
    Report(m_store.Note(run.claim.token, "order", OrderEventJson(id)), "an order");
}

// A frame that one side cannot take comes again with each connection: such connections are no resumption.
void Scheduler::NoteLoss(Run& run, const SessionMemory& memory, bool isAtFault) {
    const auto now = SystemClock().Steady();
    const bool isHasty = run.resumedAt && now < *run.resumedAt + kSettled;
    run.isInVain = isHasty && (isAtFault ? memory.has == run.resumedHas
                                         : !memory.orders.empty() && memory.acknowledged == run.resumedAcked);
    if (!run.isInVain) run.lostAt = now;
}

void Scheduler::GiveUp(Run& run, const std::string& why) {
    const auto limit = DurationText(m_settings.resumeWindow + m_settings.linkGrace);
    Kill(run, "connection-lost",
         run.isInVain
             ? "each new connection broke before anything had got through, for " + limit + ", at last: " + why
             : "the connection ended, and the worker neither came back nor ended within " + limit);
}

void Scheduler::Interrupt(Run& run, SessionMemory memory, const std::string& why, bool isAtFault) {
    NoteLoss(run, memory, isAtFault);
    run.away = std::move(memory);
    run.beat.cancel();
    m_log.Warn(run.claim.id + ": session " + std::to_string(run.sessionId) + " is interrupted: " + why);
    Report(m_store.Interrupted(run.claim.token, RepairUtf8(why)), "a loss");
    // Nobody comes back when the process has ended; of those that we started the launcher tells.
    if (run.external && !run.processMark.empty() &&
        !m_launcher.Watch(run.worker, run.processId, run.processMark)) {
        run.killReason = "the connection ended (" + why + ") and so did the worker";
        Settle(run);
        return;
    }
    AwaitResumption(run, why);
}

void Scheduler::AwaitResumption(Run& run, const std::string& why) {
    const auto passed = SystemClock().Steady() - run.lostAt;
    run.awayTimer.expires_after(m_settings.resumeWindow + m_settings.linkGrace - passed);
    run.awayTimer.async_wait([this, token = run.worker, why](const boost::system::error_code& error) {
        Run* late = error ? nullptr : Find(token);
        // After a final status another deadline ends it, and it keeps that status.
        if (late == nullptr || !late->away || (late->final && !late->external && !IsKept(*late))) return;
        GiveUp(*late, why);
    });
}

// ---- the engine's end and start ----

std::size_t Scheduler::Leave() {
    m_ending = true;
    m_left = true;
    m_retry.cancel();
    m_wake.cancel();
    m_volumeTimer.cancel();
    for (const auto& [id, twin] : m_twins) twin.session->Abandon();
    for (const auto& [token, run] : m_runs) {
        if (run->session) run->session->Abandon();
    }
    const std::size_t left = m_runs.size();
    m_twins.clear();
    m_unsaid.clear();
    m_syncTimer.cancel();
    m_sessions.clear();
    m_runs.clear();
    m_launcher.SetOnExit(nullptr);
    return left;
}

Result<void> Scheduler::TakeOver(const std::vector<OpenAttempt>& attempts) {
    std::vector<std::string> gone;
    for (const auto& attempt : attempts) TakeOver(attempt, gone);
    m_launcher.RemoveLeftovers(RunningNames());
    SweepSpool();
    for (const auto& token : gone) {
        boost::asio::post(m_io, [this, token] {
            if (Run* run = Find(token)) Settle(*run);
        });
    }
    if (!attempts.empty())
        m_log.Info(std::to_string(attempts.size()) +
                   " attempt(s) of an earlier run are open; the workers of " +
                   std::to_string(attempts.size() - gone.size()) + " may still be there");
    return {};
}

void Scheduler::TakeOver(const OpenAttempt& attempt, std::vector<std::string>& gone) {
    const std::string& token = attempt.claim.token;
    auto& run = *(m_runs[token] = std::make_unique<Run>(m_io));
    run.claim = attempt.claim;
    run.worker = token;
    run.first = attempt.claim.attempt;
    run.firstTask = attempt.claim.task;
    run.external = attempt.external;
    run.connected = attempt.session.has_value();
    run.has = attempt.workerSeq;
    run.final = !IsActive(attempt.state);
    run.saidBye = attempt.saidBye;
    run.reportedTask = attempt.reportedTask;
    if (attempt.started) run.lastStatus = kTaskRunning;
    // The task of one that was started by hand runs from its connection on.
    run.performs = attempt.started && !attempt.external;
    if (attempt.started) run.turn.Begin();
    if (run.final) run.turn.End();
    OpenAttempt inHand = attempt;
    if (IsPackage(run)) TakeOverPackage(run, inHand);
    run.pauseSent = inHand.asked == TCP_TASK_SUSPEND_ID;
    run.resumeSent = inHand.asked == TCP_TASK_RESUME_ID;
    run.processId = attempt.processId.value_or(0);
    run.processMark = attempt.processMark;
    if (!run.external) {
        const std::string name = NameOfOutput(attempt.output);
        run.life = {name.empty() ? m_launcher.NameOf(attempt.claim) : name, run.processId, attempt.created_us,
                    0};
        // Those of its interval, not of what the stage says now.
        run.beatLimit = attempt.silence_ms != 0 ? std::chrono::milliseconds(attempt.silence_ms) : BeatLimit();
    }
    Report(m_store.Interrupted(run.claim.token, "the engine ended while this attempt was open"),
           "a take-over");
    // Of one that was started by hand, and has no mark, nobody knows what its number stands for.
    const bool isThere =
        attempt.exit || (run.external && run.saidBye) ? false
        : !attempt.processId                          ? true
        : run.external ? run.processMark.empty() || m_launcher.Watch(token, run.processId, run.processMark)
                       : m_launcher.TakeOver(token, run.life.name, run.processId, run.processMark);
    if (isThere) {
        AwaitTakenOver(run, attempt, inHand);
        return;
    }
    if (!run.external) m_launcher.EndLeftTree(token, run.processId);
    run.exit = attempt.exit.value_or(WorkerExit{false, 0, false});
    gone.push_back(token);
}

void Scheduler::AwaitTakenOver(Run& run, const OpenAttempt& attempt, const OpenAttempt& inHand) {
    m_log.Info(run.claim.id + ": " +
               (run.processId == 0 ? std::string("its worker may have been started")
                                   : "worker " + std::to_string(run.processId) +
                                         (run.processMark.empty()
                                              ? " may still be there: nobody can tell it from another process"
                                              : " is still there")));
    if (run.saidBye) return run.final ? SendEnd(run) : AwaitEnd(run, "the worker closed it");
    if (attempt.session) {
        run.sessionId = *attempt.session;
        // Its own engine may have promised more than this one does.
        run.resumable = true;
        m_sessions[run.sessionId] = run.worker;
        run.away.emplace();
        run.away->has = attempt.workerSeq;
        run.away->knowsSent = false;
        run.lostAt = SystemClock().Steady();
        AwaitResumption(run, "the engine ended");
        GiveStanding(run, inHand);
        return;
    }
    AwaitConnection(run);
    if (!attempt.processId)
        Arm(run, std::min<std::chrono::milliseconds>(kStarting, m_settings.connectLimit),
            [this](Run& unknown) { SearchStarted(unknown); });
    if (attempt.cancelRequested) {
        boost::asio::post(m_io, [this, token = run.worker] {
            if (Run* unconnected = Find(token))
                Kill(*unconnected, "cancelled", "cancelled before its worker connected");
        });
    }
}

void Scheduler::SearchStarted(Run& run) {
    const auto found = m_launcher.FindStarted(run.claim.token);
    const auto giveUp = [this](Run& undone) {
        undone.isUndone = true;
        Settle(undone);
    };
    if (found == 0u) return giveUp(run);
    if (!found) {
        // One that there is after all does nothing before it connects, and is told to stop then.
        Arm(run, m_settings.connectLimit, giveUp);
        return;
    }
    if (m_launcher.TakeOver(run.claim.token, run.life.name, *found, platform::ProcessMark(*found))) {
        m_log.Info(run.claim.id + ": worker " + std::to_string(*found) + " was found");
        run.processId = *found;
        NoteFound(run);
    }
    // Windows makes a process before it runs, so this one may never do: its start does not count then.
    AwaitConnection(run, true);
}

void Scheduler::NoteFound(Run& run) {
    run.life.processId = run.processId;
    Report(m_store.WorkerStarted(run.worker, run.processId, m_launcher.OutputOf(run.life.name),
                                 platform::ProcessMark(run.processId), run.beatLimit.count()),
           "a start");
}

// Those that were not answered when the last engine ended. Nobody knows whether the worker has got them; all
// of them may come twice.
void Scheduler::GiveStanding(Run& run, const OpenAttempt& attempt) {
    // An end of its task may have left it paused.
    if (IsPackage(run) && !run.told && (run.final || run.turn.IsAwaited()))
        SendCommand(run, TCP_TASK_RESUME_ID, "resume");
    if (IsKept(run) && !run.stalled) {
        Rest(run);
    } else if (run.final || run.disturbed) {
        SendEnd(run);
    } else if (attempt.cancelRequested) {
        SendCancel(run);
    } else if (attempt.state == AttemptState::Finishing) {
        SendFinish(run);
    } else {
        if (attempt.textAsked) {
            if (const auto details = m_store.Details(run.claim.task); details && *details) {
                Give(run, TCP_TASK_UPDATE_ID,
                     link::TaskTextOrder{m_settings.paths.Apply((*details)->text), 0});
                run.asked.push_back({TCP_TASK_UPDATE_REPLY_ID, run.claim.token});
            }
        }
        if (run.pauseSent) SendCommand(run, TCP_TASK_SUSPEND_ID, "suspend");
        if (run.resumeSent) SendCommand(run, TCP_TASK_RESUME_ID, "resume");
    }
}

// ---- the spool ----

bool Scheduler::TakeSpool(Run& run) {
    const auto read = m_spool.Read(run.worker);
    if (!read) {
        if (++run.spoolTries < kMaxSpoolTries) {
            m_log.Warn(run.claim.id + ": the spool cannot be read now: " + read.error().message);
            return false;
        }
        m_log.Warn(run.claim.id + ": the spool is given up: " + read.error().message);
        m_spool.GiveUp(run.worker);
        return true;
    }
    const auto& status = *read;
    if (!status) return true;
    m_log.Info(run.claim.id + ": its worker left a final status in the spool");
    bool taken = !IsPackage(run) || TakePackageSpool(run, *status);
    for (const auto& entry : status->message.entries) {
        if (!IsPackage(run) && link::IsFinalTaskStatus(entry.status)) taken = TakeFinal(run, entry) && taken;
    }
    return taken && MayRemoveSpool();
}

bool Scheduler::MayRemoveSpool() {
    const auto synced = m_store.Sync();
    Report(synced, "a final status in the spool");
    return bool(synced);
}

void Scheduler::SweepSpool() {
    for (const auto& attempt : m_spool.Attempts()) {
        if (Find(attempt) != nullptr) continue;
        const auto read = m_spool.Read(attempt);
        if (!read) {  // the next start tries again
            m_log.Warn(read.error().message);
            continue;
        }
        const auto& status = *read;
        const auto isKnown = m_store.Knows(attempt);
        if (status && isKnown && !*isKnown) {
            m_log.Warn("the final status of attempt " + attempt +
                       " in the spool belongs to none that is known");
            m_spool.GiveUp(attempt);
            continue;
        }
        if (status && (!isKnown || !TakeTwinRecord(attempt, status->message) || !MayRemoveSpool())) {
            m_log.Warn("the final status of attempt " + attempt + " in the spool cannot be recorded now");
            continue;
        }
        m_spool.Remove(attempt);
    }
}

}  // namespace rq::engine
