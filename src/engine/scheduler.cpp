// Starting and ending. Orders are in scheduler_orders.cpp, what workers say in scheduler_records.cpp.
#include "engine/scheduler.h"

#include <boost/asio/post.hpp>
#include <thread>

#include "engine/heartbeat_interval.h"
#include "engine/json.h"
#include "platform/identity.h"
#include "records/task_codes.h"

namespace rq::engine {

namespace {

constexpr std::chrono::seconds kStoreRetry(1);
constexpr std::chrono::seconds kKillRetry(5);
constexpr std::chrono::seconds kStageRetry(2);
constexpr int kHeartbeatsMissed = 3;

unsigned WorkerSlots(unsigned wanted) {
    if (wanted != 0) return wanted;
    return std::max(1u, std::thread::hardware_concurrency());
}

}  // namespace

Scheduler::Scheduler(boost::asio::io_context& io, Store& store, Launcher& launcher,
                     const EngineSettings& settings, std::string linkToken, EngineLog& log)
    : m_io(io),
      m_store(store),
      m_launcher(launcher),
      m_settings(settings),
      m_linkToken(std::move(linkToken)),
      m_log(log),
      m_maxWorkers(WorkerSlots(settings.maxWorkers)),
      m_stage(settings.stageFolder),
      m_spool(settings.dataFolder, log),
      m_admission(settings.node, settings.paths),
      m_volumeWatch(settings.node),
      m_volumeTimer(io),
      m_syncTimer(io),
      m_retry(io),
      m_wake(io),
      m_endTimer(io) {
    platform::RandomBytes(&m_lastSession, sizeof m_lastSession);
    m_launcher.SetOnExit([this](const std::string& token, const WorkerExit& exit) { OnExit(token, exit); });
    // Behind what has been received by now.
    m_store.SetOnOwed([this] { boost::asio::post(m_io, [this] { SyncStore(); }); });
    m_volumes = m_volumeWatch.States();
    boost::asio::post(m_io, [this] { WatchVolumes(); });
    for (const auto& problem : m_stage.Problems())
        m_log.Warn(problem + "; tasks that need it will wait until that is mended");
}

Scheduler::~Scheduler() {
    m_store.SetOnOwed(nullptr);
    m_launcher.SetOnExit(nullptr);
}

// ---- starting ----

void Scheduler::Pump() {
    if (!m_ending) PassDeadlines();
    while (!m_ending) {
        const auto stops = m_store.Stops();
        if (!stops) return PumpLater(stops.error());
        LogStops(*stops);
        const bool slotFree = m_launcher.Running() < m_maxWorkers;
        if ((!slotFree && !AnyPlace()) || !IsReleased(kEveryType, *stops)) break;
        auto turn = ClaimNext(*stops, slotFree);
        if (!turn) return PumpLater(turn.error());
        if (!turn->claim) {
            if (turn->blocked) MakeRoom();
            break;
        }
        if (turn->place != nullptr)
            Feed(*turn->place, std::move(*turn->claim));
        else
            StartWorker(std::move(*turn->claim));
    }
    if (m_ending) return;
    WakeWhenDue();
    if (!m_held.empty()) PumpAgainAfter(kStageRetry);
}

void Scheduler::PassDeadlines() {
    const auto late = m_store.PassDeadlines();
    if (!late) return Report(late.error(), "a deadline");
    for (const auto task : *late) {
        const auto outcome = Cancel(task, "deadline");
        if (!outcome) Report(outcome.error(), "a cancel");
    }
}

void Scheduler::PumpAgainAfter(std::chrono::milliseconds pause) {
    m_retry.expires_after(pause);
    m_retry.async_wait([this](const boost::system::error_code& error) {
        if (error) return;
        // Also those whose tasks have been cancelled meanwhile, which nobody asks about any more.
        std::vector<std::int32_t> types;
        for (const auto& [type, reason] : m_held) types.push_back(type);
        for (const auto type : types) MayStart(type);
        Pump();
    });
}

bool Scheduler::MayStart(std::int32_t type) {
    const auto problem = m_stage.Problem(type);
    if (!problem) {
        if (m_held.erase(type) != 0) m_log.Info("tasks of type " + std::to_string(type) + " can start again");
        return true;
    }
    if (auto& reason = m_held[type]; reason != *problem) {
        reason = *problem;
        m_log.Warn("tasks of type " + std::to_string(type) + " wait: " + reason);
    }
    return false;
}

void Scheduler::PumpLater(const Error& problem) {
    m_log.Warn("no task can be claimed: " + problem.message);
    PumpAgainAfter(kStoreRetry);
}

void Scheduler::StartWorker(Claim claim) {
    const std::string token = claim.token;
    std::vector<MappedPath> mapped;
    claim.text = m_settings.paths.Apply(claim.text, &mapped);
    if (!mapped.empty()) Report(m_store.Note(token, "paths", PathsEventJson(mapped)), "mapped paths");
    auto worker = m_launcher.Start(claim, m_linkPort);
    if (!worker) {
        m_log.Warn(claim.id + ": " + worker.error().message);
        Report(m_store.Lost(token, worker.error().message), "a failed start");
        Report(m_store.Closed(token), "a failed start");
        return;
    }
    auto& run = *(m_runs[token] = std::make_unique<Run>(m_io));
    run.claim = std::move(claim);
    run.worker = token;
    run.first = run.claim.attempt;
    run.firstTask = run.claim.task;
    run.claim.text.clear();  // the worker has it
    run.life = {worker->name, worker->processId, Store::SystemNow()(), 0};
    run.beatLimit = BeatLimit();
    m_log.Info(run.claim.id + ": worker " + std::to_string(worker->processId) + " started");
    Report(
        m_store.WorkerStarted(token, worker->processId, worker->output, worker->mark, run.beatLimit.count()),
        "a start");
    AwaitConnection(run);
}

void Scheduler::AwaitConnection(Run& run, bool undone) {
    Arm(run, m_settings.connectLimit, [this, undone](Run& late) {
        late.isUndone = undone;
        Kill(late, "no-connection",
             "the worker did not connect within " + DurationText(m_settings.connectLimit));
    });
}

std::chrono::milliseconds Scheduler::BeatLimit() const {
    const auto interval = m_settings.heartbeatInterval.count() != 0
                              ? m_settings.heartbeatInterval
                              : HeartbeatInterval(m_settings.stageFolder);
    return std::max<std::chrono::milliseconds>(interval * kHeartbeatsMissed, m_settings.leastSilence);
}

// ---- orders ----

void Scheduler::SendCancel(Run& run) {
    if (run.cancelSent || !IsReachable(run, true)) return;
    run.cancelSent = true;
    NoteTold(run);
    SendCommand(run, TCP_TASK_CANCEL_ID, "cancel");
    Arm(run, m_settings.cancelGrace, [this](Run& late) {
        Kill(
            late, "ignored-cancel",
            "the worker did not end within " + DurationText(m_settings.cancelGrace) + " of the cancel order");
    });
}

void Scheduler::SendFinish(Run& run) {
    NoteTold(run);
    SendCommand(run, TCP_TASK_FINISH_ID, "finish");
    Arm(run, m_settings.finishGrace, [this](Run& late) {
        Kill(
            late, "ignored-finish",
            "the worker did not end within " + DurationText(m_settings.finishGrace) + " of the finish order");
    });
}

void Scheduler::SendCommand(Run& run, std::uint32_t id, const std::string& text) {
    TaskCommand command;
    platform::RandomBytes(command.uuid.data(), command.uuid.size());
    command.text = text;
    if (!run.reportedTask.empty()) command.taskIds.push_back(run.reportedTask);
    Give(run, id, command);
    run.asked.push_back({id + 1, run.claim.token});
}

void Scheduler::SendEnd(Run& run) {
    NoteTold(run);
    // One that has ended keeps the deadline for what is left to record.
    if (run.exit) return;
    Arm(run, m_settings.destroyGrace, [this](Run& late) {
        Kill(late, "no-exit",
             "the worker did not end within " + DurationText(m_settings.destroyGrace) +
                 " of the order to exit");
    });
    if (!IsReachable(run, true)) return;
    // A package worker keeps waiting for tasks whatever 4014 says; the finish order ends it.
    if (IsPackageType(run.claim.type)) {
        SendCommand(run, TCP_TASK_FINISH_ID, "finish");
        return;
    }
    Give(run, TCP_WORKER_DESTROY_ID, link::DestroyOrder{});
}

// ---- the end of an attempt ----

void Scheduler::Kill(Run& run, const std::string& rule, const std::string& reason) {
    if (run.killReason.empty()) {
        run.killReason = reason;
        m_log.Warn(run.claim.id + ": " + reason);
        Report(m_store.Note(run.claim.token, "killed", VerdictEventJson(rule, reason)), "an end");
    }
    Disarm(run);
    run.beat.cancel();
    run.awayTimer.cancel();
    // Its process is not ours to end, or not known: killed between its start and the record of it, the last
    // engine left an attempt without one.
    if (run.external && run.session)
        run.session->End(reason);
    else if (run.external || !m_launcher.Has(run.worker))
        Settle(run);
    else
        KillTree(run, rule, reason);
}

void Scheduler::KillTree(Run& run, const std::string& rule, const std::string& reason) {
    m_launcher.KillTree(run.worker);
    // One that cannot be looked at now is left alone, and has not ended.
    Arm(run, kKillRetry, [this, rule, reason](Run& late) { Kill(late, rule, reason); });
}

void Scheduler::OnExit(const std::string& token, const WorkerExit& exit) {
    Run* run = Find(token);
    if (run == nullptr) return;
    run->exit = exit;
    m_log.Info(run->claim.id + ": " + ExitText(exit));
    if (!run->session) {
        Settle(*run);
        return;
    }
    // What it has sent before its end may still lie in the socket.
    Arm(*run, m_settings.drainLimit, [this](Run& drained) { Settle(drained); });
}

bool Scheduler::EndedUnsaid(const Run& run) {
    if (!run.killReason.empty()) return false;
    if (run.external) return run.saidBye;
    // Of a process that was not our child its goodbye alone is known.
    if (run.exit && !run.exit->isKnown) return run.saidBye;
    // One that did not get as far as a connection has nothing to close.
    return run.exit && !run.exit->signalled && run.exit->code == 0 && (run.saidBye || !run.connected);
}

bool Scheduler::IsUndone(const Run& run) {
    return run.killReason.empty() && !run.external && !run.connected && run.exit && !run.exit->isKnown;
}

std::string Scheduler::HowItEnded(const Run& run) const {
    if (EndedUnsaid(run)) {
        const std::string when =
            run.lastStatus ? " and in status " + std::to_string(*run.lastStatus) + ", without a final status"
                           : " before its task began";
        return "the worker ended in good order" + when + WhatItLeft(run);
    }
    std::string text = run.killReason;
    if (run.exit) text += text.empty() ? ExitText(*run.exit) : " (" + ExitText(*run.exit) + ")";
    if (run.external && text.empty()) text = "the connection ended";
    if (run.killReason.empty())
        text += IsUndone(run) ? " before it found an engine" : " before it reported a final status";
    return text + WhatItLeft(run);
}

std::string Scheduler::WhatItLeft(const Run& run) const {
    WorkerLife life = run.life;
    life.until_us = Store::SystemNow()();
    const WorkerTraces traces = FindWorkerTraces(m_launcher.LogFolder(), life);
    std::string text;
    if (const auto trouble = traces.log.empty() ? std::nullopt : LastTrouble(traces.log))
        text += "; its log says last: " + *trouble;
    if (!traces.log.empty()) text += "; log: " + traces.log;
    if (!traces.crashReport.empty()) text += "; crash report: " + traces.crashReport;
    return text;
}

void Scheduler::Settle(Run& run) {
    const std::string token = run.claim.token;
    Result<void> done;
    if (run.exit && !run.exitNoted) {
        done = m_store.Exited(token, *run.exit, IsPackage(run) ? run.first : 0);
        run.exitNoted = bool(done);
    }
    if (done && !TakeSpool(run)) done = Fail("the final status in the spool could not be committed");
    if (done && IsPackage(run)) done = SettlePackage(run);
    if (done && !run.final)
        done = run.isUndone       ? m_store.Undone(token, "the engine ended before the worker was started")
               : EndedUnsaid(run) ? m_store.Unsaid(token, HowItEnded(run))
               : IsUndone(run)    ? m_store.Undone(token, HowItEnded(run))
                                  : m_store.Lost(token, HowItEnded(run));
    if (done) done = m_store.Closed(run.worker);
    if (!done) {
        Report(done, "the end of an attempt");
        Arm(run, kStoreRetry, [this](Run& again) { Settle(again); });
        return;
    }
    m_spool.Remove(run.worker);
    m_sessions.erase(run.sessionId);
    if (run.session) run.session->End("its process has ended");
    m_runs.erase(std::string(run.worker));
    if (m_ending)
        FinishEnd();
    else
        Pump();
}

// From its connection on. The worker's core may hang while its link still answers.
void Scheduler::WatchHeartbeat(Run& run) {
    if (run.beatLimit.count() == 0 || run.exit) return;
    const auto silence = SystemClock().Steady() - run.lastRecord;
    if (silence >= run.beatLimit) {
        Kill(run, "no-heartbeat",
             "no heartbeat and nothing else came from the worker for " + DurationText(run.beatLimit) +
                 ", three of its intervals");
        return;
    }
    run.beat.expires_after(run.beatLimit - silence);
    run.beat.async_wait([this, token = run.worker](const boost::system::error_code& error) {
        Run* watched = error ? nullptr : Find(token);
        if (watched != nullptr && watched->session && (!watched->final || IsKept(*watched)))
            WatchHeartbeat(*watched);
    });
}

// ---- the end of the engine ----

void Scheduler::BeginEnd(std::function<void()> done) {
    if (m_ending) return;
    m_ending = true;
    m_onEnded = std::move(done);
    m_retry.cancel();
    m_wake.cancel();
    m_volumeTimer.cancel();
    std::vector<std::int64_t> tasks;
    for (const auto& [token, run] : m_runs) {
        if (IsKept(*run)) SendEnd(*run);
        if (!run->final) tasks.push_back(run->claim.task);
    }
    for (const auto task : tasks) {
        if (auto outcome = Cancel(task, "engine-end"); !outcome) Report(outcome.error(), "a cancel");
    }
    m_endTimer.expires_after(m_settings.endGrace);
    m_endTimer.async_wait([this](const boost::system::error_code& error) {
        if (error) return;
        std::vector<std::string> tokens;
        for (const auto& [token, run] : m_runs) tokens.push_back(token);
        for (const auto& token : tokens) {
            if (Run* run = Find(token))
                Kill(*run, "engine-end",
                     "the engine ended and the worker did not within " + DurationText(m_settings.endGrace));
        }
    });
    FinishEnd();
}

void Scheduler::FinishEnd() {
    if (!m_runs.empty() || !m_onEnded) return;
    m_endTimer.cancel();
    boost::asio::post(m_io, std::exchange(m_onEnded, nullptr));
}

// ---- helpers ----

std::set<std::string> Scheduler::RunningNames() const {
    std::set<std::string> names;
    for (const auto& [token, run] : m_runs) {
        if (!run->life.name.empty()) names.insert(run->life.name);
    }
    return names;
}

Scheduler::Run* Scheduler::Find(const std::string& token) {
    const auto found = m_runs.find(token);
    return found != m_runs.end() ? found->second.get() : nullptr;
}

Scheduler::Run* Scheduler::FindSession(std::uint32_t session) {
    const auto found = m_sessions.find(session);
    return found != m_sessions.end() ? Find(found->second) : nullptr;
}

Scheduler::Run* Scheduler::FindTask(std::int64_t task) {
    for (const auto& [token, run] : m_runs) {
        if (run->claim.task == task) return run.get();
    }
    return nullptr;
}

void Scheduler::Arm(Run& run, std::chrono::milliseconds after, std::function<void(Run&)> then) {
    const unsigned use = ++run.timerUse;
    run.timer.expires_after(after);
    // The run may be gone, or have another deadline, when a handler that was already queued comes.
    run.timer.async_wait(
        [this, token = run.worker, use, then = std::move(then)](const boost::system::error_code& error) {
            Run* armed = error ? nullptr : Find(token);
            if (armed != nullptr && armed->timerUse == use) then(*armed);
        });
}

void Scheduler::Disarm(Run& run) {
    ++run.timerUse;
    run.timer.cancel();
}

void Scheduler::AwaitEnd(Run& run, const std::string& why) {
    Arm(run, m_settings.linkGrace, [this, why](Run& late) {
        Kill(late, "connection-lost",
             "the connection ended (" + why + ") and the worker did not within " +
                 DurationText(m_settings.linkGrace));
    });
}

// ---- what is said, and when ----

bool Scheduler::MayWrite(const std::shared_ptr<Session>& session) {
    if (!m_store.Owes()) return true;
    m_unsaid.push_back(session);
    return false;
}

void Scheduler::SyncStore() {
    if (auto done = m_store.Sync(); !done) {
        m_log.Warn("nothing is acknowledged until the store can be synced: " + done.error().message);
        m_syncTimer.expires_after(kStoreRetry);
        m_syncTimer.async_wait([this](const boost::system::error_code& error) {
            if (!error) SyncStore();
        });
        return;
    }
    for (const auto& session : std::exchange(m_unsaid, {})) session->Flush();
}

void Scheduler::Report(const Result<void>& result, const char* what) {
    if (!result) m_log.Warn(std::string(what) + " could not be recorded: " + result.error().message);
}

}  // namespace rq::engine
