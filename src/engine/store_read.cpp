// Reading the store.
#include "engine/store.h"

namespace rq::engine {

namespace {

constexpr const char* kTaskColumns =
    "SELECT t.id, t.public_id, t.type, t.name, t.origin, t.state, t.reason, t.created_us, t.started_us, "
    "t.finished_us, t.cancel_us, t.not_before_us, t.suspended_us, t.attempts, t.priority, t.deadline_us, "
    "t.deadline_cancels, "
    "t.memory_mib, t.cores, t.volumes, coalesce(t.client_key, ''), coalesce(a.percent, 0), "
    "coalesce(a.speed, 0), "
    "coalesce(a.average_speed, 0), a.status "
    "FROM tasks t LEFT JOIN attempts a ON a.id = t.last_attempt ";

TaskRow ReadTask(Statement& row) {
    TaskRow task;
    task.key = row.Number();
    task.id = row.Text();
    task.type = static_cast<std::int32_t>(row.Number());
    task.name = row.Text();
    task.origin = row.Text();
    task.state = TaskStateOf(row.Text()).value_or(TaskState::Failed);
    task.reason = row.OptionalText();
    task.created_us = row.Number();
    task.started_us = row.OptionalNumber();
    task.finished_us = row.OptionalNumber();
    task.cancelRequested_us = row.OptionalNumber();
    task.notBefore_us = row.OptionalNumber();
    task.suspended_us = row.OptionalNumber();
    task.attempts = row.Number();
    task.priority = static_cast<std::int32_t>(row.Number());
    task.deadline_us = row.OptionalNumber();
    task.cancelAtDeadline = row.Number() != 0;
    task.demand.memory_MiB = row.Number();
    task.demand.cores = row.Number();
    task.demand.volumes = SplitVolumes(row.Text());
    task.clientKey = row.Text();
    task.percent = row.Real();
    task.speed = row.Real();
    task.averageSpeed = row.Real();
    task.status = row.OptionalNumber();
    if (task.state == TaskState::Queued) {
        // An earlier attempt's figures say nothing of the next one.
        task.percent = task.speed = task.averageSpeed = 0;
        task.status.reset();
    }
    return task;
}

AttemptRow ReadAttempt(Statement& row) {
    AttemptRow attempt;
    attempt.key = row.Number();
    attempt.number = static_cast<std::int32_t>(row.Number());
    attempt.state = TaskStateOf(row.Text()).value_or(AttemptState::Lost);
    attempt.session = row.OptionalNumber();
    attempt.processId = row.OptionalNumber();
    attempt.workerVersion = row.Text();
    attempt.workerGuid = row.Text();
    attempt.reportedTask = row.Text();
    attempt.created_us = row.Number();
    attempt.connected_us = row.OptionalNumber();
    attempt.started_us = row.OptionalNumber();
    attempt.finished_us = row.OptionalNumber();
    attempt.lastSeen_us = row.OptionalNumber();
    attempt.exited_us = row.OptionalNumber();
    attempt.exitCode = row.OptionalNumber();
    attempt.exitSignal = row.OptionalNumber();
    attempt.percent = row.Real();
    attempt.speed = row.Real();
    attempt.averageSpeed = row.Real();
    attempt.status = row.OptionalNumber();
    attempt.detailErrorCode = row.Number();
    attempt.detailErrorText = row.Text();
    attempt.errorCode = row.Number();
    attempt.errorText = row.Text();
    attempt.furtherText = row.Text();
    attempt.reason = row.OptionalText();
    attempt.output = row.Text();
    attempt.sharedTask = row.OptionalText();
    attempt.sharedAttempt = row.OptionalNumber();
    return attempt;
}

}  // namespace

Result<std::optional<TaskRow>> Store::Task(std::int64_t task) {
    std::optional<TaskRow> found;
    {
        Statement query = m_database->Prepare(std::string(kTaskColumns) + "WHERE t.id = ?1");
        if (query.Bind(task).Row()) found = ReadTask(query);
    }
    if (auto ok = Checked(); !ok) return ok.error();
    return found;
}

Result<std::vector<TaskRow>> Store::Tasks(const TaskQuery& query) {
    std::string sql = std::string(kTaskColumns) + "WHERE t.id < ?1";
    // State names are ours, not the caller's text. Each state's page by itself, by its index: together they
    // would be sorted over everything.
    for (std::size_t i = 0; i < query.states.size(); ++i)
        sql +=
            (i == 0 ? " AND t.id IN (" : " UNION ALL ") +
            ("SELECT id FROM (SELECT id FROM tasks WHERE state = '" + std::string(NameOf(query.states[i]))) +
            "' AND id < ?1 ORDER BY id DESC LIMIT ?2)";
    if (!query.states.empty()) sql += ")";
    sql += " ORDER BY t.id DESC LIMIT ?2";
    std::vector<TaskRow> tasks;
    {
        Statement rows = m_database->Prepare(sql);
        rows.Bind(query.before_key.value_or(std::int64_t{1} << 62)).Bind(query.limit);
        while (rows.Row()) tasks.push_back(ReadTask(rows));
    }
    if (auto ok = Checked(); !ok) return ok.error();
    return tasks;
}

void Store::FillAttempts(TaskDetails& details) {
    Statement rows = m_database->Prepare(
        "SELECT id, number, state, session, pid, worker_version, worker_guid, reported_task, created_us, "
        "connected_us, started_us, finished_us, last_seen_us, exited_us, exit_code, exit_signal, percent, "
        "speed, average_speed, "
        "status, detail_code, detail_text, error_code, error_text, further_text, reason, output, "
        "(SELECT 't' || w.task FROM attempts w WHERE w.id = attempts.worker), "
        "(SELECT w.number FROM attempts w WHERE w.id = attempts.worker) "
        "FROM attempts WHERE task = ?1 ORDER BY number");
    rows.Bind(details.task.key);
    while (rows.Row()) details.attempts.push_back(ReadAttempt(rows));
}

Result<std::optional<TaskDetails>> Store::Details(std::int64_t task) {
    auto row = Task(task);
    if (!row) return row.error();
    if (!*row) return std::optional<TaskDetails>{};
    TaskDetails details;
    details.task = **row;
    {
        Statement query = m_database->Prepare(
            "SELECT text, coalesce((SELECT max(id) FROM events WHERE task = ?1), 0), "
            "(SELECT json FROM results WHERE attempt = tasks.last_attempt) FROM tasks WHERE id = ?1");
        if (query.Bind(task).Row()) {
            details.text = query.Text();
            details.lastEvent = query.Number();
            details.result = query.OptionalText();
        }
    }
    FillAttempts(details);
    if (auto ok = Checked(); !ok) return ok.error();
    return std::optional<TaskDetails>(std::move(details));
}

Result<std::vector<EventRow>> Store::Events(std::int64_t task, std::int64_t after, std::int64_t limit) {
    std::vector<EventRow> events;
    {
        Statement rows = m_database->Prepare(
            "SELECT e.id, e.time_us, a.number, e.kind, e.json FROM events e "
            "LEFT JOIN attempts a ON a.id = e.attempt WHERE e.task = ?1 AND e.id > ?2 ORDER BY e.id LIMIT "
            "?3");
        rows.Bind(task).Bind(after).Bind(limit);
        while (rows.Row()) {
            EventRow event;
            event.key = rows.Number();
            event.time_us = rows.Number();
            event.attemptNumber = rows.OptionalNumber();
            event.kind = rows.Text();
            event.json = rows.Text();
            events.push_back(std::move(event));
        }
    }
    if (auto ok = Checked(); !ok) return ok.error();
    return events;
}

Result<std::vector<std::int64_t>> Store::CountByState() {
    std::vector<std::int64_t> counts(std::size(kTaskStates), 0);
    {
        Statement rows = m_database->Prepare("SELECT state, count(*) FROM tasks GROUP BY state");
        while (rows.Row()) {
            const auto state = TaskStateOf(rows.Text());
            const auto count = rows.Number();
            if (state) counts[static_cast<std::size_t>(*state)] = count;
        }
    }
    if (auto ok = Checked(); !ok) return ok.error();
    return counts;
}

}  // namespace rq::engine
