// What a session does between the loss of its connection and the next WELCOME (docs/engine-link.md, "Resuming
// a session").
#include <algorithm>
#include <utility>

#include "link/session.h"

namespace rq::link {
namespace {

using std::chrono::milliseconds;

constexpr milliseconds kFirstPause{100};
constexpr milliseconds kLongestPause{1'000};
constexpr milliseconds kLongestWindow{3'600'000};

milliseconds PauseAfter(milliseconds pause) {
    return std::clamp(2 * pause, kFirstPause, kLongestPause);
}

}  // namespace

void Session::TakeTerms(const Welcome& welcome) {
    m_pingInterval = milliseconds(welcome.pingInterval_ms);
    m_silenceLimit = milliseconds(welcome.silenceLimit_ms);
    m_window = std::min(milliseconds(welcome.resumeWindow_ms), kLongestWindow);
    m_spoolFolder = welcome.spoolFolder;
    m_reader.SetLimit(kFrameLimit_bytes);
    m_state = State::Open;
}

bool Session::HasConnection() const {
    return m_state == State::Interrupted ? m_attemptBegan.has_value() : m_state != State::Closed;
}

// What belonged to the last connection, a frame that had come in part too, is over. All that is kept waits to
// be written again.
void Session::PrepareConnection() {
    m_reader = FrameReader(kHandshakeLimit_bytes);
    m_lastWritten = m_peerAck;
    m_helloDue = m_pingDue = m_answerDue = m_writing = false;
}

bool Session::WasInVain() const {
    if (!m_resumedAt || m_now >= *m_resumedAt + m_limits.settled) return false;
    // What we cannot take, or what the peer cannot, it seems.
    if (m_takesBytes) return m_lastReceived == m_resumedReceived;
    return m_peerAck == m_resumedPeerAck && m_everWritten > m_peerAck;
}

void Session::Interrupt(std::string reason) {
    m_state = State::Interrupted;
    m_attempts = 0;
    m_lastProblem.clear();
    // A fault that comes back with each connection must not have both sides do nothing but connect: the
    // pauses then go on where they were, and so does the window when nothing gets through.
    if (WasInVain())
        m_lastProblem = reason;
    else
        m_lostAt = m_now;
    const bool isHasty = m_resumedAt && m_now < *m_resumedAt + m_limits.settled;
    PrepareConnection();
    const auto left = std::chrono::duration_cast<milliseconds>(m_lostAt + m_window - m_now);
    m_events.emplace_back(ConnectionLost{std::move(reason), std::max(left, milliseconds(0)), m_queue.size()});
    m_pause = isHasty ? PauseAfter(m_pause) : milliseconds(0);
    m_nextAttempt = m_now + m_pause;
    if (m_pause.count() == 0) StartAttempt();
}

void Session::StartAttempt() {
    m_nextAttempt.reset();
    m_attemptBegan = m_now;
    ++m_attempts;
    m_events.emplace_back(ConnectAgain{});
}

void Session::FailAttempt(std::string reason) {
    PrepareConnection();
    m_attemptBegan.reset();
    m_pause = PauseAfter(m_pause);
    m_nextAttempt = m_now + m_pause;
    m_lastProblem = reason;
    m_events.emplace_back(AttemptFailed{m_attempts, std::move(reason)});
}

void Session::OnInterruptedTime() {
    if (m_now >= m_lostAt + m_window)
        return Finish("not resumed within " + std::to_string(m_window.count()) + " ms" +
                          (m_lastProblem.empty() ? "" : ", at last: " + m_lastProblem),
                      true);
    if (m_attemptBegan && m_now >= *m_attemptBegan + m_limits.connect)
        return FailAttempt("no answer within " + std::to_string(m_limits.connect.count()) + " ms");
    if (m_nextAttempt && m_now >= *m_nextAttempt) StartAttempt();
}

std::optional<SteadyTime> Session::InterruptedDeadline() const {
    const SteadyTime end = m_lostAt + m_window;
    return std::min(end, m_attemptBegan ? *m_attemptBegan + m_limits.connect : *m_nextAttempt);
}

Hello Session::ResumingHello() const {
    Hello hello = m_hello;
    hello.resumeSessionId = m_sessionId;
    hello.resumeReceived = m_lastReceived;
    hello.resumeAcknowledged = m_peerAck;
    return hello;
}

void Session::OnResumeFrame(const Frame& frame) {
    if (frame.id == kWelcomeId) return OnResumeWelcome(frame);
    if (frame.id != kRefuseId) return Close("the engine answered HELLO with " + IdText(frame.id));
    const Result<Refuse> refuse = DecodeRefuse(frame.body);
    if (!refuse) return Close(refuse.error().message);
    const std::string reason =
        "refused by the engine, code " + std::to_string(refuse->code) + ": " + refuse->text;
    if (refuse->code == kRefuseHandshake || refuse->code == kRefuseEnding) return Close(reason);
    Finish(reason, true);
}

void Session::OnResumeWelcome(const Frame& frame) {
    const Result<Welcome> welcome = DecodeWelcome(frame.body, SessionIds::Any);
    if (!welcome) return Close(welcome.error().message);
    if (welcome->protocolVersion != kProtocolVersion)
        return Close("the engine answered with protocol version " + std::to_string(welcome->protocolVersion));
    if (welcome->sessionId != m_sessionId)
        return Finish("the engine answered with session " + std::to_string(welcome->sessionId), true);
    if (frame.ack < m_peerAck || frame.ack > m_everWritten)
        return Finish("the engine has " + std::to_string(frame.ack) + " frames, of " +
                          std::to_string(m_everWritten) + " sent and " + std::to_string(m_peerAck) +
                          " acknowledged",
                      true);
    m_peerAck = frame.ack;
    DropAcknowledged();
    TakeTerms(*welcome);
    m_attemptBegan.reset();
    m_resumedAt = m_now;
    m_resumedReceived = m_lastReceived;
    m_resumedPeerAck = m_peerAck;
    m_events.emplace_back(Resumed{std::chrono::duration_cast<milliseconds>(m_now - m_lostAt), m_attempts,
                                  m_peerAck, static_cast<std::size_t>(m_everWritten - m_peerAck)});
}

void Session::DropAcknowledged() {
    m_lastWritten = std::max(m_lastWritten, m_peerAck);
    while (!m_queue.empty() && m_queue.front().seq <= m_peerAck) DropFront();
}

void Session::DropFront() {
    m_queued_bytes -= m_queue.front().body.size();
    m_queue.pop_front();
}

}  // namespace rq::link
