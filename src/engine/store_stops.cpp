// Types that are not started: by order, or since too many of their tasks failed in a row.
#include <algorithm>

#include "engine/json.h"
#include "engine/store.h"
#include "records/task_codes.h"

namespace rq::engine {

namespace {

TypeStop ReadStop(Statement& row) {
    TypeStop stop;
    stop.type = static_cast<std::int32_t>(row.Number());
    stop.failures = row.Number();
    stop.since_us = row.Number();
    stop.until_us = row.OptionalNumber();
    stop.reason = row.Text();
    return stop;
}

std::string TypeText(std::int32_t type) {
    const auto code = CodeOfTaskType(type);
    return code.empty() ? std::to_string(type) : std::string(code);
}

}  // namespace

Result<std::vector<TypeStop>> Store::Stops() {
    std::vector<TypeStop> stops;
    {
        Statement rows = m_database->Prepare(
            "SELECT type, failures, since_us, until_us, reason FROM stops WHERE since_us IS NOT NULL "
            "ORDER BY type");
        while (rows.Row()) stops.push_back(ReadStop(rows));
    }
    if (auto ok = Checked(); !ok) return ok.error();
    return stops;
}

Result<bool> Store::Stop(std::int32_t type, const std::string& reason) {
    Transaction transaction(*m_database);
    m_database
        ->Prepare(
            "INSERT INTO stops (type, since_us, reason) VALUES (?1, ?2, ?3) ON CONFLICT (type) DO UPDATE "
            "SET since_us = ?2, until_us = NULL, reason = ?3 WHERE since_us IS NULL OR until_us IS NOT NULL")
        .Bind(std::int64_t{type})
        .Bind(m_now())
        .Bind(reason)
        .Run();
    const bool changed = m_database->Changes() != 0;
    if (auto done = Commit(transaction, 0); !done) return done.error();
    return changed;
}

Result<bool> Store::Unstop(std::int32_t type) {
    Transaction transaction(*m_database);
    m_database
        ->Prepare(
            "UPDATE stops SET since_us = NULL, until_us = NULL, failures = 0, reason = '' "
            "WHERE type = ?1 AND since_us IS NOT NULL")
        .Bind(std::int64_t{type})
        .Run();
    const bool changed = m_database->Changes() != 0;
    if (auto done = Commit(transaction, 0); !done) return done.error();
    return changed;
}

bool Store::IsTrial(const Holder& holder) {
    Statement query = m_database->Prepare(
        "SELECT 1 FROM stops JOIN attempts ON attempts.id = ?2 "
        "WHERE type = ?1 AND since_us IS NOT NULL AND until_us <= created_us");
    return query.Bind(std::int64_t{holder.type}).Bind(holder.attempt).Row();
}

void Store::CountForStop(const Holder& holder, StateEvent event, const RetryDecision& decision,
                         const std::string& reason) {
    const RetryPolicy& policy = m_rules.For(holder.type);
    if (policy.stopAfter <= 0 || holder.external) return;
    if (event == StateEvent::SaysFinished) {
        // What was stopped by order stays so.
        m_database
            ->Prepare(
                "UPDATE stops SET failures = 0, since_us = iif(until_us IS NULL, since_us, NULL), "
                "until_us = NULL WHERE type = ?1 AND (failures <> 0 OR until_us IS NOT NULL)")
            .Bind(std::int64_t{holder.type})
            .Run();
        return;
    }
    // A final status that the policy does not list is the task's own affair, unless it was tried whether
    // tasks of its type can be done again. A cancel says nothing of that.
    const bool counts = event == StateEvent::EndsLost || event == StateEvent::EndsLostAgain ||
                        event == StateEvent::EndsUnsaid || decision.listed ||
                        (event == StateEvent::SaysError && IsTrial(holder));
    if (!counts) return;
    TypeStop stop;
    stop.type = holder.type;
    m_database
        ->Prepare(
            "INSERT INTO stops (type, failures) VALUES (?1, 1) ON CONFLICT (type) DO UPDATE "
            "SET failures = failures + 1")
        .Bind(std::int64_t{holder.type})
        .Run();
    bool byOrder = false;
    {
        Statement query = m_database->Prepare(
            "SELECT failures, since_us, since_us IS NOT NULL AND until_us IS NULL FROM stops WHERE type = "
            "?1");
        if (query.Bind(std::int64_t{holder.type}).Row()) {
            stop.failures = query.Number();
            stop.since_us = query.OptionalNumber().value_or(m_now());
            byOrder = query.Number() != 0;
        }
    }
    if (byOrder || stop.failures < policy.stopAfter) return;
    stop.until_us = m_now() + std::chrono::microseconds(policy.stopFor).count();
    stop.reason = std::to_string(stop.failures) + " attempts of type " + TypeText(holder.type) +
                  " failed in a row, the last of them " + holder.id + ": " + reason;
    m_database->Prepare("UPDATE stops SET since_us = ?1, until_us = ?2, reason = ?3 WHERE type = ?4")
        .Bind(stop.since_us)
        .Bind(stop.until_us)
        .Bind(stop.reason)
        .Bind(std::int64_t{holder.type})
        .Run();
    AddEvent(holder.task, holder.attempt, "type-stopped", StoppedEventJson(stop));
}

}  // namespace rq::engine
