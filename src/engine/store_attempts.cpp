// The verbs of an attempt: each finds the attempt by its token and leaves events behind.
#include "engine/json.h"
#include "engine/store_change.h"
#include "records/engine_messages.h"

namespace rq::engine {

namespace {

bool IsKnownStatus(std::uint32_t status) {
    return status == kTaskFinished || status == kTaskRunning || status == kTaskError ||
           status == kTaskCancelled || status == kTaskPaused;
}

// A progress event at least this often while reports come, whatever the percentage does.
constexpr std::int64_t kProgressEvent_us = 10'000'000;

AttemptState AttemptStateAfter(StateEvent event) {
    switch (event) {
        case StateEvent::SaysFinished:
            return AttemptState::Finished;
        case StateEvent::SaysCancelled:
        case StateEvent::EndsCancelled:
        case StateEvent::EndsUntouched:
            return AttemptState::Cancelled;
        case StateEvent::EndsLost:
        case StateEvent::EndsLostAgain:
            return AttemptState::Lost;
        default:
            return AttemptState::Failed;
    }
}

}  // namespace

std::optional<Store::Holder> Store::Find(const std::string& token) {
    Statement query = m_database->Prepare(
        "SELECT a.id, a.task, a.state, a.percent, t.state, t.cancel_us IS NOT NULL, t.type, t.public_id, "
        "t.origin = 'external', a.connected_us IS NOT NULL OR a.worker IS NOT NULL, t.attempts - t.spent, "
        "a.interruptions "
        "FROM attempts a JOIN tasks t ON t.id = a.task WHERE a.token = ?1");
    if (!query.Bind(token).Row()) return std::nullopt;
    Holder holder;
    holder.attempt = query.Number();
    holder.task = query.Number();
    holder.state = TaskStateOf(query.Text()).value_or(AttemptState::Lost);
    holder.percent = query.Real();
    holder.taskState = TaskStateOf(query.Text()).value_or(TaskState::Failed);
    holder.cancelRequested = query.Number() != 0;
    holder.type = static_cast<std::int32_t>(query.Number());
    holder.id = query.Text();
    holder.external = query.Number() != 0;
    holder.connected = query.Number() != 0;
    holder.made = query.Number();
    holder.interruptions = query.Number();
    return holder;
}

void Store::SetAttemptState(std::int64_t attempt, AttemptState state) {
    const std::optional<std::int64_t> now = m_now();
    const std::optional<std::int64_t> none;
    m_database
        ->Prepare(
            "UPDATE attempts SET state = ?1, started_us = coalesce(started_us, ?2), "
            "finished_us = coalesce(finished_us, ?3) WHERE id = ?4")
        .Bind(NameOf(state))
        .Bind(state == AttemptState::Running ? now : none)
        .Bind(IsActive(state) ? none : now)
        .Bind(attempt)
        .Run();
}

Result<void> Store::WorkerStarted(const std::string& token, std::uint64_t processId,
                                  const std::string& output, const std::string& mark,
                                  std::int64_t silence_ms) {
    return ForHolder(token, Transaction::Sync::Shared, [&](const Holder& holder) {
        m_database
            ->Prepare(
                "UPDATE attempts SET pid = ?1, output = ?2, process_mark = ?3, silence_ms = ?5 WHERE id = ?4")
            .Bind(static_cast<std::int64_t>(processId))
            .Bind(output)
            .Bind(mark)
            .Bind(holder.attempt)
            .Bind(silence_ms)
            .Run();
        AddEvent(holder.task, holder.attempt, "worker-started", ProcessEventJson(processId));
    });
}

Result<void> Store::Connected(const std::string& token, std::uint32_t session, std::uint64_t processId,
                              const std::string& version, const std::string& mark) {
    return ForHolder(token, Transaction::Sync::Shared, [&](const Holder& holder) {
        m_database
            ->Prepare(
                "UPDATE attempts SET session = ?1, "
                "process_mark = CASE WHEN pid IS NULL OR (pid = ?2 AND process_mark = '') THEN ?6 "
                "ELSE process_mark END, "
                "pid = coalesce(pid, ?2), worker_version = ?3, "
                "connected_us = ?4, last_seen_us = ?4 WHERE id = ?5")
            .Bind(std::int64_t{session})
            .Bind(static_cast<std::int64_t>(processId))
            .Bind(version)
            .Bind(m_now())
            .Bind(holder.attempt)
            .Bind(mark)
            .Run();
        AddEvent(holder.task, holder.attempt, "connected", ConnectedEventJson(session, processId, version));
        if (holder.external) Report(holder, StateEvent::ConnectsByHand);
    });
}

Result<void> Store::Notice(const std::string& token, const std::string& taskId, const std::string& guid) {
    return ForHolder(token, Transaction::Sync::Relaxed, [&](const Holder& holder) {
        m_database->Prepare("UPDATE attempts SET reported_task = ?1, worker_guid = ?2 WHERE id = ?3")
            .Bind(taskId)
            .Bind(guid)
            .Bind(holder.attempt)
            .Run();
        AddEvent(holder.task, holder.attempt, "notice", NoticeEventJson(taskId, guid));
    });
}

void Store::Report(const Holder& holder, StateEvent event) {
    // An attempt that has ended holds its task no longer.
    if (!IsActive(holder.state)) return;
    const Transition next = Next(holder.taskState, event);
    if (next.effect != Effect::Moves) return;
    SetAttemptState(holder.attempt, next.to);
    SetTaskState(holder.task, holder.attempt, next.to, std::nullopt);
}

Result<void> Store::Status(const std::string& token, std::uint32_t status) {
    return ForHolder(token, Transaction::Sync::Relaxed, [&](const Holder& holder) {
        AddEvent(holder.task, holder.attempt, IsKnownStatus(status) ? "status" : "unknown-status",
                 StatusEventJson(status));
        if (status == kTaskRunning) Report(holder, StateEvent::SaysRunning);
    });
}

Result<void> Store::Reply(const std::string& token, std::uint32_t id, const std::string& json) {
    return ForHolder(token, Transaction::Sync::Relaxed, [&](const Holder& holder) {
        AddEvent(holder.task, holder.attempt, "reply", json);
        // An answer has the number behind its order's.
        m_database->Prepare("UPDATE attempts SET asked = 0 WHERE id = ?1 AND asked = ?2")
            .Bind(holder.attempt)
            .Bind(std::int64_t{id} - 1)
            .Run();
        if (id == TCP_TASK_UPDATE_REPLY_ID)
            m_database->Prepare("UPDATE attempts SET text_asked = MAX(text_asked - 1, 0) WHERE id = ?1")
                .Bind(holder.attempt)
                .Run();
        // A worker that was told to pause or go on reports no status: its answer tells.
        if (id == TCP_TASK_SUSPEND_REPLY_ID && holder.state == AttemptState::Running)
            Report(holder, StateEvent::SaysPaused);
        if (id == TCP_TASK_RESUME_REPLY_ID && holder.state == AttemptState::Paused)
            Report(holder, StateEvent::SaysRunning);
    });
}

Result<void> Store::TypeSeen(const std::string& token, std::int32_t type) {
    // What else the record says is still to come, and may fail: the number goes with that.
    const auto number = std::exchange(m_recordSeq, 0);
    auto done = ForHolder(token, Transaction::Sync::Relaxed, [&](const Holder& holder) {
        m_database->Prepare("UPDATE tasks SET type = ?1 WHERE id = ?2")
            .Bind(std::int64_t{type})
            .Bind(holder.task)
            .Run();
    });
    m_recordSeq = number;
    return done;
}

Result<void> Store::Progress(const std::string& token, const ProgressFigures& figures) {
    return ForHolder(token, Transaction::Sync::Relaxed, [&](const Holder& holder) {
        if (!IsActive(holder.state)) return;
        const auto now = m_now();
        m_database
            ->Prepare(
                "UPDATE attempts SET percent = ?1, speed = ?2, average_speed = ?3, last_seen_us = ?4 "
                "WHERE id = ?5")
            .Bind(figures.percent)
            .Bind(figures.speed)
            .Bind(figures.averageSpeed)
            .Bind(now)
            .Bind(holder.attempt)
            .Run();
        m_database
            ->Prepare(
                "UPDATE attempts SET noted_percent = ?1, noted_us = ?2 "
                "WHERE id = ?3 AND (noted_percent <> ?1 OR noted_us + ?4 <= ?2)")
            .Bind(static_cast<std::int64_t>(figures.percent))
            .Bind(now)
            .Bind(holder.attempt)
            .Bind(kProgressEvent_us)
            .Run();
        if (m_database->Changes() != 0)
            AddEvent(holder.task, holder.attempt, "progress", ProgressEventJson(figures));
    });
}

Result<void> Store::Seen(const std::string& token) {
    return ForHolder(token, Transaction::Sync::Relaxed, [&](const Holder& holder) {
        m_database->Prepare("UPDATE attempts SET last_seen_us = ?1 WHERE id = ?2")
            .Bind(m_now())
            .Bind(holder.attempt)
            .Run();
    });
}

Result<void> Store::Note(const std::string& token, const std::string& kind, const std::string& json) {
    return ForHolder(token, Transaction::Sync::Relaxed,
                     [&](const Holder& holder) { AddEvent(holder.task, holder.attempt, kind, json); });
}

bool Store::SameFinal(std::int64_t attempt, const FinalStatus& final) {
    Statement query = m_database->Prepare(
        "SELECT status, detail_code, detail_text, error_code, error_text, further_text, coalesce(json, '') "
        "FROM attempts LEFT JOIN results ON results.attempt = attempts.id "
        "WHERE attempts.id = ?1 AND status IS NOT NULL");
    if (!query.Bind(attempt).Row()) return false;
    FinalStatus stored;
    stored.status = static_cast<std::uint32_t>(query.Number());
    stored.detailErrorCode = static_cast<std::uint32_t>(query.Number());
    stored.detailErrorText = query.Text();
    stored.errorCode = static_cast<std::uint32_t>(query.Number());
    stored.errorText = query.Text();
    stored.furtherText = query.Text();
    stored.result = query.Text();
    stored.stalled = final.stalled;
    return stored == final;
}

void Store::WriteFinal(const Holder& holder, const FinalStatus& final) {
    m_database
        ->Prepare(
            "UPDATE attempts SET status = ?1, detail_code = ?2, detail_text = ?3, error_code = ?4, "
            "error_text = ?5, further_text = ?6, last_seen_us = ?7, percent = ?8, stalled = ?9 "
            "WHERE id = ?10")
        .Bind(std::int64_t{final.status})
        .Bind(std::int64_t{final.detailErrorCode})
        .Bind(final.detailErrorText)
        .Bind(std::int64_t{final.errorCode})
        .Bind(final.errorText)
        .Bind(final.furtherText)
        .Bind(m_now())
        .Bind(final.status == kTaskFinished ? 100.0 : holder.percent)
        .Bind(std::int64_t{final.stalled})
        .Bind(holder.attempt)
        .Run();
    if (final.result.empty()) return;
    m_database->Prepare("INSERT INTO results (attempt, json) VALUES (?1, ?2)")
        .Bind(holder.attempt)
        .Bind(final.result)
        .Run();
}

Result<FinishOutcome> Store::Finish(const std::string& token, const FinalStatus& final,
                                    const std::string& next) {
    FinishOutcome outcome = FinishOutcome::Committed;
    auto done = ForHolder(token, Transaction::Sync::Shared, [&](const Holder& holder) {
        if (!IsActive(holder.state)) {
            outcome = SameFinal(holder.attempt, final) ? FinishOutcome::Repeat : FinishOutcome::Late;
            if (outcome == FinishOutcome::Late)
                AddEvent(holder.task, holder.attempt, "late-status", FinalEventJson(final));
            // Whenever that is said, its worker begins no further task.
            if (final.stalled)
                m_database->Prepare("UPDATE attempts SET stalled = 1 WHERE id = ?1")
                    .Bind(holder.attempt)
                    .Run();
            return;
        }
        WriteFinal(holder, final);
        AddEvent(holder.task, holder.attempt, "final", FinalEventJson(final));
        RetryDecision decision;
        StateEvent event = StateEvent::SaysError;
        if (final.status == kTaskFinished) {
            event = StateEvent::SaysFinished;
        } else if (final.status == kTaskCancelled) {
            event = StateEvent::SaysCancelled;
        } else if (MayRepeat(holder)) {
            decision = AfterError(m_rules.For(holder.type), holder.made, final);
            if (decision.again) event = StateEvent::SaysErrorAgain;
        } else if (const auto listed = ListedError(m_rules.For(holder.type), final); !listed.empty()) {
            decision.rule = listed + ", and " + WhyOnce(holder);
        }
        EndAttempt(holder, event, FinalReason(final), decision);
        SetReached(next);
    });
    if (!done) return done.error();
    return outcome;
}

// Who was told to stop, or has no text of ours, is not started again.
bool Store::MayRepeat(const Holder& holder) {
    return !holder.external && !holder.cancelRequested && holder.taskState != TaskState::Finishing;
}

std::string Store::WhyOnce(const Holder& holder) {
    return holder.external ? "the engine has no text to start the task with" : "the task was told to stop";
}

void Store::EndAttempt(const Holder& holder, StateEvent event, const std::optional<std::string>& reason,
                       const RetryDecision& decision) {
    const Transition next = Next(holder.taskState, event);
    SetAttemptState(holder.attempt, AttemptStateAfter(event));
    if (next.effect == Effect::Moves && next.to == TaskState::Queued) {
        const auto now = m_now();
        const std::int64_t due_us = now + std::chrono::microseconds(decision.delay).count();
        SetTaskState(holder.task, holder.attempt, TaskState::Queued, reason);
        m_database->Prepare("UPDATE tasks SET not_before_us = ?1, waits_since_us = ?2 WHERE id = ?3")
            .Bind(due_us)
            .Bind(now)
            .Bind(holder.task)
            .Run();
        AddEvent(holder.task, holder.attempt, "repeat", RepeatEventJson(decision.rule, due_us));
    } else if (next.effect == Effect::Moves) {
        SetTaskState(holder.task, holder.attempt, next.to, reason);
        if (!decision.rule.empty())
            AddEvent(holder.task, holder.attempt, "no-repeat", RepeatEventJson(decision.rule, std::nullopt));
    }
    CountForStop(holder, event, decision, reason.value_or(""));
}

void Store::LoseAttempt(const Holder& holder, StateEvent event, const std::string& reason) {
    m_database->Prepare("UPDATE attempts SET reason = ?1 WHERE id = ?2")
        .Bind(reason)
        .Bind(holder.attempt)
        .Run();
    AddEvent(holder.task, holder.attempt, event == StateEvent::EndsLost ? "lost" : "unsaid",
             ReasonEventJson(reason));
    RetryDecision decision;
    if (holder.cancelRequested) {
        event = StateEvent::EndsCancelled;
    } else if (event == StateEvent::EndsLost && MayRepeat(holder)) {
        decision = AfterLoss(m_rules.For(holder.type), holder.made, holder.connected);
        if (decision.again) event = StateEvent::EndsLostAgain;
    } else if (event == StateEvent::EndsLost) {
        decision.rule = "the worker was lost, and " + WhyOnce(holder);
    }
    EndAttempt(holder, event, reason, decision);
}

Result<void> Store::Lost(const std::string& token, const std::string& reason) {
    return ForHolder(token, Transaction::Sync::Shared, [&](const Holder& holder) {
        if (IsActive(holder.state)) LoseAttempt(holder, StateEvent::EndsLost, reason);
    });
}

Result<void> Store::Undone(const std::string& token, const std::string& reason) {
    return ForHolder(token, Transaction::Sync::Shared, [&](const Holder& holder) {
        if (!IsActive(holder.state)) return;
        const Transition next = Next(holder.taskState, StateEvent::EndsUndone);
        if (next.effect != Effect::Moves || !MayRepeat(holder)) {
            LoseAttempt(holder, StateEvent::EndsLost, reason);
            return;
        }
        m_database->Prepare("UPDATE attempts SET reason = ?1 WHERE id = ?2")
            .Bind(reason)
            .Bind(holder.attempt)
            .Run();
        AddEvent(holder.task, holder.attempt, "start-undone", ReasonEventJson(reason));
        SetAttemptState(holder.attempt, AttemptState::Lost);
        SetTaskState(holder.task, holder.attempt, next.to, reason);
        m_database->Prepare("UPDATE tasks SET spent = spent + 1 WHERE id = ?1").Bind(holder.task).Run();
    });
}

Result<void> Store::Unsaid(const std::string& token, const std::string& reason, const std::string& next) {
    return ForHolder(token, Transaction::Sync::Shared, [&](const Holder& holder) {
        if (IsActive(holder.state)) LoseAttempt(holder, StateEvent::EndsUnsaid, reason);
        SetReached(next);
    });
}

Result<void> Store::Exited(const std::string& token, const WorkerExit& exit, std::int64_t first) {
    return ForHolder(token, Transaction::Sync::Shared, [&](const Holder& holder) {
        const std::optional<std::int64_t> code = exit.isKnown ? std::optional(exit.code) : std::nullopt;
        m_database
            ->Prepare(exit.signalled ? "UPDATE attempts SET exited_us = ?1, exit_signal = ?2 "
                                       "WHERE (id = ?3 OR id = ?4 OR worker = ?4) AND exited_us IS NULL"
                                     : "UPDATE attempts SET exited_us = ?1, exit_code = ?2 "
                                       "WHERE (id = ?3 OR id = ?4 OR worker = ?4) AND exited_us IS NULL")
            .Bind(m_now())
            .Bind(code)
            .Bind(holder.attempt)
            .Bind(first)
            .Run();
        // An engine that did not live to close the attempt knew it better.
        if (m_database->Changes() != 0)
            AddEvent(holder.task, holder.attempt, "worker-exited", ExitEventJson(exit));
    });
}

}  // namespace rq::engine
