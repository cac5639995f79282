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

}  // namespace rq::engine
