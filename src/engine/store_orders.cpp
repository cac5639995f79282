// The verbs of orders: what each does to a task in each state. What only its worker can do is left to the
// caller, who is told by `send`.
#include "engine/json.h"
#include "engine/store.h"
#include "records/engine_messages.h"

namespace rq::engine {

template <class Change>
Result<OrderOutcome> Store::ForOrder(std::int64_t task, StateEvent event, Change change) {
    Transaction transaction(*m_database);
    std::optional<Ordered> found;
    {
        Statement query = m_database->Prepare(
            "SELECT public_id, state, last_attempt, cancel_us, suspended_us, origin = 'external', text, "
            "priority, deadline_us FROM tasks WHERE id = ?1");
        if (query.Bind(task).Row()) {
            found.emplace();
            found->id = query.Text();
            found->state = TaskStateOf(query.Text()).value_or(TaskState::Failed);
            found->attempt = query.OptionalNumber();
            found->cancelled_us = query.OptionalNumber();
            found->suspended_us = query.OptionalNumber();
            found->external = query.Number() != 0;
            found->text = query.Text();
            found->priority = static_cast<std::int32_t>(query.Number());
            found->deadline_us = query.OptionalNumber();
        }
    }
    if (auto ok = Checked(); !ok) return ok.error();
    if (!found) return Fail("no such task");
    OrderOutcome outcome;
    outcome.state = found->state;
    const Transition next = Next(found->state, event);
    if (next.effect == Effect::Refused) {
        outcome.refused = true;
        outcome.message = RefusalText(found->id, found->state, event);
        return outcome;
    }
    if (next.effect == Effect::Moves) outcome.state = next.to;
    change(*found, outcome);
    if (outcome.refused || !outcome.changed) return outcome;
    if (auto done = Commit(transaction, task); !done) return done.error();
    return outcome;
}

namespace {

void Tell(OrderOutcome& outcome, bool changed, const std::string& result, const std::string& message) {
    outcome.changed = changed;
    outcome.result = result;
    outcome.message = message;
}

void Refuse(OrderOutcome& outcome, TaskState state, const std::string& message) {
    outcome.refused = true;
    outcome.state = state;
    outcome.message = message;
}

}  // namespace

Result<OrderOutcome> Store::Cancel(std::int64_t task, const std::string& by, const std::string& reason) {
    return ForOrder(task, StateEvent::Cancel, [&](const Ordered& ordered, OrderOutcome& outcome) {
        if (IsEnded(ordered.state)) {
            Tell(outcome, false, "already-ended",
                 ordered.id + " has ended already: " + std::string(NameOf(ordered.state)));
            return;
        }
        if (ordered.cancelled_us) {
            Tell(outcome, false, "requested", ordered.id + " is told to stop");
            return;
        }
        m_database->Prepare("UPDATE tasks SET cancel_us = ?1 WHERE id = ?2").Bind(m_now()).Bind(task).Run();
        AddEvent(task, ordered.attempt, "cancel-requested", CancelEventJson(by));
        if (ordered.state == TaskState::Queued) {
            SetTaskState(task, std::nullopt, TaskState::Cancelled, reason);
            Tell(outcome, true, "cancelled", ordered.id + " cancelled");
            return;
        }
        SetFinishing(task, ordered);
        Tell(outcome, true, "requested", ordered.id + " is told to stop");
        outcome.send = true;
    });
}

void Store::SetFinishing(std::int64_t task, const Ordered& ordered) {
    if (ordered.state == TaskState::Finishing) return;
    if (ordered.attempt) SetAttemptState(*ordered.attempt, AttemptState::Finishing);
    SetTaskState(task, ordered.attempt, TaskState::Finishing, std::nullopt);
}

void Store::SetAsked(const Ordered& ordered, std::uint32_t id) {
    m_database->Prepare("UPDATE attempts SET asked = ?1 WHERE id = ?2")
        .Bind(std::int64_t{id})
        .Bind(ordered.attempt)
        .Run();
}

Result<OrderOutcome> Store::FinishTask(std::int64_t task, const std::string& by) {
    return ForOrder(task, StateEvent::Finish, [&](const Ordered& ordered, OrderOutcome& outcome) {
        if (IsEnded(ordered.state)) {
            Tell(outcome, false, "already-ended",
                 ordered.id + " has ended already: " + std::string(NameOf(ordered.state)));
            return;
        }
        if (ordered.state == TaskState::Finishing) {
            Tell(outcome, false, "requested", ordered.id + " is told to stop already");
            return;
        }
        AddEvent(task, ordered.attempt, "asked", AskedEventJson(StateEvent::Finish, by));
        SetFinishing(task, ordered);
        Tell(outcome, true, "requested", ordered.id + " is told to stop and keep what is done");
        outcome.send = true;
    });
}

Result<OrderOutcome> Store::Suspend(std::int64_t task, const std::string& by, bool resuming) {
    return ForOrder(task, StateEvent::Suspend, [&](const Ordered& ordered, OrderOutcome& outcome) {
        if ((ordered.state == TaskState::Paused && !resuming) || ordered.suspended_us) {
            Tell(outcome, false, "already-suspended", ordered.id + " is suspended already");
            return;
        }
        AddEvent(task, ordered.attempt, "asked", AskedEventJson(StateEvent::Suspend, by));
        if (ordered.state != TaskState::Queued) {
            SetAsked(ordered, TCP_TASK_SUSPEND_ID);
            Tell(outcome, true, "requested", ordered.id + " is told to pause");
            outcome.send = true;
            return;
        }
        m_database->Prepare("UPDATE tasks SET suspended_us = ?1 WHERE id = ?2")
            .Bind(m_now())
            .Bind(task)
            .Run();
        Tell(outcome, true, "suspended", ordered.id + " stays in the queue until it is resumed");
    });
}

Result<OrderOutcome> Store::Resume(std::int64_t task, const std::string& by) {
    return ForOrder(task, StateEvent::Resume, [&](const Ordered& ordered, OrderOutcome& outcome) {
        if (ordered.state == TaskState::Queued && !ordered.suspended_us) {
            Tell(outcome, false, "not-suspended", ordered.id + " is not suspended");
            return;
        }
        AddEvent(task, ordered.attempt, "asked", AskedEventJson(StateEvent::Resume, by));
        if (ordered.state != TaskState::Queued) {
            SetAsked(ordered, TCP_TASK_RESUME_ID);
            Tell(outcome, true, "requested", ordered.id + " is told to go on");
            outcome.send = true;
            return;
        }
        m_database->Prepare("UPDATE tasks SET suspended_us = NULL WHERE id = ?1").Bind(task).Run();
        Tell(outcome, true, "resumed", ordered.id + " may start");
    });
}

Result<OrderOutcome> Store::Update(std::int64_t task, const std::string& by, const std::string& text,
                                   bool toWorker) {
    return ForOrder(task, StateEvent::Update, [&](const Ordered& ordered, OrderOutcome& outcome) {
        if (ordered.text == text) {
            Tell(outcome, false, "unchanged", ordered.id + " has this text already");
            return;
        }
        m_database
            ->Prepare(
                "UPDATE tasks SET text = ?1, submitted_text = iif(client_key IS NULL, NULL, "
                "coalesce(submitted_text, text)) WHERE id = ?2")
            .Bind(text)
            .Bind(task)
            .Run();
        AddEvent(task, ordered.attempt, "asked", AskedEventJson(StateEvent::Update, by));
        if (ordered.state == TaskState::Queued) {
            Tell(outcome, true, "updated", ordered.id + " has the new text");
            return;
        }
        if (!toWorker) {
            Tell(outcome, true, "kept",
                 ordered.id +
                     " keeps the new text for a further attempt: another task waits in the list of its "
                     "worker, which the text could reach");
            return;
        }
        m_database->Prepare("UPDATE attempts SET text_asked = text_asked + 1 WHERE id = ?1")
            .Bind(ordered.attempt)
            .Run();
        Tell(outcome, true, "requested", ordered.id + " is told the new text");
        outcome.send = true;
    });
}

Result<OrderOutcome> Store::Retry(std::int64_t task, const std::string& by) {
    return ForOrder(task, StateEvent::Retry, [&](const Ordered& ordered, OrderOutcome& outcome) {
        if (ordered.external) {
            Refuse(outcome, ordered.state,
                   RefusalText(ordered.id, ordered.state, StateEvent::Retry) +
                       "; it was started by hand, and the engine has no text to start it with");
            return;
        }
        if (!IsEnded(ordered.state)) {
            Tell(outcome, false, "not-ended", ordered.id + " is " + std::string(NameOf(ordered.state)));
            return;
        }
        const auto now = m_now();
        AddEvent(task, ordered.attempt, "asked", AskedEventJson(StateEvent::Retry, by));
        SetTaskState(task, std::nullopt, TaskState::Queued, std::nullopt);
        m_database
            ->Prepare(
                "UPDATE tasks SET spent = attempts, finished_us = NULL, cancel_us = NULL, suspended_us = "
                "NULL, deadline_noted = 0, deadline_us = iif(deadline_us <= ?2, NULL, deadline_us) "
                "WHERE id = ?1")
            .Bind(task)
            .Bind(now)
            .Run();
        const bool late = ordered.deadline_us && *ordered.deadline_us <= now;
        Tell(outcome, true, "queued",
             ordered.id + " is queued again" + (late ? ", without its deadline, which has passed" : ""));
    });
}

Result<OrderOutcome> Store::SetPriority(std::int64_t task, const std::string& by, std::int32_t priority) {
    return ForOrder(task, StateEvent::Prioritise, [&](const Ordered& ordered, OrderOutcome& outcome) {
        const std::string number = std::to_string(priority);
        if (ordered.priority == priority) {
            Tell(outcome, false, "unchanged", ordered.id + " has the priority " + number + " already");
            return;
        }
        m_database->Prepare("UPDATE tasks SET priority = ?1 WHERE id = ?2")
            .Bind(std::int64_t{priority})
            .Bind(task)
            .Run();
        AddEvent(task, ordered.attempt, "asked", PriorityEventJson(by, priority));
        Tell(outcome, true, "changed",
             ordered.id + " has the priority " + number + " now" +
                 (ordered.state == TaskState::Queued ? "" : ", for later attempts"));
    });
}

Result<OrderOutcome> Store::Delete(std::int64_t task, std::vector<std::string>& outputs) {
    return ForOrder(task, StateEvent::Delete, [&](const Ordered& ordered, OrderOutcome& outcome) {
        {
            // Attempts of other tasks may have had the same worker.
            Statement files = m_database->Prepare(
                "SELECT output FROM attempts a WHERE task = ?1 AND output <> '' AND NOT EXISTS ("
                "SELECT 1 FROM attempts b WHERE b.task <> ?1 AND b.worker = coalesce(a.worker, a.id)) "
                "AND NOT EXISTS (SELECT 1 FROM attempts b WHERE b.task <> ?1 AND b.id = a.worker)");
            files.Bind(task);
            while (files.Row()) outputs.push_back(files.Text());
        }
        for (const char* sql :
             {"UPDATE tasks SET deleted = 1 WHERE id = ?1", "DELETE FROM events WHERE task = ?1",
              "DELETE FROM results WHERE attempt IN (SELECT id FROM attempts WHERE task = ?1)",
              "DELETE FROM attempts WHERE task = ?1", "DELETE FROM tasks WHERE id = ?1"})
            m_database->Prepare(sql).Bind(task).Run();
        Tell(outcome, true, "deleted", ordered.id + " is deleted");
    });
}

Result<bool> Store::WasDeleted(std::int64_t task) {
    bool given = false;
    {
        Statement query = m_database->Prepare(
            "SELECT 1 FROM sqlite_sequence WHERE name = 'tasks' AND seq >= ?1 "
            "AND NOT EXISTS (SELECT 1 FROM tasks WHERE id = ?1)");
        given = query.Bind(task).Row();
    }
    if (auto ok = Checked(); !ok) return ok.error();
    return given;
}

}  // namespace rq::engine
