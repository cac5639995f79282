// Session: one connection of the engine link, from accept to close (docs/engine-link.md). It speaks the
// protocol and leaves every decision to its host. Everything runs on the engine's I/O thread; a session keeps
// itself alive while an operation of its own is under way.
#pragma once

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>
#include <deque>
#include <memory>
#include <string>
#include <variant>

#include "base/clock.h"
#include "engine/places.h"
#include "engine/session_memory.h"
#include "engine/settings.h"
#include "link/codec.h"

namespace rq::engine {

class Session;

class SessionHost {
  public:
    virtual ~SessionHost() = default;

    // The handshake's decision. After a Welcome, `session` is the one with that session ID until
    // OnSessionEnd. Before one that continues a session, the host has called Continue.
    virtual std::variant<link::Welcome, link::Refuse> Admit(const link::Hello& hello,
                                                            const std::shared_ptr<Session>& session) = 0;
    // A record of the worker's. False: the engine does not have it yet, and nothing from it on is
    // acknowledged until a later record brings true.
    virtual bool OnRecord(Session& session, std::uint32_t id, const link::WorkerRecord& record) = 0;
    // A numbered frame that is no record was taken.
    virtual void OnOtherFrame(Session& session) = 0;
    // Whether a frame may go out now; else `session` is told to Flush when it may.
    virtual bool MayWrite(const std::shared_ptr<Session>& session) = 0;
    // Once for each admitted connection, last. `why` is for people.
    virtual void OnSessionEnd(Session& session, const std::string& why) = 0;
    // Something that the log should have: a refused handshake, a broken rule.
    virtual void OnLinkTrouble(const std::string& what) = 0;
};

class Session : public std::enable_shared_from_this<Session> {
  public:
    using Socket = boost::asio::ip::tcp::socket;
    // The place is given up when the connection is closed for good.
    Session(Socket socket, SessionHost& host, const EngineSettings& settings, std::unique_ptr<Place> place);

    void Start();
    // Queues a numbered frame. Nothing happens when the session has ended.
    void SendOrder(std::uint32_t id, const link::Order& order);
    // The host may write again.
    void Flush();
    // BYE, then the end; the host is told.
    void End(const std::string& why);
    // Closes the connection without BYE; the host is not told.
    void Abandon();

    // From Admit alone: this connection continues a session, and sends the orders that are left of it again.
    void Continue(SessionMemory memory) { m_memory = std::move(memory); }
    const SessionMemory& Memory() const { return m_memory; }
    // While a record or another frame is handed out: what the engine has of the worker's once it is taken; 0
    // when that does not change, since an earlier frame could not be taken.
    std::uint64_t Taking() const { return m_taking; }

    std::uint32_t Id() const { return m_id; }
    // Whether the worker ended the session in good order.
    bool SaidBye() const { return m_saidBye; }
    // Whether the worker marked the record that is being handed over as a status that it sent before.
    bool IsRepeat() const { return m_isRepeat; }
    // While the end is told: it is what the worker sent that ends the connection.
    bool IsAtFault() const { return m_takesFrames; }

  private:
    enum class State { Handshake, Open, Leaving, Closed };
    struct Outgoing {
        std::uint64_t seq = 0;
        std::uint32_t id = 0;
        std::string body;
    };

    void Read();
    void OnRead(const boost::system::error_code& error, std::size_t size);
    // The connection is to be closed for this reason.
    void Lose(const std::string& why);
    void Close();
    void TellHost(const std::string& why);

    bool TakeBytes(std::string_view bytes);
    bool TakeFrames();
    bool TakeFrame(const link::Frame& frame);
    bool TakeHello(const link::Frame& frame);
    bool TakeControl(const link::Frame& frame);
    bool TakeNumbered(const link::Frame& frame);
    void Refuse(const link::Refuse& refuse);

    void SendControl(std::uint32_t id, std::string body = {});
    void Write();
    void OnWritten(const boost::system::error_code& error);
    void AckSoon(bool atOnce);
    void WatchTime();
    void OnTick();

    Socket m_socket;
    SessionHost& m_host;
    const EngineSettings& m_settings;
    std::unique_ptr<Place> m_place;
    State m_state = State::Handshake;
    std::uint32_t m_id = 0;  // 0 until admitted

    link::FrameReader m_reader{link::kHandshakeLimit_bytes};
    std::string m_buffer;
    std::deque<Outgoing> m_outgoing;
    std::string m_writing;  // the bytes of the write that is under way
    bool m_isHeld = false;  // what is outgoing waits for Flush
    bool m_closeWhenSent = false;
    bool m_saidBye = false;
    bool m_isRepeat = false;
    bool m_takesFrames = false;

    SessionMemory m_memory;  // what it has is what we acknowledge: m_received, unless a commit is missing
    std::uint64_t m_received = 0;  // highest seq of the worker's
    std::uint64_t m_taking = 0;
    std::uint64_t m_ackSent = 0;
    bool m_ackHeld = false;

    boost::asio::steady_timer m_clock;  // looks at all limits, once in a while
    boost::asio::steady_timer m_ackTimer;
    bool m_ackTimerRuns = false;
    SteadyTime m_start, m_lastHeard, m_lastSaid, m_writeBegan;
    SteadyTime m_frameBegan;  // of the one that has not come whole
};

}  // namespace rq::engine
