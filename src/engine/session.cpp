#include "engine/session.h"

#include <algorithm>
#include <boost/asio/write.hpp>

#include "base/clock.h"
#include "platform/error_text.h"

namespace rq::engine {

namespace {

using std::chrono::milliseconds;

// A worker that says little keeps little room; one that fills it gets more.
constexpr std::size_t kFirstRead_bytes = 1024, kReadSize_bytes = std::size_t{16} * 1024;
// Orders are small; a worker that takes none of this many is gone.
constexpr std::size_t kMaxOutgoing = 10'000;

}  // namespace

Session::Session(Socket socket, SessionHost& host, const EngineSettings& settings,
                 std::unique_ptr<Place> place)
    : m_socket(std::move(socket)),
      m_host(host),
      m_settings(settings),
      m_place(std::move(place)),
      m_clock(m_socket.get_executor()),
      m_ackTimer(m_socket.get_executor()) {}

void Session::Start() {
    boost::system::error_code ignored;
    m_socket.set_option(boost::asio::ip::tcp::no_delay(true), ignored);
    m_start = m_lastHeard = m_lastSaid = SystemClock().Steady();
    m_place->SetClose([this] { Close(); });  // of a stranger: nobody was told of it
    m_buffer.resize(kFirstRead_bytes);
    WatchTime();
    Read();
}

// ---- reading ----

void Session::Read() {
    m_socket.async_read_some(boost::asio::buffer(m_buffer),
                             [self = shared_from_this()](const boost::system::error_code& error,
                                                         std::size_t size) { self->OnRead(error, size); });
}

void Session::OnRead(const boost::system::error_code& error, std::size_t size) {
    if (m_state == State::Closed) return;
    if (error) {
        Lose(error == boost::asio::error::eof ? "the worker closed the connection"
                                              : platform::ErrorText(error));
        return;
    }
    m_lastHeard = SystemClock().Steady();
    if (m_state == State::Leaving) {
        Read();  // to its end, so that closing does not reset what we have sent
        return;
    }
    const bool goesOn = TakeBytes({m_buffer.data(), size});
    if (size == m_buffer.size() && size < kReadSize_bytes) m_buffer.resize(kReadSize_bytes);
    if (goesOn && m_state != State::Closed) Read();
}

bool Session::TakeBytes(std::string_view bytes) {
    m_takesFrames = true;
    if (m_reader.Buffered() == 0) m_frameBegan = m_lastHeard;
    m_reader.Feed(bytes);
    const bool goesOn = TakeFrames();
    m_takesFrames = false;
    return goesOn;
}

bool Session::TakeFrames() {
    link::Frame frame;
    for (;;) {
        if (m_state == State::Leaving) return true;
        if (m_state == State::Closed) return false;
        switch (m_reader.Next(&frame)) {
            case link::FrameReader::Status::NeedMore:
                return true;
            case link::FrameReader::Status::Bad:
                if (m_state == State::Handshake) {
                    Refuse({link::kRefuseHandshake, "not a HELLO: " + m_reader.Problem()});
                    return true;
                }
                Lose("the worker sent " + m_reader.Problem());
                return false;
            case link::FrameReader::Status::Ready:
                m_frameBegan = m_lastHeard;  // of the next, which has come in part at most
                if (!TakeFrame(frame)) return false;
        }
    }
}

bool Session::TakeFrame(const link::Frame& frame) {
    if (m_state == State::Handshake) return TakeHello(frame);
    const bool control = frame.id != 0 && frame.id < TCP_WORKER_HEARTBEAT_ID;
    if (frame.id == 0 || control != (frame.seq == 0)) {
        Lose("the worker sent id " + std::to_string(frame.id) + " with seq " + std::to_string(frame.seq));
        return false;
    }
    if (frame.ack > m_memory.sent) {
        Lose("the worker acknowledged what was never sent");
        return false;
    }
    m_memory.TakeAck(frame.ack);
    return control ? TakeControl(frame) : TakeNumbered(frame);
}

bool Session::TakeHello(const link::Frame& frame) {
    if (frame.id != link::kHelloId || frame.seq != 0) {
        Refuse({link::kRefuseHandshake, "the first frame is not HELLO"});
        return true;
    }
    const auto hello = link::DecodeHello(frame.body);
    if (!hello) {
        Refuse({link::kRefuseHandshake, hello.error().message});
        return true;
    }
    if (!m_place->HasRoom()) {
        Refuse({link::kRefuseEnding, "there are as many workers connected as may be"});
        return true;
    }
    auto answer = m_host.Admit(*hello, shared_from_this());
    if (const auto* refuse = std::get_if<link::Refuse>(&answer)) {
        Refuse(*refuse);
        return true;
    }
    const auto& welcome = std::get<link::Welcome>(answer);
    m_place->BeGuest();
    m_id = welcome.sessionId;
    m_state = State::Open;
    m_reader.SetLimit(link::kFrameLimit_bytes);
    m_received = m_memory.has;
    SendControl(link::kWelcomeId, link::EncodeWelcome(welcome));
    for (const auto& order : m_memory.orders) m_outgoing.push_back({order.seq, order.id, order.body});
    Write();
    return true;
}

bool Session::TakeControl(const link::Frame& frame) {
    switch (frame.id) {
        case link::kPingId:
            SendControl(link::kAckId);
            return true;
        case link::kByeId:
            m_saidBye = true;
            TellHost("the worker said goodbye");
            Close();
            return false;
        case link::kHelloId:
        case link::kWelcomeId:
        case link::kRefuseId:
            Lose("the worker sent " + link::IdText(frame.id) + " after the handshake");
            return false;
        case link::kAckId:
            return true;
        default:
            m_host.OnLinkTrouble("session " + std::to_string(m_id) + ": unknown control id " +
                                 std::to_string(frame.id));
            return true;
    }
}

bool Session::TakeNumbered(const link::Frame& frame) {
    if (frame.seq <= m_received) {
        AckSoon(true);
        return true;
    }
    if (frame.seq != m_received + 1) {
        Lose("the worker's frames have a gap: " + std::to_string(frame.seq) + " after " +
             std::to_string(m_received));
        return false;
    }
    bool has = !m_ackHeld;
    bool final = false;
    if (link::IsWorkerRecordId(frame.id)) {
        const auto record = link::DecodeWorkerRecord(frame.id, frame.body);
        if (!record) {
            Lose(record.error().message);
            return false;
        }
        const auto* state = std::get_if<EngineStateMessage>(&*record);
        final = state != nullptr && link::IsFinalState(*state);
        m_taking = final || !m_ackHeld ? frame.seq : 0;
        m_isRepeat = final && link::IsMarkedRepeat(frame.body);
        // Behind a final status that is not committed the worker sends all again when it comes back.
        const bool isDone = !final && frame.seq <= m_memory.done;
        if (isDone) m_host.OnOtherFrame(*this);
        const bool taken = isDone || m_host.OnRecord(*this, frame.id, *record);
        m_memory.done = std::max(m_memory.done, frame.seq);
        if (m_state == State::Closed) return false;
        if (final) m_ackHeld = !taken;
        has = !m_ackHeld;
    } else {
        m_host.OnLinkTrouble("session " + std::to_string(m_id) + ": unknown message id " +
                             std::to_string(frame.id));
        m_taking = m_ackHeld ? 0 : frame.seq;
        m_host.OnOtherFrame(*this);
    }
    m_received = frame.seq;
    if (has) m_memory.has = m_received;
    AckSoon(final && has);
    return true;
}

void Session::Refuse(const link::Refuse& refuse) {
    if (const auto leftOut = m_place->Lines().Next(SystemClock().Steady())) {
        m_host.OnLinkTrouble("a connection was refused: " + refuse.text +
                             (*leftOut == 0 ? "" : " (and " + std::to_string(*leftOut) + " more before it)"));
    }
    SendControl(link::kRefuseId, link::EncodeRefuse(refuse));
    m_state = State::Leaving;
    m_closeWhenSent = true;
}

// ---- writing ----

void Session::SendOrder(std::uint32_t id, const link::Order& order) {
    if (m_state != State::Open) return;
    auto body = link::EncodeOrder(id, order);
    if (!body) {
        m_host.OnLinkTrouble("session " + std::to_string(m_id) + ": " + body.error().message);
        return;
    }
    m_memory.orders.push_back({++m_memory.sent, id, *body});
    m_outgoing.push_back({m_memory.sent, id, std::move(*body)});
    Write();
}

void Session::SendControl(std::uint32_t id, std::string body) {
    m_outgoing.push_back({0, id, std::move(body)});
    Write();
}

void Session::Write() {
    if (m_isHeld || !m_writing.empty() || m_outgoing.empty() || m_state == State::Closed) return;
    if (std::max(m_outgoing.size(), m_memory.orders.size()) > kMaxOutgoing) {
        Lose("the worker does not read");
        return;
    }
    // Each frame has an acknowledgement, or comes of one.
    m_isHeld = !m_host.MayWrite(shared_from_this());
    if (m_isHeld) return;
    for (auto& frame : m_outgoing) {
        m_writing += link::EncodeFrameHead(frame.seq, m_memory.has, frame.id, frame.body.size());
        m_writing += frame.body;
    }
    m_outgoing.clear();
    m_ackSent = m_memory.has;
    m_writeBegan = SystemClock().Steady();
    boost::asio::async_write(m_socket, boost::asio::buffer(m_writing),
                             [self = shared_from_this()](const boost::system::error_code& error,
                                                         std::size_t) { self->OnWritten(error); });
}

void Session::Flush() {
    m_isHeld = false;
    Write();
}

void Session::OnWritten(const boost::system::error_code& error) {
    m_writing.clear();
    if (m_state == State::Closed) return;
    if (error) {
        Lose(platform::ErrorText(error));
        return;
    }
    m_lastSaid = SystemClock().Steady();
    Write();
    if (m_closeWhenSent && m_writing.empty()) {
        boost::system::error_code ignored;
        m_socket.shutdown(Socket::shutdown_send, ignored);
    }
}

void Session::AckSoon(bool atOnce) {
    if (m_state != State::Open) return;
    if (atOnce) {
        SendControl(link::kAckId);
        return;
    }
    if (m_ackTimerRuns || m_memory.has == m_ackSent) return;
    m_ackTimerRuns = true;
    m_ackTimer.expires_after(m_settings.ackDelay);
    m_ackTimer.async_wait([self = shared_from_this()](const boost::system::error_code& error) {
        self->m_ackTimerRuns = false;
        if (!error && self->m_state == State::Open && self->m_memory.has != self->m_ackSent)
            self->SendControl(link::kAckId);
    });
}

// ---- time ----

void Session::WatchTime() {
    const auto& s = m_settings;
    const milliseconds shortest = std::min({s.pingInterval, s.silenceLimit, s.writeLimit, s.helloLimit});
    const auto step = std::clamp(shortest / 4, milliseconds(10), milliseconds(1000));
    const auto now = SystemClock().Steady();
    auto next = now + step;
    if (m_state == State::Open) {
        // Many workers that wait cost nothing but their pings, and these go together: the times are the same
        // for all sessions. A write that hangs is found a little later.
        const auto due = std::min({m_lastHeard + s.silenceLimit, m_lastSaid + s.pingInterval,
                                   now + std::max(step, s.writeLimit / 2)});
        next = SteadyTime((std::max(due, now).time_since_epoch() / step + 1) * step);
    }
    m_clock.expires_at(next);
    m_clock.async_wait([self = shared_from_this()](const boost::system::error_code& error) {
        if (!error) self->OnTick();
    });
}

void Session::OnTick() {
    if (m_state == State::Closed) return;
    const auto now = SystemClock().Steady();
    if (!m_writing.empty() && now - m_writeBegan >= m_settings.writeLimit) {
        Lose("a write did not complete");
        return;
    }
    if (m_state == State::Handshake && now - m_start >= m_settings.helloLimit) {
        Refuse({link::kRefuseHandshake, "no HELLO came in time"});
        m_lastHeard = now;
    }
    // Refused, or told goodbye: a second to close.
    if (m_state == State::Leaving && now - m_lastSaid >= milliseconds(1000) && m_writing.empty()) {
        Close();
        return;
    }
    if (m_state == State::Open) {
        if (now - m_lastHeard >= m_settings.silenceLimit) {
            Lose("the worker was silent for too long");
            return;
        }
        if (m_reader.Buffered() != 0 && now - m_frameBegan >= m_settings.silenceLimit) {
            Lose("a frame did not come whole in time");
            return;
        }
        if (now - m_lastSaid >= m_settings.pingInterval && m_writing.empty() && m_outgoing.empty())
            SendControl(link::kPingId);
    }
    WatchTime();
}

// ---- the end ----

void Session::End(const std::string& why) {
    if (m_state != State::Open) return;
    SendControl(link::kByeId);
    m_state = State::Leaving;
    m_closeWhenSent = true;
    WatchTime();
    TellHost(why);
}

void Session::Abandon() {
    m_id = 0;
    Close();
}

void Session::Lose(const std::string& why) {
    TellHost(why);
    Close();
}

void Session::TellHost(const std::string& why) {
    if (m_id == 0) return;
    const auto keep = shared_from_this();
    m_host.OnSessionEnd(*this, why);
    m_id = 0;
}

void Session::Close() {
    if (m_state == State::Closed) return;
    m_state = State::Closed;
    m_clock.cancel();
    m_ackTimer.cancel();
    boost::system::error_code ignored;
    m_socket.close(ignored);
    m_place.reset();
}

}  // namespace rq::engine
