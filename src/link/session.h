// One session of the engine link as a state machine: handshake, numbering, acknowledgements, watch over
// silence and stuck writes (docs/engine-link.md). No I/O, no threads, no locks: the client feeds it bytes and
// times under its own lock, writes what TakeOutput gives and carries out what TakeEvents tells. One object
// for one connection. Sizes are bytes; times are given by the caller, so that a test or a simulation moves
// them.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "base/clock.h"
#include "link/codec.h"
#include "link/frame.h"

namespace rq::link {

struct SessionLimits {
    std::chrono::milliseconds connect{5'000};                  // TCP connection and handshake together
    std::chrono::milliseconds write{10'000};                   // one write
    std::size_t queue_bytes = std::size_t{64} * 1024 * 1024;   // own messages that wait to be written
    std::size_t orders_bytes = std::size_t{64} * 1024 * 1024;  // orders that the handler has not taken yet
};

enum class LogLevel { Debug, Info, Warning };

// What the session tells its owner, in the order in which it happened.
struct Welcomed {
    std::uint32_t sessionId = kNoSession;
};
struct OrderArrived {
    std::uint64_t seq = 0;
    std::uint32_t id = 0;
    Order order;
};
// Everything is written and the BYE has gone: close the sending direction and wait for the peer.
struct ByeWritten {};
// The last event. The connection is to be closed; `wasOpen`: an open session was lost and the worker did not
// end it.
struct SessionClosed {
    bool wasOpen = false;
    std::string reason;
};
struct LogNote {
    LogLevel level = LogLevel::Info;
    std::string text;
};
using SessionEvent = std::variant<Welcomed, OrderArrived, ByeWritten, SessionClosed, LogNote>;

class Session {
  public:
    enum class State { Handshake, Open, Ending, Closed };

    // `debug`: note each frame's id and size.
    Session(const Hello& hello, const SessionLimits& limits, SteadyTime now, bool debug);

    State CurrentState() const { return m_state; }
    // kNoSession until it is welcomed; keeps its value after the end.
    std::uint32_t SessionId() const { return m_sessionId; }
    // The highest number of this side's frames that the engine has.
    std::uint64_t AcknowledgedByPeer() const { return m_peerAck; }

    // ---- what happened on the connection ----
    void OnConnected(SteadyTime now);
    void OnBytes(std::string_view bytes, SteadyTime now);
    void OnWritten(SteadyTime now);
    void OnDisconnected(std::string reason);
    void OnTime(SteadyTime now);

    // ---- what the owner wants ----
    // The number of the queued frame; 0 when the session is not open, or the queue or the frame would be too
    // large
    // (*problem says which).
    std::uint64_t Queue(std::uint32_t id, std::string body, std::string* problem);
    // The handler has returned from that order.
    void MarkHanded(std::uint64_t seq);
    // Orderly end: BYE after what is queued. Orders that arrive from now on are dropped.
    void End();
    // Ends at once without a word.
    void Abandon(std::string reason);

    // ---- what the owner is to do ----
    // The next bytes to write, empty when there are none or a write is under way (until OnWritten).
    std::string TakeOutput(SteadyTime now);
    std::vector<SessionEvent> TakeEvents();
    // When OnTime wants to be called; nothing when only events matter.
    std::optional<SteadyTime> Deadline() const;

  private:
    struct Outgoing {
        std::uint64_t seq;
        std::uint32_t id;
        std::string body;
    };
    struct Outstanding {
        std::uint64_t seq;
        std::size_t cost_bytes;
    };

    void OnFrame(const Frame& frame);
    void OnHandshakeFrame(const Frame& frame);
    void OnWelcome(const Frame& frame);
    void OnControl(const Frame& frame);
    void OnNumbered(const Frame& frame);
    void OnOrder(const Frame& frame);
    // Queues it for the handler; `extra_bytes` is memory beyond the body's.
    void Hand(const Frame& frame, Order order, std::size_t extra_bytes);
    bool TakePeerAck(std::uint64_t ack);
    std::uint64_t OwnAck() const;
    void AppendFrame(std::string* out, std::uint64_t seq, std::uint32_t id, std::string_view body);
    void Close(std::string reason);
    void Note(LogLevel level, std::string text);

    const Hello m_hello;
    const SessionLimits m_limits;
    const bool m_debug;
    const SteadyTime m_started;

    State m_state = State::Handshake;
    std::uint32_t m_sessionId = kNoSession;
    std::chrono::milliseconds m_pingInterval{0};  // 0: off
    std::chrono::milliseconds m_silenceLimit{0};  // 0: off
    FrameReader m_reader{kHandshakeLimit_bytes};
    std::vector<SessionEvent> m_events;

    std::uint64_t m_lastQueued = 0;       // own seq
    std::uint64_t m_lastWritten = 0;      // own seq given to TakeOutput
    std::uint64_t m_queuedHeartbeat = 0;  // the latest of them
    std::uint64_t m_peerAck = 0;
    std::deque<Outgoing> m_queue;
    std::size_t m_queued_bytes = 0;

    std::uint64_t m_lastReceived = 0;       // peer's seq
    std::uint64_t m_ackSent = 0;            // what the peer knows of it
    std::deque<Outstanding> m_outstanding;  // orders not yet handed
    std::size_t m_outstanding_bytes = 0;

    bool m_helloDue = false;
    bool m_pingDue = false;
    bool m_answerDue = false;  // a PING waits for its ACK
    bool m_byeDue = false;
    bool m_byeTaken = false;
    bool m_writing = false;
    SteadyTime m_writeStarted;
    SteadyTime m_lastSent;
    SteadyTime m_lastHeard;
};

}  // namespace rq::link
