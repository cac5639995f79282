// The store's verbs for those who look after a node: numbers over everything, copies, removal of old events.
#include <algorithm>

#include "engine/store.h"

namespace rq::engine {

Result<StoreCensus> Store::Census() {
    StoreCensus census;
    {
        Statement query = m_database->Prepare(
            "SELECT type, state, count(*), min(created_us), sum(CASE WHEN finished_us IS NOT NULL AND "
            "started_us IS "
            "NOT NULL THEN 1 ELSE 0 END), sum(CASE WHEN finished_us IS NOT NULL AND started_us IS NOT NULL "
            "THEN "
            "max(0, finished_us - started_us) ELSE 0 END), sum(attempts) FROM tasks GROUP BY type, state");
        while (query.Row()) {
            auto& of = census.types[static_cast<std::int32_t>(query.Number())];
            const std::string state = query.Text();
            of.tasks[state] = query.Number();
            const auto oldest_us = query.Number();
            if (state == NameOf(TaskState::Queued)) of.oldestQueued_us = oldest_us;
            of.ended += query.Number();
            of.ended_us += query.Number();
            of.attempts += query.Number();
        }
    }
    {
        Statement query = m_database->Prepare(
            "SELECT tasks.type, count(*) FROM attempts JOIN tasks ON tasks.id = attempts.task "
            "WHERE attempts.state = 'lost' GROUP BY tasks.type");
        while (query.Row()) {
            auto& of = census.types[static_cast<std::int32_t>(query.Number())];
            of.attemptsLost = query.Number();
        }
    }
    {
        Statement query = m_database->Prepare(
            "SELECT tasks.public_id, tasks.type, attempts.percent, attempts.speed FROM tasks JOIN attempts "
            "ON "
            "attempts.id = tasks.last_attempt WHERE tasks.state = 'running' ORDER BY tasks.id");
        while (query.Row()) {
            auto& running = census.running.emplace_back();
            running.task = query.Text();
            running.type = static_cast<std::int32_t>(query.Number());
            running.percent = query.Real();
            running.speed = query.Real();
        }
    }
    {
        Statement query = m_database->Prepare("SELECT coalesce(max(id), 0) FROM events");
        if (query.Row()) census.events = query.Number();
    }
    if (auto ok = Checked(); !ok) return ok.error();
    return census;
}

Result<std::unique_ptr<StoreCopy>> Store::BeginCopy(const std::string& path) {
    return StoreCopy::Begin(*m_database, path);
}

// Events are only ever added, and triggers of the schema see to it; this is the one exception.
Result<std::int64_t> Store::DropEvents(std::int64_t before_us, std::int64_t most, std::int64_t limit) {
    std::int64_t count = 0;
    {
        Statement query = m_database->Prepare("SELECT count(*) FROM events");
        if (query.Row()) count = query.Number();
    }
    if (auto ok = Checked(); !ok) return ok.error();
    const std::int64_t over = most == 0 ? 0 : std::max<std::int64_t>(0, count - most);
    Transaction transaction(*m_database, Transaction::Sync::Relaxed);
    std::string trigger;
    {
        Statement query = m_database->Prepare("SELECT sql FROM sqlite_master WHERE name = 'events_stay'");
        if (query.Row()) trigger = query.Text();
    }
    m_database->Execute("DROP TRIGGER events_stay");
    std::int64_t dropped = 0;
    m_database
        ->Prepare(
            "DELETE FROM events WHERE id IN (SELECT events.id FROM events JOIN tasks ON tasks.id = "
            "events.task "
            "WHERE tasks.finished_us < ?1 ORDER BY events.id LIMIT ?2)")
        .Bind(before_us)
        .Bind(limit)
        .Run();
    dropped += m_database->Changes();
    m_database
        ->Prepare(
            "DELETE FROM events WHERE id IN (SELECT events.id FROM events JOIN tasks ON tasks.id = "
            "events.task "
            "WHERE tasks.finished_us IS NOT NULL ORDER BY events.id LIMIT ?1)")
        .Bind(std::max<std::int64_t>(0, std::min(limit, over) - dropped))
        .Run();
    dropped += m_database->Changes();
    m_database->Execute(trigger.c_str());
    if (auto done = transaction.Commit(); !done) return done.error();
    return dropped;
}

}  // namespace rq::engine
