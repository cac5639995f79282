// What the engine client does while its session is interrupted, and with a final status that nobody
// acknowledges.
#include <algorithm>
#include <new>
#include <utility>

#include "link/engine_client.h"

namespace rq::link {

// ---- the I/O thread ----

void EngineClient::CarryConnectionLost(const ConnectionLost& lost) {
    CloseConnection(lost.reason);
    TellInterrupted(lost);
    {
        MutexLock lock(m_lock);
        SpoolFinal();
    }
    MakeConnection();  // it keeps the time until it is opened
}

void EngineClient::CarryAttemptFailed(const AttemptFailed& failed) {
    CloseConnection(failed.reason);
    TellAttemptFailed(failed);
    MakeConnection();
}

// Lines that cannot be written keep nothing back.
void EngineClient::TellInterrupted(const ConnectionLost& lost) noexcept try {
    const std::uint32_t sessionId = SessionId();
    m_failedAttempts.Forget();
    m_log.Write(LogLevel::Warning, "session " + std::to_string(sessionId) + " interrupted: " + lost.reason +
                                       "; it can be resumed for " + std::to_string(lost.window.count()) +
                                       " ms, " + std::to_string(lost.kept) + " messages are kept");
    m_journal.Interrupted(sessionId, lost.kept, lost.window);
} catch (...) {
}

void EngineClient::TellAttemptFailed(const AttemptFailed& failed) noexcept try {
    const std::string line = "session " + std::to_string(SessionId()) + " not resumed yet: " + failed.reason;
    const std::uint32_t count = m_failedAttempts.Count(line);
    if (count == 0) return;
    m_log.Write(LogLevel::Warning, line + (count > 1 ? ", attempt " + std::to_string(failed.attempt) : ""));
    m_journal.Failed(failed.attempt, failed.reason);
} catch (...) {
}

void EngineClient::TellResumed(const Resumed& resumed) noexcept try {
    const std::uint32_t sessionId = SessionId();
    m_log.Write(LogLevel::Info, "session " + std::to_string(sessionId) + " resumed after " +
                                    std::to_string(resumed.away.count()) + " ms, attempt " +
                                    std::to_string(resumed.attempts) + ": the engine has " +
                                    std::to_string(resumed.acknowledged) + " messages, " +
                                    std::to_string(resumed.again) + " are sent again");
    m_journal.Resumed(sessionId, resumed.again, resumed.away);
} catch (...) {
}

// ---- any thread ----

void EngineClient::TakeAcknowledged(std::uint64_t seq) {
    m_finals.Acknowledge(seq);
    while (!m_unacknowledged.empty() && m_unacknowledged.front().seq <= seq) m_unacknowledged.pop_front();
    if (m_spooled == 0 || m_spooled > seq) return;
    m_spooled = 0;
    m_spool.Acknowledge(seq);
    SpoolFinal();
}

void EngineClient::Remember(Final status) {
    constexpr std::size_t kMost = 16;
    const bool isRepeat = std::any_of(m_unacknowledged.begin(), m_unacknowledged.end(),
                                      [&](const Final& other) { return *other.body == *status.body; });
    if (!isRepeat && m_unacknowledged.size() < kMost) m_unacknowledged.push_back(std::move(status));
}

// What stands in another folder stays there, as after a loss.
void EngineClient::BeginSpool() {
    m_spoolFolder = m_session->SpoolFolder();
    m_spool.Begin(m_spoolFolder, m_session->Attempt());
    if (std::exchange(m_spooled, 0) != 0) SpoolFinal();
}

void EngineClient::SpoolFinal() noexcept try {
    if (m_unacknowledged.empty()) return;
    const Final& oldest = m_unacknowledged.front();
    m_spooled = oldest.seq;
    m_spool.Keep(oldest.seq, oldest.previous, oldest.body);
} catch (const std::bad_alloc&) {
    // It is still sent, and another try is made when the next wait for its acknowledgement has run out.
}

}  // namespace rq::link
