// What the store keeps so that an attempt can outlive a connection and a run of the engine.
#include <charconv>

#include "engine/json.h"
#include "engine/store_change.h"

namespace rq::engine {

namespace {

// A link that breaks all the time must not fill the store: so many events of each of the two kinds.
constexpr std::int64_t kInterruptionsTold = 50;

WorkerExit ExitOf(std::optional<std::int64_t> code, std::optional<std::int64_t> signal) {
    return {signal.has_value(), code.value_or(signal.value_or(0)), code || signal};
}

}  // namespace

void Store::BeginRecord(const std::string& token, std::uint64_t seq) {
    m_recordToken = token;
    m_recordSeq = seq;
}

void Store::KeepNumber(std::int64_t attempt) {
    if (m_recordSeq == 0) return;
    m_database
        ->Prepare(
            "UPDATE attempts SET worker_seq = max(worker_seq, ?1) "
            "WHERE token = ?2 AND (id = ?3 OR id = (SELECT worker FROM attempts WHERE id = ?3))")
        .Bind(static_cast<std::int64_t>(m_recordSeq))
        .Bind(m_recordToken)
        .Bind(attempt)
        .Run();
    if (m_database->Changes() != 0) m_recordSeq = 0;
}

Result<void> Store::EndRecord() {
    const auto seq = std::exchange(m_recordSeq, 0);
    if (seq == 0) return {};
    Transaction transaction(*m_database, Transaction::Sync::Relaxed);
    m_database->Prepare("UPDATE attempts SET worker_seq = max(worker_seq, ?1) WHERE token = ?2")
        .Bind(static_cast<std::int64_t>(seq))
        .Bind(m_recordToken)
        .Run();
    return transaction.Commit();
}

Result<void> Store::Interrupted(const std::string& token, const std::string& reason) {
    Transaction transaction(*m_database, Transaction::Sync::Relaxed);
    const auto holder = Find(token);
    if (auto ok = Checked(); !ok) return ok;
    if (!holder) return Fail("no attempt has this token");
    m_database->Prepare("UPDATE attempts SET interruptions = interruptions + 1 WHERE id = ?1")
        .Bind(holder->attempt)
        .Run();
    if (holder->interruptions < kInterruptionsTold)
        AddEvent(holder->task, holder->attempt, "interrupted", ReasonEventJson(reason));
    return Commit(transaction, holder->task);
}

Result<void> Store::Resumed(const std::string& token, std::uint64_t processId) {
    Transaction transaction(*m_database, Transaction::Sync::Relaxed);
    const auto holder = Find(token);
    if (auto ok = Checked(); !ok) return ok;
    if (!holder) return Fail("no attempt has this token");
    m_database->Prepare("UPDATE attempts SET last_seen_us = ?1 WHERE id = ?2")
        .Bind(m_now())
        .Bind(holder->attempt)
        .Run();
    if (holder->interruptions <= kInterruptionsTold)
        AddEvent(holder->task, holder->attempt, "resumed", ProcessEventJson(processId));
    return Commit(transaction, holder->task);
}

Result<void> Store::Disconnected(const std::string& token, const std::string& worker,
                                 const std::string& reason, bool saidBye) {
    return ForHolder(token, Transaction::Sync::Relaxed, [&](const Holder& holder) {
        m_database->Prepare("UPDATE attempts SET said_bye = ?1 WHERE token = ?2")
            .Bind(std::int64_t{saidBye})
            .Bind(worker)
            .Run();
        AddEvent(holder.task, holder.attempt, "disconnected", ReasonEventJson(reason));
    });
}

Result<void> Store::Closed(const std::string& token) {
    Transaction transaction(*m_database, Transaction::Sync::Relaxed);
    m_database->Prepare("UPDATE attempts SET is_open = 0 WHERE token = ?1").Bind(token).Run();
    return transaction.Commit();
}

namespace {

constexpr const char* kOpenAttempt =
    "SELECT a.task, a.id, a.number, t.type, t.public_id, a.token, a.state, t.origin = 'external', "
    "t.cancel_us IS NOT NULL, a.started_us IS NOT NULL, a.session, a.pid, a.process_mark, a.output, "
    "a.reported_task, a.created_us, a.worker_seq, a.asked, a.text_asked, a.connected_us IS NOT NULL, "
    "a.stalled != 0, a.add_seq, a.told, "
    "a.silence_ms, a.said_bye, a.exited_us IS NOT NULL, a.exit_code, a.exit_signal "
    "FROM attempts a JOIN tasks t ON t.id = a.task WHERE ";

std::vector<OpenAttempt> ReadOpenAttempts(Statement& row) {
    std::vector<OpenAttempt> attempts;
    while (row.Row()) {
        OpenAttempt& attempt = attempts.emplace_back();
        attempt.claim.task = row.Number();
        attempt.claim.attempt = row.Number();
        attempt.claim.number = static_cast<std::int32_t>(row.Number());
        attempt.claim.type = static_cast<std::int32_t>(row.Number());
        attempt.claim.id = row.Text();
        attempt.claim.token = row.Text();
        attempt.state = TaskStateOf(row.Text()).value_or(AttemptState::Lost);
        attempt.external = row.Number() != 0;
        attempt.cancelRequested = row.Number() != 0;
        attempt.started = row.Number() != 0;
        if (const auto session = row.OptionalNumber()) attempt.session = static_cast<std::uint32_t>(*session);
        if (const auto process = row.OptionalNumber())
            attempt.processId = static_cast<std::uint64_t>(*process);
        attempt.processMark = row.Text();
        attempt.output = row.Text();
        attempt.reportedTask = row.Text();
        attempt.created_us = row.Number();
        attempt.workerSeq = static_cast<std::uint64_t>(row.Number());
        attempt.asked = static_cast<std::uint32_t>(row.Number());
        attempt.textAsked = row.Number() != 0;
        attempt.reached = row.Number() != 0;
        attempt.stalled = row.Number() != 0;
        if (const auto seq = row.OptionalNumber()) attempt.addSeq = static_cast<std::uint64_t>(*seq);
        attempt.told = row.OptionalNumber();
        attempt.silence_ms = row.Number();
        attempt.saidBye = row.Number() != 0;
        const bool exited = row.Number() != 0;
        const auto code = row.OptionalNumber();
        const auto signal = row.OptionalNumber();
        if (exited) attempt.exit = ExitOf(code, signal);
    }
    return attempts;
}

}  // namespace

Result<std::vector<OpenAttempt>> Store::OpenAttempts() {
    std::vector<OpenAttempt> attempts;
    {
        Statement row = m_database->Prepare(std::string(kOpenAttempt) + "a.is_open = 1 ORDER BY a.id");
        attempts = ReadOpenAttempts(row);
    }
    if (auto ok = Checked(); !ok) return ok.error();
    return attempts;
}

Result<std::vector<OpenAttempt>> Store::OpenOfWorker(std::int64_t first) {
    std::vector<OpenAttempt> attempts;
    {
        constexpr const char* kIsActive = "state IN ('starting', 'running', 'paused', 'finishing')";
        Statement row =
            m_database->Prepare(std::string(kOpenAttempt) + "a.worker = ?1 AND (a." + kIsActive +
                                " OR a.id = (SELECT max(id) FROM attempts WHERE worker = ?1 AND NOT " +
                                kIsActive + ")) ORDER BY a.id");
        row.Bind(first);
        attempts = ReadOpenAttempts(row);
    }
    if (auto ok = Checked(); !ok) return ok.error();
    return attempts;
}

Result<std::optional<KnownProcess>> Store::ProcessOf(const std::string& token) {
    std::optional<KnownProcess> process;
    {
        Statement row = m_database->Prepare(
            "SELECT pid, process_mark FROM attempts JOIN tasks ON tasks.id = attempts.task "
            "WHERE token = ?1 AND pid IS NOT NULL AND process_mark <> '' AND origin <> 'external'");
        if (row.Bind(token).Row()) {
            process.emplace();
            process->id = static_cast<std::uint64_t>(row.Number());
            process->mark = row.Text();
        }
    }
    if (auto ok = Checked(); !ok) return ok.error();
    return process;
}

Result<bool> Store::Knows(const std::string& token) {
    const bool isKnown = Find(token).has_value();
    if (auto ok = Checked(); !ok) return ok.error();
    return isKnown;
}

Result<std::uint16_t> Store::LinkPort() {
    std::uint16_t port = 0;
    {
        Statement query = m_database->Prepare("SELECT value FROM facts WHERE name = 'link_port'");
        if (query.Row()) {
            const std::string text = query.Text();
            std::from_chars(text.data(), text.data() + text.size(), port);
        }
    }
    if (auto ok = Checked(); !ok) return ok.error();
    return port;
}

Result<void> Store::RememberLinkPort(std::uint16_t port) {
    Transaction transaction(*m_database);
    m_database->Prepare("INSERT OR REPLACE INTO facts (name, value) VALUES ('link_port', ?1)")
        .Bind(std::to_string(port))
        .Run();
    return transaction.Commit();
}

}  // namespace rq::engine
