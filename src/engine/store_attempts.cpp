// The verbs of an attempt: each finds the attempt by its token and leaves events behind.
#include "engine/json.h"
#include "engine/store.h"
#include "records/engine_messages.h"

namespace rq::engine {

namespace {

// A progress event at least this often while reports come, whatever the percentage does.
constexpr std::int64_t kProgressEvent_us = 10'000'000;

bool IsOpen(AttemptState state) {
    return state == AttemptState::Starting || state == AttemptState::Running || state == AttemptState::Paused;
}

}  // namespace

std::optional<Store::Holder> Store::Find(const std::string& token) {
    Statement query = m_database->Prepare(
        "SELECT a.id, a.task, a.state, a.percent, t.state, t.cancel_us IS NOT NULL "
        "FROM attempts a JOIN tasks t ON t.id = a.task WHERE a.token = ?1");
    if (!query.Bind(token).Row()) return std::nullopt;
    Holder holder;
    holder.attempt = query.Number();
    holder.task = query.Number();
    holder.state = AttemptStateOf(query.Text()).value_or(AttemptState::Lost);
    holder.percent = query.Real();
    holder.taskState = TaskStateOf(query.Text()).value_or(TaskState::Failed);
    holder.cancelRequested = query.Number() != 0;
    return holder;
}

template <class Change>
Result<void> Store::ForHolder(const std::string& token, Transaction::Sync sync, Change change) {
    Transaction transaction(*m_database, sync);
    const auto holder = Find(token);
    if (auto ok = Checked(); !ok) return ok;
    if (!holder) return Fail("no attempt has this token");
    change(*holder);
    return Commit(transaction, holder->task);
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
        .Bind(IsOpen(state) ? none : now)
        .Bind(attempt)
        .Run();
}

Result<void> Store::WorkerStarted(const std::string& token, std::uint64_t processId,
                                  const std::string& output) {
    return ForHolder(token, Transaction::Sync::Durable, [&](const Holder& holder) {
        m_database->Prepare("UPDATE attempts SET pid = ?1, output = ?2 WHERE id = ?3")
            .Bind(static_cast<std::int64_t>(processId))
            .Bind(output)
            .Bind(holder.attempt)
            .Run();
        AddEvent(holder.task, holder.attempt, "worker-started", ProcessEventJson(processId));
    });
}

Result<void> Store::Connected(const std::string& token, std::uint32_t session, std::uint64_t processId,
                              const std::string& version) {
    return ForHolder(token, Transaction::Sync::Durable, [&](const Holder& holder) {
        m_database
            ->Prepare(
                "UPDATE attempts SET session = ?1, pid = coalesce(pid, ?2), worker_version = ?3, "
                "connected_us = ?4, last_seen_us = ?4 WHERE id = ?5")
            .Bind(std::int64_t{session})
            .Bind(static_cast<std::int64_t>(processId))
            .Bind(version)
            .Bind(m_now())
            .Bind(holder.attempt)
            .Run();
        AddEvent(holder.task, holder.attempt, "connected", ConnectedEventJson(session, processId, version));
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

void Store::MoveTo(const Holder& holder, AttemptState state, TaskState taskState) {
    if (!IsOpen(holder.state) || holder.state == state) return;
    SetAttemptState(holder.attempt, state);
    SetTaskState(holder.task, holder.attempt, taskState, std::nullopt);
}

Result<void> Store::Status(const std::string& token, std::uint32_t status) {
    return ForHolder(token, Transaction::Sync::Relaxed, [&](const Holder& holder) {
        AddEvent(holder.task, holder.attempt, "status", StatusEventJson(status));
        if (status == kTaskRunning) MoveTo(holder, AttemptState::Running, TaskState::Running);
        if (status == kTaskPaused) MoveTo(holder, AttemptState::Paused, TaskState::Paused);
    });
}

Result<void> Store::TypeSeen(const std::string& token, std::int32_t type) {
    return ForHolder(token, Transaction::Sync::Relaxed, [&](const Holder& holder) {
        m_database->Prepare("UPDATE tasks SET type = ?1 WHERE id = ?2")
            .Bind(std::int64_t{type})
            .Bind(holder.task)
            .Run();
    });
}

Result<void> Store::Progress(const std::string& token, const ProgressFigures& figures) {
    return ForHolder(token, Transaction::Sync::Relaxed, [&](const Holder& holder) {
        if (!IsOpen(holder.state)) return;
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
    return stored == final;
}

void Store::WriteFinal(const Holder& holder, const FinalStatus& final) {
    m_database
        ->Prepare(
            "UPDATE attempts SET status = ?1, detail_code = ?2, detail_text = ?3, error_code = ?4, "
            "error_text = ?5, further_text = ?6, last_seen_us = ?7, percent = ?8 WHERE id = ?9")
        .Bind(std::int64_t{final.status})
        .Bind(std::int64_t{final.detailErrorCode})
        .Bind(final.detailErrorText)
        .Bind(std::int64_t{final.errorCode})
        .Bind(final.errorText)
        .Bind(final.furtherText)
        .Bind(m_now())
        .Bind(final.status == kTaskFinished ? 100.0 : holder.percent)
        .Bind(holder.attempt)
        .Run();
    if (final.result.empty()) return;
    m_database->Prepare("INSERT INTO results (attempt, json) VALUES (?1, ?2)")
        .Bind(holder.attempt)
        .Bind(final.result)
        .Run();
}

Result<FinishOutcome> Store::Finish(const std::string& token, const FinalStatus& final) {
    FinishOutcome outcome = FinishOutcome::Committed;
    auto done = ForHolder(token, Transaction::Sync::Durable, [&](const Holder& holder) {
        if (!IsOpen(holder.state)) {
            outcome = SameFinal(holder.attempt, final) ? FinishOutcome::Repeat : FinishOutcome::Late;
            if (outcome == FinishOutcome::Late)
                AddEvent(holder.task, holder.attempt, "late-status", FinalEventJson(final));
            return;
        }
        WriteFinal(holder, final);
        AddEvent(holder.task, holder.attempt, "final", FinalEventJson(final));
        const bool cancelled = final.status == kTaskCancelled;
        const bool finished = final.status == kTaskFinished;
        SetAttemptState(holder.attempt, finished    ? AttemptState::Finished
                                        : cancelled ? AttemptState::Cancelled
                                                    : AttemptState::Failed);
        SetTaskState(holder.task, holder.attempt,
                     finished    ? TaskState::Finished
                     : cancelled ? TaskState::Cancelled
                                 : TaskState::Failed,
                     FinalReason(final));
    });
    if (!done) return done.error();
    return outcome;
}

void Store::LoseAttempt(const Holder& holder, const std::string& reason) {
    m_database->Prepare("UPDATE attempts SET reason = ?1 WHERE id = ?2")
        .Bind(reason)
        .Bind(holder.attempt)
        .Run();
    AddEvent(holder.task, holder.attempt, "lost", ReasonEventJson(reason));
    SetAttemptState(holder.attempt, holder.cancelRequested ? AttemptState::Cancelled : AttemptState::Lost);
    SetTaskState(holder.task, holder.attempt,
                 holder.cancelRequested ? TaskState::Cancelled : TaskState::Failed, reason);
}

Result<void> Store::Lost(const std::string& token, const std::string& reason) {
    return ForHolder(token, Transaction::Sync::Durable, [&](const Holder& holder) {
        if (IsOpen(holder.state)) LoseAttempt(holder, reason);
    });
}

Result<void> Store::Exited(const std::string& token, const WorkerExit& exit) {
    return ForHolder(token, Transaction::Sync::Durable, [&](const Holder& holder) {
        m_database
            ->Prepare(exit.signalled ? "UPDATE attempts SET exited_us = ?1, exit_signal = ?2 WHERE id = ?3"
                                     : "UPDATE attempts SET exited_us = ?1, exit_code = ?2 WHERE id = ?3")
            .Bind(m_now())
            .Bind(exit.code)
            .Bind(holder.attempt)
            .Run();
        AddEvent(holder.task, holder.attempt, "worker-exited", ExitEventJson(exit));
    });
}

Result<int> Store::LoseOpenAttempts(const std::string& reason) {
    std::vector<std::string> tokens;
    {
        Statement query = m_database->Prepare(
            "SELECT a.token FROM tasks t JOIN attempts a ON a.id = t.last_attempt "
            "WHERE t.state IN ('starting', 'running', 'paused')");
        while (query.Row()) tokens.push_back(query.Text());
    }
    if (auto ok = Checked(); !ok) return ok.error();
    for (const auto& token : tokens) {
        if (auto lost = Lost(token, reason); !lost) return lost.error();
    }
    return static_cast<int>(tokens.size());
}

}  // namespace rq::engine
