// Submissions, with the client's key; times that a task waits for, and deadlines.
#include <algorithm>

#include "engine/json.h"
#include "engine/store.h"

namespace rq::engine {

std::string JoinVolumes(const std::vector<std::string>& volumes) {
    std::string text;
    for (const auto& name : volumes) text += (text.empty() ? "" : " ") + name;
    return text;
}

std::vector<std::string> SplitVolumes(std::string_view text) {
    std::vector<std::string> volumes;
    while (!text.empty()) {
        const auto end = std::min(text.find(' '), text.size());
        volumes.emplace_back(text.substr(0, end));
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    return volumes;
}

Result<TaskRow> Store::Submit(const NewTask& task) {
    auto rows = SubmitAll({task});
    if (!rows) return rows.error();
    return std::move(rows->front().row);
}

std::optional<Submitted> Store::FindKey(const NewTask& task) {
    Submitted found;
    {
        Statement query = m_database->Prepare(
            "SELECT id, public_id, state, type = ?2 AND coalesce(submitted_text, text) = ?3 FROM tasks "
            "WHERE client_key = ?1");
        if (!query.Bind(task.key).Bind(std::int64_t{task.type}).Bind(task.text).Row()) return std::nullopt;
        found.row.key = query.Number();
        found.row.id = query.Text();
        found.row.state = TaskStateOf(query.Text()).value_or(TaskState::Failed);
        found.result = query.Number() != 0 ? SubmitResult::Repeated : SubmitResult::KeyTaken;
    }
    return found;
}

Result<std::vector<Submitted>> Store::SubmitAll(const std::vector<NewTask>& tasks) {
    Transaction transaction(*m_database);
    std::vector<Submitted> all;
    for (const auto& task : tasks) {
        auto known = task.key.empty() ? std::nullopt : FindKey(task);
        all.push_back(known ? std::move(*known) : Submitted{SubmitResult::New, Insert(task)});
    }
    if (auto done = Commit(transaction, 0); !done) return done.error();
    for (const auto& one : all) {
        if (m_listener && one.result == SubmitResult::New) m_listener(one.row.key);
    }
    return all;
}

Result<std::optional<std::int64_t>> Store::NextDue() {
    std::optional<std::int64_t> due;
    {
        Statement query = m_database->Prepare(
            "SELECT min(due) FROM (SELECT min(not_before_us) AS due FROM tasks "
            "WHERE not_before_us > ?1 AND state = 'queued' AND suspended_us IS NULL "
            "UNION ALL SELECT min(deadline_us) FROM tasks WHERE deadline_us > ?1 AND finished_us IS NULL)");
        if (query.Bind(m_now()).Row()) due = query.OptionalNumber();
    }
    if (auto ok = Checked(); !ok) return ok.error();
    return due;
}

Result<std::vector<std::int64_t>> Store::PassDeadlines() {
    struct Late {
        std::int64_t task = 0;
        TaskState state = TaskState::Queued;
        std::int64_t deadline_us = 0;
        std::optional<std::int64_t> attempt;
        std::optional<std::string> reason;
        bool cancels = false, noted = false, told = false;
    };
    std::vector<Late> all;
    {
        Statement query = m_database->Prepare(
            "SELECT id, state, deadline_us, last_attempt, reason, deadline_cancels, deadline_noted, "
            "cancel_us IS NOT NULL FROM tasks WHERE deadline_us <= ?1 AND finished_us IS NULL");
        query.Bind(m_now());
        while (query.Row()) {
            Late& late = all.emplace_back();
            late.task = query.Number();
            late.state = TaskStateOf(query.Text()).value_or(TaskState::Failed);
            late.deadline_us = query.Number();
            late.attempt = query.OptionalNumber();
            late.reason = query.OptionalText();
            late.cancels = query.Number() != 0;
            late.noted = query.Number() != 0;
            late.told = query.Number() != 0 || late.state == TaskState::Finishing;
        }
    }
    if (auto ok = Checked(); !ok) return ok.error();
    std::vector<std::int64_t> toCancel;
    for (const auto& late : all) {
        const Transition next = Next(late.state, StateEvent::PassesDeadline);
        const bool fails = next.effect == Effect::Moves;
        if (late.cancels && !fails && !late.told) toCancel.push_back(late.task);
        if (late.noted && !fails) continue;
        Transaction transaction(*m_database);
        AddEvent(late.task, late.attempt, "deadline",
                 DeadlineEventJson(late.deadline_us, fails          ? "failed"
                                                     : late.cancels ? "cancel"
                                                                    : "none"));
        if (fails) {
            const std::string when = "its deadline " + TimeText(late.deadline_us) + " passed ";
            SetTaskState(late.task, std::nullopt, next.to,
                         late.attempt ? when + "before another attempt" +
                                            (late.reason ? "; the last one: " + *late.reason : "")
                                      : when + "before it could be started; no attempt was made");
        }
        m_database->Prepare("UPDATE tasks SET deadline_noted = 1 WHERE id = ?1").Bind(late.task).Run();
        if (auto done = Commit(transaction, late.task); !done) return done.error();
    }
    return toCancel;
}

Result<Demand> Store::Taken(const std::set<std::int64_t>& others) {
    std::string keys;
    for (const auto key : others) keys += (keys.empty() ? "" : ",") + std::to_string(key);
    Demand taken;
    {
        Statement query = m_database->Prepare(
            "SELECT coalesce(sum(memory_mib), 0), coalesce(sum(cores), 0) FROM tasks WHERE id IN ("
            "SELECT id FROM tasks WHERE state IN ('starting', 'running', 'paused', 'finishing') "
            "UNION SELECT value FROM json_each(?1))");
        if (query.Bind("[" + keys + "]").Row()) {
            taken.memory_MiB = query.Number();
            taken.cores = query.Number();
        }
    }
    if (auto ok = Checked(); !ok) return ok.error();
    return taken;
}

Result<std::vector<QueuedGroup>> Store::QueuedGroups() {
    std::vector<QueuedGroup> groups;
    {
        Statement query = m_database->Prepare(
            "SELECT type, memory_mib, cores, volumes, suspended_us IS NOT NULL, "
            "coalesce(not_before_us > ?1 AND coalesce(waits_since_us, 0) <= ?1, 0), waits_since_us IS NOT "
            "NULL, "
            "count(*) FROM tasks WHERE state = 'queued' GROUP BY 1, 2, 3, 4, 5, 6, 7");
        query.Bind(m_now());
        while (query.Row()) {
            QueuedGroup& group = groups.emplace_back();
            group.type = static_cast<std::int32_t>(query.Number());
            group.demand.memory_MiB = query.Number();
            group.demand.cores = query.Number();
            group.demand.volumes = SplitVolumes(query.Text());
            group.suspended = query.Number() != 0;
            group.waits = query.Number() != 0;
            group.again = query.Number() != 0;
            group.tasks = query.Number();
        }
    }
    if (auto ok = Checked(); !ok) return ok.error();
    return groups;
}

Result<std::int64_t> Store::Ahead(const TaskRow& task) {
    std::int64_t ahead = 0;
    {
        Statement query = m_database->Prepare(
            "SELECT count(*) FROM tasks WHERE state = 'queued' AND (priority > ?1 OR (priority = ?1 AND id < "
            "?2))");
        if (query.Bind(std::int64_t{task.priority}).Bind(task.key).Row()) ahead = query.Number();
    }
    if (auto ok = Checked(); !ok) return ok.error();
    return ahead;
}

Result<TypePace> Store::PaceOf(std::int32_t type) {
    TypePace pace;
    {
        Statement query = m_database->Prepare(
            "SELECT count(*), coalesce(avg(speed), 0) FROM (SELECT a.speed FROM tasks t JOIN attempts a "
            "ON a.id = t.last_attempt WHERE t.type = ?1 AND t.state = 'finished' AND a.speed > 0 "
            "ORDER BY t.finished_us DESC LIMIT 20)");
        if (query.Bind(std::int64_t{type}).Row()) {
            pace.tasks = query.Number();
            pace.speed = query.Real();
        }
    }
    if (auto ok = Checked(); !ok) return ok.error();
    return pace;
}

namespace {

std::vector<EventRow> ReadEvents(Statement& rows) {
    std::vector<EventRow> events;
    while (rows.Row()) {
        EventRow& event = events.emplace_back();
        event.key = rows.Number();
        event.time_us = rows.Number();
        event.attemptNumber = rows.OptionalNumber();
        event.kind = rows.Text();
        event.json = rows.Text();
    }
    std::reverse(events.begin(), events.end());
    return events;
}

}  // namespace

Result<std::vector<EventRow>> Store::Milestones(std::int64_t task, std::int64_t limit) {
    std::vector<EventRow> events;
    {
        Statement rows = m_database->Prepare(
            "SELECT e.id, e.time_us, a.number, e.kind, e.json FROM events e LEFT JOIN attempts a "
            "ON a.id = e.attempt WHERE e.task = ?1 AND e.kind <> 'progress' ORDER BY e.id DESC LIMIT ?2");
        rows.Bind(task).Bind(limit);
        events = ReadEvents(rows);
    }
    if (auto ok = Checked(); !ok) return ok.error();
    return events;
}

Result<std::vector<EventRow>> Store::ProgressOf(std::int64_t task, std::int64_t limit) {
    std::vector<EventRow> events;
    {
        Statement rows = m_database->Prepare(
            "SELECT e.id, e.time_us, NULL, e.kind, e.json FROM events e JOIN tasks t ON t.id = e.task "
            "WHERE e.task = ?1 AND e.attempt = t.last_attempt AND e.kind = 'progress' "
            "ORDER BY e.id DESC LIMIT ?2");
        rows.Bind(task).Bind(limit);
        events = ReadEvents(rows);
    }
    if (auto ok = Checked(); !ok) return ok.error();
    return events;
}

}  // namespace rq::engine
