// What all verbs share: opening, events, and the verbs that make tasks and attempts.
#include "engine/store.h"

#include <chrono>

#include "engine/json.h"
#include "engine/store_file.h"
#include "platform/identity.h"

namespace rq::engine {

Store::Now Store::SystemNow() {
    return [] {
        const auto now = std::chrono::system_clock::now().time_since_epoch();
        return std::int64_t{std::chrono::duration_cast<std::chrono::microseconds>(now).count()};
    };
}

Store::Store(std::unique_ptr<Database> database, Now now)
    : m_database(std::move(database)), m_now(std::move(now)) {}

Result<std::unique_ptr<Store>> Store::Open(const std::string& path, Now now, Durability durability) {
    if (auto made = MakeStoreFile(path); !made) return made.error();
    auto database = Database::Open(path, durability);
    if (!database) return database.error();
    if (auto copied = CopyBeforeMigration(**database); !copied) return copied.error();
    if (auto migrated = MigrateSchema(**database); !migrated) return migrated.error();
    return std::unique_ptr<Store>(new Store(std::move(*database), std::move(now)));
}

Result<void> Store::Commit(Transaction& transaction, std::int64_t task) {
    auto done = transaction.Commit();
    if (done && m_listener && task != 0) m_listener(task);
    return done;
}

Result<void> Store::Checked() {
    if (m_database->Failed()) return m_database->TakeError();
    return {};
}

void Store::AddEvent(std::int64_t task, std::optional<std::int64_t> attempt, std::string_view kind,
                     const std::string& json) {
    m_database->Prepare("INSERT INTO events (task, attempt, time_us, kind, json) VALUES (?1, ?2, ?3, ?4, ?5)")
        .Bind(task)
        .Bind(attempt)
        .Bind(m_now())
        .Bind(kind)
        .Bind(json)
        .Run();
}

void Store::SetTaskState(std::int64_t task, std::optional<std::int64_t> attempt, TaskState state,
                         const std::optional<std::string>& reason) {
    const std::optional<std::int64_t> now = m_now();
    const std::optional<std::int64_t> none;
    m_database
        ->Prepare(
            "UPDATE tasks SET state = ?1, reason = ?2, started_us = coalesce(started_us, ?3), "
            "finished_us = coalesce(finished_us, ?4), not_before_us = NULL, waits_since_us = NULL "
            "WHERE id = ?5")
        .Bind(NameOf(state))
        .Bind(reason)
        .Bind(state == TaskState::Running ? now : none)
        .Bind(IsEnded(state) ? now : none)
        .Bind(task)
        .Run();
    AddEvent(task, attempt, "state", StateEventJson(state, reason));
}

TaskRow Store::Insert(const NewTask& task) {
    TaskRow row;
    row.type = task.type;
    row.name = task.name;
    row.origin = task.origin;
    row.created_us = m_now();
    row.priority = task.priority;
    row.notBefore_us = task.notBefore_us;
    row.deadline_us = task.deadline_us;
    row.cancelAtDeadline = task.cancelAtDeadline;
    row.demand = task.demand;
    row.clientKey = task.key;
    m_database
        ->Prepare(
            "INSERT INTO tasks (type, name, origin, text, state, created_us, priority, not_before_us, "
            "deadline_us, deadline_cancels, memory_mib, cores, volumes, client_key) "
            "VALUES (?1, ?2, ?3, ?4, 'queued', ?5, ?6, ?7, ?8, ?9, ?10, ?11, ?12, nullif(?13, ''))")
        .Bind(std::int64_t{task.type})
        .Bind(task.name)
        .Bind(task.origin)
        .Bind(task.text)
        .Bind(row.created_us)
        .Bind(std::int64_t{task.priority})
        .Bind(task.notBefore_us)
        .Bind(task.deadline_us)
        .Bind(std::int64_t{task.cancelAtDeadline})
        .Bind(task.demand.memory_MiB)
        .Bind(task.demand.cores)
        .Bind(JoinVolumes(task.demand.volumes))
        .Bind(task.key)
        .Run();
    row.key = m_database->LastRowId();
    row.id = "t" + std::to_string(row.key);
    m_database->Prepare("UPDATE tasks SET public_id = ?1 WHERE id = ?2").Bind(row.id).Bind(row.key).Run();
    AddEvent(row.key, std::nullopt, "submitted", SubmittedEventJson(task));
    AddEvent(row.key, std::nullopt, "state", StateEventJson(TaskState::Queued, std::nullopt));
    return row;
}

Claim Store::NewAttempt(std::int64_t task) {
    Claim claim;
    claim.task = task;
    claim.token = platform::RandomHex(16);
    Statement query =
        m_database->Prepare("SELECT public_id, type, text, attempts + 1, cores FROM tasks WHERE id = ?1");
    if (!query.Bind(task).Row()) return claim;
    claim.id = query.Text();
    claim.type = static_cast<std::int32_t>(query.Number());
    claim.text = query.Text();
    claim.number = static_cast<std::int32_t>(query.Number());
    claim.cores = query.Number();
    m_database
        ->Prepare(
            "INSERT INTO attempts (task, number, token, state, created_us, is_open) "
            "VALUES (?1, ?2, ?3, 'starting', ?4, 1)")
        .Bind(task)
        .Bind(std::int64_t{claim.number})
        .Bind(claim.token)
        .Bind(m_now())
        .Run();
    claim.attempt = m_database->LastRowId();
    m_database->Prepare("UPDATE tasks SET attempts = ?1, last_attempt = ?2 WHERE id = ?3")
        .Bind(std::int64_t{claim.number})
        .Bind(claim.attempt)
        .Bind(task)
        .Run();
    AddEvent(task, claim.attempt, "claimed", ClaimedEventJson(claim.number));
    SetTaskState(task, claim.attempt, TaskState::Starting, std::nullopt);
    return claim;
}

Result<std::optional<Claim>> Store::ClaimNext(const MayStart& mayStart, const std::set<std::int64_t>& busy,
                                              const Joins& joins, Transaction::Sync sync) {
    Transaction transaction(*m_database, sync);
    std::int64_t task = 0;
    {
        // A time that was set later than now is one of a clock that was put back since.
        Statement query = m_database->Prepare(
            "SELECT id, type, memory_mib, cores, volumes FROM tasks "
            "WHERE state = 'queued' AND suspended_us IS NULL "
            "AND (not_before_us IS NULL OR not_before_us <= ?1 OR waits_since_us > ?1) "
            "ORDER BY priority DESC, id");
        query.Bind(m_now());
        while (task == 0 && query.Row()) {
            Candidate candidate;
            candidate.task = query.Number();
            candidate.type = static_cast<std::int32_t>(query.Number());
            candidate.demand.memory_MiB = query.Number();
            candidate.demand.cores = query.Number();
            candidate.demand.volumes = SplitVolumes(query.Text());
            if (!busy.contains(candidate.task) && (!mayStart || mayStart(candidate))) task = candidate.task;
            if (candidate.endsSearch) break;
        }
    }
    if (task == 0) {
        if (auto ok = Checked(); !ok) return ok.error();
        return std::optional<Claim>{};
    }
    std::optional<Claim> claim = NewAttempt(task);
    if (const auto worker = joins ? joins() : std::nullopt) Join(*claim, *worker);
    if (auto done = Commit(transaction, task); !done) return done.error();
    return claim;
}

Result<Claim> Store::AdoptExternal(const std::string& name) {
    Transaction transaction(*m_database, Transaction::Sync::Shared);
    const TaskRow task = Insert({kUnknownType, name, "", "external"});
    Claim claim = NewAttempt(task.key);
    if (auto done = Commit(transaction, task.key); !done) return done.error();
    return claim;
}

}  // namespace rq::engine
