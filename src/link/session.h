// One session of the engine link as a state machine: handshake, numbering, acknowledgements, watch over
// silence and stuck writes, and going on over further connections after a loss (docs/engine-link.md). No I/O,
// no threads, no locks: the client feeds it bytes and times under its own lock, writes what TakeOutput gives
// and carries out what TakeEvents tells. One object for one session, and one connection of it at a time: what
// happens on it is told until ConnectionLost, AttemptFailed or SessionClosed says that it is to be closed,
// and of the next one from ConnectAgain on. Sizes are bytes; times are given by the caller, so that a test or
// a simulation moves them.
//
// While an engine offers no window (WELCOME, resume_window_ms), frames are forgotten as they are written, and
// a loss ends the session. With a window, they are kept until they are acknowledged.
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
    std::chrono::milliseconds settled{1'000};                  // see session_resume.cpp
    std::size_t queue_bytes = std::size_t{64} * 1024 * 1024;   // own messages that are kept
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
// The connection of an open session is to be closed; the session waits for another one.
struct ConnectionLost {
    std::string reason;
    std::chrono::milliseconds window{0};  // for so long
    std::size_t kept = 0;                 // own frames that are not acknowledged
};
// A connection is to be opened now, to the same address.
struct ConnectAgain {};
// That connection is to be closed; another ConnectAgain follows unless the window ends before.
struct AttemptFailed {
    std::size_t attempt = 0;  // since the loss, from 1
    std::string reason;
};
// The session is open again.
struct Resumed {
    std::chrono::milliseconds away{0};
    std::size_t attempts = 0;        // to connect, this one too
    std::uint64_t acknowledged = 0;  // what the engine has of this side's frames
    std::size_t again = 0;           // frames that had been sent and are sent again
};
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
using SessionEvent = std::variant<Welcomed, OrderArrived, ByeWritten, ConnectionLost, ConnectAgain,
                                  AttemptFailed, Resumed, SessionClosed, LogNote>;

class Session {
  public:
    // Interrupted: the connection was lost, and messages are taken as in Open.
    enum class State { Handshake, Open, Interrupted, Ending, Closed };

    // `debug`: note each frame's id and size.
    Session(const Hello& hello, const SessionLimits& limits, SteadyTime now, bool debug);

    State CurrentState() const { return m_state; }
    // kNoSession until it is welcomed; keeps its value after the end.
    std::uint32_t SessionId() const { return m_sessionId; }
    bool TakesMessages() const { return m_state == State::Open || m_state == State::Interrupted; }
    // What WELCOME said: where a final status is to be left, and under which name. Empty: nowhere.
    const std::string& SpoolFolder() const { return m_spoolFolder; }
    const std::string& Attempt() const { return m_hello.attempt; }
    // The highest number of this side's frames that the engine has.
    std::uint64_t AcknowledgedByPeer() const { return m_peerAck; }

    // ---- what happened on the connection ----
    void OnConnected(SteadyTime now);
    void OnBytes(std::string_view bytes, SteadyTime now);
    void OnWritten(SteadyTime now);
    void OnDisconnected(std::string reason, SteadyTime now);
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
    // The same for a session that the worker did not want to end: it is lost, whatever the window.
    void Fail(std::string reason);

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

    void TakeBytes(std::string_view bytes);
    void OnFrame(const Frame& frame);
    void OnHandshakeFrame(const Frame& frame);
    void OnWelcome(const Frame& frame);
    void OnResumeFrame(const Frame& frame);
    void OnResumeWelcome(const Frame& frame);
    void TakeTerms(const Welcome& welcome);
    void OnInterruptedTime();
    Hello ResumingHello() const;
    void Interrupt(std::string reason);
    void FailAttempt(std::string reason);
    void StartAttempt();
    void PrepareConnection();
    void DropAcknowledged();
    void DropFront();
    // Of which the owner tells: there is none between two attempts to connect again.
    bool HasConnection() const;
    // The connection of a resumed session broke soon, and nothing of what it was resumed for got through.
    bool WasInVain() const;
    std::optional<SteadyTime> InterruptedDeadline() const;
    void OnControl(const Frame& frame);
    void OnNumbered(const Frame& frame);
    void OnOrder(const Frame& frame);
    // Queues it for the handler; `extra_bytes` is memory beyond the body's.
    void Hand(const Frame& frame, Order order, std::size_t extra_bytes);
    bool TakePeerAck(std::uint64_t ack);
    std::uint64_t OwnAck() const;
    void AppendFrame(std::string* out, std::uint64_t seq, std::uint32_t id, std::string_view body);
    // What the reason means is the state's affair: the session or one attempt to connect has come to its end.
    void Close(std::string reason);
    void Finish(std::string reason, bool wasOpen);
    void Note(LogLevel level, std::string text);

    Hello m_hello;
    const SessionLimits m_limits;
    const bool m_debug;
    const SteadyTime m_started;

    State m_state = State::Handshake;
    SteadyTime m_now;  // of the call that runs
    std::uint32_t m_sessionId = kNoSession;
    std::chrono::milliseconds m_pingInterval{0};  // 0: off
    std::chrono::milliseconds m_silenceLimit{0};  // 0: off
    FrameReader m_reader{kHandshakeLimit_bytes};
    std::vector<SessionEvent> m_events;

    std::uint64_t m_lastQueued = 0;   // own seq
    std::uint64_t m_lastWritten = 0;  // own seq given to TakeOutput for this connection, or not needed by it
    std::uint64_t m_everWritten = 0;  // the same of all connections
    std::uint64_t m_queuedHeartbeat = 0;  // the latest of them
    std::uint64_t m_peerAck = 0;
    std::deque<Outgoing> m_queue;  // up to m_lastQueued, without gaps; those not yet written or, with a
                                   // window, not acknowledged
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

    // ---- resuming ----
    std::chrono::milliseconds m_window{0};  // 0: a loss ends the session
    std::string m_spoolFolder;
    SteadyTime m_lostAt;  // the newest loss of the open session that was not in vain (session_resume.cpp)
    std::optional<SteadyTime> m_resumedAt;     // the newest WELCOME after a loss
    std::uint64_t m_resumedReceived = 0;       // what both sides had then: of the peer's frames
    std::uint64_t m_resumedPeerAck = 0;        // and of our own
    bool m_takesBytes = false;                 // a loss now is the peer's breach of the protocol
    std::optional<SteadyTime> m_nextAttempt;   // none while one is under way
    std::optional<SteadyTime> m_attemptBegan;  // the one that is under way
    std::chrono::milliseconds m_pause{0};      // before the next attempt
    std::size_t m_attempts = 0;                // since that loss
    std::string m_lastProblem;                 // of the newest attempt that failed
};

}  // namespace rq::link
