#include "link/session.h"

#include <algorithm>
#include <utility>

namespace rq::link {
namespace {

// A batch is closed when it has reached this size.
constexpr std::size_t kBatch_bytes = std::size_t{256} * 1024;
// What an order costs in memory besides its body, for the bound on waiting orders.
constexpr std::size_t kOrderOverhead_bytes = 256;

}  // namespace

Session::Session(const Hello& hello, const SessionLimits& limits, SteadyTime now, bool debug)
    : m_hello(hello),
      m_limits(limits),
      m_debug(debug),
      m_started(now),
      m_now(now),
      m_writeStarted(now),
      m_lastSent(now),
      m_lastHeard(now),
      m_lostAt(now) {}

void Session::OnConnected(SteadyTime now) {
    m_now = now;
    if (m_state != State::Handshake && !m_attemptBegan) return;
    m_helloDue = true;
    m_lastHeard = now;
}

void Session::OnBytes(std::string_view bytes, SteadyTime now) {
    m_now = now;
    if (!HasConnection()) return;
    m_lastHeard = now;
    m_takesBytes = true;
    TakeBytes(bytes);
    m_takesBytes = false;
}

void Session::TakeBytes(std::string_view bytes) {
    m_reader.Feed(bytes);
    Frame frame;
    while (HasConnection()) {
        const FrameReader::Status status = m_reader.Next(&frame);
        if (status == FrameReader::Status::NeedMore) return;
        if (status == FrameReader::Status::Bad) return Close("the engine sent " + m_reader.Problem());
        if (m_debug)
            Note(LogLevel::Debug, "in " + IdText(frame.id) + " seq " + std::to_string(frame.seq) + " ack " +
                                      std::to_string(frame.ack) + " body " +
                                      std::to_string(frame.body.size()));
        OnFrame(frame);
    }
}

void Session::OnFrame(const Frame& frame) {
    const bool isControl = frame.id < TCP_WORKER_HEARTBEAT_ID;
    if (frame.id == 0) return Close("the engine sent a frame with the id 0");
    if (isControl != (frame.seq == 0))
        return Close("the engine sent " + IdText(frame.id) + " with seq " + std::to_string(frame.seq));
    if (m_state == State::Handshake) return OnHandshakeFrame(frame);
    if (m_state == State::Interrupted) return OnResumeFrame(frame);
    if (!TakePeerAck(frame.ack)) return;
    if (isControl)
        OnControl(frame);
    else
        OnNumbered(frame);
}

void Session::OnHandshakeFrame(const Frame& frame) {
    if (!TakePeerAck(frame.ack)) return;
    if (frame.id == kWelcomeId) return OnWelcome(frame);
    if (frame.id != kRefuseId) return Close("the engine answered HELLO with " + IdText(frame.id));
    const Result<Refuse> refuse = DecodeRefuse(frame.body);
    if (!refuse) return Close(refuse.error().message);
    Close("refused by the engine, code " + std::to_string(refuse->code) + ": " + refuse->text);
}

void Session::OnWelcome(const Frame& frame) {
    const Result<Welcome> welcome = DecodeWelcome(frame.body);
    if (!welcome) return Close(welcome.error().message);
    if (welcome->protocolVersion != kProtocolVersion)
        return Close("the engine answered with protocol version " + std::to_string(welcome->protocolVersion));
    m_sessionId = welcome->sessionId;
    if (!welcome->attempt.empty()) m_hello.attempt = welcome->attempt;
    TakeTerms(*welcome);
    m_events.emplace_back(Welcomed{m_sessionId});
}

bool Session::TakePeerAck(std::uint64_t ack) {
    if (ack > m_everWritten) {
        Close("the engine acknowledged " + std::to_string(ack) + " of " + std::to_string(m_everWritten) +
              " frames");
        return false;
    }
    if (ack > m_peerAck) {
        m_peerAck = ack;
        DropAcknowledged();
    }
    return true;
}

void Session::OnControl(const Frame& frame) {
    switch (frame.id) {
        case kAckId:
            return;
        case kPingId:
            m_answerDue = true;
            return;
        case kByeId:
            return Finish("the engine ended the session", m_state == State::Open);
        case kHelloId:
        case kWelcomeId:
        case kRefuseId:
            return Close("the engine sent " + IdText(frame.id) + " in an open session");
        default:
            return Note(LogLevel::Warning, "refused: unknown control id " + std::to_string(frame.id));
    }
}

void Session::OnNumbered(const Frame& frame) {
    if (m_state == State::Ending) return;  // dropped, and not acknowledged
    if (frame.seq <= m_lastReceived)
        return Note(LogLevel::Warning,
                    "refused: " + IdText(frame.id) + " repeats seq " + std::to_string(frame.seq));
    if (frame.seq != m_lastReceived + 1)
        return Close("the engine sent seq " + std::to_string(frame.seq) + " after " +
                     std::to_string(m_lastReceived));
    if (IsOrderId(frame.id)) return OnOrder(frame);
    Note(LogLevel::Warning, "refused: unknown id " + std::to_string(frame.id) + ", " +
                                std::to_string(frame.body.size()) + " bytes");
    // The handler prints an id that it does not know and does nothing else. 12306 would mean a loss to it.
    if (frame.id != TCP_SERVER_DISCONNECT_ID) return Hand(frame, DestroyOrder{}, 0);
    m_lastReceived = frame.seq;
}

void Session::OnOrder(const Frame& frame) {
    Result<Order> order = DecodeOrder(frame.id, frame.body);
    if (!order) return Close(order.error().message);
    if (const auto* text = std::get_if<TaskTextOrder>(&*order); text != nullptr && text->cut_bytes > 0)
        Note(LogLevel::Warning, "a zero byte in the text of " + IdText(frame.id) + ": " +
                                    std::to_string(text->cut_bytes) + " bytes cut off");
    // Texts in a list take more memory than bytes on the wire.
    const auto* command = std::get_if<TaskCommand>(&*order);
    const std::size_t list = command != nullptr ? command->taskIds.size() * sizeof(std::string) : 0;
    Hand(frame, std::move(*order), list);
}

void Session::Hand(const Frame& frame, Order order, std::size_t extra_bytes) {
    const std::size_t cost = frame.body.size() + kOrderOverhead_bytes + extra_bytes;
    if (m_outstanding_bytes + cost > m_limits.orders_bytes)
        return Close("too many orders wait for the handler");
    m_lastReceived = frame.seq;  // one that was not taken is sent again after the loss
    m_outstanding_bytes += cost;
    m_outstanding.push_back({frame.seq, cost});
    m_events.emplace_back(OrderArrived{frame.seq, frame.id, std::move(order)});
}

void Session::OnWritten(SteadyTime now) {
    m_now = now;
    m_writing = false;
    m_lastSent = now;
    if (m_byeTaken && m_state == State::Ending) m_events.emplace_back(ByeWritten{});
}

void Session::OnDisconnected(std::string reason, SteadyTime now) {
    m_now = now;
    if (HasConnection()) Close(std::move(reason));
}

void Session::OnTime(SteadyTime now) {
    m_now = now;
    if (m_state == State::Closed) return;
    if (m_state == State::Interrupted) return OnInterruptedTime();
    if (m_state == State::Handshake && now >= m_started + m_limits.connect)
        return Close("no answer within " + std::to_string(m_limits.connect.count()) + " ms");
    if (m_writing && now >= m_writeStarted + m_limits.write)
        return Close("a write did not complete within " + std::to_string(m_limits.write.count()) + " ms");
    if (m_state != State::Open) return;
    if (m_silenceLimit.count() > 0 && now >= m_lastHeard + m_silenceLimit)
        return Close("the engine was silent for " + std::to_string(m_silenceLimit.count()) + " ms");
    if (m_pingInterval.count() > 0 && !m_writing && now >= m_lastSent + m_pingInterval) m_pingDue = true;
}

std::optional<SteadyTime> Session::Deadline() const {
    if (m_state == State::Closed) return std::nullopt;
    if (m_state == State::Interrupted) return InterruptedDeadline();
    std::optional<SteadyTime> first;
    const auto add = [&first](SteadyTime time) { first = first ? std::min(*first, time) : time; };
    if (m_state == State::Handshake) add(m_started + m_limits.connect);
    if (m_writing) add(m_writeStarted + m_limits.write);
    if (m_state == State::Open && m_silenceLimit.count() > 0) add(m_lastHeard + m_silenceLimit);
    if (m_state == State::Open && m_pingInterval.count() > 0 && !m_writing) add(m_lastSent + m_pingInterval);
    return first;
}

std::uint64_t Session::Queue(std::uint32_t id, std::string body, std::string* problem) {
    if (!TakesMessages()) {
        *problem = "no open session";
        return 0;
    }
    // One that waits says as much as two: a worker that beats faster than the link writes must not fill it.
    if (id == TCP_WORKER_HEARTBEAT_ID && m_queuedHeartbeat > m_everWritten) return m_queuedHeartbeat;
    if (!BodyFits(body.size())) {
        *problem = "a body of " + std::to_string(body.size()) + " bytes does not fit into a frame";
        return 0;
    }
    if (m_queued_bytes + body.size() > m_limits.queue_bytes) {
        *problem = std::to_string(m_queued_bytes) + " bytes are waiting already";
        return 0;
    }
    m_queued_bytes += body.size();
    m_queue.push_back({++m_lastQueued, id, std::move(body)});
    if (id == TCP_WORKER_HEARTBEAT_ID) m_queuedHeartbeat = m_lastQueued;
    return m_lastQueued;
}

void Session::MarkHanded(std::uint64_t seq) {
    while (!m_outstanding.empty() && m_outstanding.front().seq <= seq) {
        m_outstanding_bytes -= m_outstanding.front().cost_bytes;
        m_outstanding.pop_front();
    }
}

void Session::End() {
    if (m_state == State::Handshake || m_state == State::Interrupted)
        return Finish("ended by the worker", false);
    if (m_state != State::Open) return;
    m_state = State::Ending;
    m_byeDue = true;
}

void Session::Abandon(std::string reason) {
    Finish(std::move(reason), false);
}

void Session::Fail(std::string reason) {
    Finish(std::move(reason), TakesMessages());
}

std::uint64_t Session::OwnAck() const {
    return m_outstanding.empty() ? m_lastReceived : m_outstanding.front().seq - 1;
}

void Session::AppendFrame(std::string* out, std::uint64_t seq, std::uint32_t id, std::string_view body) {
    const std::uint64_t ack = OwnAck();
    out->append(EncodeFrameHead(seq, ack, id, body.size()));
    out->append(body);
    m_ackSent = ack;
    if (m_debug)
        Note(LogLevel::Debug, "out " + IdText(id) + " seq " + std::to_string(seq) + " ack " +
                                  std::to_string(ack) + " body " + std::to_string(body.size()));
}

std::string Session::TakeOutput(SteadyTime now) {
    std::string out;
    if (m_writing || m_state == State::Closed) return out;
    m_now = now;
    const bool isShaken = m_state == State::Open || m_state == State::Ending;
    if (std::exchange(m_helloDue, false))
        AppendFrame(&out, 0, kHelloId,
                    EncodeHello(m_state == State::Interrupted ? ResumingHello() : m_hello));
    while (isShaken && m_lastWritten < m_lastQueued && out.size() < kBatch_bytes) {
        const Outgoing& next = m_queue[m_lastWritten + 1 - m_queue.front().seq];
        AppendFrame(&out, next.seq, next.id, next.body);
        m_lastWritten = next.seq;
        m_everWritten = std::max(m_everWritten, next.seq);
        if (m_window.count() == 0) DropFront();
    }
    const bool open = isShaken && !m_byeTaken;
    if (open && (std::exchange(m_answerDue, false) || OwnAck() > m_ackSent)) AppendFrame(&out, 0, kAckId, {});
    if (std::exchange(m_pingDue, false) && out.empty()) AppendFrame(&out, 0, kPingId, {});
    if (m_byeDue && m_lastWritten == m_lastQueued) {
        m_byeDue = false;
        m_byeTaken = true;
        AppendFrame(&out, 0, kByeId, {});
    }
    if (!out.empty()) {
        m_writing = true;
        m_writeStarted = now;
        m_lastSent = now;
    }
    return out;
}

std::vector<SessionEvent> Session::TakeEvents() {
    return std::exchange(m_events, {});
}

void Session::Close(std::string reason) {
    if (m_state == State::Interrupted) return FailAttempt(std::move(reason));
    if (m_state == State::Open && m_window.count() > 0) return Interrupt(std::move(reason));
    Finish(std::move(reason), m_state == State::Open);
}

void Session::Finish(std::string reason, bool wasOpen) {
    if (m_state == State::Closed) return;
    m_state = State::Closed;
    m_queue.clear();
    m_queued_bytes = 0;
    m_attemptBegan.reset();
    m_events.emplace_back(SessionClosed{wasOpen, std::move(reason)});
}

void Session::Note(LogLevel level, std::string text) {
    m_events.emplace_back(LogNote{level, std::move(text)});
}

}  // namespace rq::link
