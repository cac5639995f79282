// The verbs of attempts that share a worker: one that takes task after task.
#include "engine/json.h"
#include "engine/store_change.h"
#include "records/engine_messages.h"

namespace rq::engine {

void Store::Join(const Claim& claim, const SharedWorker& worker) {
    m_database
        ->Prepare(
            "UPDATE attempts SET worker = ?1, add_seq = ?4, is_open = 0, session = w.session, pid = w.pid, "
            "worker_version = w.worker_version, worker_guid = w.worker_guid, output = w.output "
            "FROM (SELECT session, pid, worker_version, worker_guid, output FROM attempts WHERE id = ?2) AS "
            "w "
            "WHERE attempts.id = ?3")
        .Bind(worker.first)
        .Bind(worker.latest)
        .Bind(claim.attempt)
        .Bind(static_cast<std::int64_t>(worker.addSeq))
        .Run();
    if (worker.idle) SetReached(claim.token);
    AddEvent(claim.task, claim.attempt, "added", AddedEventJson(worker.task));
}

void Store::SetReached(const std::string& token) {
    if (token.empty()) return;
    m_database->Prepare("UPDATE attempts SET connected_us = coalesce(connected_us, ?1) WHERE token = ?2")
        .Bind(m_now())
        .Bind(token)
        .Run();
}

Result<void> Store::Begun(const std::string& token, const std::string& taskId) {
    return ForHolder(token, Transaction::Sync::Relaxed, [&](const Holder& holder) {
        m_database
            ->Prepare(
                "UPDATE attempts SET reported_task = ?1, last_seen_us = ?2, "
                "connected_us = coalesce(connected_us, ?2) WHERE id = ?3")
            .Bind(taskId)
            .Bind(m_now())
            .Bind(holder.attempt)
            .Run();
        AddEvent(holder.task, holder.attempt, "status", StatusEventJson(kTaskRunning));
        Report(holder, StateEvent::SaysRunning);
    });
}

Result<void> Store::PutBack(const std::string& token, const std::string& reason) {
    return ForHolder(token, Transaction::Sync::Shared, [&](const Holder& holder) {
        if (!IsActive(holder.state)) return;
        m_database->Prepare("UPDATE attempts SET reason = ?1 WHERE id = ?2")
            .Bind(reason)
            .Bind(holder.attempt)
            .Run();
        SetAttemptState(holder.attempt, AttemptState::Cancelled);
        AddEvent(holder.task, holder.attempt, "put-back", ReasonEventJson(reason));
        const Transition next = Next(holder.taskState, StateEvent::EndsUntouched);
        if (next.effect != Effect::Moves) return;
        SetTaskState(holder.task, holder.attempt, next.to, reason);
        if (next.to == TaskState::Queued)
            m_database->Prepare("UPDATE tasks SET spent = spent + 1 WHERE id = ?1").Bind(holder.task).Run();
    });
}

Result<bool> Store::IsShared(const std::string& token) {
    bool shared = false;
    {
        Statement row = m_database->Prepare(
            "SELECT 1 FROM attempts WHERE worker = (SELECT id FROM attempts WHERE token = ?1) LIMIT 1");
        shared = row.Bind(token).Row();
    }
    if (auto ok = Checked(); !ok) return ok.error();
    return shared;
}

Result<void> Store::AddedAgain(const std::string& token, std::uint64_t seq) {
    return ForHolder(token, Transaction::Sync::Relaxed, [&](const Holder& holder) {
        m_database->Prepare("UPDATE attempts SET add_seq = ?1 WHERE id = ?2")
            .Bind(static_cast<std::int64_t>(seq))
            .Bind(holder.attempt)
            .Run();
    });
}

Result<void> Store::Told(const std::string& worker, std::int64_t attempt) {
    return ForHolder(worker, Transaction::Sync::Relaxed, [&](const Holder& holder) {
        m_database->Prepare("UPDATE attempts SET told = coalesce(told, ?1) WHERE id = ?2")
            .Bind(attempt)
            .Bind(holder.attempt)
            .Run();
    });
}

}  // namespace rq::engine
